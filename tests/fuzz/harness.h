// Shared by the fuzz targets: a library handle whose peer is the far end of
// a socketpair, adopted through the descriptor (TTY) transport. The target
// writes what the peer says into the pair and closes it, so every read the
// library makes ends in data or end of stream: no input can make it wait.
#pragma once

#include <cstddef>
#include <cstdint>
#include <string>
#include <utility>
#include <vector>

#include <zephrpc.h>

namespace fuzz {

using Bytes = std::vector<uint8_t>;

// Reads fuzz input from the front.
class Input {
public:
    Input(const uint8_t *data, size_t size) : p_(data), end_(data + size) {}
    uint8_t byte() { return p_ < end_ ? *p_++ : 0; }
    // Packets: a 2-byte length (at most 5120), then that many bytes; the
    // last one takes whatever is left.
    std::vector<Bytes> packets();
    Bytes rest() { return Bytes(std::exchange(p_, end_), end_); }

private:
    const uint8_t *p_, *end_;
};

// Negotiated variations a peer can ask for.
struct Variation {
    bool other_byte_order = false, narrow_pointers = false, narrow_sqllen = false,
         compression = false;
    static Variation from(uint8_t bits);
    // This peer's parameter text for them (sent with its zero).
    std::string parameters() const;
};

// A handle of `mode` on the TTY transport, connected through a socketpair
// whose far end has already received `from_peer` (length-prefixed packets)
// and been closed for writing. Nothing is read from the far end; the
// library's end does not block on sends, so a reply that does not fit the
// pair's buffer fails instead of waiting.
class Session {
public:
    Session(int32_t mode, const std::vector<Bytes> &from_peer);
    ~Session();
    HRPC h = nullptr;
    bool ready = false;  // the handle is set up; RPCConnect is the target's to call

private:
    int fds_[2] = {-1, -1};
};

Bytes packet_of(const std::string &text, bool with_zero = true);

// The function table a server exports for the dispatch and reply targets:
// for every parameter kind one function, each with an input, an output, an
// in-out and a neither-way parameter of that kind, and a served function that
// reads and writes every argument through the argument cursor.
const RPCFuncDesc *served_table();
int served_count();
// The table records a server sends for served_table() (packets "A", "B...", "C").
std::vector<Bytes> table_packets();

}  // namespace fuzz
