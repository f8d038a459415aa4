// Session-level test helpers: handles that clean up after themselves, bounded
// background connects, and the other side of the connect handshake spoken on
// a raw socket. Every wait is bounded.
#pragma once

#include <cstdint>
#include <functional>
#include <future>
#include <string>
#include <string_view>
#include <vector>

#include "core/handle.h"
#include "helpers/raw_peer.h"

namespace zrpc::test {

// An initialised handle; disconnected, terminated and freed at scope end.
class TestHandle {
public:
    explicit TestHandle(int32_t mode, int32_t server_descriptor = 0);
    ~TestHandle();
    TestHandle(const TestHandle &) = delete;
    TestHandle &operator=(const TestHandle &) = delete;
    operator HRPC() const { return h_; }
    HRPC operator->() const { return h_; }

private:
    HRPC h_;
};

// BSD transport on 127.0.0.1. Receives give up after 10 seconds, so a
// silent peer fails a connect instead of hanging it. The low-water mark is
// 1: with the default 8192 Linux wakes no blocked receiver for a small packet.
void use_tcp_server(HRPC h, uint16_t port);
void use_tcp_client(HRPC h, uint16_t port, const char *attempts = "5");
// TTY transport on the descriptor given to RPCInitialise.
void use_tty(HRPC h);

// Runs `work` on its own thread. result() waits at most timeout_ms; past
// that it records a failure and calls `unblock` to free a blocked call.
class Background {
public:
    explicit Background(std::function<int32_t()> work, std::function<void()> unblock = {});
    Background(Background &&) = default;
    ~Background();
    int32_t result(int timeout_ms = 20000);

private:
    std::future<int32_t> future_;
    std::function<void()> unblock_;
};

// RPCConnect of a server on `port` in the background; a stuck accept is
// freed by a throw-away connection.
Background connect_server_async(HRPC h, uint16_t port, int32_t v1 = 3, int32_t v2 = 1,
                                const char *uid = "abc");

// The parameter text every end of this library sends.
std::string own_parameters();

// Raw client against a library server: reads magic, version and parameters,
// answers with `params` (sent with its zero) and reads the table up to "C".
// Returns the packets received, or an empty vector on a transport failure.
std::vector<std::string> raw_client_handshake(int fd, std::string_view params = "04:8^10:8^");

// Raw server against a library client: magic, `version`, `params`, reads the
// client's parameters, then "A", each record (sent with its zero), "C".
// Returns the client's parameter packet, or "" on a transport failure.
std::string raw_server_handshake(int fd, std::string_view version = "3:1:abc",
                                 std::string_view params = "04:8^10:8^",
                                 const std::vector<std::string> &records = {});

// A library client whose peer is a raw server on a listener. The client's
// disconnect waits for the peer's close, so hang up before result().
struct RawServer {
    RawServer();
    ~RawServer();
    // RPCConnect(client, 3, 1, "abc") in the background, then the accept.
    Background start();
    void send_all(const std::vector<std::string> &packets);  // each as it is
    void hang_up();

    Listener listener;
    TestHandle client{RPC_MODE_CLIENT};
    int fd = -1;
};

// A library server whose peer is a raw client.
struct RawClient {
    RawClient();
    ~RawClient();
    Background start();  // RPCConnect(server, 3, 1, "abc") and the raw connect
    void hang_up();

    uint16_t port;
    TestHandle server{RPC_MODE_SERVER};
    int fd = -1;
};

// The error code and its text as RPCReportError gives them.
struct Reported {
    int32_t code;
    std::string text;
};
Reported report(HRPC h);

// Three functions: "alpha" (int32 in "count", mem out unnamed length 64,
// handle in), "beta" (none), "gamma" (int16 in/out named "", sqllen array
// in "lens" length 80); a null name ends it.
const RPCFuncDesc *sample_table();

}  // namespace zrpc::test
