// Frames and scalars: frame boundaries, byte order, failures, round trips
// across small frames, and the exact value trace lines.
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
    WirePair w(1, 0);
    w.send([&](HRPC h) {
        for (int i = 0; i < 2047; ++i) RPCPushInt32(h, i, "v");
        for (int i = 0; i < 96; ++i) RPCPushByte(h, 0xEE, "b");
        write_buf(h, Bytes(5000, 0x5A).data(), 5000);
    });
    RPCPostFrame(w.tx);
    std::vector<size_t> sizes;
    for (const Bytes &frame : w.tx_link.sent) sizes.push_back(frame.size());
    EXPECT_EQ(sizes, (std::vector<size_t>{4093, 4092, 4096, 1004}));
}

// Refused rather than read past the frame: an int32 a peer split across frames.
TEST(Frame, FailedSendsAndSplitValuesCarryTheirCodes) {
    WirePair w(1, 0);
    w.tx_link.fail_send = true;
    EXPECT_EQ(error_of([&] { w.send([](HRPC) {}); }), RPC_ETRANSPORT);
    w.receive({Bytes{'D', 1, 2, 3}, Bytes{3, 4}});
    EXPECT_EQ(error_of([&] { RPCPopInt32(w.rx, nullptr, "x"); }), RPC_SRTPKT);
}

// Multi-byte integers are swapped for a peer of the other byte order; bytes,
// blocks and raw pointers never are.
TEST(Frame, SenderSwapsForAPeerOfTheOtherByteOrder) {
    void *const raw = reinterpret_cast<void *>(uintptr_t{0x1122334455667788});
    const auto pushes = [&](HRPC h) {
        RPCPushByte(h, 0x1AB, "b");
        RPCPushInt32(h, 0x01020304, "i");
        RPCPushDesc(h, "s", desc("abc", 3));
        RPCPushPtr(h, raw, 0, "p");
    };
    EXPECT_EQ(wire_of(1, kByteSwap, pushes), (Bytes{'D', 0xAB, 1, 2, 3, 4, 0, 0, 0, 3, 'a', 'b', 'c',
                                                    0x88, 0x77, 0x66, 0x55, 0x44, 0x33, 0x22, 0x11}));
}

// Values of every width, as the type each kind pops into, land in the right
// frames of a 1024-byte limit; a null destination still consumes its value.
TEST(Frame, MixedScalarsRoundTripAcrossSmallFrames) {
    const auto each = [](auto &&visit) {  // visit(index, push, pop, value)
        std::mt19937_64 rng(20240601);
        for (int i = 0; i < 3000; ++i) {
            switch (i % 4) {
                case 0: visit(i, RPCPushByte, RPCPopByte, static_cast<uint8_t>(rng())); break;
                case 1: visit(i, RPCPushInt16, RPCPopInt16, static_cast<int16_t>(rng())); break;
                case 2: visit(i, RPCPushInt32, RPCPopInt32, static_cast<int32_t>(rng())); break;
                default: visit(i, RPCPushInt64, RPCPopInt64, static_cast<int64_t>(rng()));
            }
        }
    };
    WirePair w(0, 0);
    w.tx->frame_limit = 1024;  // a server talking to a VMS client
    w.send([&](HRPC h) { each([&](int, auto push, auto, auto value) { push(h, value, "n"); }); });
    for (const Bytes &frame : w.tx_link.sent) EXPECT_LT(frame.size(), 1024u);
    each([&](int i, auto, auto pop, auto value) {
        const bool skip = i % 7 == 3;
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
    WirePair w(0, flags, 4);
    const Bytes big(4200, 'x');
    w.send([&](HRPC h) {
        RPCPushInt16(h, 0xFFFE, "s");
        RPCPushSqlULen(h, 9, "ul");
        RPCPushPtr(h, nullptr, 0, "p");
        RPCPushDesc(h, "m", desc("a\tb", 3));
        RPCPushInt16Array(h, "big", desc(big.data(), 4200));
    });
    struct { int16_t s; uint64_t ul = 12; void *p; } got{};
    RPCPopInt16(w.rx, &got.s, "s");
    RPCPopSqlULen(w.rx, &got.ul, "ul");
    RPCPopPtr(w.rx, &got.p, 0, "p");
    pop_block(w.rx);
    pop_block(w.rx, RPC_INT16_ARRAY);
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
