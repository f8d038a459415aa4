// Float format conversions between piece-wise layout descriptions.
#include <gtest/gtest.h>

#include <cstring>
#include <tuple>

#include "support/flts.h"

using namespace zrpc;

TEST(Floats, ThisBuildStoresTheNativeFormUnchanged) {
    for (uint64_t bits : {0x8000000000000000ull, 0x7FF8000000000001ull, 0xFFC0123456789ABCull}) {
        uint64_t d = bits;
        uint32_t f = static_cast<uint32_t>(bits >> 32);  // -0.0, NaN, -NaN as floats too
        EXPECT_EQ(float_to_store(&f) + store_to_float(&f), 0);
        EXPECT_EQ(double_to_store(&d) + store_to_double(&d), 0);
        EXPECT_EQ(std::pair(f, d), std::pair(static_cast<uint32_t>(bits >> 32), bits));
    }
}

TEST(Floats, GeneralRoutineBetweenTwoDescriptionsOfOneLayoutIsTheIdentity) {
    // The same layouts under other ids: the conversion cannot take its
    // equal-id shortcut, so every bit goes through the general routine.
    int32_t f_alias[FLT_DESC_WORDS], d_alias[FLT_DESC_WORDS];
    std::memcpy(f_alias, native_float, sizeof f_alias);
    std::memcpy(d_alias, native_double, sizeof d_alias);
    f_alias[0] = 99;
    d_alias[0] = 98;
    for (uint64_t bits : {0x3FF8000000000000ull, 0xC0091EB851EB851Full, 0x8000000000000000ull,
                          0x7FF8000000000001ull, 0xFFEFFFFFFFFFFFFFull, 0x000FFFFFFFFFFFFFull}) {
        uint64_t d = bits;
        EXPECT_EQ(float_to_float(native_double, d_alias, &d), 0);
        EXPECT_EQ(d, bits) << std::hex << bits;
        EXPECT_EQ(float_to_float(d_alias, native_double, &d), 0);
        EXPECT_EQ(d, bits) << std::hex << bits;
        uint32_t f = static_cast<uint32_t>(bits >> 32);
        EXPECT_EQ(float_to_float(native_float, f_alias, &f), 0);
        EXPECT_EQ(f, static_cast<uint32_t>(bits >> 32)) << std::hex << bits;
    }
}

TEST(Floats, ConversionRebiasesCopiesSignAndTruncatesMantissa) {
    // This build's float layout under another id, with bias 129 and 16
    // mantissa bits (word 11, the byte-0 piece, one bit wide).
    int32_t d[FLT_DESC_WORDS];
    std::memcpy(d, native_float, sizeof d);
    d[0] = 17;
    d[2] = 129;
    d[11] = flt_piece(0, 0, 1);
    const std::tuple<const int32_t *, const int32_t *, uint32_t, uint32_t> cases[] = {
        {native_float, d, 0x3F800001u, 0x40800000u},  // 1 + 2^-23: 1, exponent 127 -> 129
        {native_float, d, 0xBF8080FFu, 0xC0808001u},  // cut, not rounded; sign kept
        {native_float, d, 0x80000000u, 0x80000000u},  // negative zero: exponent 0 stays, sign too
        {native_float, d, 0x00400000u, 0x00400000u},  // a denormal's exponent 0 stays as well
        {native_float, d, 0x7F800000u, 0x00800000u},  // infinity: 257 cut to 8 bits
        {d, native_float, 0x40FFFF01u, 0x3FFFFF80u},  // back: the rest is zero-filled
    };
    for (auto [from, to, v, out] : cases) {  // v: a copy, converted in place
        EXPECT_EQ(float_to_float(from, to, &v), 0);
        EXPECT_EQ(v, out) << std::hex << out;
    }
}
