// Scalars: byte, int16, int32, int64, SQLLEN and SQLULEN.
//
// The sender copies the value in its own byte order and reverses it under
// kByteSwap; the receiver copies what it finds. Towards a peer whose SQLLEN is
// 4 bytes (kPeerSqlLen4) lengths are narrowed by saturation and widened back
// on receipt.

#include <algorithm>
#include <cstring>
#include <limits>

#include "base/log.h"
#include "marshal/frame.h"

namespace zrpc {

namespace {

// Writes an already reserved scalar, swapped for a peer of the other order.
template <typename T>
void store_out(HRPC h, T value) {
    uint8_t bytes[sizeof(T)];
    std::memcpy(bytes, &value, sizeof(T));
    if (sizeof(T) > 1 && has_flag(h, kByteSwap)) ByteSwap(bytes, sizeof(T));
    put_out(h, bytes, sizeof(T));
}

template <typename T>
void push_scalar(HRPC h, T value) {
    reserve_out(h, sizeof(T));
    store_out(h, value);
}

template <typename T>
T pop_scalar(HRPC h) {
    T value;
    std::memcpy(&value, take_in(h, sizeof(T)), sizeof(T));
    return value;
}

// Pops a value into dest (when given) and traces what was stored, printed as
// `Printed` so the format's %d or %ld gets the argument type it names.
template <typename T, typename Printed>
void pop_traced(HRPC h, T *dest, const char *name, const char *format) {
    const auto value = pop_scalar<T>(h);
    if (dest == nullptr) return;
    *dest = value;
    if (tracing(h)) LogTrcMsgStr(format, label(name), static_cast<Printed>(*dest));
}

// Saturating narrowing for a 4-byte SQLLEN peer.
int32_t narrow_sqllen(int64_t value) {
    return static_cast<int32_t>(std::clamp<int64_t>(value, std::numeric_limits<int32_t>::min(),
                                                    std::numeric_limits<int32_t>::max()));
}

uint32_t narrow_sqlulen(uint64_t value) {
    return static_cast<uint32_t>(std::min<uint64_t>(value, std::numeric_limits<uint32_t>::max()));
}

}  // namespace

void ByteSwap(void *bytes, int width) {
    if (bytes == nullptr || (width != 2 && width != 4 && width != 8)) return;
    auto *p = static_cast<uint8_t *>(bytes);
    std::reverse(p, p + width);
}

// Byte and int16 trace after the frame test; the wider pushes before it.
void RPCPushByte(HRPC h, int32_t value, const char *name) {
    reserve_out(h, 1);
    if (tracing(h)) LogTrcMsgStr("pushing byte %s : %d\n", label(name), value & 0xFF);
    store_out(h, static_cast<uint8_t>(value));
}

void RPCPushInt16(HRPC h, int32_t value, const char *name) {
    reserve_out(h, 2);
    const auto narrow = static_cast<int16_t>(value);
    if (tracing(h)) LogTrcMsgStr("pushing int16 %s : %d\n", label(name), narrow);
    store_out(h, narrow);
}

void RPCPushInt32(HRPC h, int32_t value, const char *name) {
    if (tracing(h)) LogTrcMsgStr("pushing int32 %s : %d\n", label(name), value);
    push_scalar(h, value);
}

void RPCPushInt64(HRPC h, int64_t value, const char *name) {
    if (tracing(h)) LogTrcMsgStr("pushing int64 %s: %ld\n", label(name), static_cast<long>(value));
    push_scalar(h, value);
}

void RPCPushSqlLen(HRPC h, int64_t value, const char *name) {
    if (tracing(h)) LogTrcMsgStr("pushing sqllen %s: %ld\n", label(name), static_cast<long>(value));
    if (has_flag(h, kPeerSqlLen4)) {
        push_scalar(h, narrow_sqllen(value));
    } else {
        push_scalar(h, value);
    }
}

void RPCPushSqlULen(HRPC h, uint64_t value, const char *name) {
    if (tracing(h)) LogTrcMsgStr("pushing sqlulen %s: %ld\n", label(name), static_cast<long>(value));
    if (has_flag(h, kPeerSqlLen4)) {
        push_scalar(h, narrow_sqlulen(value));
    } else {
        push_scalar(h, value);
    }
}

void RPCPopByte(HRPC h, uint8_t *dest, const char *name) {
    pop_traced<uint8_t, int>(h, dest, name, "popped byte %s %d\n");
}

void RPCPopInt16(HRPC h, int16_t *dest, const char *name) {
    pop_traced<int16_t, int>(h, dest, name, "popped int16 %s %d\n");
}

void RPCPopInt32(HRPC h, int32_t *dest, const char *name) {
    pop_traced<int32_t, int>(h, dest, name, "popped int32 %s %d\n");
}

void RPCPopInt64(HRPC h, int64_t *dest, const char *name) {
    pop_traced<int64_t, long>(h, dest, name, "popped int64 %s %ld\n");
}

namespace {

// SQLLEN and SQLULEN pops differ only in signedness and in the word of their
// 8-byte trace line. From a 4-byte peer the line is written before the
// widened value is stored, so it shows the destination's previous content,
// and always says "sqllen"; existing trace readers expect exactly that.
template <typename Wide, typename Narrow>
void pop_length(HRPC h, Wide *dest, const char *name, const char *wide_format) {
    if (has_flag(h, kPeerSqlLen4)) {
        const auto value = pop_scalar<Narrow>(h);
        if (dest == nullptr) return;
        if (tracing(h)) LogTrcMsgStr("popped sqllen %s %ld\n", label(name), static_cast<long>(*dest));
        *dest = value;  // sign or zero extension, as Narrow is signed or not
        return;
    }
    pop_traced<Wide, long>(h, dest, name, wide_format);
}

}  // namespace

void RPCPopSqlLen(HRPC h, int64_t *dest, const char *name) {
    pop_length<int64_t, int32_t>(h, dest, name, "popped sqllen %s %ld\n");
}

void RPCPopSqlULen(HRPC h, uint64_t *dest, const char *name) {
    pop_length<uint64_t, uint32_t>(h, dest, name, "popped sqlulen %s %ld\n");
}

}  // namespace zrpc
