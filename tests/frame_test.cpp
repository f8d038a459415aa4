// Frames and scalars: frame boundaries, byte order, failures, random round
// trips, and the exact value trace lines.
#include <gtest/gtest.h>

#include <random>
#include <string>

#include "helpers/log_file.h"
#include "helpers/wire_pair.h"
#include "marshal/pointer.h"

using namespace zrpc;
using namespace zrpc::test;

// After 'D' 1023 int32 fill 4093 bytes, in later frames 1023 fill 4092: one
// more would reach 4096. A payload starting at byte 100 fills its frame to
// 4096. Posting an emptied frame sends nothing.
TEST(Frame, ScalarsNeverReachTheLastByteOfAFrameButPayloadsDo) {
    WirePair w(1, 0, 0, 0);
    w.send([&](HRPC h) {
        for (int i = 0; i < 2047; ++i) RPCPushInt32(h, i, "v");
        for (int i = 0; i < 96; ++i) RPCPushByte(h, 0xEE, "b");
        write_buf(h, Bytes(5000, 0x5A).data(), 5000);
    });
    RPCPostFrame(w.tx);
    EXPECT_EQ(w.frame_sizes(), (std::vector<size_t>{4093, 4092, 4096, 1004}));
}

// A failed send or receive, an empty frame, a bad first byte, and a peer that
// split an int32 across frames (refused rather than read past the frame).
TEST(Frame, FailuresCarryTheirCodes) {
    WirePair w(1, 0, 0, 0);
    w.tx_link.fail_send = true;
    EXPECT_EQ(error_of([&] { w.send([](HRPC) {}); }), RPC_ETRANSPORT);
    const std::pair<std::vector<Bytes>, int32_t> cases[] = {
        {{}, RPC_ETRANSPORT}, {{Bytes{}}, RPC_EPKT}, {{Bytes{'E', 1}}, RPC_BADSTR},
        {{Bytes{'D', 1, 2, 3}, Bytes{3, 4}}, RPC_SRTPKT}};
    for (const auto &[frames, code] : cases)
        EXPECT_EQ(error_of([&] { w.receive(frames), RPCPopInt32(w.rx, nullptr, "x"); }), code);
}

// Multi-byte integers are swapped for a peer of the other byte order; bytes,
// blocks and raw pointers never are.
TEST(Frame, SenderSwapsForAPeerOfTheOtherByteOrder) {
    const int32_t i32[3] = {1, 0x01020304, -2};
    const auto pushes = [&](HRPC h) {
        RPCPushByte(h, 0x1AB, "b"), RPCPushInt16(h, 0x1234, "s");
        RPCPushInt32(h, 0x01020304, "i"), RPCPushInt64(h, 0x0102030405060708, "l");
        RPCPushDesc(h, "s", desc("abc", -3)), RPCPushDesc(h, "null", desc(nullptr, -3));
        RPCPushInt32Array(h, "a", desc(i32, 12)), RPCPushPtr(h, (void *)0x1122334455667788, 0, "p");
    };
    EXPECT_EQ(wire_of(1, kByteSwap, pushes),
              (Bytes{'D', 0xAB, 0x12, 0x34, 1, 2, 3, 4, 1, 2, 3, 4, 5, 6, 7, 8, 0, 0, 0, 4, 'a',
                     'b', 'c', 0, 0, 0, 0, 0, 0, 0, 0, 12, 0, 0, 0, 1, 1, 2, 3, 4, 0xFF, 0xFF, 0xFF,
                     0xFE, 0x88, 0x77, 0x66, 0x55, 0x44, 0x33, 0x22, 0x11}));
}

TEST(Frame, RandomScalarsRoundTripAcrossSmallFrames) {
    // Calls visit(index, push, pop, value) for 3000 seeded values, each as the
    // type its kind pops into.
    const auto each = [](auto &&visit) {
        std::mt19937_64 rng(20240601);
        for (int i = 0; i < 3000; ++i) {
            switch (i % 6) {
                case 0: visit(i, RPCPushByte, RPCPopByte, static_cast<uint8_t>(rng())); break;
                case 1: visit(i, RPCPushInt16, RPCPopInt16, static_cast<int16_t>(rng())); break;
                case 2: visit(i, RPCPushInt32, RPCPopInt32, static_cast<int32_t>(rng())); break;
                case 3: visit(i, RPCPushInt64, RPCPopInt64, static_cast<int64_t>(rng())); break;
                case 4: visit(i, RPCPushSqlLen, RPCPopSqlLen, static_cast<int64_t>(rng())); break;
                default: visit(i, RPCPushSqlULen, RPCPopSqlULen, rng());
            }
        }
    };
    WirePair w(0, 0, 1, 0);
    w.tx->frame_limit = 1024;  // a server talking to a VMS client
    w.send([&](HRPC h) { each([&](int, auto push, auto, auto value) { push(h, value, "n"); }); });
    for (size_t size : w.frame_sizes()) EXPECT_LT(size, 1024u);
    each([&](int i, auto, auto pop, auto value) {
        const bool skip = i % 7 == 3;  // a null destination still consumes the value
        decltype(value) got{};
        pop(w.rx, skip ? nullptr : &got, "n");
        EXPECT_EQ(got, skip ? decltype(value){} : value) << "value " << i;
    });
}

// One message through the kinds of trace line, addresses shown as "@". From a
// 4-byte SQLLEN peer a pop traces the destination's old value; an array is
// traced once per frame it is read from.
TEST(Trace, ValueLinesKeepTheirExactFormat) {
    reset_logs();
    const uint64_t flags = kTraceValues | kPeerSqlLen4 | kPeerPtrIndex;
    WirePair w(0, flags, 1, flags, 4);
    const Bytes big(4200, 'x');
    w.send([&](HRPC h) {
        RPCPushInt16(h, 0xFFFE, "s"), RPCPushSqlULen(h, 9, "ul"), RPCPushPtr(h, nullptr, 0, "p");
        RPCPushDesc(h, "m", desc("a\tb", 3)), RPCPushInt16Array(h, "big", desc(big.data(), 4200));
    });
    struct { int16_t s; uint64_t ul = 12; void *p; } got{};
    RPCPopInt16(w.rx, &got.s, "s"), RPCPopSqlULen(w.rx, &got.ul, "ul");
    RPCPopPtr(w.rx, &got.p, 0, "p"), pop_block(w.rx), pop_block(w.rx, RPC_INT16_ARRAY);
    std::string log = read_trace_log();
    for (size_t at = 0; (at = log.find("0x", at)) != std::string::npos;)
        log.replace(at, log.find_first_not_of("0123456789abcdef", at + 2) - at, "@");
    EXPECT_EQ(log, "pushing int16 s : -2\npushing sqlulen ul: 9\npushing pointer p : (nil)\n"
              "pushing descriptor m: len=3, mem=@\nmem: a.b\npushing int32 m : 3\n"
              "pushing int16-array big : elements=2100, mem=@\npushing int32 big : 4200\n"
              "popped int16 s -2\npopped sqllen ul 12\npopped pointer p : (nil)\n"
              "popped int32 n 3\npopped memory n: len=3, ptr=@\nmem: a.b\npopped int32 n 4200\n"
              "popped array n : len=4200 mem=@\npopped array n : len=4200 mem=@\n");
}
