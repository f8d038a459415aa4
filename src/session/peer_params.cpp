// The peer's negotiation parameters: parsing, the flags derived from them,
// and the error log written when a required one is missing.
#include <cctype>
#include <cstdio>
#include <cstdlib>
#include <cstring>

#include "base/handle.h"
#include "base/log.h"
#include "session/session.h"
#include "marshal/pointer.h"

namespace zrpc {
namespace {

constexpr uint32_t kNativeSize = 8;  // pointer and SQLLEN size of this build
constexpr uint32_t kVmsFrameLimit = 1024;

enum Item : int32_t {
    kSystemType = 1,
    kPointerSize = 4,
    kTracing = 5,
    kByteOrder = 6,
    kCompression = 7,
    kChallengeItem = 8,
    kSqlLenSize = 10,
};

bool is_one(const char *value) { return std::strcmp(value, "1") == 0; }
bool contains(const char *value, const char *what) { return std::strstr(value, what) != nullptr; }

// Sizes compare unsigned: a negative size counts as not 8 but not as below 8.
void apply_size(HRPC h, const char *value, int32_t &stored, uint64_t not8, uint64_t below8) {
    stored = std::atoi(value);
    const auto size = static_cast<uint32_t>(stored);
    if (size != kNativeSize) h->flags |= not8;
    if (size < kNativeSize) h->flags |= below8;
}

// One dumped byte: printable ASCII as itself, anything else in hex of the
// byte widened with its sign (0x99 shows as 0xffffff99).
void dump_area(std::FILE *log, const char *area) {
    for (std::size_t i = 0; i < kNegotiationArea; ++i) {
        const auto byte = static_cast<unsigned char>(area[i]);
        if (std::isalnum(byte) || std::ispunct(byte) || byte == ' ')
            std::fprintf(log, "%c ", byte);
        else
            std::fprintf(log, "0x%x ", static_cast<unsigned>(static_cast<int>(area[i])));
    }
}

void write_error_log(HRPC h, const char *param_area, const char *version_area) {
    std::FILE *log = open_log_file(kErrorLogPath, true);
    if (!log) return;
    const PeerParam *p = h->peer_params;
    for (; p && p->number != 0; p = p->next) {
        std::fprintf(log, "Parameter Number: %d\n", p->number);
        std::fprintf(log, "Parameter Value: %s\n", p->value ? p->value : "<NULL>");
        if (!p->value) continue;
        std::fputs("\t", log);
        for (const char *c = p->value; *c; ++c)
            std::fprintf(log, "0x%x,", static_cast<unsigned char>(*c));
        std::fputs("\n", log);
    }
    if (p && p->next) std::fputs("WARNING: PARAM_END found with next ptr\n", log);
    std::fputs("param buffer:\n", log);
    dump_area(log, param_area);
    std::fputs("\n", log);
    std::fputs("version buffer:\n", log);
    dump_area(log, version_area);
    std::fputs("\n", log);
    std::fclose(log);
}

}  // namespace

char *rpcstrtok(char **cursor, char delimiter, const char *last) {
    if (!cursor || !*cursor) return nullptr;
    char *token = *cursor;
    // The bound is tested before every byte is read, so the scan never looks
    // past `last`.
    for (char *p = token;; ++p) {
        if (last && p > last) break;
        if (*p == delimiter) {
            *p = '\0';
            *cursor = p + 1;
            return token;
        }
        if (*p == '\0') break;
    }
    *cursor = nullptr;
    return nullptr;
}

void UnpackParameters(HRPC h, char *buffer, int32_t length) {
    if (!buffer) fail(RPC_INTERR);
    char *cursor = length > 0 ? buffer : nullptr;
    const char *last = length > 0 ? buffer + length - 1 : nullptr;
    while (const char *number = rpcstrtok(&cursor, ':', last)) {
        const char *value = rpcstrtok(&cursor, '^', last);
        if (!value) fail(RPC_INVPARAM);
        auto *record = static_cast<PeerParam *>(std::malloc(sizeof(PeerParam)));
        if (!record) fail(RPC_NOERROR);  // no code: the record itself could not be had
        record->number = std::atoi(number);
        record->value = strdup(value);
        if (!record->value) {
            std::free(record);
            fail(RPC_NOMEM);
        }
        // Newest first: a reconnect puts its records before the older ones.
        record->next = h->peer_params;
        h->peer_params = record;
    }
    if (!h->peer_params) fail(RPC_BADNEG);
}

void apply_peer_parameters(HRPC h, const char *param_area, const char *version_area) {
    bool pointer_seen = false;
    bool sqllen_seen = false;
    const char *marker = GetEndianess(h);
    // Every record counts, those of earlier connections too, up to the end.
    for (const PeerParam *p = h->peer_params; p && p->number != 0; p = p->next) {
        const char *value = p->value ? p->value : "";
        switch (p->number) {
        case kSystemType:
            if (h->mode == RPC_MODE_SERVER && contains(value, "VMS"))
                h->frame_limit = kVmsFrameLimit;
            break;
        case kChallengeItem:
            if (is_one(value)) h->flags |= kPeerChallenge;
            if (is_one(GetChallenge(h)) && has_flag(h, kPeerChallenge)) h->flags |= kChallenge;
            break;
        case kCompression:
            if (is_one(value)) h->flags |= kPeerCompresses;
            if (is_one(GetCompression(h)) && has_flag(h, kPeerCompresses)) h->flags |= kCompress;
            break;
        case kPointerSize:
            pointer_seen = true;
            apply_size(h, value, h->peer_ptr_size, kPeerPtrNot8, kPeerPtrIndex);
            // Null must own the first index of a server's pointer table.
            if (static_cast<uint32_t>(h->peer_ptr_size) < kNativeSize && h->mode == RPC_MODE_SERVER)
                add_ptr_to_list_l(h, nullptr);
            break;
        case kSqlLenSize:
            sqllen_seen = true;
            apply_size(h, value, h->peer_sqllen_size, kPeerSqlLenNot8, kPeerSqlLen4);
            break;
        case kTracing:
            if (contains(value, "y")) h->flags |= kTraceCalls | kTraceValues;
            if (contains(value, "c")) h->flags |= kTraceCalls;
            if (contains(value, "a")) h->flags |= kTraceValues;
            break;
        case kByteOrder:
            if (p->value && std::strlen(p->value) >= 2 && std::memcmp(p->value, marker, 2) != 0)
                h->flags |= kByteSwap;
            break;
        default:
            break;  // items 02, 03 and unknown numbers carry nothing we use
        }
    }
    if (pointer_seen && sqllen_seen) return;
    write_error_log(h, param_area, version_area);
    fail(RPC_MISSPARAM);
}

}  // namespace zrpc
