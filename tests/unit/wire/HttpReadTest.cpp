// What the fault tests cannot see: compaction, the buffer freed on every failure.
#include <sys/socket.h>
#include <unistd.h>

#include <cstring>
#include <string>

#include <gtest/gtest.h>

#include "transport/httputil.h"

namespace {

// The header, then the body after it (the caller steps over the header).
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
