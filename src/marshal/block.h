// Memory blocks, strings and typed arrays: an int32 length L, an int32
// compressed length C when compression is in force and 500 <= L <= 32768,
// then the payload spread over as many frames as it needs.
#pragma once

#include <cstdint>

#include "base/handle.h"

namespace zrpc {

// True when a payload of `length` bytes travels compressed on this handle.
bool compresses(HRPC h, int64_t length);

void RPCPushDesc(HRPC h, const char *name, RPCMemDesc desc);
void RPCPushInt16Array(HRPC h, const char *name, RPCMemDesc desc);
void RPCPushInt32Array(HRPC h, const char *name, RPCMemDesc desc);
void RPCPushInt64Array(HRPC h, const char *name, RPCMemDesc desc);
void RPCPushSqlLenArray(HRPC h, const char *name, RPCMemDesc desc);
void RPCPushSqlULenArray(HRPC h, const char *name, RPCMemDesc desc);

// REQUIRES: dest holds at least `length` bytes. Fails with 25 when the
// payload does not decompress and with 18 when it would exceed `length`.
void RPCPopMem(HRPC h, int32_t wire_length, int32_t length, void *dest, const char *name);
// dest_length is the destination's size (twice the wire length for SQLLEN
// and SQLULEN arrays from a 4-byte peer, which are widened into it).
void RPCPopArray(HRPC h, int32_t wire_length, int32_t dest_length, void *dest,
                 uint32_t type_flags, const char *name);

void write_buf(HRPC h, const void *bytes, int64_t count);
// Returns the compressed length, or 0 when LZO cannot be initialised.
uint32_t compress_buffer(HRPC h, const void *bytes, uint32_t length, void *output);
// Decompresses the first `length` bytes of the handle's decompression area
// into dest and returns the result's length. Fails with 18 when the result
// would exceed dest_len, with 25 when the bytes do not decompress to at least
// one byte.
uint32_t decompress_buffer(HRPC h, uint32_t length, void *dest, uint32_t dest_len);

}  // namespace zrpc
