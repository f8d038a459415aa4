// Raw bytes on the stream as either driver receives them: packet headers,
// error notices, oversized and short packets. The first byte picks the
// driver (TTY over a socketpair, or BSD over TCP loopback).
#include <netinet/in.h>
#include <sys/socket.h>
#include <unistd.h>

#include <string>

#include "harness.h"

namespace {

// A listener on 127.0.0.1 of its own for each input: a connection left over
// from an earlier input can then never be the one accepted.
int listener(uint16_t &port) {
    int fd = socket(AF_INET, SOCK_STREAM, 0);
    sockaddr_in a{};
    a.sin_family = AF_INET;
    a.sin_addr.s_addr = htonl(INADDR_LOOPBACK);
    socklen_t len = sizeof a;
    if (fd < 0 || bind(fd, reinterpret_cast<sockaddr *>(&a), sizeof a) != 0 || listen(fd, 1) != 0 ||
        getsockname(fd, reinterpret_cast<sockaddr *>(&a), &len) != 0) {
        if (fd >= 0) close(fd);
        return -1;
    }
    port = ntohs(a.sin_port);
    return fd;
}

void drain(NETConnection *conn) {
    static uint8_t buffer[4096];
    uint32_t length = 0;
    for (int i = 0; i < 64 && NETReceive(conn, buffer, sizeof buffer, &length) == 0; ++i) {
    }
}

void feed(int fd, const fuzz::Bytes &bytes) {
    if (!bytes.empty() && write(fd, bytes.data(), bytes.size()) < 0) return;
    shutdown(fd, SHUT_WR);
}

}  // namespace

extern "C" int LLVMFuzzerTestOneInput(const uint8_t *data, size_t size) {
    static const bool loaded = NETLoad() == 0;
    if (!loaded) return 0;
    fuzz::Input in(data, size);
    const bool bsd = in.byte() & 1;
    const fuzz::Bytes stream = in.rest();
    NETContext *ctx = nullptr;
    if (NETInitialise(bsd ? 1 : 0, &ctx) != 0) return 0;
    NETConnection *conn = nullptr;
    char *options[NET_OPTION_SLOTS] = {};
    if (bsd) {
        uint16_t port = 0;
        const int l = listener(port);
        std::string host = "127.0.0.1", port_text = std::to_string(port), attempts = "1";
        options[0] = host.data();
        options[1] = port_text.data();
        options[9] = attempts.data();
        if (l >= 0 && NETConnect(ctx, 0, options, 0, &conn) == 0) {
            const int peer = accept(l, nullptr, nullptr);
            if (peer >= 0) {
                feed(peer, stream);
                drain(conn);
                // Reset rather than close: thousands of inputs a second
                // would otherwise leave the loopback ports in TIME_WAIT.
                const linger reset{1, 0};
                setsockopt(peer, SOL_SOCKET, SO_LINGER, &reset, sizeof reset);
                close(peer);
            }
        }
        if (l >= 0) close(l);
    } else {
        int pair[2];
        if (socketpair(AF_UNIX, SOCK_STREAM, 0, pair) == 0) {
            feed(pair[1], stream);
            if (NETConnect(ctx, 1, options, pair[0], &conn) == 0) drain(conn);
            close(pair[0]);
            close(pair[1]);
        }
    }
    NETDisconnect(conn);
    NETTerminate(ctx);
    return 0;
}
