// An in-memory transport for marshalling tests: every frame a handle sends is
// recorded, and frames to receive are queued by the test (or by a paired link,
// so two handles can talk without sockets).
#pragma once

#include <cstdint>
#include <deque>
#include <vector>

#include "base/handle.h"
#include "net/net.h"

namespace zrpc::test {

class CaptureLink {
public:
    CaptureLink();
    CaptureLink(const CaptureLink &) = delete;
    CaptureLink &operator=(const CaptureLink &) = delete;

    // Makes `h` send and receive through this link (h->conn).
    void attach(HRPC h);
    // Frames sent here are also queued for `peer` to receive.
    void pair_with(CaptureLink &peer) { peer_ = &peer; }

    std::vector<std::vector<uint8_t>> sent;      // every frame, in order
    std::deque<std::vector<uint8_t>> incoming;   // frames to hand out
    bool fail_send = false;

    // All sent frames joined into one byte stream.
    std::vector<uint8_t> sent_bytes() const;

private:
    static int32_t do_send(void *self, const void *data, uint32_t length);
    static int32_t do_recv(void *self, void *buffer, uint32_t size, uint32_t *length);

    NETDriver driver_{};
    NETConnection conn_{};
    CaptureLink *peer_ = nullptr;
};

}  // namespace zrpc::test
