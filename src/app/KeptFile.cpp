#include "app/KeptFile.h"

#include <errno.h>
#include <fcntl.h>
#include <stdio.h>
#include <string.h>
#include <sys/stat.h>
#include <unistd.h>

#include "log/Log.h"

namespace {

constexpr mode_t kDirectoryMode = 0755;
constexpr mode_t kFileMode = 0600;
constexpr mode_t kWritableByOthers = S_IWGRP | S_IWOTH;

// Writes all of `bytes`; 0 or the errno.
int WriteAll(int fd, const std::string& bytes) {
    size_t done = 0;
    while (done < bytes.size()) {
        const ssize_t n = write(fd, bytes.data() + done, bytes.size() - done);
        if (n < 0 && errno == EINTR) {
            continue;
        }
        if (n <= 0) {
            return n < 0 ? errno : EIO;
        }
        done += size_t(n);
    }
    return 0;
}

bool OwnedAndPrivate(const struct stat& info) {
    return info.st_uid == geteuid() && (info.st_mode & kWritableByOthers) == 0;
}

} // namespace

KeptFile::KeptFile(const std::string& directory, const std::string& name)
    : m_directory(directory), m_path(directory + "/" + name) {}

bool KeptFile::DirectoryUsable() {
    if (mkdir(m_directory.c_str(), kDirectoryMode) != 0 && errno != EEXIST) {
        return false;
    }
    struct stat info;
    return lstat(m_directory.c_str(), &info) == 0 && S_ISDIR(info.st_mode) && OwnedAndPrivate(info);
}

bool KeptFile::ReadBytes(std::string& bytes, std::string& why) {
    // A directory that is a link, or writable by others, could hold anyone's file.
    if (!DirectoryUsable()) {
        vel::Log("Kept records directory " + m_directory + " unusable: " + m_path + " not read");
        return false;
    }
    // No following of links, no blocking on a FIFO, no controlling terminal.
    const int fd = open(m_path.c_str(), O_RDONLY | O_NOFOLLOW | O_NONBLOCK | O_CLOEXEC | O_NOCTTY);
    if (fd == -1) {
        if (errno == ENOENT) {
            return false;
        }
        SetAside(std::string("cannot be opened: ") + strerror(errno));
        return false;
    }
    struct stat info;
    if (fstat(fd, &info) != 0 || !S_ISREG(info.st_mode)) {
        why = "not a plain file";
    } else if (!OwnedAndPrivate(info)) {
        why = "owned by another user or writable by others";
    } else if (size_t(info.st_size) > kMaxKeptFileBytes) {
        why = "size " + std::to_string(info.st_size) + " out of bounds";
    } else {
        // One byte more than the bound: a file that grew meanwhile is caught.
        bytes.resize(kMaxKeptFileBytes + 1);
        size_t got = 0;
        for (;;) {
            const ssize_t n = read(fd, &bytes[got], bytes.size() - got);
            if (n < 0 && errno == EINTR) {
                continue;
            }
            if (n <= 0 || (got += size_t(n)) == bytes.size()) {
                break;
            }
        }
        bytes.resize(got);
    }
    close(fd);
    if (!why.empty()) {
        SetAside(why);
        return false;
    }
    return true;
}

void KeptFile::SetAside(const std::string& why) {
    const std::string aside = m_path + kSetAsideSuffix;
    const bool moved = rename(m_path.c_str(), aside.c_str()) == 0;
    vel::Log("Kept records file " + m_path + " not used (" + why +
             "): " + (moved ? "set aside as " + aside : std::string("could not be set aside")));
}

void KeptFile::SaveBytes(const std::string& bytes) {
    const int error = DirectoryUsable() ? WriteAtomically(bytes) : ENOTDIR;
    if (error == 0) {
        m_failureLogged = false;
        return;
    }
    if (!m_failureLogged) {
        m_failureLogged = true;
        vel::Log("Kept records file " + m_path + " not saved (" +
                 (error == ENOTDIR ? std::string("cache directory unusable") : strerror(error)) +
                 "): kept in memory only");
    }
}

int KeptFile::WriteAtomically(const std::string& bytes) {
    const std::string temporary = m_path + ".new";
    unlink(temporary.c_str()); // whatever was left there, a link included
    const int fd =
        open(temporary.c_str(), O_WRONLY | O_CREAT | O_EXCL | O_NOFOLLOW | O_CLOEXEC, kFileMode);
    if (fd == -1) {
        return errno;
    }
    int error = WriteAll(fd, bytes);
    if (error == 0 && fsync(fd) != 0) {
        error = errno;
    }
    if (close(fd) != 0 && error == 0) {
        error = errno;
    }
    if (error == 0 && rename(temporary.c_str(), m_path.c_str()) != 0) {
        error = errno;
    }
    if (error != 0) {
        unlink(temporary.c_str());
        return error;
    }
    const int directory = open(m_directory.c_str(), O_RDONLY | O_DIRECTORY | O_CLOEXEC);
    if (directory != -1) {
        fsync(directory);
        close(directory);
    }
    return 0;
}
