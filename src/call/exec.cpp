// Client call: RPCExec and its push phase.
//
// One call is one locked round trip: lookup by name, a request message with
// the ordinal and the inputs, then the reply with the outputs. Failures below
// arrive as RpcError and become the handle's (sticky) error code.
#include <atomic>
#include <cstdarg>
#include <mutex>
#include <type_traits>

#include "call/call.h"
#include "base/log.h"
#include "marshal/block.h"
#include "marshal/frame.h"
#include "marshal/pointer.h"
#include "marshal/variant.h"

namespace zrpc {
namespace {

// Value of a scalar argument: the argument itself, or what it points to when
// the parameter is passed by reference. A null reference reads as 0.
template <typename T>
T scalar_arg(uint32_t flags, uint64_t word) {
    if ((flags & RPC_OUT) == 0) {
        if constexpr (std::is_pointer_v<T>)
            return reinterpret_cast<T>(static_cast<uintptr_t>(word));
        else
            return static_cast<T>(word);  // low bits of the argument
    }
    const void *p = reinterpret_cast<const void *>(static_cast<uintptr_t>(word));
    if (p == nullptr) return T{};
    T v;
    std::memcpy(&v, p, sizeof v);
    return v;
}

// The caller's block (or variant-array) record; a null argument reads as an
// empty record.
RPCParam record_arg(uint64_t word) {
    const auto *p = reinterpret_cast<const RPCParam *>(static_cast<uintptr_t>(word));
    return p != nullptr ? *p : RPCParam{};
}

void push_input(HRPC h, const RPCParam &e, uint64_t word) {
    const uint32_t f = e.flags;
    const char *name = e.name;
    if (f & RPC_PTR) {
        RPCPushPtr(h, scalar_arg<void *>(f, word), f, name);
    } else if (f & RPC_INT64) {
        RPCPushInt64(h, scalar_arg<int64_t>(f, word), name);
    } else if (f & RPC_INT32) {
        RPCPushInt32(h, scalar_arg<int32_t>(f, word), name);
    } else if (f & RPC_INT16) {
        RPCPushInt16(h, scalar_arg<int16_t>(f, word), name);  // sign-extended
    } else if (f & RPC_INT16_ARRAY) {
        RPCPushInt16Array(h, name, record_arg(word));
    } else if (f & RPC_INT32_ARRAY) {
        RPCPushInt32Array(h, name, record_arg(word));
    } else if (f & RPC_INT64_ARRAY) {
        RPCPushInt64Array(h, name, record_arg(word));
    } else if (f & RPC_SQLLEN) {
        RPCPushSqlLen(h, scalar_arg<int64_t>(f, word), name);
    } else if (f & RPC_SQLULEN) {
        RPCPushSqlULen(h, scalar_arg<uint64_t>(f, word), name);
    } else if (f & RPC_SQLLEN_ARRAY) {
        RPCPushSqlLenArray(h, name, record_arg(word));
    } else if (f & RPC_SQLULEN_ARRAY) {
        RPCPushSqlULenArray(h, name, record_arg(word));
    } else if (f & RPC_WVARRAY) {
        RPCPushWVArray(h, f, name, record_arg(word));
    } else {
        RPCPushDesc(h, name, record_arg(word));
    }
}

// A parameter the client does not send: scalars put nothing on the wire, a
// variant array travels in its shape form, any other block announces the
// caller's capacity so the server can allocate the output buffer.
void push_shape(HRPC h, RPCParam &e, uint64_t word) {
    const uint32_t f = e.flags;
    if (f & kClientScalarMask) return;
    const RPCParam rec = record_arg(word);
    if (f & RPC_WVARRAY) {
        RPCPushWVArray(h, f, e.name, rec);
        return;
    }
    // The reply phase reads capacity and buffer back from the entry.
    e.length = rec.length;
    e.value = rec.value;
    int32_t capacity = rec.length;
    if (doubled_sqllen_array(h, f)) capacity /= 2;  // 4-byte elements on the wire
    RPCPushInt32(h, capacity, e.name);
}

// Reads one 8-byte argument per entry: a pointer for by-reference scalars
// and blocks, an integer otherwise (narrowed later).
void collect_args(const RPCFuncDesc *fd, va_list ap, CallArgs &args) {
    args.count = param_count(fd);
    for (int i = 0; i < args.count; ++i) {
        const uint32_t f = fd->params[i].flags;
        const bool by_pointer = (f & RPC_OUT) != 0 || (f & kClientScalarMask) == 0;
        if (by_pointer)
            args.word[i] = reinterpret_cast<uintptr_t>(va_arg(ap, void *));
        else
            args.word[i] = static_cast<uint64_t>(va_arg(ap, int64_t));
    }
}

}  // namespace

void push_call(HRPC h, RPCFuncDesc *fd, const CallArgs &args) {
    RPCStartOFrame(h);
    RPCPushInt16(h, fd->ordinal, "Ordinal");
    for (int i = 0; i < args.count; ++i) {
        RPCParam &e = fd->params[i];
        if (e.flags & RPC_IN)
            push_input(h, e, args.word[i]);
        else
            push_shape(h, e, args.word[i]);
    }
    RPCPostFrame(h);
}

}  // namespace zrpc

using namespace zrpc;

extern "C" ZEPHRPC_API int32_t RPCExec(HRPC h, const char *name, ...) {
    if (h == nullptr) return 1;
    // Sticky: a failed call must be cleared (by reconnecting) before the next.
    if (load_error(h) != 0) return 1;

    std::unique_lock<std::mutex> guard(*h->lock);
    // A call that failed while this one waited for the lock counts too.
    if (load_error(h) != 0) return 1;

    va_list ap;
    va_start(ap, name);
    const int32_t result = guarded(h, [&] {
        if (h->state != RPC_STATE_CONNECTED) fail(RPC_BADSTATE);
        hash_item *item = name != nullptr && h->name_index != nullptr
                              ? find_hash_item(name, h->name_index)
                              : nullptr;
        if (item == nullptr || item->data == nullptr) fail(RPC_NONAME);
        auto *fd = static_cast<RPCFuncDesc *>(item->data);
        if (has_flag(h, kTraceCalls)) LogTrcMsgStr("\nCalling function: %s\n", fd->name);
        CallArgs args;
        collect_args(fd, ap, args);
        push_call(h, fd, args);
        pop_reply(h, fd, args);
        return 0;
    });
    va_end(ap);
    if (result == 0) return 0;

    const int32_t code = load_error(h);
    guard.unlock();
    if (h->error_cb != nullptr) h->error_cb(code, h->error_cb_arg);
    // An unknown name leaves the handle usable once the callback has seen it.
    if (code == RPC_NONAME) {
        int32_t expected = RPC_NONAME;
        std::atomic_ref<int32_t>(h->error_code).compare_exchange_strong(expected, 0);
    }
    return 1;
}
