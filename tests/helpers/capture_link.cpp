#include "helpers/capture_link.h"

#include <algorithm>
#include <cstring>

namespace zrpc::test {

CaptureLink::CaptureLink() {
    driver_.name = "capture";
    driver_.description = "in-memory capture";
    driver_.send = &CaptureLink::do_send;
    driver_.recv = &CaptureLink::do_recv;
    conn_.driver = &driver_;
    conn_.driver_conn = this;
}

void CaptureLink::attach(HRPC h) { h->conn = &conn_; }

std::vector<uint8_t> CaptureLink::sent_bytes() const {
    std::vector<uint8_t> all;
    for (const auto &frame : sent) all.insert(all.end(), frame.begin(), frame.end());
    return all;
}

int32_t CaptureLink::do_send(void *self, const void *data, uint32_t length) {
    auto *link = static_cast<CaptureLink *>(self);
    if (link->fail_send) return 1;
    const auto *p = static_cast<const uint8_t *>(data);
    link->sent.emplace_back(p, p + length);
    if (link->peer_) link->peer_->incoming.emplace_back(p, p + length);
    return 0;
}

int32_t CaptureLink::do_recv(void *self, void *buffer, uint32_t size, uint32_t *length) {
    auto *link = static_cast<CaptureLink *>(self);
    if (link->incoming.empty()) return 1;
    std::vector<uint8_t> frame = std::move(link->incoming.front());
    link->incoming.pop_front();
    *length = static_cast<uint32_t>(frame.size());
    if (!frame.empty())
        std::memcpy(buffer, frame.data(), std::min<std::size_t>(frame.size(), size));
    return 0;
}

}  // namespace zrpc::test
