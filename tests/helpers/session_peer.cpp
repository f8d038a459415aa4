#include "helpers/session_peer.h"

namespace zrpc::test {

std::vector<std::string> RawPeer::handshake() {
    std::vector<std::string> got;
    auto read = [&] {
        auto packet = recv_packet(fd);
        if (packet) got.emplace_back(packet->begin(), packet->end());
        return packet.has_value();
    };
    // "A" and "C" travel without a zero.
    auto send = [&](const char *text) { return send_packet(fd, text, text[1] != '\0'); };
    bool ok = h->mode == RPC_MODE_SERVER
                  ? read() && read() && read() && send("04:8^10:8^")
                  : send("87FA9694") && send("3:1:abc") && send("04:8^10:8^") && read() &&
                        send("A") && send("C");
    while (ok && h->mode == RPC_MODE_SERVER && got.back() != "C") ok = read();
    return ok ? got : std::vector<std::string>{};
}

const RPCFuncDesc *sample_table() {
    static RPCFuncDesc table[4] = {};
    if (table[0].name) return table;
    const auto add = [](int f, int i, uint32_t flags, const char *name, int32_t length) {
        table[f].params[i].flags = flags;
        table[f].params[i].name = const_cast<char *>(name);
        table[f].params[i].length = length;
    };
    table[0].name = const_cast<char *>("alpha");
    add(0, 0, RPC_INT32 | RPC_IN, "count", 0);
    add(0, 1, RPC_MEM | RPC_OUT, nullptr, 64);
    add(0, 2, RPC_HANDLE | RPC_IN, "h", 0);
    table[1].name = const_cast<char *>("beta");
    table[2].name = const_cast<char *>("gamma");
    add(2, 0, RPC_INT16 | RPC_IN | RPC_OUT, "", 0);
    add(2, 1, RPC_SQLLEN_ARRAY | RPC_IN, "lens", 80);
    return table;
}

}  // namespace zrpc::test
