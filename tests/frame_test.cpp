// Frames and scalars: wire bytes, frame boundaries, byte order, 4-byte SQLLEN
// peers, failures and trace lines.
#include <gtest/gtest.h>

#include <random>

#include "helpers/log_file.h"
#include "helpers/wire_pair.h"

using namespace zrpc;
using namespace zrpc::test;
using Bytes = std::vector<uint8_t>;

TEST(Frame, ScalarsNeverReachTheLastByteOfAFrame) {
    for (int bytes : {0, 3}) {  // 4093 + 4 and 4092 + 4 both reach 4096
        WirePair w(1, 0, 0, 0);
        w.send([&](HRPC h) {
            for (int i = 0; i < 1023 - (bytes ? 1 : 0); ++i) RPCPushInt32(h, i, "v");
            for (int i = 0; i < bytes; ++i) RPCPushByte(h, 0xEE, "b");
            RPCPushInt32(h, 0x0A0B0C0D, "last");
        });
        ASSERT_EQ(w.tx_link.sent.size(), 2u);
        EXPECT_EQ(w.tx_link.sent[0].size(), bytes ? 4092u : 4093u);
        EXPECT_EQ(w.tx_link.sent[1], (Bytes{0x0D, 0x0C, 0x0B, 0x0A}));  // no 'D'
    }
}

TEST(Frame, FailuresCarryTheirCodes) {
    WirePair w(1, 0, 0, 0);
    RPCPostFrame(w.tx.get());  // empty frame: nothing sent
    EXPECT_TRUE(w.tx_link.sent.empty());
    w.tx_link.fail_send = true;
    RPCStartOFrame(w.tx.get());
    EXPECT_EQ(error_of([&] { RPCPostFrame(w.tx.get()); }), RPC_ETRANSPORT);

    HRPC rx = w.rx.get();
    EXPECT_EQ(error_of([&] { RPCStartIFrame(rx); }), RPC_ETRANSPORT);  // nothing queued
    Bytes empty;
    empty.reserve(1);  // a non-null buffer for the link's copy of 0 bytes
    w.rx_link.incoming.push_back(std::move(empty));
    EXPECT_EQ(error_of([&] { RPCStartIFrame(rx); }), RPC_EPKT);
    w.rx_link.incoming = {Bytes{'E', 1}};
    EXPECT_EQ(error_of([&] { RPCStartIFrame(rx); }), RPC_BADSTR);
    // A peer that splits a scalar across frames is refused, not over-read.
    w.rx_link.incoming = {Bytes{'D', 1, 2}, Bytes{3, 4}};
    RPCStartIFrame(rx);
    EXPECT_EQ(error_of([&] { RPCPopInt32(rx, nullptr, "x"); }), RPC_SRTPKT);
}

TEST(Frame, SenderSwapsMultiByteValuesOnly) {
    for (uint64_t flags : {uint64_t{0}, uint64_t{kByteSwap}}) {
        WirePair w(1, flags, 0, 0);
        w.send([](HRPC h) {
            RPCPushByte(h, 0x1AB, "b");
            RPCPushInt16(h, 0x1234, "s");
            RPCPushInt32(h, 0x01020304, "i");
            RPCPushInt64(h, 0x0102030405060708, "l");
        });
        const Bytes swapped{'D', 0xAB, 0x12, 0x34, 1, 2, 3, 4, 1, 2, 3, 4, 5, 6, 7, 8};
        const Bytes native{'D', 0xAB, 0x34, 0x12, 4, 3, 2, 1, 8, 7, 6, 5, 4, 3, 2, 1};
        EXPECT_EQ(w.bytes(), flags ? swapped : native);
    }
}

TEST(Frame, SqlLenTowardsAFourBytePeerSaturates) {
    WirePair w(1, kPeerSqlLen4, 0, kPeerSqlLen4);
    w.send([](HRPC h) {
        RPCPushSqlLen(h, 3000000000, "a");
        RPCPushSqlLen(h, -3000000000, "b");
        RPCPushSqlULen(h, 5000000000, "c");
    });
    EXPECT_EQ(w.bytes(), (Bytes{'D', 0xFF, 0xFF, 0xFF, 0x7F, 0, 0, 0, 0x80, 0xFF, 0xFF, 0xFF, 0xFF}));
    int64_t s[2];
    uint64_t u;
    for (auto &v : s) RPCPopSqlLen(w.rx.get(), &v, "s");
    RPCPopSqlULen(w.rx.get(), &u, "u");
    EXPECT_EQ(s[0], INT32_MAX);
    EXPECT_EQ(s[1], INT32_MIN);
    EXPECT_EQ(u, 4294967295u);  // 0xFFFFFFFF widens without sign...
    w.rx_link.incoming = {Bytes{'D', 0xFF, 0xFF, 0xFF, 0xFF}};
    RPCStartIFrame(w.rx.get());
    RPCPopSqlLen(w.rx.get(), &s[0], "s");
    EXPECT_EQ(s[0], -1);  // ...and with it as SQLLEN
}

TEST(Frame, RandomScalarsRoundTripAcrossFrames) {
    std::mt19937_64 rng(20240601);
    std::vector<int64_t> values(3000);
    for (auto &v : values) v = static_cast<int64_t>(rng());
    WirePair w(0, 0, 1, 0);
    w.tx->frame_limit = 1024;  // a server talking to a VMS client
    w.send([&](HRPC h) {
        for (size_t i = 0; i < values.size(); ++i) {
            const auto v = values[i];
            const auto v32 = static_cast<int32_t>(v);
            switch (i % 6) {
                case 0: RPCPushByte(h, v32, "n"); values[i] &= 0xFF; break;
                case 1: RPCPushInt16(h, v32, "n"); values[i] = static_cast<int16_t>(v); break;
                case 2: RPCPushInt32(h, v32, "n"); values[i] = v32; break;
                case 3: RPCPushInt64(h, v, "n"); break;
                case 4: RPCPushSqlLen(h, v, "n"); break;
                default: RPCPushSqlULen(h, static_cast<uint64_t>(v), "n"); break;
            }
        }
    });
    for (const auto &frame : w.tx_link.sent) EXPECT_LT(frame.size(), 1024u);
    HRPC rx = w.rx.get();
    for (size_t i = 0; i < values.size(); ++i) {
        const bool skip = i % 7 == 3;  // a null destination still consumes the value
        uint8_t b = 0;
        int16_t s = 0;
        int32_t l = 0;
        int64_t q = 0;
        switch (i % 6) {
            case 0: RPCPopByte(rx, skip ? nullptr : &b, "n"); q = b; break;
            case 1: RPCPopInt16(rx, skip ? nullptr : &s, "n"); q = s; break;
            case 2: RPCPopInt32(rx, skip ? nullptr : &l, "n"); q = l; break;
            case 3: RPCPopInt64(rx, skip ? nullptr : &q, "n"); break;
            case 4: RPCPopSqlLen(rx, skip ? nullptr : &q, "n"); break;
            default: RPCPopSqlULen(rx, skip ? nullptr : reinterpret_cast<uint64_t *>(&q), "n");
        }
        if (!skip) {
            ASSERT_EQ(q, values[i]) << "value " << i;
        }
    }
}

TEST(Frame, TraceLinesKeepTheirExactFormat) {
    reset_logs();
    WirePair w(1, kTraceValues | kPeerSqlLen4, 0, kTraceValues | kPeerSqlLen4);
    w.send([](HRPC h) {
        RPCPushByte(h, 200, "b");
        RPCPushInt16(h, 0xFFFE, "s");
        RPCPushInt32(h, -7, "i");
        RPCPushInt64(h, int64_t{1} << 40, "l");
        RPCPushSqlLen(h, 3000000000, "sl");
        RPCPushSqlULen(h, 9, "ul");
    });
    uint8_t b;
    int16_t s;
    int32_t i;
    int64_t l, sl = 11;
    uint64_t ul = 12;  // a 4-byte peer's pops trace these old values
    RPCPopByte(w.rx.get(), &b, "b");
    RPCPopInt16(w.rx.get(), &s, "s");
    RPCPopInt32(w.rx.get(), &i, "i");
    RPCPopInt64(w.rx.get(), &l, "l");
    RPCPopSqlLen(w.rx.get(), &sl, "sl");
    RPCPopSqlULen(w.rx.get(), &ul, "ul");
    EXPECT_EQ(read_trace_log(),
              "pushing byte b : 200\npushing int16 s : -2\npushing int32 i : -7\n"
              "pushing int64 l: 1099511627776\npushing sqllen sl: 3000000000\n"
              "pushing sqlulen ul: 9\npopped byte b 200\npopped int16 s -2\npopped int32 i -7\n"
              "popped int64 l 1099511627776\npopped sqllen sl 11\npopped sqllen ul 12\n");
    EXPECT_EQ(ul, 9u);
    reset_logs();
}
