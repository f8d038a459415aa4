// Layer base: the handle record, the error type and its one translation
// into API results, and the logs. Includes support/ and net/ only.
//
// The RPC handle: one per connection, shared by every subsystem.
//
// The handle is a plain record zero-filled at allocation; each subsystem owns
// the group of fields its comment names. Only one thread uses a handle at a
// time (RPCExec holds `lock` for a whole round trip).
#pragma once

#include <cstddef>
#include <atomic>
#include <cstdint>
#include <mutex>

#include <lzo/lzo1x.h>

#include "zephrpc.h"

namespace zrpc {

// Negotiated flag bits, derived from the peer's parameters at connect time.
enum NegFlag : uint64_t {
    kPeerPtrIndex = 0x1,      // peer pointers narrower than 8: send table indices
    kPeerPtrNot8 = 0x2,
    kTraceCalls = 0x4,
    kTraceValues = 0x8,
    kPeerCompresses = 0x10,
    kCompress = 0x20,         // compression in force
    kByteSwap = 0x40,         // sender swaps multi-byte integers
    kPeerChallenge = 0x80,
    kChallenge = 0x100,       // run the challenge handshake
    kPeerSqlLenNot8 = 0x200,
    kPeerSqlLen4 = 0x400,     // SQLLEN/SQLULEN travel as 4 bytes
};

constexpr std::size_t kFrameSize = 4096;         // frame buffers, both directions
constexpr std::size_t kTransportSlots = 10;      // entries of the transport list
constexpr std::size_t kTracingCapacity = 64;     // tracing letters, terminator included
constexpr std::size_t kCompressMax = 32768;      // largest payload that is compressed
constexpr std::size_t kCompressMin = 500;        // smallest payload that is compressed
constexpr std::size_t kCompressOutSize = kCompressMax + kCompressMax / 16 + 64 + 3;
constexpr std::size_t kDecompressInSize = 33299;

// One negotiation parameter received from the peer (list kept newest first).
struct PeerParam {
    int32_t number;
    char *value;
    PeerParam *next;
};

struct TransportName {
    const char *name;
    const char *description;
};

}  // namespace zrpc

struct rpc_handle {
    // --- lifecycle and errors
    int32_t mode;               // 0 server, 1 client, -1 before RPCInitialise
    int32_t error_code;
    char *error_text;           // owned; text reported for code 999 (and 7, 8, 9)
    int32_t state;

    // --- transport selection and options
    int32_t transport_index;
    char *transport_opts[7];    // owned copies, RPCSetTransportOpts
    char *lowl_opts[6];         // owned copies, RPCSetLowLTransportOpts
    int32_t transport_count;
    zrpc::TransportName transports[zrpc::kTransportSlots];  // borrowed from the driver table
    NETContext *context;
    NETConnection *conn;

    // --- frames
    uint32_t frame_limit;       // largest output frame: 4096, or 1024 towards VMS
    uint8_t out_frame[zrpc::kFrameSize];
    uint32_t out_len;
    uint8_t *out_pos;
    uint8_t in_frame[zrpc::kFrameSize];
    int32_t in_remaining;
    uint8_t *in_pos;

    // --- dispatch loop (server)
    RPCFuncDesc *current_desc;
    int32_t replied;

    // --- function tables
    RPCFuncDesc *desc_list;
    RPCFuncDesc **ordinal_table;
    int32_t ordinal_count;      // entries of ordinal_table; ordinals at or above it are refused
    hash_table *name_index;     // client: name -> descriptor

    // --- callbacks and identity
    void *error_cb_arg;
    RPCErrorFn error_cb;
    RPCTerminateFn terminate_cb;
    void *terminate_arg;
    const char *uid;            // borrowed from RPCConnect's caller
    int32_t version1;
    int32_t version2;
    std::mutex *lock;           // held by RPCExec for a whole round trip
    int32_t server_descriptor;

    // --- negotiation
    zrpc::PeerParam *peer_params;
    uint64_t flags;             // NegFlag bits; only ever set
    int32_t peer_ptr_size;
    int32_t peer_sqllen_size;

    // --- pointer marshalling table (server: entries; client: node chunks)
    void *ptr_table;
    int32_t ptr_count;
    int32_t ptr_capacity;

    char byte_order[3];         // the two marker bytes and a terminator
    char tracing[zrpc::kTracingCapacity];
    RPCFuncDesc *last_called;
    void *private_ptr;
    uint64_t private_flags;

    // --- compression areas (no allocation on the hot path)
    // Scratch space, written before it is read: RPCAllocHandle leaves it
    // unzeroed. Keep these last.
    uint8_t compress_out[zrpc::kCompressOutSize];
    uint8_t decompress_in[zrpc::kDecompressInSize];
    alignas(16) uint8_t lzo_work[LZO1X_1_MEM_COMPRESS];
};

namespace zrpc {

// Errors travel one way down and one way back up. Down: anything below a
// public entry point that fails throws RpcError with the code (fail()).
// Up: the entry point runs its body through guarded(), the one place that
// turns a failure into the handle's code and the API's result of 1.
struct RpcError {
    int32_t code;
};

[[noreturn]] inline void fail(int32_t code) { throw RpcError{code}; }

// The few places where the design ends the process instead of failing the
// call (an unknown variant tag, a reply for another array, an argument
// cursor past its entries, an LZO compressor error) all end here. Fuzz
// targets set prescribed_abort_throws, so that these throw PrescribedAbort
// (and the entry points fail the call) and a fuzzer tells them from crashes.
struct PrescribedAbort {
    const char *why;
};
extern bool prescribed_abort_throws;
[[noreturn]] void prescribed_abort(const char *why);

// The handle's error code. Threads that share a handle read it (RPCExec's
// sticky check) while another call stores it: every access is atomic.
inline int32_t load_error(const rpc_handle *h) {
    return std::atomic_ref<int32_t>(const_cast<int32_t &>(h->error_code)).load();
}
inline void store_error(rpc_handle *h, int32_t code) {
    std::atomic_ref<int32_t>(h->error_code).store(code);
}

inline bool has_flag(const rpc_handle *h, uint64_t bit) { return (h->flags & bit) != 0; }

// Runs an entry point's `body` (which returns its own 0/1 result, or throws
// through fail()) and turns an RpcError into the handle's code and a result
// of 1; an allocation failure, or anything unforeseen, becomes RPC_NOMEM.
// No exception ever crosses the C API.
template <class Body>
int32_t guarded(rpc_handle *h, Body &&body) noexcept {
    int32_t code;
    try {
        return body();
    } catch (const RpcError &e) {
        code = e.code;
    } catch (...) {  // std::bad_alloc and anything unforeseen
        code = RPC_NOMEM;
    }
    store_error(h, code);
    return 1;
}

// An entry point's refused precondition: fails through guarded() like any
// other failure.
inline int32_t refuse(rpc_handle *h, int32_t code) noexcept {
    return guarded(h, [code]() -> int32_t { fail(code); });
}

// Replaces the handle's error text with a copy of `text` (null leaves none).
void set_error_text(rpc_handle *h, const char *text);

}  // namespace zrpc
