// Float format conversions between piece-wise layout descriptions.
#include <gtest/gtest.h>

#include <array>
#include <initializer_list>

#include "support/flts.h"

namespace {

using namespace zrpc;
using Desc = std::array<int32_t, FLT_DESC_WORDS>;
using Piece = std::array<int, 3>;  // byte, offset, width

Desc describe(int32_t id, int32_t size, int32_t bias, std::initializer_list<Piece> exponent,
              std::initializer_list<Piece> mantissa, Piece sign) {
    Desc d{id, size, bias, static_cast<int32_t>(exponent.size())};
    int w = 4;
    for (const Piece &p : exponent) d[w++] = flt_piece(p[0], p[1], p[2]);
    d[8] = static_cast<int32_t>(mantissa.size());
    w = 9;
    for (const Piece &p : mantissa) d[w++] = flt_piece(p[0], p[1], p[2]);
    d[41] = flt_piece(sign[0], sign[1], sign[2]);
    return d;
}

// Mirrors of this build's layouts with the most significant byte first.
const Desc kBigFloat = describe(20, 4, 127, {{0, 0, 7}, {1, 7, 1}},
                                {{1, 0, 7}, {2, 0, 8}, {3, 0, 8}}, {0, 7, 1});
const Desc kBigDouble = describe(30, 8, 1023, {{0, 0, 7}, {1, 4, 4}},
                                 {{1, 0, 4}, {2, 0, 8}, {3, 0, 8}, {4, 0, 8}, {5, 0, 8},
                                  {6, 0, 8}, {7, 0, 8}},
                                 {0, 7, 1});
// Little-endian single precision with bias 129, and one keeping 16 mantissa bits.
const Desc kBias129 = describe(17, 4, 129, {{3, 0, 7}, {2, 7, 1}},
                               {{2, 0, 7}, {1, 0, 8}, {0, 0, 8}}, {3, 7, 1});
const Desc kShort = describe(21, 4, 127, {{3, 0, 7}, {2, 7, 1}},
                             {{2, 0, 7}, {1, 0, 8}, {0, 0, 1}}, {3, 7, 1});

uint32_t convert32(const int32_t *from, const int32_t *to, uint32_t bits) {
    EXPECT_EQ(float_to_float(from, to, &bits), 0);
    return bits;
}

uint64_t byte_reverse(uint64_t v, int size) {
    uint64_t r = 0;
    for (int i = 0; i < size; ++i) r |= ((v >> (8 * i)) & 0xFF) << (8 * (size - 1 - i));
    return r;
}

TEST(Floats, ThisBuildStoresTheNativeFormUnchanged) {
    for (uint32_t bits : {0x00000000u, 0x80000000u, 0x3F800000u, 0x7FC00001u, 0xFF800000u,
                          0x00000001u, 0xDEADBEEFu}) {
        uint32_t v = bits;
        EXPECT_EQ(float_to_store(&v), 0);
        EXPECT_EQ(v, bits);
        EXPECT_EQ(store_to_float(&v), 0);
        EXPECT_EQ(v, bits);
    }
    for (uint64_t bits : {0x0ull, 0x8000000000000000ull, 0x7FF8000000000001ull,
                          0x0123456789ABCDEFull}) {
        uint64_t v = bits;
        EXPECT_EQ(double_to_store(&v), 0);
        EXPECT_EQ(v, bits);
        EXPECT_EQ(store_to_double(&v), 0);
        EXPECT_EQ(v, bits);
    }
}

// Every piece of the four tables is checked by mirroring into big-endian.
TEST(Floats, TablesPlaceEveryFieldWhereIeeeHasIt) {
    const uint64_t pattern32 = 0xC1234567u, pattern64 = 0x0123456789ABCDEFull;
    struct Case {
        const int32_t *table;
        const int32_t *mirror;
        int size;
        uint64_t bits;
    };
    const Case cases[] = {
        {native_float, kBigFloat.data(), 4, pattern32},
        {stored_float, kBigFloat.data(), 4, pattern32},
        {native_double, kBigDouble.data(), 8, pattern64},
        {stored_double, kBigDouble.data(), 8, pattern64},
    };
    for (const Case &c : cases) {
        uint64_t v = c.bits;
        EXPECT_EQ(float_to_float(c.table, c.mirror, &v), 0);
        EXPECT_EQ(v, byte_reverse(c.bits, c.size)) << std::hex << c.bits;
        EXPECT_EQ(float_to_float(c.mirror, c.table, &v), 0);
        EXPECT_EQ(v, c.bits);
    }
}

TEST(Floats, RebiasSkipsZeroExponentAndCopiesSign) {
    struct Case {
        uint32_t in, out;
    };
    const Case cases[] = {
        {0x3F800000u, 0x40800000u},  // 1.0: exponent 127 -> 129
        {0xBFC00000u, 0xC0C00000u},  // -1.5 keeps its sign
        {0x00000000u, 0x00000000u},  // zero stays zero
        {0x80000000u, 0x80000000u},  // negative zero keeps its sign
        {0x00000001u, 0x00000001u},  // denormal: exponent 0 is not rebiased
        {0x7F800000u, 0x00800000u},  // infinity: 255 + 2 cut to 8 bits
    };
    for (const Case &c : cases) {
        EXPECT_EQ(convert32(native_float, kBias129.data(), c.in), c.out) << std::hex << c.in;
        if (c.in != 0x7F800000u) {
            EXPECT_EQ(convert32(kBias129.data(), native_float, c.out), c.in) << std::hex << c.out;
        }
    }
}

TEST(Floats, ShorterMantissaTruncatesLongerOneZeroFills) {
    EXPECT_EQ(convert32(native_float, kShort.data(), 0x3F800001u), 0x3F800000u);  // 1 + 2^-23
    EXPECT_EQ(convert32(native_float, kShort.data(), 0x3F8000FFu), 0x3F800001u);  // no rounding
    EXPECT_EQ(convert32(native_float, kShort.data(), 0xBF80807Fu), 0xBF808000u);
    EXPECT_EQ(convert32(kShort.data(), native_float, 0x3F800001u), 0x3F800080u);
    EXPECT_EQ(convert32(kShort.data(), native_float, 0x3FFFFF01u), 0x3FFFFF80u);
}

}  // namespace
