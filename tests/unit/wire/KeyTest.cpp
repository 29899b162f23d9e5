#include <stdlib.h>

#include <cstring>
#include <string>

#include <gtest/gtest.h>

#include "transport/MD5.h"
#include "transport/gengsk.h"
#include "transport/password.h"

namespace {

std::string Hex(const unsigned char* bytes, size_t n) {
    static const char kDigits[] = "0123456789abcdef";
    std::string hex;
    for (size_t i = 0; i < n; ++i) {
        hex += kDigits[bytes[i] >> 4];
        hex += kDigits[bytes[i] & 15];
    }
    return hex;
}

TEST(MD5, Rfc1321TestSuite) {
    // Two blocks (one-block digests are pinned through the key below).
    const std::pair<std::string, const char*> cases[] = {
        {"ABCDEFGHIJKLMNOPQRSTUVWXYZabcdefghijklmnopqrstuvwxyz0123456789",
         "d174ab98d277d9f5a5611c2c9f419d9f"},
        {"12345678901234567890123456789012345678901234567890123456789012345678901234567890",
         "57edf4a22be3c955ac49da2e2107b67a"},
    };
    for (const auto& [text, expected] : cases) {
        unsigned char digest[16];
        vel::MD5Digest(text.data(), text.size(), digest);
        EXPECT_EQ(Hex(digest, 16), expected) << text;
    }
}

TEST(GenWireGsk, Base64OfTheKeyDigest) {
    for (const auto& [key, expected] :
         {std::pair<const char*, const char*>{"", "1B2M2Y8AsgTpgAmY7PhCfgAA"},
          {"gatewaykey", "far7lnwbTXjAPwXTwPpEQAAA"}}) {
        char* wire = GenWireGsk(key);
        ASSERT_NE(wire, nullptr);
        EXPECT_STREQ(wire, expected);
        free(wire);
    }
}

// The cipher and its round trip are pinned through the key tool's tests.
TEST(Password, DecryptionIsBoundedByTheOutputSize) {
    // A stored key read into 16 bytes gives at most 15 characters.
    char stored[64], key[20];
    _EncryptPassword(kPasswordSeed, "0123456789abcdefXYZ", stored, sizeof stored);
    memset(key, 'x', sizeof key);
    _DecryptPassword(kPasswordSeed, stored, key, 16);
    EXPECT_EQ(strlen(key), 15u);
    EXPECT_EQ(key[16], 'x');
}

} // namespace
