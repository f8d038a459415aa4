// Handle lifecycle: allocation, initialisation, termination, release, and the
// small registration and query operations.
#include <cstdlib>
#include <cstddef>
#include <cstring>
#include <new>
#include <type_traits>

#include "session/functable.h"
#include "base/handle.h"
#include "base/log.h"
#include "session/session.h"
#include "marshal/pointer.h"

namespace zrpc {
namespace {

// Handles that hold the driver table; the table is loaded by the first
// initialisation and unloaded when the last handle terminates. Unguarded:
// initialise and terminate handles from one thread at a time.
int32_t NetLoadCalled = 0;

// Every option text, option 4 (which FreeTransport keeps) included.
void free_options(rpc_handle *h) {
    FreeTransport(h);
    std::free(h->lowl_opts[RPC_LOWL_ATTEMPTS - 1]);
    h->lowl_opts[RPC_LOWL_ATTEMPTS - 1] = nullptr;
}

}  // namespace

int32_t net_load_count() { return NetLoadCalled; }

}  // namespace zrpc

using namespace zrpc;

extern "C" {

HRPC RPCAllocHandle(void) {
    // Zero-filled up to the compression areas, which are scratch space that
    // is always written before it is read: zeroing their 200 KB would cost
    // more than everything else a handle does to connect.
    static_assert(std::is_trivially_default_constructible_v<rpc_handle> &&
                  std::is_trivially_destructible_v<rpc_handle>);
    auto *h = static_cast<rpc_handle *>(std::malloc(sizeof(rpc_handle)));
    if (!h) return nullptr;
    std::memset(static_cast<void *>(h), 0, offsetof(rpc_handle, compress_out));
    h->lock = new (std::nothrow) std::mutex;
    if (!h->lock) {
        std::free(h);
        return nullptr;
    }
    h->mode = -1;
    h->frame_limit = kFrameSize;
    h->out_pos = h->out_frame;
    h->in_pos = h->in_frame;
    return h;
}

int32_t RPCFreeHandle(HRPC h) {
    if (h->state != RPC_STATE_ALLOCATED) return refuse(h, RPC_BADSTATE);
    delete h->lock;
    h->lock = nullptr;
    h->last_called = nullptr;
    FreeArgs(h->mode, h->desc_list, h->ordinal_table);
    h->desc_list = nullptr;
    h->ordinal_table = nullptr;
    FreeParameters(h->peer_params);
    h->peer_params = nullptr;
    free_ptr_table(h);
    std::free(h->error_text);
    drop_name_index(h);
    // Option 4 survives RPCTerminate by design; nothing may outlive the handle.
    free_options(h);
    if (h->private_ptr && (h->private_flags & RPC_PRIVATE_FREE)) std::free(h->private_ptr);
    std::free(h);
    return 0;
}

int32_t RPCInitialise(HRPC h, int32_t mode, int32_t server_descriptor) {
    store_error(h, RPC_NOERROR);
    return guarded(h, [&] {
        if (h->state != RPC_STATE_ALLOCATED) fail(RPC_BADSTATE);
        if (mode != RPC_MODE_SERVER && mode != RPC_MODE_CLIENT) fail(RPC_INVMODE);
        h->mode = mode;
        h->server_descriptor = server_descriptor;
        if (NetLoadCalled == 0 && NETLoad() != 0) fail(RPC_NETLOAD);
        ++NetLoadCalled;
        // Always leaves error 28 behind, since the driver table is shorter
        // than the ten slots it probes; the next connection operation clears it.
        GetTransportList(h);
        h->state = RPC_STATE_INITIALISED;
        return 0;
    });
}

int32_t RPCTerminate(HRPC h) {
    return guarded(h, [h] {
        if (h->state != RPC_STATE_INITIALISED && h->state != RPC_STATE_OPTIONS_SET)
            fail(RPC_BADSTATE);
        if (h->state == RPC_STATE_OPTIONS_SET) FreeTransport(h);
        h->state = RPC_STATE_ALLOCATED;
        if (--NetLoadCalled == 0) NETUnload();
        LogClose();
        if (h->terminate_cb) h->terminate_cb(h->terminate_arg);
        return 0;
    });
}

int32_t RPCIsConnected(HRPC h) { return h && h->state == RPC_STATE_CONNECTED ? 1 : 0; }

int32_t RPCEnumerateTransports(HRPC h, int32_t index, const char **name,
                               const char **description) {
    store_error(h, RPC_NOERROR);
    if (h->state < RPC_STATE_INITIALISED) {
        store_error(h, RPC_BADSTATE);
        return 0;  // success with the error set: callers have always relied on it
    }
    if (index < 0 || index >= h->transport_count)
        return refuse(h, RPC_BADARG);
    *name = h->transports[index].name;
    *description = h->transports[index].description;
    return 0;
}

int32_t RPCRegisterTerminateFn(HRPC h, RPCTerminateFn fn, void *arg) {
    if (!h) return 1;
    h->terminate_cb = fn;
    h->terminate_arg = arg;
    return 0;
}

int32_t RPCRegisterPrivatePtr(HRPC h, void *ptr, uint64_t flags) {
    if (!h) return 1;
    h->private_ptr = ptr;
    h->private_flags = flags;
    return 0;
}

void *RPCGetPrivatePtr(HRPC h) { return h ? h->private_ptr : nullptr; }

int32_t RPCSetError(HRPC h, RPCErrorFn fn, void *arg) {
    h->error_cb = fn;
    h->error_cb_arg = arg;
    return 0;
}

int32_t RPCLastRPC(HRPC h, const char **name) {
    if (!h || !h->last_called) return -1;
    if (name) *name = h->last_called->name;
    return h->last_called->ordinal;
}

}  // extern "C"
