// A transport with one gateway link and a small session table, built afresh
// for each fuzz input so that no input depends on the one before. Fuzz
// targets run on one thread and start no read thread. The link's socket is one
// end of a socket pair, non-blocking so that replies the handlers write never
// block; what they write is drained and dropped. Feed() pushes bytes through
// the pair's other end, so the link's real Read receives them.
#pragma once

#include <stddef.h>
#include <stdint.h>

#include "transport/htctl.h"

namespace ndfuzz {

// Slots the table has, and gateway numbers of the sessions already attached
// on the link (table index i holds gateway number i + 1): inputs naming 1 or
// 2 reach a live session, 3 and 4 a free one.
constexpr int kFuzzSessions = 4;
constexpr int kAttachedSessions = 2;

class FuzzLink {
public:
    FuzzLink();
    ~FuzzLink();
    FuzzLink(const FuzzLink&) = delete;
    FuzzLink& operator=(const FuzzLink&) = delete;

    vel::CHTCTL& Ctl() { return *m_ctl; }
    vel::CTL_HTTP_CONNECTION& Link() { return *m_link; }
    // Writes bytes towards the link; false when the pair is gone or full.
    bool Feed(const uint8_t* data, size_t size);
    // Reads and drops whatever the transport has written.
    void Drain();

private:
    vel::CHTCTL* m_ctl = nullptr;
    vel::CTL_HTTP_CONNECTION* m_link = nullptr;
    int m_peer = -1;
};

// The callback the fuzzed transport raises: reads every byte and text a
// record points at (so ASan sees any bad pointer or length) and answers
// settings questions.
int FuzzCallback(int code, void* cbdata, CTL_CALLBACK* cb);

// True when the yEnc decoder would hit its required abort on a data frame
// value in these bytes: any line whose key is DATA (any case) and whose value,
// read the decoder's way (an "=" takes the next byte with it), ends on an
// unpaired "=". The check reads the raw bytes, so it errs on the side of
// skipping (a line the handlers would never reach counts too).
bool WouldHitRequiredYencAbort(const uint8_t* data, size_t size);

// The same test for one text as yDecode gets it (stops at NUL or size).
bool YencTextWouldAbort(const char* text, size_t size);

} // namespace ndfuzz
