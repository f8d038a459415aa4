// Two handles joined by in-memory links: what `tx` sends, `rx` receives.
// Used by the marshalling suites to check bytes on the wire and round trips.
#pragma once

#include <algorithm>
#include <cstdint>
#include <memory>
#include <utility>
#include <vector>

#include "helpers/capture_link.h"
#include "marshal/block.h"
#include "marshal/frame.h"

namespace zrpc::test {

using Bytes = std::vector<uint8_t>;
using HandlePtr = std::unique_ptr<rpc_handle, decltype(&RPCFreeHandle)>;

inline HandlePtr make_handle(int32_t mode, uint64_t flags, int32_t peer_ptr_size = 8) {
    HandlePtr h(RPCAllocHandle(), RPCFreeHandle);
    h->mode = mode;
    h->flags = flags;
    h->peer_ptr_size = peer_ptr_size;
    return h;
}

struct WirePair {
    // The receiver is of the other mode, with the same flags.
    WirePair(int32_t tx_mode, uint64_t flags, int32_t peer_ptr_size = 8)
        : owned_tx(make_handle(tx_mode, flags, peer_ptr_size)),
          owned_rx(make_handle(1 - tx_mode, flags, peer_ptr_size)) {
        tx_link.attach(tx);
        rx_link.attach(rx);
        tx_link.pair_with(rx_link);
    }
    // Sends one message built by `pushes`, then opens it on the receiver.
    template <typename Pushes>
    void send(Pushes &&pushes) {
        RPCStartOFrame(tx);
        pushes(tx);
        RPCPostFrame(tx);
        RPCStartIFrame(rx);
    }
    // Opens a message made of `frames` on the receiver, as if a peer sent them.
    void receive(const std::vector<Bytes> &frames) {
        rx_link.incoming.assign(frames.begin(), frames.end());
        RPCStartIFrame(rx);
    }
    // Swaps the roles for the answer: what `rx` sends now, `tx` receives.
    void turn() {
        std::swap(tx, rx);
        tx_link.attach(tx);
        rx_link.attach(rx);
        tx_link.sent.clear();
    }
    Bytes bytes() const { return tx_link.sent_bytes(); }

    HandlePtr owned_tx, owned_rx;
    HRPC tx = owned_tx.get();
    HRPC rx = owned_rx.get();
    CaptureLink tx_link, rx_link;
};

// The bytes of the one message `pushes` builds on a handle of `mode`.
template <typename Pushes>
Bytes wire_of(int32_t mode, uint64_t flags, Pushes &&pushes) {
    WirePair w(mode, flags);
    w.send(pushes);
    return w.bytes();
}

inline RPCMemDesc desc(const void *data, int64_t length) {
    RPCMemDesc d{};
    d.value = const_cast<void *>(data);
    d.length = static_cast<int32_t>(length);
    return d;
}

// Pops a block header and payload the way the call code does, into a buffer
// `widen` times the announced length (2 for SQLLEN arrays from a 4-byte peer).
inline Bytes pop_block(HRPC rx, uint32_t array_flags = 0, int32_t widen = 1) {
    int32_t length = 0;
    RPCPopInt32(rx, &length, "n");
    int32_t wire = length;
    if (compresses(rx, length)) RPCPopInt32(rx, &wire, "n");
    Bytes out(static_cast<size_t>(std::max(length, 0) * widen));
    const auto size = static_cast<int32_t>(out.size());
    if (array_flags != 0) RPCPopArray(rx, wire, size, out.data(), array_flags, "n");
    else RPCPopMem(rx, wire, length, out.data(), "n");
    return out;
}

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
