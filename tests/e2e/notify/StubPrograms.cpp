// Stand-ins for the programs around the daemon in the end-to-end tests and
// the demo; single-threaded. Started as ".../X" or ".../Xorg" it is an X
// server: it waits to be killed (ten minutes at most). With the arguments
// "--login USER" it adds a login record for USER on the console display ":0"
// (a desktop log-in) and exits. Otherwise it is the
// display program: it writes its arguments and environment to
// ND_RECORD_DIR/display-<MESSAGE_ID>-<pid>.txt (default /run/nd-notify/records)
// and, when ND_RECORD_DIR/../answer holds "<flags> <user>", writes an
// acknowledgement record for MESSAGE_ID to descriptor 60.
#include <stdio.h>
#include <stdlib.h>
#include <string.h>
#include <time.h>
#include <unistd.h>
#include <utmp.h>

#include <fstream>
#include <sstream>
#include <string>

extern char** environ;

namespace {

constexpr int kAcknowledgeDaemonPort = 60;
constexpr int kMinRecordSize = 16;
constexpr unsigned kServerLifetimeSeconds = 600;

std::string BaseName(const char* path) {
    const char* slash = strrchr(path, '/');
    return slash != nullptr ? slash + 1 : path;
}

int RunServer() {
    alarm(kServerLifetimeSeconds);
    for (;;) {
        pause();
    }
}

// One write of the whole record, padded to the least size a reader takes.
void Acknowledge(int messageId, int flags, const std::string& user) {
    std::string record(12, '\0');
    const unsigned length = unsigned(user.size());
    memcpy(&record[0], &messageId, 4);
    memcpy(&record[4], &flags, 4);
    memcpy(&record[8], &length, 4);
    record += user;
    record += '\0';
    if (record.size() < size_t(kMinRecordSize)) {
        record.resize(kMinRecordSize, '\0');
    }
    if (write(kAcknowledgeDaemonPort, record.data(), record.size()) != ssize_t(record.size())) {
        perror("acknowledgement");
    }
}

int AddLoginRecord(const char* user) {
    struct utmp record;
    memset(&record, 0, sizeof record);
    record.ut_type = USER_PROCESS;
    record.ut_pid = getpid();
    strncpy(record.ut_line, ":0", sizeof record.ut_line);
    strncpy(record.ut_id, ":0", sizeof record.ut_id);
    strncpy(record.ut_user, user, sizeof record.ut_user);
    record.ut_tv.tv_sec = int32_t(time(nullptr));
    utmpname(_PATH_UTMP);
    setutent();
    const bool written = pututline(&record) != nullptr;
    endutent();
    return written ? 0 : 1;
}

int RunDisplay(int argc, char** argv) {
    const char* dir = getenv("ND_RECORD_DIR");
    const std::string records = dir != nullptr ? dir : "/run/nd-notify/records";
    const char* id = getenv("MESSAGE_ID");
    const std::string name = records + "/display-" + (id != nullptr ? id : "none") + "-" +
                             std::to_string(getpid()) + ".txt";
    {
        std::ofstream out(name + ".part");
        for (int i = 0; i < argc; ++i) {
            out << "arg:" << argv[i] << "\n";
        }
        for (char** entry = environ; *entry != nullptr; ++entry) {
            out << "env:" << *entry << "\n";
        }
    }
    rename((name + ".part").c_str(), name.c_str()); // appears whole

    std::ifstream answer(records + "/../answer");
    int flags = 0;
    std::string user;
    if (id != nullptr && answer >> flags >> user) {
        Acknowledge(atoi(id), flags, user);
    }
    return 0;
}

} // namespace

int main(int argc, char** argv) {
    const std::string self = BaseName(argv[0]);
    if (self == "X" || self == "Xorg") {
        return RunServer();
    }
    if (argc == 3 && strcmp(argv[1], "--login") == 0) {
        return AddLoginRecord(argv[2]);
    }
    return RunDisplay(argc, argv);
}
