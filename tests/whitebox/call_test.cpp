// End to end: a library server and a library client in one process over TCP
// loopback, calling functions with every parameter type and direction.
#include <gtest/gtest.h>

#include <algorithm>
#include <bit>
#include <cstring>
#include <future>
#include <memory>
#include <random>
#include <span>
#include <string>
#include <vector>

#include "base/handle.h"
#include "helpers/log_file.h"
#include "helpers/served.h"

namespace zrpc::test {
namespace {

// What the server functions saw, for checks the reply cannot show. Tests
// read them only after the call returned, that is after they were written.
RPCMemDesc g_in, g_out;  // echo's input block, and its output block on arrival
std::vector<std::string> g_variants;

std::string variant_text(const RPCVariant &v) {
    return std::to_string(v.type) + ":" + std::string(static_cast<char *>(v.data), v.length);
}

// Serves every function of one type in each direction, whatever the type.
// Scalars: out = in + 1, in-out doubled. Blocks: out = a copy of in, in-out
// reversed, neither filled with 0xEE. Variant arrays: in recorded, out every
// byte 'w', in-out every byte + 1. Each function ends with an int32 in and
// out pair, which only comes back as in + 1 when every earlier argument was
// taken in step.
int32_t echo(RPCParam *args) {
    uint64_t in = 0;
    for (RPCParam *cur = args; cur->flags != 0;) {
        const uint32_t f = cur->flags, dir = f & INOUT;
        if (f & RPC_WVARRAY) {
            const auto *d = static_cast<RPCMemDesc *>(__RPCextractarg(&cur));
            if (dir == IN) g_variants.clear();
            for (const RPCVariant &v : std::span(static_cast<RPCVariant *>(d->value), d->length)) {
                if (dir == IN) g_variants.push_back(variant_text(v));
                if (dir == OUT) std::memset(v.data, 'w', v.length);
                for (int i = 0; dir == INOUT && i < v.length; ++i) ++static_cast<char *>(v.data)[i];
            }
        } else if ((f & RPC_BLOCK_MASK) && dir == OUT) {
            RPCMemDesc d = g_out = *cur;
            std::free(d.value);  // the library frees whatever the slot holds after the reply
            d.length = std::max(g_in.length, 0);
            d.value = std::malloc(d.length);
            if (d.length > 0) std::memcpy(d.value, g_in.value, d.length);
            __RPCsetarg(&cur, d);
        } else if (f & RPC_BLOCK_MASK) {
            auto *d = static_cast<RPCMemDesc *>(__RPCextractarg(&cur));
            auto *bytes = static_cast<uint8_t *>(d->value);
            if (dir == IN) g_in = *d;
            if (dir == INOUT) std::reverse(bytes, bytes + d->length);
            if (dir == 0 && bytes) std::memset(bytes, 0xEE, d->length);
        } else if (dir == OUT) {
            if (f & RPC_PTR) __RPCsetarg(&cur, reinterpret_cast<void *>(in + 1));
            else if (f & (RPC_INT16 | RPC_INT32)) __RPCsetarg(&cur, static_cast<int>(in + 1));
            else __RPCsetarg(&cur, static_cast<int64_t>(in + 1));
        } else {  // narrower values sit in the slot's low bytes; the rest does not count
            auto *slot = static_cast<void **>(__RPCextractarg(&cur));
            const auto v = std::bit_cast<uint64_t>(*slot);
            if (dir == IN) in = v;
            if (dir == INOUT) *slot = std::bit_cast<void *>(v * 2);
        }
    }
    return 0;
}

// The echo functions, one per type.
constexpr std::pair<const char *, uint32_t> kKinds[] = {
    {"i16", RPC_INT16}, {"i32", RPC_INT32}, {"i64", RPC_INT64}, {"sqllen", RPC_SQLLEN},
    {"sqlulen", RPC_SQLULEN}, {"ptr", RPC_PTR}, {"mem", RPC_MEM}, {"block", RPC_BLOCK},
    {"i16s", RPC_INT16_ARRAY}, {"i32s", RPC_INT32_ARRAY}, {"i64s", RPC_INT64_ARRAY},
    {"sqllens", RPC_SQLLEN_ARRAY}, {"sqlulens", RPC_SQLULEN_ARRAY}};

const std::vector<RPCFuncDesc> kTable = [] {
    const std::pair<uint32_t, const char *> e{RPC_INT32 | IN, "e"}, f{RPC_INT32 | OUT, "f"};
    std::vector<RPCFuncDesc> t = {
        F("add_one", echo, {{RPC_HANDLE | IN, "h"}, {RPC_INT32 | IN, "a"}, {RPC_INT32 | OUT, "b"}}),
        F("variants", echo, {{RPC_WVARRAY | IN, "a"}, {RPC_WVARRAY | OUT, "b"},
                             {RPC_WVARRAY | INOUT, "c"}, e, f})};
    for (auto [name, type] : kKinds)
        t.push_back(F(name, echo, {{type | IN, "a"}, {type | OUT, "b"}, {type | INOUT, "c"},
                                   {type, "d"}, e, f}));
    t.push_back(RPCFuncDesc{});
    return t;
}();

class CallTest : public ::testing::Test {
protected:
    void SetUp() override { start(); }
    void start(const char *tracing = nullptr) {
        server = std::make_unique<ServedHandle>(kTable.data(), tracing);
        client = new_handle(RPC_MODE_CLIENT, server->port, tracing);
        RPCSetError(client, record_code, &codes);
        ASSERT_EQ(RPCConnect(client, 1, 0, kUid), 0);
    }
    void TearDown() override {
        if (client != nullptr) free_handle(client);
        EXPECT_EQ(server->finish(), RPC_ETRANSPORT);  // the client went away
    }
    // Ends the session first, so the server's state can be read safely.
    void finish_session() {
        free_handle(client);
        client = nullptr;
        EXPECT_EQ(server->finish(), RPC_ETRANSPORT);
    }
    std::unique_ptr<ServedHandle> server;
    HRPC client = nullptr;
    std::vector<int32_t> codes;  // from the error callback
};

TEST_F(CallTest, ScalarsTravelInEveryDirection) {
    // By value, int16 and int32 come from the argument's low bits.
    const int64_t a = 0x123456789ABCFFFE, c0 = -(int64_t{1} << 40) - 300;
    for (auto [fn, type] : kKinds) {
        if (type & RPC_BLOCK_MASK) continue;
        const uint64_t mask = type & RPC_INT16 ? 0xFFFF : type & RPC_INT32 ? 0xFFFFFFFF : ~0ULL;
        uint64_t b = 0, c = c0, f = 0;
        ASSERT_EQ(RPCExec(client, fn, a, &b, &c, int64_t{-1}, int64_t{77}, &f), 0) << fn;
        EXPECT_EQ(b, (a + 1) & mask) << fn;  // nothing written past the type's width
        EXPECT_EQ(c & mask, (c0 * 2) & mask) << fn;
        EXPECT_EQ(f, 78) << fn;
    }
}

TEST_F(CallTest, BlocksOfEveryKindTravelInEveryDirectionAcrossFrames) {
    ASSERT_TRUE(has_flag(client, kCompress));
    // Bytes that do not compress: at 32768 the compressed form is the longer
    // one, at 40000 the block is too large to compress.
    std::mt19937 random(12345);
    Bytes noise(40000);
    for (auto &byte : noise) byte = static_cast<uint8_t>(random());
    for (const int32_t n : {32768, 40000}) {
        for (auto [fn, type] : kKinds) {
            if (!(type & RPC_BLOCK_MASK)) continue;
            SCOPED_TRACE(std::string(fn) + " " + std::to_string(n));
            Bytes in(noise.begin(), noise.begin() + n), out(n + 8), both = in, neither(n, 0x11);
            RPCMemDesc a = desc(n, in.data()), b = desc(n + 8, out.data()),
                       c = desc(n, both.data()), d = desc(n, neither.data());
            int32_t f = 0;
            ASSERT_EQ(RPCExec(client, fn, &a, &b, &c, &d, int64_t{77}, &f), 0);
            EXPECT_EQ(g_out.length, n + 8);  // the server got the capacity
            // The output lands in the caller's buffer, the record rewritten from the entry.
            EXPECT_EQ(b.length, n) << fn;
            EXPECT_EQ(b.value, out.data()) << fn;
            EXPECT_EQ(b.flags, type | OUT) << fn;
            EXPECT_TRUE(std::equal(in.begin(), in.end(), out.begin())) << fn;
            // An in-out block comes back in a buffer the library allocated.
            ASSERT_EQ(c.length, n) << fn;
            ASSERT_NE(c.value, both.data()) << fn;
            EXPECT_TRUE(std::equal(in.rbegin(), in.rend(), static_cast<uint8_t *>(c.value))) << fn;
            std::free(c.value);
            EXPECT_EQ(neither, Bytes(n, 0x11)) << fn;
            EXPECT_EQ(f, 78) << fn;
        }
    }
    finish_session();
    EXPECT_TRUE(has_flag(server->h, kCompress));
}

TEST_F(CallTest, OutputBlockCapacityDecidesWhereTheReplyLands) {
    Bytes in(100, 'i'), buf(8, 'x'), room(99);
    char text[] = "hello";
    auto echo_mem = [&](RPCMemDesc a, RPCMemDesc &b) {
        RPCMemDesc c = desc(0, nullptr), d = c;
        int32_t f = 0;
        return RPCExec(client, "mem", &a, &b, &c, &d, int64_t{1}, &f);
    };
    RPCMemDesc fresh = desc(0, nullptr), got = desc(8, buf.data()), small = desc(99, room.data());
    // Capacity 0: the server function gets no buffer, the client a fresh one.
    ASSERT_EQ(echo_mem(desc(100, in.data()), fresh), 0);
    EXPECT_EQ(g_out.length, 0);
    EXPECT_EQ(g_out.value, nullptr);
    ASSERT_EQ(fresh.length, 100);
    ASSERT_EQ(std::memcmp(fresh.value, in.data(), 100), 0);
    std::free(fresh.value);
    // A string (length -3) arrives with its terminator.
    ASSERT_EQ(echo_mem(desc(-3, text), got), 0);
    EXPECT_EQ(got.length, 6);
    EXPECT_EQ(std::memcmp(buf.data(), "hello\0xx", 8), 0);
    // An empty input arrives as null; a returned size of 0 reads nothing.
    ASSERT_EQ(echo_mem(desc(0, nullptr), got), 0);
    EXPECT_EQ(g_in.value, nullptr);
    EXPECT_EQ(got.length, 0);
    EXPECT_EQ(std::memcmp(buf.data(), "hello\0xx", 8), 0);
    // Too small: error 18, the callback sees it, and the code sticks.
    EXPECT_EQ(echo_mem(desc(100, in.data()), small), 1);
    EXPECT_EQ(client->error_code, RPC_TRUNC);
    EXPECT_EQ(echo_mem(desc(-3, text), got), 1);
    EXPECT_EQ(codes, std::vector<int32_t>{RPC_TRUNC});
}

TEST_F(CallTest, VariantArraysTravelInEveryDirection) {
    int32_t i32 = 7, o32 = 0, b32 = 0x01020304, f = 0;
    char mem[] = "abc", omem[5] = {}, bmem[] = "xy";
    RPCVariant in[] = {{&i32, 4, RPC_V_INT32}, {mem, 3, RPC_V_MEM}},
               out[] = {{&o32, 4, RPC_V_INT32}, {omem, 5, RPC_V_MEM}},
               both[] = {{&b32, 4, RPC_V_INT32}, {bmem, 2, RPC_V_MEM}};
    RPCMemDesc a = desc(2, in), b = desc(2, out), c = desc(2, both);
    ASSERT_EQ(RPCExec(client, "variants", &a, &b, &c, int64_t{77}, &f), 0);
    EXPECT_EQ(g_variants, (std::vector{variant_text(in[0]), variant_text(in[1])}));
    EXPECT_EQ(o32, 0x77777777);
    EXPECT_EQ(std::string(omem, 5), "wwwww");
    EXPECT_EQ(b32, 0x02030405);
    EXPECT_EQ(std::string(bmem), "yz");
    EXPECT_EQ(f, 78);
}

TEST_F(CallTest, UnknownNamesAreForgivenOtherFailuresStick) {
    int32_t out = 0;
    EXPECT_EQ(RPCExec(client, "no_such_function", int64_t{1}, &out), 1);
    EXPECT_EQ(client->error_code, 0);
    EXPECT_EQ(RPCExec(client, "add_one", int64_t{41}, &out), 0);
    EXPECT_EQ(out, 42);
    ASSERT_EQ(RPCDisconnect(client), 0);
    EXPECT_EQ(RPCExec(client, "add_one", int64_t{1}, &out), 1);
    EXPECT_EQ(client->error_code, RPC_BADSTATE);
    EXPECT_EQ(RPCExec(client, "add_one", int64_t{1}, &out), 1);  // refused, no callback
    EXPECT_EQ(codes, (std::vector<int32_t>{RPC_NONAME, RPC_BADSTATE}));
}

TEST_F(CallTest, TracingFromThePeerWritesCallAndValueLines) {
    TearDown();
    start("y");  // each end asks the other to trace calls and values
    reset_logs();
    int32_t out = 0;
    ASSERT_EQ(RPCExec(client, "add_one", int64_t{5}, &out), 0);
    const char *name = nullptr;
    const std::string ord = std::to_string(RPCLastRPC(server->h, &name)),
                      push = "pushing int16 Ordinal : " + ord + "\n",
                      pop = "popped int16 Ordinal " + ord + "\n";
    EXPECT_STREQ(name, "add_one");
    EXPECT_EQ(read_trace_log(), "\nCalling function: add_one\n" + push + "pushing int32 a : 5\n" +
                                    pop + "Function called: add_one\npopped int32 a 5\n" + push +
                                    "pushing int32 b : 6\n" + pop + "popped int32 b 6\n");
}

TEST_F(CallTest, ThreadsSharingAHandleEachGetTheirOwnResults) {
    auto wrong_results = [&](int32_t from) {
        int wrong = 0;
        for (int32_t i = from, out = -1; i < from + 200; ++i)
            wrong += RPCExec(client, "add_one", int64_t{i}, &out) != 0 || out != i + 1;
        return wrong;
    };
    auto a = std::async(std::launch::async, wrong_results, 100000),
         b = std::async(std::launch::async, wrong_results, 200000),
         c = std::async(std::launch::async, wrong_results, 300000);
    EXPECT_EQ(wrong_results(0) + a.get() + b.get() + c.get(), 0);
}

TEST_F(CallTest, AFailingCallOnASharedHandleNeverGivesAnotherThreadAWrongResult) {
    // An unknown name fails and is cleared again while other threads call;
    // the others may see the failure (it is sticky while it stands) but a
    // call that reports success has the right result.
    auto unknown = std::async(std::launch::async, [&] {
        int succeeded = 0;
        for (int i = 0; i < 200; ++i) succeeded += RPCExec(client, "no_such_function") == 0;
        return succeeded;
    });
    int wrong = 0;
    for (int32_t i = 0, out = -1; i < 400; ++i)
        if (RPCExec(client, "add_one", int64_t{i}, &out) == 0) wrong += out != i + 1;
    EXPECT_EQ(unknown.get(), 0);
    EXPECT_EQ(wrong, 0);
    int32_t out = -1;
    EXPECT_EQ(RPCExec(client, "add_one", int64_t{1}, &out), 0);  // the handle stays usable
    EXPECT_EQ(out, 2);
}

TEST(ArgumentCursor, AbortsOnAHandleOutputAndPastTheLastParameter) {
    RPCParam e[2] = {};
    e[0].flags = RPC_HANDLE | IN;
    RPCParam *null = nullptr, *handle = e, *end = e + 1;
    EXPECT_EQ(__RPCextractarg(&null), nullptr);
    EXPECT_DEATH(__RPCsetarg(&handle, 1), "");
    EXPECT_DEATH(__RPCextractarg(&end), "");
}

}  // namespace
}  // namespace zrpc::test
