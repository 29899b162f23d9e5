#include <signal.h>
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

// Frees a malloc'ed result after copying `size` bytes of it (-1: up to its NUL).
std::string Taken(void* result, int size = -1) {
    const char* p = static_cast<char*>(result);
    std::string text = p == nullptr ? std::string()
                       : size < 0   ? std::string(p)
                                    : std::string(p, size_t(size));
    free(result);
    return text;
}

std::string Decoded64(const std::string& text) {
    int length = -1;
    unsigned char* bytes = Decode64(text.c_str(), &length);
    return Taken(bytes, length);
}

std::string YEncoded(const std::string& bytes) {
    char* text = nullptr;
    const int length = yEncode(Bytes(bytes), int(bytes.size()), &text);
    EXPECT_EQ(text != nullptr ? strlen(text) : 0u, size_t(length));
    return Taken(text, length);
}

std::string YDecoded(const std::string& text, int size) {
    unsigned char* bytes = nullptr;
    const int length = yDecode(text.c_str(), size, &bytes);
    return Taken(bytes, length);
}

std::string AllBytes() {
    std::string all;
    for (int b = 0; b < 256; ++b) {
        all += char(b);
    }
    return all;
}

TEST(Base64, OwnAlphabetZeroPaddingAndDecodingStopsOutsideIt) {
    const std::tuple<std::string, const char*> encodings[] = {
        {"", ""},
        {"M", "TQAA"},
        {"Man", "TWFu"},
        {"\xFB\xFF", "()8A"},
        {"\xFB\xEF\xBE", "(((("},
        {"gatewaykey", "Z2F0ZXdheWtleQAA"},
    };
    for (const auto& [bytes, text] : encodings) {
        EXPECT_EQ(Taken(Encode64(Bytes(bytes), int(bytes.size()))), text);
    }
    EXPECT_EQ(Taken(Encode64(Bytes("x"), -5)), "");

    const std::tuple<const char*, std::string> decodings[] = {
        {"TW", "M"},          {"TWF", "Ma"},         {"T", ""},
        {"TWFu=TWFu", "Man"}, {"TWFu\nTWFu", "Man"}, {"()8A", std::string("\xFB\xFF\x00", 3)},
    };
    for (const auto& [text, bytes] : decodings) {
        EXPECT_EQ(Decoded64(text), bytes) << text;
    }
    // The round trip adds only the zero bytes of a partial group.
    const std::string all = AllBytes();
    EXPECT_EQ(Decoded64(Taken(Encode64(Bytes(all), 256))), all + std::string(2, '\0'));
}

TEST(YEnc, EscapesExactlySixValuesAndDecodesWithinSize) {
    const std::tuple<unsigned char, const char*> cases[] = {
        {0xD6, "=@"}, {0xE0, "=J"},   {0x04, "=n"},   {0x13, "=}"}, {0xE3, "=M"},
        {0xDF, "=I"}, {0xD7, "\x01"}, {0xDE, "\x08"}, {0x41, "k"},  {0x00, "*"},
    };
    for (const auto& [byte, text] : cases) {
        EXPECT_EQ(YEncoded(std::string(1, char(byte))), text) << int(byte);
    }
    const std::string all = AllBytes();
    const std::string encoded = YEncoded(all);
    EXPECT_EQ(encoded.size(), all.size() + 6);
    EXPECT_EQ(YDecoded(encoded, int(encoded.size())), all);
    char unused = 0;
    char* text = &unused;
    EXPECT_EQ(yEncode(Bytes(all), 0, &text), 0);
    EXPECT_EQ(text, nullptr);

    // Decoding stops at the size or the NUL, whichever comes first.
    const std::tuple<const char*, int, std::string> decodings[] = {
        {"kkk", 2, "AA"},
        {"kk", 10, "AA"},
        {"k", -3, ""},
        {"=@k", 3, "\xD6\x41"},
    };
    for (const auto& [text, size, bytes] : decodings) {
        EXPECT_EQ(YDecoded(text, size), bytes) << text << " " << size;
    }
}

TEST(YEncDeathTest, EscapeWithoutItsCharacterAborts) {
    EXPECT_EXIT(YDecoded("k=", 2), testing::KilledBySignal(SIGABRT),
                "Assertion `c != '\\\\0'' failed");
    // The counted length ends the text just as the NUL does.
    EXPECT_EXIT(YDecoded("k=AB", 2), testing::KilledBySignal(SIGABRT),
                "Assertion `c != '\\\\0'' failed");
}

TEST(Crc32, CheckValues) {
    const std::string check = "123456789";
    EXPECT_EQ(CRC32_Update(0xFFFFFFFF, check.data(), 9) ^ 0xFFFFFFFF, 0xCBF43926u);
    // Long enough for the 16-byte steps and an unaligned tail.
    const std::string fox = "The quick brown fox jumps over the lazy dog";
    EXPECT_EQ(CRC32_Update(0xFFFFFFFF, fox.data(), int(fox.size())) ^ 0xFFFFFFFF, 0x414FA339u);
}

} // namespace
