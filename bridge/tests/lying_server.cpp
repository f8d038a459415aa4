// A bridge server that lies: it exports the bridge's function table and
// answers the driver with replies no real server sends (information values
// far longer than their type), so that tests can check what the driver lets
// reach an application's buffers. Listens on 127.0.0.1, prints its port,
// serves one connection after another until killed.
#include <arpa/inet.h>
#include <netinet/in.h>
#include <sql.h>
#include <sys/socket.h>
#include <unistd.h>

#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <string_view>

#include <zephrpc.h>

#include "protocol/codec.h"
#include "protocol/protocol.h"

namespace {

HRPC g_handle = nullptr;

// What the lie is for each operation: the reply after its (empty)
// diagnostics, and the return code.
SQLRETURN answer(std::string_view op, zb::Writer &w) {
    if (op == "zb_connect") {
        w.u64(1);  // the connection; no information values come with it
    } else if (op == "zb_alloc_stmt") {
        w.u64(2);
    } else if (op == "zb_get_info") {
        const std::string value(16384, 'A');  // whatever the type, 16 KiB of it
        w.bytes(value.data(), value.size());
    } else if (op != "zb_set_connect_attr" && op != "zb_end_tran" && op != "zb_disconnect" &&
               op != "zb_free_stmt") {
        return SQL_ERROR;
    }
    return SQL_SUCCESS;
}

int32_t serve(RPCParam *args) {
    RPCParam *cursor = args;
    __RPCextractarg(&cursor);  // the handle
    __RPCextractarg(&cursor);  // the request
    auto *rc = static_cast<int16_t *>(__RPCextractarg(&cursor));
    auto *reply = static_cast<RPCMemDesc *>(__RPCextractarg(&cursor));
    const char *op = "";
    RPCLastRPC(g_handle, &op);
    zb::Writer w;
    zb::put_diags(w, {});
    *rc = answer(op, w);
    if (!zb::put_reply(*reply, w.data())) *rc = SQL_ERROR;
    return 0;
}

void serve_connection(int fd, const RPCFuncDesc *table) {
    g_handle = RPCAllocHandle();
    const char *name = "", *description = "";
    int32_t tty = 0;
    if (RPCInitialise(g_handle, RPC_MODE_SERVER, fd) == 0 && RPCExport(g_handle, table) == 0) {
        while (RPCEnumerateTransports(g_handle, tty, &name, &description) == 0 && std::strstr(name, "TTY") == nullptr)
            ++tty;
    }
    if (RPCSetTransportOpts(g_handle, tty, nullptr, nullptr, nullptr, nullptr, nullptr, nullptr, nullptr) == 0 &&
        RPCConnect(g_handle, zb::kProtocolVersion, zb::kProtocolRevision, zb::kProtocolName) == 0)
        RPCRun(g_handle);
    RPCDisconnect(g_handle);
    RPCTerminate(g_handle);
    RPCFreeHandle(g_handle);
}

}  // namespace

int main() {
    static const std::vector<RPCFuncDesc> table = zb::function_table([](zb::Op) -> RPCServerFn { return serve; });
    const int listener = socket(AF_INET, SOCK_STREAM, 0);
    sockaddr_in address{};
    address.sin_family = AF_INET;
    address.sin_addr.s_addr = htonl(INADDR_LOOPBACK);
    socklen_t length = sizeof address;
    if (bind(listener, reinterpret_cast<sockaddr *>(&address), sizeof address) != 0 || listen(listener, 4) != 0 ||
        getsockname(listener, reinterpret_cast<sockaddr *>(&address), &length) != 0)
        return 1;
    std::printf("%d\n", ntohs(address.sin_port));
    std::fflush(stdout);
    for (;;) {
        const int fd = accept(listener, nullptr, nullptr);
        if (fd < 0) return 1;
        serve_connection(fd, table.data());
        close(fd);
    }
}
