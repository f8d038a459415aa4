// Trace and error logs.
//
// The trace log "/tmp/qxrpc.log" is one process-wide stream, opened lazily in
// append mode and flushed after every entry. Callers test the negotiated
// tracing flags themselves; these functions never do.
#pragma once

#include <cstdint>
#include <cstdio>

#include "zephrpc.h"

namespace zrpc {

constexpr const char *kTraceLogPath = "/tmp/qxrpc.log";
constexpr const char *kErrorLogPath = "/tmp/zephrpc_error.log";

// Opens one of the fixed log paths as fopen would with mode "a" or "w", but
// never through a symbolic link (another user could plant one in /tmp).
std::FILE *open_log_file(const char *path, bool truncate);

void LogInit();
void LogClose();

// Formats into 512 bytes, then writes the result *as a format string* again:
// a '%' that survives the first expansion is expanded a second time. Kept so
// that existing trace readers see the same text.
void LogTrcMsgStr(const char *format, ...) __attribute__((format(printf, 1, 2)));
void LogErrMsgStr(const char *format, ...) __attribute__((format(printf, 1, 2)));

// One entry "mem: <text>\n" showing printable bytes as they are and the rest
// as '.', cut after the first group of seven that reaches 128 characters.
void trace_mem(const void *bytes, int32_t length);

// The handle's own tracing string (sent to the peer as parameter 05).
const char *GetTracing(HRPC h);

}  // namespace zrpc
