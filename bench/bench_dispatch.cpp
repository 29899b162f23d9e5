// The transport's own share of a notification: one "MESSAGE" response, as the
// development gateway sends it, found whole (MessagePending) and dispatched
// (ProcessMessage: header, body lines, base-64, the message block, callback
// code 1) to a callback that does nothing. Single-threaded; the link has no
// socket, so nothing is written.
#include <string.h>

#include <string>

#include <benchmark/benchmark.h>

#include "GatewayWire.h"
#include "transport/htctl.h"

namespace {

int IgnoreCallback(int, void*, CTL_CALLBACK* cb) {
    benchmark::DoNotOptimize(cb);
    return 0;
}

// Text of the given length with a caption and flags, as the console sends it.
std::string Response(size_t textLength) {
    std::string message = "Printer queue on floor 2 is back online. ";
    while (message.size() < textLength) {
        message += message;
    }
    message.resize(textLength);
    const std::string text = devgw::NotificationText(message, "30|IT Service Desk", "5");
    return devgw::WrapResponse(devgw::wire::MessageBody(4711, "helpdesk", text));
}

void BM_DispatchMessage(benchmark::State& state) {
    const std::string wire = Response(size_t(state.range(0)));
    vel::CHTCTL ctl(443);
    ctl.m_callback = &IgnoreCallback;
    vel::CTL_HTTP_CONNECTION link("gw.example:443", "key", &ctl, nullptr);
    // The read loop's buffer, refilled each time: dispatch consumes it.
    tagHTTP_BUF buf = {int(wire.size()), 0, 0, static_cast<char*>(malloc(wire.size() + 1))};
    int dispatched = 0;
    for (auto _ : state) {
        memcpy(buf.data, wire.data(), wire.size() + 1);
        buf.datalen = int(wire.size());
        buf.offset = 0;
        while (ctl.MessagePending(buf, link) && ctl.ProcessMessage(buf, link)) {
            ++dispatched;
        }
    }
    FreeHttpBuf(&buf);
    if (dispatched != int(state.iterations())) {
        state.SkipWithError("a message was not dispatched");
    }
    state.SetBytesProcessed(int64_t(state.iterations()) * int64_t(wire.size()));
    state.counters["wire_bytes"] = double(wire.size());
}

// A one-line notification, a paragraph, and about the largest that fits.
BENCHMARK(BM_DispatchMessage)->Arg(40)->Arg(400)->Arg(2800);

} // namespace
