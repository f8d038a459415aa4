// Error codes and their texts.
#include <cstdlib>
#include <cstring>

#include "base/handle.h"

namespace zrpc {
namespace {

struct ErrorRow {
    int64_t code;
    const char *message;  // null: the text comes from the transport
};

// Texts are kept exactly as users have always seen them, spelling included;
// the order matters only for the search.
constexpr ErrorRow rpc_errmap[] = {
    {0, "RPC-NOERROR No error currently active"},
    {1, "RPC-INVMODE Mode argument invalid"},
    {2, "RPC-BADSTATE Function called out of sequence"},
    {3, "RPC-NOMEM Memory allocation failed"},
    {4, "RPC-NOTSP No transport found"},
    {5, "RPC-BADARG Invalid argument"},
    {6, "RPC-BADTRAN Invalid transport"},
    {7, nullptr},
    {8, nullptr},
    {9, nullptr},
    {10, "RPC-BADNEG Negotiation fails"},
    {11, "RPC-BADMGK Bad magic number"},
    {12, "RPC-FUNCFAIL Function fails"},
    {13, "RPC-NONAME Function name not in dispatch table"},
    {14, "RPC-BADFUNC Function is invalid"},
    {15, "RPC-EPKT Empty packet received"},
    {16, "RPC-BADSTR Bad start packet received"},
    {17, "RPC-SRTPKT Short packet received"},
    {18, "RPC-TRUNC Data would be lost"},
    {19, "RPC-BADUID, Bad uid - incompatible client and server versions"},
    {20, "RPC-BADVER, Bad Version"},
    {21, "RPC-INTERR, Internal Error"},
    {22, "RPC-INVPARAM, Invalid Parameter"},
    {23, "RPC-MISSPARAM, Missing Parameter"},
    {24, "RPC-TBLFULL, Pointer lookup table full"},
    {25, "RPC-DECOMP, Decompression error"},
    {26, "RPC-HMARSHAL, Handle marshalling error"},
    {27, "RPC-NETLOAD, Failed to load network drivers"},
    {28, "RPC-NOTRNAME, No transport anme located"},
    {29, "RPC-NETINITFAIL, Failed to initialise network layer"},
    {30, "RPC-DUPEXPFN, Duplicate function exported"},
    {999, nullptr},
    {31, "RPC_BADWINSOCK, Failed to initialise Winsock 2"},
    {32, "RPC_BADWINSOCKVER, Unsuitable Winsock version"},
    {33, "RPC_BAD_CHALLENGELEN, Bad challenge length"},
    {34, "RPC_BAD_CHALLENGE, Incorrect challenge response"},
    {35, "RPC_VERSION_TOO_BIG, RPC version string too long"},
    {36, "RPC_PARAMS_TOO_BIG, RPC parameter string too long"},
    {-1, nullptr},
};

constexpr const char *kNoMessage = "RPC-NOMSG, No message available";

// Codes without a row text report what the transport said.
const char *transport_text(const rpc_handle *h) {
    if (h->error_text) return h->error_text;
    const char *text = nullptr;
    if (h->conn)
        NETError(nullptr, h->conn, &text);
    else
        NETError(h->context, nullptr, &text);
    return text;
}

}  // namespace

void set_error_text(rpc_handle *h, const char *text) {
    std::free(h->error_text);
    h->error_text = text ? strdup(text) : nullptr;
}

}  // namespace zrpc

namespace zrpc {

bool prescribed_abort_throws = false;

void prescribed_abort(const char *why) {
    if (prescribed_abort_throws) throw PrescribedAbort{why};
    std::abort();
}

}  // namespace zrpc

extern "C" int32_t RPCReportError(HRPC h, const char **message) {
    using namespace zrpc;
    for (const ErrorRow *row = rpc_errmap; row->code != -1; ++row) {
        if (row->code != static_cast<int64_t>(load_error(h))) continue;
        *message = row->message ? row->message : transport_text(h);
        return load_error(h);
    }
    *message = kNoMessage;
    return load_error(h);
}
