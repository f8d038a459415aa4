// Both drivers through the switch: one conformance suite against a raw socket
// peer that checks the bytes, traffic between the two drivers, and what each
// driver does on its own (connect failures, read time-outs).
#include <gmock/gmock.h>
#include <gtest/gtest.h>
#include <pthread.h>
#include <signal.h>
#include <sys/socket.h>
#include <unistd.h>

#include <chrono>
#include <memory>
#include <string>
#include <thread>
#include <utility>

#include "helpers/raw_peer.h"
#include "net/net.h"
#include "net/ttyio.h"

namespace {

namespace t = zrpc::test;
using t::Bytes;

constexpr int32_t kTty = 0, kBsd = 1;  // transport numbers of the built-in table

struct Loaded : ::testing::Environment {  // a TTY wait is cut to 20 ms but still counts 5 seconds against a time-out
    void SetUp() override { zrpc::tty_wait_ms = 20; ASSERT_EQ(NETLoad(), 0u); }
};
[[maybe_unused]] auto *const loaded = ::testing::AddGlobalTestEnvironment(new Loaded);

Bytes pattern(std::size_t n, std::string_view head = "") {
    Bytes b(n);
    for (std::size_t i = 0; i < n; ++i) b[i] = i < head.size() ? head[i] : static_cast<uint8_t>(i * 7 + 3);
    return b;
}

// Bounds every read on a descriptor a TTY endpoint adopts, should a driver lose track of a packet.
int bounded(int fd, timeval limit = {1, 0}) { return setsockopt(fd, SOL_SOCKET, SO_RCVTIMEO, &limit, sizeof limit), fd; }

// A switch-level connection on one transport, released in the right order.
struct Endpoint {
    NETContext *ctx = nullptr;
    NETConnection *conn = nullptr;
    std::string text[NET_OPTION_SLOTS];
    char *options[NET_OPTION_SLOTS] = {};
    Bytes buf = Bytes(5120, 0xEE);
    uint32_t len = 0;
    const char *message = nullptr;

    explicit Endpoint(int32_t transport) { EXPECT_EQ(NETInitialise(transport, &ctx), 0u); }
    ~Endpoint() { NETDisconnect(conn), NETTerminate(ctx); }
    Endpoint &opt(int slot, std::string value) { return options[slot] = (text[slot] = std::move(value)).data(), *this; }
    // BSD connections get bounded waits: client reads, the server's accept.
    Endpoint &bsd_to(uint16_t port) { return opt(0, "localhost").opt(1, std::to_string(port)).opt(11, "5"); }
    uint32_t open(uint32_t mode, int32_t fd = 0) { return NETConnect(ctx, mode, options, fd, &conn); }
    uint32_t send(const Bytes &b) { return NETSend(conn, b.data(), static_cast<uint32_t>(b.size())); }
    uint32_t receive(uint32_t size = 5120) { return NETReceive(conn, buf.data(), size, &len); }
    Bytes received() const { return Bytes(buf.begin(), buf.begin() + std::min<std::size_t>(len, buf.size())); }
    std::string error() { return NETError(nullptr, conn, &message), message; }
};

TEST(Transports, TtyComesFirstThenBsd) {
    const char *name[3], *desc[3];
    for (int32_t i = 0; i < 3; ++i) ASSERT_EQ(NETTransportName(i, &name[i], &desc[i]), i < 2 ? 0u : 1u);
    EXPECT_EQ(std::string(name[0]) + "/" + desc[0] + ";" + name[1] + "/" + desc[1], "*TTY Driver/SYSV TTY interface;*BSD Driver/BSD Sockets Interface");
}

// One endpoint of a driver, with a raw socket at the far end.
struct Conformance : ::testing::TestWithParam<int32_t> {
    t::Listener listener;
    t::SocketPair pair;
    std::unique_ptr<Endpoint> ep;
    int raw = -1;

    void attach(int32_t transport, const char *tty_timeout = "") {
        ep = std::make_unique<Endpoint>(transport);
        if (transport == kBsd) {
            ASSERT_EQ(ep->bsd_to(listener.port()).open(0), 0u) << ep->error();
            raw = listener.accept_one();
        } else {
            ASSERT_EQ(ep->opt(5, tty_timeout).open(1, bounded(pair.fd[0])), 0u);
            std::swap(raw, pair.fd[1]);
        }
        ASSERT_GE(raw, 0);
    }
    void TearDown() override { if (raw >= 0) close(raw); }  // before the endpoint: a client's close waits for it
};

struct Expected { uint32_t max_payload, long_rc; const char *too_big, *long_text, *closed_recv, *closed_send; };
const Expected kExpected[] = {  // by transport number
    {5120, 0, "Failed to write data \npacket (size=5121) too big for buffer (size=5120)\n", "",
     "Failed to read data \n recv(..,4,...)=0 - short read", "Failed to write data \nsend(len=5)=-1- errno=32(Broken pipe)\n"},
    {5116, 1, "Failed to send data \nPacket (size=5117) too big for buffer (size=5116)\n",
     "Failed to receive data \nPacket (size=1770) too big for buffer (size=4096) (HELLO world)\n", "Connection closed by peer",
     "Connection closed by peer"}};

TEST_P(Conformance, PacketsCrossUnchanged) {
    ASSERT_NO_FATAL_FAILURE(attach(GetParam()));
    for (std::size_t n : {0u, 1u, 4096u, 5116u}) {
        Bytes payload = pattern(n), wire = {0, 0, static_cast<uint8_t>(n >> 8), static_cast<uint8_t>(n)};
        wire.insert(wire.end(), payload.begin(), payload.end());
        ASSERT_EQ(ep->send(payload), 0u);
        EXPECT_EQ(t::recv_exact(raw, n + 4), wire);
        ASSERT_TRUE(t::send_packet(raw, payload));
        ASSERT_EQ(ep->receive(), 0u) << ep->error();
        EXPECT_EQ(ep->received(), payload);
        EXPECT_EQ(ep->buf[n], 0xEE);  // nothing written past the packet
    }
    EXPECT_EQ(ep->send(Bytes(kExpected[GetParam()].max_payload + 1)), 1u);
    EXPECT_EQ(ep->error(), kExpected[GetParam()].too_big);
}

// The socket driver refuses it with a sample of what came; the TTY driver fills
// the buffer and leaves the rest in the stream.
TEST_P(Conformance, PacketLongerThanTheBuffer) {
    ASSERT_NO_FATAL_FAILURE(attach(GetParam()));
    Bytes payload = pattern(6000, "HELLO world\r\n");
    ASSERT_TRUE(t::send_packet(raw, payload));
    EXPECT_EQ(ep->receive(4096), kExpected[GetParam()].long_rc);
    EXPECT_EQ(ep->len, 6000u);
    EXPECT_EQ(ep->error(), kExpected[GetParam()].long_text);
    EXPECT_EQ(ep->buf[4096], 0xEE);
    if (GetParam() == kTty) {  // only the TTY driver leaves the rest in the stream
        EXPECT_EQ(t::recv_exact(pair.fd[0], 1904, 1000), Bytes(payload.begin() + 4096, payload.end()));
    }
}

TEST_P(Conformance, ErrorNoticeBecomesTheMessage) {
    ASSERT_NO_FATAL_FAILURE(attach(GetParam()));
    std::string notice("\xFF\xFF\xFF\xFFpeer gave up", 17);  // with its terminator
    ASSERT_TRUE(t::send_all(raw, notice.data(), notice.size()));
    EXPECT_EQ(ep->receive(64), 1u);
    EXPECT_EQ(ep->len, 13u);  // what the text read gave
    EXPECT_EQ(ep->error(), "peer gave up");
    bool closes = GetParam() == kBsd;  // only the socket driver hangs up; the other gets a brief look
    EXPECT_EQ(t::wait_closed(raw, closes ? 5000 : 200), closes);
}

TEST_P(Conformance, DisconnectClosesOnlyWhatTheDriverOpened) {
    ASSERT_NO_FATAL_FAILURE(attach(GetParam()));
    std::thread closer([&] { ep.reset(); });  // a client's close first ends its side, then waits for ours
    bool closes = GetParam() == kBsd;  // only the socket driver opened its descriptor
    EXPECT_EQ(t::wait_closed(raw, closes ? 5000 : 200), closes);
    close(std::exchange(raw, -1));
    closer.join();
}

TEST_P(Conformance, PeerClosingIsReported) {
    ASSERT_NO_FATAL_FAILURE(attach(GetParam()));
    close(std::exchange(raw, -1));
    EXPECT_EQ(ep->receive(), 1u);
    EXPECT_EQ(ep->error(), kExpected[GetParam()].closed_recv);
    uint32_t rc = 0;  // the first sends may still leave before the peer's reset comes back
    for (int i = 0; i < 200 && (rc = ep->send(Bytes{'x'})) == 0; ++i) usleep(1000);
    EXPECT_EQ(rc, 1u);
    EXPECT_EQ(ep->error(), kExpected[GetParam()].closed_send);
}

INSTANTIATE_TEST_SUITE_P(Drivers, Conformance, ::testing::Values(kTty, kBsd),
                         [](const auto &info) { return info.param == kTty ? "Tty" : "Bsd"; });

using Tty = Conformance;

TEST_F(Tty, ReadTimeoutCountsFiveSecondsPerWait) {
    ASSERT_NO_FATAL_FAILURE(attach(kTty, "10"));
    EXPECT_EQ(ep->receive(), 1u);  // nothing comes: the third wait ends it, without a text
    EXPECT_EQ(ep->error(), "");
    // With a packet waiting, 4 seconds fail after the first wait and 5 do not; a time-out that is no whole number counts nothing.
    for (auto [timeout, rc] : {std::pair<const char *, uint32_t>{"4", 1}, {"5", 0}, {"4x", 0}}) {
        ASSERT_TRUE(t::send_packet(raw, timeout, false));
        Endpoint tty(kTty);
        ASSERT_EQ(tty.opt(5, timeout).open(1, pair.fd[0]), 0u);
        EXPECT_EQ(tty.receive(), rc) << timeout;
    }
    EXPECT_EQ(ep->receive(), 0u);  // counted afresh: the first wait finds the packet left over
    EXPECT_EQ(ep->received(), t::bytes_of("4x"));
}

// A signal in the middle of a payload interrupts the read; the packet must
// still arrive whole, not with a byte lost where the read was cut.
TEST_F(Tty, ASignalDuringThePayloadLosesNothing) {
    ASSERT_NO_FATAL_FAILURE(attach(kTty));
    struct sigaction on_signal {}, previous{};
    on_signal.sa_handler = [](int) {};  // no SA_RESTART: the blocked recv fails with EINTR
    ASSERT_EQ(sigaction(SIGUSR1, &on_signal, &previous), 0);
    const Bytes payload = t::bytes_of("abcdef");
    Bytes head = {0, 0, 0, 6, 'a', 'b', 'c'};
    ASSERT_TRUE(t::send_all(raw, head.data(), head.size()));
    const pthread_t reader = pthread_self();
    std::thread rest([&] {
        std::this_thread::sleep_for(std::chrono::milliseconds(200));  // the reader is blocked by now
        pthread_kill(reader, SIGUSR1);
        std::this_thread::sleep_for(std::chrono::milliseconds(50));
        t::send_all(raw, "def", 3);
    });
    EXPECT_EQ(ep->receive(), 0u) << ep->error();
    rest.join();
    sigaction(SIGUSR1, &previous, nullptr);
    EXPECT_EQ(ep->received(), payload);
}

// A stream may deliver a packet's header in pieces (a segment of a long
// transfer can end inside it): the packet still arrives. A header cut by the
// peer's close is a short read of what came.
TEST_F(Tty, AHeaderInPiecesStillMakesAPacket) {
    ASSERT_NO_FATAL_FAILURE(attach(kTty));
    const Bytes wire = {0, 0, 0, 3, 'x', 'y', 'z'};
    for (std::size_t cut : {1u, 2u, 3u}) {
        ASSERT_TRUE(t::send_all(raw, wire.data(), cut));
        std::thread rest([&] {
            std::this_thread::sleep_for(std::chrono::milliseconds(100));  // the reader holds the first piece by now
            t::send_all(raw, wire.data() + cut, wire.size() - cut);
        });
        EXPECT_EQ(ep->receive(), 0u) << cut << ": " << ep->error();
        rest.join();
        EXPECT_EQ(ep->received(), t::bytes_of("xyz")) << cut;
    }
    ASSERT_TRUE(t::send_all(raw, wire.data(), 2));
    close(std::exchange(raw, -1));
    EXPECT_EQ(ep->receive(), 1u);
    EXPECT_EQ(ep->error(), "Failed to read data \n recv(..,4,...)=2 - short read");
}

// One small and one full-size packet.
void pass(Endpoint &from, Endpoint &to) {
    for (const Bytes &payload : {pattern(5), pattern(5116)}) {
        ASSERT_EQ(from.send(payload), 0u);
        ASSERT_EQ(to.receive(), 0u) << to.error();
        EXPECT_EQ(to.received(), payload);
    }
}

TEST(Interop, TtyClientTalksToBsdServerOnPortModulo65536) {
    uint16_t port = t::free_port();
    Endpoint bsd(kBsd), tty(kTty);
    uint32_t served = 1;
    std::thread server([&] { served = bsd.bsd_to(port).opt(1, std::to_string(65536 + port)).open(1); });
    int fd = t::connect_loopback_retry(port);
    server.join();
    ASSERT_EQ(served, 0u) << bsd.error();
    EXPECT_EQ(t::connect_loopback(port), -1);  // one peer only: nobody listens any more
    ASSERT_EQ(tty.open(0, bounded(fd)), 0u);
    pass(tty, bsd);
    pass(bsd, tty);
    close(fd);
    EXPECT_EQ(bsd.receive(), 1u);  // a server words the peer's end its own way
    EXPECT_EQ(bsd.error(), "Failed to receive packet header, recv()=-1 - Success (errno=0)");
}

TEST(Bsd, ClientFailuresAreExplained) {
    uint16_t closed = t::free_port();
    auto failure = [closed](const char *host, const char *attempts, bool port = true) {
        Endpoint bsd(kBsd);
        bsd.bsd_to(closed).opt(0, host).opt(9, attempts);
        if (!port) bsd.options[1] = nullptr;
        EXPECT_EQ(bsd.open(0), 1u);
        return bsd.error();
    };
    EXPECT_EQ(failure("127.0.0.1", "1"), "Connection refused, connect(), after 1 attempt\n");
    EXPECT_EQ(failure("127.0.0.1", "2"), "Connection refused, connect(), after 2 attempts\n");
    EXPECT_EQ(failure("127.0.0.1", "1", false), "Missing Port\n");
    EXPECT_THAT(failure("nohost.invalid", "1"), ::testing::StartsWith("Failed to get hostname nohost.invalid \ngethostbyname(), h_error="));
}

}  // namespace
