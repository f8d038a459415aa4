// Blocks and typed arrays: compression thresholds, 4-byte SQLLEN peers,
// payload guards and swapped round trips.
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
        WirePair w(1, kCompress);
        w.send([&](HRPC h) { RPCPushDesc(h, "m", desc(data.data(), size)); });
        const Bytes wire = w.bytes();
        int32_t packed;  // the compressed length, when the payload has one
        std::memcpy(&packed, &wire[5], 4);
        EXPECT_EQ(wire.size(), size >= 500 && size <= 32768 ? 9u + packed : 5u + size);
        EXPECT_EQ(pop_block(w.rx), data) << size;
    }
}

// Towards a 4-byte SQLLEN peer a SQLLEN saturates, and a SQLLEN array sends
// the first half of the caller's array as it stands. On receipt, 4-byte array
// elements widen with sign when the type flags are exactly the SQLLEN array
// bit, without sign otherwise.
TEST(Block, FourByteSqlLenPeersNarrowAndWiden) {
    const int64_t lens[2] = {-1, 5};
    for (uint32_t flags : {RPC_SQLLEN_ARRAY, RPC_SQLLEN_ARRAY | RPC_IN, RPC_SQLULEN_ARRAY}) {
        WirePair w(1, kPeerSqlLen4);
        w.send([&](HRPC h) {
            RPCPushSqlLen(h, -3000000000, "s");
            RPCPushSqlLenArray(h, "l", desc(lens, 16));
        });
        EXPECT_EQ(w.bytes(), (Bytes{'D', 0, 0, 0, 0x80, 8, 0, 0, 0, 0xFF, 0xFF, 0xFF, 0xFF,
                                    0xFF, 0xFF, 0xFF, 0xFF}));
        int64_t got[3];
        RPCPopSqlLen(w.rx, &got[0], "s");
        std::memcpy(&got[1], pop_block(w.rx, flags, 2).data(), 16);
        const int64_t e = flags == RPC_SQLLEN_ARRAY ? -1 : 4294967295;
        EXPECT_EQ(std::vector(got, got + 3), (std::vector<int64_t>{INT32_MIN, e, e})) << flags;
    }
}

TEST(Block, BadPayloadsFailInsteadOfOverflowing) {
    Bytes lzo(1 + kCompressOutSize, 'D');  // 'D' and 1000 sevens compressed
    const Bytes sevens(1000, 7);
    lzo.resize(1 + compress_buffer(make_handle(1, 0).get(), sevens.data(), 1000, &lzo[1]));
    const struct { Bytes frame; int32_t wire, code; } cases[] = {
        {{'D', 1, 2, 3, 4, 5, 6, 7, 8, 9}, 9, RPC_DECOMP},  // not LZO data
        {{'D'}, 40000, RPC_DECOMP},  // beyond the decompression area
        {lzo, static_cast<int32_t>(lzo.size() - 1), RPC_TRUNC},  // inflates past 600 bytes
    };
    Bytes dest(600);
    for (const auto &c : cases) {
        WirePair w(1, kCompress);
        w.receive({c.frame});
        EXPECT_EQ(error_of([&] { RPCPopMem(w.rx, c.wire, 600, dest.data(), "m"); }), c.code);
    }
}

// Elements arrive reversed, compressed or not; a sender that reversed the
// caller's own array would fail the comparison. The first array has over
// 65535 elements, beyond a 16-bit counter.
TEST(Block, SwappedArraysTravelAsReversedCopies) {
    std::mt19937 rng(7);
    decltype(&RPCPushDesc) const push[] = {RPCPushInt16Array, RPCPushInt32Array,
                                           RPCPushInt64Array};
    for (int round = 0; round < 12; ++round) {
        const unsigned kind = rng() % 3;
        const unsigned width = 2u << kind;
        const size_t count = round == 0 ? 70000 : rng() % (40000 / width);
        Bytes data(count * width);
        for (auto &b : data) b = static_cast<uint8_t>(rng() % 4);
        WirePair w(1, kCompress | kByteSwap);
        w.rx->flags = kCompress;
        w.send([&](HRPC h) { push[kind](h, "a", desc(data.data(), data.size())); });
        for (size_t i = 0; i < count; ++i) ByteSwap(&data[i * width], width);
        // The headers, read as a peer of the other byte order would see them.
        ByteSwap(w.rx->in_pos, 4);
        if (compresses(w.rx, data.size())) ByteSwap(w.rx->in_pos + 4, 4);
        ASSERT_EQ(pop_block(w.rx, RPC_INT16_ARRAY), data) << "round " << round;
    }
}
