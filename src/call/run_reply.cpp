// Server dispatch loop: the reply (RPCReturnArgs) and the argument cursor
// that served functions use (__RPCextractarg, __RPCsetarg).
#include <cstdarg>
#include <cstdlib>

#include "call/call.h"
#include "call/dispatch.h"
#include "marshal/block.h"
#include "marshal/frame.h"
#include "marshal/pointer.h"
#include "marshal/variant.h"

namespace zrpc {
namespace {

void push_output(HRPC h, const RPCParam &e) {
    const uint32_t f = e.flags;
    const char *name = e.name;
    if (f & RPC_INT32) {
        RPCPushInt32(h, slot_get<int32_t>(e), name);
    } else if (f & RPC_INT16) {
        RPCPushInt16(h, slot_get<int16_t>(e), name);
    } else if (f & RPC_INT16_ARRAY) {
        RPCPushInt16Array(h, name, e);
    } else if (f & RPC_INT32_ARRAY) {
        RPCPushInt32Array(h, name, e);
    } else if (f & RPC_INT64_ARRAY) {
        RPCPushInt64Array(h, name, e);
    } else if (f & RPC_WVARRAY) {
        RPCPushWVArray(h, f, name, e);
    } else if (f & RPC_PTR) {
        RPCPushPtr(h, e.value, f, name);
    } else if (f & RPC_INT64) {
        RPCPushInt64(h, slot_get<int64_t>(e), name);
    } else if (f & RPC_SQLLEN) {
        RPCPushSqlLen(h, slot_get<int64_t>(e), name);
    } else if (f & RPC_SQLULEN) {
        RPCPushSqlULen(h, slot_get<uint64_t>(e), name);
    } else if (f & RPC_SQLLEN_ARRAY) {
        RPCPushSqlLenArray(h, name, e);
    } else if (f & RPC_SQLULEN_ARRAY) {
        RPCPushSqlULenArray(h, name, e);
    } else {
        RPCPushDesc(h, name, e);
    }
}

bool is_block(uint32_t flags) { return (flags & RPC_BLOCK_MASK) != 0; }

}  // namespace

void release_call_buffers(RPCFuncDesc *fd) {
    const int n = param_count(fd);
    for (int i = 0; i < n; ++i) {
        RPCParam &e = fd->params[i];
        if (!is_block(e.flags)) continue;
        if (e.flags & RPC_WVARRAY) {
            if (e.value != nullptr) free_wvarray(static_cast<RPCVariant *>(e.value), e.length);
        } else {
            std::free(e.value);
        }
        e.value = nullptr;
        e.length = 0;
    }
}

void RPCReturnArgs(HRPC h) {
    if (h->replied) return;
    RPCFuncDesc *fd = h->current_desc;
    RPCStartOFrame(h);
    RPCPushInt16(h, fd->ordinal, "Ordinal");
    const int n = param_count(fd);
    for (int i = 0; i < n; ++i) {
        const RPCParam &e = fd->params[i];
        if (e.flags & RPC_OUT) push_output(h, e);
    }
    RPCPostFrame(h);
    release_call_buffers(fd);
    h->replied = 1;
}

}  // namespace zrpc

using namespace zrpc;

extern "C" ZEPHRPC_API void *__RPCextractarg(RPCParam **cursor) {
    if (cursor == nullptr || *cursor == nullptr) return nullptr;
    RPCParam *e = *cursor;
    void *arg = nullptr;
    if (e->flags & kScalarMask)
        arg = &e->value;
    else if (is_block(e->flags))
        arg = e;
    else
        prescribed_abort("argument cursor past its entries");
    *cursor = e + 1;
    return arg;
}

extern "C" ZEPHRPC_API void __RPCsetarg(RPCParam **cursor, ...) {
    if (cursor == nullptr || *cursor == nullptr) return;
    RPCParam *e = *cursor;
    const uint32_t f = e->flags;
    va_list ap;
    va_start(ap, cursor);
    if (f & RPC_INT32) {
        slot_set(*e, static_cast<int32_t>(va_arg(ap, int)));
    } else if (f & RPC_INT16) {
        slot_set(*e, static_cast<int16_t>(va_arg(ap, int)));
    } else if (is_block(f)) {
        const RPCMemDesc desc = va_arg(ap, RPCMemDesc);
        e->length = desc.length;
        e->value = desc.value;
    } else if (f & RPC_PTR) {
        e->value = va_arg(ap, void *);
    } else if (f & (RPC_INT64 | RPC_SQLLEN | RPC_SQLULEN)) {
        slot_set(*e, va_arg(ap, int64_t));
    } else {
        va_end(ap);
        prescribed_abort("argument cursor on an entry it cannot set");
    }
    va_end(ap);
    *cursor = e + 1;
}
