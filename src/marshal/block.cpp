// Memory blocks and typed arrays: length header, optional compressed length,
// then a payload that fills frames to their last byte.

#include "marshal/block.h"

#include <algorithm>
#include <cstring>
#include <memory>
#include <vector>

#include "base/log.h"
#include "marshal/frame.h"

namespace zrpc {

namespace {

constexpr uint32_t kSignedSqlLenArray = RPC_SQLLEN_ARRAY;
constexpr uint32_t kSqlLenArrays = RPC_SQLLEN_ARRAY | RPC_SQLULEN_ARRAY;

// Byte length of a descriptor's payload. -3 marks a NUL-terminated string
// (0 when the buffer is null). A null buffer has no bytes to send: a length
// of 1 or more becomes 0, a length below 1 goes as it is.
int32_t payload_length(const RPCMemDesc &desc, bool string_marker) {
    if (desc.value == nullptr) {
        return desc.length < 1 && !(string_marker && desc.length == -3) ? desc.length : 0;
    }
    if (string_marker && desc.length == -3) {
        return static_cast<int32_t>(std::strlen(static_cast<const char *>(desc.value)) + 1);
    }
    return desc.length;
}

// L, then C when the payload is compressed, then the payload itself.
void send_bulk(HRPC h, const char *name, const void *bytes, int32_t length) {
    const void *source = bytes;
    int32_t wire = length;
    const bool packed = compresses(h, length);
    if (packed) {
        // 0 (LZO unusable) sends no payload; the reader then fails with 25.
        wire = static_cast<int32_t>(compress_buffer(h, bytes, static_cast<uint32_t>(length),
                                                    h->compress_out));
        if (wire != 0) source = h->compress_out;
    }
    RPCPushInt32(h, length, name);
    if (packed) RPCPushInt32(h, wire, name);
    write_buf(h, source, wire);
}

// Sends an array, swapping a private copy for a peer of the other order.
void send_array(HRPC h, const char *name, const RPCMemDesc &desc, int32_t length, int width) {
    std::vector<uint8_t> swapped;
    const void *source = desc.value;
    if (has_flag(h, kByteSwap) && source != nullptr && length >= 1) {
        const auto *first = static_cast<const uint8_t *>(source);
        swapped.assign(first, first + length);
        // Full-width counter: arrays of any element count are swapped.
        const std::size_t elements = static_cast<std::size_t>(length) / width;
        for (std::size_t i = 0; i < elements; ++i) ByteSwap(&swapped[i * width], width);
        source = swapped.data();
    }
    send_bulk(h, name, source, length);
}

// SQLLEN/SQLULEN arrays towards a 4-byte peer: the header carries the 4-byte
// wire length W = L / 2, but the payload is the first W bytes of the caller's
// array as it stands, unnarrowed; peers in the field expect exactly these
// bytes. Fewer than one whole element sends the header alone.
void send_narrowed(HRPC h, const char *name, const RPCMemDesc &desc, int32_t length) {
    const int32_t wire = length / 2;
    if ((length >> 3) < 1) {
        RPCPushInt32(h, wire, name);
        return;
    }
    send_bulk(h, name, desc.value, wire);
}

// Copies `count` payload bytes out of successive frames into dest (null
// discards them), calling on_chunk after each piece taken from a frame. A new
// frame is fetched only once the current one is used up.
template <typename OnChunk>
void read_bulk(HRPC h, uint8_t *dest, int64_t count, OnChunk on_chunk) {
    while (count > 0) {
        if (h->in_remaining <= 0) RPCGetFrame(h);
        const auto n = static_cast<int32_t>(std::min<int64_t>(h->in_remaining, count));
        if (dest != nullptr) {
            std::memcpy(dest, h->in_pos, static_cast<std::size_t>(n));
            dest += n;
        }
        h->in_pos += n;
        h->in_remaining -= n;
        count -= n;
        on_chunk();
    }
}

// Reads a C-byte payload into target (capacity bytes), inflating it when it
// travels compressed. Returns the bytes stored.
template <typename OnChunk>
int32_t read_payload(HRPC h, bool packed, int32_t wire, uint8_t *target, int32_t capacity,
                     OnChunk on_chunk) {
    if (packed) {
        if (wire < 0 || static_cast<uint32_t>(wire) > kDecompressInSize) fail(RPC_DECOMP);
        read_bulk(h, h->decompress_in, wire, on_chunk);
        if (target == nullptr) return 0;
        return static_cast<int32_t>(decompress_buffer(h, static_cast<uint32_t>(wire), target,
                                                      static_cast<uint32_t>(capacity)));
    }
    if (wire > capacity) fail(RPC_TRUNC);
    read_bulk(h, target, wire, on_chunk);
    return wire;
}

}  // namespace

void write_buf(HRPC h, const void *bytes, int64_t count) {
    const auto *source = static_cast<const uint8_t *>(bytes);
    const uint32_t capacity = frame_capacity(h);
    while (count > 0) {
        if (h->out_len >= capacity) RPCPostFrame(h);
        const auto n = static_cast<uint32_t>(std::min<int64_t>(capacity - h->out_len, count));
        put_out(h, source, n);
        source += n;
        count -= n;
    }
}

void RPCPushDesc(HRPC h, const char *name, RPCMemDesc desc) {
    const int32_t length = payload_length(desc, true);
    if (tracing(h)) {
        LogTrcMsgStr("pushing descriptor %s: len=%d, mem=%p\n", label(name), length, desc.value);
        trace_mem(desc.value, length);
    }
    send_bulk(h, name, desc.value, length);
}

namespace {

// The integer arrays differ only in element width and in the spacing of their
// trace line, which readers of existing traces rely on.
void push_int_array(HRPC h, const char *name, const RPCMemDesc &desc, const char *trace_format,
                    int32_t width) {
    const int32_t length = payload_length(desc, false);
    if (tracing(h)) LogTrcMsgStr(trace_format, label(name), length / width, desc.value);
    send_array(h, name, desc, length, width);
}

}  // namespace

void RPCPushInt16Array(HRPC h, const char *name, RPCMemDesc desc) {
    push_int_array(h, name, desc, "pushing int16-array %s : elements=%d, mem=%p\n", 2);
}

void RPCPushInt32Array(HRPC h, const char *name, RPCMemDesc desc) {
    push_int_array(h, name, desc, "pushing int32-array %s: elements=%d, mem=%p\n", 4);
}

void RPCPushInt64Array(HRPC h, const char *name, RPCMemDesc desc) {
    push_int_array(h, name, desc, "pushing int64-array %s: elements=%d, mem=%p\n", 8);
}

namespace {

// SQLLEN and SQLULEN arrays differ only in their trace word.
void push_length_array(HRPC h, const char *name, const RPCMemDesc &desc,
                       const char *trace_format) {
    const int32_t length = payload_length(desc, false);
    const bool narrow = has_flag(h, kPeerSqlLen4);
    if (tracing(h)) {
        LogTrcMsgStr(trace_format, label(name), narrow ? length >> 3 : length / 8, desc.value);
    }
    if (narrow) {
        send_narrowed(h, name, desc, length);
    } else {
        send_array(h, name, desc, length, 8);
    }
}

}  // namespace

void RPCPushSqlLenArray(HRPC h, const char *name, RPCMemDesc desc) {
    push_length_array(h, name, desc, "pushing sqllen-array %s: elements=%d, mem=%p\n");
}

void RPCPushSqlULenArray(HRPC h, const char *name, RPCMemDesc desc) {
    push_length_array(h, name, desc, "pushing sqlulen-array %s: elements=%d, mem=%p\n");
}

void RPCPopMem(HRPC h, int32_t wire_length, int32_t length, void *dest, const char *name) {
    auto *target = static_cast<uint8_t *>(dest);
    const int32_t stored =
        read_payload(h, compresses(h, length), wire_length, target, length, [] {});
    if (tracing(h)) {
        LogTrcMsgStr("popped memory %s: len=%d, ptr=%p\n", label(name), stored, dest);
        trace_mem(dest, stored);
    }
}

void RPCPopArray(HRPC h, int32_t wire_length, int32_t dest_length, void *dest,
                 uint32_t type_flags, const char *name) {
    if (dest == nullptr || wire_length < 1) return;
    // One trace line per piece copied out of a frame.
    auto on_chunk = [&] {
        if (tracing(h)) {
            LogTrcMsgStr("popped array %s : len=%d mem=%p\n", label(name), wire_length, dest);
        }
    };
    const bool widen = (type_flags & kSqlLenArrays) != 0 && has_flag(h, kPeerSqlLen4);
    if (!widen) {
        read_payload(h, compresses(h, dest_length), wire_length, static_cast<uint8_t *>(dest),
                     dest_length, on_chunk);
        return;
    }
    // 4-byte elements from the wire, widened into the 8-byte destination:
    // signed only for a plain SQLLEN array (flags exactly RPC_SQLLEN_ARRAY).
    // The work buffer is written only by the payload as it arrives (never
    // filled ahead of it), so a large announced length costs nothing until
    // the bytes are really there.
    const int32_t narrow_length = std::max(dest_length, 0) / 2;
    std::unique_ptr<uint8_t[]> work(new uint8_t[static_cast<std::size_t>(narrow_length) + 1]);
    const int32_t stored = read_payload(h, compresses(h, narrow_length), wire_length, work.get(),
                                        narrow_length, on_chunk);
    const bool is_signed = type_flags == kSignedSqlLenArray;
    auto *out = static_cast<uint8_t *>(dest);
    for (std::size_t i = 0; i < static_cast<std::size_t>(std::max(stored, 0)) / 4; ++i) {
        uint32_t narrow;
        std::memcpy(&narrow, &work[i * 4], 4);
        const uint64_t wide = is_signed ? static_cast<uint64_t>(static_cast<int64_t>(
                                              static_cast<int32_t>(narrow)))
                                        : narrow;
        std::memcpy(out + i * 8, &wide, 8);
    }
}

}  // namespace zrpc
