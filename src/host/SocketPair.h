// Local socket pairs at agreed descriptor numbers, inherited by the display
// program, and length-prefixed messages over them. Stateless; each stream end
// has one reading thread.
#pragma once

#include <string>

#include "host/DisplayProgramInterface.h"

namespace vel {

constexpr int kMessageServerSocket = 50;
constexpr int kMessageClientSocket = 51;
constexpr int kAcknowledgeClientPort = 61;

// ReadLengthPrefixed's result when the peer has closed its end.
constexpr int kEndOfStream = 9;
// Longest payload either side accepts (1 MiB); longer gives EMSGSIZE/EINVAL.
constexpr int kMaxLengthPrefixed = 1 << 20;

// 0, -1 when socketpair fails, or errno. Both ends stay open across exec.
int MakeSocketPair(int serverFd, int clientFd);
// 4-byte native-order length, then the payload, in one write. 0 or errno.
int WriteLengthPrefixed(int socket, const void* data, int length);
// 0, 9 at end of stream, or errno; on 0, *data is a zero-filled malloc'd
// buffer of length + padding bytes for the caller to free, else it is null.
int ReadLengthPrefixed(int socket, void** data, int& length, int padding);
bool IsAuthentic(const std::string& userName, int fd);

} // namespace vel
