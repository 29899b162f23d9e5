#include <stdlib.h>

#include <cstring>
#include <string>
#include <tuple>

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

std::string Encrypted(int seed, const std::string& plain, int size = 256) {
    std::string out(size_t(size), '\x7F');
    _EncryptPassword(seed, plain.c_str(), out.data(), size);
    return out.c_str();
}

std::string Decrypted(int seed, const std::string& cipher, int size = 256) {
    std::string out(size_t(size), '\x7F');
    _DecryptPassword(seed, cipher.c_str(), out.data(), size);
    return out.c_str();
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

// Every byte value, above 0x7F too, as two letters each way; the pinned
// texts fix the cipher itself.
TEST(Password, PinnedCipherTextsAndRoundTripOfEveryByte) {
    const std::tuple<int, std::string, const char*> cases[] = {
        {kPasswordSeed, "Gateway-Key 2024", "<MEK>EEE=ACD:N=KBF@KDD<D:F:NDLCF"},
        {kPasswordSeed, "\x80\xC3\xA9\xFF\x41", "?K>K:J;D?J"},
        {kPasswordSeed, "", ""},
        {-3, "abc", "GL=LCN"},
    };
    for (const auto& [seed, plain, cipher] : cases) {
        EXPECT_EQ(Encrypted(seed, plain), cipher) << plain;
        EXPECT_EQ(Decrypted(seed, cipher), plain) << cipher;
    }
    std::string plain;
    for (int b = 1; b < 256; ++b) {
        plain += char(b);
    }
    for (int seed : {0, kPasswordSeed, -1}) {
        const std::string cipher = Encrypted(seed, plain, 1024);
        EXPECT_EQ(cipher.find_first_not_of("9:;<=>?@ABCDEFGHIJKLMNOP"), std::string::npos);
        EXPECT_EQ(Decrypted(seed, cipher, 1024), plain) << seed;
    }
}

TEST(Password, DecryptionIsBoundedByTheOutputSize) {
    // A stored key read into 16 bytes gives at most 15 characters.
    char key[20];
    memset(key, 'x', sizeof key);
    _DecryptPassword(kPasswordSeed, Encrypted(kPasswordSeed, "0123456789abcdefXYZ").c_str(), key,
                     16);
    EXPECT_EQ(strlen(key), 15u);
    EXPECT_EQ(key[16], 'x');
}

} // namespace
