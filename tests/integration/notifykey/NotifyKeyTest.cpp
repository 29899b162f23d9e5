// notifykey run as an admin would: arguments, standard input, exit status and
// the exact text it prints.
#include "transport/password.h"

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
    std::string err;
};

std::string Drain(int fd) {
    std::string text;
    char buffer[4096];
    for (ssize_t got; (got = read(fd, buffer, sizeof buffer)) > 0;) {
        text.append(buffer, size_t(got));
    }
    close(fd);
    return text;
}

// Runs notifykey with the arguments and standard input (small enough for the
// pipes' buffers, so no reader thread is needed).
Result NotifyKey(const std::vector<std::string>& args, const std::string& input = "") {
    int in[2], out[2], err[2];
    Result result;
    if (pipe(in) != 0 || pipe(out) != 0 || pipe(err) != 0) {
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
        dup2(err[1], 2);
        for (int fd : {in[0], in[1], out[0], out[1], err[0], err[1]}) {
            close(fd);
        }
        execv(argv[0], argv.data());
        _exit(127);
    }
    close(in[0]);
    close(out[1]);
    close(err[1]);
    if (write(in[1], input.data(), input.size()) != ssize_t(input.size())) {
        ADD_FAILURE() << "short write to notifykey";
    }
    close(in[1]);
    pollfd done{out[0], POLLIN, 0};
    if (poll(&done, 1, 10000) <= 0) {
        kill(pid, SIGKILL);
    }
    result.out = Drain(out[0]);
    result.err = Drain(err[0]);
    int status = 0;
    waitpid(pid, &status, 0);
    result.status = WIFEXITED(status) ? WEXITSTATUS(status) : -1;
    return result;
}

std::string LibraryStoredForm(const std::string& clear) {
    char out[64] = {};
    _EncryptPassword(kPasswordSeed, clear.c_str(), out, sizeof out);
    return out;
}

TEST(NotifyKey, PrintsTheStoredFormTheDaemonDecodes) {
    const Result result = NotifyKey({"secret"});
    EXPECT_EQ(result.status, 0);
    EXPECT_EQ(result.out, ">OHA?JGG>AEG\n");
    EXPECT_EQ(result.out, LibraryStoredForm("secret") + "\n");
    EXPECT_EQ(result.err, "");
}

TEST(NotifyKey, KeysRoundTripThroughArgumentsAndStandardInput) {
    const std::vector<std::string> keys = {
        "a",     "secret",   "ABCDEFGHIJKLMNO", "cl\xc3\xa9\xff\x80",
        "-dash", " spaced ", "=;#[]|\\\"'",     "\x7f\x01\x1f"};
    for (const std::string& key : keys) {
        SCOPED_TRACE(key);
        const Result encoded = NotifyKey({"--", key});
        ASSERT_EQ(encoded.status, 0) << encoded.err;
        const std::string stored = encoded.out.substr(0, encoded.out.size() - 1);
        EXPECT_EQ(stored, LibraryStoredForm(key));
        EXPECT_EQ(stored.size(), 2 * key.size());
        EXPECT_EQ(NotifyKey({}, key + "\n").out, encoded.out);
        EXPECT_EQ(NotifyKey({}, key + "\r\n").out, encoded.out);

        EXPECT_EQ(NotifyKey({"--decode", stored}).out, key + "\n");
        EXPECT_EQ(NotifyKey({"-d"}, stored + "\n").out, key + "\n");
    }
}

TEST(NotifyKey, RefusesWhatTheDaemonCouldNotUse) {
    const struct {
        const char* name;
        std::vector<std::string> args;
        std::string input;
        int status;
        std::string message;
    } cases[] = {
        {"16 bytes", {"0123456789abcdef"}, "", 1, "at most 15"},
        {"16 bytes on input", {}, "0123456789abcdef\n", 1, "at most 15"},
        {"empty", {""}, "", 1, "empty"},
        {"empty input line", {}, "\n", 1, "empty"},
        {"no input", {}, "", 2, "no key given"},
        {"odd stored form", {"--decode", ">OHA?JGG>AE"}, "", 1, "even number"},
        {"foreign letters", {"--decode", "AZ"}, "", 1, "not a stored key"},
        {"lower case", {"--decode", ">oha?jgg>aeg"}, "", 1, "not a stored key"},
        {"stored 16 bytes", {"--decode", std::string(32, 'A')}, "", 1, "at most 15"},
        {"unknown option", {"--seed", "91"}, "", 2, "unknown option --seed"},
        {"two keys", {"one", "two"}, "", 2, "one key only"},
    };
    for (const auto& c : cases) {
        SCOPED_TRACE(c.name);
        const Result result = NotifyKey(c.args, c.input);
        EXPECT_EQ(result.status, c.status);
        EXPECT_EQ(result.out, "");
        EXPECT_NE(result.err.find(c.message), std::string::npos) << result.err;
    }
}

TEST(NotifyKey, HelpShowsUsage) {
    const Result result = NotifyKey({"--help"});
    EXPECT_EQ(result.status, 0);
    EXPECT_EQ(result.out.rfind("usage: notifykey", 0), 0u);
    EXPECT_NE(result.out.find("gatewaykey="), std::string::npos);
}

} // namespace
