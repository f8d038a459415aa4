// Variant arrays: forms by mode and direction, round trips, guards, aborts.
#include <gtest/gtest.h>

#include <csignal>

#include "helpers/wire_pair.h"
#include "marshal/variant.h"

using namespace zrpc;
using namespace zrpc::test;

// A client sends values with RPC_IN, shapes with RPC_OUT alone (a scalar
// without buffer as tag 0, a SQLLEN array halved for a 4-byte peer, a pointer
// as its tag) and otherwise the count only, as does a server without RPC_OUT.
TEST(Variant, FormFollowsModeAndDirection) {
    int32_t seven = 7;
    RPCVariant v[] = {{&seven, 4, RPC_V_INT32}, {const_cast<char *>("xyz"), 3, RPC_V_MEM},
                      {nullptr, 2, RPC_V_INT16}, {nullptr, 16, RPC_V_SQLLEN_ARRAY},
                      {nullptr, 0, RPC_V_PTR}};
    const struct { int32_t mode; uint32_t dir; int32_t n; Bytes wire; } cases[] = {
        {1, RPC_IN, 2, {'D', 2, 0, 0, 0, 2, 7, 0, 0, 0, 3, 3, 0, 0, 0, 'x', 'y', 'z'}},
        {1, RPC_OUT, 5, {'D', 5, 0, 0, 0, 2, 3, 3, 0, 0, 0, 0, 18, 8, 0, 0, 0, 7}},
        {1, 0, 2, {'D', 2, 0, 0, 0}},
        {0, RPC_IN, 2, {'D', 2, 0, 0, 0}},
    };
    for (const auto &c : cases) {
        const auto push = [&](HRPC h) { RPCPushWVArray(h, c.dir, "v", desc(v, c.n)); };
        EXPECT_EQ(wire_of(c.mode, kPeerSqlLen4, push), c.wire) << c.mode << " " << c.dir;
    }
    // The server allocates what the shapes announce; with neither direction it
    // reads the count alone and stays in step.
    WirePair w(1, kPeerSqlLen4);
    w.send([&](HRPC h) {
        RPCPushWVArray(h, RPC_OUT, "v", desc(v, 5));
        RPCPushWVArray(h, 0, "v", desc(v, 2));
        RPCPushInt32(h, 99, "after");
    });
    RPCVariant *got = nullptr;
    int32_t n = 0;
    RPCPopWVArray(w.rx, &got, &n, RPC_OUT, "v");
    std::vector<int32_t> lengths;
    for (int i = 0; i < n; ++i) lengths.push_back(got[i].length);
    EXPECT_EQ(lengths, (std::vector{4, 3, 0, 16, 0}));
    free_wvarray(got, n);
    int32_t after = 0;
    RPCPopWVArray(w.rx, &got, &n, 0, "v");
    RPCPopInt32(w.rx, &after, "after");
    EXPECT_EQ(n, 2);
    EXPECT_EQ(got[1].type, 0);
    EXPECT_EQ(got[1].data, nullptr);
    EXPECT_EQ(after, 99);
    free_wvarray(got, n);
}

// Every element type through a server's pop, its reply and the client's pop
// into the caller's buffers; the 1000-byte block travels compressed, the
// pointer as 8 raw bytes. A client refuses an element larger than the buffer
// it gave.
TEST(Variant, ElementsRoundTripThroughServerAndBack) {
    const std::pair<uint32_t, size_t> kinds[] = {
        {RPC_V_INT16, 2}, {RPC_V_INT32, 4}, {RPC_V_INT64, 8}, {RPC_V_SQLLEN, 8},
        {RPC_V_SQLULEN, 8}, {RPC_V_PTR, 8}, {RPC_V_MEM, 1000}, {RPC_V_INT16_ARRAY, 6},
        {RPC_V_INT32_ARRAY, 8}, {RPC_V_INT64_ARRAY, 16}, {RPC_V_SQLLEN_ARRAY, 16},
        {RPC_V_SQLULEN_ARRAY, 16}, {RPC_V_FLOAT_ARRAY, 8}, {RPC_V_DOUBLE_ARRAY, 16}, {0, 0}};
    std::vector<Bytes> data;
    std::vector<RPCVariant> v;
    data.reserve(std::size(kinds));
    for (const auto &[type, length] : kinds) {  // bytes that make normal floats and doubles
        Bytes &d = data.emplace_back(length);
        for (size_t k = 0; k < length; ++k) d[k] = 0x40 + (k + data.size()) % 9;
        v.push_back({length ? d.data() : nullptr, static_cast<int32_t>(length), type});
    }
    const std::vector<Bytes> before = data;
    WirePair w(1, kCompress);
    w.send([&](HRPC h) { RPCPushWVArray(h, RPC_IN | RPC_OUT, "v", desc(v.data(), v.size())); });
    RPCVariant *got = nullptr;
    RPCVariant *mine = v.data();
    int32_t n = 0;
    RPCPopWVArray(w.rx, &got, &n, RPC_IN | RPC_OUT, "v");
    const auto reply = [&](HRPC h) { RPCPushWVArray(h, RPC_IN | RPC_OUT, "v", desc(got, n)); };
    w.turn();
    w.send(reply);
    for (auto &d : data) std::fill(d.begin(), d.end(), 0);
    RPCPopWVArray(w.rx, &mine, &n, RPC_OUT, "v");
    EXPECT_EQ(data, before);
    for (size_t k = 0; k < v.size(); ++k) EXPECT_EQ(v[k].type, kinds[k].first) << k;
    EXPECT_EQ(w.tx->ptr_table, nullptr);  // 8-byte pointers need no table
    EXPECT_EQ(w.rx->ptr_table, nullptr);
    w.send(reply);
    v[6].length = 999;
    EXPECT_EQ(error_of([&] { RPCPopWVArray(w.rx, &mine, &n, RPC_OUT, "v"); }), RPC_TRUNC);
    free_wvarray(got, n);
}

#define EXPECT_ABORT(statement) EXPECT_EXIT(statement, testing::KilledBySignal(SIGABRT), "")

// Unknown or unsendable type codes, a null record array, a reply whose count
// differs from the caller's, and an unknown tag end the process.
TEST(VariantDeathTest, InvalidArraysAbortTheProcess) {
    RPCVariant bad[] = {{nullptr, 0, 0x100}, {nullptr, 0, 0x80}};
    EXPECT_ABORT(wire_of(1, 0, [&](HRPC h) { RPCPushWVArray(h, RPC_IN, "v", desc(&bad[0], 1)); }));
    EXPECT_ABORT(wire_of(1, 0, [&](HRPC h) { RPCPushWVArray(h, RPC_OUT, "v", desc(&bad[1], 1)); }));
    EXPECT_ABORT(wire_of(1, 0, [&](HRPC h) { RPCPushWVArray(h, RPC_IN, "v", desc(nullptr, 0)); }));
    RPCVariant *mine = bad;
    int32_t count = 1;
    for (auto [mode, frame] :
         {std::pair{1, Bytes{'D', 2, 0, 0, 0}}, std::pair{0, Bytes{'D', 1, 0, 0, 0, 9}}}) {
        WirePair w(1 - mode, 0);
        w.receive({frame});
        EXPECT_ABORT(RPCPopWVArray(w.rx, &mine, &count, RPC_OUT, "v")) << mode;
    }
}
