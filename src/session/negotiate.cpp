// Negotiation: magic, version and parameter texts, then the function table.
//
// Every message is text sent as one transport packet with its terminating
// zero counted in the packet length, and received into a 256-byte area.
#include <algorithm>
#include <cstdio>
#include <cstdlib>
#include <cstring>

#include "session/functable.h"
#include "base/handle.h"
#include "session/session.h"
#include "session/info_table.h"

namespace zrpc {
namespace {

constexpr std::size_t kParamBufferMax = kNegotiationArea - 1;  // characters before the zero
constexpr uint32_t kMagicPacket = 9;                             // "87FA9694" and its zero
constexpr uint16_t kByteOrderMarker = 0x1199;

using Area = char[kNegotiationArea];

// Concatenates "%02d:%s^" for every item of the information table. False
// when a text is missing or too long, or the buffer would pass 255 chars.
bool build_parameters(HRPC h, Area out) {
    std::size_t used = 0;
    out[0] = '\0';
    for (const InfoItem *item = param_list; item->number != 0; ++item) {
        const char *text = item->function(h);
        if (!text || strnlen(text, kNegotiationArea) >= kNegotiationArea) return false;
        char part[kNegotiationArea + 16];
        int n = std::snprintf(part, sizeof part, "%02d:%s^", item->number, text);
        if (n < 0 || used + static_cast<std::size_t>(n) > kParamBufferMax) return false;
        std::memcpy(out + used, part, static_cast<std::size_t>(n) + 1);
        used += static_cast<std::size_t>(n);
    }
    return true;
}

bool send_text(HRPC h, const char *text) {
    return NETSend(h->conn, text, static_cast<uint32_t>(std::strlen(text) + 1)) == 0;
}

// Receives one packet into `area`; false on a transport failure.
bool receive(HRPC h, Area area, uint32_t *length) {
    return NETReceive(h->conn, area, kNegotiationArea, length) == 0;
}

// Length of the received bytes that actually sit in the area (a driver may
// report a longer packet than it delivered).
int32_t held(uint32_t length) {
    return static_cast<int32_t>(std::min<uint32_t>(length, kNegotiationArea));
}

// Ends a received text inside its area so string functions stop there.
void terminate(Area area, uint32_t length) {
    if (length < kNegotiationArea) area[length] = '\0';
}

void negotiate_server(HRPC h, const char *params, const char *version, Area param_area) {
    if (NETSend(h->conn, kMagic, kMagicPacket) != 0 || !send_text(h, version) ||
        !send_text(h, params))
        fail(RPC_ETRANSPORT);
    uint32_t length = 0;
    if (!receive(h, param_area, &length)) fail(RPC_ETRANSPORT);
    terminate(param_area, length);
    UnpackParameters(h, param_area, held(length));
    ExportFunc(h);
}

// "v1:v2:uid" from the server must match this handle's identity exactly.
void check_version(HRPC h, Area version_area, uint32_t length) {
    if (length == 0) fail(RPC_BADVER);
    char *cursor = version_area;
    const char *last = version_area + length - 1;
    const char *first = rpcstrtok(&cursor, ':', last);
    if (!first || std::atoi(first) != h->version1) fail(RPC_BADVER);
    const char *second = rpcstrtok(&cursor, ':', last);
    if (!second || std::atoi(second) != h->version2) fail(RPC_BADVER);
    const char *uid = h->uid ? h->uid : "";
    if (std::strcmp(cursor, uid) != 0) fail(RPC_BADUID);
}

void negotiate_client(HRPC h, const char *params, Area version_area, Area param_area) {
    Area magic{};
    uint32_t length = 0;
    if (!receive(h, magic, &length)) fail(RPC_ETRANSPORT);
    terminate(magic, length);
    if (length != kMagicPacket || std::strcmp(magic, kMagic) != 0)
        fail(RPC_BADMGK);

    uint32_t version_length = 0;
    if (!receive(h, version_area, &version_length)) fail(RPC_ETRANSPORT);
    if (version_length >= kNegotiationArea) fail(RPC_VERSION_TOO_BIG);
    terminate(version_area, version_length);

    if (!receive(h, param_area, &length)) fail(RPC_ETRANSPORT);
    if (length >= kNegotiationArea) fail(RPC_PARAMS_TOO_BIG);
    terminate(param_area, length);
    UnpackParameters(h, param_area, held(length));

    // The server learns our parameters even when we reject its version.
    if (!send_text(h, params)) fail(RPC_ETRANSPORT);
    check_version(h, version_area, version_length);
    ImportFunc(h);
}

}  // namespace

void RpcNegotiate(HRPC h) {
    Area params;
    if (!build_parameters(h, params)) fail(RPC_NOMEM);
    Area version;
    std::snprintf(version, sizeof version, "%d:%d:%s", h->version1, h->version2,
                  h->uid ? h->uid : "");

    // Both areas are dumped into the error log on a missing parameter; a
    // server receives no version text, so its area stays cleared.
    Area param_area{};
    Area version_area{};
    if (h->mode == RPC_MODE_SERVER)
        negotiate_server(h, params, version, param_area);
    else
        negotiate_client(h, params, version_area, param_area);
    apply_peer_parameters(h, param_area, version_area);
}

const char *GetEndianess(HRPC h) {
    std::memcpy(h->byte_order, &kByteOrderMarker, 2);
    h->byte_order[2] = '\0';
    return h->byte_order;
}

const char *GetCompression(HRPC) { return "1"; }

// This side never asks for the challenge; it runs only against a peer and a
// build that both do.
const char *GetChallenge(HRPC) { return "0"; }

}  // namespace zrpc
