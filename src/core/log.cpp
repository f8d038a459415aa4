// Trace log: one process-wide stream, opened lazily, flushed per entry.
#include "core/log.h"

#include <cctype>
#include <cstdarg>
#include <cstdio>
#include <cstring>

#include "core/handle.h"

namespace zrpc {
namespace {

std::FILE *lfp = nullptr;  // null while closed; unguarded, as the handle counts

constexpr std::size_t kEntrySize = 512;     // an entry is cut at 511 characters
constexpr std::size_t kMemLineSize = 144;   // 19 groups of 7 and a terminator fit
constexpr int32_t kMemLimit = 128;          // tested only after each group of 7
constexpr int32_t kMemGroup = 7;

void write_entry(const char *format, va_list args) {
    if (lfp == nullptr) LogInit();
    char buffer[kEntrySize];
    std::vsnprintf(buffer, sizeof buffer, format, args);
    if (lfp == nullptr) return;  // could not open: skip, retry on the next entry
    // The formatted text is deliberately used as a format a second time: trace
    // readers expect a '%' that survives the first expansion to be expanded
    // again, so this is not the usual format-string mistake.
#pragma GCC diagnostic push
#pragma GCC diagnostic ignored "-Wformat-security"
#pragma GCC diagnostic ignored "-Wformat-nonliteral"
    std::fprintf(lfp, buffer);
#pragma GCC diagnostic pop
    std::fflush(lfp);
}

// Letters, digits, punctuation and the blank show as they are; the rest as '.'.
char shown(unsigned char byte) {
    return (std::isalnum(byte) || std::ispunct(byte) || byte == ' ') ? static_cast<char>(byte)
                                                                      : '.';
}

}  // namespace

void LogInit() {
    if (lfp == nullptr) lfp = std::fopen(kTraceLogPath, "a");
}

void LogClose() {
    if (lfp != nullptr) std::fclose(lfp);
    lfp = nullptr;
}

void LogTrcMsgStr(const char *format, ...) {
    va_list args;
    va_start(args, format);
    write_entry(format, args);
    va_end(args);
}

void LogErrMsgStr(const char *format, ...) {
    va_list args;
    va_start(args, format);
    write_entry(format, args);
    va_end(args);
}

void trace_mem(const void *bytes, int32_t length) {
    if (bytes == nullptr) {
        LogTrcMsgStr("mem: <null pointer>\n");
        return;
    }
    if (length < 1) {
        LogTrcMsgStr("mem: \n");
        return;
    }
    const auto *in = static_cast<const unsigned char *>(bytes);
    char line[kMemLineSize];
    int32_t n = 0;
    while (n < length) {
        for (int32_t k = 0; k < kMemGroup && n < length; ++k, ++n) line[n] = shown(in[n]);
        if (n >= kMemLimit) break;  // so a long block shows 133 characters
    }
    line[n] = '\0';
    LogTrcMsgStr("mem: %s\n", line);
}

const char *GetTracing(HRPC h) { return h->tracing; }

}  // namespace zrpc

extern "C" void SetTracing(HRPC h, const char *text) {
    if (h == nullptr || text == nullptr) return;
    // Truncate to the field's capacity; the letters that matter are a few bytes.
    std::size_t n = std::strlen(text);
    if (n >= zrpc::kTracingCapacity) n = zrpc::kTracingCapacity - 1;
    std::memcpy(h->tracing, text, n);
    h->tracing[n] = '\0';
}
