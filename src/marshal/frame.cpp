// Frames: the units a message is cut into, one NETSend / NETReceive each.

#include "marshal/frame.h"

#include <algorithm>
#include <cstring>

namespace zrpc {

namespace {

constexpr uint32_t kMinCapacity = 16;  // above the widest scalar (8 bytes)

}  // namespace

uint32_t frame_capacity(const rpc_handle *h) {
    return std::clamp<uint32_t>(h->frame_limit, kMinCapacity, kFrameSize);
}

void RPCStartOFrame(HRPC h) {
    h->out_frame[0] = kStartByte;
    h->out_len = 1;
    h->out_pos = h->out_frame + 1;
}

void RPCPostFrame(HRPC h) {
    if (h->out_len == 0) return;
    if (NETSend(h->conn, h->out_frame, h->out_len) != 0) fail(RPC_ETRANSPORT);
    h->out_len = 0;
    h->out_pos = h->out_frame;
}

void RPCGetFrame(HRPC h) {
    h->in_pos = h->in_frame;
    h->in_remaining = 0;
    uint32_t received = 0;
    if (NETReceive(h->conn, h->in_frame, kFrameSize, &received) != 0) fail(RPC_ETRANSPORT);
    // A driver claiming more than the buffer holds would let pops read past
    // it; treat that as a failed receive.
    if (received > kFrameSize) fail(RPC_ETRANSPORT);
    h->in_remaining = static_cast<int32_t>(received);
    if (h->in_remaining < 1) fail(RPC_EPKT);
}

void RPCStartIFrame(HRPC h) {
    RPCGetFrame(h);
    if (h->in_frame[0] != kStartByte) fail(RPC_BADSTR);
    h->in_pos = h->in_frame + 1;
    h->in_remaining -= 1;
}

void reserve_out(HRPC h, uint32_t n) {
    if (h->out_len + n >= frame_capacity(h)) RPCPostFrame(h);
}

void put_out(HRPC h, const void *bytes, uint32_t n) {
    // The write position is derived from the length so that a handle whose
    // position was never set (no RPCStartOFrame yet) still writes in bounds.
    std::memcpy(h->out_frame + h->out_len, bytes, n);
    h->out_len += n;
    h->out_pos = h->out_frame + h->out_len;
}

const uint8_t *take_in(HRPC h, uint32_t n) {
    if (h->in_remaining >= 0 && h->in_remaining < static_cast<int32_t>(n)) {
        // The rest of the old frame is dropped: a sender never splits a scalar.
        RPCGetFrame(h);
        // A peer that split one anyway would leave the count negative and the
        // next pops reading past the frame.
        if (h->in_remaining < static_cast<int32_t>(n)) fail(RPC_SRTPKT);
    }
    const uint8_t *at = h->in_pos;
    h->in_pos += n;
    h->in_remaining -= static_cast<int32_t>(n);
    return at;
}

}  // namespace zrpc
