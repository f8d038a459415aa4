#include "helpers/raw_peer.h"

#include <arpa/inet.h>
#include <netinet/in.h>
#include <poll.h>
#include <sys/socket.h>
#include <unistd.h>

#include <cerrno>
#include <cstring>
#include <random>

namespace zrpc::test {
namespace {

sockaddr_in loopback(uint16_t port) {
    sockaddr_in addr{};
    addr.sin_family = AF_INET;
    addr.sin_port = htons(port);
    addr.sin_addr.s_addr = htonl(INADDR_LOOPBACK);
    return addr;
}

bool wait_readable(int fd, int timeout_ms) {
    pollfd p{fd, POLLIN, 0};
    int r;
    do {
        r = poll(&p, 1, timeout_ms);
    } while (r < 0 && errno == EINTR);
    return r > 0;
}

}  // namespace

Bytes bytes_of(std::string_view text, bool with_nul) {
    Bytes out(text.begin(), text.end());
    if (with_nul) out.push_back(0);
    return out;
}

Listener::Listener() {
    fd_ = socket(AF_INET, SOCK_STREAM, 0);
    int one = 1;
    setsockopt(fd_, SOL_SOCKET, SO_REUSEADDR, &one, sizeof one);
    sockaddr_in addr = loopback(0);
    bind(fd_, reinterpret_cast<sockaddr *>(&addr), sizeof addr);
    listen(fd_, 4);
    socklen_t len = sizeof addr;
    getsockname(fd_, reinterpret_cast<sockaddr *>(&addr), &len);
    port_ = ntohs(addr.sin_port);
}

Listener::~Listener() {
    if (fd_ >= 0) close(fd_);
}

int Listener::accept_one(int timeout_ms) {
    if (!wait_readable(fd_, timeout_ms)) return -1;
    return accept(fd_, nullptr, nullptr);
}

// Below the kernel's ephemeral range (32768 and up here): ports the kernel
// hands to outgoing connections and port-0 listeners of other suites running
// in parallel can then never take the one picked here before its user binds it.
uint16_t free_port() {
    static std::mt19937 pick(std::random_device{}());
    for (int attempt = 0; attempt < 1000; ++attempt) {
        const auto port = static_cast<uint16_t>(std::uniform_int_distribution<int>(20000, 32000)(pick));
        int fd = socket(AF_INET, SOCK_STREAM, 0);
        sockaddr_in addr = loopback(port);
        const bool free = bind(fd, reinterpret_cast<sockaddr *>(&addr), sizeof addr) == 0;
        close(fd);
        if (free) return port;
    }
    Listener probe;  // every pick taken: let the kernel choose
    return probe.port();
}

int connect_loopback(uint16_t port) {
    int fd = socket(AF_INET, SOCK_STREAM, 0);
    sockaddr_in addr = loopback(port);
    if (connect(fd, reinterpret_cast<sockaddr *>(&addr), sizeof addr) != 0) {
        close(fd);
        return -1;
    }
    return fd;
}

int connect_loopback_retry(uint16_t port, int timeout_ms) {
    for (int waited = 0; waited <= timeout_ms; waited += 10) {
        int fd = connect_loopback(port);
        if (fd >= 0) return fd;
        usleep(10000);
    }
    return -1;
}

bool send_all(int fd, const void *data, std::size_t length) {
    const auto *p = static_cast<const uint8_t *>(data);
    while (length > 0) {
        ssize_t n = send(fd, p, length, MSG_NOSIGNAL);
        if (n < 0 && errno == EINTR) continue;
        if (n <= 0) return false;
        p += n;
        length -= static_cast<std::size_t>(n);
    }
    return true;
}

bool send_packet(int fd, std::span<const uint8_t> payload) {
    const uint32_t header = htonl(static_cast<uint32_t>(payload.size()));
    const auto *header_bytes = reinterpret_cast<const uint8_t *>(&header);
    Bytes packet(header_bytes, header_bytes + 4);
    packet.insert(packet.end(), payload.begin(), payload.end());
    return send_all(fd, packet.data(), packet.size());
}

bool send_packet(int fd, std::string_view text, bool with_nul) {
    Bytes b = bytes_of(text, with_nul);
    return send_packet(fd, b);
}

std::optional<Bytes> recv_exact(int fd, std::size_t length, int timeout_ms) {
    Bytes out(length);
    std::size_t got = 0;
    while (got < length) {
        if (!wait_readable(fd, timeout_ms)) return std::nullopt;
        ssize_t n = recv(fd, out.data() + got, length - got, 0);
        if (n < 0 && errno == EINTR) continue;
        if (n <= 0) return std::nullopt;
        got += static_cast<std::size_t>(n);
    }
    return out;
}

std::optional<Bytes> recv_packet(int fd, int timeout_ms) {
    auto header = recv_exact(fd, 4, timeout_ms);
    if (!header) return std::nullopt;
    uint32_t length;
    std::memcpy(&length, header->data(), 4);
    return recv_exact(fd, ntohl(length), timeout_ms);
}

bool wait_closed(int fd, int timeout_ms) {
    uint8_t sink[256];
    for (;;) {
        if (!wait_readable(fd, timeout_ms)) return false;
        ssize_t n = recv(fd, sink, sizeof sink, 0);
        if (n == 0) return true;
        if (n < 0 && errno != EINTR) return true;
    }
}

SocketPair::SocketPair() { socketpair(AF_UNIX, SOCK_STREAM, 0, fd); }

SocketPair::~SocketPair() {
    for (int f : fd)
        if (f >= 0) close(f);
}

}  // namespace zrpc::test
