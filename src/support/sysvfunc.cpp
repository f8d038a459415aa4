// Texts that describe this machine to the peer.
#include "support/sysvfunc.h"

#include <sys/utsname.h>

#include <cstdint>
#include <cstdio>
#include <cstring>


namespace zrpc {

UnameFn uname_fn = ::uname;

namespace {

// One set per thread: every negotiation rewrites them, and handles connect
// from several threads at once. Each holds 50 characters and the spare byte
// that copy() may write a terminator into. QXRPCGetPtrSize and
// QXRPCGetSqlLenSize share `pointersize`, so each overwrites the other's text.
thread_local char systemtype[kInfoTextSize + 1];
thread_local char systeminfo[kInfoTextSize + 1];
thread_local char processortype[kInfoTextSize + 1];
thread_local char pointersize[kInfoTextSize + 1];

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

}  // extern "C"
