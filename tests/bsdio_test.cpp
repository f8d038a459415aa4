// BSD sockets driver: failure texts, connect retries, socket tuning and the
// orderly close, against raw loopback peers.
#include <gtest/gtest.h>
#include <netinet/in.h>
#include <netinet/tcp.h>
#include <sys/socket.h>
#include <unistd.h>

#include <cerrno>
#include <memory>
#include <string>
#include <thread>

#include "helpers/raw_peer.h"
#include "net/bsdio.h"

namespace {

using zrpc::BsdConnection;

struct Options {
    char *slot[NET_OPTION_SLOTS] = {};
    Options &set(int i, const char *text) {
        slot[i] = const_cast<char *>(text);
        return *this;
    }
};

struct Disc {
    void operator()(BsdConnection *c) const { zrpc::BSDdisc(c); }
};
using Conn = std::unique_ptr<BsdConnection, Disc>;

// Runs BSDconn and hands back the connection, whatever the result.
Conn connect(uint32_t mode, Options &o, int32_t *rc) {
    void *out = nullptr;
    *rc = zrpc::BSDconn(&out, mode, o.slot, 0);
    return Conn(static_cast<BsdConnection *>(out));
}

int sockopt(int fd, int level, int name) {
    int value = -1;
    socklen_t len = sizeof value;
    getsockopt(fd, level, name, &value, &len);
    return value;
}

TEST(BsdConnect, RefusalIsRetriedAndCounted) {
    struct Case {
        const char *attempts;
        const char *text;
    } cases[] = {{"1", "Connection refused, connect(), after 1 attempt\n"},
                 {"3", "Connection refused, connect(), after 3 attempts\n"},
                 {nullptr, "Connection refused, connect(), after 5 attempts\n"}};
    for (const Case &c : cases) {
        std::string port = std::to_string(zrpc::test::free_port());
        Options o;
        o.set(0, "127.0.0.1").set(1, port.c_str()).set(9, c.attempts);
        int32_t rc;
        Conn conn = connect(0, o, &rc);
        EXPECT_EQ(rc, 1);
        EXPECT_STREQ(conn->message, c.text);
        EXPECT_EQ(conn->socket, -1);
    }
}

TEST(BsdConnect, SetupFailuresLeaveAnExplainingConnection) {
    Options o;
    o.set(0, "127.0.0.1");
    int32_t rc;
    Conn conn = connect(0, o, &rc);
    EXPECT_EQ(rc, 1);
    EXPECT_STREQ(conn->message, "Missing Port\n");
    EXPECT_NE(conn->socket, -1);  // closed by the disc, not before

    o.set(0, "nohost.invalid").set(1, "1");
    conn = connect(0, o, &rc);
    EXPECT_EQ(rc, 1);
    EXPECT_EQ(std::string(conn->message).rfind("Failed to get hostname nohost.invalid \ngethostbyname(), h_error=", 0), 0u)
        << conn->message;
}

TEST(BsdConnect, ResolvesNamesAndConnects) {
    zrpc::test::Listener listener;
    std::string port = std::to_string(listener.port());
    Options o;
    o.set(0, "localhost").set(1, port.c_str()).set(9, "1");
    int32_t rc;
    Conn conn = connect(0, o, &rc);
    ASSERT_EQ(rc, 0) << conn->message;
    EXPECT_EQ(conn->connected, 1);
    EXPECT_EQ(sockopt(conn->socket, IPPROTO_TCP, TCP_NODELAY), 1);
    int raw = listener.accept_one();
    ASSERT_GE(raw, 0);

    // An orderly close: the peer sees our end first, and we wait for its own.
    std::thread closer([&] { conn.reset(); });
    EXPECT_TRUE(zrpc::test::wait_closed(raw));
    close(raw);
    closer.join();
}

// A connected client and the raw peer that accepted it.
class BsdClient : public ::testing::Test {
protected:
    zrpc::test::Listener listener;
    std::string port = std::to_string(listener.port());
    Conn conn;
    int raw = -1;
    char buf[4096];
    uint32_t len = 0;

    void SetUp() override {
        Options o;
        o.set(0, "127.0.0.1").set(1, port.c_str()).set(11, "5");
        int32_t rc;
        conn = connect(0, o, &rc);
        ASSERT_EQ(rc, 0) << conn->message;
        raw = listener.accept_one();
        ASSERT_GE(raw, 0);
    }
    void TearDown() override {
        if (raw >= 0) close(raw);
        conn.reset();
    }
};

TEST_F(BsdClient, OversizedHeaderIsDescribedWithASample) {
    struct Case {
        std::string bytes;
        const char *text;
    } cases[] = {
        {std::string("\0\0\x10\x01", 4),
         "Failed to receive data \nPacket (size=1001) too big for buffer (size=4096) ()\n"},
        {"HELLO world\r\nmore",  // another protocol's first line
         "Failed to receive data \nPacket (size=48454c4c) too big for buffer (size=4096) (HELLO world)\n"},
    };
    for (const Case &c : cases) {
        ASSERT_TRUE(zrpc::test::send_all(raw, c.bytes.data(), c.bytes.size()));
        EXPECT_EQ(zrpc::BSDrecv(conn.get(), buf, sizeof buf, &len), 1);
        EXPECT_STREQ(conn->message, c.text);
        EXPECT_NE(conn->socket, -1);  // left open
    }
    EXPECT_EQ(sockopt(conn->socket, SOL_SOCKET, SO_RCVLOWAT), 8192);  // tuning restored after sampling
}

TEST_F(BsdClient, PeerClosingIsReportedOnBothCalls) {
    close(raw);
    raw = -1;
    EXPECT_EQ(zrpc::BSDrecv(conn.get(), buf, sizeof buf, &len), 1);
    EXPECT_STREQ(conn->message, "Connection closed by peer");
    // The first sends may still leave before the peer's reset comes back.
    int32_t rc = 0;
    for (int i = 0; i < 200 && rc == 0; ++i) {
        rc = zrpc::BSDsend(conn.get(), "x", 1);
        if (rc == 0) usleep(1000);
    }
    EXPECT_EQ(rc, 1);
    EXPECT_STREQ(conn->message, "Connection closed by peer");
}

TEST_F(BsdClient, PayloadAboveTheBufferIsRefused) {
    static char big[5117];
    EXPECT_EQ(zrpc::BSDsend(conn.get(), big, sizeof big), 1);
    EXPECT_STREQ(conn->message, "Failed to send data \nPacket (size=5117) too big for buffer (size=5116)\n");
}

TEST(BsdServer, AcceptsOnePeerAndReportsItsEnd) {
    uint16_t port = zrpc::test::free_port();
    std::string text = std::to_string(65536 + port);  // the port is taken modulo 65536
    Options o;
    o.set(1, text.c_str()).set(11, "5");
    Conn conn;
    int32_t rc = 1;
    std::thread server([&] { conn = connect(1, o, &rc); });
    int raw = zrpc::test::connect_loopback_retry(port);
    server.join();
    ASSERT_GE(raw, 0);
    ASSERT_EQ(rc, 0) << conn->message;
    EXPECT_EQ(conn->connected, 0);
    EXPECT_EQ(zrpc::test::connect_loopback(port), -1);  // one peer only: nobody listens any more
    close(raw);
    uint32_t len;
    char buf[16];
    EXPECT_EQ(zrpc::BSDrecv(conn.get(), buf, sizeof buf, &len), 1);
    EXPECT_STREQ(conn->message, "Failed to receive packet header, recv()=-1 - Success (errno=0)");
}

TEST(BsdTuning, SizesOnlyRiseAndTimeoutsFollowTheOptions) {
    int probe = socket(AF_INET, SOCK_STREAM, 0);
    int default_rcv = sockopt(probe, SOL_SOCKET, SO_RCVBUF);
    close(probe);

    BsdConnection c{};
    c.socket = -1;
    Options o;
    o.set(7, "1024").set(8, "200000").set(6, "100").set(11, "3").set(12, "-1");
    ASSERT_EQ(zrpc::create_and_setup_socket(c, o.slot), 0);
    int snd = sockopt(c.socket, SOL_SOCKET, SO_SNDBUF);
    EXPECT_GE(snd, 200000);
    EXPECT_EQ(sockopt(c.socket, SOL_SOCKET, SO_RCVBUF), default_rcv);  // never lowered
    EXPECT_EQ(sockopt(c.socket, SOL_SOCKET, SO_RCVLOWAT), 100);
    EXPECT_EQ(sockopt(c.socket, IPPROTO_TCP, TCP_NODELAY), 1);
    if (snd != 200000) {  // the kernel's doubling is noted, not failed
        EXPECT_EQ(std::string(c.message), "Reported socket send buffer size (" + std::to_string(snd) +
                                              ") is not what was set (200000)\n");
    }
    timeval tv{};
    socklen_t len = sizeof tv;
    getsockopt(c.socket, SOL_SOCKET, SO_RCVTIMEO, &tv, &len);
    EXPECT_EQ(tv.tv_sec, 3);
    getsockopt(c.socket, SOL_SOCKET, SO_SNDTIMEO, &tv, &len);
    EXPECT_EQ(tv.tv_sec, 0);
    close(c.socket);

    BsdConnection d{};
    Options defaults;
    ASSERT_EQ(zrpc::create_and_setup_socket(d, defaults.slot), 0);
    EXPECT_EQ(sockopt(d.socket, SOL_SOCKET, SO_RCVLOWAT), 8192);
    EXPECT_EQ(d.rcvbuf, 16384);
    EXPECT_EQ(d.sndbuf, 16384);
    close(d.socket);
}

TEST(BsdText, AddressShapesAndErrorTexts) {
    struct {
        const char *text;
        bool ip;
    } cases[] = {{"127.0.0.1", true}, {"10", false}, {"", false}, {"1.2.x", false}, {".", true}};
    for (auto &c : cases) EXPECT_EQ(zrpc::is_ipaddress(c.text), c.ip) << c.text;

    char buf[8];
    zrpc::xstrerror_r(EPIPE, buf, sizeof buf);
    EXPECT_STREQ(buf, "Broken ");  // cut to size - 1
    zrpc::xstrerror_r(99999, buf, sizeof buf);
    EXPECT_STREQ(buf, "");
}

}  // namespace
