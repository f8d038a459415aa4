// Trace log: one process-wide stream, opened lazily, flushed per entry.
#include "base/log.h"

#include <fcntl.h>
#include <unistd.h>

#include <cctype>
#include <cstdarg>
#include <cstdio>
#include <cstring>
#include <string>

#include "base/handle.h"

namespace zrpc {
namespace {

std::FILE *lfp = nullptr;  // null while closed; unguarded, as the handle counts

constexpr std::size_t kEntrySize = 512;     // an entry is cut at 511 characters
constexpr std::size_t kMemLineSize = 144;   // 19 groups of 7 and a terminator fit
constexpr int32_t kMemLimit = 128;          // tested only after each group of 7
constexpr int32_t kMemGroup = 7;

// Writes one conversion of the second expansion with a zero argument of the
// conversion's type; returns the character after the conversion. An unknown
// conversion is written as it stands.
const char *write_conversion(std::FILE *out, const char *percent) {
    const char *p = percent + 1;
    std::string directive = "%";
    while (*p && std::strchr("-+ #0'", *p)) directive += *p++;
    for (int part = 0; part < 2; ++part) {  // width, then .precision; '*' reads 0
        if (part == 1) {
            if (*p != '.') break;
            directive += *p++;
        }
        if (*p == '*') {
            directive += '0';
            ++p;
        }
        while (std::isdigit(static_cast<unsigned char>(*p))) directive += *p++;
    }
    while (*p && std::strchr("hlLqjzt", *p)) ++p;  // sizes: the zero below has its own
    const char conversion = *p;
    if (conversion == '\0') {
        std::fputs(percent, out);
        return p;
    }
    directive += conversion;
#pragma GCC diagnostic push
#pragma GCC diagnostic ignored "-Wformat-nonliteral"
    switch (conversion) {
        case '%': std::fputc('%', out); break;
        case 'd': case 'i': case 'o': case 'u': case 'x': case 'X': case 'c':
            std::fprintf(out, directive.c_str(), 0);
            break;
        case 'f': case 'F': case 'e': case 'E': case 'g': case 'G': case 'a': case 'A':
            std::fprintf(out, directive.c_str(), 0.0);
            break;
        case 's': std::fprintf(out, directive.c_str(), "(null)"); break;
        case 'p': std::fprintf(out, directive.c_str(), nullptr); break;
        case 'n': break;  // never write through a pointer that is not there
        default: std::fwrite(percent, 1, static_cast<std::size_t>(p + 1 - percent), out);
    }
#pragma GCC diagnostic pop
    return p + 1;
}

// The formatted entry is expanded once more, as trace readers have always
// seen it: a '%' that survives the first expansion is interpreted again
// ("%%" becomes "%", "%d" a number). No arguments exist for that second pass,
// so each conversion gets a zero of its type instead of reading stray memory.
void write_expanded(std::FILE *out, const char *text) {
    while (const char *percent = std::strchr(text, '%')) {
        std::fwrite(text, 1, static_cast<std::size_t>(percent - text), out);
        text = write_conversion(out, percent);
    }
    std::fputs(text, out);
}

void write_entry(const char *format, va_list args) {
    if (lfp == nullptr) LogInit();
    char buffer[kEntrySize];
    std::vsnprintf(buffer, sizeof buffer, format, args);
    if (lfp == nullptr) return;  // could not open: skip, retry on the next entry
    write_expanded(lfp, buffer);
    std::fflush(lfp);
}

// Letters, digits, punctuation and the blank show as they are; the rest as '.'.
char shown(unsigned char byte) {
    return (std::isalnum(byte) || std::ispunct(byte) || byte == ' ') ? static_cast<char>(byte)
                                                                      : '.';
}

}  // namespace

std::FILE *open_log_file(const char *path, bool truncate) {
    const int flags = O_WRONLY | O_CREAT | O_NOFOLLOW | O_CLOEXEC | (truncate ? O_TRUNC : O_APPEND);
    const int fd = ::open(path, flags, 0666);
    if (fd < 0) return nullptr;
    std::FILE *f = ::fdopen(fd, truncate ? "w" : "a");
    if (f == nullptr) ::close(fd);
    return f;
}

void LogInit() {
    if (lfp == nullptr) lfp = open_log_file(kTraceLogPath, false);
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
