// TTY driver: packets over a descriptor opened by someone else. It adopts the
// descriptor, never opens or closes it.
#include "net/ttyio.h"

#include <arpa/inet.h>
#include <netinet/in.h>
#include <netinet/tcp.h>
#include <poll.h>
#include <sys/socket.h>

#include <cerrno>
#include <climits>
#include <cstdio>
#include <cstdlib>
#include <cstring>

#include "net/netutil.h"

namespace zrpc {

int tty_wait_ms = 5000;

namespace {

constexpr std::size_t kMaxPayload = sizeof(TtyConnection::packet) - 4;
constexpr uint64_t kWaitSeconds = 5;  // what one readiness wait counts against the time-out

__attribute__((format(printf, 2, 3))) void set_message(TtyConnection &c, const char *format, ...) {
    va_list args;
    va_start(args, format);
    vformat_into(c.message, sizeof c.message, format, args);
    va_end(args);
}

// Waits until the descriptor is readable (or the wait fails). 1 when the read
// time-out ran out first.
int32_t wait_for_packet(TtyConnection &c) {
    for (;;) {
        pollfd p{c.descriptor, POLLIN, 0};
        int ready = poll(&p, 1, tty_wait_ms);
        if (c.read_timeout != 0) {
            c.waited += kWaitSeconds;
            if (c.read_timeout < c.waited) {
                c.waited = 0;  // the next receive starts a fresh count
                return 1;
            }
        }
        if (ready != 0) break;  // readable, or an error that the read will report
    }
    c.waited = 0;
    return 0;
}

// Reads until `size` bytes are in, the stream ends or a read fails, retrying
// reads a signal interrupted: a stream may hand bytes over in any pieces (a
// sender's segment can end inside a header). Returns the bytes read; `error`
// is the failed read's errno, 0 when all came or the stream ended.
std::size_t read_fully(int descriptor, uint8_t *buffer, std::size_t size, int &error) {
    std::size_t got = 0;
    error = 0;
    while (got < size) {
        ssize_t n = recv(descriptor, buffer + got, size - got, 0);
        if (n < 0 && errno == EINTR) continue;
        if (n < 0) {
            error = errno;
            break;
        }
        if (n == 0) break;
        got += static_cast<std::size_t>(n);
    }
    return got;
}

}  // namespace

int32_t TTYterm() { return 0; }

int32_t TTYconn(void **out, uint32_t /*mode*/, char **options, int32_t descriptor) {
    auto *c = static_cast<TtyConnection *>(std::malloc(sizeof(TtyConnection)));
    *out = c;
    if (c == nullptr) return 1;
    c->descriptor = descriptor;
    c->read_timeout = 0;
    c->waited = 0;
    int type = 0;
    socklen_t len = sizeof type;
    if (getsockopt(descriptor, SOL_SOCKET, SO_TYPE, &type, &len) == 0) {
        int one = 1;  // fails harmlessly on non-TCP sockets
        (void)setsockopt(descriptor, IPPROTO_TCP, TCP_NODELAY, &one, sizeof one);
    }
    c->message[0] = '\0';
    const char *text = options != nullptr ? options[5] : nullptr;
    if (text != nullptr && *text != '\0') {
        char *end = nullptr;
        unsigned long seconds = std::strtoul(text, &end, 10);
        if (seconds != ULONG_MAX && *end == '\0') c->read_timeout = seconds;
    }
    return 0;
}

int32_t TTYdisc(void *conn) {
    if (conn == nullptr) return 1;
    std::free(conn);
    return 0;
}

int32_t TTYsend(void *conn, const void *data, uint32_t length) {
    auto &c = *static_cast<TtyConnection *>(conn);
    c.message[0] = '\0';
    if (length > kMaxPayload) {
        set_message(c, "Failed to write data \npacket (size=%u) too big for buffer (size=%u)\n",
                    length, static_cast<unsigned>(kMaxPayload));
        return 1;
    }
    uint32_t header = htonl(length);
    std::memcpy(c.packet, &header, 4);
    if (length > 0) std::memcpy(c.packet + 4, data, length);
    int total = static_cast<int>(length) + 4;
    ssize_t sent = send(c.descriptor, c.packet, static_cast<std::size_t>(total), MSG_NOSIGNAL);
    if (sent == total) return 0;
    int err = errno;
    set_message(c, "Failed to write data \nsend(len=%d)=%d- errno=%d(%s)\n", total,
                static_cast<int>(sent), err, ErrorText(err).get());
    return 1;
}

int32_t TTYrecv(void *conn, void *buffer, uint32_t size, uint32_t *length) {
    auto &c = *static_cast<TtyConnection *>(conn);
    c.message[0] = '\0';
    if (wait_for_packet(c) != 0) return 1;

    uint8_t raw[4];
    int error = 0;
    const std::size_t got = read_fully(c.descriptor, raw, sizeof raw, error);
    if (got != sizeof raw) {
        set_message(c, "Failed to read data \n recv(..,4,...)=%d - short read",
                    error != 0 ? -1 : static_cast<int>(got));
        return 1;
    }
    uint32_t header;
    std::memcpy(&header, raw, 4);
    header = ntohl(header);
    *length = header;
    auto wanted = static_cast<int32_t>(header);
    auto room = static_cast<int32_t>(size);
    int32_t remaining = wanted < room ? wanted : room;

    if (header == kErrorNotice) {
        char notice[kNoticeSize];
        ssize_t n = recv(c.descriptor, notice, sizeof notice, 0);
        std::size_t keep = n > 0 ? static_cast<std::size_t>(n) : 0;
        if (keep > sizeof c.message - 1) keep = sizeof c.message - 1;  // room for the terminator
        std::memcpy(c.message, notice, keep);
        c.message[keep] = '\0';
        *length = static_cast<uint32_t>(n);
        return 1;
    }
    if (remaining <= 0) return 0;

    // Only the caller's buffer is filled; the rest of a longer packet stays in
    // the stream for the caller to deal with.
    auto *base = static_cast<uint8_t *>(buffer);
    const std::size_t got_payload = read_fully(c.descriptor, base, static_cast<std::size_t>(remaining), error);
    if (error != 0) {  // going on would hand back a corrupted payload
        set_message(c, "Failed to read data \n recv(..,%d,...)=%d - errno=%d(%s)\n",
                    remaining - static_cast<int32_t>(got_payload), -1, error, ErrorText(error).get());
        return 1;
    }
    if (got_payload < static_cast<std::size_t>(remaining)) return 1;  // end of stream inside the payload
    return 0;
}

int32_t TTYerror(void *conn, const char **text) {
    *text = conn != nullptr ? static_cast<TtyConnection *>(conn)->message : "no message";
    return 0;
}

}  // namespace zrpc

extern "C" int32_t TTYinit(NETDriver *entry) {
    entry->description = "SYSV TTY interface";
    entry->term = zrpc::TTYterm;
    entry->conn = zrpc::TTYconn;
    entry->disc = zrpc::TTYdisc;
    entry->send = zrpc::TTYsend;
    entry->recv = zrpc::TTYrecv;
    entry->error = zrpc::TTYerror;
    return 0;
}
