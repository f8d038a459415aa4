#include "protocol/protocol.h"

#include <cstdlib>
#include <cstring>

namespace zb {

const char *op_name(Op op) {
    switch (op) {
#define ZB_CASE(id, name) \
    case Op::id:          \
        return name;
        ZB_OPERATIONS(ZB_CASE)
#undef ZB_CASE
    case Op::Count:
        break;
    }
    return "";
}

std::vector<RPCFuncDesc> function_table(RPCServerFn (*entry_for)(Op)) {
    std::vector<RPCFuncDesc> table;
    for (int i = 0; i < static_cast<int>(Op::Count); ++i) {
        const auto op = static_cast<Op>(i);
        RPCFuncDesc d{};
        d.name = const_cast<char *>(op_name(op));
        d.entry = entry_for(op);
        d.params[0] = {RPC_PTR | RPC_IN, 0, const_cast<char *>("handle"), 0, 0, nullptr, {}};
        d.params[1] = {RPC_MEM | RPC_IN, 0, const_cast<char *>("request"), 0, 0, nullptr, {}};
        d.params[2] = {RPC_INT16 | RPC_OUT, 0, const_cast<char *>("rc"), 0, 0, nullptr, {}};
        d.params[3] = {RPC_MEM | RPC_OUT, 0, const_cast<char *>("reply"), 0, 0, nullptr, {}};
        table.push_back(d);
    }
    table.push_back(RPCFuncDesc{});
    return table;
}

bool put_reply(RPCMemDesc &reply, const std::vector<uint8_t> &bytes) {
    std::free(reply.value);
    reply.value = std::malloc(bytes.empty() ? 1 : bytes.size());
    reply.length = 0;
    if (reply.value == nullptr) return false;
    std::memcpy(reply.value, bytes.data(), bytes.size());
    reply.length = static_cast<int32_t>(bytes.size());
    return true;
}

}  // namespace zb
