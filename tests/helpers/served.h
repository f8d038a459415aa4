// A library server handle that connects (accepting one peer on a loopback
// port) and runs its dispatch loop on a thread of its own, and a matching
// library client. Header-only. Handles are initialised and terminated on the
// test's thread only, since that bookkeeping is process-wide.
#pragma once

#include <sys/socket.h>
#include <unistd.h>

#include <chrono>
#include <future>
#include <string>
#include <thread>

#include "core/handle.h"
#include "helpers/raw_peer.h"
#include "net/bsdio.h"
#include "net/net.h"

namespace zrpc::test {

constexpr int32_t kBsdTransport = 1;
constexpr const char *kUid = "call-test";

struct ServerResult {
    int32_t connect = -1;  // RPCConnect's result
    int32_t run = -1;      // RPCRun's result (-1: not reached)
    int32_t error = 0;     // error code when the thread ended
};

class ServedHandle {
public:
    ServedHandle(const RPCFuncDesc *table, const char *tracing = nullptr)
        : port_(free_port()), h(RPCAllocHandle()) {
        RPCInitialise(h, RPC_MODE_SERVER, 0);
        RPCExport(h, table);
        if (tracing) SetTracing(h, tracing);
        const std::string port = std::to_string(port_);
        RPCSetTransportOpts(h, kBsdTransport, nullptr, port.c_str(), nullptr, nullptr, nullptr,
                            nullptr, nullptr);
        done_ = std::async(std::launch::async, [this] {
            ServerResult r;
            r.connect = RPCConnect(h, 1, 0, kUid);
            if (r.connect == 0) r.run = RPCRun(h);
            r.error = h->error_code;
            // Close our end at once: a client's orderly close waits for it.
            RPCDisconnect(h);
            return r;
        });
    }
    ServedHandle(const ServedHandle &) = delete;
    ServedHandle &operator=(const ServedHandle &) = delete;
    ~ServedHandle() {
        finish();
        RPCTerminate(h);
        RPCFreeHandle(h);
    }

    uint16_t port() const { return port_; }

    // Waits for the thread to end: first as it is, then after waking an
    // accept that never got a peer, then by shutting the served socket.
    // Each stage is bounded; the result is what the thread reported.
    ServerResult finish(int timeout_ms = 5000) {
        if (finished_) return result_;
        using std::chrono::milliseconds;
        if (done_.wait_for(milliseconds(timeout_ms)) != std::future_status::ready) {
            int fd = connect_loopback(port_);
            if (fd >= 0) close(fd);
        }
        if (done_.wait_for(milliseconds(timeout_ms)) != std::future_status::ready) {
            if (h->conn && h->conn->driver_conn)
                shutdown(static_cast<BsdConnection *>(h->conn->driver_conn)->socket, SHUT_RDWR);
        }
        if (done_.wait_for(milliseconds(timeout_ms)) != std::future_status::ready) std::abort();
        result_ = done_.get();
        finished_ = true;
        return result_;
    }

private:
    uint16_t port_;
    std::future<ServerResult> done_;
    bool finished_ = false;
    ServerResult result_;

public:
    HRPC h;
};

// Points a client handle at 127.0.0.1:port with the BSD sockets transport.
inline int32_t aim_client(HRPC h, uint16_t port) {
    const std::string p = std::to_string(port);
    const int32_t r = RPCSetTransportOpts(h, kBsdTransport, "127.0.0.1", p.c_str(), nullptr,
                                          nullptr, nullptr, nullptr, nullptr);
    // A busy machine may start the server's listener late: keep retrying a
    // refused connect for a while (the waits grow by 0.1 s per attempt).
    RPCSetLowLTransportOpts(h, 1, RPC_LOWL_ATTEMPTS, "20");
    return r;
}

// A client handle connected to 127.0.0.1:port (null when the connect
// failed; the handle is then freed). Free it with close_client.
inline HRPC open_client(uint16_t port, const char *tracing = nullptr, const char *uid = kUid) {
    HRPC h = RPCAllocHandle();
    RPCInitialise(h, RPC_MODE_CLIENT, 0);
    if (tracing) SetTracing(h, tracing);
    aim_client(h, port);
    if (RPCConnect(h, 1, 0, uid) != 0) {
        RPCTerminate(h);
        RPCFreeHandle(h);
        return nullptr;
    }
    return h;
}

inline void close_client(HRPC h) {
    if (!h) return;
    RPCDisconnect(h);
    RPCTerminate(h);
    RPCFreeHandle(h);
}

}  // namespace zrpc::test
