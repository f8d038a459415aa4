// Library handles on TCP loopback for end-to-end tests: a server that accepts
// one peer and runs its dispatch loop on a thread of its own, and clients.
// Header-only, and through the public API alone. Handles are initialised and
// terminated on the test's thread only, since that bookkeeping is process-wide.
#pragma once

#include <unistd.h>

#include <chrono>
#include <cstdlib>
#include <future>
#include <string>
#include <utility>
#include <vector>

#include <zephrpc.h>

#include "helpers/raw_peer.h"

namespace zrpc::test {

constexpr const char *kUid = "call-test";
constexpr uint32_t IN = RPC_IN, OUT = RPC_OUT, INOUT = RPC_IN | RPC_OUT;
using Params = std::initializer_list<std::pair<uint32_t, const char *>>;  // flags and name

// The handle's error code, as a user reads it.
inline int32_t error_of(HRPC h) {
    const char *text = nullptr;
    return RPCReportError(h, &text);
}

inline RPCFuncDesc F(const char *name, RPCServerFn fn, Params params) {
    RPCFuncDesc d{};
    d.name = const_cast<char *>(name);
    d.entry = fn;
    int i = 0;
    for (auto [flags, param] : params) {
        d.params[i].flags = flags;
        d.params[i++].name = const_cast<char *>(param);
    }
    return d;
}
inline RPCMemDesc desc(int32_t length, void *buffer) {
    RPCMemDesc d{};
    d.length = length;
    d.value = buffer;
    return d;
}
// Error callback that collects the codes in a std::vector<int32_t>.
inline void record_code(int32_t code, void *codes) {
    static_cast<std::vector<int32_t> *>(codes)->push_back(code);
}

// A handle for 127.0.0.1:port over BSD sockets (transport 1). A client
// retries a refused connect for a while, since a busy machine may start the
// server's listener late (the waits grow by 0.1 s per attempt).
inline HRPC new_handle(int32_t mode, uint16_t port, const char *tracing = nullptr) {
    HRPC h = RPCAllocHandle();
    RPCInitialise(h, mode, 0);
    if (tracing) SetTracing(h, tracing);
    RPCSetTransportOpts(h, 1, mode == RPC_MODE_CLIENT ? "127.0.0.1" : nullptr,
                        std::to_string(port).c_str(), nullptr, nullptr, nullptr, nullptr, nullptr);
    RPCSetLowLTransportOpts(h, 1, RPC_LOWL_ATTEMPTS, "20");
    return h;
}
inline void free_handle(HRPC h) {
    RPCDisconnect(h);
    RPCTerminate(h);
    RPCFreeHandle(h);
}

struct ServedHandle {
    explicit ServedHandle(const RPCFuncDesc *table, const char *tracing = nullptr)
        : h(new_handle(RPC_MODE_SERVER, port, tracing)) {
        RPCExport(h, table);
        done = std::async(std::launch::async, [this] {
            const int32_t r = RPCConnect(h, 1, 0, kUid) ? -1 : RPCRun(h) != 1 ? -2 : error_of(h);
            RPCDisconnect(h);  // at once: a client's orderly close waits for it
            return r;
        });
    }
    ~ServedHandle() {
        finish();
        free_handle(h);
    }
    // The code that ended the dispatch loop (-1: never connected, -2: RPCRun
    // did not return 1). Bounded: an accept that got no peer is woken by a
    // connection; a loop that still does not end aborts the test program.
    int32_t finish() {
        using std::future_status::ready;
        if (!done.valid()) return result;
        if (done.wait_for(std::chrono::seconds(5)) != ready) close(connect_loopback(port));
        if (done.wait_for(std::chrono::seconds(5)) != ready) std::abort();
        return result = done.get();
    }

    const uint16_t port = free_port();
    HRPC h;
    std::future<int32_t> done;
    int32_t result = -1;
};

}  // namespace zrpc::test
