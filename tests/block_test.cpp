// Blocks and typed arrays: compression thresholds, 4-byte SQLLEN peers,
// payload guards and random round trips.
#include <gtest/gtest.h>

#include <cstring>
#include <random>

#include "helpers/wire_pair.h"

using namespace zrpc;
using namespace zrpc::test;

TEST(Block, CompressionAppliesFrom500To32768Bytes) {
    for (int32_t size : {499, 500, 32768, 32769}) {
        Bytes data(static_cast<size_t>(size));
        for (size_t i = 0; i < data.size(); ++i) data[i] = static_cast<uint8_t>(i % 13);
        WirePair w(1, kCompress, 0, kCompress);
        w.send([&](HRPC h) { RPCPushDesc(h, "m", desc(data.data(), size)); });
        int32_t packed;  // the compressed length, when the payload has one
        std::memcpy(&packed, &w.bytes()[5], 4);
        EXPECT_EQ(w.bytes().size(), size >= 500 && size <= 32768 ? 9u + packed : 5u + size);
        EXPECT_EQ(pop_block(w.rx), data) << size;
    }
}

// Towards a 4-byte SQLLEN peer scalars saturate, and a SQLLEN array sends the
// first half of the caller's array as it stands. On receipt, 4-byte values
// widen with sign as SQLLEN scalars and in arrays whose type flags are
// exactly the SQLLEN array bit, without sign otherwise.
TEST(Block, FourByteSqlLenPeersNarrowAndWiden) {
    const int64_t lens[2] = {-1, 5};
    for (uint32_t flags : {RPC_SQLLEN_ARRAY, RPC_SQLLEN_ARRAY | RPC_IN, RPC_SQLULEN_ARRAY}) {
        WirePair w(1, kPeerSqlLen4, 0, kPeerSqlLen4);
        w.send([&](HRPC h) {
            RPCPushSqlLen(h, 3000000000, "a"), RPCPushSqlLen(h, -3000000000, "b");
            RPCPushSqlULen(h, 5000000000, "c"), RPCPushSqlLenArray(h, "l", desc(lens, 16));
        });
        EXPECT_EQ(w.bytes(), (Bytes{'D', 0xFF, 0xFF, 0xFF, 0x7F, 0, 0, 0, 0x80, 0xFF, 0xFF, 0xFF,
                                    0xFF, 8, 0, 0, 0, 0xFF, 0xFF, 0xFF, 0xFF,
                                    0xFF, 0xFF, 0xFF, 0xFF}));
        int64_t v[5];
        RPCPopSqlLen(w.rx, &v[0], "a"), RPCPopSqlLen(w.rx, &v[1], "b");
        RPCPopSqlULen(w.rx, reinterpret_cast<uint64_t *>(&v[2]), "c");
        std::memcpy(&v[3], pop_block(w.rx, flags, 2).data(), 16);
        const int64_t e = flags == RPC_SQLLEN_ARRAY ? -1 : 4294967295;
        EXPECT_EQ(std::vector(v, v + 5),
                  (std::vector<int64_t>{INT32_MAX, INT32_MIN, 4294967295, e, e})) << flags;
    }
}

TEST(Block, BadPayloadsFailInsteadOfOverflowing) {
    Bytes lzo(1 + kCompressOutSize, 'D');  // 'D' and 1000 sevens compressed
    lzo.resize(1 + compress_buffer(make_handle(1, 0).get(), Bytes(1000, 7).data(), 1000, &lzo[1]));
    const struct { Bytes frame; int32_t wire, dest; uint64_t flags; int32_t code; } cases[] = {
        {{'D', 1, 2, 3, 4, 5, 6, 7, 8, 9}, 9, 600, kCompress, RPC_DECOMP},  // not LZO data
        {{'D'}, 40000, 600, kCompress, RPC_DECOMP},  // beyond the decompression area
        {lzo, static_cast<int32_t>(lzo.size() - 1), 600, kCompress, RPC_TRUNC},  // inflates too far
        {{'D', 1, 2, 3, 4}, 4, 3, 0, RPC_TRUNC},  // beyond the destination
    };
    Bytes dest(600);
    for (const auto &c : cases) {
        WirePair w(1, 0, 0, c.flags);
        w.receive({c.frame});
        EXPECT_EQ(error_of([&] { RPCPopMem(w.rx, c.wire, c.dest, dest.data(), "m"); }), c.code);
    }
}

TEST(Block, RandomArraysRoundTripAndSwapAsCopies) {
    std::mt19937 rng(7);
    decltype(&RPCPushDesc) const push[] = {RPCPushInt16Array, RPCPushInt32Array,
                                           RPCPushInt64Array};
    for (int round = 0; round < 36; ++round) {  // 12 each uncompressed, compressed, and swapped
        const uint64_t flags = round < 12 ? 0 : round < 24 ? kCompress : kCompress | kByteSwap;
        const unsigned kind = rng() % 3, width = 2u << kind;
        // The first round of each set: over 65535 elements, beyond a 16-bit counter.
        const size_t count = round % 12 == 0 ? 70000 : rng() % (40000 / width);
        Bytes data(count * width);
        for (auto &b : data) b = static_cast<uint8_t>(rng() % 4);
        WirePair w(1, flags, 0, flags & ~uint64_t{kByteSwap});
        w.send([&](HRPC h) { push[kind](h, "a", desc(data.data(), data.size())); });
        if (flags & kByteSwap) {
            // Elements arrive reversed (a sender that reversed the caller's
            // own array would fail the comparison); the headers are read as a
            // peer of the other byte order would see them.
            for (size_t i = 0; i < count; ++i) ByteSwap(&data[i * width], width);
            ByteSwap(w.rx->in_pos, 4);
            if (compresses(w.rx, data.size())) ByteSwap(w.rx->in_pos + 4, 4);
        }
        ASSERT_EQ(pop_block(w.rx, RPC_INT16_ARRAY), data) << "round " << round;
    }
}
