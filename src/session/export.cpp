// Function descriptors: the server's export, lookups and release.
#include <cstdlib>
#include <cstring>

#include "session/functable.h"
#include "base/handle.h"

namespace zrpc {
namespace {

// Ordinal table bytes for `count` descriptors; never 0, so a table exists
// even for an empty export.
std::size_t ordinal_table_size(std::size_t count) { return count * sizeof(RPCFuncDesc *) + 2; }

// Copies one caller record; the ordinal is assigned when the table is sent
// and parameter names stay the caller's strings.
RPCFuncDesc *copy_descriptor(const RPCFuncDesc &source) {
    auto *desc = static_cast<RPCFuncDesc *>(std::calloc(1, sizeof(RPCFuncDesc)));
    if (!desc) return nullptr;
    desc->name = strdup(source.name);
    if (!desc->name) {
        std::free(desc);
        return nullptr;
    }
    desc->entry = source.entry;
    std::memcpy(desc->params, source.params, sizeof desc->params);
    desc->user_word = source.user_word;
    return desc;
}

}  // namespace

void FreeArgs(int32_t mode, RPCFuncDesc *list, RPCFuncDesc **ordinal_table) {
    while (list) {
        RPCFuncDesc *next = list->next;
        std::free(list->name);
        // Only imported (client) descriptors own their parameter names.
        if (mode == RPC_MODE_CLIENT) {
            for (RPCParam &param : list->params) {
                if (param.flags == 0) break;
                std::free(param.name);
            }
        }
        std::free(list);
        list = next;
    }
    std::free(ordinal_table);
}

void FreeParameters(PeerParam *list) {
    while (list) {
        PeerParam *next = list->next;
        std::free(list->value);
        std::free(list);
        list = next;
    }
}

}  // namespace zrpc

using namespace zrpc;

extern "C" {

int32_t RPCExport(HRPC h, const RPCFuncDesc *table) {
    return guarded(h, [h, table] {
        if (h->desc_list) h->last_called = nullptr;
        // The old table goes with the old list; nothing may point at it after.
        FreeArgs(h->mode, h->desc_list, h->ordinal_table);
        h->desc_list = nullptr;
        h->ordinal_table = nullptr;
        h->ordinal_count = 0;

        std::size_t count = 0;
        for (const RPCFuncDesc *record = table; record && record->name; ++record, ++count) {
            RPCFuncDesc *desc = copy_descriptor(*record);
            if (!desc) fail(RPC_NOMEM);
            // In front: the list runs in the reverse order of the caller's array.
            desc->next = h->desc_list;
            h->desc_list = desc;
        }

        // Zero-filled, so an ordinal not yet numbered by the table exchange finds null.
        h->ordinal_table = static_cast<RPCFuncDesc **>(std::calloc(1, ordinal_table_size(count)));
        if (!h->ordinal_table) fail(RPC_NOMEM);
        h->ordinal_count = static_cast<int32_t>(count);
        return 0;
    });
}

int32_t RPCFuncExists(HRPC h, const char *name) {
    if (!h || !name) return 0;
    for (const RPCFuncDesc *desc = h->desc_list; desc; desc = desc->next)
        if (std::strcmp(desc->name, name) == 0) return 1;
    return 0;
}

}  // extern "C"
