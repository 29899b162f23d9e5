// One file of kept records under the cache directory (which must be a real
// directory, ours and not writable by others), replaced atomically
// (temporary file, fsync, rename, fsync of the directory). What is found
// there is not trusted: anything but a plain file of ours within the size
// bound, holding a whole undamaged record file, is logged and renamed aside
// with ".bad" appended. A failed save is logged once (until one succeeds
// again) and the records stay in memory. The owner serialises the calls.
#pragma once

#include <string>
#include <vector>

#include "app/KeptFormat.h"

constexpr const char* kKeptDirectory = "/var/cache/notifydaemon";
constexpr const char* kSetAsideSuffix = ".bad";

class KeptFile {
public:
    // `name` is the file's name in `directory`.
    KeptFile(const std::string& directory, const std::string& name);

    // The records saved before; none when there is no file or it was set aside.
    template <class Record> std::vector<Record> Load() {
        std::vector<Record> records;
        std::string bytes, why;
        if (ReadBytes(bytes, why) && !DecodeKept(bytes, records, why)) {
            SetAside(why);
        }
        return records;
    }
    template <class Record> void Save(const std::vector<Record>& records) {
        SaveBytes(EncodeKept(records));
    }
    const std::string& Path() const { return m_path; }

private:
    // False when there is nothing to decode: no file, or one set aside.
    bool ReadBytes(std::string& bytes, std::string& why);
    void SetAside(const std::string& why);
    void SaveBytes(const std::string& bytes);
    // 0, or the errno of the step that failed.
    int WriteAtomically(const std::string& bytes);
    bool DirectoryUsable();

    std::string m_directory;
    std::string m_path;
    bool m_failureLogged = false;
};
