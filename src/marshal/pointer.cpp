// Pointer marshalling: raw 8-byte values between 64-bit peers, table indices
// towards a peer with narrower pointers (kPeerPtrIndex).
//
// The server keeps a growable array (index -> its own pointer); index 0 is the
// null pointer, registered at negotiation. The client keeps proxy nodes in
// chunks of ten; a node's address is the pointer the application sees and its
// first four bytes are the server's index.

#include "marshal/pointer.h"

#include <cstdlib>
#include <cstring>

#include "base/log.h"
#include "marshal/frame.h"

namespace zrpc {

namespace {

// Server entry: the same 16-byte footprint as a client node.
struct PtrEntry {
    void *pointer;
    void *reserved;
};
static_assert(sizeof(PtrEntry) == sizeof(PtrNode));

constexpr int32_t kServer = 0;
constexpr int32_t kClient = 1;

// Bytes of the 32-bit index that travel: the peer's pointer size, which must
// lie within the index.
uint32_t index_width(const rpc_handle *h) {
    if (h->peer_ptr_size < 1 || h->peer_ptr_size > 4) fail(RPC_HMARSHAL);
    return static_cast<uint32_t>(h->peer_ptr_size);
}

PtrNode *new_chunk() {
    auto *chunk = static_cast<PtrNode *>(std::calloc(kPtrChunk, sizeof(PtrNode)));
    if (chunk == nullptr) {
        LogErrMsgStr("Pointer lookup table full");
        fail(RPC_TBLFULL);
    }
    return chunk;
}

}  // namespace

int32_t add_ptr_to_list_l(HRPC h, void *pointer) {
    auto *entries = static_cast<PtrEntry *>(h->ptr_table);
    for (int32_t i = 0; i < h->ptr_count; ++i) {
        if (entries[i].pointer == pointer) return i;
    }
    if (h->ptr_count >= h->ptr_capacity) {
        const int32_t capacity = h->ptr_capacity + kPtrChunk;
        void *grown = std::realloc(h->ptr_table, static_cast<std::size_t>(capacity) * sizeof(PtrEntry));
        if (grown == nullptr) {
                LogTrcMsgStr("Pointer lookup table full\n");
            fail(RPC_TBLFULL);
        }
        h->ptr_table = grown;
        h->ptr_capacity = capacity;
        entries = static_cast<PtrEntry *>(grown);
    }
    entries[h->ptr_count] = PtrEntry{pointer, nullptr};
    return h->ptr_count++;
}

void *find_ptr_in_list_s(HRPC h, int32_t index) {
    if (index < 0 || index >= h->ptr_count) {
        LogErrMsgStr("Pointer marshalling error");
        LogErrMsgStr("...lookup with index %d, failed", index);
        fail(RPC_HMARSHAL);
    }
    return static_cast<PtrEntry *>(h->ptr_table)[index].pointer;
}

uint32_t find_ptr_in_list_l(HRPC, const void *proxy) {
    if (proxy == nullptr) return 0;
    uint32_t index;
    std::memcpy(&index, proxy, sizeof(index));
    return index;
}

PtrNode *add_ptr_to_list_s(HRPC h, uint32_t index) {
    if (index == 0) return nullptr;
    if (h->ptr_count == 0 && h->ptr_table == nullptr) {
        h->ptr_table = new_chunk();
        h->ptr_capacity = kPtrChunk;
    }
    auto *first = static_cast<PtrNode *>(h->ptr_table);
    PtrNode *node = first;
    PtrNode *last = nullptr;
    for (int32_t i = 0; i < h->ptr_count; ++i) {
        if (node->index == index) return node;
        last = node;
        node = node->link != nullptr ? node->link : node + 1;
    }
    PtrNode *fresh;
    if (h->ptr_count >= h->ptr_capacity && last != nullptr) {
        fresh = new_chunk();
        h->ptr_capacity += kPtrChunk;
        last->link = fresh;
    } else {
        fresh = last != nullptr ? last + 1 : first;
    }
    fresh->index = index;
    fresh->link = nullptr;
    ++h->ptr_count;
    return fresh;
}

void free_ptr_table(HRPC h) {
    if (h->ptr_table == nullptr) return;
    if (h->mode == kClient) {
        // The last node of each full chunk links to the next chunk.
        auto *chunk = static_cast<PtrNode *>(h->ptr_table);
        while (chunk != nullptr) {
            PtrNode *next = chunk[kPtrChunk - 1].link;
            std::free(chunk);
            chunk = next;
        }
    } else {
        std::free(h->ptr_table);
    }
    h->ptr_table = nullptr;
    h->ptr_count = 0;
    h->ptr_capacity = 0;
}

void RPCPushPtr(HRPC h, void *pointer, uint32_t type_flags, const char *name) {
    if (tracing(h)) LogTrcMsgStr("pushing pointer %s : %p\n", label(name), pointer);
    if (!has_flag(h, kPeerPtrIndex)) {
        reserve_out(h, sizeof(pointer));
        put_out(h, &pointer, sizeof(pointer));  // never swapped
        return;
    }
    const uint32_t width = index_width(h);
    reserve_out(h, width);  // even when a client then writes nothing
    uint32_t index;
    if (h->mode == kServer) {
        index = static_cast<uint32_t>(add_ptr_to_list_l(h, pointer));
    } else if (h->mode == kClient && (type_flags & RPC_IN) != 0) {
        index = find_ptr_in_list_l(h, pointer);
    } else {
        return;
    }
    put_out(h, &index, width);  // the index's first bytes as held in memory
}

void RPCPopPtr(HRPC h, void **dest, uint32_t, const char *name) {
    if (!has_flag(h, kPeerPtrIndex)) {
        void *pointer;
        std::memcpy(&pointer, take_in(h, sizeof(pointer)), sizeof(pointer));
        if (dest == nullptr) return;
        *dest = pointer;
        if (tracing(h)) LogTrcMsgStr("popped pointer %s: %p\n", label(name), pointer);
        return;
    }
    if (h->mode != kServer && h->mode != kClient) return;
    const uint32_t width = index_width(h);
    uint32_t index = 0;
    std::memcpy(&index, take_in(h, width), width);
    if (h->mode == kClient) {
        void *proxy = add_ptr_to_list_s(h, index);
        if (dest != nullptr) *dest = proxy;
        if (tracing(h)) LogTrcMsgStr("popped pointer %s : %p\n", label(name), proxy);
        return;
    }
    // An index of 2^31 or more reads as negative and is refused like any
    // index the table does not hold.
    void *pointer = find_ptr_in_list_s(h, static_cast<int32_t>(index));
    if (dest != nullptr) *dest = pointer;
    if (tracing(h)) LogTrcMsgStr("popped pointer %s: %p\n", label(name), pointer);
}

}  // namespace zrpc
