#include "host/ForkProcess.h"

#include "host/CommandText.h"
#include "host/PipeSubprocess.h"
#include "log/Log.h"

#include <unistd.h>

#include <cstdlib>

namespace vel {

namespace {

constexpr const char* kXServerQuery =
    "ps wax -o cmd | egrep '^/.*/(X|Xorg) .*-auth ' | grep -v grep";

constexpr const char* kProcessQueryHead = "/bin/ps -ax -o pid,command | /usr/bin/grep -i ";
constexpr const char* kProcessQueryTail =
    " | egrep -v grep | /usr/bin/sed -e \"s/[ ]*\\([^ ]*\\).*/\\1/; \"";

} // namespace

int ForkGuiProcess(const char* directory, const char* command, char** putenvs) {
    std::string path = std::string(directory != nullptr ? directory : "") + "/" +
                       (command != nullptr ? command : "");
    std::string authority;
    GetXAuthority(authority);
    if (authority.empty()) {
        return -1;
    }
    // Everything the child needs is built here: fork copies only this thread,
    // so between fork and exec the child must not allocate under a lock that
    // another thread might have held, nor take the log's lock.
    std::string failure = FormatLogLine("Error launching child process") + "\n";
    char* argv[] = {&path[0], nullptr};

    pid_t child = fork();
    if (child == -1) {
        Log("Couldn't fork UI Process");
        return -1;
    }
    if (child == 0) {
        if (geteuid() == 0) {
            setenv("XAUTHORITY", authority.c_str(), 1);
            setenv("DISPLAY", ":0.0", 1);
            setenv("XAUTHLOCALHOSTNAME", "localhost", 1);
        }
        for (char** entry = putenvs; entry != nullptr && *entry != nullptr; ++entry) {
            putenv(*entry);
        }
        execv(argv[0], argv);
        WriteLogLineAfterFork(failure.data(), failure.size());
        // Not exit: the parent's atexit handlers and static objects are its own.
        _exit(1);
    }
    return child;
}

int ForkGuiProcessWithEnvironment(const char* directory, const char* command, char** environment) {
    std::string path = std::string(directory != nullptr ? directory : "") + "/" +
                       (command != nullptr ? command : "");
    std::string failure = FormatLogLine("Error launching child process") + "\n";
    char* argv[] = {&path[0], nullptr};
    char* none[] = {nullptr};
    pid_t child = fork();
    if (child == -1) {
        Log("Couldn't fork UI Process");
        return -1;
    }
    if (child == 0) {
        execve(argv[0], argv, environment != nullptr ? environment : none);
        WriteLogLineAfterFork(failure.data(), failure.size());
        _exit(1);
    }
    return child;
}

void GetXAuthority(std::string& out) {
    std::string serverLine;
    PipeSubprocess(kXServerQuery, serverLine);
    out = AuthorityPathFrom(serverLine);
}

void GetDBUS_SESSION_BUS_ADDRESS(std::string& out) {
    std::string text;
    ReadCommandOutput(
        "dbus-launch --auto-syntax --exit-with-session | grep DBUS_SESSION_BUS_ADDRESS", text);
    out = SessionBusAddressFrom(text);
}

bool ProcessIsRunning(const char* name) {
    std::string text;
    ReadCommandOutput(
        std::string(kProcessQueryHead) + (name != nullptr ? name : "") + kProcessQueryTail, text);
    return text.size() >= 2; // at least one digit of a process id and its line feed
}

bool IsSafeToLaunchGuiApp() {
    return true;
}

} // namespace vel
