// Pointer marshalling: raw 8-byte pointers, or table indices towards a peer
// whose pointers are narrower (kPeerPtrIndex). Index 0 always stands for null.
#pragma once

#include <cstdint>

#include "base/handle.h"

namespace zrpc {

// Client proxy node: its address is the pointer handed to the application.
struct PtrNode {
    uint32_t index;
    PtrNode *link;  // set only in the last node of a full chunk
};
static_assert(sizeof(PtrNode) == 16);

constexpr int32_t kPtrChunk = 10;

void RPCPushPtr(HRPC h, void *pointer, uint32_t type_flags, const char *name);
void RPCPopPtr(HRPC h, void **dest, uint32_t type_flags, const char *name);

int32_t add_ptr_to_list_l(HRPC h, void *pointer);      // server: pointer -> index
uint32_t find_ptr_in_list_l(HRPC h, const void *proxy); // client: proxy -> index
PtrNode *add_ptr_to_list_s(HRPC h, uint32_t index);     // client: index -> proxy
void *find_ptr_in_list_s(HRPC h, int32_t index);        // server: index -> pointer

// Releases whichever table the handle holds (server array or client chunks).
void free_ptr_table(HRPC h);

}  // namespace zrpc
