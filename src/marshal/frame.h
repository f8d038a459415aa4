// Layer marshal: frames, scalars, blocks, arrays, variants, pointers and
// compression. Includes base/, support/ and net/.
//
// Frames and scalar values.
//
// A message is one or more frames, each one NETSend/NETReceive unit; the first
// frame starts with 'D'. Scalars never straddle frames. The sender writes in
// the reader's byte order (swapping under kByteSwap); the receiver never swaps.
// Every failure throws RpcError (7 transport, 15 empty packet, 16 bad start).
#pragma once

#include <cstdint>

#include "base/handle.h"

namespace zrpc {

constexpr uint8_t kStartByte = 0x44;  // 'D'

void RPCStartOFrame(HRPC h);
void RPCPostFrame(HRPC h);
void RPCGetFrame(HRPC h);
void RPCStartIFrame(HRPC h);

void RPCPushByte(HRPC h, int32_t value, const char *name);
void RPCPushInt16(HRPC h, int32_t value, const char *name);
void RPCPushInt32(HRPC h, int32_t value, const char *name);
void RPCPushInt64(HRPC h, int64_t value, const char *name);
void RPCPushSqlLen(HRPC h, int64_t value, const char *name);
void RPCPushSqlULen(HRPC h, uint64_t value, const char *name);

// A null destination consumes the value without storing or tracing it.
void RPCPopByte(HRPC h, uint8_t *dest, const char *name);
void RPCPopInt16(HRPC h, int16_t *dest, const char *name);
void RPCPopInt32(HRPC h, int32_t *dest, const char *name);
void RPCPopInt64(HRPC h, int64_t *dest, const char *name);
void RPCPopSqlLen(HRPC h, int64_t *dest, const char *name);
void RPCPopSqlULen(HRPC h, uint64_t *dest, const char *name);

// Reverses 2, 4 or 8 bytes in place; other widths and null do nothing.
void ByteSwap(void *bytes, int width);

// --- frame access shared by the marshalling files

// Bytes an output frame may hold: the handle's limit, kept within the buffer
// (and above the widest scalar, so an unset limit cannot stall a writer).
uint32_t frame_capacity(const rpc_handle *h);
// Posts the output frame when `n` more bytes would reach the capacity: the
// greater-or-equal test that keeps scalars from straddling frames.
void reserve_out(HRPC h, uint32_t n);
// Appends `n` bytes at the write position. REQUIRES: reserve_out(h, n) first.
void put_out(HRPC h, const void *bytes, uint32_t n);
// Makes `n` unread bytes available (fetching the next frame when fewer than
// `n` remain) and consumes them; returns their address in the input frame.
// Fails with 17 when a freshly fetched frame is shorter than `n`.
const uint8_t *take_in(HRPC h, uint32_t n);

// True when pushed and popped values are traced.
inline bool tracing(const rpc_handle *h) { return has_flag(h, kTraceValues); }

// A parameter name as trace lines print it (names may be null on a server).
inline const char *label(const char *name) { return name != nullptr ? name : "(null)"; }

}  // namespace zrpc
