// Driver switch: transport numbering and every forwarding rule, checked
// against a recording driver of the test's own.
#include <gtest/gtest.h>

#include <cstring>
#include <string>
#include <utility>

#include "net/net.h"

namespace {

std::string calls;  // what the fake driver was asked, in order
int32_t conn_result;
bool gives_object;
char fake_object[] = "driver text";

int32_t note(const std::string &call, int32_t rc) { return calls += call + ";", rc; }
int32_t init_fails(NETDriver *) { return 1; }
int32_t init_ok(NETDriver *e) {
    e->description = "fake description";
    e->conn = [](void **out, uint32_t mode, char **options, int32_t fd) {
        note("conn " + std::to_string(mode) + " " + options[0] + " " + std::to_string(fd) + (*out ? " dirty" : ""), 0);
        if (gives_object) *out = fake_object;
        return conn_result;
    };
    e->disc = [](void *c) { return note(c ? "disc object" : "disc null", 7); };
    e->send = [](void *, const void *d, uint32_t n) { return note("send " + std::string(static_cast<const char *>(d), n), 1); };
    e->recv = [](void *, void *, uint32_t size, uint32_t *n) { return *n = 42, note("recv " + std::to_string(size), 0); };
    e->error = [](void *c, const char **text) { return *text = c ? static_cast<char *>(c) : "no message", 0; };
    return 0;
}

std::string error_of(NETContext *ctx, NETConnection *conn) {
    const char *text = nullptr;
    return NETError(ctx, conn, &text) == 0 ? text : "NETError failed";
}

class NetSwitch : public ::testing::Test {
protected:
    NETDriver table[2] = {{"*Broken", init_fails, 5, {}, {}, {}, {}, {}, {}, {}}, {"*Fake", init_ok, 0, {}, {}, {}, {}, {}, {}, {}}};
    NETContext *ctx = nullptr;
    NETConnection *conn = nullptr;
    char host[5] = "host", *options[NET_OPTION_SLOTS] = {host};
    void SetUp() override {
        calls.clear(), conn_result = 0, gives_object = true;
        zrpc::net_set_static_drivers(table, 2);
        ASSERT_EQ(NETLoad() + NETInitialise(0, &ctx), 0u);
    }
    void TearDown() override { NETDisconnect(conn), NETTerminate(ctx), NETUnload(), zrpc::net_set_static_drivers(nullptr, 0); }
};

TEST_F(NetSwitch, NumbersOnlyDriversWhoseInitSucceeds) {
    const char *name, *desc;
    ASSERT_EQ(NETTransportName(0, &name, &desc), 0u);
    EXPECT_EQ(std::string(name) + "/" + desc, "*Fake/fake description");
    for (int32_t bad : {1, 5, -1}) {
        NETContext *other = nullptr;
        ASSERT_EQ(NETInitialise(bad, &other), 1u);
        EXPECT_EQ(error_of(other, nullptr), "Invalid Transport - " + std::to_string(bad) + "\n");  // kept to be read
        NETConnection *refused = nullptr;  // connecting anyway must not index the table
        EXPECT_EQ(NETConnect(other, 0, options, 0, &refused), 1u);
        NETDisconnect(refused), NETTerminate(other);
    }
    EXPECT_EQ(NETTerminate(nullptr) + NETDisconnect(nullptr), 0u);
}

TEST_F(NetSwitch, ConnectKeepsWhatTheDriverGave) {
    struct { int32_t result; bool object; const char *ctx_text, *conn_text, *calls; } cases[] = {
        {0, true, "", "driver text", "conn 1 host 9;disc object;"},  // an empty message asks the driver
        {3, true, "", "driver text", "conn 1 host 9;disc object;"},
        {3, false, "Insufficient virtual memory\n", "no message", "conn 1 host 9;disc null;"}};
    for (auto &k : cases) {
        calls.clear(), conn_result = k.result, gives_object = k.object;
        std::strcpy(ctx->message, "stale");
        ASSERT_EQ(NETConnect(ctx, 1, options, 9, &conn), k.result ? 1u : 0u);
        EXPECT_EQ(error_of(ctx, conn), k.ctx_text);
        EXPECT_EQ(error_of(nullptr, conn), k.conn_text);
        EXPECT_EQ(NETDisconnect(std::exchange(conn, nullptr)), 0u);  // whatever disc said
        EXPECT_EQ(calls, k.calls);
    }
}

TEST_F(NetSwitch, TrafficAndErrorTextsPassThrough) {
    ASSERT_EQ(NETConnect(ctx, 0, options, 0, &conn), 0u);
    uint32_t len = 0, buf[4];
    std::strcpy(conn->message, "old");
    EXPECT_EQ(NETSend(conn, "abc", 3), 1u);  // the driver's result as is
    EXPECT_STREQ(conn->message, "");
    std::strcpy(conn->message, "old");
    EXPECT_EQ(NETReceive(conn, buf, sizeof buf, &len), 0u);
    EXPECT_STREQ(conn->message, "");
    EXPECT_EQ(len, 42u);
    EXPECT_EQ(calls, "conn 0 host 0;send abc;recv 16;");
    std::strcpy(conn->message, "connection text");
    EXPECT_EQ(error_of(nullptr, nullptr), "unknown error");
    EXPECT_EQ(error_of(ctx, conn), "");  // the context wins, even when empty
    EXPECT_EQ(error_of(nullptr, conn), "connection text");
}

}  // namespace
