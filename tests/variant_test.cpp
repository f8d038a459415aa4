// Variant arrays: forms by mode and direction, round trips, guards, aborts.
#include <gtest/gtest.h>

#include <csignal>
#include <cstring>

#include "helpers/wire_pair.h"
#include "marshal/variant.h"

using namespace zrpc;
using namespace zrpc::test;
using Bytes = std::vector<uint8_t>;

namespace {

RPCMemDesc desc(RPCVariant *elements, size_t count) {
    RPCMemDesc d{};
    d.value = elements;
    d.length = static_cast<int32_t>(count);
    return d;
}

Bytes push_bytes(int32_t mode, uint64_t flags, uint32_t dir, std::vector<RPCVariant> v) {
    WirePair w(mode, flags, 1 - mode, flags);
    w.send([&](HRPC h) { RPCPushWVArray(h, RPC_WVARRAY | dir, "v", desc(v.data(), v.size())); });
    return w.bytes();
}

}  // namespace

TEST(Variant, TagsArePositionsOfTheHighestBit) {
    EXPECT_EQ(bitno(0), 0);
    EXPECT_EQ(bitno(RPC_V_INT16), 1);
    EXPECT_EQ(bitno(RPC_V_FLOAT_ARRAY), 13);
    EXPECT_EQ(bitno(RPC_V_SQLULEN_ARRAY), 19);
    EXPECT_EQ(bitno(0x80000000u), 32);
}

TEST(Variant, FormFollowsModeAndDirection) {
    int32_t seven = 7;
    char xyz[3] = {'x', 'y', 'z'};
    int64_t lens[2] = {};
    const std::vector<RPCVariant> v = {{&seven, 4, RPC_V_INT32}, {xyz, 3, RPC_V_MEM}};
    EXPECT_EQ(push_bytes(1, 0, RPC_IN, v),
              (Bytes{'D', 2, 0, 0, 0, 2, 7, 0, 0, 0, 3, 3, 0, 0, 0, 'x', 'y', 'z'}));
    EXPECT_EQ(push_bytes(1, 0, RPC_OUT, v), (Bytes{'D', 2, 0, 0, 0, 2, 3, 3, 0, 0, 0}));
    EXPECT_EQ(push_bytes(1, 0, 0, v), (Bytes{'D', 2, 0, 0, 0}));
    EXPECT_EQ(push_bytes(0, 0, RPC_IN, v), (Bytes{'D', 2, 0, 0, 0}));
    // Shape: a scalar without buffer is tag 0; a SQLLEN array towards a
    // 4-byte peer announces half its length; a pointer is its tag alone.
    const std::vector<RPCVariant> shapes = {{nullptr, 2, RPC_V_INT16},
                                            {lens, 16, RPC_V_SQLLEN_ARRAY},
                                            {nullptr, 0, RPC_V_PTR}};
    EXPECT_EQ(push_bytes(1, kPeerSqlLen4, RPC_OUT, shapes),
              (Bytes{'D', 3, 0, 0, 0, 0, 18, 8, 0, 0, 0, 7}));

    // The server allocates what the shapes announce, widened for SQLLEN.
    WirePair w(1, kPeerSqlLen4, 0, kPeerSqlLen4);
    w.send([&](HRPC h) {
        RPCPushWVArray(h, RPC_OUT, "v", desc(const_cast<RPCVariant *>(v.data()), 2));
        RPCPushWVArray(h, RPC_OUT, "v", desc(const_cast<RPCVariant *>(shapes.data()), 3));
    });
    for (auto [count, lengths] : {std::pair{2, std::vector<int32_t>{4, 3}},
                                  std::pair{3, std::vector<int32_t>{0, 16, 0}}}) {
        RPCVariant *got = nullptr;
        int32_t n = 0;
        RPCPopWVArray(w.rx.get(), &got, &n, RPC_OUT, "v");
        ASSERT_EQ(n, count);
        for (int i = 0; i < n; ++i) EXPECT_EQ(got[i].length, lengths[i]) << i;
        free_wvarray(got, n);
    }
}

TEST(Variant, ElementsRoundTripThroughServerAndBack) {
    int16_t s = -3;
    int32_t i = 7;
    int64_t l = int64_t{1} << 40, sl = -9;
    uint64_t ul = uint64_t{1} << 63;
    void *p = &s;
    Bytes mem(1000, 'm');
    int16_t shorts[3] = {1, 2, 3};
    int32_t ints[2] = {-1, 1};
    int64_t longs[2] = {5, -5}, sls[2] = {-7, 7};
    uint64_t uls[2] = {9, ~uint64_t{0}};
    float f[2] = {1.5f, -2.0f};
    double d[1] = {3.25};
    std::vector<RPCVariant> v = {
        {&s, 2, RPC_V_INT16}, {&i, 4, RPC_V_INT32}, {&l, 8, RPC_V_INT64},
        {&sl, 8, RPC_V_SQLLEN}, {&ul, 8, RPC_V_SQLULEN}, {&p, 8, RPC_V_PTR},
        {mem.data(), 1000, RPC_V_MEM}, {shorts, 6, RPC_V_INT16_ARRAY},
        {ints, 8, RPC_V_INT32_ARRAY}, {longs, 16, RPC_V_INT64_ARRAY},
        {sls, 16, RPC_V_SQLLEN_ARRAY}, {uls, 16, RPC_V_SQLULEN_ARRAY},
        {f, 8, RPC_V_FLOAT_ARRAY}, {d, 8, RPC_V_DOUBLE_ARRAY}, {nullptr, 0, RPC_V_NONE}};
    std::vector<Bytes> before;
    for (const auto &e : v) {
        const auto *b = static_cast<const uint8_t *>(e.data);
        before.emplace_back(b, b + (b ? e.length : 0));
    }

    WirePair call(1, kCompress, 0, kCompress);
    call.send([&](HRPC h) { RPCPushWVArray(h, RPC_IN | RPC_OUT, "v", desc(v.data(), v.size())); });
    RPCVariant *got = nullptr;
    int32_t n = 0;
    RPCPopWVArray(call.rx.get(), &got, &n, RPC_IN | RPC_OUT, "v");
    ASSERT_EQ(n, static_cast<int32_t>(v.size()));
    for (int k = 0; k < n; ++k) {
        EXPECT_EQ(got[k].type, v[k].type) << k;
        if (k != 5) {  // a pointer element keeps length 0 on the server
            EXPECT_EQ(got[k].length, v[k].length) << k;
        }
        if (got[k].data) {
            EXPECT_EQ(std::memcmp(got[k].data, before[k].data(), before[k].size()), 0) << k;
        }
    }

    WirePair reply(0, kCompress, 1, kCompress);
    reply.send([&](HRPC h) { RPCPushWVArray(h, RPC_IN | RPC_OUT, "v", desc(got, n)); });
    free_wvarray(got, n);
    for (auto &e : v) {
        if (e.data) std::memset(e.data, 0, static_cast<size_t>(e.length));
    }
    RPCVariant *mine = v.data();
    int32_t count = n;
    RPCPopWVArray(reply.rx.get(), &mine, &count, RPC_OUT, "v");
    for (size_t k = 0; k < v.size(); ++k) {
        const auto *b = static_cast<const uint8_t *>(v[k].data);
        EXPECT_EQ(Bytes(b, b + before[k].size()), before[k]) << k;
    }
}

TEST(Variant, ClientRefusesAnElementLargerThanItsBuffer) {
    char big[8] = {}, small[4] = {};
    RPCVariant server_side{big, 8, RPC_V_MEM}, client_side{small, 4, RPC_V_MEM};
    WirePair w(0, 0, 1, 0);
    w.send([&](HRPC h) { RPCPushWVArray(h, RPC_OUT, "v", desc(&server_side, 1)); });
    RPCVariant *mine = &client_side;
    int32_t count = 1;
    EXPECT_EQ(error_of([&] { RPCPopWVArray(w.rx.get(), &mine, &count, RPC_OUT, "v"); }), RPC_TRUNC);
}

#define EXPECT_ABORT(statement) EXPECT_EXIT(statement, testing::KilledBySignal(SIGABRT), "")

TEST(VariantDeathTest, InvalidArraysAbortTheProcess) {
    RPCVariant bad{nullptr, 0, 0x80};
    EXPECT_ABORT(push_bytes(1, 0, RPC_IN, {bad}));
    EXPECT_ABORT(push_bytes(1, 0, RPC_OUT, {RPCVariant{nullptr, 0, 0x100}}));
    EXPECT_ABORT({
        auto h = make_handle(1, 0);
        RPCPushWVArray(h.get(), RPC_IN, "v", desc(nullptr, 0));
    });
    // A reply whose count differs from the caller's, and an unknown tag.
    for (auto [mode, frame] : {std::pair{1, Bytes{'D', 2, 0, 0, 0}},
                               std::pair{0, Bytes{'D', 1, 0, 0, 0, 9}}}) {
        auto h = make_handle(mode, 0);
        CaptureLink link;
        link.attach(h.get());
        link.incoming = {frame};
        RPCStartIFrame(h.get());
        RPCVariant one{nullptr, 0, RPC_V_NONE}, *mine = &one;
        int32_t count = 1;
        EXPECT_ABORT(RPCPopWVArray(h.get(), &mine, &count, RPC_OUT, "v")) << mode;
    }
}
