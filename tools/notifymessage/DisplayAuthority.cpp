#include "DisplayAuthority.h"

#include <X11/Xauth.h>
#include <fcntl.h>
#include <sys/stat.h>
#include <unistd.h>

#include <cerrno>
#include <cstdio>
#include <cstdlib>
#include <cstring>

namespace notifymsg {

namespace {

std::string Field(const char* data, unsigned short length) {
    return data != nullptr ? std::string(data, length) : std::string();
}

std::string Reason(const std::string& what) {
    return what + ": " + strerror(errno);
}

} // namespace

int DisplayNumber(const std::string& display) {
    const size_t colon = display.rfind(':');
    if (colon == std::string::npos || colon + 1 >= display.size()) {
        return -1;
    }
    long number = 0;
    size_t at = colon + 1;
    for (; at < display.size() && display[at] >= '0' && display[at] <= '9'; ++at) {
        number = number * 10 + (display[at] - '0');
        if (number > 65535) {
            return -1;
        }
    }
    if (at == colon + 1 || (at < display.size() && display[at] != '.')) {
        return -1;
    }
    return int(number);
}

bool ReadDisplayCookies(const std::string& path, int displayNumber,
                        std::vector<AuthorityEntry>& entries, std::string& error) {
    entries.clear();
    const int fd = open(path.c_str(), O_RDONLY | O_NOFOLLOW | O_NONBLOCK | O_NOCTTY | O_CLOEXEC);
    if (fd < 0) {
        error = Reason("cannot open the X authority file " + path);
        return false;
    }
    struct stat info;
    if (fstat(fd, &info) != 0 || !S_ISREG(info.st_mode) || info.st_uid != 0 ||
        size_t(info.st_size) > kMaxAuthorityFileBytes) {
        close(fd);
        error = "the X authority file " + path + " is not a small regular file owned by root";
        return false;
    }
    FILE* file = fdopen(fd, "rb");
    if (file == nullptr) {
        close(fd);
        error = Reason("cannot read the X authority file");
        return false;
    }
    const std::string wanted = std::to_string(displayNumber);
    for (int count = 0; count < kMaxAuthorityEntries; ++count) {
        Xauth* entry = XauReadAuth(file);
        if (entry == nullptr) {
            break;
        }
        AuthorityEntry copy;
        copy.family = entry->family;
        copy.address = Field(entry->address, entry->address_length);
        copy.number = Field(entry->number, entry->number_length);
        copy.name = Field(entry->name, entry->name_length);
        copy.data = Field(entry->data, entry->data_length);
        XauDisposeAuth(entry);
        if (copy.number == wanted && !copy.name.empty() && !copy.data.empty()) {
            entries.push_back(std::move(copy));
        }
    }
    fclose(file);
    if (entries.empty()) {
        error = "the X authority file " + path + " has no cookie for display :" + wanted;
        return false;
    }
    return true;
}

bool WriteUserAuthority(const std::vector<AuthorityEntry>& entries, const std::string& directory,
                        uid_t uid, gid_t gid, std::string& path, std::string& error) {
    struct stat info;
    if (lstat(directory.c_str(), &info) != 0 || !S_ISDIR(info.st_mode) || info.st_uid != uid ||
        (info.st_mode & (S_IWGRP | S_IWOTH)) != 0) {
        error = "no private runtime directory " + directory + " for the desktop user";
        return false;
    }
    path = directory + "/.notifymessage-Xauthority-" + std::to_string(getpid());
    unlink(path.c_str()); // a leftover of an earlier run with this pid (never followed)
    const int fd =
        open(path.c_str(), O_WRONLY | O_CREAT | O_EXCL | O_NOFOLLOW | O_CLOEXEC, S_IRUSR | S_IWUSR);
    if (fd < 0) {
        error = Reason("cannot create " + path);
        return false;
    }
    FILE* file = fdopen(fd, "wb");
    if (file == nullptr || fchown(fd, uid, gid) != 0) {
        error = Reason("cannot hand " + path + " to the desktop user");
        file != nullptr ? fclose(file) : close(fd);
        unlink(path.c_str());
        return false;
    }
    bool written = true;
    for (const AuthorityEntry& entry : entries) {
        std::string address = entry.address, number = entry.number, name = entry.name,
                    data = entry.data;
        Xauth out{};
        out.family = kFamilyWild; // the display manager's host name may not be ours
        out.address = &address[0];
        out.address_length = 0;
        out.number = &number[0];
        out.number_length = (unsigned short)number.size();
        out.name = &name[0];
        out.name_length = (unsigned short)name.size();
        out.data = &data[0];
        out.data_length = (unsigned short)data.size();
        written = written && XauWriteAuth(file, &out) == 1;
    }
    if (fclose(file) != 0 || !written) {
        error = Reason("cannot write " + path);
        unlink(path.c_str());
        return false;
    }
    return true;
}

} // namespace notifymsg
