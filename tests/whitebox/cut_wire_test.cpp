// The wire cut at every byte: for a negotiation (each side) and for a call
// of every parameter kind (each direction), the peer sends each prefix of
// what it really sends and closes. The library must fail with error 7, never
// crash, hang or leak, and the same handle must then connect again and work.
//
// The peer is the far end of a socketpair adopted through the descriptor
// (TTY) transport, so nothing here waits on the network.
#include <gtest/gtest.h>
#include <fcntl.h>
#include <sys/socket.h>
#include <unistd.h>

#include <algorithm>
#include <cstring>
#include <string>
#include <vector>

#include "base/handle.h"
#include "harness.h"

namespace {

using fuzz::Bytes;
constexpr int kServerFd = 40;  // the descriptor a server handle adopts, reused for every connection

Bytes stream_of(const std::vector<Bytes> &packets) {
    Bytes out;
    for (const Bytes &p : packets) {
        const auto n = static_cast<uint32_t>(p.size());
        for (int shift : {24, 16, 8, 0}) out.push_back(static_cast<uint8_t>(n >> shift));
        out.insert(out.end(), p.begin(), p.end());
    }
    return out;
}

// Connects `h` to a fresh socketpair whose far end is returned: a client
// through descriptor 0, a server through kServerFd.
int attach(HRPC h) {
    int fds[2];
    if (socketpair(AF_UNIX, SOCK_STREAM, 0, fds) != 0) return -1;
    const int big = 4 << 20;
    for (int fd : fds) setsockopt(fd, SOL_SOCKET, SO_SNDBUF, &big, sizeof big);
    dup2(fds[0], h->mode == RPC_MODE_CLIENT ? 0 : kServerFd);
    close(fds[0]);
    return fds[1];
}

void send_and_close(int peer, const Bytes &bytes, size_t length) {
    if (length > 0) {
        ASSERT_EQ(write(peer, bytes.data(), length), static_cast<ssize_t>(length));
    }
    shutdown(peer, SHUT_WR);
}

// The descriptor transport never closes what it adopted: put /dev/null in
// its place so the far end sees the end of the stream.
void let_go(HRPC h) {
    const int null = open("/dev/null", O_RDWR);
    dup2(null, h->mode == RPC_MODE_CLIENT ? 0 : kServerFd);
    close(null);
}

// Everything the far end received, once the library has let go of its end.
Bytes drain(int peer) {
    Bytes out;
    uint8_t buffer[65536];
    for (ssize_t n; (n = read(peer, buffer, sizeof buffer)) > 0;) out.insert(out.end(), buffer, buffer + n);
    return out;
}

struct Handle {
    explicit Handle(int32_t mode) : h(RPCAllocHandle()) {
        RPCInitialise(h, mode, kServerFd);
        if (mode == RPC_MODE_SERVER) RPCExport(h, fuzz::served_table());
        RPCSetTransportOpts(h, 0, nullptr, nullptr, nullptr, nullptr, nullptr, nullptr, nullptr);
    }
    ~Handle() {
        RPCDisconnect(h);
        RPCTerminate(h);
        RPCFreeHandle(h);
    }
    HRPC h;
};

const std::vector<Bytes> kServerSays = [] {  // a server's negotiation, as a client receives it
    std::vector<Bytes> p = {fuzz::packet_of("87FA9694"), fuzz::packet_of("1:0:fuzz"),
                            fuzz::packet_of(fuzz::Variation{}.parameters())};
    for (auto &t : fuzz::table_packets()) p.push_back(t);
    return p;
}();
const std::vector<Bytes> kClientSays = {fuzz::packet_of(fuzz::Variation{}.parameters())};

// Arguments for a call of served_table()[k]: in, out, in-out, neither.
struct Call {
    explicit Call(int k) : d(fuzz::served_table()[k]) {
        const uint32_t kind = d.params[0].flags & ~RPC_IN;
        const bool scalar = (kind & RPC_BLOCK_MASK) == 0;
        for (int i = 0; i < 4; ++i) {
            vars[i][0] = {&var_data[i], 8, RPC_V_INT64};
            vars[i][1] = {var_text[i], 8, RPC_V_MEM};
            block[i] = RPCMemDesc{};
            block[i].value = kind == RPC_WVARRAY ? static_cast<void *>(vars[i]) : room[i];
            block[i].length = kind == RPC_WVARRAY ? 2 : 24;
            const bool by_value = i == 0 || i == 3;
            const uint64_t value = kind == RPC_PTR ? 0 : 3;  // a pointer must be null or a proxy
            arg[i] = scalar ? (by_value ? value : reinterpret_cast<uintptr_t>(&scalars[i]))
                            : reinterpret_cast<uintptr_t>(&block[i]);
        }
        std::memset(room, 'r', sizeof room);
    }
    int32_t exec(HRPC h) { return RPCExec(h, d.name, arg[0], arg[1], arg[2], arg[3]); }

    const RPCFuncDesc &d;
    int64_t scalars[4] = {};
    uint8_t room[4][24];
    int64_t var_data[4] = {};
    char var_text[4][8] = {};
    RPCVariant vars[4][2];
    RPCMemDesc block[4];
    uint64_t arg[4];
};

// Every prefix of `said` (the part from `from` on) makes `step` fail with 7;
// the full stream then lets the same handle connect and `step` succeed.
template <typename Step>
void cut_everywhere(int32_t mode, const Bytes &said, size_t from, Step step) {
    Handle handle(mode);
    for (size_t cut = from; cut <= said.size(); ++cut) {
        SCOPED_TRACE("cut after " + std::to_string(cut) + " of " + std::to_string(said.size()) + " bytes");
        const int peer = attach(handle.h);
        ASSERT_GE(peer, 0);
        ASSERT_NO_FATAL_FAILURE(send_and_close(peer, said, cut));
        const int32_t rc = step(handle.h);
        if (cut == said.size()) {
            EXPECT_EQ(rc, 0) << handle.h->error_code;
        } else {
            EXPECT_EQ(rc, 1);
            EXPECT_EQ(handle.h->error_code, RPC_ETRANSPORT);
        }
        RPCDisconnect(handle.h);
        close(peer);
    }
}

TEST(CutWire, ClientNegotiation) {
    cut_everywhere(RPC_MODE_CLIENT, stream_of(kServerSays), 0,
                   [](HRPC h) { return RPCConnect(h, 1, 0, "fuzz"); });
}

TEST(CutWire, ServerNegotiation) {
    cut_everywhere(RPC_MODE_SERVER, stream_of(kClientSays), 0,
                   [](HRPC h) { return RPCConnect(h, 1, 0, "fuzz"); });
}

// Where the stream continues after its first `count` packets.
size_t skip_packets(const Bytes &stream, size_t count) {
    size_t at = 0;
    for (size_t i = 0; i < count && at + 4 <= stream.size(); ++i)
        at += 4 + (size_t{stream[at]} << 24 | size_t{stream[at + 1]} << 16 | size_t{stream[at + 2]} << 8 |
                   stream[at + 3]);
    return std::min(at, stream.size());
}

// What a library client sends for one call, and what a library server
// replies to it, each recorded from the real thing.
Bytes record_call(int k) {
    Handle client(RPC_MODE_CLIENT);
    const int peer = attach(client.h);
    send_and_close(peer, stream_of(kServerSays), stream_of(kServerSays).size());
    EXPECT_EQ(RPCConnect(client.h, 1, 0, "fuzz"), 0);
    Call(k).exec(client.h);  // fails: no reply comes
    RPCDisconnect(client.h);
    let_go(client.h);
    Bytes sent = drain(peer);
    close(peer);
    return Bytes(sent.begin() + static_cast<long>(skip_packets(sent, 1)), sent.end());  // its parameters first
}

Bytes record_reply(const Bytes &call) {
    Handle server(RPC_MODE_SERVER);
    const int peer = attach(server.h);
    Bytes said = stream_of(kClientSays);
    said.insert(said.end(), call.begin(), call.end());
    send_and_close(peer, said, said.size());
    EXPECT_EQ(RPCConnect(server.h, 1, 0, "fuzz"), 0);
    RPCRun(server.h);  // one reply, then the end of the stream
    RPCDisconnect(server.h);
    let_go(server.h);
    const Bytes sent = drain(peer);
    close(peer);
    // After the server's negotiation: magic, version, parameters, table.
    const size_t at = skip_packets(sent, 3 + fuzz::table_packets().size());
    return Bytes(sent.begin() + static_cast<long>(at), sent.end());
}

class CutCall : public ::testing::TestWithParam<int> {};

TEST_P(CutCall, ServerReceivingTheCall) {
    const Bytes call = record_call(GetParam());
    ASSERT_FALSE(call.empty());
    Bytes said = stream_of(kClientSays);
    const size_t negotiation = said.size();
    said.insert(said.end(), call.begin(), call.end());
    // A served call always ends RPCRun with 1; the full call ends it with 7
    // only after the reply went out, which is the success case here.
    cut_everywhere(RPC_MODE_SERVER, said, negotiation, [&](HRPC h) {
        if (RPCConnect(h, 1, 0, "fuzz") != 0) return 2;
        RPCRun(h);
        return h->last_called != nullptr && h->replied ? 0 : 1;
    });
}

TEST_P(CutCall, ClientReceivingTheReply) {
    const Bytes reply = record_reply(record_call(GetParam()));
    ASSERT_FALSE(reply.empty());
    Bytes said = stream_of(kServerSays);
    const size_t negotiation = said.size();
    said.insert(said.end(), reply.begin(), reply.end());
    cut_everywhere(RPC_MODE_CLIENT, said, negotiation, [&](HRPC h) {
        if (RPCConnect(h, 1, 0, "fuzz") != 0) return 2;
        Call call(GetParam());
        const int32_t rc = call.exec(h);
        const uint32_t kind = call.d.params[0].flags & ~RPC_IN;
        if (rc == 0 && kind != RPC_WVARRAY && (kind & RPC_BLOCK_MASK) != 0 &&
            call.block[2].value != call.room[2])
            std::free(call.block[2].value);  // the in-out block the library allocated
        return rc;
    });
}

INSTANTIATE_TEST_SUITE_P(EveryKind, CutCall, ::testing::Range(0, fuzz::served_count()),
                         [](const auto &info) { return std::string(fuzz::served_table()[info.param].name); });

}  // namespace
