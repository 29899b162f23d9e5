#include <sys/socket.h>
#include <unistd.h>

#include <chrono>
#include <cstring>
#include <string>
#include <thread>
#include <vector>

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
        ClosePeer();
        FreeHttpBuf(&m_buf);
    }
    void Send(const std::string& bytes) {
        ASSERT_EQ(send(m_peer, bytes.data(), bytes.size(), MSG_NOSIGNAL), ssize_t(bytes.size()));
    }
    // Sends the pieces from another thread, pausing between them so that
    // each arrives in its own receive.
    void SendLater(std::vector<std::string> pieces) {
        m_writer = std::thread([this, pieces] {
            for (const std::string& piece : pieces) {
                std::this_thread::sleep_for(std::chrono::milliseconds(30));
                send(m_peer, piece.data(), piece.size(), MSG_NOSIGNAL);
            }
        });
    }
    void ClosePeer() {
        if (m_peer >= 0) {
            close(m_peer);
            m_peer = -1;
        }
    }

    int m_fd = -1;
    int m_peer = -1;
    std::thread m_writer;
    tagHTTP_BUF m_buf{};
};

TEST_F(HttpRead, HeaderSplitOverReceivesThenBody) {
    SendLater({"HTTP/1.1 200 OK\r\nContent-length: 8\r", "\n\r", "\nCMD=", "OK\nX"});
    const char* header = ReadHttpHeader(m_fd, &m_buf);
    ASSERT_NE(header, nullptr);
    EXPECT_STREQ(header, "HTTP/1.1 200 OK\r\nContent-length: 8\n");
    // The caller steps over the header; the body reader skips the rest of
    // the terminator.
    m_buf.offset += int(strlen(header));
    const char* body = ReadHttpBody(m_fd, &m_buf, 8);
    ASSERT_NE(body, nullptr);
    EXPECT_STREQ(body, "CMD=OK\nX");
}

TEST_F(HttpRead, BareLineFeedTerminator) {
    Send("NC_DATA\nContent-length: 3\n\nabc");
    const char* header = ReadHttpHeader(m_fd, &m_buf);
    ASSERT_NE(header, nullptr);
    EXPECT_STREQ(header, "NC_DATA\nContent-length: 3\n");
    m_buf.offset += int(strlen(header));
    const char* body = ReadHttpBody(m_fd, &m_buf, 3);
    ASSERT_NE(body, nullptr);
    EXPECT_STREQ(body, "abc");
}

TEST_F(HttpRead, CompactsSpentBytesBeforeTheNextHeader) {
    const std::string spent(3000, 'z');
    CopyToHttpBuf(&m_buf, (spent + "HTTP/1.1 200 OK\n\n").c_str());
    m_buf.offset = int(spent.size());
    const char* header = ReadHttpHeader(m_fd, &m_buf);
    ASSERT_NE(header, nullptr);
    EXPECT_EQ(m_buf.offset, 0);
    EXPECT_STREQ(header, "HTTP/1.1 200 OK\n");
}

TEST_F(HttpRead, PeerCloseBeforeTheHeaderEndsFreesTheBuffer) {
    Send("HTTP/1.1 200 OK\r\n");
    ClosePeer();
    testing::internal::CaptureStdout();
    EXPECT_EQ(ReadHttpHeader(m_fd, &m_buf), nullptr);
    EXPECT_EQ(testing::internal::GetCapturedStdout(),
              "(httputil.c) Error 0 reading HTTP response header\n");
    EXPECT_EQ(m_buf.data, nullptr);
    EXPECT_EQ(m_buf.datalen, 0);
}

TEST_F(HttpRead, PeerCloseDuringTheBodyFreesTheBuffer) {
    Send("HTTP/1.1 200 OK\n\nCMD=");
    ClosePeer();
    const char* header = ReadHttpHeader(m_fd, &m_buf);
    ASSERT_NE(header, nullptr);
    m_buf.offset += int(strlen(header));
    EXPECT_EQ(ReadHttpBody(m_fd, &m_buf, 20), nullptr);
    EXPECT_EQ(m_buf.data, nullptr);
}

TEST_F(HttpRead, EndlessHeaderIsRefused) {
    m_writer = std::thread([this] {
        const std::string chunk(64 * 1024, 'h');
        for (int sent = 0; sent <= kMaxHttpHeaderBytes; sent += int(chunk.size())) {
            if (send(m_peer, chunk.data(), chunk.size(), MSG_NOSIGNAL) <= 0) {
                return; // the reader has given up and closed
            }
        }
    });
    testing::internal::CaptureStdout();
    EXPECT_EQ(ReadHttpHeader(m_fd, &m_buf), nullptr);
    testing::internal::GetCapturedStdout();
    shutdown(m_fd, SHUT_RDWR);
}

TEST_F(HttpRead, OversizedBodyIsRefusedWithoutReading) {
    CopyToHttpBuf(&m_buf, "\r\n\r\nCMD=");
    EXPECT_EQ(ReadHttpBody(m_fd, &m_buf, kMaxHttpBodyBytes + 1), nullptr);
    EXPECT_EQ(m_buf.data, nullptr);
    CopyToHttpBuf(&m_buf, "\r\nCMD=OK\n");
    const char* body = ReadHttpBody(m_fd, &m_buf, 0);
    ASSERT_NE(body, nullptr);
    EXPECT_EQ(m_buf.offset, 2);
}

} // namespace
