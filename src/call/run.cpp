// Server dispatch loop: RPCRun.
//
// Each request names a function by ordinal; its arguments are unmarshalled
// into the descriptor's own parameter entries (the slots), the function is
// called with a pointer to the first entry, and RPCReturnArgs replies. The
// loop ends only on failure, always returning 1 with the code in the handle.
#include <climits>
#include <cstdlib>

#include "call/call.h"
#include "call/dispatch.h"
#include "base/log.h"
#include "marshal/block.h"
#include "marshal/frame.h"
#include "marshal/pointer.h"
#include "marshal/variant.h"

namespace zrpc {
namespace {

void pop_variants(HRPC h, RPCParam &e) {
    RPCVariant *elements = nullptr;
    int32_t count = 0;
    RPCPopWVArray(h, &elements, &count, e.flags, e.name);
    e.value = elements;
    e.length = count;
}

// An input block: size, compressed size when compressed, payload. The buffer
// is owned by the entry from the moment it exists, so a failure part-way
// still finds it for release.
void pop_input_block(HRPC h, RPCParam &e) {
    const auto [size, wire] = pop_block_size(h, e.name);
    e.length = size;
    if (size < 1) {
        e.value = nullptr;
        return;
    }
    // SQLLEN arrays from a 4-byte peer are widened into twice the wire size;
    // `length` keeps the size received.
    const int64_t bytes = doubled_sqllen_array(h, e.flags) ? 2 * int64_t{size} : size;
    e.value = allocate_block(bytes);
    pop_payload(h, e, wire, static_cast<int32_t>(bytes), e.value);
}

// An output-only block: the client announced its capacity; the function gets
// a buffer of that size (in local bytes) to fill.
void pop_capacity(HRPC h, RPCParam &e) {
    int32_t capacity = 0;
    RPCPopInt32(h, &capacity, e.name);
    e.length = capacity;
    if (capacity < 1) return;  // no buffer; the value word stays as it was
    int64_t bytes = capacity;
    if (doubled_sqllen_array(h, e.flags)) {
        bytes = 2 * int64_t{capacity};
        if (bytes > INT32_MAX) fail(RPC_NOMEM);
        e.length = static_cast<int32_t>(bytes);
    }
    e.value = allocate_zeroed_block(bytes);
}

// Pops one scalar and keeps it in the entry's value word.
template <typename T>
void pop_into_slot(HRPC h, RPCParam &e, void (*pop)(HRPC, T *, const char *)) {
    T value = 0;
    pop(h, &value, e.name);
    slot_set(e, value);
}

void pop_argument(HRPC h, RPCParam &e) {
    const uint32_t f = e.flags;
    if ((f & RPC_IN) == 0) {
        if (f & RPC_WVARRAY)
            pop_variants(h, e);  // sent even when output-only
        else if ((f & kScalarMask) == 0)
            pop_capacity(h, e);
        return;
    }
    if (f & RPC_HANDLE) {
        e.value = h;
    } else if (f & RPC_PTR) {
        RPCPopPtr(h, &e.value, f, e.name);
    } else if (f & RPC_INT32) {
        pop_into_slot<int32_t>(h, e, RPCPopInt32);
    } else if (f & RPC_INT16) {
        pop_into_slot<int16_t>(h, e, RPCPopInt16);
    } else if (f & RPC_WVARRAY) {
        pop_variants(h, e);
    } else if (f & RPC_INT64) {
        pop_into_slot<int64_t>(h, e, RPCPopInt64);
    } else if (f & RPC_SQLLEN) {
        RPCPopSqlLen(h, reinterpret_cast<int64_t *>(&e.value), e.name);
    } else if (f & RPC_SQLULEN) {
        RPCPopSqlULen(h, reinterpret_cast<uint64_t *>(&e.value), e.name);
    } else {
        pop_input_block(h, e);
    }
}

// Waits for a request and unmarshals it; `fd` is set as soon as the function
// is known so that a failure can release what was allocated so far.
void receive_call(HRPC h, RPCFuncDesc *&fd) {
    RPCStartIFrame(h);
    int16_t ordinal = -1;
    RPCPopInt16(h, &ordinal, "Ordinal");
    // The ordinal comes from the peer: anything outside the table is refused.
    if (h->ordinal_table == nullptr || ordinal < 0 || ordinal >= h->ordinal_count)
        fail(RPC_BADFUNC);
    RPCFuncDesc *found = h->ordinal_table[ordinal];
    if (found == nullptr || found->entry == nullptr) fail(RPC_BADFUNC);
    if (has_flag(h, kTraceCalls)) LogTrcMsgStr("Function called: %s\n", found->name);
    h->last_called = found;
    fd = found;
    const int n = param_count(found);
    for (int i = 0; i < n; ++i) pop_argument(h, found->params[i]);
}

}  // namespace
}  // namespace zrpc

using namespace zrpc;

extern "C" ZEPHRPC_API int32_t RPCRun(HRPC h) {
    if (h == nullptr) return 1;
    if (h->state != RPC_STATE_CONNECTED) return refuse(h, RPC_BADSTATE);
    // Serves calls until one fails; that failure is the result.
    return guarded(h, [h]() -> int32_t {
        for (;;) {
            RPCFuncDesc *fd = nullptr;
            try {
                receive_call(h, fd);
                h->current_desc = fd;
                h->replied = 0;
                (void)fd->entry(&fd->params[0]);  // its result is not used
                RPCReturnArgs(h);
            } catch (...) {
                // Do not leave this call's buffers behind in the slots
                // (releasing is idempotent: a slot already released holds null).
                if (fd != nullptr) release_call_buffers(fd);
                throw;
            }
        }
    });
}
