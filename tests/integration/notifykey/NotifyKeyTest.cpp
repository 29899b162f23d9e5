// notifykey run as an admin would: arguments, standard input, exit status and
// the exact text it prints.
#include "transport/password.h"

#include <fcntl.h>
#include <gtest/gtest.h>
#include <poll.h>
#include <sys/wait.h>
#include <unistd.h>

#include <string>
#include <vector>

namespace {

struct Result {
    int status = -1;
    std::string out;
};

// Runs notifykey (standard error to /dev/null); the input is small enough
// for the pipe's buffer.
Result NotifyKey(const std::vector<std::string>& args, const std::string& input = "") {
    int in[2], out[2];
    Result result;
    if (pipe(in) != 0 || pipe(out) != 0) {
        return result;
    }
    std::vector<char*> argv = {const_cast<char*>(ND_NOTIFYKEY_PATH)};
    for (const std::string& arg : args) {
        argv.push_back(const_cast<char*>(arg.c_str()));
    }
    argv.push_back(nullptr);
    const pid_t pid = fork();
    if (pid == 0) {
        dup2(in[0], 0);
        dup2(out[1], 1);
        dup2(open("/dev/null", O_WRONLY), 2);
        for (int fd : {in[0], in[1], out[0], out[1]}) {
            close(fd);
        }
        execv(argv[0], argv.data());
        _exit(127);
    }
    close(in[0]);
    close(out[1]);
    EXPECT_EQ(write(in[1], input.data(), input.size()), ssize_t(input.size()));
    close(in[1]);
    pollfd done{out[0], POLLIN, 0};
    if (poll(&done, 1, 10000) <= 0) {
        kill(pid, SIGKILL);
    }
    char buffer[4096];
    for (ssize_t got; (got = read(out[0], buffer, sizeof buffer)) > 0;) {
        result.out.append(buffer, size_t(got));
    }
    close(out[0]);
    int status = 0;
    waitpid(pid, &status, 0);
    result.status = WIFEXITED(status) ? WEXITSTATUS(status) : -1;
    return result;
}

TEST(NotifyKey, KnownVectorAndRoundTrips) {
    const Result known = NotifyKey({"secret"});
    EXPECT_EQ(known.status, 0);
    EXPECT_EQ(known.out, ">OHA?JGG>AEG\n");

    const std::vector<std::string> keys = {"a",     "ABCDEFGHIJKLMNO", "cl\xc3\xa9\xff\x80",
                                           "-dash", " spaced ",        "=;#[]|\\\"'\x7f\x01"};
    for (const std::string& key : keys) {
        SCOPED_TRACE(key);
        const Result encoded = NotifyKey({"--", key});
        ASSERT_EQ(encoded.status, 0);
        const std::string stored = encoded.out.substr(0, encoded.out.size() - 1);
        char library[64] = {};
        _EncryptPassword(kPasswordSeed, key.c_str(), library, sizeof library);
        EXPECT_EQ(stored, library); // what the daemon decodes
        EXPECT_EQ(NotifyKey({}, key + "\r\n").out, encoded.out);
        EXPECT_EQ(NotifyKey({"--decode", stored}).out, key + "\n");
        EXPECT_EQ(NotifyKey({"-d"}, stored + "\n").out, key + "\n");
    }
}

TEST(NotifyKey, RefusesWhatTheDaemonCouldNotUse) {
    const std::pair<std::vector<std::string>, int> cases[] = {
        {{"0123456789abcdef"}, 1},         // 16 bytes
        {{""}, 1},                         // empty
        {{"--decode", ">OHA?JGG>AE"}, 1},  // odd length
        {{"--decode", ">oha?jgg>aeg"}, 1}, // not a stored form
        {{"one", "two"}, 2},
    };
    for (const auto& [args, status] : cases) {
        const Result result = NotifyKey(args);
        EXPECT_EQ(result.status, status) << args[0];
        EXPECT_EQ(result.out, "") << args[0];
    }
}

} // namespace
