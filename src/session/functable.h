// Function descriptors: export, release, and the table exchange.
#pragma once

#include <cstdint>

#include "base/handle.h"

namespace zrpc {

constexpr std::size_t kRecordLimit = 1024;   // table record, 'B' included, before its NUL
constexpr std::size_t kRecordPartSize = 128; // one formatted field group

void FreeArgs(int32_t mode, RPCFuncDesc *list, RPCFuncDesc **ordinal_table);
void FreeParameters(PeerParam *list);

// Both throw RpcError (fail()) when they fail.
void ExportFunc(HRPC h);  // server: sends 'A', one 'B' record per function, 'C'
void ImportFunc(HRPC h);  // client: builds descriptors and the name index

// Empties and frees the client's name index, if any.
void drop_name_index(HRPC h);

}  // namespace zrpc
