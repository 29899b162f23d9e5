#include "app/KeptFormat.h"

#include <string.h>

#include "transport/CRC32.h"

namespace {

constexpr char kMagic[] = "NDKQ";
constexpr uint16_t kKindAcknowledgements = 1;
constexpr uint16_t kKindNotifications = 2;
constexpr size_t kHeaderBytes = 12;
constexpr size_t kChecksumBytes = 4;

uint32_t Checksum(const std::string& bytes, size_t length) {
    return CRC32_Update(0xFFFFFFFFu, bytes.data(), int(length)) ^ 0xFFFFFFFFu;
}

class Writer {
public:
    explicit Writer(uint16_t kind, size_t count) {
        m_bytes.append(kMagic, 4);
        Unsigned(kKeptFormatVersion, 2);
        Unsigned(kind, 2);
        Unsigned(count, 4);
    }
    void Unsigned(uint64_t value, int bytes) {
        for (int i = 0; i < bytes; ++i) {
            m_bytes.push_back(char((value >> (8 * i)) & 0xFF));
        }
    }
    void Text(const std::string& text) {
        Unsigned(text.size(), 4);
        m_bytes += text;
    }
    std::string Finish() {
        Unsigned(Checksum(m_bytes, m_bytes.size()), 4);
        return m_bytes;
    }

private:
    std::string m_bytes;
};

// Every read is checked against the end before the checksum.
class Reader {
public:
    Reader(const std::string& bytes, size_t end) : m_bytes(bytes), m_end(end) {}
    bool Unsigned(uint64_t& value, int bytes) {
        if (m_end - m_at < size_t(bytes)) {
            return false;
        }
        value = 0;
        for (int i = 0; i < bytes; ++i) {
            value |= uint64_t(uint8_t(m_bytes[m_at + size_t(i)])) << (8 * i);
        }
        m_at += size_t(bytes);
        return true;
    }
    bool Int32(int& value) {
        uint64_t raw = 0;
        if (!Unsigned(raw, 4)) {
            return false;
        }
        value = int(int32_t(uint32_t(raw)));
        return true;
    }
    bool Int64(int64_t& value) {
        uint64_t raw = 0;
        if (!Unsigned(raw, 8)) {
            return false;
        }
        value = int64_t(raw);
        return true;
    }
    bool Text(std::string& text) {
        uint64_t length = 0;
        if (!Unsigned(length, 4) || length > kMaxKeptTextBytes || m_end - m_at < length) {
            return false;
        }
        text.assign(m_bytes, m_at, size_t(length));
        m_at += size_t(length);
        return true;
    }
    size_t At() const { return m_at; }

private:
    const std::string& m_bytes;
    size_t m_end;
    size_t m_at = 0;
};

bool Read(Reader& in, KeptAcknowledgement& record) {
    return in.Int32(record.id) && in.Int32(record.flags) && in.Text(record.user);
}

bool Read(Reader& in, KeptNotification& record) {
    return in.Int32(record.id) && in.Int64(record.arrival) && in.Text(record.message) &&
           in.Text(record.caption) && in.Text(record.timeout) && in.Text(record.flags);
}

template <class Record>
bool Decode(const std::string& bytes, uint16_t kind, std::vector<Record>& records,
            std::string& why) {
    records.clear();
    if (bytes.size() < kHeaderBytes + kChecksumBytes || bytes.size() > kMaxKeptFileBytes) {
        why = "size " + std::to_string(bytes.size()) + " out of bounds";
        return false;
    }
    const size_t end = bytes.size() - kChecksumBytes;
    uint32_t stored = 0;
    for (size_t i = 0; i < kChecksumBytes; ++i) {
        stored |= uint32_t(uint8_t(bytes[end + i])) << (8 * i);
    }
    Reader in(bytes, end);
    uint64_t ignored = 0;
    uint64_t version = 0, fileKind = 0, count = 0;
    if (bytes.compare(0, 4, kMagic, 4) != 0) {
        why = "not a kept-records file";
    } else if (stored != Checksum(bytes, end)) {
        why = "checksum mismatch";
    } else if (!in.Unsigned(ignored, 4) || !in.Unsigned(version, 2) ||
               version != kKeptFormatVersion) {
        why = "format version " + std::to_string(version);
    } else if (!in.Unsigned(fileKind, 2) || fileKind != kind) {
        why = "records of another kind";
    } else if (!in.Unsigned(count, 4) || count > kMaxKeptRecords) {
        why = "too many records";
    } else {
        for (uint64_t i = 0; i < count; ++i) {
            Record record;
            if (!Read(in, record)) {
                why = "record " + std::to_string(i) + " damaged";
                records.clear();
                return false;
            }
            records.push_back(std::move(record));
        }
        if (in.At() == end) {
            return true;
        }
        why = "bytes after the last record";
    }
    records.clear();
    return false;
}

} // namespace

std::string EncodeKept(const std::vector<KeptAcknowledgement>& records) {
    Writer out(kKindAcknowledgements, records.size());
    for (const KeptAcknowledgement& record : records) {
        out.Unsigned(uint32_t(record.id), 4);
        out.Unsigned(uint32_t(record.flags), 4);
        out.Text(record.user);
    }
    return out.Finish();
}

std::string EncodeKept(const std::vector<KeptNotification>& records) {
    Writer out(kKindNotifications, records.size());
    for (const KeptNotification& record : records) {
        out.Unsigned(uint32_t(record.id), 4);
        out.Unsigned(uint64_t(record.arrival), 8);
        out.Text(record.message);
        out.Text(record.caption);
        out.Text(record.timeout);
        out.Text(record.flags);
    }
    return out.Finish();
}

size_t KeptSize(const KeptAcknowledgement& record) {
    return 12 + record.user.size();
}

size_t KeptSize(const KeptNotification& record) {
    return 28 + record.message.size() + record.caption.size() + record.timeout.size() +
           record.flags.size();
}

bool DecodeKept(const std::string& bytes, std::vector<KeptAcknowledgement>& records,
                std::string& why) {
    return Decode(bytes, kKindAcknowledgements, records, why);
}

bool DecodeKept(const std::string& bytes, std::vector<KeptNotification>& records,
                std::string& why) {
    return Decode(bytes, kKindNotifications, records, why);
}
