#include <malloc.h>

#include <string>
#include <tuple>
#include <vector>

#include <gtest/gtest.h>

#include "transport/httputil.h"

namespace {

std::string Contents(const tagHTTP_BUF& buf) {
    return std::string(buf.data, size_t(buf.datalen));
}

tagHTTP_BUF BufferOf(const std::string& text) {
    tagHTTP_BUF buf{};
    CopyToHttpBuf(&buf, text.c_str());
    return buf;
}

TEST(HttpRequest, HeaderAndBodyAreByteExact) {
    tagHTTP_BUF buf{-1, 77, 5, nullptr};
    int lengthPos = 0;
    const int headerLength = BuildHttpReqHeader(&buf, "gw.example:443", &lengthPos);
    CopyToHttpBuf(&buf, "CMD=OK\n");
    SetContentLength(&buf, lengthPos, buf.datalen - headerLength);
    EXPECT_EQ(Contents(buf), "POST http://gw.example:443/fakeurl.htm HTTP/1.1\n"
                             "User-Agent: Corvane Manager/1.0\n"
                             "Content-Type: application/x-www-form-urlencoded\n"
                             "Content-Length:     7\n"
                             "Host: gw.example:443\n"
                             "Connection: Keep-Alive\n"
                             "\n"
                             "CMD=OK\n");
    EXPECT_EQ(buf.data[buf.datalen], '\0');
    FreeHttpBuf(&buf);
    EXPECT_EQ(buf.data, nullptr);
    EXPECT_EQ(buf.datalen, 0);
}

TEST(HttpRequest, LengthFieldIsFiveCharactersOrLeftUnpatched) {
    const std::tuple<int, const char*> cases[] = {{0, "    0"},      {7, "    7"},
                                                  {4095, " 4095"},   {99999, "99999"},
                                                  {100000, "nnnnn"}, {-10000, "nnnnn"}};
    for (const auto& [length, field] : cases) {
        tagHTTP_BUF buf{};
        int lengthPos = 0;
        const int headerLength = BuildHttpReqHeader(&buf, "h", &lengthPos);
        SetContentLength(&buf, lengthPos, length);
        EXPECT_EQ(std::string(buf.data + lengthPos, 6), std::string(field) + "\n") << length;
        EXPECT_EQ(buf.datalen, headerLength);
        FreeHttpBuf(&buf);
    }
}

TEST(HttpBuf, SmallMessagesGetOneBlockOf4096) {
    tagHTTP_BUF buf = BufferOf("CMD=POLL\n");
    EXPECT_GE(malloc_usable_size(buf.data), 4096u);
    EXPECT_EQ(buf.buflen, 0); // left as it was: every append reallocates
    sprintfToHttpBuf(&buf, "ID=%d\n", 42);
    EXPECT_EQ(Contents(buf), "CMD=POLL\nID=42\n");
    FreeHttpBuf(&buf);
}

TEST(HttpBuf, LongPiecesAndMessagesStayExact) {
    const std::string piece(3000, 'x');
    std::string expected;
    tagHTTP_BUF buf{};
    for (int i = 0; i < 4; ++i) {
        sprintfToHttpBuf(&buf, "DATA%d=%s\n", i, piece.c_str());
        expected += "DATA" + std::to_string(i) + "=" + piece + "\n";
        CopyToHttpBuf(&buf, piece.c_str());
        expected += piece;
    }
    EXPECT_EQ(Contents(buf), expected);
    EXPECT_EQ(buf.data[buf.datalen], '\0');
    FreeHttpBuf(&buf);
}

TEST(HttpBuf, CopyTakesBytesFromTheReadPosition) {
    tagHTTP_BUF src = BufferOf("skip|copied|rest");
    src.offset = 5;
    tagHTTP_BUF dst;
    CopyHttpBuf(&src, &dst, 6);
    EXPECT_EQ(std::string(dst.data), "copied");
    EXPECT_EQ(dst.datalen, 6);
    EXPECT_EQ(dst.buflen, 6);
    EXPECT_EQ(dst.offset, 0);
    FreeHttpBuf(&dst);
    CopyHttpBuf(&src, &dst, 1000); // clamped to what is there
    EXPECT_EQ(std::string(dst.data), "copied|rest");
    CopyToHttpBuf(&dst, "+more");
    EXPECT_EQ(Contents(dst), "copied|rest+more");
    FreeHttpBuf(&dst);
    FreeHttpBuf(&src);
}

TEST(HttpGetLine, SplitsLinesInPlace) {
    // lines: until the first "" (no whole line)
    const std::tuple<const char*, std::vector<std::string>, int> cases[] = {
        {"A=1\r\nB=2", {"A=1"}, 5}, {"A=1\nB=2\n", {"A=1", "B=2"}, 8},
        {"\r\nX\n", {"", "X"}, 4},  {"", {}, 0},
        {"no line feed", {}, 0},
    };
    for (const auto& [text, lines, finalOffset] : cases) {
        tagHTTP_BUF buf = BufferOf(text);
        for (const std::string& line : lines) {
            EXPECT_EQ(HttpGetLine(&buf), line) << text;
        }
        const char* last = HttpGetLine(&buf);
        ASSERT_NE(last, nullptr);
        EXPECT_STREQ(last, "") << text;
        EXPECT_EQ(buf.offset, finalOffset) << text;
        FreeHttpBuf(&buf);
    }
    tagHTTP_BUF empty{};
    EXPECT_STREQ(HttpGetLine(&empty), "");
}

TEST(HttpMatchKeyword, MatchesTheKeyIgnoringCase) {
    const struct {
        const char* line;
        const char* keyword;
        const char* value; // null: no match
    } cases[] = {
        {"result=0", "RESULT", "0"},      {"RESULTS=0", "RESULT", nullptr},
        {"RESULT", "RESULT", "RESULT"},   {"RESULT=", "result", ""},
        {"RES=a=b", "res", "a=b"},        {"=x", "", "x"},
        {"RESULT=0", "RESULTS", nullptr}, {"", "RESULT", nullptr},
    };
    for (const auto& c : cases) {
        std::string line = c.line;
        const char* value = HttpMatchKeyword(line.data(), c.keyword);
        if (c.value == nullptr) {
            EXPECT_EQ(value, nullptr) << c.line;
        } else {
            ASSERT_NE(value, nullptr) << c.line;
            EXPECT_STREQ(value, c.value);
        }
        EXPECT_EQ(line, c.line);
    }
}

TEST(MakeMajorMinVerParam, PacksMinorHighMajorLow) {
    const std::tuple<const char*, uint32_t> cases[] = {
        {"2.5", 0x00050002}, {"0.3", 0x00030001},     {"3", 3},   {"", 1},
        {"1.1", 0x00010001}, {"65536.2", 0x00020001}, {"x.y", 1}, {"10.-1", 0xFFFF000A},
    };
    for (const auto& [text, packed] : cases) {
        EXPECT_EQ(MakeMajorMinVerParam(text), packed) << text;
    }
    // Only the first 99 characters count: the dot here is beyond them.
    const std::string longText = std::string(98, ' ') + "7.5";
    EXPECT_EQ(MakeMajorMinVerParam(longText.c_str()), 7u);
}

} // namespace
