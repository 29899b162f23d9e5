// Stand-ins for the programs around the daemon in the end-to-end tests and
// the demo; single-threaded. Started as ".../X" or ".../Xorg" it is an X
// server: it waits to be killed (ten minutes at most). Otherwise it is the
// display program: it writes its arguments and environment to
// ND_RECORD_DIR/display-<MESSAGE_ID>-<pid>.txt (default /run/nd-notify/records)
// and, when ND_RECORD_DIR/../answer holds "<flags> <user>", writes an
// acknowledgement record for MESSAGE_ID to descriptor 60.
#include <stdio.h>
#include <stdlib.h>
#include <string.h>
#include <unistd.h>

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
    return RunDisplay(argc, argv);
}
