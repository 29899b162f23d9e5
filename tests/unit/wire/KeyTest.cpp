#include <stdlib.h>

#include <cstring>
#include <string>

#include <gtest/gtest.h>

#include "transport/gengsk.h"
#include "transport/password.h"

namespace {

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
