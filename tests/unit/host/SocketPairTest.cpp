#include "host/SocketPair.h"

#include <fcntl.h>
#include <poll.h>
#include <sys/socket.h>
#include <sys/wait.h>
#include <unistd.h>

#include <gtest/gtest.h>

#include <cerrno>
#include <cstdint>
#include <cstdlib>
#include <cstring>
#include <string>
#include <tuple>

namespace {

using vel::kMessageClientSocket;
using vel::kMessageServerSocket;

// A connected pair at whatever descriptors the kernel picks.
struct LocalPair {
    int fds[2] = {-1, -1};
    LocalPair() { EXPECT_EQ(socketpair(AF_UNIX, SOCK_STREAM | SOCK_CLOEXEC, 0, fds), 0); }
    ~LocalPair() {
        for (int fd : fds) {
            if (fd != -1) {
                close(fd);
            }
        }
    }
    void CloseWriter() {
        close(fds[0]);
        fds[0] = -1;
    }
};

struct Message {
    void* data = nullptr;
    int length = -1;
    int result = -1;
    ~Message() { free(data); }
    std::string Payload() const { return std::string(static_cast<char*>(data), length); }
};

// Bounded: a message or end of stream that never comes fails the test
// instead of hanging it.
void Read(int fd, Message& message, int padding) {
    struct pollfd ready = {fd, POLLIN, 0};
    if (fd >= 0 && poll(&ready, 1, 5000) != 1) {
        message.result = ETIMEDOUT;
        return;
    }
    message.result = vel::ReadLengthPrefixed(fd, &message.data, message.length, padding);
}

void CloseFixedPair() {
    close(kMessageServerSocket);
    close(kMessageClientSocket);
}

TEST(MakeSocketPair, ConnectsTheFixedDescriptorsAndKeepsThemAcrossExec) {
    ASSERT_EQ(vel::MakeSocketPair(kMessageServerSocket, kMessageClientSocket), 0);
    for (int fd : {kMessageServerSocket, kMessageClientSocket}) {
        EXPECT_EQ(fcntl(fd, F_GETFD) & FD_CLOEXEC, 0) << fd;
    }
    // A shell started afterwards writes a message into its inherited end.
    pid_t child = fork();
    ASSERT_NE(child, -1);
    if (child == 0) {
        // bash: dash redirects only single-digit descriptors.
        execl("/bin/bash", "bash", "-c", "printf '\\002\\000\\000\\000hi' >&50", nullptr);
        _exit(127);
    }
    int status = 0;
    ASSERT_EQ(waitpid(child, &status, 0), child);
    ASSERT_TRUE(WIFEXITED(status) && WEXITSTATUS(status) == 0);

    Message message;
    Read(kMessageClientSocket, message, 1);
    EXPECT_EQ(message.result, 0);
    EXPECT_EQ(message.Payload(), "hi");
    CloseFixedPair();
}

TEST(MakeSocketPair, ASecondPairReplacesTheFirst) {
    ASSERT_EQ(vel::MakeSocketPair(kMessageServerSocket, kMessageClientSocket), 0);
    int oldClient = dup(kMessageClientSocket);
    ASSERT_NE(oldClient, -1);
    ASSERT_EQ(vel::MakeSocketPair(kMessageServerSocket, kMessageClientSocket), 0);

    // dup2 closed the old server end, so the old client end sees end of stream.
    Message old;
    Read(oldClient, old, 0);
    EXPECT_EQ(old.result, vel::kEndOfStream);
    close(oldClient);

    ASSERT_EQ(vel::WriteLengthPrefixed(kMessageServerSocket, "new", 3), 0);
    Message fresh;
    Read(kMessageClientSocket, fresh, 0);
    EXPECT_EQ(fresh.Payload(), "new");
    CloseFixedPair();
}

TEST(MakeSocketPair, RejectsOneDescriptorForBothEnds) {
    EXPECT_EQ(vel::MakeSocketPair(kMessageServerSocket, kMessageServerSocket), EINVAL);
    EXPECT_EQ(fcntl(kMessageServerSocket, F_GETFD), -1);
}

// Native length, then the payload; an empty message is its header alone and
// reads back as a buffer of the padding, zeroed.
TEST(LengthPrefixed, RoundTripWithPadding) {
    LocalPair pair;
    ASSERT_EQ(vel::WriteLengthPrefixed(pair.fds[0], "hello", 5), 0);
    ASSERT_EQ(vel::WriteLengthPrefixed(pair.fds[0], nullptr, 0), 0);
    unsigned char wire[16] = {0};
    ASSERT_EQ(recv(pair.fds[1], wire, sizeof wire, MSG_DONTWAIT), 13);
    const unsigned char expected[13] = {5, 0, 0, 0, 'h', 'e', 'l', 'l', 'o', 0, 0, 0, 0};
    EXPECT_EQ(memcmp(wire, expected, sizeof expected), 0);

    ASSERT_EQ(vel::WriteLengthPrefixed(pair.fds[0], "abc", 3), 0);
    ASSERT_EQ(vel::WriteLengthPrefixed(pair.fds[0], nullptr, 0), 0);
    ASSERT_EQ(vel::WriteLengthPrefixed(pair.fds[0], "z", 1), 0);
    Message message, empty, next;
    Read(pair.fds[1], message, 2);
    ASSERT_EQ(message.result, 0);
    ASSERT_EQ(message.length, 3);
    EXPECT_EQ(std::string(static_cast<char*>(message.data), 5), std::string("abc\0\0", 5));
    Read(pair.fds[1], empty, 4);
    ASSERT_EQ(empty.result, 0);
    EXPECT_EQ(empty.length, 0);
    ASSERT_NE(empty.data, nullptr);
    EXPECT_EQ(memcmp(empty.data, "\0\0\0\0", 4), 0);
    Read(pair.fds[1], next, 0); // the empty message took only its header
    EXPECT_EQ(next.Payload(), "z");
}

TEST(LengthPrefixed, FailuresAllocateNothing) {
    LocalPair pair;
    EXPECT_EQ(vel::WriteLengthPrefixed(pair.fds[0], "x", -1), EINVAL);
    EXPECT_EQ(vel::WriteLengthPrefixed(pair.fds[0], nullptr, 1), EINVAL);
    EXPECT_EQ(vel::WriteLengthPrefixed(pair.fds[0], "x", vel::kMaxLengthPrefixed + 1), EINVAL);
    EXPECT_EQ(vel::WriteLengthPrefixed(-1, "x", 1), EBADF);
    void* data = nullptr;
    int length = 0;
    EXPECT_EQ(vel::ReadLengthPrefixed(pair.fds[1], &data, length, -1), EINVAL);
    EXPECT_EQ(vel::ReadLengthPrefixed(pair.fds[1], nullptr, length, 0), EINVAL);
    EXPECT_EQ(data, nullptr);
    Message bad;
    Read(-1, bad, 0);
    EXPECT_EQ(bad.result, EBADF);

    for (uint32_t hostile : {0xFFFFFFFFu, static_cast<uint32_t>(vel::kMaxLengthPrefixed) + 1}) {
        ASSERT_EQ(write(pair.fds[0], &hostile, sizeof hostile), 4);
        Message message;
        Read(pair.fds[1], message, 1);
        EXPECT_EQ(message.result, EMSGSIZE) << hostile;
        EXPECT_EQ(message.data, nullptr);
    }
    pair.CloseWriter();
    Message ended;
    Read(pair.fds[1], ended, 1);
    EXPECT_EQ(ended.result, 9);
    EXPECT_EQ(ended.data, nullptr);
}

TEST(IsAuthentic, OnlyAFailedStatOfRootCompares) {
    int open = dup(STDIN_FILENO);
    ASSERT_NE(open, -1);
    const std::tuple<const char*, int, bool> cases[] = {
        {"no-such-user-nd", -1, false},
        {"root", open, false}, // any open descriptor: false
        {"root", -1, true},    // the zeroed record's owner is root
        {"daemon", -1, false},
    };
    for (const auto& [user, fd, authentic] : cases) {
        EXPECT_EQ(vel::IsAuthentic(user, fd), authentic) << user << " " << fd;
    }
    close(open);
}

} // namespace
