#include <sys/socket.h>
#include <unistd.h>

#include <chrono>
#include <cstring>
#include <string>
#include <thread>

#include <gtest/gtest.h>

#include "transport/httputil.h"

namespace {

// A connected socket pair: the test writes to m_peer, the readers read m_fd.
class HttpRead : public ::testing::Test {
protected:
    void SetUp() override {
        int fds[2];
        ASSERT_EQ(socketpair(AF_UNIX, SOCK_STREAM, 0, fds), 0);
        m_fd = fds[0];
        m_peer = fds[1];
    }
    void TearDown() override {
        if (m_writer.joinable()) {
            m_writer.join();
        }
        close(m_fd);
        close(m_peer);
        FreeHttpBuf(&m_buf);
    }
    // The header, then the body after it (the caller steps over the header).
    std::string Read(int contentLength) {
        const char* header = ReadHttpHeader(m_fd, &m_buf);
        if (header == nullptr) {
            return "<no header>";
        }
        std::string text = header;
        m_buf.offset += int(text.size());
        const char* body = ReadHttpBody(m_fd, &m_buf, contentLength);
        return text + "|" + (body != nullptr ? body : "<no body>");
    }

    int m_fd = -1;
    int m_peer = -1;
    std::thread m_writer;
    tagHTTP_BUF m_buf{};
};

TEST_F(HttpRead, MessagesSplitOverReceivesOrAfterSpentBytes) {
    // Each piece in its own receive; the body reader skips the rest of the terminator.
    m_writer = std::thread([this] {
        for (const char* piece :
             {"HTTP/1.1 200 OK\r\nContent-length: 8\r", "\n\r", "\nCMD=", "OK\nX"}) {
            std::this_thread::sleep_for(std::chrono::milliseconds(30));
            send(m_peer, piece, strlen(piece), MSG_NOSIGNAL);
        }
    });
    EXPECT_EQ(Read(8), "HTTP/1.1 200 OK\r\nContent-length: 8\n|CMD=OK\nX");
    m_writer.join();

    // Spent bytes are dropped before the next header; a bare line feed ends it too.
    FreeHttpBuf(&m_buf);
    CopyToHttpBuf(&m_buf, (std::string(3000, 'z') + "NC_DATA\nContent-length: 3\n\n").c_str());
    m_buf.offset = 3000;
    ASSERT_EQ(send(m_peer, "abc", 3, MSG_NOSIGNAL), 3);
    EXPECT_EQ(Read(3), "NC_DATA\nContent-length: 3\n|abc");
    EXPECT_EQ(m_buf.offset, 27);
}

TEST_F(HttpRead, PeerCloseOrAnOversizedBodyFreesTheBuffer) {
    ASSERT_EQ(send(m_peer, "HTTP/1.1 200 OK\r\n", 17, MSG_NOSIGNAL), 17);
    shutdown(m_peer, SHUT_WR);
    testing::internal::CaptureStdout();
    EXPECT_EQ(ReadHttpHeader(m_fd, &m_buf), nullptr);
    EXPECT_EQ(testing::internal::GetCapturedStdout(),
              "(httputil.c) Error 0 reading HTTP response header\n");
    EXPECT_EQ(m_buf.data, nullptr);

    CopyToHttpBuf(&m_buf, "HTTP/1.1 200 OK\n\nCMD=");
    EXPECT_EQ(Read(20), "HTTP/1.1 200 OK\n|<no body>");
    EXPECT_EQ(m_buf.data, nullptr);

    CopyToHttpBuf(&m_buf, "\r\n\r\nCMD=");
    EXPECT_EQ(ReadHttpBody(m_fd, &m_buf, kMaxHttpBodyBytes + 1), nullptr);
    EXPECT_EQ(m_buf.data, nullptr);
}

} // namespace
