// Replies to a client's calls of every parameter kind, under the variation
// the first byte picks; the second picks the function called.
#include <cstring>

#include "harness.h"

extern "C" int LLVMFuzzerTestOneInput(const uint8_t *data, size_t size) {
    fuzz::Input in(data, size);
    const fuzz::Variation v = fuzz::Variation::from(in.byte());
    const int function = in.byte() % fuzz::served_count();
    std::vector<fuzz::Bytes> packets = {fuzz::packet_of("87FA9694"), fuzz::packet_of("1:0:fuzz"),
                                        fuzz::packet_of(v.parameters())};
    for (auto &p : fuzz::table_packets()) packets.push_back(std::move(p));
    for (auto &p : in.packets()) packets.push_back(std::move(p));
    fuzz::Session s(RPC_MODE_CLIENT, packets);
    if (!s.ready || RPCConnect(s.h, 1, 0, "fuzz") != 0) return 0;

    // One argument per parameter: in, out, in-out, neither. Scalars by value
    // and by pointer; blocks and arrays with room of their own; variant
    // arrays of two typed elements.
    const RPCFuncDesc &d = fuzz::served_table()[function];
    const uint32_t kind = d.params[0].flags & ~RPC_IN;
    int64_t scalars[4] = {5, 0, 9, 0};
    uint8_t room[4][64];
    std::memset(room, 1, sizeof room);
    int64_t var_data[4][2] = {};
    char var_text[4][2][16] = {};
    RPCVariant vars[4][2];
    RPCMemDesc blocks[4];
    uint64_t args[4];
    for (int i = 0; i < 4; ++i) {
        vars[i][0] = {&var_data[i][0], 8, RPC_V_INT64};
        vars[i][1] = {var_text[i][0], 16, RPC_V_MEM};
        blocks[i] = RPCMemDesc{};
        blocks[i].value = kind == RPC_WVARRAY ? static_cast<void *>(vars[i]) : room[i];
        blocks[i].length = kind == RPC_WVARRAY ? 2 : (i == 2 ? 0 : 64);  // in-out: the library allocates
        const bool scalar = (kind & RPC_BLOCK_MASK) == 0;
        const bool by_value = i == 0 || i == 3;
        // A pointer argument must be null or a proxy the library handed out.
        if (kind == RPC_PTR) scalars[i] = 0;
        args[i] = scalar ? (by_value ? static_cast<uint64_t>(scalars[i]) : reinterpret_cast<uintptr_t>(&scalars[i]))
                         : reinterpret_cast<uintptr_t>(&blocks[i]);
    }
    // A buffer the library allocated for a block (in-out, or an output whose
    // capacity an earlier reply set to 0) is ours to free.
    const bool plain_block = kind != RPC_WVARRAY && (kind & RPC_BLOCK_MASK) != 0;
    auto reclaim = [&] {
        for (int i = 0; plain_block && i < 4; ++i)
            if (blocks[i].value != room[i]) {
                std::free(blocks[i].value);
                blocks[i].value = room[i];
                blocks[i].length = i == 2 ? 0 : 64;
            }
    };
    for (int call = 0; call < 3; ++call) {
        const int32_t rc = RPCExec(s.h, d.name, args[0], args[1], args[2], args[3]);
        reclaim();
        if (rc != 0) break;
    }
    return 0;
}
