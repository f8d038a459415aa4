// Negotiation against a raw peer: exact bytes, bad input, negotiated flags
// and the error log of a missing parameter.
#include <gtest/gtest.h>

#include <cstring>
#include <tuple>

#include "session/session.h"
#include "helpers/log_file.h"
#include "helpers/session_peer.h"

namespace {

using namespace zrpc;
using namespace zrpc::test;

// A connect of `mode` against a raw peer that (facing a server, after reading
// its three texts) sends the packets `sent` as they are, reads `reads` packets
// and hangs up. The connect must fail with `code` and leave state 2.
void expect_refused(int32_t mode, const std::vector<std::string> &sent, int reads, int32_t code) {
    RawPeer peer(mode);
    std::future<int32_t> pending = peer.start();
    for (int i = 0; mode == RPC_MODE_SERVER && i < 3; ++i) ASSERT_TRUE(recv_packet(peer.fd));
    for (const std::string &p : sent) ASSERT_TRUE(send_packet(peer.fd, p, false));
    for (int i = 0; i < reads; ++i) EXPECT_TRUE(recv_packet(peer.fd));
    peer.hang_up();
    EXPECT_EQ(pending.get(), 1);
    EXPECT_EQ(peer.h->error_code, code);
    EXPECT_EQ(peer.h->state, RPC_STATE_OPTIONS_SET);
}

TEST(Negotiate, PacketsOfEachSide) {
    // Tracing empty; the marker 0x1199 as a little-endian machine stores it.
    const std::string params = z(std::string("01:") + QXRPCGetSystemType(nullptr) +
                                 "^02:" + QXRPCGetSystemInformation(nullptr) +
                                 "^03:" + QXRPCGetProcessorType(nullptr) +
                                 "^04:8^05:^06:\x99\x11^07:1^10:8^");
    RawPeer client(RPC_MODE_SERVER);  // a raw client facing a library server
    ASSERT_EQ(RPCExport(client.h, sample_table()), 0);
    std::future<int32_t> serving = client.start();
    // Ordinals in list order (the reverse of the array); an empty name and a
    // null one both travel as "n"; the RPC_HANDLE parameter stays out.
    EXPECT_EQ(client.handshake(),
              (std::vector<std::string>{z("87FA9694"), z("3:1:abc"), params, "A",
                                        z("B0!gamma!3073!0!n!132096!80!lens!"), z("B1!beta!"),
                                        z("B2!alpha!1026!0!count!2052!64!n!"), "C"}));
    EXPECT_EQ(serving.get(), 0) << report(client.h);

    RawPeer server(RPC_MODE_CLIENT);
    std::future<int32_t> connecting = server.start();
    EXPECT_EQ(server.handshake(), std::vector<std::string>{params});
    EXPECT_EQ(connecting.get(), 0) << report(server.h);
}

TEST(Negotiate, BadInputIsRefused) {
    const std::string magic = z("87FA9694"), version = z("3:1:abc"), params = z("04:8^10:8^");
    const int32_t client = RPC_MODE_CLIENT;
    const struct { int32_t mode; std::vector<std::string> packets; int reads; int32_t code; }
        cases[] = {
        {client, {"87FA9694"}, 0, RPC_BADMGK},  // without its zero
        {client, {magic, z(std::string(255, '3'))}, 0, RPC_VERSION_TOO_BIG},
        {client, {magic, version, z(std::string(255, '0'))}, 0, RPC_PARAMS_TOO_BIG},
        {client, {magic, version, z("01:x")}, 0, RPC_INVPARAM},
        {client, {magic, version, z("abc")}, 0, RPC_BADNEG},
        {client, {magic, z("3"), params}, 1, RPC_BADVER},
        {client, {magic, z("3:1:abd"), params}, 1, RPC_BADUID},
        {client, {magic, version, params, "A", z("X0!f!"), "C"}, 1, RPC_FUNCFAIL},
        {client, {magic, version, params, "A", z("B0!f!"), z("B1!f!"), "C"}, 1, RPC_DUPEXPFN},
        {client, {}, 0, RPC_ETRANSPORT},
        {client, {magic, version, params, "A", z("B0!f!")}, 1, RPC_ETRANSPORT},
        {RPC_MODE_SERVER, {}, 0, RPC_ETRANSPORT},
    };
    for (const auto &c : cases) {
        SCOPED_TRACE(testing::PrintToString(c.packets));
        expect_refused(c.mode, c.packets, c.reads, c.code);
    }
}

TEST(Negotiate, PeerParametersSetFlagsAndSizes) {
    const uint64_t ptr4 = kPeerPtrIndex | kPeerPtrNot8, sql4 = kPeerSqlLenNot8 | kPeerSqlLen4;
    const int32_t client = RPC_MODE_CLIENT, server = RPC_MODE_SERVER;
    // Peer sizes, frame limit and the entries of the pointer table follow the flags.
    using Outcome = std::tuple<uint64_t, int32_t, int32_t, uint32_t, int32_t>;
    const struct { const char *params; int32_t mode; Outcome expected; } cases[] = {
        {"04:8^10:8^", client, {0, 8, 8, 4096, 0}},
        {"04:4^10:8^", server, {ptr4, 4, 8, 4096, 1}},  // null takes the first index
        {"04:16^10:8^", server, {kPeerPtrNot8, 16, 8, 4096, 0}},
        {"04:-1^10:8^", client, {kPeerPtrNot8, -1, 8, 4096, 0}},  // unsigned: not below 8
        {"04:8^10:4^", client, {sql4, 8, 4, 4096, 0}},
        {"04:8^04:4^10:8^", client, {ptr4, 8, 8, 4096, 0}},  // the first is read last
        {"05:y^04:8^10:8^", client, {kTraceCalls | kTraceValues, 8, 8, 4096, 0}},
        {"05:c^04:8^10:8^", client, {kTraceCalls, 8, 8, 4096, 0}},
        {"05:a^04:8^10:8^", client, {kTraceValues, 8, 8, 4096, 0}},
        {"06:\x11\x99^04:8^10:8^", client, {kByteSwap, 8, 8, 4096, 0}},
        {"06:\x11^04:8^10:8^", client, {0, 8, 8, 4096, 0}},
        {"07:1^04:8^10:8^", client, {kPeerCompresses | kCompress, 8, 8, 4096, 0}},
        {"08:1^04:8^10:8^", client, {kPeerChallenge, 8, 8, 4096, 0}},  // we never ask
        {"01:OpenVMS^04:8^10:8^", server, {0, 8, 8, 1024, 0}},
        {"01:OpenVMS^04:8^10:8^", client, {0, 8, 8, 4096, 0}},
    };
    for (const auto &c : cases) {
        SCOPED_TRACE(c.params);
        TestHandle h(c.mode);
        char area[kNegotiationArea] = {};
        std::strcpy(area, c.params);
        ASSERT_EQ(code_of(h, [&](HRPC) { UnpackParameters(h, area, static_cast<int32_t>(std::strlen(area))); }), 0);
        ASSERT_EQ(code_of(h, [&](HRPC) { apply_peer_parameters(h, area, area); }), 0);
        EXPECT_EQ(Outcome(h->flags, h->peer_ptr_size, h->peer_sqllen_size, h->frame_limit,
                          h->ptr_count),
                  c.expected);
    }
}

// `count` zero bytes as the error log dumps them.
std::string zeros(int count) { return count > 0 ? "0x0 " + zeros(count - 1) : ""; }

TEST(Negotiate, MissingParameterWritesTheErrorLog) {
    // Newest first: the item numbered 0 ends the walk before 04 and 10 are
    // seen. The areas as the tokenizer left them (delimiters became zeros);
    // a server receives no version text, so that area stays clear.
    reset_logs();
    expect_refused(RPC_MODE_SERVER, {z("10:8^04:8^00:z^06:\x99\x11^")}, 2, RPC_MISSPARAM);
    EXPECT_EQ(read_error_log(),
              "Parameter Number: 6\nParameter Value: \x99\x11\n\t0x99,0x11,\n"
              "WARNING: PARAM_END found with next ptr\nparam buffer:\n"
              "1 0 0x0 8 0x0 0 4 0x0 8 0x0 0 0 0x0 z 0x0 0 6 0x0 0xffffff99 0x11 0x0 0x0 " +
                  zeros(234) + "\nversion buffer:\n" + zeros(256) + "\n");
}

}  // namespace
