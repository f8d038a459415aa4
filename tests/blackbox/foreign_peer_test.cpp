// The library against a hand-made peer of the other byte order with 4-byte
// pointers and a 4-byte SQLLEN: the exact bytes of calls and replies in both
// roles, and failures in the middle of a call.
#include <gtest/gtest.h>
#include <unistd.h>

#include <chrono>
#include <cstring>
#include <future>
#include <optional>
#include <sstream>
#include <string>
#include <utility>
#include <vector>

#include "helpers/served.h"
#include "helpers/trace_tail.h"

namespace zrpc::test {
namespace {

// This peer announces the other byte order (big-endian), 4-byte pointers, a
// 4-byte SQLLEN and no compression.
const std::string kPeerParams = "01:TestOS^02:1.0^03:testcpu^04:4^05:^06:\x11\x99^07:0^10:4^";

// Frame bytes from hex fields separated by spaces, each an integer of its
// own width written most significant byte first: be() sends them so, as the
// library sends this peer, le() in the library's own order, as this peer
// must send the library. A call frame starts with 44, 'D'.
Bytes frame(bool big_endian, const std::string &fields) {
    Bytes out;
    std::istringstream in(fields);
    for (std::string f; in >> f;)
        for (uint64_t i = 0, n = f.size() / 2, v = std::stoull(f, nullptr, 16); i < n; ++i)
            out.push_back(static_cast<uint8_t>(v >> 8 * (big_endian ? n - 1 - i : i)));
    return out;
}
Bytes be(const std::string &fields) { return frame(true, fields); }
Bytes le(const std::string &fields) { return frame(false, fields); }

// A function table record as a server sends it.
std::string table_record(int ordinal, const char *name, Params params) {
    std::string r = "B" + std::to_string(ordinal) + "!" + name + "!";
    for (auto [flags, param] : params) r += std::to_string(flags) + "!0!" + param + "!";
    return r;
}

// The negotiation by hand, as a server on an accepted socket or as a client
// on a connected one.
bool serve_negotiation(int fd, const std::vector<std::string> &table) {
    bool ok = send_packet(fd, "87FA9694", true) &&
              send_packet(fd, std::string("1:0:") + kUid, true) &&
              send_packet(fd, kPeerParams, true) && recv_packet(fd) && send_packet(fd, "A", false);
    for (const std::string &record : table) ok = ok && send_packet(fd, record, true);
    return ok && send_packet(fd, "C", false);
}
bool client_negotiation(int fd, const std::string &params = kPeerParams) {
    const bool ok = recv_packet(fd) && recv_packet(fd) && recv_packet(fd) &&
                    send_packet(fd, params, true);
    for (auto packet = ok ? recv_packet(fd) : std::nullopt; packet; packet = recv_packet(fd))
        if (*packet == bytes_of("C")) return true;  // the end of the function table
    return false;
}

// ---- The library as client, this peer as server ----------------------------

class ForeignServer : public ::testing::Test {
protected:
    void TearDown() override {
        drop();
        free_handle(client);
    }
    void drop() { close(std::exchange(fd, -1)); }
    // Bounds a library call running on a thread of its own: closing this end
    // makes the library fail instead of waiting on.
    static std::future<int32_t> later(auto call) { return std::async(std::launch::async, call); }
    int32_t wait(std::future<int32_t> &f) {
        if (f.wait_for(std::chrono::seconds(5)) != std::future_status::ready) drop();
        return f.get();
    }
    bool connect() {
        const std::vector<std::string> table = {
            table_record(0, "xfer", {{RPC_INT16 | INOUT, "s"}, {RPC_INT64 | IN, "l"},
                {RPC_SQLLEN | IN, "n"}, {RPC_SQLULEN | IN, "u"}, {RPC_PTR | IN, "p"},
                {RPC_SQLLEN_ARRAY | IN, "arr"}, {RPC_INT32_ARRAY | IN, "ia"},
                {RPC_SQLLEN_ARRAY | OUT, "oarr"}, {RPC_SQLLEN_ARRAY | OUT, "fresh"},
                {RPC_INT32 | OUT, "io"}, {RPC_SQLLEN | OUT, "no"}, {RPC_PTR | OUT, "po"},
                {RPC_SQLULEN | OUT, "uo"}}),
            table_record(1, "ping", {{RPC_PTR | IN, "p"}, {RPC_INT32 | OUT, "b"}})};
        RPCSetError(client, record_code, &codes);
        auto pending = later([this] { return RPCConnect(client, 1, 0, kUid); });
        fd = listener.accept_one();
        if (fd < 0 || !serve_negotiation(fd, table)) drop();
        return wait(pending) == 0;
    }

    Listener listener;
    HRPC client = new_handle(RPC_MODE_CLIENT, listener.port());
    int fd = -1;
    std::vector<int32_t> codes;  // from the error callback
};

TEST_F(ForeignServer, ClientSwapsNarrowsWidensAndIndexesForThePeer) {
    ASSERT_TRUE(connect());
    int16_t s = 0x0102;
    int32_t io = 0, i[3] = {1, 2, 3}, b = 0;
    int64_t no = 0, uo = 0, a[2] = {1, -2}, o[4] = {};
    void *po = nullptr;
    RPCMemDesc arr = desc(16, a), ia = desc(12, i), oarr = desc(32, o), fresh{};
    auto pending = later([&] {
        return RPCExec(client, "xfer", &s, int64_t{0x0102030405060708}, int64_t{3000000000},
                       int64_t{5000000000}, nullptr, &arr, &ia, &oarr, &fresh, &io, &no, &po, &uo);
    });
    // SQLLEN 3000000000 and SQLULEN 5000000000 saturate; a null pointer is
    // index 0 (4 bytes, never swapped); the SQLLEN array sends its first 8
    // bytes for 2 elements, the int32 array each element swapped; capacities
    // count 4-byte elements; output scalars send nothing.
    EXPECT_EQ(recv_packet(fd), be("44 0000 0102 0102030405060708 7FFFFFFF FFFFFFFF 00000000"
                                  " 00000008 0100000000000000 0000000C 00000001 00000002 00000003"
                                  " 00000010 00000000"));
    send_packet(fd, le("44 0000 FFF9 00000008 FFFFFFFF 00000007 00000008 FFFFFFFF 00000009"
                       " 0A0B0C0D FFFFFFFE 00000005 FFFFFFFF"));
    ASSERT_EQ(wait(pending), 0);
    // SQLLEN sign-extended, SQLULEN not.
    EXPECT_EQ(s, -7);
    EXPECT_EQ(io, 0x0A0B0C0D);
    EXPECT_EQ(no, -2);
    EXPECT_EQ(uo, 4294967295);
    // SQLLEN arrays widen as unsigned unless the flags word is exactly the
    // type bit. A caller's buffer is left with the wire size, a fresh one
    // with its own.
    EXPECT_EQ(oarr.length, 8);
    EXPECT_EQ(o[0], 4294967295);
    EXPECT_EQ(o[1], 7);
    EXPECT_EQ(fresh.length, 16);
    EXPECT_EQ(static_cast<int64_t *>(fresh.value)[1], 9);
    std::free(fresh.value);

    pending = later([&] { return RPCExec(client, "ping", po, &b); });
    EXPECT_EQ(recv_packet(fd), be("44 0001 05000000"));  // the peer's own index
    send_packet(fd, le("44 0001 0000002A"));
    EXPECT_EQ(wait(pending), 0);
    EXPECT_EQ(b, 42);
}

TEST_F(ForeignServer, APeerLostMidCallSticksUntilReconnect) {
    int32_t b = 0;
    for (int session = 0; session < 2; ++session) {
        ASSERT_TRUE(connect());  // the second clears the first one's code: the call goes out
        auto pending = later([&] { return RPCExec(client, "ping", nullptr, &b); });
        EXPECT_EQ(recv_packet(fd), be("44 0001 00000000"));
        drop();
        EXPECT_EQ(wait(pending), 1);
        EXPECT_EQ(error_of(client), RPC_ETRANSPORT);
        EXPECT_EQ(RPCExec(client, "ping", nullptr, &b), 1);  // refused: no callback
        ASSERT_EQ(RPCDisconnect(client), 0);
    }
    EXPECT_EQ(codes, (std::vector<int32_t>{RPC_ETRANSPORT, RPC_ETRANSPORT}));
}

// ---- The library as server, this peer as client ----------------------------

// The server function's slots as it found them, and the input array's
// content (the buffer is released after the reply).
RPCParam g_slots[10];
int64_t g_arr[2];
int g_object;

int32_t mix(RPCParam *args) {
    std::copy_n(args, 10, g_slots);
    std::memcpy(g_arr, args[4].value, 16);
    const int64_t out[2] = {-1, 3000000000};
    std::memcpy(args[5].value, out, 16);
    RPCParam *cur = args + 6;
    __RPCsetarg(&cur, 0x01020304);
    __RPCsetarg(&cur, int64_t{3000000000});
    __RPCsetarg(&cur, &g_object);
    return 0;
}
int64_t slot(int i) { return reinterpret_cast<intptr_t>(g_slots[i].value); }

const RPCFuncDesc kServerTable[] = {
    F("mix", mix, {{RPC_INT16 | IN, "s"}, {RPC_SQLLEN | IN, "n"}, {RPC_SQLULEN | IN, "u"},
                   {RPC_PTR | IN, "p"}, {RPC_SQLLEN_ARRAY | IN, "arr"},
                   {RPC_SQLLEN_ARRAY | OUT, "o"}, {RPC_INT32 | OUT, "io"}, {RPC_SQLLEN | OUT, "no"},
                   {RPC_PTR | OUT, "po"}, {RPC_HANDLE | IN, "h"}}),
    {}};

// "mix" from this peer with pointer index p, an array of 2 elements and room
// for 2.
Bytes mix_request(uint8_t p) {
    return le("44 0000 1234 FFFFFFFE FFFFFFFF 0000000" + std::to_string(p) +
              " 00000008 FFFFFFFF 00000003 00000008");
}

// A served library handle and this peer connected to it as a client.
struct ForeignClient {
    explicit ForeignClient(const std::string &params = kPeerParams)
        : negotiated(fd >= 0 && client_negotiation(fd, params)) {}
    ServedHandle server{kServerTable};
    int fd = connect_loopback_retry(server.port);
    bool negotiated;
    ~ForeignClient() { end(); }
    int32_t end() {
        close(std::exchange(fd, -1));
        return server.finish();
    }
};

TEST(ForeignClient, ServerSwapsNarrowsWidensAndIndexesForThePeer) {
    ForeignClient peer;
    ASSERT_TRUE(peer.negotiated);
    for (uint8_t p : {0, 1}) {
        ASSERT_TRUE(send_packet(peer.fd, mix_request(p)));
        // oarr sends the first 8 of its 16 bytes, SQLLEN 3000000000
        // saturates, the object gets index 1 both times.
        EXPECT_EQ(recv_packet(peer.fd),
                  be("44 0000 00000008 FFFFFFFFFFFFFFFF 01020304 7FFFFFFF 01000000"));
        EXPECT_EQ(g_slots[3].value, p ? &g_object : nullptr);
    }
    EXPECT_EQ(slot(0), 0x1234);
    EXPECT_EQ(slot(1), -2);
    EXPECT_EQ(slot(2), 4294967295);
    // The input array is widened (as unsigned) into twice its wire size, the
    // output capacity doubled.
    EXPECT_EQ(g_slots[4].length, 8);
    EXPECT_EQ(g_arr[0], 4294967295);
    EXPECT_EQ(g_arr[1], 3);
    EXPECT_EQ(g_slots[5].length, 16);
    EXPECT_EQ(g_slots[9].value, peer.server.h);
}

// Popped from a 4-byte peer, a SQLLEN's trace line shows what its slot held
// before (here the previous call's value), as a client's shows its variable's.
TEST(ForeignClient, FourByteSqlLenTracesTheSlotsPreviousValue) {
    const TraceTail tail;
    std::string params = kPeerParams;
    params.replace(params.find("05:^"), 4, "05:a^");
    ForeignClient peer(params);
    ASSERT_TRUE(peer.negotiated);
    for (int call = 0; call < 2; ++call) {
        ASSERT_TRUE(send_packet(peer.fd, mix_request(0)));
        ASSERT_TRUE(recv_packet(peer.fd));
    }
    peer.end();
    const std::string trace = tail.read();
    const auto first = trace.find("popped sqllen n ");
    ASSERT_NE(first, std::string::npos) << trace;
    EXPECT_EQ(trace.substr(first, 18), "popped sqllen n 0\n");
    EXPECT_NE(trace.find("popped sqllen n -2\n", first + 1), std::string::npos) << trace;
}

TEST(ForeignClient, MalformedRequestsEndTheLoop) {
    const std::pair<Bytes, int32_t> cases[] = {
        {mix_request(9), RPC_HMARSHAL},  // a pointer index never handed out
        {le("44 0001"), RPC_BADFUNC},  // past the table
        {le("44 FFFF"), RPC_BADFUNC},
        // Gone after the input array was allocated.
        {le("44 0000 1234 FFFFFFFE FFFFFFFF 00000000 00000008 FFFFFFFF"), RPC_ETRANSPORT}};
    for (const auto &[request, code] : cases) {
        SCOPED_TRACE(code);
        ForeignClient peer;
        ASSERT_TRUE(peer.negotiated);
        // The close only matters when the frame left the server waiting for more.
        EXPECT_TRUE(send_packet(peer.fd, request));
        EXPECT_EQ(peer.end(), code);
    }
}

}  // namespace
}  // namespace zrpc::test
