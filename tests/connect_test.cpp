// Transport options, connect and disconnect between two ends of the library.
#include <gtest/gtest.h>
#include <sys/socket.h>
#include <unistd.h>

#include <string>

#include "core/session.h"
#include "helpers/raw_peer.h"
#include "helpers/session_peer.h"

namespace {

using namespace zrpc;
using namespace zrpc::test;

// Points standard input at `fd` for a TTY client, which adopts descriptor 0.
class StdinFrom {
public:
    explicit StdinFrom(int fd) : saved_(dup(0)) { dup2(fd, 0); }
    ~StdinFrom() {
        dup2(saved_, 0);
        close(saved_);
    }

private:
    int saved_;
};

std::string slot(char *const *slots, int i) { return slots[i] ? slots[i] : "<null>"; }

TEST(TransportOptions, VectorSlotsPerMode) {
    struct Case {
        int32_t mode;
        const char *expected[NET_OPTION_SLOTS];
    };
    const Case cases[] = {
        {RPC_MODE_CLIENT,
         {"t1", "t2", "t3", "t4", "t5", "t6", "l1", "l2", "l3", "l4", "t7", "l5", "l6", "<null>"}},
        {RPC_MODE_SERVER,
         {"<null>", "t2", "<null>", "<null>", "<null>", "t6", "l1", "l2", "l3", "l4", "t7", "l5", "l6",
          "<null>"}},
    };
    for (const Case &c : cases) {
        SCOPED_TRACE(c.mode);
        TestHandle h(c.mode);
        ASSERT_EQ(RPCSetTransportOpts(h, 1, "t1", "t2", "t3", "t4", "t5", "t6", "t7"), 0);
        ASSERT_EQ(
            RPCSetLowLTransportOpts(h, 6, 6, "l6", 5, "l5", 4, "l4", 3, "l3", 2, "l2", 1, "l1"), 0);
        char *slots[NET_OPTION_SLOTS];
        build_option_vector(h, slots);
        for (int i = 0; i < NET_OPTION_SLOTS; ++i) EXPECT_EQ(slot(slots, i), c.expected[i]) << i;
    }
}

TEST(TransportOptions, SettingRulesAndStates) {
    TestHandle h(RPC_MODE_CLIENT);
    EXPECT_EQ(report(h).code, RPC_NOTRNAME);  // left behind by initialisation
    // Low-level options need the transport options first.
    EXPECT_EQ(RPCSetLowLTransportOpts(h, 1, 3, "x"), 1);
    EXPECT_EQ(h->error_code, RPC_BADSTATE);
    EXPECT_EQ(RPCConnect(h, 3, 1, "abc"), 1);
    EXPECT_EQ(h->error_code, RPC_BADSTATE);
    EXPECT_EQ(RPCDisconnect(h), 1);
    EXPECT_EQ(RPCSetTransportOpts(h, h->transport_count, "a", "1", 0, 0, 0, 0, 0), 1);
    EXPECT_EQ(h->error_code, RPC_BADTRAN);
    EXPECT_EQ(h->state, RPC_STATE_INITIALISED);

    ASSERT_EQ(RPCSetTransportOpts(h, 1, "a", "1", 0, 0, 0, 0, 0), 0);
    EXPECT_EQ(h->error_code, 0);
    EXPECT_EQ(h->state, RPC_STATE_OPTIONS_SET);
    // Count 2: identifier 9 is skipped without a text, so 3 is read next.
    ASSERT_EQ(RPCSetLowLTransportOpts(h, 2, 9, 3, "three"), 0);
    EXPECT_STREQ(h->lowl_opts[2], "three");
    ASSERT_EQ(RPCSetLowLTransportOpts(h, 6, 1, "1", 2, "2", 3, "3", 4, "4", 5, "5", 6, "6"), 0);
    EXPECT_EQ(RPCSetLowLTransportOpts(h, 0), 0);

    // A second setting drops the low-level options except 4.
    ASSERT_EQ(RPCSetTransportOpts(h, 0, 0, "2", 0, 0, 0, 0, 0), 0);
    for (int i = 0; i < 6; ++i) EXPECT_EQ(h->lowl_opts[i] != nullptr, i == 3) << i;
    EXPECT_EQ(h->transport_opts[0], nullptr);
    EXPECT_STREQ(h->transport_opts[1], "2");
    // A bad index after that leaves state 2 without any transport option.
    EXPECT_EQ(RPCSetTransportOpts(h, -1, "a", "1", 0, 0, 0, 0, 0), 1);
    EXPECT_EQ(h->state, RPC_STATE_OPTIONS_SET);
    EXPECT_EQ(h->transport_opts[1], nullptr);
    EXPECT_EQ(RPCDisconnect(h), 0);  // nothing open
    EXPECT_EQ(h->state, RPC_STATE_OPTIONS_SET);
}

TEST(Connect, FailedConnectReportsDriverTextAndReturnsToState2) {
    struct Case {
        int32_t mode;
        const char *port;
        const char *text;
    };
    const std::string closed = std::to_string(free_port());
    const Case cases[] = {
        {RPC_MODE_CLIENT, closed.c_str(), "Connection refused, connect(), after 1 attempt\n"},
        {RPC_MODE_SERVER, nullptr, "Missing Port\n"},
    };
    for (const Case &c : cases) {
        SCOPED_TRACE(c.text);
        TestHandle h(c.mode);
        ASSERT_EQ(RPCSetTransportOpts(h, 1, "127.0.0.1", c.port, 0, 0, 0, 0, 0), 0);
        ASSERT_EQ(RPCSetLowLTransportOpts(h, 1, RPC_LOWL_ATTEMPTS, "1"), 0);
        for (int attempt = 0; attempt < 2; ++attempt) {  // options are reused
            EXPECT_EQ(RPCConnect(h, 3, 1, "abc"), 1);
            Reported r = report(h);
            EXPECT_EQ(r.code, RPC_ECONNECT);
            EXPECT_EQ(r.text, c.text);
            EXPECT_EQ(h->state, RPC_STATE_OPTIONS_SET);
            EXPECT_EQ(h->conn, nullptr);
            EXPECT_EQ(h->context, nullptr);
        }
    }
}

struct Imported {
    const char *name;
    int16_t ordinal;
    uint32_t flags[3];
    int32_t length[3];
};

void expect_connected_pair(HRPC server, HRPC client) {
    EXPECT_EQ(RPCIsConnected(server), 1);
    EXPECT_EQ(RPCIsConnected(client), 1);
    // Equal sizes and byte order, no tracing: only compression is agreed.
    EXPECT_EQ(server->flags, kPeerCompresses | kCompress);
    EXPECT_EQ(client->flags, kPeerCompresses | kCompress);
    const Imported expected[] = {
        {"alpha", 2, {RPC_INT32 | RPC_IN, RPC_MEM | RPC_OUT, 0}, {0, 64, 0}},
        {"beta", 1, {0, 0, 0}, {0, 0, 0}},
        {"gamma", 0, {RPC_INT16 | RPC_IN | RPC_OUT, RPC_SQLLEN_ARRAY | RPC_IN, 0}, {0, 80, 0}},
    };
    const RPCFuncDesc *d = client->desc_list;
    for (const Imported &e : expected) {
        ASSERT_NE(d, nullptr);
        EXPECT_STREQ(d->name, e.name);
        EXPECT_EQ(d->ordinal, e.ordinal);
        for (int i = 0; i < 3; ++i) {
            EXPECT_EQ(d->params[i].flags, e.flags[i]) << e.name << i;
            EXPECT_EQ(d->params[i].length, e.length[i]) << e.name << i;
        }
        EXPECT_EQ(RPCFuncExists(client, e.name), 1);
        EXPECT_EQ(RPCFuncExists(server, e.name), 1);
        d = d->next;
    }
    EXPECT_EQ(RPCFuncExists(client, "delta"), 0);
}

// Connects, checks, disconnects and reconnects the same two handles.
void run_sessions(HRPC server, HRPC client, const std::function<Background()> &start_server) {
    for (int round = 1; round <= 2; ++round) {
        SCOPED_TRACE(round);
        Background pending = start_server();
        int32_t client_result = RPCConnect(client, 3, 1, "abc");
        int32_t server_result = pending.result();
        ASSERT_EQ(client_result, 0) << report(client).code << report(client).text;
        ASSERT_EQ(server_result, 0) << report(server).code << report(server).text;
        expect_connected_pair(server, client);
        EXPECT_EQ(RPCConnect(client, 3, 1, "abc"), 1);
        EXPECT_EQ(client->error_code, RPC_BADSTATE);

        // One record per item the peer sent, newest first, the older kept.
        int count = 0;
        for (PeerParam *p = server->peer_params; p; p = p->next) ++count;
        EXPECT_EQ(count, 8 * round);
        EXPECT_EQ(server->peer_params->number, 10);

        // The server first: a client's disconnect waits for the peer's close.
        EXPECT_EQ(RPCDisconnect(server), 0);
        EXPECT_EQ(RPCDisconnect(client), 0);
        EXPECT_EQ(client->state, RPC_STATE_OPTIONS_SET);
        EXPECT_EQ(client->name_index, nullptr);
        EXPECT_EQ(client->conn, nullptr);
        EXPECT_EQ(RPCFuncExists(client, "alpha"), 1);  // descriptors outlive the link
    }
}

TEST(Connect, SessionOverTcpLoopback) {
    TestHandle server(RPC_MODE_SERVER), client(RPC_MODE_CLIENT);
    ASSERT_EQ(RPCExport(server, sample_table()), 0);
    const uint16_t port = free_port();
    use_tcp_server(server, port);
    use_tcp_client(client, port);
    run_sessions(server, client, [&] { return connect_server_async(server, port); });
}

TEST(Connect, SessionOverSocketPairWithTtyServer) {
    SocketPair pair;
    TestHandle server(RPC_MODE_SERVER, pair.fd[0]), client(RPC_MODE_CLIENT);
    StdinFrom stdin_swap(pair.fd[1]);
    ASSERT_EQ(RPCExport(server, sample_table()), 0);
    use_tty(server);
    use_tty(client);
    run_sessions(server, client, [&] {
        return Background([&] { return RPCConnect(server, 3, 1, "abc"); },
                          [&] { shutdown(pair.fd[1], SHUT_RDWR); });
    });
}

}  // namespace
