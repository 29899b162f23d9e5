// notifykey run as an admin would: arguments, standard input, exit status and
// the exact text it prints.
#include <fcntl.h>
#include <gtest/gtest.h>

#include "E2E.h"

#include <string>
#include <vector>

namespace {

struct Result {
    int status = -1;
    std::string out;
};

// Runs notifykey (standard error to /dev/null); input and output are small
// enough for the pipes' buffers.
Result NotifyKey(const std::vector<std::string>& args, const std::string& input = "") {
    int in[2], out[2];
    Result result;
    if (pipe2(in, O_CLOEXEC) != 0 || pipe2(out, O_CLOEXEC) != 0) {
        return result;
    }
    std::vector<std::string> argv = {ND_NOTIFYKEY_PATH};
    argv.insert(argv.end(), args.begin(), args.end());
    const int null = open("/dev/null", O_WRONLY | O_CLOEXEC);
    const pid_t pid = e2e::Spawn(ND_NOTIFYKEY_PATH, argv, {}, {{0, in[0]}, {1, out[1]}, {2, null}});
    for (int fd : {in[0], out[1], null}) {
        close(fd);
    }
    EXPECT_EQ(write(in[1], input.data(), input.size()), ssize_t(input.size()));
    close(in[1]);
    const int status = e2e::WaitForExit(pid, 10);
    result.out = e2e::ReadFile("/proc/self/fd/" + std::to_string(out[0]));
    close(out[0]);
    result.status = status != -1 && WIFEXITED(status) ? WEXITSTATUS(status) : -1;
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
