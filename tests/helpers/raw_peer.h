// Test helpers that speak the packet format on real loopback sockets.
// Every wait is bounded; nothing here can hang a test.
#pragma once

#include <cstddef>
#include <cstdint>
#include <optional>
#include <span>
#include <string>
#include <vector>

namespace zrpc::test {

using Bytes = std::vector<uint8_t>;

Bytes bytes_of(std::string_view text, bool with_nul = false);

// A listening socket on 127.0.0.1 with a port the kernel chose.
class Listener {
public:
    Listener();
    ~Listener();
    Listener(const Listener &) = delete;
    Listener &operator=(const Listener &) = delete;
    uint16_t port() const { return port_; }
    // Accepted descriptor, or -1 after timeout_ms.
    int accept_one(int timeout_ms = 5000);

private:
    int fd_ = -1;
    uint16_t port_ = 0;
};

// A port that nothing listens on right now.
uint16_t free_port();
// Connected descriptor to 127.0.0.1:port, or -1.
int connect_loopback(uint16_t port);
// Retries connect_loopback until it succeeds or timeout_ms passes.
int connect_loopback_retry(uint16_t port, int timeout_ms = 5000);

bool send_all(int fd, const void *data, std::size_t length);
// Writes a 4-byte big-endian length and the payload in one send.
bool send_packet(int fd, std::span<const uint8_t> payload);
bool send_packet(int fd, std::string_view text, bool with_nul);
// Exactly `length` bytes, or nullopt on end of stream, error or timeout.
std::optional<Bytes> recv_exact(int fd, std::size_t length, int timeout_ms = 5000);
// One packet's payload, or nullopt.
std::optional<Bytes> recv_packet(int fd, int timeout_ms = 5000);
// True when the peer closed (read returns 0) within timeout_ms.
bool wait_closed(int fd, int timeout_ms = 5000);

// A connected AF_UNIX stream pair; both closed by the destructor unless released.
struct SocketPair {
    int fd[2] = {-1, -1};
    SocketPair();
    ~SocketPair();
};

}  // namespace zrpc::test
