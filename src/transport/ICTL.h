// The transport interface seen by the application: the creation record, the
// callback union and codes, the request records, the abstract ICTL in its
// fixed slot order, and ICTLCommon, which owns the session table. The
// application calls ICTL from its own threads; callbacks arrive on the
// transport's read threads. ICTLCommon::m_lock guards the session table (slot
// states, the round-robin base, the subset bitmaps); the transport's
// connection-list lock, where both are needed, is always taken first.
#pragma once

#include <atomic>
#include <stddef.h>
#include <stdint.h>
#include <stdlib.h>
#include <string.h>

#include "threads/ThreadCompat.h"
#include "transport/TrackedCriticalSection.h"

union CTL_CALLBACK;

// The application's event callback: code, its context, the event record.
typedef int (*CtlCallbackFn)(int code, void* cbdata, CTL_CALLBACK* cb);

// Value of every record's `transport` field: the HTTP-tunnelled transport.
constexpr int kCtlTransportHttp = 3;

// Callback event codes raised by the transport.
enum CtlCallbackCode {
    kCtlDataReceived = 1, // `message` (notification) or `data`
    kCtlHungUp = 3,       // `hungup`
    kCtlCheckCancel = 4,  // zero-filled `error`; non-zero answer cancels a wait
    kCtlConfigString = 7, // `configstr`
    kCtlConfigInt = 8,    // `configint`; the answer is the value
    kCtlCalled = 10,      // `called`
    kCtlFileInfo = 16,    // `fileinfo`
};

// Operation results beside 0 / -1, as AddDomain leaves them in errno and the
// waiting GetFileInfo and Call report them.
enum CtlResultCode {
    kCtlErrorBadArgument = 87,
    kCtlErrorCancelled = 1223,
    kCtlErrorTimedOut = 1460,
    kCtlCallBadTarget = 255, // Call's answer to a target it cannot parse
};

// Creation parameters. The application stores 64 in cbSize, the record's size
// on the 32-bit targets the protocol was laid out for; with 8-byte pointers
// the same fields take 80 bytes. The transport never reads cbSize, so the
// value is carried, not checked (the layout is pinned below and in the tests).
struct tagCTLCREATEPARAMS {
    unsigned int cbSize;
    char name[16]; // client name; need not be terminated
    int ctltype;   // negative: automatic reconnection, no subset bitmaps
    int slavetype; // 0 or 256: Create connects to the gateway
    char serial[11];
    int sessions;
    CtlCallbackFn callback;
    void* cbdata;
    unsigned int iflags;
    unsigned int oflags;
    int last_op;
};
static_assert(offsetof(tagCTLCREATEPARAMS, sessions) == 40, "creation record layout");
static_assert(sizeof(void*) != 8 || sizeof(tagCTLCREATEPARAMS) == 80, "creation record size");
static_assert(sizeof(void*) != 4 || sizeof(tagCTLCREATEPARAMS) == 64, "creation record size");

// Event records; the member is chosen by the callback code. Every record is
// zero-filled before its fields are set and lives only during the callback.
union CTL_CALLBACK {
    struct {
        int transport;
        int session;
        char* addr;
        unsigned char* data;
        int datalen;
        uint16_t port;
        const void* context;
        int what;
    } data;
    struct {
        int transport;
        int session;
        char* addr;
        unsigned char* data;
        int datalen;
        int messageid;
        char* sender;
    } message;
    struct {
        int transport;
        int session;
        int err;
        int last_op;
    } error;
    struct {
        int transport;
        int session;
    } hungup;
    struct {
        int transport;
        DWORD netnum;
    } netdied;
    struct {
        const char* section;
        const char* key;
        char* buf;
        int buflen;
    } configstr;
    struct {
        const char* section;
        const char* key;
        int dflt;
    } configint;
    struct {
        int transport;
    } password;
    struct {
        int transport;
        int session;
        const char* ctlname;
        const char* addr;
        int n_bufs;
        char* pExtra;
        int codepage;
    } called;
    struct {
        const char* exp;
        const char* file;
        unsigned line;
        unsigned flags;
    } assertcb;
    struct {
        int transport;
        char* data;
        int active;
    } status;
    struct {
        int transport;
        int winlasterror;
        int logicalerror;
    } commsstatus;
    struct {
        const char* linkname;
        const char* filename;
        const char* subfolder;
        uint64_t filesize;
        uint64_t lastwritetime;
        const char* serveraddress;
    } fileinfo;
    struct {
        const char* channelspec;
        const char* channel;
    } ismemberchannel;
    struct {
        const char* pin;
    } pindata;
    struct {
        const char* name;
        const char* data;
    } pinconnect;
    struct {
        BOOL bCleared;
    } pinclearresult;
    struct {
        char* data;
        DWORD fc;
    } serverfuncaps;
};

struct tagCTL_MESSAGERECEIVEDINFO {
    DWORD size;
    int messageid;
    int userflags;
    const char* username; // sent as UN when not null and not empty
};

struct tagCTL_MESSAGEACKNOWLEDGEDINFO {
    DWORD size;
    int messageid;
    int userflags;
    const char* username;
};

struct tagCTL_GETFILEINFO {
    DWORD size;
    const char* linkname;
};

struct tagCTL_USERSTATUSINFO {
    DWORD size;
    const char* username;
    const char* department;
    int apptype;
};

// One bit per session (bit i of byte i / 8 is table index i).
struct CTL_SUBSET {
    int len; // bytes in each bitmap
    unsigned char* subset;
    unsigned char* omit;
};

struct CTL_ADDDOMAIN_PARAMS {
    const char* guid;
    const char* description;
    const char* key;
};

struct s_CTL_STACKINFO;

// The transport interface. Slots 0 and 1 are the destructors; the order of the
// operations below is the interface's slot order and must not change.
class ICTL {
public:
    virtual ~ICTL() {}
    virtual int Create(tagCTLCREATEPARAMS* params) = 0;                                      // 2
    virtual CTL_SUBSET* Subset(CTL_SUBSET* subset) = 0;                                      // 3
    virtual int Send(int session, const void* data, int len) = 0;                            // 4
    virtual int SendTo(const char* name, const void* data, int len) = 0;                     // 5
    virtual int Hangup(int session) = 0;                                                     // 6
    virtual int MaxPacketSize() = 0;                                                         // 7
    virtual void GetSessionAddress(int session, char* buf, int buflen) = 0;                  // 8
    virtual int Call(const char* name, int flags, char* buf1, char* buf2) = 0;               // 9
    virtual int ReserveSession() = 0;                                                        // 10
    virtual int GetNumberOfActiveSessions() = 0;                                             // 11
    virtual int GetNumberOfClientBuffers(int session) = 0;                                   // 12
    virtual int FindSlaves(const char* match, int flags, int context) = 0;                   // 13
    virtual int Escape(int code, unsigned inlen, void* in, unsigned outlen, void* out) = 0;  // 14
    virtual int Pause(int session, bool pause) = 0;                                          // 15
    virtual void HelpRequestPending(bool pending) = 0;                                       // 16
    virtual int GetFailedReason() = 0;                                                       // 17
    virtual int NetworkInstalled(int index, s_CTL_STACKINFO* info) = 0;                      // 18
    virtual int AddDomain(const char* name, CTL_ADDDOMAIN_PARAMS* params, long* result) = 0; // 19
};

// The session table and the callback, shared by transports over a session
// type T (fields m_inuse, m_inbound, m_nbufs, m_addr). Sessions are numbered
// from 1: number n is m_sessions[n - 1].
template <class T> class ICTLCommon : public ICTL {
public:
    ICTLCommon() = default;
    ICTLCommon(const ICTLCommon&) = delete;
    ICTLCommon& operator=(const ICTLCommon&) = delete;

    // Destroys the sessions (in reverse order), the table and the bitmaps.
    ~ICTLCommon() override {
        delete[] m_sessions;
        free(m_subset.subset);
        free(m_subset.omit);
    }

    // Copies the caller's bitmaps into the transport's (as far as both
    // reach); always returns the transport's record.
    CTL_SUBSET* Subset(CTL_SUBSET* subset) override {
        if (subset != nullptr) {
            vel::CSingleLock lock(&m_lock, TRUE);
            const int n = subset->len < m_subset.len ? subset->len : m_subset.len;
            if (n > 0 && subset->subset != nullptr && m_subset.subset != nullptr) {
                memcpy(m_subset.subset, subset->subset, size_t(n));
            }
            if (n > 0 && subset->omit != nullptr && m_subset.omit != nullptr) {
                memcpy(m_subset.omit, subset->omit, size_t(n));
            }
        }
        return &m_subset;
    }

    // strncpy of the session's address; an unknown number gives "".
    void GetSessionAddress(int session, char* buf, int buflen) override {
        if (buf == nullptr || buflen <= 0) {
            return;
        }
        vel::CSingleLock lock(&m_lock, TRUE);
        const char* addr = Valid(session) ? m_sessions[session - 1].m_addr : "";
        // strncpy semantics: no terminator when the text fills the buffer.
        int i = 0;
        for (; i < buflen && addr[i] != '\0'; ++i) {
            buf[i] = addr[i];
        }
        for (; i < buflen; ++i) {
            buf[i] = '\0';
        }
    }

    // Marks the first free session from the round-robin base as in use and
    // returns its number; 0 when all are taken.
    int ReserveSession() override {
        vel::CSingleLock lock(&m_lock, TRUE);
        for (int probe = 0; probe < m_session_count; ++probe) {
            const int index = (m_next_avail_session_base + probe) % m_session_count;
            if (m_sessions[index].m_inuse == 0) {
                m_sessions[index].m_inuse = 1;
                m_next_avail_session_base = (index + 1) % m_session_count;
                return index + 1;
            }
        }
        return 0;
    }

    // In use and outbound; reads the atomic slot states without the lock.
    int GetNumberOfActiveSessions() override {
        int active = 0;
        for (int i = 0; i < m_session_count; ++i) {
            if (m_sessions[i].m_inuse != 0 && m_sessions[i].m_inbound == 0) {
                ++active;
            }
        }
        return active;
    }

    // One session's buffer count when connected (m_inuse 2); for n <= 0 the
    // smallest over the connected sessions, starting from 3.
    int GetNumberOfClientBuffers(int session) override {
        if (session > m_session_count) {
            return 0;
        }
        if (session >= 1) {
            const T& s = m_sessions[session - 1];
            return s.m_inuse == 2 ? int(s.m_nbufs) : 0;
        }
        vel::CSingleLock lock(&m_lock, TRUE);
        int smallest = 3;
        for (int i = 0; i < m_session_count; ++i) {
            if (m_sessions[i].m_inuse == 2 && int(m_sessions[i].m_nbufs) < smallest) {
                smallest = int(m_sessions[i].m_nbufs);
            }
        }
        return smallest;
    }

    void HelpRequestPending(bool pending) override { m_helpreq_pending = pending; }

    bool Valid(int session) const {
        return m_sessions != nullptr && session >= 1 && session <= m_session_count;
    }

    T* m_sessions = nullptr;
    int m_session_count = 0;
    int m_next_avail_session_base = 0;
    CTL_SUBSET m_subset = {0, nullptr, nullptr};
    std::atomic<bool> m_helpreq_pending{false};
    vel::CTrackedCriticalSection m_lock;
    CtlCallbackFn m_callback = nullptr;
    void* m_cbdata = nullptr;

protected:
    // Called once by Create, before any other thread sees the table.
    void AllocateSessions(int sessions, bool withSubset) {
        m_session_count = sessions > 0 ? sessions : 0;
        m_sessions = new T[size_t(m_session_count)];
        m_next_avail_session_base = 0;
        if (withSubset) {
            m_subset.len = (m_session_count + 7) / 8;
            m_subset.subset = static_cast<unsigned char*>(calloc(size_t(m_subset.len) + 1, 1));
            m_subset.omit = static_cast<unsigned char*>(calloc(size_t(m_subset.len) + 1, 1));
        }
    }
};
