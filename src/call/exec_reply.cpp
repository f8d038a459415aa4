// Client call: the reply phase of RPCExec.
//
// Walks the descriptor again and pops every RPC_OUT parameter into the
// caller's variables. Blocks land in the caller's buffer when it has one of
// sufficient size, or in a buffer allocated here (malloc; the caller frees).
#include <cstdlib>
#include <memory>

#include "call/call.h"
#include "marshal/block.h"
#include "marshal/frame.h"
#include "marshal/pointer.h"
#include "marshal/variant.h"

namespace zrpc {
namespace {

struct FreeDeleter {
    void operator()(void *p) const { std::free(p); }
};

template <typename T>
T *out_arg(uint64_t word) {
    return reinterpret_cast<T *>(static_cast<uintptr_t>(word));
}

// One output block. `e` is the descriptor's entry: for an output-only block
// the push phase stored the caller's capacity and buffer in it; for an in-out
// block it holds the imported length (normally 0, so a buffer is allocated).
void pop_block(HRPC h, const RPCParam &e, RPCParam *caller) {
    RPCParam work = e;
    const auto [size, wire] = pop_block_size(h, e.name);

    if (size < 1) {  // a null or empty block: only its size comes back
        work.length = size;
        if (caller != nullptr) *caller = work;
        return;
    }

    const bool doubled = doubled_sqllen_array(h, e.flags);
    const int32_t capacity = work.length;
    std::unique_ptr<void, FreeDeleter> fresh;
    if (capacity == 0 || (capacity > 0 && work.value == nullptr)) {
        // No buffer from the caller: allocate one, widened for 4-byte SQLLEN
        // elements, and report its full size.
        const int64_t bytes = doubled ? 2 * int64_t{size} : size;
        fresh.reset(allocate_block(bytes));
        pop_payload(h, e, wire, static_cast<int32_t>(bytes), fresh.get());
        work.length = static_cast<int32_t>(bytes);
        work.value = fresh.get();
    } else {
        if (capacity < size) fail(RPC_TRUNC);
        int32_t dest_size = size;
        if (doubled) {
            if (int64_t{capacity} < 2 * int64_t{size}) fail(RPC_TRUNC);
            dest_size = 2 * size;
        }
        pop_payload(h, e, wire, dest_size, work.value);
        work.length = size;  // the wire size, also for widened SQLLEN arrays
    }
    if (caller != nullptr) {
        *caller = work;
        (void)fresh.release();  // now the caller's to free
    }
}

void pop_output(HRPC h, const RPCParam &e, uint64_t word) {
    const uint32_t f = e.flags;
    const char *name = e.name;
    if (f & RPC_PTR) {
        RPCPopPtr(h, out_arg<void *>(word), f, name);
    } else if (f & RPC_INT64) {
        RPCPopInt64(h, out_arg<int64_t>(word), name);
    } else if (f & RPC_INT32) {
        RPCPopInt32(h, out_arg<int32_t>(word), name);
    } else if (f & RPC_INT16) {
        RPCPopInt16(h, out_arg<int16_t>(word), name);
    } else if (f & RPC_SQLLEN) {
        RPCPopSqlLen(h, out_arg<int64_t>(word), name);
    } else if (f & RPC_SQLULEN) {
        RPCPopSqlULen(h, out_arg<uint64_t>(word), name);
    } else if (f & RPC_WVARRAY) {
        // Elements land in the caller's own records; the record is not rewritten.
        const RPCParam *rec = out_arg<RPCParam>(word);
        auto *elements = rec != nullptr ? static_cast<RPCVariant *>(rec->value) : nullptr;
        int32_t count = rec != nullptr ? rec->length : 0;
        RPCPopWVArray(h, &elements, &count, f, name);
    } else {
        pop_block(h, e, out_arg<RPCParam>(word));
    }
}

}  // namespace

void pop_reply(HRPC h, RPCFuncDesc *fd, const CallArgs &args) {
    RPCStartIFrame(h);
    int16_t ordinal = 0;
    RPCPopInt16(h, &ordinal, "Ordinal");  // not compared with the one sent
    for (int i = 0; i < args.count; ++i) {
        const RPCParam &e = fd->params[i];
        if (e.flags & RPC_OUT) pop_output(h, e, args.word[i]);
    }
}

}  // namespace zrpc
