#include <stdlib.h>

#include <cstdio>
#include <cstring>
#include <string>

#include <gtest/gtest.h>

#include "transport/MD5.h"
#include "transport/gengsk.h"
#include "transport/password.h"

namespace {

// The whole RFC 1321 suite: the digest is written here, and the two longest
// vectors cross the block and padding boundaries that keys never reach.
TEST(MD5, Rfc1321TestSuite) {
    const std::pair<std::string, const char*> cases[] = {
        {"", "d41d8cd98f00b204e9800998ecf8427e"},
        {"a", "0cc175b9c0f1b6a831c399e269772661"},
        {"abc", "900150983cd24fb0d6963f7d28e17f72"},
        {"message digest", "f96b697d7cb7938d525a2f31aaf161d0"},
        {"abcdefghijklmnopqrstuvwxyz", "c3fcd3d76192e4007dfb496cca67e13b"},
        {"ABCDEFGHIJKLMNOPQRSTUVWXYZabcdefghijklmnopqrstuvwxyz0123456789",
         "d174ab98d277d9f5a5611c2c9f419d9f"},
        {"12345678901234567890123456789012345678901234567890123456789012345678901234567890",
         "57edf4a22be3c955ac49da2e2107b67a"},
    };
    for (const auto& [text, expected] : cases) {
        unsigned char digest[16];
        vel::MD5Digest(text.data(), text.size(), digest);
        char hex[33];
        for (int i = 0; i < 16; ++i) {
            snprintf(hex + 2 * i, 3, "%02x", digest[i]);
        }
        EXPECT_STREQ(hex, expected) << text;
    }
}

// Keys are at most 15 bytes: one MD5 block, pinned here and in the OPEN request.
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

// Every byte value, above 0x7F too, survives the round trip; decryption stops
// at the output size, and a stored gateway key gives at most 15 characters.
TEST(Password, RoundTripOfEveryByteAndDecryptionBoundedByTheOutputSize) {
    std::string plain;
    for (int b = 1; b < 256; ++b) {
        plain += char(b);
    }
    std::string cipher(1024, '\0'), back(1024, '\0');
    _EncryptPassword(kPasswordSeed, plain.c_str(), cipher.data(), int(cipher.size()));
    _DecryptPassword(kPasswordSeed, cipher.c_str(), back.data(), int(back.size()));
    EXPECT_EQ(back.c_str(), plain);

    char stored[64], key[20];
    _EncryptPassword(kPasswordSeed, "0123456789abcdefXYZ", stored, sizeof stored);
    memset(key, 'x', sizeof key);
    _DecryptPassword(kPasswordSeed, stored, key, 16);
    EXPECT_EQ(strlen(key), 15u);
    EXPECT_EQ(key[16], 'x');
    // Kept: the running sum starts from the stored length, so a cut key's
    // first character comes out changed.
    for (const auto& [clear, expected] :
         {std::pair<const char*, const char*>{"0123456789abcde", "0123456789abcde"},
          {"0123456789abcdef", "1123456789abcde"},
          {"0123456789abcdefXYZ", "4123456789abcde"}}) {
        _EncryptPassword(kPasswordSeed, clear, stored, sizeof stored);
        EXPECT_EQ(ClearGatewayKey(stored), expected) << clear;
    }
}

} // namespace
