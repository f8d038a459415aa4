// Float layouts described piece by piece, and one routine converting between
// any two descriptions.
#include "support/flts.h"

#include <cstring>

namespace zrpc {

const uint32_t mask[9] = {0, 1, 3, 7, 15, 31, 63, 127, 255};

namespace {

// Description words.
constexpr int kId = 0, kSize = 1, kBias = 2, kExpCount = 3, kExpFirst = 4, kMantCount = 8,
              kMantFirst = 9, kSign = 41;
constexpr int32_t kMaxValueSize = 16;  // largest value the work copy holds

constexpr int32_t P(int byte, int offset, int width) { return flt_piece(byte, offset, width); }

uint32_t piece_byte(int32_t p) { return static_cast<uint32_t>(p) & 0xFF; }
uint32_t piece_offset(int32_t p) { return (static_cast<uint32_t>(p) >> 8) & 0x1F; }
uint32_t piece_width(int32_t p) { return (static_cast<uint32_t>(p) >> 16) & 0xFF; }

uint32_t get_field(const uint8_t *bytes, int32_t p) {
    return (static_cast<uint32_t>(bytes[piece_byte(p)]) >> piece_offset(p)) & mask[piece_width(p)];
}

// Copies the source mantissa into the destination pieces as one bit stream,
// most significant bit first; low source bits that do not fit are dropped
// (truncation). Bits that fill a destination piece go to its bottom: nonzero
// destination offsets are honoured only for a piece's last, partial fill.
void copy_mantissa(const int32_t *src, const int32_t *dst, const uint8_t *work, uint8_t *out) {
    const int32_t dst_count = dst[kMantCount];
    if (dst_count <= 0) return;
    int32_t d = 0;
    uint32_t room = piece_width(dst[kMantFirst]);
    for (int32_t s = 0; s < src[kMantCount]; ++s) {
        const int32_t sp = src[kMantFirst + s];
        const uint32_t bits = get_field(work, sp);
        uint32_t left = piece_width(sp);
        while (left > 0) {
            if (room == 0) {
                if (++d >= dst_count) return;
                room = piece_width(dst[kMantFirst + d]);
            }
            const int32_t dp = dst[kMantFirst + d];
            if (left >= room) {
                out[piece_byte(dp)] |= static_cast<uint8_t>((bits >> (left - room)) & mask[room]);
                left -= room;
                room = 0;
            } else {
                room -= left;
                out[piece_byte(dp)] |=
                    static_cast<uint8_t>((bits & mask[left]) << (piece_offset(dp) + room));
                left = 0;
            }
        }
    }
}

}  // namespace

// IEEE 754 single and double precision, least significant byte first. Words:
// id, size, bias, exponent count, 4 exponent pieces, mantissa count, 31
// mantissa pieces, an unused word, sign piece.
const int32_t native_float[FLT_DESC_WORDS] = {
    16, 4, 127, 2, P(3, 0, 7), P(2, 7, 1), 0, 0,
    3, P(2, 0, 7), P(1, 0, 8), P(0, 0, 8),
    0, 0, 0, 0, 0, 0, 0, 0, 0, 0, 0, 0, 0, 0, 0, 0, 0, 0, 0, 0, 0, 0, 0, 0, 0, 0, 0, 0, 0,
    P(3, 7, 1)};
// The wire form of a float; never change it.
const int32_t stored_float[FLT_DESC_WORDS] = {
    16, 4, 127, 2, P(3, 0, 7), P(2, 7, 1), 0, 0,
    3, P(2, 0, 7), P(1, 0, 8), P(0, 0, 8),
    0, 0, 0, 0, 0, 0, 0, 0, 0, 0, 0, 0, 0, 0, 0, 0, 0, 0, 0, 0, 0, 0, 0, 0, 0, 0, 0, 0, 0,
    P(3, 7, 1)};
const int32_t native_double[FLT_DESC_WORDS] = {
    4, 8, 1023, 2, P(7, 0, 7), P(6, 4, 4), 0, 0,
    7, P(6, 0, 4), P(5, 0, 8), P(4, 0, 8), P(3, 0, 8), P(2, 0, 8), P(1, 0, 8), P(0, 0, 8),
    0, 0, 0, 0, 0, 0, 0, 0, 0, 0, 0, 0, 0, 0, 0, 0, 0, 0, 0, 0, 0, 0, 0, 0, 0,
    P(7, 7, 1)};
// The wire form of a double; never change it.
const int32_t stored_double[FLT_DESC_WORDS] = {
    4, 8, 1023, 2, P(7, 0, 7), P(6, 4, 4), 0, 0,
    7, P(6, 0, 4), P(5, 0, 8), P(4, 0, 8), P(3, 0, 8), P(2, 0, 8), P(1, 0, 8), P(0, 0, 8),
    0, 0, 0, 0, 0, 0, 0, 0, 0, 0, 0, 0, 0, 0, 0, 0, 0, 0, 0, 0, 0, 0, 0, 0, 0,
    P(7, 7, 1)};

}  // namespace zrpc

extern "C" {

int32_t float_to_float(const int32_t *source, const int32_t *destination, void *value) {
    using namespace zrpc;
    if (source[kId] == destination[kId]) return 0;
    const int32_t src_size = source[kSize], dst_size = destination[kSize];
    if (src_size < 1 || src_size > kMaxValueSize || dst_size < 1 || dst_size > kMaxValueSize)
        return 0;  // not a layout this routine can hold: leave the value alone
    auto *out = static_cast<uint8_t *>(value);
    uint8_t work[kMaxValueSize];
    std::memcpy(work, out, static_cast<std::size_t>(src_size));
    std::memset(out, 0, static_cast<std::size_t>(dst_size));

    const uint32_t sign = get_field(work, source[kSign]);

    uint32_t exponent = 0;
    for (int32_t i = 0; i < source[kExpCount]; ++i) {
        const int32_t p = source[kExpFirst + i];
        if (i > 0) exponent <<= piece_width(p);
        exponent += get_field(work, p);
    }
    // Zero (and denormals) keep exponent 0; everything else, infinities and
    // NaNs included, is rebiased and cut to the destination's width below.
    if (exponent != 0)
        exponent = exponent - static_cast<uint32_t>(source[kBias]) +
                   static_cast<uint32_t>(destination[kBias]);
    for (int32_t i = destination[kExpCount] - 1; i >= 0; --i) {
        const int32_t p = destination[kExpFirst + i];
        out[piece_byte(p)] += static_cast<uint8_t>((exponent & mask[piece_width(p)])
                                                   << piece_offset(p));
        exponent >>= piece_width(p);
    }

    const int32_t sp = destination[kSign];
    out[piece_byte(sp)] += static_cast<uint8_t>(sign << piece_offset(sp));

    copy_mantissa(source, destination, work, out);
    return 0;
}

int32_t float_to_store(void *value) {
    return float_to_float(zrpc::native_float, zrpc::stored_float, value);
}
int32_t store_to_float(void *value) {
    return float_to_float(zrpc::stored_float, zrpc::native_float, value);
}
int32_t double_to_store(void *value) {
    return float_to_float(zrpc::native_double, zrpc::stored_double, value);
}
int32_t store_to_double(void *value) {
    return float_to_float(zrpc::stored_double, zrpc::native_double, value);
}

}  // extern "C"
