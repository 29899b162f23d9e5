// Stand-ins for the tests, the demo and the benchmarks. As ".../X" or
// ".../Xorg": an X server waiting to be killed (ten minutes at most). With
// "--login USER": a login record for USER on ":0". Else the display program:
// args and environment to ND_RECORD_DIR/display-<MESSAGE_ID>-<pid>.txt
// (default /run/nd-notify/records); if ../answer holds "<flags> <user>", an
// acknowledgement for MESSAGE_ID on descriptor 60.
#include <stdlib.h>
#include <string.h>
#include <time.h>
#include <unistd.h>
#include <utmp.h>

#include <algorithm>
#include <fstream>
#include <string>

extern char** environ;

namespace {

int AddLoginRecord(const char* user) {
    struct utmp record = {};
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
    int32_t fields[3] = {id != nullptr ? atoi(id) : 0, 0, 0}; // id, flags, name length
    std::string user;
    if (id != nullptr && answer >> fields[1] >> user) {
        // One write of the whole record, padded to the least size a reader takes.
        fields[2] = int32_t(user.size());
        std::string record(reinterpret_cast<const char*>(fields), sizeof fields);
        record += user + '\0';
        record.resize(std::max<size_t>(record.size(), 16), '\0');
        return write(60, record.data(), record.size()) == ssize_t(record.size()) ? 0 : 1;
    }
    return 0;
}

} // namespace

int main(int argc, char** argv) {
    const char* slash = strrchr(argv[0], '/');
    const std::string self = slash != nullptr ? slash + 1 : argv[0];
    if (self == "X" || self == "Xorg") {
        alarm(600);
        for (;;) {
            pause();
        }
    }
    if (argc == 3 && strcmp(argv[1], "--login") == 0) {
        return AddLoginRecord(argv[2]);
    }
    return RunDisplay(argc, argv);
}
