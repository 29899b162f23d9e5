// Operations and handlers whose work is still to be written. Each handler
// skips its body's lines up to the first empty line; each operation returns
// its "nothing done" value.
#include "transport/htctl.h"

namespace vel {

// Will take CONNECTION_ID / CONTROL_NAME / CONTROL_ADDR, commit a session and answer CONNECT_REPLY.
void CHTCTL::OnConnect(tagHTTP_BUF& body, CTL_HTTP_CONNECTION&) {
    OnUnknownResponse(body, nullptr);
}

// Will unlink the session the gateway names by CONNECTION_ID (callback code 3).
void CHTCTL::OnHangup(tagHTTP_BUF& body, CTL_HTTP_CONNECTION&) {
    OnUnknownResponse(body, nullptr);
}

// Will decode a base-64 data frame and pass it to its session (callback code 1).
void CHTCTL::OnNCData(tagHTTP_BUF& body, CTL_HTTP_CONNECTION&) {
    OnUnknownResponse(body, nullptr);
}

// Will hang up every session of the link.
void CHTCTL::OnClose(tagHTTP_BUF& body, CTL_HTTP_CONNECTION&) {
    OnUnknownResponse(body, nullptr);
}

// Will decode a bare yEnc data frame and pass it to its session; always consumed.
int CHTCTL::ProcessNCData(char*, int, CTL_HTTP_CONNECTION&) {
    return 1;
}

// Will report each listed client through callback code 1 and end the browse wait.
void CHTCTL::OnBrowseReply(tagHTTP_BUF& body, CTL_HTTP_CONNECTION&) {
    OnUnknownResponse(body, nullptr);
}

// Will store the outcome of an outbound call and end Call's wait.
void CHTCTL::OnConnectReply(tagHTTP_BUF& body, CTL_HTTP_CONNECTION&) {
    OnUnknownResponse(body, nullptr);
}

// Will store the outcome of AddDomain and end its wait.
void CHTCTL::OnAddDomainReply(tagHTTP_BUF& body, CTL_HTTP_CONNECTION&) {
    OnUnknownResponse(body, nullptr);
}

// Will send to one session, or broadcast for numbers <= 0 through the subset bitmaps.
int CHTCTL::Send(int, const void*, int) {
    return -1;
}

// Will send one data frame (yEnc form B from protocol 1.1 on, else base-64 form A).
int CHTCTL::Send1(int, const void*, int) {
    return -1;
}

// Will pause or resume an outbound session's reading.
int CHTCTL::Pause(int, bool) {
    return 0;
}

// Will place a call to a named client through a numbered gateway.
int CHTCTL::Call(const char*, int, char*, char*) {
    return -1;
}

// Will send CMD=CTL_CANCEL_CONNECT for a pending call.
int CHTCTL::CancelCall(CTL_HTTP_CONNECTION*, const char*, const char*) {
    return -1;
}

// Will browse the gateways' directories for matching clients.
int CHTCTL::FindSlaves(const char*, int, int) {
    return 0;
}

// Will register a domain with a numbered gateway and wait for its answer.
int CHTCTL::AddDomain(const char*, CTL_ADDDOMAIN_PARAMS*, long*) {
    return 0;
}

// Will send CMD=USERSTATUS on the first link.
int CHTCTL::UserStatus(const char*, tagCTL_USERSTATUSINFO*) {
    return 0;
}

} // namespace vel
