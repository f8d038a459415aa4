// The library against a hand-made peer that announces the other byte order,
// 4-byte pointers and a 4-byte SQLLEN: the exact bytes of calls and replies
// in both roles, and failures in the middle of a call.
#include <gtest/gtest.h>
#include <unistd.h>

#include <chrono>
#include <cstring>
#include <future>
#include <string>
#include <vector>

#include "core/handle.h"
#include "helpers/proto_peer.h"
#include "helpers/served.h"
#include "marshal/pointer.h"

namespace zrpc::test {
namespace {

using namespace std::chrono_literals;

struct Param {
    uint32_t flags;
    const char *name;
};

// A function table record as a server sends it (without the leading "B").
std::string record(int ordinal, const char *name, std::initializer_list<Param> params) {
    std::string r = std::to_string(ordinal) + "!" + name + "!";
    for (const Param &p : params) r += std::to_string(p.flags) + "!0!" + p.name + "!";
    return r;
}

Wire be() { return Wire(true); }   // what a little-endian library sends this peer
Wire le() { return Wire(false); }  // what this peer must send the library

struct Callbacks {
    std::vector<int32_t> codes;
    static void record(int32_t code, void *self) {
        static_cast<Callbacks *>(self)->codes.push_back(code);
    }
};

int32_t wait_bounded(std::future<int32_t> &f, int &fd) {
    if (f.wait_for(5s) != std::future_status::ready && fd >= 0) {
        close(fd);  // the library end then fails instead of waiting forever
        fd = -1;
    }
    return f.get();
}

constexpr uint32_t IN = RPC_IN, OUT = RPC_OUT;

// ---- The library as client, this peer as server ----------------------------

class ForeignServer : public ::testing::Test {
protected:
    void SetUp() override {
        client = RPCAllocHandle();
        RPCInitialise(client, RPC_MODE_CLIENT, 0);
        aim_client(client, listener.port());
        RPCSetError(client, &Callbacks::record, &callbacks);
    }
    void TearDown() override {
        drop();
        RPCDisconnect(client);
        RPCTerminate(client);
        RPCFreeHandle(client);
    }
    void drop() {
        if (fd >= 0) close(fd);
        fd = -1;
    }
    // Connects the client while this side plays the server's part.
    void connect(const std::vector<std::string> &records) {
        auto pending = std::async(std::launch::async, [this] { return RPCConnect(client, 1, 0, kUid); });
        fd = listener.accept_one();
        std::optional<std::string> theirs;
        if (fd >= 0) theirs = serve_negotiation(fd, PeerIdentity{}, std::string("1:0:") + kUid, records);
        if (!theirs) drop();
        const int32_t result = wait_bounded(pending, fd);
        ASSERT_TRUE(theirs);
        ASSERT_EQ(result, 0);
        client_params = *theirs;
    }
    template <typename F>
    std::future<int32_t> call(F body) {
        return std::async(std::launch::async, body);
    }
    int32_t wait(std::future<int32_t> &f) { return wait_bounded(f, fd); }
    // The next request frame, or an empty one when none came.
    Bytes request() { return recv_packet(fd, 5000).value_or(Bytes{}); }

    Listener listener;
    HRPC client = nullptr;
    int fd = -1;
    Callbacks callbacks;
    std::string client_params;
};

const std::vector<std::string> kClientSideTable = {
    record(0, "put", {{RPC_INT16 | IN, "s"}, {RPC_INT32 | IN, "i"}, {RPC_INT64 | IN, "l"},
                      {RPC_SQLLEN | IN, "n"}, {RPC_SQLLEN | IN, "m"}, {RPC_SQLULEN | IN, "u"},
                      {RPC_PTR | IN, "p"}, {RPC_SQLLEN_ARRAY | IN, "arr"},
                      {RPC_INT32_ARRAY | IN, "ia"}, {RPC_SQLLEN_ARRAY | OUT, "oarr"}}),
    record(1, "get", {{RPC_INT32 | OUT, "io"}, {RPC_SQLLEN | OUT, "no"}, {RPC_PTR | OUT, "po"},
                      {RPC_SQLULEN | OUT, "uo"}, {RPC_SQLLEN_ARRAY | OUT, "oarr"},
                      {RPC_INT16 | IN | OUT, "s16"}}),
    record(2, "ping", {{RPC_INT32 | IN, "a"}, {RPC_INT32 | OUT, "b"}}),
};

// What "put" must look like on the wire with pointer index `p`.
Bytes put_request(uint8_t p) {
    return be().u8('D').i16(0)
        .i16(0x1234).i32(0x01020304).i64(0x0102030405060708)
        .i32(0x7FFFFFFF)                 // 3000000000 saturated for a 4-byte SQLLEN
        .i32(-5)
        .i32(-1)                         // SQLULEN 5000000000 saturated
        .raw({p, 0, 0, 0})               // pointer index: 4 bytes, never swapped
        .i32(8).raw({1, 0, 0, 0, 0, 0, 0, 0})  // 2 elements: 8 wire bytes, the array's first 8
        .i32(12).i32(1).i32(2).i32(3)    // int32 array, each element swapped
        .i32(16)                         // capacity 32 announced as 4-byte elements
        .bytes;
}

TEST_F(ForeignServer, ClientSwapsNarrowsAndIndexesForThePeer) {
    connect(kClientSideTable);
    EXPECT_NE(client_params.find("^04:8^"), std::string::npos) << client_params;
    EXPECT_NE(client_params.find("^10:8^"), std::string::npos) << client_params;
    EXPECT_TRUE(has_flag(client, kByteSwap) && has_flag(client, kPeerPtrIndex) &&
                has_flag(client, kPeerSqlLen4));
    EXPECT_FALSE(has_flag(client, kCompress));

    int64_t arr[2] = {1, -2};
    int32_t ia[3] = {1, 2, 3};
    int64_t oarr[4] = {};
    RPCMemDesc arr_d{}, ia_d{}, oarr_d{};
    arr_d.length = 16, arr_d.value = arr;
    ia_d.length = 12, ia_d.value = ia;
    oarr_d.length = 32, oarr_d.value = oarr;
    auto put = [&](void *p) {
        return call([&, p] {
            return RPCExec(client, "put", int64_t{0x1234}, int64_t{0x01020304},
                           int64_t{0x0102030405060708}, int64_t{3000000000}, int64_t{-5},
                           int64_t{5000000000}, p, &arr_d, &ia_d, &oarr_d);
        });
    };
    auto pending = put(nullptr);
    EXPECT_EQ(request(), put_request(0));
    // Replies come in this side's reading of the library's order; SQLLEN
    // arrays widen as unsigned unless the flags word is exactly the type bit.
    send_packet(fd, le().u8('D').i16(0).i32(8).i32(-1).i32(7).bytes);
    ASSERT_EQ(wait(pending), 0);
    EXPECT_EQ(oarr_d.length, 8);  // the wire size, though 16 bytes were written
    EXPECT_EQ(oarr[0], 4294967295LL);
    EXPECT_EQ(oarr[1], 7);
    EXPECT_EQ(arr[1], -2);  // the caller's arrays are left alone
    EXPECT_EQ(ia[0], 1);

    int32_t io = 0;
    int64_t no = 0;
    void *po = nullptr;
    uint64_t uo = 0;
    int16_t s16 = 0x0102;
    RPCMemDesc fresh{};
    pending = call([&] { return RPCExec(client, "get", &io, &no, &po, &uo, &fresh, &s16); });
    // Output-only scalars and pointers put nothing on the wire.
    EXPECT_EQ(request(), be().u8('D').i16(1).i32(0).i16(0x0102).bytes);
    send_packet(fd, le().u8('D').i16(1).i32(0x0A0B0C0D).i32(-2).raw({5, 0, 0, 0}).i32(-1)
                        .i32(8).i32(-1).i32(9).i16(-7).bytes);
    ASSERT_EQ(wait(pending), 0);
    EXPECT_EQ(io, 0x0A0B0C0D);
    EXPECT_EQ(no, -2);  // sign-extended
    EXPECT_EQ(uo, 4294967295u);
    EXPECT_EQ(s16, -7);
    ASSERT_NE(po, nullptr);
    EXPECT_EQ(find_ptr_in_list_l(client, po), 5u);
    ASSERT_NE(fresh.value, nullptr);
    EXPECT_EQ(fresh.length, 16);  // allocated for the widened elements
    EXPECT_EQ(static_cast<int64_t *>(fresh.value)[1], 9);
    std::free(fresh.value);

    oarr_d.length = 32;
    pending = put(po);  // the proxy goes back as the peer's own index
    EXPECT_EQ(request(), put_request(5));
    send_packet(fd, le().u8('D').i16(0).i32(0).bytes);
    ASSERT_EQ(wait(pending), 0);
    EXPECT_EQ(oarr_d.length, 0);
    EXPECT_TRUE(callbacks.codes.empty());
}

TEST_F(ForeignServer, FailedCallsStickUntilReconnect) {
    struct Case {
        const char *what;
        std::optional<Bytes> reply;  // nullopt: the peer goes away
        int32_t code;
    };
    const Case cases[] = {{"peer gone", std::nullopt, RPC_ETRANSPORT},
                          {"bad start byte", le().u8('X').i16(2).i32(1).bytes, RPC_BADSTR},
                          {"empty packet", Bytes{}, RPC_EPKT}};
    for (const Case &c : cases) {
        SCOPED_TRACE(c.what);
        connect(kClientSideTable);
        callbacks.codes.clear();
        int32_t b = 0;
        auto pending = call([&] { return RPCExec(client, "ping", int64_t{41}, &b); });
        EXPECT_EQ(request(), be().u8('D').i16(2).i32(41).bytes);
        if (c.reply)
            send_packet(fd, *c.reply);
        else
            drop();
        EXPECT_EQ(wait(pending), 1);
        EXPECT_EQ(client->error_code, c.code);
        // Refused at once: no callback, nothing sent.
        EXPECT_EQ(RPCExec(client, "ping", int64_t{1}, &b), 1);
        EXPECT_EQ(callbacks.codes, std::vector<int32_t>{c.code});
        if (fd >= 0) {
            EXPECT_FALSE(recv_packet(fd, 100));
        }
        drop();
        ASSERT_EQ(RPCDisconnect(client), 0);
    }
    connect(kClientSideTable);  // a new connection clears the code
    int32_t b = 0;
    auto pending = call([&] { return RPCExec(client, "ping", int64_t{41}, &b); });
    EXPECT_EQ(request(), be().u8('D').i16(2).i32(41).bytes);
    send_packet(fd, le().u8('D').i16(2).i32(42).bytes);
    EXPECT_EQ(wait(pending), 0);
    EXPECT_EQ(b, 42);
}

// ---- The library as server, this peer as client ----------------------------

int g_object;
struct Seen {
    int16_t s;
    int64_t n;
    uint64_t u;
    int32_t arr_length, oarr_length;
    int64_t arr[2];
    HRPC handle;
} g_seen;

int32_t mix(RPCParam *args) {
    RPCParam *cur = args;
    auto next = [&] { return __RPCextractarg(&cur); };
    std::memcpy(&g_seen.s, next(), 2);
    std::memcpy(&g_seen.n, next(), 8);
    std::memcpy(&g_seen.u, next(), 8);
    auto *arr = static_cast<RPCMemDesc *>(next());
    g_seen.arr_length = arr->length;
    std::memcpy(g_seen.arr, arr->value, 16);  // widened into twice the wire size
    auto *oarr = static_cast<RPCMemDesc *>(next());
    g_seen.oarr_length = oarr->length;
    static_cast<int64_t *>(oarr->value)[0] = -1;
    static_cast<int64_t *>(oarr->value)[1] = 3000000000;
    __RPCsetarg(&cur, 0x01020304);
    __RPCsetarg(&cur, int64_t{3000000000});
    __RPCsetarg(&cur, &g_object);
    std::memcpy(&g_seen.handle, next(), sizeof(HRPC));
    return 0;
}

int32_t take(RPCParam *args) {
    RPCParam *cur = args;
    void *p;
    std::memcpy(&p, __RPCextractarg(&cur), sizeof p);
    __RPCsetarg(&cur, p == &g_object ? 1 : 0);
    return 0;
}

RPCParam P(uint32_t flags, const char *name) {
    RPCParam p{};
    p.flags = flags;
    p.name = const_cast<char *>(name);
    return p;
}

std::vector<RPCFuncDesc> server_table() {
    std::vector<RPCFuncDesc> t(3);
    t[0].name = const_cast<char *>("mix");
    t[0].entry = mix;
    const RPCParam mix_params[] = {
        P(RPC_INT16 | IN, "s"), P(RPC_SQLLEN | IN, "n"), P(RPC_SQLULEN | IN, "u"),
        P(RPC_SQLLEN_ARRAY | IN, "arr"), P(RPC_SQLLEN_ARRAY | OUT, "oarr"),
        P(RPC_INT32 | OUT, "io"), P(RPC_SQLLEN | OUT, "no"), P(RPC_PTR | OUT, "po"),
        P(RPC_HANDLE | IN, "h")};
    std::copy(std::begin(mix_params), std::end(mix_params), t[0].params);
    t[1].name = const_cast<char *>("take");
    t[1].entry = take;
    t[1].params[0] = P(RPC_PTR | IN, "p");
    t[1].params[1] = P(RPC_INT32 | OUT, "found");
    return t;
}
const std::vector<RPCFuncDesc> kServerTable = server_table();

// A served library handle and this peer connected to it as a client.
struct ForeignClient {
    ServedHandle server{kServerTable.data()};
    int fd = connect_loopback_retry(server.port());
    std::optional<ServerHello> hello = fd >= 0 ? client_negotiation(fd, PeerIdentity{}) : std::nullopt;
    ~ForeignClient() {
        if (fd >= 0) close(fd);
    }
    ServerResult end() {
        if (fd >= 0) close(fd);
        fd = -1;
        return server.finish();
    }
};

TEST(ForeignClient, ServerSwapsNarrowsWidensAndIndexesForThePeer) {
    ForeignClient peer;
    ASSERT_TRUE(peer.hello);
    EXPECT_EQ(peer.hello->magic, "87FA9694");
    EXPECT_EQ(peer.hello->version, std::string("1:0:") + kUid);
    // Exported last-first; the RPC_HANDLE parameter stays on the server.
    EXPECT_EQ(peer.hello->records,
              (std::vector<std::string>{
                  "B" + record(0, "take", {{RPC_PTR | IN, "p"}, {RPC_INT32 | OUT, "found"}}),
                  "B" + record(1, "mix", {{RPC_INT16 | IN, "s"}, {RPC_SQLLEN | IN, "n"},
                                          {RPC_SQLULEN | IN, "u"}, {RPC_SQLLEN_ARRAY | IN, "arr"},
                                          {RPC_SQLLEN_ARRAY | OUT, "oarr"},
                                          {RPC_INT32 | OUT, "io"}, {RPC_SQLLEN | OUT, "no"},
                                          {RPC_PTR | OUT, "po"}})}));

    ASSERT_TRUE(send_packet(peer.fd, le().u8('D').i16(1).i16(0x1234).i32(-2).i32(-1)
                                         .i32(8).i32(-1).i32(3)  // arr: 2 elements
                                         .i32(8)                 // oarr: room for 2
                                         .bytes));
    auto reply = recv_packet(peer.fd);
    ASSERT_TRUE(reply);
    EXPECT_EQ(*reply, be().u8('D').i16(1)
                          .i32(8).raw({0xFF, 0xFF, 0xFF, 0xFF, 0xFF, 0xFF, 0xFF, 0xFF})
                          .i32(0x01020304)
                          .i32(0x7FFFFFFF)
                          .raw({1, 0, 0, 0})  // first pointer handed out: index 1
                          .bytes);
    EXPECT_EQ(g_seen.s, 0x1234);
    EXPECT_EQ(g_seen.n, -2);
    EXPECT_EQ(g_seen.u, 4294967295u);
    EXPECT_EQ(g_seen.arr_length, 8);
    EXPECT_EQ(g_seen.arr[0], 4294967295LL);
    EXPECT_EQ(g_seen.arr[1], 3);
    EXPECT_EQ(g_seen.oarr_length, 16);
    EXPECT_EQ(g_seen.handle, peer.server.h);

    for (uint8_t index : {1, 0}) {
        ASSERT_TRUE(send_packet(peer.fd, le().u8('D').i16(0).raw({index, 0, 0, 0}).bytes));
        EXPECT_EQ(recv_packet(peer.fd), be().u8('D').i16(0).i32(index).bytes);
    }
    ASSERT_TRUE(send_packet(peer.fd, le().u8('D').i16(0).raw({9, 0, 0, 0}).bytes));
    ServerResult r = peer.end();
    EXPECT_EQ(r.run, 1);
    EXPECT_EQ(r.error, RPC_HMARSHAL);
}

TEST(ForeignClient, MalformedRequestsEndTheLoop) {
    struct Case {
        const char *what;
        std::optional<Bytes> frame;  // nullopt: the peer goes away
        int32_t code;
    };
    const Case cases[] = {{"ordinal past the table", le().u8('D').i16(2).bytes, RPC_BADFUNC},
                          {"negative ordinal", le().u8('D').i16(-1).bytes, RPC_BADFUNC},
                          {"bad start byte", le().u8('E').i16(0).bytes, RPC_BADSTR},
                          {"empty packet", Bytes{}, RPC_EPKT},
                          {"peer gone", std::nullopt, RPC_ETRANSPORT},
                          // Gone after an input block was allocated, before the rest came.
                          {"cut off mid-call",
                           le().u8('D').i16(1).i16(1).i32(-2).i32(-1).i32(8).i32(-1).i32(3).bytes,
                           RPC_ETRANSPORT}};
    for (const Case &c : cases) {
        SCOPED_TRACE(c.what);
        ForeignClient peer;
        ASSERT_TRUE(peer.hello);
        if (c.frame) {
            ASSERT_TRUE(send_packet(peer.fd, *c.frame));
        }
        // The frame is read before the close, so the close matters only when
        // the frame left the server waiting for more.
        ServerResult r = peer.end();
        EXPECT_EQ(r.run, 1);
        EXPECT_EQ(r.error, c.code);
    }
}

}  // namespace
}  // namespace zrpc::test
