#include "harness.h"

#include "base/handle.h"

#include <fcntl.h>
#include <sys/socket.h>
#include <unistd.h>

#include <cstring>
#include <utility>

namespace fuzz {

// The design's own aborts are outcomes, not crashes, for these targets.
[[maybe_unused]] const bool kAbortsThrow = (zrpc::prescribed_abort_throws = true);

std::vector<Bytes> Input::packets() {
    std::vector<Bytes> out;
    while (p_ < end_) {
        size_t n = byte();
        n |= static_cast<size_t>(byte()) << 8;
        n %= 5121;
        if (n > static_cast<size_t>(end_ - p_)) n = static_cast<size_t>(end_ - p_);
        out.emplace_back(p_, p_ + n);
        p_ += n;
    }
    return out;
}

Variation Variation::from(uint8_t bits) {
    return {(bits & 1) != 0, (bits & 2) != 0, (bits & 4) != 0, (bits & 8) != 0};
}

std::string Variation::parameters() const {
    std::string marker = other_byte_order ? std::string("\x11\x99", 2) : std::string("\x99\x11", 2);
    return std::string("01:FuzzOS^02:1^03:fuzz^04:") + (narrow_pointers ? "4" : "8") + "^05:^06:" +
           marker + "^07:" + (compression ? "1" : "0") + "^10:" + (narrow_sqllen ? "4" : "8") + "^";
}

Bytes packet_of(const std::string &text, bool with_zero) {
    Bytes b(text.begin(), text.end());
    if (with_zero) b.push_back(0);
    return b;
}

Session::Session(int32_t mode, const std::vector<Bytes> &from_peer) {
    if (socketpair(AF_UNIX, SOCK_STREAM, 0, fds_) != 0) return;
    const int big = 4 << 20;
    for (int fd : fds_) {
        setsockopt(fd, SOL_SOCKET, SO_SNDBUF, &big, sizeof big);
        setsockopt(fd, SOL_SOCKET, SO_RCVBUF, &big, sizeof big);
    }
    Bytes stream;  // every packet, header first, in one write
    for (const Bytes &p : from_peer) {
        const uint32_t n = static_cast<uint32_t>(p.size());
        for (int shift : {24, 16, 8, 0}) stream.push_back(static_cast<uint8_t>(n >> shift));
        stream.insert(stream.end(), p.begin(), p.end());
    }
    if (!stream.empty() && write(fds_[1], stream.data(), stream.size()) != static_cast<ssize_t>(stream.size()))
        return;
    shutdown(fds_[1], SHUT_WR);
    fcntl(fds_[0], F_SETFL, fcntl(fds_[0], F_GETFL) | O_NONBLOCK);
    // A client adopts descriptor 0 (the transport's rule for a handle that
    // connects out); a server the one it was initialised with.
    int32_t descriptor = fds_[0];
    if (mode == RPC_MODE_CLIENT) {
        if (dup2(fds_[0], 0) != 0) return;
        descriptor = 0;
    }
    h = RPCAllocHandle();
    ready = h != nullptr && RPCInitialise(h, mode, descriptor) == 0 &&
            RPCSetTransportOpts(h, 0, nullptr, nullptr, nullptr, nullptr, nullptr, nullptr,
                                nullptr) == 0;
}

Session::~Session() {
    if (h != nullptr) {
        RPCDisconnect(h);
        RPCTerminate(h);
        RPCFreeHandle(h);
    }
    for (int fd : fds_)
        if (fd >= 0) close(fd);
}

namespace {

constexpr uint32_t kKinds[] = {RPC_INT16, RPC_INT32, RPC_INT64, RPC_SQLLEN, RPC_SQLULEN, RPC_PTR,
                               RPC_MEM, RPC_BLOCK, RPC_INT16_ARRAY, RPC_INT32_ARRAY,
                               RPC_INT64_ARRAY, RPC_SQLLEN_ARRAY, RPC_SQLULEN_ARRAY, RPC_WVARRAY};
constexpr int kCount = sizeof kKinds / sizeof kKinds[0];
const char *const kNames[kCount] = {"i16", "i32", "i64", "len", "ulen", "ptr", "mem",
                                    "block", "i16s", "i32s", "i64s", "lens", "ulens", "vars"};

// Touches every argument the way a served function may: reads inputs,
// writes outputs within the sizes the library gave.
int32_t serve(RPCParam *args) {
    RPCParam *cur = args;
    while (cur->flags != 0) {
        const uint32_t f = cur->flags;
        if (f & RPC_HANDLE) {
            __RPCextractarg(&cur);
        } else if (f & (RPC_BLOCK_MASK)) {
            auto *d = static_cast<RPCMemDesc *>(__RPCextractarg(&cur));
            if (f & RPC_WVARRAY) {
                auto *v = static_cast<RPCVariant *>(d->value);
                for (int32_t i = 0; v != nullptr && i < d->length; ++i)
                    if (v[i].data != nullptr && v[i].length > 0) {
                        auto *bytes = static_cast<volatile uint8_t *>(v[i].data);
                        bytes[0] = 'v';
                        bytes[v[i].length - 1] = 'v';
                    }
            } else if (d->value != nullptr && d->length > 0) {
                // Both ends of the buffer are read, and written for outputs:
                // the sanitizers catch a buffer shorter than its length
                // without the fuzzer paying for every byte of a capacity
                // the peer announced.
                auto *bytes = static_cast<volatile uint8_t *>(d->value);
                const int32_t last = d->length - 1;
                const uint8_t ends = static_cast<uint8_t>(bytes[0] + bytes[last]);
                if (f & RPC_OUT) {
                    bytes[0] = 'o';
                    bytes[last] = ends;
                }
            }
        } else if (f & RPC_OUT) {
            if (f & RPC_PTR) __RPCsetarg(&cur, static_cast<void *>(args));
            else if (f & (RPC_INT16 | RPC_INT32)) __RPCsetarg(&cur, 7);
            else __RPCsetarg(&cur, int64_t{-7});
        } else {
            __RPCextractarg(&cur);
        }
    }
    return 0;
}

std::vector<RPCFuncDesc> make_table() {
    std::vector<RPCFuncDesc> t;
    for (int k = 0; k < kCount; ++k) {
        RPCFuncDesc d{};
        d.name = const_cast<char *>(kNames[k]);
        d.entry = serve;
        const uint32_t dirs[] = {RPC_IN, RPC_OUT, RPC_IN | RPC_OUT, 0};
        const char *const labels[] = {"in", "out", "inout", "none"};
        for (int i = 0; i < 4; ++i) d.params[i] = {kKinds[k] | dirs[i], 0, const_cast<char *>(labels[i]), 0, 0, nullptr, {}};
        d.params[4] = {RPC_HANDLE | RPC_IN, 0, const_cast<char *>("h"), 0, 0, nullptr, {}};
        t.push_back(d);
    }
    t.push_back(RPCFuncDesc{});
    return t;
}

}  // namespace

const RPCFuncDesc *served_table() {
    static const std::vector<RPCFuncDesc> table = make_table();
    return table.data();
}

int served_count() { return kCount; }

std::vector<Bytes> table_packets() {
    std::vector<Bytes> out = {packet_of("A", false)};
    // Ordinals run in reverse: the last function of the table is 0.
    for (int k = 0; k < kCount; ++k) {
        std::string r = "B" + std::to_string(kCount - 1 - k) + "!" + kNames[k] + "!";
        for (const char *dir : {"1024", "2048", "3072", "0"}) {
            const uint32_t flags = kKinds[k] | static_cast<uint32_t>(std::stoul(dir));
            r += std::to_string(flags) + "!0!p!";
        }
        out.push_back(packet_of(r));
    }
    out.push_back(packet_of("C", false));
    return out;
}

}  // namespace fuzz
