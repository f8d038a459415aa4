// TTY driver: time-out option and counting, partial delivery into small
// buffers, read and write failures, and that the adopted descriptor is never closed.
#include <fcntl.h>
#include <gtest/gtest.h>
#include <netinet/in.h>
#include <netinet/tcp.h>
#include <sys/socket.h>
#include <unistd.h>

#include <cstring>
#include <string>

#include "helpers/raw_peer.h"
#include "net/ttyio.h"

namespace {

using zrpc::TtyConnection;

TtyConnection *adopt(int fd, const char *timeout = nullptr) {
    char *options[NET_OPTION_SLOTS] = {};
    options[5] = const_cast<char *>(timeout);
    void *out = nullptr;
    EXPECT_EQ(zrpc::TTYconn(&out, 0, options, fd), 0);
    return static_cast<TtyConnection *>(out);
}

class Tty : public ::testing::Test {
protected:
    zrpc::test::SocketPair pair;
    int raw = pair.fd[1];
    TtyConnection *c = nullptr;
    uint8_t buf[4096];
    uint32_t len = 0;

    void SetUp() override { zrpc::tty_wait_ms = 20; }  // each wait still counts 5 seconds
    void TearDown() override {
        zrpc::TTYdisc(c);
        zrpc::tty_wait_ms = 5000;
    }
    int32_t receive() { return zrpc::TTYrecv(c, buf, sizeof buf, &len); }
};

TEST_F(Tty, TimeoutOptionIsAcceptedOnlyWhenWhollyNumeric) {
    struct {
        const char *text;
        uint64_t seconds;
    } cases[] = {{nullptr, 0}, {"", 0}, {"12x", 0}, {"10", 10}, {"18446744073709551615", 0}, {"99999999999999999999", 0}};
    for (auto &k : cases) {
        TtyConnection *t = adopt(pair.fd[0], k.text);
        EXPECT_EQ(t->read_timeout, k.seconds) << (k.text ? k.text : "null");
        EXPECT_STREQ(t->message, "");
        zrpc::TTYdisc(t);
    }
}

TEST_F(Tty, AnyDescriptorIsAdoptedAndNoneIsClosed) {
    int pipefd[2];
    ASSERT_EQ(pipe(pipefd), 0);
    TtyConnection *t = adopt(pipefd[0]);  // not a socket: still adopted
    EXPECT_EQ(zrpc::TTYdisc(t), 0);
    EXPECT_NE(fcntl(pipefd[0], F_GETFD), -1);  // still open
    close(pipefd[0]);
    close(pipefd[1]);

    zrpc::test::Listener listener;
    int fd = zrpc::test::connect_loopback(listener.port());
    t = adopt(fd);
    int nodelay = 0;
    socklen_t l = sizeof nodelay;
    getsockopt(fd, IPPROTO_TCP, TCP_NODELAY, &nodelay, &l);
    EXPECT_EQ(nodelay, 1);
    zrpc::TTYdisc(t);
    close(fd);

    EXPECT_EQ(zrpc::TTYdisc(nullptr), 1);
    const char *text;
    zrpc::TTYerror(nullptr, &text);
    EXPECT_STREQ(text, "no message");
}

TEST_F(Tty, ReadTimeoutCountsFiveSecondsPerWait) {
    c = adopt(pair.fd[0], "10");
    EXPECT_EQ(receive(), 1);  // nothing comes: the third wait ends it
    EXPECT_STREQ(c->message, "");
    ASSERT_TRUE(zrpc::test::send_packet(raw, "ok", false));
    EXPECT_EQ(receive(), 0);  // a new receive counts afresh
    EXPECT_EQ(len, 2u);

    c->read_timeout = 4;  // shorter than one wait: fails even with data waiting
    ASSERT_TRUE(zrpc::test::send_packet(raw, "late", false));
    EXPECT_EQ(receive(), 1);
    c->read_timeout = 0;
    EXPECT_EQ(receive(), 0);  // the packet was left in the stream
    EXPECT_EQ(std::string(reinterpret_cast<char *>(buf), len), "late");
}

TEST_F(Tty, LongPacketFillsTheBufferAndLeavesTheRest) {
    c = adopt(pair.fd[0]);
    zrpc::test::Bytes big(6000, 0x5A);
    ASSERT_TRUE(zrpc::test::send_packet(raw, big));
    EXPECT_EQ(receive(), 0);
    EXPECT_EQ(len, 6000u);
    auto rest = zrpc::test::recv_exact(pair.fd[0], 1904, 1000);
    ASSERT_TRUE(rest);

    ASSERT_TRUE(zrpc::test::send_packet(raw, "", false));
    buf[0] = 0x77;
    EXPECT_EQ(receive(), 0);
    EXPECT_EQ(len, 0u);
    EXPECT_EQ(buf[0], 0x77);
}

TEST(TtyRead, EndOfStreamFailures) {
    struct {
        std::string bytes;
        const char *text;
    } cases[] = {{std::string("\0\0", 2), "Failed to read data \n recv(..,4,...)=2 - short read"},
                 {"", "Failed to read data \n recv(..,4,...)=0 - short read"},
                 {std::string("\0\0\0\x0a" "abc", 7), ""}};  // ends inside the payload: no text
    for (auto &k : cases) {
        zrpc::test::SocketPair pair;
        TtyConnection *c = adopt(pair.fd[0]);
        zrpc::test::send_all(pair.fd[1], k.bytes.data(), k.bytes.size());
        shutdown(pair.fd[1], SHUT_WR);
        uint8_t buf[16];
        uint32_t len;
        EXPECT_EQ(zrpc::TTYrecv(c, buf, sizeof buf, &len), 1);
        EXPECT_STREQ(c->message, k.text);
        zrpc::TTYdisc(c);
    }
}

TEST(TtyRead, FailedReadsNeverStepOutsideTheBuffer) {
    for (int already : {0, 3}) {
        zrpc::test::SocketPair pair;
        timeval tv{0, 50000};  // makes the payload reads fail instead of blocking
        setsockopt(pair.fd[0], SOL_SOCKET, SO_RCVTIMEO, &tv, sizeof tv);
        TtyConnection *c = adopt(pair.fd[0]);
        std::string bytes = std::string("\0\0\0\x0a", 4) + std::string(already, 'q');
        zrpc::test::send_all(pair.fd[1], bytes.data(), bytes.size());
        uint8_t area[32];
        std::memset(area, 0xCC, sizeof area);
        uint32_t len;
        EXPECT_EQ(zrpc::TTYrecv(c, area + 8, 16, &len), 1);
        EXPECT_STREQ(c->message, "Failed to read data \n recv(..,10,...)=-1 - errno=11(Resource temporarily unavailable)\n");
        for (int i = 0; i < 8; ++i) EXPECT_EQ(area[i], 0xCC);
        for (int i = 24; i < 32; ++i) EXPECT_EQ(area[i], 0xCC);
        zrpc::TTYdisc(c);
    }
}

TEST_F(Tty, SendFailuresAreReported) {
    c = adopt(pair.fd[0]);
    static uint8_t big[5121];
    EXPECT_EQ(zrpc::TTYsend(c, big, sizeof big), 1);
    EXPECT_STREQ(c->message, "Failed to write data \npacket (size=5121) too big for buffer (size=5120)\n");
    ASSERT_EQ(zrpc::TTYsend(c, big, 5120), 0);
    ASSERT_TRUE(zrpc::test::recv_exact(raw, 5124));

    close(raw);
    pair.fd[1] = -1;
    EXPECT_EQ(zrpc::TTYsend(c, "hello", 5), 1);
    EXPECT_STREQ(c->message, "Failed to write data \nsend(len=9)=-1- errno=32(Broken pipe)\n");
}

}  // namespace
