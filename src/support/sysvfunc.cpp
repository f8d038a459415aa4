// Texts that describe this side to the peer, and RPCGetInfo.
#include "support/sysvfunc.h"

#include <sys/utsname.h>

#include <cstdint>
#include <cstdio>
#include <cstring>

#include "core/handle.h"
#include "core/log.h"
#include "core/session.h"

namespace zrpc {

UnameFn uname_fn = ::uname;

namespace {

// Process-wide and unguarded; each holds 50 characters and the spare byte that
// copy() may write a terminator into. QXRPCGetPtrSize and QXRPCGetSqlLenSize
// share `pointersize`, so each overwrites the other's text.
char systemtype[kInfoTextSize + 1];
char systeminfo[kInfoTextSize + 1];
char processortype[kInfoTextSize + 1];
char pointersize[kInfoTextSize + 1];

constexpr const char *kUndetermined = "undetermined";

// Fills `buffer` from one field of uname, or "undetermined" when it fails.
using UnameField = decltype(&utsname::sysname);  // every field is the same array type

char *uname_text(char *buffer, UnameField field) {
    struct utsname names {};
    copy(buffer, uname_fn(&names) == 0 ? names.*field : kUndetermined, kInfoTextSize);
    return buffer;
}

}  // namespace

void copy(char *dest, const char *source, std::size_t size) {
    std::memset(dest, 0, size);
    const std::size_t length = std::strlen(source);
    if (length > size)
        std::memcpy(dest, source, size - 1);
    else
        std::memcpy(dest, source, length + 1);  // the zero may land at dest[size]
}

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

char *QXRPCGetSystemType(HRPC) { return zrpc::uname_text(zrpc::systemtype, &utsname::sysname); }

char *QXRPCGetSystemInformation(HRPC) {
    return zrpc::uname_text(zrpc::systeminfo, &utsname::release);
}

char *QXRPCGetProcessorType(HRPC) {
    return zrpc::uname_text(zrpc::processortype, &utsname::machine);
}

char *QXRPCGetPtrSize(HRPC) {
    std::snprintf(zrpc::pointersize, sizeof zrpc::pointersize, "%d",
                  static_cast<int>(sizeof(void *)));
    return zrpc::pointersize;
}

char *QXRPCGetSqlLenSize(HRPC) {
    // SQLLEN is 64 bits wide in this build.
    std::snprintf(zrpc::pointersize, sizeof zrpc::pointersize, "%d",
                  static_cast<int>(sizeof(int64_t)));
    return zrpc::pointersize;
}

int32_t RPCGetInfo(HRPC h, int32_t item, char *dest, int32_t size) {
    if (h == nullptr) return -1;
    const char *answer = nullptr;
    switch (item) {
    case RPC_INFO_BYTESWAP:
        answer = zrpc::has_flag(h, zrpc::kByteSwap) ? "Y" : "N";
        break;
    case RPC_INFO_NETFAIL:
        answer = (h->error_code == RPC_ETRANSPORT || h->error_code == RPC_BADNEG) ? "Y" : "N";
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
