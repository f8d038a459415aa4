// Layer call, the top: the client call (RPCExec) and the server dispatch loop
// (RPCRun). May include every layer below.
//
// Internals shared by the client call (exec*.cpp) and the server dispatch
// loop (run*.cpp): parameter classes and the per-call phases.
#pragma once

#include <climits>
#include <cstdint>
#include <cstdlib>
#include <cstring>

#include "base/handle.h"
#include "marshal/block.h"
#include "marshal/frame.h"

namespace zrpc {

// Types whose value sits in the entry's value word (RPC_HANDLE included).
constexpr uint32_t kScalarMask = RPC_INT16 | RPC_INT32 | RPC_INT64 | RPC_PTR | RPC_HANDLE |
                                 RPC_SQLLEN | RPC_SQLULEN;
// Scalars a client can exchange (RPC_HANDLE never reaches a client table).
constexpr uint32_t kClientScalarMask = kScalarMask & ~RPC_HANDLE;
// Blocks received with RPCPopArray rather than RPCPopMem.
constexpr uint32_t kArrayMask = RPC_INT16_ARRAY | RPC_INT32_ARRAY | RPC_INT64_ARRAY |
                                RPC_SQLLEN_ARRAY | RPC_SQLULEN_ARRAY;
// Arrays whose elements are 4 bytes on the wire towards a 4-byte-SQLLEN peer.
constexpr uint32_t kSqlLenArrayMask = RPC_SQLLEN_ARRAY | RPC_SQLULEN_ARRAY;

// True when this block's local buffer is twice its wire size on this handle.
inline bool doubled_sqllen_array(HRPC h, uint32_t flags) {
    return (flags & kSqlLenArrayMask) != 0 && has_flag(h, kPeerSqlLen4);
}

// Number of parameter entries before the end mark (at most RPC_MAX_PARAMS).
inline int param_count(const RPCFuncDesc *fd) {
    int n = 0;
    while (n < RPC_MAX_PARAMS && fd->params[n].flags != 0) ++n;
    return n;
}

// The value word read or written as a narrower integer: int16 and int32
// values live in its first bytes, which is what __RPCextractarg hands out.
template <typename T>
T slot_get(const RPCParam &e) {
    T v;
    std::memcpy(&v, &e.value, sizeof v);
    return v;
}
template <typename T>
void slot_set(RPCParam &e, T v) {
    e.value = nullptr;
    std::memcpy(&e.value, &v, sizeof v);
}

// A received block's header: its size, then its size on the wire when it
// travels compressed (otherwise the two are equal).
struct BlockSize {
    int32_t size;
    int32_t wire;
};
inline BlockSize pop_block_size(HRPC h, const char *name) {
    BlockSize b{};
    RPCPopInt32(h, &b.size, name);
    b.wire = b.size;
    if (compresses(h, b.size)) RPCPopInt32(h, &b.wire, name);
    return b;
}

// Reads the payload of a block (`wire` bytes on the wire) into `dest`, which
// holds `dest_size` bytes.
inline void pop_payload(HRPC h, const RPCParam &e, int32_t wire, int32_t dest_size, void *dest) {
    if (e.flags & kArrayMask)
        RPCPopArray(h, wire, dest_size, dest, e.flags, e.name);
    else
        RPCPopMem(h, wire, dest_size, dest, e.name);
}

// A block buffer of `bytes` (malloc; freed with free). Fails with RPC_NOMEM
// above INT32_MAX bytes or when memory is short.
inline void *allocate_block(int64_t bytes) {
    void *p = bytes <= INT32_MAX ? std::malloc(static_cast<std::size_t>(bytes)) : nullptr;
    if (p == nullptr) fail(RPC_NOMEM);
    return p;
}

// For buffers the reply sends back whole whether or not they were written:
// zeroed, so no earlier heap contents travel.
inline void *allocate_zeroed_block(int64_t bytes) {
    void *p = bytes <= INT32_MAX ? std::calloc(static_cast<std::size_t>(bytes), 1) : nullptr;
    if (p == nullptr) fail(RPC_NOMEM);
    return p;
}

// One 8-byte variable argument per parameter entry, collected up front so
// the push and the reply phase can both walk them from the first.
struct CallArgs {
    uint64_t word[RPC_MAX_PARAMS];
    int count;
};

// Client: pushes the ordinal and every input (or output shape) and posts.
void push_call(HRPC h, RPCFuncDesc *fd, const CallArgs &args);
// Client: reads the reply and stores every output through its argument.
void pop_reply(HRPC h, RPCFuncDesc *fd, const CallArgs &args);

// Server: frees the buffers a call left in the descriptor's block entries.
void release_call_buffers(RPCFuncDesc *fd);

}  // namespace zrpc
