// One conformance suite for both drivers (through the switch, against a raw
// socket peer that checks the bytes), plus traffic between the two drivers.
#include <gtest/gtest.h>
#include <sys/socket.h>
#include <unistd.h>

#include <algorithm>
#include <memory>
#include <string>
#include <thread>

#include "helpers/raw_peer.h"
#include "net/net.h"

namespace {

using zrpc::test::Bytes;

constexpr int32_t kTty = 0;  // transport numbers with both drivers loaded
constexpr int32_t kBsd = 1;

Bytes pattern(std::size_t n) {
    Bytes b(n);
    for (std::size_t i = 0; i < n; ++i) b[i] = static_cast<uint8_t>(i * 7 + 3);
    return b;
}

Bytes packet_bytes(const Bytes &payload) {
    auto n = static_cast<uint32_t>(payload.size());
    Bytes out(4 + n);
    for (int i = 0; i < 4; ++i) out[i] = static_cast<uint8_t>(n >> (24 - 8 * i));
    std::copy(payload.begin(), payload.end(), out.begin() + 4);
    return out;
}

std::string error_text(NETConnection *conn) {
    const char *text = nullptr;
    NETError(nullptr, conn, &text);
    return text;
}

// A switch-level connection on one transport, closed in the right order.
struct Endpoint {
    NETContext *ctx = nullptr;
    NETConnection *conn = nullptr;
    std::string host = "127.0.0.1", port, timeout = "5";
    char *options[NET_OPTION_SLOTS] = {};

    uint32_t open(int32_t transport, uint32_t mode, int32_t descriptor) {
        EXPECT_EQ(NETInitialise(transport, &ctx), 0u);
        options[0] = host.data();
        options[1] = port.data();
        options[11] = timeout.data();  // bounds a server's accept in these tests
        return NETConnect(ctx, mode, options, descriptor, &conn);
    }
    ~Endpoint() {
        NETDisconnect(conn);
        NETTerminate(ctx);
    }
};

class Loaded : public ::testing::Test {
protected:
    void SetUp() override { ASSERT_EQ(NETLoad(), 0u); }
    void TearDown() override { NETUnload(); }
};

class Conformance : public Loaded, public ::testing::WithParamInterface<int32_t> {
protected:
    std::unique_ptr<zrpc::test::Listener> listener;
    std::unique_ptr<zrpc::test::SocketPair> pair;
    std::unique_ptr<Endpoint> ep;
    int raw = -1;

    void SetUp() override {
        Loaded::SetUp();
        ep = std::make_unique<Endpoint>();
        if (GetParam() == kBsd) {
            listener = std::make_unique<zrpc::test::Listener>();
            ep->port = std::to_string(listener->port());
            ASSERT_EQ(ep->open(kBsd, 0, 0), 0u) << error_text(ep->conn);
            raw = listener->accept_one();
        } else {
            pair = std::make_unique<zrpc::test::SocketPair>();
            ASSERT_EQ(ep->open(kTty, 1, pair->fd[0]), 0u);
            raw = pair->fd[1];
            pair->fd[1] = -1;
        }
        ASSERT_GE(raw, 0);
    }
    void TearDown() override {
        if (raw >= 0) close(raw);  // first, so a client's orderly close sees the end
        ep.reset();
        Loaded::TearDown();
    }
};

TEST_P(Conformance, PacketsCrossUnchanged) {
    for (std::size_t n : {0u, 1u, 4096u, 5116u}) {
        SCOPED_TRACE(n);
        Bytes payload = pattern(n);
        ASSERT_EQ(NETSend(ep->conn, payload.data(), static_cast<uint32_t>(n)), 0u);
        auto wire = zrpc::test::recv_exact(raw, n + 4);
        ASSERT_TRUE(wire);
        EXPECT_EQ(*wire, packet_bytes(payload));

        ASSERT_TRUE(zrpc::test::send_packet(raw, payload));
        Bytes in(5120, 0xEE);
        uint32_t len = 12345;
        ASSERT_EQ(NETReceive(ep->conn, in.data(), 5120, &len), 0u) << error_text(ep->conn);
        ASSERT_EQ(len, n);
        EXPECT_TRUE(std::equal(payload.begin(), payload.end(), in.begin()));
        EXPECT_EQ(in[n], 0xEE);  // nothing written past the packet
    }
}

TEST_P(Conformance, ErrorNoticeBecomesTheMessage) {
    std::string notice("\xFF\xFF\xFF\xFFpeer gave up", 17);  // with its terminator
    ASSERT_TRUE(zrpc::test::send_all(raw, notice.data(), notice.size()));
    uint8_t buf[64];
    uint32_t len = 0;
    EXPECT_EQ(NETReceive(ep->conn, buf, sizeof buf, &len), 1u);
    EXPECT_EQ(len, 13u);  // what the text read gave
    EXPECT_EQ(error_text(ep->conn), "peer gave up");
    if (GetParam() == kBsd) {
        EXPECT_TRUE(zrpc::test::wait_closed(raw));  // the socket driver hangs up
    }
}

INSTANTIATE_TEST_SUITE_P(Drivers, Conformance, ::testing::Values(kTty, kBsd),
                         [](const auto &info) { return info.param == kTty ? "Tty" : "Bsd"; });

// Sends one small and one full-size packet each way.
void exchange(NETConnection *a, NETConnection *b) {
    Bytes small = pattern(5), big = pattern(5116), in(5120);
    uint32_t len = 0;
    ASSERT_EQ(NETSend(a, small.data(), 5), 0u);
    ASSERT_EQ(NETReceive(b, in.data(), 5120, &len), 0u) << error_text(b);
    EXPECT_EQ(Bytes(in.begin(), in.begin() + len), small);
    ASSERT_EQ(NETSend(b, big.data(), 5116), 0u);
    ASSERT_EQ(NETReceive(a, in.data(), 5120, &len), 0u) << error_text(a);
    EXPECT_EQ(Bytes(in.begin(), in.begin() + len), big);
}

using Interop = Loaded;

TEST_F(Interop, BsdClientTalksToTtyOnAcceptedSocket) {
    zrpc::test::Listener listener;
    Endpoint bsd, tty;
    bsd.port = std::to_string(listener.port());
    ASSERT_EQ(bsd.open(kBsd, 0, 0), 0u) << error_text(bsd.conn);
    int fd = listener.accept_one();
    ASSERT_GE(fd, 0);
    ASSERT_EQ(tty.open(kTty, 1, fd), 0u);
    exchange(bsd.conn, tty.conn);
    exchange(tty.conn, bsd.conn);
    close(fd);  // the TTY side owns nothing; the client's close waits for this end
}

TEST_F(Interop, TtyOnClientSocketTalksToBsdServer) {
    Endpoint bsd, tty;
    uint16_t port = zrpc::test::free_port();
    bsd.port = std::to_string(port);
    uint32_t served = 1;
    std::thread server([&] { served = bsd.open(kBsd, 1, 0); });
    int fd = zrpc::test::connect_loopback_retry(port);
    server.join();
    ASSERT_GE(fd, 0);
    ASSERT_EQ(served, 0u) << error_text(bsd.conn);
    ASSERT_EQ(tty.open(kTty, 0, fd), 0u);
    exchange(tty.conn, bsd.conn);
    exchange(bsd.conn, tty.conn);
    close(fd);
}

}  // namespace
