// Stored float formats: descriptions of native and wire float layouts.
#pragma once

#include <cstdint>

#include "zephrpc.h"

namespace zrpc {

// Piece word: byte index | bit offset << 8 | width << 16.
constexpr int32_t flt_piece(int byte, int offset, int width) {
    return byte | (offset << 8) | (width << 16);
}

// mask[w] = 2^w - 1: the value bits of a piece of width w (0 to 8).
extern const uint32_t mask[9];

// REQUIRES of float_to_float: piece widths 0 to 8, value sizes 1 to 16 bytes.
extern const int32_t native_float[FLT_DESC_WORDS];
extern const int32_t stored_float[FLT_DESC_WORDS];
extern const int32_t native_double[FLT_DESC_WORDS];
extern const int32_t stored_double[FLT_DESC_WORDS];

}  // namespace zrpc
