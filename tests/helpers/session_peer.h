// Session-level test helpers: handles that clean up after themselves and the
// other side of a connect spoken on a raw socket. Every wait is bounded.
#pragma once

#include <unistd.h>

#include <cstdint>
#include <future>
#include <string>
#include <vector>

#include "base/handle.h"
#include "helpers/raw_peer.h"

namespace zrpc::test {

// Runs an internal step that fails by throwing, as an entry point would,
// and returns the code it left in the handle (0 when it succeeded).
template <class Step>
int32_t code_of(HRPC h, Step step) {
    return guarded(h, [&] {
        step(h);
        return 0;
    }) != 0
               ? load_error(h)
               : 0;
}

// An initialised handle; disconnected, terminated and freed at scope end.
struct TestHandle {
    explicit TestHandle(int32_t mode, int32_t descriptor = 0) : h(RPCAllocHandle()) {
        RPCInitialise(h, mode, descriptor);
    }
    TestHandle(const TestHandle &) = delete;
    ~TestHandle() {
        if (h->state >= RPC_STATE_OPTIONS_SET) RPCDisconnect(h);
        if (h->state != RPC_STATE_ALLOCATED) RPCTerminate(h);
        RPCFreeHandle(h);
    }
    operator HRPC() const { return h; }
    HRPC operator->() const { return h; }
    HRPC h;
};

// A library handle of `mode` on TCP loopback whose peer is the raw socket
// `fd`. Receives give up after 10 seconds, and so does a server's accept: a
// silent peer fails a connect instead of hanging it. The raw end hangs up
// first at scope end, since a client's disconnect waits for the peer's close.
struct RawPeer {
    explicit RawPeer(int32_t mode)
        : port(mode == RPC_MODE_CLIENT ? listener.port() : free_port()), h(mode) {
        RPCSetTransportOpts(h, 1, "127.0.0.1", std::to_string(port).c_str(), 0, 0, 0, 0, 0);
        RPCSetLowLTransportOpts(h, 2, RPC_LOWL_ATTEMPTS, "5", RPC_LOWL_RCVTIMEO, "10");
    }
    ~RawPeer() { hang_up(); }
    // RPCConnect(h, 3, 1, "abc") on a thread of its own, then the raw end's
    // accept or connect.
    std::future<int32_t> start() {
        std::future<int32_t> pending =
            std::async(std::launch::async, [h = h.h] { return RPCConnect(h, 3, 1, "abc"); });
        fd = h->mode == RPC_MODE_CLIENT ? listener.accept_one() : connect_loopback_retry(port);
        return pending;
    }
    // The raw end of a good negotiation. Facing a server it reads magic,
    // version and parameters, answers 04:8^10:8^ and reads the table up to
    // "C". Facing a client it sends magic, 3:1:abc and 04:8^10:8^, reads the
    // client's parameters and sends an empty table. Texts travel with their
    // zero. Returns the packets read, or none on a transport failure.
    std::vector<std::string> handshake();
    void hang_up() {
        if (fd >= 0) close(fd);
        fd = -1;
    }

    Listener listener;  // what a library client connects to
    uint16_t port;
    TestHandle h;
    int fd = -1;
};

// The text RPCReportError gives for the handle's current error code.
inline std::string report(HRPC h) {
    const char *text = nullptr;
    RPCReportError(h, &text);
    return text ? text : "<null>";
}

// `text` with its terminating zero, as texts travel in negotiation.
inline std::string z(std::string_view text) { return std::string(text) + '\0'; }

// "alpha" (int32 in "count", mem out unnamed of 64, handle in "h"), "beta"
// (none), "gamma" (int16 in/out named "", SQLLEN array in "lens" of 80), then
// a null name.
const RPCFuncDesc *sample_table();

}  // namespace zrpc::test
