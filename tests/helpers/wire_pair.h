// Two handles joined by in-memory links: what `tx` sends, `rx` receives.
// Used by the marshalling suites to check bytes on the wire and round trips.
#pragma once

#include <cstdint>
#include <memory>
#include <vector>

#include "helpers/capture_link.h"
#include "marshal/frame.h"

namespace zrpc::test {

struct HandleFree {
    void operator()(rpc_handle *h) const { RPCFreeHandle(h); }
};
using HandlePtr = std::unique_ptr<rpc_handle, HandleFree>;

inline HandlePtr make_handle(int32_t mode, uint64_t flags, int32_t peer_ptr_size = 8) {
    HandlePtr h(RPCAllocHandle());
    h->mode = mode;
    h->flags = flags;
    h->peer_ptr_size = peer_ptr_size;
    return h;
}

struct WirePair {
    WirePair(int32_t tx_mode, uint64_t tx_flags, int32_t rx_mode, uint64_t rx_flags,
             int32_t peer_ptr_size = 8)
        : tx(make_handle(tx_mode, tx_flags, peer_ptr_size)),
          rx(make_handle(rx_mode, rx_flags, peer_ptr_size)) {
        tx_link.attach(tx.get());
        rx_link.attach(rx.get());
        tx_link.pair_with(rx_link);
    }
    // Sends one message built by `pushes`, then opens it on the receiver.
    template <typename Pushes>
    void send(Pushes &&pushes) {
        RPCStartOFrame(tx.get());
        pushes(tx.get());
        RPCPostFrame(tx.get());
        RPCStartIFrame(rx.get());
    }
    std::vector<uint8_t> bytes() const { return tx_link.sent_bytes(); }

    HandlePtr tx, rx;
    CaptureLink tx_link, rx_link;
};

// The code a marshalling call failed with, or 0 when it did not fail.
template <typename Body>
int32_t error_of(Body &&body) {
    try {
        body();
    } catch (const RpcError &e) {
        return e.code;
    }
    return 0;
}

}  // namespace zrpc::test
