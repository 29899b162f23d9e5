// Local socket pairs at agreed descriptor numbers, inherited by the display
// program, and length-prefixed messages over them. Stateless.
#pragma once

#include <string>

namespace vel {

constexpr int kMessageServerSocket = 50;
constexpr int kMessageClientSocket = 51;
constexpr int kAcknowledgeDaemonPort = 60;
constexpr int kAcknowledgeClientPort = 61;

int MakeSocketPair(int serverFd, int clientFd);
int WriteLengthPrefixed(int socket, const void* data, int length);
// 0, 9 at end of stream, or errno; *data is malloc'd (length + padding).
int ReadLengthPrefixed(int socket, void** data, int& length, int padding);
bool IsAuthentic(const std::string& userName, int fd);

} // namespace vel
