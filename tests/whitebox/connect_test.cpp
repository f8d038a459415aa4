// Transport options, connect and disconnect between two ends of the library.
#include <gtest/gtest.h>
#include <sys/wait.h>
#include <unistd.h>

#include "session/session.h"
#include "helpers/session_peer.h"

namespace {

using namespace zrpc;
using namespace zrpc::test;

TEST(TransportOptions, VectorSlotsPerModeAndResetting) {
    const char *const expected[2] = {  // by mode; "-" is null
        " - t2 - - - t6 l1 l2 l3 l4 t7 l5 l6 -", " t1 t2 t3 t4 t5 t6 l1 l2 l3 l4 t7 l5 l6 -"};
    for (int32_t mode : {RPC_MODE_SERVER, RPC_MODE_CLIENT}) {
        TestHandle h(mode);
        ASSERT_EQ(RPCSetTransportOpts(h, 1, "t1", "t2", "t3", "t4", "t5", "t6", "t7"), 0);
        ASSERT_EQ(
            RPCSetLowLTransportOpts(h, 6, 6, "l6", 5, "l5", 4, "l4", 3, "l3", 2, "l2", 1, "l1"), 0);
        char *slots[NET_OPTION_SLOTS];
        build_option_vector(h, slots);
        std::string got;
        for (const char *slot : slots) got += std::string(" ") + (slot ? slot : "-");
        EXPECT_EQ(got, expected[mode]);
        // A second setting drops the low-level options except 4.
        ASSERT_EQ(RPCSetTransportOpts(h, 1, "t1", "t2", 0, 0, 0, 0, 0), 0);
        for (int i = 0; i < 6; ++i) EXPECT_EQ(h->lowl_opts[i] != nullptr, i == 3) << i;
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

    const std::string closed = std::to_string(free_port());
    ASSERT_EQ(RPCSetTransportOpts(h, 1, "127.0.0.1", closed.c_str(), 0, 0, 0, 0, 0), 0);
    // Count 2: identifier 9 is skipped without a text, so 3 is read next.
    ASSERT_EQ(RPCSetLowLTransportOpts(h, 2, 9, 3, "three"), 0);
    EXPECT_STREQ(h->lowl_opts[2], "three");
    // A failed connect reports the driver's text and leaves state 2, with
    // the options kept for the next attempt.
    ASSERT_EQ(RPCSetLowLTransportOpts(h, 1, RPC_LOWL_ATTEMPTS, "1"), 0);
    for (int attempt = 0; attempt < 2; ++attempt) {
        EXPECT_EQ(RPCConnect(h, 3, 1, "abc"), 1);
        EXPECT_EQ(h->error_code, RPC_ECONNECT);
        EXPECT_EQ(report(h), "Connection refused, connect(), after 1 attempt\n");
    }
    // An index past the list leaves state 2 (as the failed connects did),
    // without any transport option.
    EXPECT_EQ(RPCSetTransportOpts(h, h->transport_count, "a", "1", 0, 0, 0, 0, 0), 1);
    EXPECT_EQ(h->error_code, RPC_BADTRAN);
    EXPECT_EQ(h->state, RPC_STATE_OPTIONS_SET);
    EXPECT_EQ(h->transport_opts[1], nullptr);
}

// Connects, checks, disconnects and reconnects the same two handles. The
// second session also runs the challenge handshake, which this build never
// asks for by itself.
void run_sessions(HRPC server, HRPC client) {
    ASSERT_EQ(RPCExport(server, sample_table()), 0);
    for (uint64_t forced : {uint64_t{0}, uint64_t{kChallenge}}) {
        SCOPED_TRACE(forced);
        for (HRPC h : {server, client}) h->flags |= forced;
        std::future<int32_t> pending =
            std::async(std::launch::async, [server] { return RPCConnect(server, 3, 1, "abc"); });
        ASSERT_EQ(RPCConnect(client, 3, 1, "abc"), 0) << report(client);
        ASSERT_EQ(pending.get(), 0) << report(server);
        EXPECT_EQ(RPCConnect(client, 3, 1, "abc"), 1);
        EXPECT_EQ(client->error_code, RPC_BADSTATE);
        // A reconnect replaces the imported table instead of stacking on it.
        std::string names;
        for (const RPCFuncDesc *d = client->desc_list; d; d = d->next) names += d->name;
        EXPECT_EQ(names, "alphabetagamma");

        EXPECT_EQ(RPCDisconnect(server), 0);  // first: the client waits for its close
        EXPECT_EQ(RPCDisconnect(client), 0);
        EXPECT_TRUE(RPCFuncExists(client, "alpha")) << "the table survives a disconnect";
    }
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

// Two processes: a forked server accepts five sessions in turn on one handle
// while this process connects and disconnects five times on another.
TEST(Connect, TwoProcessesReconnectRepeatedly) {
    constexpr int kSessions = 5;
    const std::string port = std::to_string(free_port());
    const pid_t server = fork();
    ASSERT_GE(server, 0);
    if (server == 0) {
        HRPC h = RPCAllocHandle();
        RPCInitialise(h, RPC_MODE_SERVER, 0);
        RPCExport(h, sample_table());
        RPCSetTransportOpts(h, 1, nullptr, port.c_str(), 0, 0, 0, 0, 0);
        RPCSetLowLTransportOpts(h, 1, RPC_LOWL_RCVTIMEO, "10");
        int connected = 0;
        for (int i = 0; i < kSessions; ++i) {
            connected += RPCConnect(h, 3, 1, "abc") == 0;
            RPCDisconnect(h);
        }
        _exit(connected == kSessions ? 0 : 1);
    }
    TestHandle client(RPC_MODE_CLIENT);
    RPCSetTransportOpts(client, 1, "127.0.0.1", port.c_str(), 0, 0, 0, 0, 0);
    RPCSetLowLTransportOpts(client, 2, RPC_LOWL_ATTEMPTS, "20", RPC_LOWL_RCVTIMEO, "10");
    for (int i = 0; i < kSessions; ++i) {
        ASSERT_EQ(RPCConnect(client, 3, 1, "abc"), 0) << i << ": " << report(client);
        EXPECT_TRUE(RPCFuncExists(client, "gamma"));
        EXPECT_EQ(RPCDisconnect(client), 0);
    }
    int status = -1;
    for (int waited = 0; waited < 1000 && waitpid(server, &status, WNOHANG) == 0; ++waited)
        usleep(10000);
    EXPECT_TRUE(WIFEXITED(status)) << "server status " << status;
    EXPECT_EQ(WEXITSTATUS(status), 0) << "server status " << status;
}

}  // namespace
