// Driver switch: table loading, transport numbering and every forwarding rule,
// checked against a recording driver of the test's own.
#include <gtest/gtest.h>

#include <cstring>
#include <string>

#include "net/net.h"

namespace {

struct Record {  // what the fake driver saw, and what it is told to do
    uint32_t mode;
    char **options;
    int32_t descriptor, conn_result;
    bool gives_object = true;
    const void *sent;
    uint32_t sent_length, recv_size;
    void *disc_arg;
    int disc_calls;
} rec;
char fake_object[] = "driver failure text";

int32_t init_fails(NETDriver *) { return 1; }
int32_t init_ok(NETDriver *e) {
    e->description = "fake description";
    e->conn = [](void **out, uint32_t mode, char **options, int32_t fd) -> int32_t {
        EXPECT_EQ(*out, nullptr);  // handed a cleared slot
        rec.mode = mode, rec.options = options, rec.descriptor = fd;
        if (rec.gives_object) *out = fake_object;
        return rec.conn_result;
    };
    e->disc = [](void *c) -> int32_t { return rec.disc_arg = c, ++rec.disc_calls, 7; };
    e->send = [](void *, const void *d, uint32_t n) -> int32_t { return rec.sent = d, rec.sent_length = n, 1; };
    e->recv = [](void *, void *, uint32_t size, uint32_t *n) -> int32_t { return rec.recv_size = size, *n = 42, 0; };
    e->error = [](void *c, const char **text) -> int32_t { return *text = static_cast<const char *>(c), 0; };
    return 0;
}

const char *error_of(NETContext *ctx, NETConnection *conn) {
    const char *text = nullptr;
    EXPECT_EQ(NETError(ctx, conn, &text), 0u);
    return text;
}

TEST(NetSwitchBuiltin, NamesBothDriversInTableOrder) {
    ASSERT_EQ(NETLoad(), 0u);
    const char *name = nullptr, *desc = nullptr;
    ASSERT_EQ(NETTransportName(0, &name, &desc), 0u);
    EXPECT_EQ(std::string(name) + "/" + desc, "*TTY Driver/SYSV TTY interface");
    ASSERT_EQ(NETTransportName(1, &name, &desc), 0u);
    EXPECT_EQ(std::string(name) + "/" + desc, "*BSD Driver/BSD Sockets Interface");
    name = nullptr;
    EXPECT_EQ(NETTransportName(2, &name, &desc), 1u);
    EXPECT_EQ(NETTransportName(-1, &name, &desc), 1u);
    EXPECT_EQ(name, nullptr);  // nothing stored on failure
    NETUnload();
    EXPECT_EQ(zrpc::available_drvs, nullptr);
    EXPECT_EQ(NETTransportName(0, &name, &desc), 1u);
}

class NetSwitch : public ::testing::Test {
protected:
    NETDriver table[3] = {{"*Broken", init_fails, 5, {}, {}, {}, {}, {}, {}, {}},
                          {"*Fake", init_ok, 0, {}, {}, {}, {}, {}, {}, {}},
                          {"*Fake2", init_ok, 0, {}, {}, {}, {}, {}, {}, {}}};
    NETContext *ctx = nullptr;
    NETConnection *conn = nullptr;
    void SetUp() override {
        rec = Record{};
        zrpc::net_set_static_drivers(table, 3);
        ASSERT_EQ(NETLoad(), 0u);
        ASSERT_EQ(NETInitialise(0, &ctx), 0u);
    }
    void TearDown() override {
        NETDisconnect(conn);
        NETTerminate(ctx);
        NETUnload();
        zrpc::net_set_static_drivers(nullptr, 0);
    }
};

TEST_F(NetSwitch, FailedInitShiftsTransportNumbers) {
    EXPECT_EQ(table[0].available, 0);
    EXPECT_EQ(table[1].available, 1);
    ASSERT_EQ(zrpc::available_drv_count, 2);
    const char *name, *desc;
    ASSERT_EQ(NETTransportName(0, &name, &desc), 0u);
    EXPECT_EQ(name, table[1].name);  // the entry's own pointers, not copies
    EXPECT_STREQ(desc, "fake description");
}

TEST_F(NetSwitch, InitialiseRefusesNumbersOutsideTheTable) {
    EXPECT_EQ(ctx->transport, 0);
    EXPECT_STREQ(ctx->message, "");
    for (int32_t bad : {2, 5, -1}) {
        NETContext *other = nullptr;
        ASSERT_EQ(NETInitialise(bad, &other), 1u);
        ASSERT_NE(other, nullptr);  // kept for the caller to read and free
        EXPECT_EQ(error_of(other, nullptr), "Invalid Transport - " + std::to_string(bad) + "\n");
        EXPECT_EQ(NETTerminate(other), 0u);
    }
    EXPECT_EQ(NETTerminate(nullptr), 0u);
    EXPECT_EQ(NETDisconnect(nullptr), 0u);
}

TEST_F(NetSwitch, OperationsReachTheDriverUnchanged) {
    std::strcpy(ctx->message, "stale");
    char *options[NET_OPTION_SLOTS] = {};
    ASSERT_EQ(NETConnect(ctx, 1, options, 9, &conn), 0u);
    EXPECT_STREQ(ctx->message, "");
    EXPECT_EQ(rec.mode, 1u);
    EXPECT_EQ(rec.options, options);
    EXPECT_EQ(rec.descriptor, 9);
    EXPECT_EQ(conn->driver_conn, fake_object);

    std::strcpy(conn->message, "old");
    EXPECT_EQ(NETSend(conn, "abc", 3), 1u);  // the driver's result as is
    EXPECT_EQ(rec.sent_length, 3u);
    EXPECT_STREQ(static_cast<const char *>(rec.sent), "abc");
    EXPECT_STREQ(conn->message, "");

    char buf[16];
    uint32_t len = 0;
    std::strcpy(conn->message, "old");
    EXPECT_EQ(NETReceive(conn, buf, sizeof buf, &len), 0u);
    EXPECT_EQ(rec.recv_size, sizeof buf);
    EXPECT_EQ(len, 42u);
    EXPECT_STREQ(conn->message, "");

    EXPECT_EQ(NETDisconnect(conn), 0u);  // whatever disc said
    conn = nullptr;
    EXPECT_EQ(rec.disc_calls, 1);
    EXPECT_EQ(rec.disc_arg, fake_object);
}

TEST_F(NetSwitch, ConnectFailureKeepsWhatTheDriverGave) {
    rec.conn_result = 3;  // failure with an explaining object
    ASSERT_EQ(NETConnect(ctx, 0, nullptr, 0, &conn), 1u);
    EXPECT_STREQ(ctx->message, "");
    EXPECT_STREQ(error_of(nullptr, conn), "driver failure text");
    NETDisconnect(conn);
    EXPECT_EQ(rec.disc_calls, 1);

    rec.gives_object = false;  // failure without any object
    ASSERT_EQ(NETConnect(ctx, 0, nullptr, 0, &conn), 1u);
    EXPECT_EQ(conn->driver_conn, nullptr);
    EXPECT_STREQ(error_of(ctx, conn), "Insufficient virtual memory\n");
}

TEST_F(NetSwitch, ErrorPicksTheRightText) {
    EXPECT_STREQ(error_of(nullptr, nullptr), "unknown error");
    ASSERT_EQ(NETConnect(ctx, 0, nullptr, 0, &conn), 0u);
    std::strcpy(conn->message, "connection text");
    EXPECT_EQ(error_of(ctx, conn), ctx->message);  // the context wins, even when empty
    EXPECT_EQ(error_of(nullptr, conn), conn->message);
    conn->message[0] = '\0';
    EXPECT_EQ(error_of(nullptr, conn), fake_object);  // empty text: ask the driver
}

}  // namespace
