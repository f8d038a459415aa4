// Blocks and typed arrays: headers, compression thresholds, frame filling,
// swapping, 4-byte SQLLEN peers, failures and trace lines.
#include <gtest/gtest.h>

#include <cstring>
#include <random>

#include "helpers/log_file.h"
#include "helpers/wire_pair.h"
#include "marshal/block.h"

using namespace zrpc;
using namespace zrpc::test;
using Bytes = std::vector<uint8_t>;

namespace {

RPCMemDesc desc(const void *data, size_t length) {
    RPCMemDesc d{};
    d.value = const_cast<void *>(data);
    d.length = static_cast<int32_t>(length);
    return d;
}

// Pops a block header and payload the way the call code does.
Bytes pop_block(HRPC rx, uint32_t array_flags = 0, int32_t widen = 1) {
    int32_t length = 0;
    RPCPopInt32(rx, &length, "n");
    int32_t wire = length;
    if (compresses(rx, length)) RPCPopInt32(rx, &wire, "n");
    Bytes out(static_cast<size_t>(std::max(length, 0) * widen));
    const auto size = static_cast<int32_t>(out.size());
    if (array_flags != 0) RPCPopArray(rx, wire, size, out.data(), array_flags, "n");
    else RPCPopMem(rx, wire, length, out.data(), "n");
    return out;
}

}  // namespace

TEST(Block, CompressionAppliesFrom500To32768Bytes) {
    for (int32_t size : {499, 500, 32768, 32769}) {
        Bytes data(static_cast<size_t>(size));
        for (size_t i = 0; i < data.size(); ++i) data[i] = static_cast<uint8_t>(i % 13);
        WirePair w(1, kCompress, 0, kCompress);
        w.send([&](HRPC h) { RPCPushDesc(h, "m", desc(data.data(), data.size())); });
        const Bytes wire = w.bytes();
        int32_t header[2];
        std::memcpy(header, &wire[1], 8);
        EXPECT_EQ(header[0], size);
        const bool packed = size >= 500 && size <= 32768;
        EXPECT_EQ(wire.size(), packed ? 9u + header[1] : 5u + size) << size;
        EXPECT_EQ(pop_block(w.rx.get()), data) << size;
    }
}

TEST(Block, HeadersForStringsSwappedArraysAndFourByteSqlLen) {
    WirePair w(1, kByteSwap, 0, 0);
    const int32_t ints[3] = {1, 0x01020304, -2};
    w.send([&](HRPC h) {
        RPCPushDesc(h, "s", desc("abc", -3));
        RPCPushDesc(h, "null", desc(nullptr, -3));
        RPCPushInt32Array(h, "a", desc(ints, 12));
    });
    EXPECT_EQ(w.bytes(), (Bytes{'D', 0, 0, 0, 4, 'a', 'b', 'c', 0, 0, 0, 0, 0, 0, 0, 0, 12, 0,
                                0, 0, 1, 1, 2, 3, 4, 0xFF, 0xFF, 0xFF, 0xFE}));
    EXPECT_EQ(ints[1], 0x01020304);  // the caller's array is left as it was

    // Towards a 4-byte SQLLEN peer the header says 8 and the payload is the
    // first 8 bytes of the caller's 16-byte array, unconverted.
    WirePair n(1, kPeerSqlLen4, 0, kPeerSqlLen4);
    const int64_t lens[2] = {-1, 5};
    n.send([&](HRPC h) { RPCPushSqlLenArray(h, "l", desc(lens, 16)); });
    EXPECT_EQ(n.bytes(), (Bytes{'D', 8, 0, 0, 0, 0xFF, 0xFF, 0xFF, 0xFF, 0xFF, 0xFF, 0xFF, 0xFF}));
}

TEST(Block, FourByteSqlLenArraysWidenBySignOnlyForPlainSqlLen) {
    for (uint32_t flags : {RPC_SQLLEN_ARRAY, RPC_SQLLEN_ARRAY | RPC_IN, RPC_SQLULEN_ARRAY}) {
        WirePair w(1, 0, 0, kPeerSqlLen4);
        const uint32_t wire[2] = {0xFFFFFFFF, 2};
        w.send([&](HRPC h) { RPCPushInt32Array(h, "w", desc(wire, 8)); });
        const Bytes got = pop_block(w.rx.get(), flags, 2);
        int64_t v[2];
        std::memcpy(v, got.data(), 16);
        EXPECT_EQ(v[0], flags == RPC_SQLLEN_ARRAY ? -1 : 4294967295) << flags;
        EXPECT_EQ(v[1], 2);
    }
}

TEST(Block, PayloadsFillFramesToTheLastByte) {
    WirePair w(1, 0, 0, 0);
    const Bytes data(5000, 0x5A);
    RPCStartOFrame(w.tx.get());
    write_buf(w.tx.get(), data.data(), 99);  // 100 bytes in the frame
    write_buf(w.tx.get(), data.data(), 5000);
    RPCPostFrame(w.tx.get());
    ASSERT_EQ(w.tx_link.sent.size(), 2u);
    EXPECT_EQ(w.tx_link.sent[0].size(), 4096u);
    EXPECT_EQ(w.tx_link.sent[1].size(), 1004u);
}

TEST(Block, BadPayloadsFailInsteadOfOverflowing) {
    struct Case {
        Bytes frame;
        int32_t wire, dest;
        uint64_t flags;
        int32_t code;
    } const cases[] = {
        {{'D', 1, 2, 3, 4, 5, 6, 7, 8, 9}, 9, 600, kCompress, RPC_DECOMP},  // not LZO data
        {{'D'}, 40000, 600, kCompress, RPC_DECOMP},  // beyond the decompression area
        {{'D', 1, 2, 3, 4}, 4, 3, 0, RPC_TRUNC},     // beyond the destination
    };
    for (const auto &c : cases) {
        WirePair w(1, 0, 0, c.flags);
        w.rx_link.incoming = {c.frame};
        RPCStartIFrame(w.rx.get());
        Bytes dest(static_cast<size_t>(c.dest));
        EXPECT_EQ(error_of([&] { RPCPopMem(w.rx.get(), c.wire, c.dest, dest.data(), "m"); }), c.code);
    }
    // Valid LZO data that inflates beyond the destination.
    WirePair w(1, kCompress, 0, kCompress);
    const Bytes data(1000, 7);
    w.send([&](HRPC h) { RPCPushDesc(h, "m", desc(data.data(), 1000)); });
    int32_t header[2];
    for (auto &v : header) RPCPopInt32(w.rx.get(), &v, "n");
    Bytes small(600);
    EXPECT_EQ(error_of([&] { RPCPopArray(w.rx.get(), header[1], 600, small.data(), RPC_INT16_ARRAY, "a"); }),
              RPC_TRUNC);
}

TEST(Block, RandomArraysRoundTripAndSwapAsCopies) {
    std::mt19937 rng(7);
    for (uint64_t flags : {uint64_t{0}, uint64_t{kCompress}, uint64_t{kCompress | kByteSwap}}) {
        for (int round = 0; round < 12; ++round) {
            const int width = 2 << (rng() % 3);  // 2, 4 or 8
            // Round 0: more than 65535 elements, beyond a 16-bit counter.
            const size_t count = round == 0 ? 70000 : rng() % (40000 / width);
            Bytes data(count * width);
            for (auto &b : data) b = static_cast<uint8_t>(rng() % 4);
            const Bytes original = data;
            WirePair w(1, flags, 0, flags & ~uint64_t{kByteSwap});
            w.send([&](HRPC h) {
                auto d = desc(data.data(), data.size());
                width == 2 ? RPCPushInt16Array(h, "a", d)
                : width == 4 ? RPCPushInt32Array(h, "a", d) : RPCPushInt64Array(h, "a", d);
            });
            EXPECT_EQ(data, original);
            if (flags & kByteSwap) {
                // Elements arrive reversed; the headers are read as a peer of
                // the other byte order would see them.
                for (size_t i = 0; i < count; ++i) ByteSwap(&data[i * width], width);
                HRPC rx = w.rx.get();
                ByteSwap(rx->in_pos, 4);
                if (compresses(rx, static_cast<int64_t>(data.size()))) ByteSwap(rx->in_pos + 4, 4);
            }
            ASSERT_EQ(pop_block(w.rx.get(), RPC_INT16_ARRAY), data)
                << "flags " << flags << " width " << width << " count " << count;
        }
    }
}

TEST(Block, TraceLinesKeepTheirExactFormat) {
    reset_logs();
    WirePair w(1, kTraceValues, 0, kTraceValues);
    const Bytes data(4200, 'x');
    w.send([&](HRPC h) {
        RPCPushDesc(h, "m", desc("a\tb", 3));
        RPCPushInt16Array(h, "s", desc(nullptr, 0));
        RPCPushInt32Array(h, "big", desc(data.data(), 4200));
    });
    pop_block(w.rx.get());
    const std::string log = read_trace_log();
    EXPECT_NE(log.find("pushing descriptor m: len=3, mem="), std::string::npos);
    EXPECT_NE(log.find("\nmem: a.b\npushing int32 m : 3\n"), std::string::npos);
    EXPECT_NE(log.find("pushing int16-array s : elements=0, mem=(nil)\n"), std::string::npos);
    EXPECT_NE(log.find("pushing int32-array big: elements=1050, mem="), std::string::npos);
    EXPECT_NE(log.find("popped memory n: len=3, ptr="), std::string::npos);

    // One "popped array" line per frame piece: the 4200 bytes span two frames.
    RPCPopInt32(w.rx.get(), nullptr, "n");  // the empty int16 array
    reset_logs();
    pop_block(w.rx.get(), RPC_INT32_ARRAY);
    const std::string chunks = read_trace_log();
    const std::string line = "popped array n : len=4200 mem=";
    EXPECT_EQ(chunks.find(line), chunks.find("\n") + 1);  // after "popped int32"
    EXPECT_NE(chunks.rfind(line), chunks.find(line));
    reset_logs();
}
