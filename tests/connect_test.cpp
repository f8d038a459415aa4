// Transport options, connect and disconnect between two ends of the library.
#include <gtest/gtest.h>
#include <unistd.h>

#include "core/session.h"
#include "helpers/session_peer.h"

namespace {

using namespace zrpc;
using namespace zrpc::test;

TEST(TransportOptions, VectorSlotsPerMode) {
    const char *const expected[2][NET_OPTION_SLOTS] = {  // by mode; "-" is null
        {"-", "t2", "-", "-", "-", "t6", "l1", "l2", "l3", "l4", "t7", "l5", "l6", "-"},
        {"t1", "t2", "t3", "t4", "t5", "t6", "l1", "l2", "l3", "l4", "t7", "l5", "l6", "-"},
    };
    for (int32_t mode : {RPC_MODE_SERVER, RPC_MODE_CLIENT}) {
        TestHandle h(mode);
        ASSERT_EQ(RPCSetTransportOpts(h, 1, "t1", "t2", "t3", "t4", "t5", "t6", "t7"), 0);
        ASSERT_EQ(
            RPCSetLowLTransportOpts(h, 6, 6, "l6", 5, "l5", 4, "l4", 3, "l3", 2, "l2", 1, "l1"), 0);
        char *slots[NET_OPTION_SLOTS];
        build_option_vector(h, slots);
        for (int i = 0; i < NET_OPTION_SLOTS; ++i)
            EXPECT_STREQ(slots[i] ? slots[i] : "-", expected[mode][i]) << mode << " slot " << i;
    }
}

TEST(TransportOptions, SettingRulesAndFailedConnect) {
    TestHandle h(RPC_MODE_CLIENT);
    // Low-level options, connect and disconnect need the transport options.
    EXPECT_EQ(RPCSetLowLTransportOpts(h, 1, 3, "x"), 1);
    EXPECT_EQ(h->error_code, RPC_BADSTATE);
    EXPECT_EQ(RPCConnect(h, 3, 1, "abc"), 1);
    EXPECT_EQ(h->error_code, RPC_BADSTATE);
    EXPECT_EQ(RPCDisconnect(h), 1);

    ASSERT_EQ(RPCSetTransportOpts(h, 1, "a", "1", 0, 0, 0, 0, 0), 0);
    // Count 2: identifier 9 is skipped without a text, so 3 is read next.
    ASSERT_EQ(RPCSetLowLTransportOpts(h, 2, 9, 3, "three"), 0);
    EXPECT_STREQ(h->lowl_opts[2], "three");
    ASSERT_EQ(RPCSetLowLTransportOpts(h, 6, 1, "1", 2, "2", 3, "3", 4, "4", 5, "5", 6, "6"), 0);
    // A second setting drops the low-level options except 4.
    const std::string closed = std::to_string(free_port());
    ASSERT_EQ(RPCSetTransportOpts(h, 1, "127.0.0.1", closed.c_str(), 0, 0, 0, 0, 0), 0);
    for (int i = 0; i < 6; ++i) EXPECT_EQ(h->lowl_opts[i] != nullptr, i == 3) << i;

    // A failed connect reports the driver's text and leaves state 2, with
    // the options kept for the next attempt.
    ASSERT_EQ(RPCSetLowLTransportOpts(h, 1, RPC_LOWL_ATTEMPTS, "1"), 0);
    for (int attempt = 0; attempt < 2; ++attempt) {
        EXPECT_EQ(RPCConnect(h, 3, 1, "abc"), 1);
        EXPECT_EQ(h->error_code, RPC_ECONNECT);
        EXPECT_EQ(report(h), "Connection refused, connect(), after 1 attempt\n");
        EXPECT_EQ(h->state, RPC_STATE_OPTIONS_SET);
    }
    // An index past the list leaves state 2, without any transport option.
    EXPECT_EQ(RPCSetTransportOpts(h, h->transport_count, "a", "1", 0, 0, 0, 0, 0), 1);
    EXPECT_EQ(h->error_code, RPC_BADTRAN);
    EXPECT_EQ(h->state, RPC_STATE_OPTIONS_SET);
    EXPECT_EQ(h->transport_opts[1], nullptr);
}

// Every descriptor, each as "name ordinal:" and then " flags/length/name"
// per parameter up to the end mark.
std::vector<std::string> descriptors(HRPC h) {
    std::vector<std::string> out;
    for (const RPCFuncDesc *d = h->desc_list; d; d = d->next) {
        out.push_back(std::string(d->name) + " " + std::to_string(d->ordinal) + ":");
        for (const RPCParam *p = d->params; p < d->params + RPC_MAX_PARAMS && p->flags; ++p)
            out.back() += " " + std::to_string(p->flags) + "/" + std::to_string(p->length) + "/" +
                          (p->name ? p->name : "<null>");
    }
    return out;
}

// Connects, checks, disconnects and reconnects the same two handles. The
// second session also runs the challenge handshake, which this build never
// asks for by itself.
void run_sessions(HRPC server, HRPC client) {
    ASSERT_EQ(RPCExport(server, sample_table()), 0);
    for (uint64_t forced : {uint64_t{0}, uint64_t{kChallenge}}) {
        SCOPED_TRACE(forced);
        for (HRPC h : {server, client}) h->flags |= forced;
        std::future<int32_t> pending = connect_async(server);
        ASSERT_EQ(RPCConnect(client, 3, 1, "abc"), 0) << report(client);
        ASSERT_EQ(pending.get(), 0) << report(server);
        EXPECT_TRUE(RPCIsConnected(server) && RPCIsConnected(client));
        // Equal sizes and byte order, no tracing: only compression is agreed.
        for (HRPC h : {server, client}) EXPECT_EQ(h->flags, kPeerCompresses | kCompress | forced);
        EXPECT_EQ(RPCConnect(client, 3, 1, "abc"), 1);
        EXPECT_EQ(client->error_code, RPC_BADSTATE);
        // Unnamed parameters arrive as "n", RPC_HANDLE stays home, and a
        // reconnect replaces the earlier table instead of stacking on it.
        EXPECT_EQ(descriptors(client),
                  (std::vector<std::string>{"alpha 2: 1026/0/count 2052/64/n", "beta 1:",
                                            "gamma 0: 3073/0/n 132096/80/lens"}));
        EXPECT_TRUE(RPCFuncExists(client, "gamma") && RPCFuncExists(server, "gamma"));

        EXPECT_EQ(RPCDisconnect(server), 0);  // first: the client waits for its close
        EXPECT_EQ(RPCDisconnect(client), 0);
        EXPECT_EQ(client->state, RPC_STATE_OPTIONS_SET);
        EXPECT_TRUE(RPCFuncExists(client, "alpha")) << "the table survives a disconnect";
    }
}

TEST(Connect, SessionOverTcpLoopback) {
    TestHandle server(RPC_MODE_SERVER), client(RPC_MODE_CLIENT);
    const uint16_t port = free_port();
    for (HRPC h : {server.h, client.h}) use_tcp(h, port);
    run_sessions(server, client);
}

TEST(Connect, SessionOverSocketPairWithTtyServer) {
    SocketPair pair;
    TestHandle server(RPC_MODE_SERVER, pair.fd[0]), client(RPC_MODE_CLIENT);
    ASSERT_EQ(RPCSetTransportOpts(server, 0, 0, 0, 0, 0, 0, "10", 0), 0);
    ASSERT_EQ(RPCSetTransportOpts(client, 0, 0, 0, 0, 0, 0, "10", 0), 0);
    const int saved_stdin = dup(0);  // a TTY client adopts descriptor 0
    dup2(pair.fd[1], 0);
    run_sessions(server, client);
    dup2(saved_stdin, 0);
    close(saved_stdin);
}

}  // namespace
