// Transport options, connect and disconnect: the handle's states 2 to 4.
#include <cstdarg>
#include <cstdlib>
#include <cstring>

#include "session/functable.h"
#include "base/handle.h"
#include "session/session.h"

namespace zrpc {
namespace {

// Replaces an owned option text with a copy of `text` (null stores none).
void replace_option(char *&slot, const char *text) {
    std::free(slot);
    slot = text ? strdup(text) : nullptr;
}

// The text a driver object holds, or null when it is empty.
const char *non_empty(const char *text) { return text && *text ? text : nullptr; }

// After a failed negotiation keep what the transport said, if anything: the
// net connection's text first, else the transport context's.
void keep_transport_text(rpc_handle *h) {
    const char *text = nullptr;
    if (h->conn) NETError(nullptr, h->conn, &text);
    if (!non_empty(text) && h->context) NETError(h->context, nullptr, &text);
    if (non_empty(text)) set_error_text(h, text);
}

// Ends the net connection and its context; false when the transport
// context would not terminate cleanly. Keeps the function table.
bool disconnect(HRPC h) {
    NETDisconnect(h->conn);
    h->conn = nullptr;
    const uint32_t terminated = NETTerminate(h->context);
    h->context = nullptr;
    drop_name_index(h);
    h->state = RPC_STATE_OPTIONS_SET;
    return terminated == 0;
}

// Opens the transport context and the net connection; throws with the
// driver's text kept as the error text.
void open_connection(HRPC h, int32_t version1, int32_t version2, const char *uid) {
    NETContext *context = nullptr;
    if (NETInitialise(h->transport_index, &context) != 0) {
        if (!context) fail(RPC_NOMEM);
        const char *text = nullptr;
        NETError(context, nullptr, &text);
        set_error_text(h, text);
        NETTerminate(context);  // the text is copied; nothing else needs it
        fail(RPC_ETEXT);
    }

    h->context = context;
    h->conn = nullptr;
    h->state = RPC_STATE_CONNECTING;
    h->version1 = version1;
    h->version2 = version2;
    h->uid = uid;

    char *slots[NET_OPTION_SLOTS];
    build_option_vector(h, slots);
    const bool client = h->mode == RPC_MODE_CLIENT;
    if (NETConnect(h->context, client ? 0 : 1, slots, client ? 0 : h->server_descriptor,
                   &h->conn) != 0) {
        if (h->conn) {
            const char *text = nullptr;
            NETError(nullptr, h->conn, &text);
            set_error_text(h, text);
        }
        disconnect(h);
        // Always 9: its text is the driver's, kept above as the error text.
        fail(RPC_ECONNECT);
    }
}

}  // namespace

void GetTransportList(HRPC h) {
    h->transport_count = 0;
    for (int32_t i = 0; i < static_cast<int32_t>(kTransportSlots); ++i) {
        const char *name = nullptr;
        const char *description = nullptr;
        if (NETTransportName(i, &name, &description) != 0) {
            store_error(h, h->transport_count != 0 ? RPC_NOTRNAME : RPC_NOTSP);
            return;
        }
        h->transports[h->transport_count++] = TransportName{name, description};
    }
}

void FreeLowLTransport(HRPC h) {
    if (!h) return;
    // Option 4 (connect attempts) is deliberately kept: only a later
    // RPCSetLowLTransportOpts with identifier 4 replaces it.
    for (int index : {0, 1, 2, 4, 5}) {
        std::free(h->lowl_opts[index]);
        h->lowl_opts[index] = nullptr;
    }
}

void FreeTransport(HRPC h) {
    for (char *&opt : h->transport_opts) {
        std::free(opt);
        opt = nullptr;
    }
    FreeLowLTransport(h);
}

void build_option_vector(HRPC h, char *slots[NET_OPTION_SLOTS]) {
    char *const *t = h->transport_opts;
    char *const *l = h->lowl_opts;
    const bool client = h->mode == RPC_MODE_CLIENT;
    // A server only listens: host and the client-only texts stay out.
    slots[0] = client ? t[0] : nullptr;
    slots[1] = t[1];
    slots[2] = client ? t[2] : nullptr;
    slots[3] = client ? t[3] : nullptr;
    slots[4] = client ? t[4] : nullptr;
    slots[5] = t[5];
    slots[6] = l[0];
    slots[7] = l[1];
    slots[8] = l[2];
    slots[9] = l[3];
    slots[10] = t[6];
    slots[11] = l[4];
    slots[12] = l[5];
    slots[13] = nullptr;
}

}  // namespace zrpc

using namespace zrpc;

extern "C" {

int32_t RPCSetTransportOpts(HRPC h, int32_t transport, const char *opt1, const char *opt2,
                            const char *opt3, const char *opt4, const char *opt5,
                            const char *opt6, const char *opt7) {
    store_error(h, RPC_NOERROR);
    return guarded(h, [&] {
        if (h->state != RPC_STATE_INITIALISED && h->state != RPC_STATE_OPTIONS_SET)
            fail(RPC_BADSTATE);
        // Discards the earlier options first, so a bad index below leaves a
        // handle in state 2 with none at all.
        if (h->state == RPC_STATE_OPTIONS_SET) FreeTransport(h);
        if (transport < 0 || transport >= h->transport_count) fail(RPC_BADTRAN);

        h->transport_index = transport;
        const char *texts[7] = {opt1, opt2, opt3, opt4, opt5, opt6, opt7};
        // Every slot is replaced, so nothing left by an earlier failed call
        // survives into these options.
        for (int i = 0; i < 7; ++i) {
            replace_option(h->transport_opts[i], texts[i]);
            if (texts[i] && !h->transport_opts[i]) fail(RPC_NOMEM);
        }
        h->state = RPC_STATE_OPTIONS_SET;
        return 0;
    });
}

int32_t RPCSetLowLTransportOpts(HRPC h, uint32_t count, ...) {
    if (h->state != RPC_STATE_OPTIONS_SET) return refuse(h, RPC_BADSTATE);
    va_list args;
    va_start(args, count);
    // `count` counts identifiers. An unknown identifier is skipped without
    // consuming a text, so the argument after it is read as an identifier.
    for (uint32_t i = 0; i < count; ++i) {
        int32_t id = va_arg(args, int32_t);
        if (id < RPC_LOWL_RCVLOWAT || id > RPC_LOWL_SNDTIMEO) continue;
        replace_option(h->lowl_opts[id - 1], va_arg(args, const char *));
    }
    va_end(args);
    return 0;
}

int32_t RPCDisconnect(HRPC h) {
    return guarded(h, [h] {
        if (h->state < RPC_STATE_OPTIONS_SET || h->state > RPC_STATE_CONNECTED) fail(RPC_BADSTATE);
        if (!disconnect(h)) fail(RPC_ETRANSPORT);
        return 0;
    });
}

int32_t RPCConnect(HRPC h, int32_t version1, int32_t version2, const char *uid) {
    store_error(h, RPC_NOERROR);
    return guarded(h, [&] {
        if (h->state != RPC_STATE_OPTIONS_SET) fail(RPC_BADSTATE);
        open_connection(h, version1, version2, uid);
        bool negotiated = false;
        try {
            RpcNegotiate(h);
            negotiated = true;
            if (has_flag(h, kChallenge)) issue_challenge(h);
        } catch (...) {
            if (!negotiated) keep_transport_text(h);
            disconnect(h);  // the failure's code stands, not the disconnect's
            throw;
        }
        h->state = RPC_STATE_CONNECTED;
        return 0;
    });
}

}  // extern "C"
