#include <malloc.h>
#include <sys/socket.h>
#include <unistd.h>

#include <string>
#include <tuple>

#include <gtest/gtest.h>

#include "transport/httputil.h"

namespace {

std::string Contents(const tagHTTP_BUF& buf) {
    return std::string(buf.data, size_t(buf.datalen));
}

// The whole request is checked byte for byte by every transport test's Post().
TEST(HttpRequest, LengthFieldHoldsFiveCharacters) {
    tagHTTP_BUF buf{-1, 77, 5, nullptr}; // stale fields: the header starts afresh
    // A length that does not fit is not written.
    for (const auto& [length, field] :
         {std::pair<int, const char*>{99999, "99999"}, {100000, "nnnnn"}, {-10000, "nnnnn"}}) {
        int pos = 0;
        BuildHttpReqHeader(&buf, "h", &pos);
        SetContentLength(&buf, pos, length);
        EXPECT_EQ(std::string(buf.data + pos, 6), std::string(field) + "\n") << length;
        FreeHttpBuf(&buf);
    }
}

TEST(HttpBuf, AppendsStayExactAndTerminated) {
    tagHTTP_BUF buf{};
    CopyToHttpBuf(&buf, "CMD=POLL\n");
    EXPECT_GE(malloc_usable_size(buf.data), 4096u); // small messages get one block of 4096
    std::string expected = "CMD=POLL\n";
    const std::string piece(3000, 'x');
    for (int i = 0; i < 3; ++i) {
        sprintfToHttpBuf(&buf, "DATA%d=%s\n", i, piece.c_str());
        CopyToHttpBuf(&buf, piece.c_str());
        expected += "DATA" + std::to_string(i) + "=" + piece + "\n" + piece;
    }
    EXPECT_EQ(Contents(buf), expected);
    EXPECT_EQ(buf.data[buf.datalen], '\0');
    FreeHttpBuf(&buf);
}

TEST(HttpGetLine, SplitsLinesInPlaceUpToTheLastWholeOne) {
    tagHTTP_BUF buf{};
    EXPECT_STREQ(HttpGetLine(&buf), "");
    CopyToHttpBuf(&buf, "A=1\r\n\r\nX\nno line feed");
    for (const char* line : {"A=1", "", "X", ""}) {
        EXPECT_STREQ(HttpGetLine(&buf), line);
    }
    EXPECT_EQ(buf.offset, 9); // the last "" is no whole line: nothing consumed
    FreeHttpBuf(&buf);
}

TEST(HttpMatchKeyword, MatchesTheKeyIgnoringCase) {
    // Line, keyword, value (null: no match).
    const std::tuple<const char*, const char*, const char*> cases[] = {
        {"result=0", "RESULT", "0"},      {"RESULTS=0", "RESULT", nullptr},
        {"RESULT", "RESULT", "RESULT"},   {"RES=a=b", "res", "a=b"},
        {"RESULT=0", "RESULTS", nullptr}, {"", "RESULT", nullptr},
    };
    for (const auto& [text, keyword, expected] : cases) {
        std::string line = text;
        const char* value = HttpMatchKeyword(line.data(), keyword);
        EXPECT_EQ(value ? std::string(value) : "<none>", expected ? expected : "<none>") << text;
        EXPECT_EQ(line, text);
    }
}

TEST(MakeMajorMinVerParam, PacksMinorHighMajorLow) {
    const std::tuple<const char*, uint32_t> cases[] = {
        {"3", 3}, {"0.3", 0x00030001}, {"65536.2", 0x00020001}, {"x.y", 1}, {"10.-1", 0xFFFF000A},
    };
    for (const auto& [text, packed] : cases) {
        EXPECT_EQ(MakeMajorMinVerParam(text), packed) << text;
    }
    // Only the first 99 characters count: the dot here is beyond them.
    EXPECT_EQ(MakeMajorMinVerParam((std::string(98, ' ') + "7.5").c_str()), 7u);
}

// Reading, where the fault tests cannot see: spent bytes compacted away, the
// buffer freed on every failure. Here: the header, then the body after it.
std::string Read(int fd, tagHTTP_BUF& buf, int contentLength) {
    const char* header = ReadHttpHeader(fd, &buf);
    if (header == nullptr) {
        return "<no header>";
    }
    std::string text = header;
    buf.offset += int(text.size());
    const char* body = ReadHttpBody(fd, &buf, contentLength);
    return text + "|" + (body != nullptr ? body : "<no body>");
}

TEST(HttpRead, SpentBytesAreDroppedAndEveryFailureFreesTheBuffer) {
    int fds[2];
    ASSERT_EQ(socketpair(AF_UNIX, SOCK_STREAM, 0, fds), 0);
    tagHTTP_BUF buf{};
    // Spent bytes go before the next header; the body reader skips the rest of the terminator.
    CopyToHttpBuf(&buf, (std::string(3000, 'z') + "NC_DATA\r\nContent-length: 3\r").c_str());
    buf.offset = 3000;
    ASSERT_EQ(send(fds[1], "\n\r\nabc", 6, MSG_NOSIGNAL), 6);
    EXPECT_EQ(Read(fds[0], buf, 3), "NC_DATA\r\nContent-length: 3\n|abc");
    EXPECT_EQ(buf.offset, 30); // 3030 without the compaction
    FreeHttpBuf(&buf);

    CopyToHttpBuf(&buf, "\r\n\r\nCMD=");
    EXPECT_EQ(ReadHttpBody(fds[0], &buf, kMaxHttpBodyBytes + 1), nullptr);
    EXPECT_EQ(buf.data, nullptr);

    ASSERT_EQ(send(fds[1], "HTTP/1.1 200 OK\n\nCMD=", 21, MSG_NOSIGNAL), 21);
    shutdown(fds[1], SHUT_WR);
    EXPECT_EQ(Read(fds[0], buf, 20), "HTTP/1.1 200 OK\n|<no body>");
    EXPECT_EQ(buf.data, nullptr);
    EXPECT_EQ(ReadHttpHeader(fds[0], &buf), nullptr);
    EXPECT_EQ(buf.data, nullptr);
    close(fds[0]);
    close(fds[1]);
}

} // namespace
