// The one transport object of the daemon: its creation with the back-off
// between attempts, and its removal. StartTransport and StopTransport run on
// the main thread; every thread reads `transport` (atomic).
#pragma once

#include <atomic>
#include <string>

#include "transport/htctl.h"

constexpr int kTransportPort = 443;
constexpr int kFirstRetryDelaySeconds = 60;
constexpr int kMaxRetryDelaySeconds = 28800;
constexpr unsigned kCreateParamsSize = 64; // the record's size as the protocol states it

// Null until StartTransport has a transport; never a destroyed one.
extern std::atomic<vel::CHTCTL*> transport;

// Creates the transport and retries until its Create reaches a gateway,
// waiting 60 s, then twice as long each time, at most 28800 s, and logging
// "Couldn't connect. Trying again." after each wait. Always true.
bool StartTransport();
// Forgets the transport, then destroys it. A worker thread that loaded the
// pointer just before may still be inside a call on it: nothing in the run
// sequence calls this, and a caller must first stop the workers' use.
void StopTransport();

// The wait that follows `delaySeconds`: doubled, at most 28800 s.
int NextRetryDelay(int delaySeconds);
// The creation record: `systemName` is cut to the 16 characters of the name
// field (not terminated when it fills it), 10 sessions, reconnection on,
// ClientCallback as the callback.
void FillCreateParams(tagCTLCREATEPARAMS& params, const std::string& systemName);
