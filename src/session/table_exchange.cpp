// The function table sent from server to client during negotiation.
//
// Messages: "A" starts the table, one "B<record>\0" per function, "C" ends
// it. A record is "ordinal!name!" then "flags!length!name!" per parameter,
// with "n" standing in for an unnamed one; RPC_HANDLE parameters stay home.
#include <cstdio>
#include <cstdlib>
#include <cstring>

#include "session/functable.h"
#include "base/handle.h"
#include "session/session.h"

namespace zrpc {
namespace {

constexpr char kTableStart = 'A';
constexpr char kRecordMark = 'B';
constexpr char kTableEnd = 'C';
constexpr int32_t kNameIndexBuckets = 256;
// The receiver reads a record into kRecordLimit bytes, so the text ('B'
// included) must leave room for its terminating zero.
constexpr std::size_t kRecordMaxText = kRecordLimit - 1;
constexpr int kMaxParams = RPC_MAX_PARAMS - 1;  // the last entry is the end mark

bool send_marker(HRPC h, char marker) { return NETSend(h->conn, &marker, 1) == 0; }

// A record under construction: 'B' followed by the formatted parts.
class Record {
public:
    Record() { text_[0] = kRecordMark; text_[1] = '\0'; }

    // Appends one formatted part; false when the part or the record would
    // pass its limit.
    bool append(const char *format, auto... args) {
        char part[kRecordPartSize];
        int n = std::snprintf(part, sizeof part, format, args...);
        if (n < 0 || static_cast<std::size_t>(n) >= sizeof part) return false;
        if (used_ + static_cast<std::size_t>(n) > kRecordMaxText) return false;
        std::memcpy(text_ + used_, part, static_cast<std::size_t>(n) + 1);
        used_ += static_cast<std::size_t>(n);
        return true;
    }

    bool send(HRPC h) const {
        return NETSend(h->conn, text_, static_cast<uint32_t>(used_ + 1)) == 0;
    }

private:
    char text_[kRecordMaxText + 1];
    std::size_t used_ = 1;
};

// 0, or the error code that fails the export.
int32_t send_descriptor(HRPC h, const RPCFuncDesc &desc) {
    Record record;
    if (!record.append("%hd!%s!", desc.ordinal, desc.name)) return RPC_NOMEM;
    for (const RPCParam &param : desc.params) {
        if (param.flags == 0) break;
        if (param.flags & RPC_HANDLE) continue;  // filled in by the server itself
        const int flags = static_cast<int>(param.flags);
        const bool named = param.name && *param.name;
        bool ok = named ? record.append("%d!%d!%s!", flags, param.length, param.name)
                        : record.append("%d!%d!n!", flags, param.length);
        if (!ok) return RPC_NOMEM;
    }
    return record.send(h) ? 0 : RPC_ETRANSPORT;
}

// Whether an entry before `i` already ended the parameter list.
bool ended_at(const RPCFuncDesc *desc, int i) {
    for (int k = 0; k < i; ++k)
        if (desc->params[k].flags == 0) return true;
    return false;
}

// Reads the parameter groups that follow the function part into `desc`.
int32_t import_parameters(RPCFuncDesc *desc, char **cursor, const char *last) {
    for (int i = 0;; ++i) {
        const char *flags = rpcstrtok(cursor, '!', last);
        if (!flags) return 0;
        const char *length = rpcstrtok(cursor, '!', last);
        const char *name = length ? rpcstrtok(cursor, '!', last) : nullptr;
        if (!name) return RPC_FUNCFAIL;
        // More than the entries can hold is not a table this library sends.
        if (i >= kMaxParams) return RPC_FUNCFAIL;
        RPCParam &param = desc->params[i];
        param.flags = static_cast<uint32_t>(std::atoi(flags));
        param.length = std::atoi(length);
        // A flags word of 0 ends the list: entries after it are never read,
        // and their names would never be freed.
        const bool beyond_end = i > 0 && ended_at(desc, i);
        if (*name && param.flags != 0 && !beyond_end) {
            param.name = strdup(name);
            if (!param.name) return RPC_NOMEM;
        }
    }
}

// Builds one client descriptor from a received "B" record of `length` bytes.
int32_t import_record(HRPC h, char *record, uint32_t length) {
    char *cursor = record + 1;
    const char *last = record + length - 1;
    const char *ordinal = rpcstrtok(&cursor, '!', last);
    const char *name = ordinal ? rpcstrtok(&cursor, '!', last) : nullptr;
    if (!name) return RPC_FUNCFAIL;

    if (!h->name_index) {
        h->name_index = make_hash_table(kNameIndexBuckets);
        if (!h->name_index) return RPC_NOMEM;
    }
    // Zero-filled: a function without parameters has its end mark already.
    auto *desc = static_cast<RPCFuncDesc *>(std::calloc(1, sizeof(RPCFuncDesc)));
    if (!desc) return RPC_NOMEM;
    desc->name = strdup(name);
    if (!desc->name) {
        std::free(desc);
        return RPC_NOMEM;
    }
    desc->ordinal = static_cast<int16_t>(std::atoi(ordinal));
    desc->next = h->desc_list;
    h->desc_list = desc;

    hash_item *item = add_hash_item(desc->name, h->name_index);
    if (!item) return RPC_NOMEM;
    if (item->hits != 0) return RPC_DUPEXPFN;  // found, so the name came before
    item->data = desc;
    return import_parameters(desc, &cursor, last);
}

}  // namespace

void ExportFunc(HRPC h) {
    if (!send_marker(h, kTableStart)) fail(RPC_ETRANSPORT);
    int32_t counter = 0;
    for (RPCFuncDesc *desc = h->desc_list; desc; desc = desc->next, ++counter) {
        desc->ordinal = static_cast<int16_t>(counter);
        // A list left partial by a failed export has no table to fill.
        if (h->ordinal_table && counter < h->ordinal_count) h->ordinal_table[counter] = desc;
        if (int32_t code = send_descriptor(h, *desc)) fail(code);
    }
    if (!send_marker(h, kTableEnd)) fail(RPC_ETRANSPORT);
}

void ImportFunc(HRPC h) {
    // The table of an earlier connection stays usable after a disconnect and
    // is replaced here, so reconnecting does not pile up copies of it.
    FreeArgs(h->mode, h->desc_list, nullptr);
    h->desc_list = nullptr;
    drop_name_index(h);
    char message[kRecordLimit] = {};
    uint32_t length = 0;
    if (NETReceive(h->conn, message, 1, &length) != 0 || length != 1 || message[0] != kTableStart)
        fail(RPC_ETRANSPORT);
    for (;;) {
        if (NETReceive(h->conn, message, sizeof message, &length) != 0)
            fail(RPC_ETRANSPORT);
        if (length == 1 && message[0] == kTableEnd) return;
        // A driver may report a packet longer than it delivered; such a
        // record cannot be trusted and is never read past the buffer.
        if (length == 0 || length > sizeof message || message[0] != kRecordMark)
            fail(RPC_FUNCFAIL);
        if (int32_t code = import_record(h, message, length)) fail(code);
    }
}

void drop_name_index(HRPC h) {
    if (!h->name_index) return;
    // Keys and data are the descriptors' own; only the items go here.
    flush_hash_table(h->name_index, nullptr, 0);
    dispose_hash_table(h->name_index);
    h->name_index = nullptr;
}

}  // namespace zrpc
