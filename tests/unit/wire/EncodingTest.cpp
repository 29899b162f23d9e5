#include <stdlib.h>

#include <cstring>
#include <string>
#include <tuple>

#include <gtest/gtest.h>

#include "transport/CRC32.h"
#include "transport/yenc.h"

namespace {

const unsigned char* Bytes(const std::string& s) {
    return reinterpret_cast<const unsigned char*>(s.data());
}

std::string Encoded64(const std::string& bytes) {
    char* text = Encode64(Bytes(bytes), int(bytes.size()));
    std::string result = text;
    free(text);
    return result;
}

std::string Decoded64(const char* text) {
    int len = -1;
    unsigned char* bytes = Decode64(text, &len);
    EXPECT_NE(bytes, nullptr);
    std::string result(reinterpret_cast<char*>(bytes), size_t(len));
    free(bytes);
    return result;
}

std::string YEncoded(const std::string& bytes) {
    char* text = nullptr;
    const int length = yEncode(Bytes(bytes), int(bytes.size()), &text);
    std::string result = text != nullptr ? std::string(text, size_t(length)) : "";
    EXPECT_EQ(text != nullptr ? strlen(text) : 0u, size_t(length));
    free(text);
    return result;
}

std::string YDecoded(const std::string& text, int size) {
    unsigned char* bytes = nullptr;
    const int length = yDecode(text.c_str(), size, &bytes);
    std::string result(reinterpret_cast<char*>(bytes), size_t(length));
    free(bytes);
    return result;
}

std::string AllBytes() {
    std::string all;
    for (int b = 0; b < 256; ++b) {
        all += char(b);
    }
    return all;
}

TEST(Base64, EncodesWithOwnAlphabetAndZeroPadding) {
    const std::tuple<std::string, const char*> cases[] = {
        {"", ""},
        {std::string(1, '\0'), "AAAA"},
        {"M", "TQAA"},
        {"Man", "TWFu"},
        {"\xFB\xFF", "()8A"},
        {"\xFB\xEF\xBE", "(((("},
        {"gatewaykey", "Z2F0ZXdheWtleQAA"},
    };
    for (const auto& [bytes, text] : cases) {
        EXPECT_EQ(Encoded64(bytes), text);
    }
    char* empty = Encode64(Bytes("x"), -5);
    EXPECT_STREQ(empty, "");
    free(empty);
}

TEST(Base64, DecodesUntilTheFirstCharacterOutsideTheAlphabet) {
    const std::tuple<const char*, std::string> cases[] = {
        {"TWFu", "Man"},
        {"TW", "M"},
        {"TWF", "Ma"},
        {"T", ""},
        {"", ""},
        {"TWFu=TWFu", "Man"},
        {"TW=u", "M"},
        {"TWFuT", "Man"},
        {"()8A", std::string("\xFB\xFF\x00", 3)},
        {"TWFu\nTWFu", "Man"},
    };
    for (const auto& [text, bytes] : cases) {
        EXPECT_EQ(Decoded64(text), bytes) << text;
    }
}

TEST(Base64, RoundTripAddsOnlyZeroBytesOfThePartialGroup) {
    const std::string all = AllBytes();
    for (size_t n = 0; n <= all.size(); n += 1 + n / 8) {
        const std::string bytes = all.substr(all.size() - n);
        const std::string text = Encoded64(bytes);
        EXPECT_EQ(text.size(), 4 * ((n + 2) / 3));
        const std::string back = Decoded64(text.c_str());
        EXPECT_EQ(back.substr(0, n), bytes);
        EXPECT_EQ(back.substr(n), std::string(back.size() - n, '\0'));
        EXPECT_LT(back.size() - n, 3u);
    }
}

TEST(YEnc, EscapesExactlySixValues) {
    const std::tuple<unsigned char, const char*> cases[] = {
        {0xD6, "=@"}, {0xE0, "=J"},   {0x04, "=n"},   {0x13, "=}"}, {0xE3, "=M"},
        {0xDF, "=I"}, {0xD7, "\x01"}, {0xDE, "\x08"}, {0x41, "k"},  {0x00, "*"},
    };
    for (const auto& [byte, text] : cases) {
        EXPECT_EQ(YEncoded(std::string(1, char(byte))), text) << int(byte);
    }
    const std::string all = AllBytes();
    EXPECT_EQ(YEncoded(all).size(), all.size() + 6);
    char unused = 0;
    char* text = &unused;
    EXPECT_EQ(yEncode(Bytes(all), 0, &text), 0);
    EXPECT_EQ(text, nullptr);
}

TEST(YEnc, DecodesWithinSizeAndUpToTheNul) {
    const std::string all = AllBytes();
    const std::string encoded = YEncoded(all);
    EXPECT_EQ(YDecoded(encoded, int(encoded.size())), all);
    const std::tuple<const char*, int, std::string> cases[] = {
        {"kkk", 2, "AA"}, {"kk", 10, "AA"}, {"", 5, ""},
        {"k", 0, ""},     {"k", -3, ""},    {"=@k", 3, std::string(1, '\xD6') + "A"},
    };
    for (const auto& [text, size, bytes] : cases) {
        EXPECT_EQ(YDecoded(text, size), bytes) << text << " " << size;
    }
}

TEST(YEncDeathTest, EscapeWithoutItsCharacterAborts) {
    EXPECT_DEATH(YDecoded("k=", 2), "Assertion `c != '\\\\0'' failed");
    // The counted length ends the text just as the NUL does.
    EXPECT_DEATH(YDecoded("k=AB", 2), "Assertion `c != '\\\\0'' failed");
}

TEST(Crc32, CheckValueAndChaining) {
    const std::string check = "123456789";
    EXPECT_EQ(CRC32_Update(0xFFFFFFFF, check.data(), 9) ^ 0xFFFFFFFF, 0xCBF43926u);
    // Long enough for the 16-byte steps and an unaligned tail.
    const std::string fox = "The quick brown fox jumps over the lazy dog";
    EXPECT_EQ(CRC32_Update(0xFFFFFFFF, fox.data(), int(fox.size())) ^ 0xFFFFFFFF, 0x414FA339u);
    const uint32_t head = CRC32_Update(0xFFFFFFFF, check.data(), 4);
    EXPECT_EQ(CRC32_Update(head, check.data() + 4, 5), CRC32_Update(0xFFFFFFFF, check.data(), 9));
    EXPECT_EQ(CRC32_Update(0x1234, check.data(), 0), 0x1234u);
    EXPECT_EQ(CRC32_Update(0, "", 0), 0u);
}

} // namespace
