// The negotiation's information table, and RPCGetInfo.
#include "session/info_table.h"

#include <cstring>

#include "base/handle.h"
#include "base/log.h"
#include "session/session.h"

namespace zrpc {

// The adapters give the exported char * functions the table's signature.
const InfoItem param_list[] = {
    {1, [](HRPC h) -> const char * { return QXRPCGetSystemType(h); }, "\tSystem Type:    %s"},
    {2, [](HRPC h) -> const char * { return QXRPCGetSystemInformation(h); },
     "\tSystem Info:    %s"},
    {3, [](HRPC h) -> const char * { return QXRPCGetProcessorType(h); }, "\tProcessor Type: %s"},
    {4, [](HRPC h) -> const char * { return QXRPCGetPtrSize(h); }, "\tPointer Size:   %s"},
    {5, GetTracing, "\tTracing:        %s"},
    {6, GetEndianess, "\tEndianess:      %s"},
    {7, GetCompression, "\tCompression:    %s"},
    {10, [](HRPC h) -> const char * { return QXRPCGetSqlLenSize(h); }, "\tSQLLEN Size:   %s"},
    {0, nullptr, nullptr},
};

}  // namespace zrpc

extern "C" {

int32_t RPCGetInfo(HRPC h, int32_t item, char *dest, int32_t size) {
    if (h == nullptr) return -1;
    const char *answer = nullptr;
    switch (item) {
    case RPC_INFO_BYTESWAP:
        answer = zrpc::has_flag(h, zrpc::kByteSwap) ? "Y" : "N";
        break;
    case RPC_INFO_NETFAIL:
        answer = (zrpc::load_error(h) == RPC_ETRANSPORT || zrpc::load_error(h) == RPC_BADNEG) ? "Y" : "N";
        break;
    default:
        return -1;
    }
    if (size <= 1 || dest == nullptr) return -1;
    const std::size_t length = std::strlen(answer);
    if (length < static_cast<std::size_t>(size)) {
        std::memcpy(dest, answer, length + 1);
        return 0;
    }
    std::memcpy(dest, answer, static_cast<std::size_t>(size) - 1);
    dest[size - 1] = '\0';
    return 1;
}

}  // extern "C"
