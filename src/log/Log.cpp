#include "log/Log.h"

#include <cxxabi.h>
#include <ext/stdio_filebuf.h>
#include <fcntl.h>
#include <unistd.h>

#include <cerrno>
#include <cstdio>
#include <ctime>
#include <memory>
#include <mutex>

namespace vel {

std::ostream gLog(nullptr);
bool gLogging = false;

namespace {
// Lines come from the main thread, the transport's threads and trace; one
// lock keeps each line in one piece and the stream free of data races.
std::mutex gLogMutex;
// The file behind gLog. Opened close-on-exec so that the display programs the
// daemon starts (which drop to the desktop user) never inherit a descriptor
// that writes into root's log.
std::unique_ptr<__gnu_cxx::stdio_filebuf<char>> gLogFile;

void WriteFully(int fd, const char* data, std::size_t length) {
    while (length > 0) {
        ssize_t done = write(fd, data, length);
        if (done < 0 && errno == EINTR) {
            continue;
        }
        if (done <= 0) {
            return;
        }
        data += done;
        length -= static_cast<std::size_t>(done);
    }
}
} // namespace

std::string FormatLogLine(const std::string& message) {
    char prefix[256] = {0};
    time_t now = time(nullptr);
    struct tm local;
    if (localtime_r(&now, &local) != nullptr) {
        strftime(prefix, sizeof prefix, "%F %T ", &local);
    }
    return std::string(prefix) + message;
}

void StartLog() {
    std::lock_guard<std::mutex> hold(gLogMutex);
    if (gLogging) {
        return;
    }
    int fd = open(kLogPath, O_WRONLY | O_APPEND | O_CREAT | O_CLOEXEC, 0644);
    if (fd == -1) {
        return; // stderr only; a later StartLog tries again
    }
    gLogFile = std::make_unique<__gnu_cxx::stdio_filebuf<char>>(fd, std::ios::out | std::ios::app);
    gLog.rdbuf(gLogFile.get());
    gLog.clear();
    gLogging = true;
}

void Log(const std::string& message) {
    try {
        std::string line = FormatLogLine(message) + "\n";
        std::lock_guard<std::mutex> hold(gLogMutex);
        if (gLogging) {
            gLog.write(line.data(), static_cast<std::streamsize>(line.size()));
            gLog.flush();
        }
        fwrite(line.data(), 1, line.size(), stderr);
        fflush(stderr);
    } catch (abi::__forced_unwind&) {
        throw; // a cancelled thread must finish unwinding
    } catch (...) {
        // Logging must never take the caller down.
    }
}

void StopLog() {
    std::lock_guard<std::mutex> hold(gLogMutex);
    if (!gLogging) {
        return;
    }
    gLog.flush();
    gLog.rdbuf(nullptr);
    gLogFile.reset(); // closes the descriptor
    gLogging = false;
}

void WriteLogLineAfterFork(const char* line, std::size_t length) {
    // The child is single-threaded, so reading gLogging unguarded is safe here;
    // the file is opened anew because gLog's buffer may hold another thread's
    // half-written line.
    if (gLogging) {
        int fd = open(kLogPath, O_WRONLY | O_APPEND | O_CLOEXEC);
        if (fd != -1) {
            WriteFully(fd, line, length);
            close(fd);
        }
    }
    WriteFully(STDERR_FILENO, line, length);
}

} // namespace vel
