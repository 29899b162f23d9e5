// notifykey run as an admin would: arguments, standard input, exit status and
// the exact text it prints.
#include <gtest/gtest.h>

#include "E2E.h"

#include <string>
#include <vector>

namespace {

// notifykey with `args` and `input` on its standard input: its exit code (-1:
// none in time) and what it printed.
hosttest::Output NotifyKey(std::vector<std::string> args, const std::string& input = "") {
    args.insert(args.begin(), ND_NOTIFYKEY_PATH);
    hosttest::Output result = hosttest::Run(args, 10, input);
    result.status =
        result.status != -1 && WIFEXITED(result.status) ? WEXITSTATUS(result.status) : -1;
    return result;
}

TEST(NotifyKey, KnownVectorAndRoundTrips) {
    const hosttest::Output known = NotifyKey({"secret"});
    EXPECT_EQ(known.status, 0);
    EXPECT_EQ(known.text, ">OHA?JGG>AEG\n");

    const std::vector<std::string> keys = {"a",     "ABCDEFGHIJKLMNO", "cl\xc3\xa9\xff\x80",
                                           "-dash", " spaced ",        "=;#[]|\\\"'\x7f\x01"};
    for (const std::string& key : keys) {
        SCOPED_TRACE(key);
        const hosttest::Output encoded = NotifyKey({"--", key});
        ASSERT_EQ(encoded.status, 0);
        const std::string stored = encoded.text.substr(0, encoded.text.size() - 1);
        char library[64] = {};
        _EncryptPassword(kPasswordSeed, key.c_str(), library, sizeof library);
        EXPECT_EQ(stored, library); // what the daemon decodes
        EXPECT_EQ(NotifyKey({}, key + "\r\n").text, encoded.text);
        EXPECT_EQ(NotifyKey({"--decode", stored}).text, key + "\n");
        EXPECT_EQ(NotifyKey({"-d"}, stored + "\n").text, key + "\n");
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
        const hosttest::Output result = NotifyKey(args);
        EXPECT_EQ(result.status, status) << args[0];
        EXPECT_EQ(result.text, "") << args[0];
    }
}

} // namespace
