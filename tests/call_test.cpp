// End to end: a library server and a library client in one process over TCP
// loopback, calling functions with every parameter type and direction.
#include <gtest/gtest.h>

#include <algorithm>
#include <atomic>
#include <cstdlib>
#include <cstring>
#include <memory>
#include <string>
#include <thread>
#include <vector>

#include "core/handle.h"
#include "helpers/log_file.h"
#include "helpers/served.h"

namespace zrpc::test {
namespace {

RPCParam P(uint32_t flags, const char *name, int32_t length = 0) {
    RPCParam p{};
    p.flags = flags;
    p.name = const_cast<char *>(name);
    p.length = length;
    return p;
}

RPCFuncDesc F(const char *name, RPCServerFn fn, std::initializer_list<RPCParam> params) {
    RPCFuncDesc d{};
    d.name = const_cast<char *>(name);
    d.entry = fn;
    std::copy(params.begin(), params.end(), d.params);
    return d;
}

template <typename T>
T take(RPCParam *&cur) {
    T v;
    std::memcpy(&v, __RPCextractarg(&cur), sizeof v);
    return v;
}
RPCMemDesc *block(RPCParam *&cur) { return static_cast<RPCMemDesc *>(__RPCextractarg(&cur)); }
// Echoes the int32 sentinel that follows the parameters under test: it only
// arrives intact when every earlier argument was consumed in step.
void echo_sentinel(RPCParam *&cur) { __RPCsetarg(&cur, take<int32_t>(cur)); }

// What the server saw, for checks the reply cannot show. The client reads
// these only after its call returned, that is after the server wrote them.
RPCMemDesc g_in_block, g_out_block;
std::string g_in_text, g_variants;
HRPC g_handle_seen;

// a in, b out = a + 1, c in-out doubled, d neither, then the sentinel.
template <typename T>
int32_t echo_scalar(RPCParam *args) {
    RPCParam *cur = args;
    const T a = take<T>(cur);
    if constexpr (sizeof(T) <= 4)
        __RPCsetarg(&cur, static_cast<int>(static_cast<T>(a + 1)));
    else
        __RPCsetarg(&cur, static_cast<int64_t>(a + 1));
    auto *c = static_cast<T *>(__RPCextractarg(&cur));
    *c = static_cast<T>(*c * 2);
    __RPCextractarg(&cur);
    echo_sentinel(cur);
    return 0;
}

int32_t echo_ptr(RPCParam *args) {
    RPCParam *cur = args;
    char *a = take<char *>(cur);
    __RPCsetarg(&cur, a + 1);
    auto **c = static_cast<char **>(__RPCextractarg(&cur));
    *c += 2;
    __RPCextractarg(&cur);
    echo_sentinel(cur);
    return 0;
}

// a in, b out = a (growing b when the client gave too little), c in-out
// reversed, d neither filled with 0xEE, then the sentinel.
int32_t echo_block(RPCParam *args) {
    RPCParam *cur = args;
    RPCMemDesc *a = block(cur), *b = block(cur), *c = block(cur), *d = block(cur);
    g_in_block = *a;
    g_out_block = *b;
    g_in_text.assign(static_cast<char *>(a->value) ? static_cast<char *>(a->value) : "",
                     a->value ? std::max(a->length, 0) : 0);
    if (b->length < a->length) {
        std::free(b->value);  // the library frees whatever the slot holds after the reply
        b->value = std::malloc(static_cast<std::size_t>(a->length));
    }
    if (a->length > 0) std::memcpy(b->value, a->value, static_cast<std::size_t>(a->length));
    b->length = std::max(a->length, 0);
    if (c->value) std::reverse(static_cast<uint8_t *>(c->value),
                               static_cast<uint8_t *>(c->value) + c->length);
    if (d->value) std::memset(d->value, 0xEE, static_cast<std::size_t>(d->length));
    echo_sentinel(cur);
    return 0;
}

// a in (described into g_variants), b out (filled), c in-out (int32 + 1).
int32_t variants(RPCParam *args) {
    RPCParam *cur = args;
    RPCMemDesc *a = block(cur), *b = block(cur), *c = block(cur);
    g_variants.clear();
    auto *in = static_cast<RPCVariant *>(a->value);
    for (int i = 0; i < a->length; ++i) {
        const RPCVariant &v = in[i];
        if (v.type == RPC_V_INT32) g_variants += "i32:" + std::to_string(*(int32_t *)v.data);
        if (v.type == RPC_V_INT16) g_variants += "i16:" + std::to_string(*(int16_t *)v.data);
        if (v.type == RPC_V_SQLLEN) g_variants += "len:" + std::to_string(*(int64_t *)v.data);
        if (v.type == RPC_V_MEM) g_variants += "mem:" + std::string((char *)v.data, v.length);
        if (v.type == RPC_V_DOUBLE_ARRAY)
            for (int k = 0; k < v.length / 8; ++k)
                g_variants += "f64:" + std::to_string(((double *)v.data)[k]);
        g_variants += " ";
    }
    auto *out = static_cast<RPCVariant *>(b->value);
    for (int i = 0; i < b->length; ++i) {
        if (out[i].type == RPC_V_INT32) *(int32_t *)out[i].data = 42;
        if (out[i].type == RPC_V_SQLLEN) *(int64_t *)out[i].data = -9;
        if (out[i].type == RPC_V_MEM) std::memset(out[i].data, 'w', out[i].length);
    }
    auto *both = static_cast<RPCVariant *>(c->value);
    for (int i = 0; i < c->length; ++i)
        if (both[i].type == RPC_V_INT32) *(int32_t *)both[i].data += 1;
    echo_sentinel(cur);
    return 0;
}

struct Obj {
    int32_t magic;
};
int32_t open_obj(RPCParam *args) {
    RPCParam *cur = args;
    g_handle_seen = take<HRPC>(cur);
    const int32_t magic = take<int32_t>(cur);
    __RPCsetarg(&cur, new Obj{magic});
    return 0;
}
int32_t use_obj(RPCParam *args) {
    RPCParam *cur = args;
    auto *obj = take<Obj *>(cur);
    __RPCsetarg(&cur, obj->magic);
    delete obj;
    return 0;
}

int32_t add_one(RPCParam *args) {
    RPCParam *cur = args;
    __RPCsetarg(&cur, take<int32_t>(cur) + 1);
    return 0;
}

constexpr uint32_t IN = RPC_IN, OUT = RPC_OUT;

std::vector<RPCFuncDesc> make_table() {
    std::vector<RPCFuncDesc> t;
    auto scalar = [&](const char *name, RPCServerFn fn, uint32_t type) {
        t.push_back(F(name, fn,
                      {P(type | IN, "a"), P(type | OUT, "b"), P(type | IN | OUT, "c"),
                       P(type, "d"), P(RPC_INT32 | IN, "e"), P(RPC_INT32 | OUT, "f")}));
    };
    scalar("echo_i16", echo_scalar<int16_t>, RPC_INT16);
    scalar("echo_i32", echo_scalar<int32_t>, RPC_INT32);
    scalar("echo_i64", echo_scalar<int64_t>, RPC_INT64);
    scalar("echo_sqllen", echo_scalar<int64_t>, RPC_SQLLEN);
    scalar("echo_sqlulen", echo_scalar<uint64_t>, RPC_SQLULEN);
    scalar("echo_ptr", echo_ptr, RPC_PTR);
    for (auto [name, type] : {std::pair{"blk_mem", RPC_MEM}, {"blk_block", RPC_BLOCK},
                              {"blk_i16a", RPC_INT16_ARRAY}, {"blk_i32a", RPC_INT32_ARRAY},
                              {"blk_i64a", RPC_INT64_ARRAY}, {"blk_sqla", RPC_SQLLEN_ARRAY},
                              {"blk_squa", RPC_SQLULEN_ARRAY}})
        scalar(name, echo_block, type);
    t.push_back(F("variants", variants,
                  {P(RPC_WVARRAY | IN, "a"), P(RPC_WVARRAY | OUT, "b"),
                   P(RPC_WVARRAY | IN | OUT, "c"), P(RPC_INT32 | IN, "e"),
                   P(RPC_INT32 | OUT, "f")}));
    t.push_back(F("open_obj", open_obj,
                  {P(RPC_HANDLE | IN, "h"), P(RPC_INT32 | IN, "magic"), P(RPC_PTR | OUT, "obj")}));
    t.push_back(F("use_obj", use_obj, {P(RPC_PTR | IN, "obj"), P(RPC_INT32 | OUT, "magic")}));
    t.push_back(F("add_one", add_one, {P(RPC_INT32 | IN, "a"), P(RPC_INT32 | OUT, "b")}));
    t.push_back(RPCFuncDesc{});
    return t;
}
const std::vector<RPCFuncDesc> kTable = make_table();

struct Callbacks {
    std::vector<int32_t> codes;
    static void record(int32_t code, void *self) {
        static_cast<Callbacks *>(self)->codes.push_back(code);
    }
};

class CallTest : public ::testing::Test {
protected:
    void start(const char *server_tracing = nullptr, const char *client_tracing = nullptr) {
        server = std::make_unique<ServedHandle>(kTable.data(), server_tracing);
        client = open_client(server->port(), client_tracing);
        ASSERT_NE(client, nullptr);
        RPCSetError(client, &Callbacks::record, &callbacks);
    }
    void SetUp() override { start(); }
    void TearDown() override {
        close_client(client);
        if (!server) return;
        ServerResult r = server->finish();
        EXPECT_EQ(r.connect, 0);
        EXPECT_EQ(r.run, 1);
        EXPECT_EQ(r.error, RPC_ETRANSPORT);  // the client went away
    }
    int32_t error() const { return client->error_code; }

    std::unique_ptr<ServedHandle> server;
    HRPC client = nullptr;
    Callbacks callbacks;
};

template <typename T>
void expect_scalar_round_trip(HRPC h, const char *fn, int64_t a_arg, T a, T c0) {
    T b{}, c = c0;
    int32_t f = 0;
    ASSERT_EQ(RPCExec(h, fn, a_arg, &b, &c, int64_t{0x5EED}, int64_t{77}, &f), 0) << fn;
    EXPECT_EQ(b, static_cast<T>(a + 1)) << fn;
    EXPECT_EQ(c, static_cast<T>(c0 * 2)) << fn;
    EXPECT_EQ(f, 77) << fn;
}

TEST_F(CallTest, ScalarsTravelInEveryDirection) {
    // By-value int16 and int32 come from the argument's low bits.
    expect_scalar_round_trip<int16_t>(client, "echo_i16", 0x7FFFE, -2, -300);
    expect_scalar_round_trip<int32_t>(client, "echo_i32", (5LL << 32) | 0xFFFFFFF0, -16, 1 << 29);
    expect_scalar_round_trip<int64_t>(client, "echo_i64", 0x123456789AB, 0x123456789AB, -(1LL << 40));
    expect_scalar_round_trip<int64_t>(client, "echo_sqllen", -5000000000, -5000000000, 3000000000);
    expect_scalar_round_trip<uint64_t>(client, "echo_sqlulen", -16, ~uint64_t{15}, 1ULL << 62);

    char base[8];
    char *c = base + 1;
    char *b = nullptr;
    int32_t f = 0;
    ASSERT_EQ(RPCExec(client, "echo_ptr", base, &b, &c, nullptr, int64_t{77}, &f), 0);
    EXPECT_EQ(b, base + 1);
    EXPECT_EQ(c, base + 3);
    EXPECT_EQ(f, 77);
    EXPECT_TRUE(callbacks.codes.empty());
}

TEST_F(CallTest, ServerObjectComesBackAsThePointerItGaveOut) {
    void *obj = nullptr;
    ASSERT_EQ(RPCExec(client, "open_obj", int64_t{4711}, &obj), 0);
    EXPECT_NE(obj, nullptr);
    EXPECT_EQ(g_handle_seen, server->h);  // RPC_HANDLE slot, never on the wire
    int32_t magic = 0;
    ASSERT_EQ(RPCExec(client, "use_obj", obj, &magic), 0);
    EXPECT_EQ(magic, 4711);

    const char *name = nullptr;
    EXPECT_EQ(RPCLastRPC(server->h, &name), server->h->last_called->ordinal);
    EXPECT_STREQ(name, "use_obj");
}

std::vector<uint8_t> pattern(std::size_t n, unsigned seed) {
    std::vector<uint8_t> v(n);
    for (std::size_t i = 0; i < n; ++i) v[i] = static_cast<uint8_t>(seed + i * 7);
    return v;
}
RPCMemDesc desc(int32_t length, void *buffer) {
    RPCMemDesc d{};
    d.length = length;
    d.value = buffer;
    return d;
}

TEST_F(CallTest, BlocksOfEveryKindTravelInEveryDirection) {
    const int32_t n = 48;  // whole elements of every array kind
    for (const char *fn : {"blk_mem", "blk_block", "blk_i16a", "blk_i32a", "blk_i64a",
                           "blk_sqla", "blk_squa"}) {
        auto in = pattern(n, 1), both = pattern(n, 50);
        std::vector<uint8_t> out(n + 8, 0), neither(n, 0x11);
        RPCMemDesc a = desc(n, in.data()), b = desc(n + 8, out.data()),
                   c = desc(n, both.data()), d = desc(n, neither.data());
        int32_t f = 0;
        ASSERT_EQ(RPCExec(client, fn, &a, &b, &c, &d, int64_t{77}, &f), 0) << fn;
        EXPECT_EQ(b.length, n) << fn;
        EXPECT_EQ(b.value, out.data()) << fn;
        EXPECT_TRUE(std::equal(in.begin(), in.end(), out.begin())) << fn;
        EXPECT_TRUE(b.flags & RPC_OUT) << fn;
        EXPECT_STREQ(b.name, "b");
        // An in-out block comes back in a buffer the library allocated.
        ASSERT_NE(c.value, both.data()) << fn;
        EXPECT_EQ(c.length, n) << fn;
        std::reverse(both.begin(), both.end());
        EXPECT_EQ(std::memcmp(c.value, both.data(), n), 0) << fn;
        std::free(c.value);
        EXPECT_EQ(neither, std::vector<uint8_t>(n, 0x11)) << fn;
        EXPECT_EQ(f, 77) << fn;
    }
}

TEST_F(CallTest, OutputBlockCapacityDecidesWhereTheReplyLands) {
    auto in = pattern(100, 3);
    std::vector<uint8_t> spare(8);
    RPCMemDesc a = desc(100, in.data()), c = desc(0, nullptr), d = desc(0, nullptr);
    int32_t f = 0;

    // Capacity 0: the server function gets no buffer, the client a fresh one.
    RPCMemDesc b = desc(0, nullptr);
    ASSERT_EQ(RPCExec(client, "blk_mem", &a, &b, &c, &d, int64_t{1}, &f), 0);
    EXPECT_EQ(g_out_block.length, 0);
    EXPECT_EQ(g_out_block.value, nullptr);
    ASSERT_NE(b.value, nullptr);
    EXPECT_EQ(b.length, 100);
    EXPECT_EQ(std::memcmp(b.value, in.data(), 100), 0);
    std::free(b.value);

    // A returned size of 0 is stored and no data is read.
    a = desc(0, nullptr);
    b = desc(8, spare.data());
    spare.assign(8, 0x5A);
    ASSERT_EQ(RPCExec(client, "blk_mem", &a, &b, &c, &d, int64_t{2}, &f), 0);
    EXPECT_EQ(g_in_block.length, 0);  // an empty input block arrives as null
    EXPECT_EQ(g_in_block.value, nullptr);
    EXPECT_EQ(b.length, 0);
    EXPECT_EQ(spare, std::vector<uint8_t>(8, 0x5A));

    // Too small: error 18, the callback sees it, and the code sticks.
    a = desc(100, in.data());
    b = desc(99, spare.data());
    EXPECT_EQ(RPCExec(client, "blk_mem", &a, &b, &c, &d, int64_t{3}, &f), 1);
    EXPECT_EQ(error(), RPC_TRUNC);
    EXPECT_EQ(RPCExec(client, "add_one", int64_t{1}, &f), 1);
    EXPECT_EQ(callbacks.codes, std::vector<int32_t>{RPC_TRUNC});
}

TEST_F(CallTest, StringInputArrivesWithItsTerminator) {
    char text[] = "hello";
    std::vector<uint8_t> out(16);
    RPCMemDesc a = desc(-3, text), b = desc(16, out.data()), c = desc(0, nullptr),
               d = desc(0, nullptr);
    int32_t f = 0;
    ASSERT_EQ(RPCExec(client, "blk_mem", &a, &b, &c, &d, int64_t{1}, &f), 0);
    EXPECT_EQ(g_in_block.length, 6);
    EXPECT_EQ(g_in_text, std::string("hello", 6));
    EXPECT_EQ(b.length, 6);
    EXPECT_STREQ(reinterpret_cast<char *>(out.data()), "hello");
}

TEST_F(CallTest, VariantArraysTravelInFullAndAsShapes) {
    int32_t i32 = 7;
    int16_t i16 = -3;
    int64_t len = -5000000000;
    char mem[] = "abc";
    double dbl[2] = {1.5, -2.25};
    RPCVariant in[] = {{&i32, 4, RPC_V_INT32}, {mem, 3, RPC_V_MEM}, {&i16, 2, RPC_V_INT16},
                       {&len, 8, RPC_V_SQLLEN}, {dbl, 16, RPC_V_DOUBLE_ARRAY}};
    int32_t o32 = 0;
    int64_t olen = 0;
    char omem[5] = {};
    RPCVariant out[] = {{&o32, 4, RPC_V_INT32}, {omem, 5, RPC_V_MEM}, {&olen, 8, RPC_V_SQLLEN}};
    int32_t b32 = 10;
    char bmem[] = "xy";
    RPCVariant both[] = {{&b32, 4, RPC_V_INT32}, {bmem, 2, RPC_V_MEM}};
    RPCMemDesc a = desc(5, in), b = desc(3, out), c = desc(2, both);
    int32_t f = 0;
    ASSERT_EQ(RPCExec(client, "variants", &a, &b, &c, int64_t{77}, &f), 0);
    EXPECT_EQ(g_variants,
              "i32:7 mem:abc i16:-3 len:-5000000000 f64:" + std::to_string(1.5) +
                  "f64:" + std::to_string(-2.25) + " ");
    EXPECT_EQ(o32, 42);
    EXPECT_EQ(olen, -9);
    EXPECT_EQ(std::string(omem, 5), "wwwww");
    EXPECT_EQ(b32, 11);
    EXPECT_EQ(std::string(bmem, 2), "xy");
    EXPECT_EQ(f, 77);
}

TEST_F(CallTest, UnknownNameFailsOnceAndLeavesTheHandleUsable) {
    int32_t out = 0;
    EXPECT_EQ(RPCExec(client, "no_such_function", int64_t{1}, &out), 1);
    EXPECT_EQ(callbacks.codes, std::vector<int32_t>{RPC_NONAME});
    const char *text = nullptr;
    EXPECT_EQ(RPCReportError(client, &text), 0);
    EXPECT_EQ(RPCExec(client, "add_one", int64_t{41}, &out), 0);
    EXPECT_EQ(out, 42);
}

TEST_F(CallTest, CallsNeedAConnectedHandleAndStickUntilReconnect) {
    EXPECT_EQ(RPCExec(nullptr, "add_one", int64_t{1}, nullptr), 1);
    ASSERT_EQ(RPCDisconnect(client), 0);
    int32_t out = 0;
    EXPECT_EQ(RPCExec(client, "add_one", int64_t{1}, &out), 1);
    EXPECT_EQ(error(), RPC_BADSTATE);
    EXPECT_EQ(RPCExec(client, "add_one", int64_t{1}, &out), 1);  // refused, no callback
    EXPECT_EQ(callbacks.codes, std::vector<int32_t>{RPC_BADSTATE});
    server->finish();

    // A new connection clears the code.
    auto second = std::make_unique<ServedHandle>(kTable.data());
    ASSERT_EQ(aim_client(client, second->port()), 0);
    ASSERT_EQ(RPCConnect(client, 1, 0, kUid), 0);
    EXPECT_EQ(RPCExec(client, "add_one", int64_t{1}, &out), 0);
    EXPECT_EQ(out, 2);
    server = std::move(second);
}

TEST_F(CallTest, TracingFromThePeerWritesCallAndValueLines) {
    close_client(client);
    server->finish();
    start("y", "y");  // each end asks the other to trace calls and values
    reset_logs();
    int32_t out = 0;
    ASSERT_EQ(RPCExec(client, "add_one", int64_t{5}, &out), 0);
    const std::string ord = std::to_string(server->h->last_called->ordinal);
    EXPECT_EQ(read_trace_log(),
              "\nCalling function: add_one\n"
              "pushing int16 Ordinal : " + ord + "\n"
              "pushing int32 a : 5\n"
              "popped int16 Ordinal " + ord + "\n"
              "Function called: add_one\n"
              "popped int32 a 5\n"
              "pushing int16 Ordinal : " + ord + "\n"
              "pushing int32 b : 6\n"
              "popped int16 Ordinal " + ord + "\n"
              "popped int32 b 6\n");
}

TEST_F(CallTest, CompressedAndLargeBlocksSpanManyFrames) {
    ASSERT_TRUE(has_flag(client, kCompress));
    ASSERT_TRUE(has_flag(server->h, kCompress));
    std::vector<uint8_t> random(32768);
    unsigned s = 12345;
    for (auto &byte : random) byte = static_cast<uint8_t>((s = s * 1103515245 + 12345) >> 16);
    std::vector<std::vector<uint8_t>> payloads = {std::vector<uint8_t>(32768, 'z'), random,
                                                  pattern(500, 9), pattern(40000, 4)};
    for (auto &in : payloads) {
        const int32_t n = static_cast<int32_t>(in.size());
        std::vector<uint8_t> out(in.size());
        auto both = in;
        RPCMemDesc a = desc(n, in.data()), b = desc(n, out.data()), c = desc(n, both.data()),
                   d = desc(0, nullptr);
        int32_t f = 0;
        ASSERT_EQ(RPCExec(client, "blk_mem", &a, &b, &c, &d, int64_t{77}, &f), 0) << n;
        EXPECT_EQ(out, in) << n;
        std::reverse(both.begin(), both.end());
        EXPECT_EQ(std::memcmp(c.value, both.data(), in.size()), 0) << n;
        std::free(c.value);
    }
}

TEST_F(CallTest, ThreadsSharingAHandleEachGetTheirOwnResults) {
    std::atomic<int> wrong{0};
    std::vector<std::thread> threads;
    for (int t = 0; t < 4; ++t)
        threads.emplace_back([&, t] {
            for (int i = 0; i < 200; ++i) {
                int32_t out = -1;
                const int32_t in = t * 100000 + i;
                if (RPCExec(client, "add_one", int64_t{in}, &out) != 0 || out != in + 1) ++wrong;
            }
        });
    for (auto &th : threads) th.join();
    EXPECT_EQ(wrong.load(), 0);
}

// The argument cursor, without a connection.
TEST(ArgumentCursor, MovesOneEntryPerArgumentAndRefusesUnknownEntries) {
    RPCParam e[4] = {P(RPC_HANDLE | IN, "h"), P(RPC_INT16 | OUT, "s"),
                     P(RPC_MEM | OUT, "m"), P(0, nullptr)};
    e[0].value = &e;
    RPCParam *cur = nullptr;
    EXPECT_EQ(__RPCextractarg(&cur), nullptr);
    cur = e;
    EXPECT_EQ(__RPCextractarg(&cur), &e[0].value);  // the slot holding the handle
    __RPCsetarg(&cur, 0x12345);                       // 16 bits kept
    int16_t s16 = 0;
    std::memcpy(&s16, &e[1].value, 2);
    EXPECT_EQ(s16, 0x2345);
    RPCMemDesc m = desc(9, &e);
    __RPCsetarg(&cur, m);
    EXPECT_EQ(e[2].length, 9);
    EXPECT_EQ(e[2].value, &e);
    EXPECT_EQ(cur, &e[3]);

    EXPECT_DEATH(__RPCextractarg(&cur), "");  // past the last parameter
    RPCParam *handle = e;
    EXPECT_DEATH(__RPCsetarg(&handle, 1), "");
}

}  // namespace
}  // namespace zrpc::test
