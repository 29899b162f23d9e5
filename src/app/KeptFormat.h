// The record files of kept acknowledgements and notifications: pure encoding
// and strict decoding, no I/O. Any thread; no state.
//
// Layout, integers little-endian:
//   0  4  "NDKQ"
//   4  2  format version, 1
//   6  2  kind: 1 acknowledgements, 2 notifications
//   8  4  number of records
//  12     the records, in queue order:
//         acknowledgement: id (i32), flags (i32), user name (text)
//         notification: id (i32), arrival (i64, seconds since the epoch),
//                       message, caption, time-out, flags (four texts)
//         a text is its length (u32) and its bytes, no NUL
//  end 4  CRC-32 (as zlib's) of every byte before it
#pragma once

#include <stdint.h>

#include <string>
#include <vector>

constexpr size_t kMaxKeptRecords = 1000;
constexpr size_t kMaxKeptFileBytes = 4 * 1024 * 1024;
// One environment entry's limit: a longer text could not be shown anyway.
constexpr size_t kMaxKeptTextBytes = 128 * 1024;
constexpr uint16_t kKeptFormatVersion = 1;

struct KeptAcknowledgement {
    int id = 0;
    int flags = 0;
    std::string user;
};

struct KeptNotification {
    int id = 0;
    int64_t arrival = 0;
    std::string message;
    std::string caption;
    std::string timeout;
    std::string flags;
};

std::string EncodeKept(const std::vector<KeptAcknowledgement>& records);
std::string EncodeKept(const std::vector<KeptNotification>& records);
// Bytes of one record in the file, to keep a queue within kMaxKeptFileBytes.
size_t KeptSize(const KeptAcknowledgement& record);
size_t KeptSize(const KeptNotification& record);

// False with the reason when the bytes are not a whole, undamaged file of
// this kind within the bounds; `records` is then left empty.
bool DecodeKept(const std::string& bytes, std::vector<KeptAcknowledgement>& records,
                std::string& why);
bool DecodeKept(const std::string& bytes, std::vector<KeptNotification>& records, std::string& why);
