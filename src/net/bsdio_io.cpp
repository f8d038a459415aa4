// BSD sockets driver, traffic side: packet send and receive, the error
// notice, the oversized-packet sample and the graceful close.
#include <arpa/inet.h>
#include <poll.h>
#include <sys/socket.h>
#include <unistd.h>

#include <cctype>
#include <cerrno>
#include <cstdarg>
#include <cstdio>
#include <cstdlib>
#include <cstring>

#include "net/bsdio.h"

namespace zrpc {
namespace {

constexpr std::size_t kMaxPayload = kPacketBufferSize - 4;
constexpr std::size_t kSampleSize = 255;
constexpr int kSampleWaitMs = 500;

// Cuts the text at its first byte that is not a letter, digit, punctuation or blank.
std::size_t cut_printable(char *text, std::size_t length) {
    std::size_t i = 0;
    while (i < length) {
        auto ch = static_cast<unsigned char>(text[i]);
        if (!std::isalnum(ch) && !std::ispunct(ch) && !std::isblank(ch)) break;
        ++i;
    }
    text[i] = '\0';
    return i;
}

bool wait_readable(int fd, int timeout_ms) {
    pollfd p{fd, POLLIN, 0};
    return poll(&p, 1, timeout_ms) > 0;
}

// What an oversized header and the bytes behind it look like, for the failure
// text. Consumes at most the sample's room from the stream.
void gather_sample(int fd, const uint8_t header[4], uint32_t buffer_size, char (&sample)[kSampleSize + 1]) {
    std::memcpy(sample, header, 4);
    std::size_t length = cut_printable(sample, 4);
    std::size_t consumed = 4;
    while (consumed < kSampleSize && length < buffer_size) {
        if (!wait_readable(fd, kSampleWaitMs)) break;
        ssize_t n = recv(fd, sample + length, kSampleSize - consumed, 0);
        if (n <= 0) break;
        consumed += static_cast<std::size_t>(n);
        length = cut_printable(sample, length + static_cast<std::size_t>(n));
    }
}

// The peer announced a failure: its text becomes our message and the
// connection ends here.
int32_t take_error_notice(BsdConnection &c, uint32_t *length) {
    // The receive low-water mark is never above one byte, so a short text
    // arrives without waiting for more.
    ssize_t n = recv(c.socket, c.message, kNoticeSize, 0);
    c.message[n > 0 ? n : 0] = '\0';  // the peer's text need not carry its terminator
    *length = static_cast<uint32_t>(n);
    shutdown(c.socket, SHUT_WR);
    close(c.socket);
    c.socket = -1;
    return 1;
}

}  // namespace

void set_message(BsdConnection &c, const char *format, ...) {
    va_list args;
    va_start(args, format);
    vformat_into(c.message, sizeof c.message, format, args);
    va_end(args);
}

int safe_recv(int socket, void *buffer, std::size_t length) {
    if (length == 0) return 0;
    auto *p = static_cast<uint8_t *>(buffer);
    std::size_t total = 0;
    while (total < length) {
        errno = 0;
        ssize_t n = recv(socket, p + total, length - total, MSG_WAITALL);
        if (n < 0) {
            if (errno == EINTR) {
                std::fputs("Interrupted\n", stdout);
                errno = 0;
                continue;
            }
            return static_cast<int>(n);
        }
        if (n == 0) {
            errno = 0;
            return -1;  // end of stream
        }
        total += static_cast<std::size_t>(n);
    }
    return static_cast<int>(total);
}

int32_t BSDsend(void *conn, const void *data, uint32_t length) {
    auto &c = *static_cast<BsdConnection *>(conn);
    c.message[0] = '\0';
    if (length > kMaxPayload) {
        set_message(c, "Failed to send data \nPacket (size=%u) too big for buffer (size=%u)\n", length,
                    static_cast<unsigned>(kMaxPayload));
        return 1;
    }
    // Header and payload leave together: one send in the common case.
    uint8_t packet[kPacketBufferSize];
    uint32_t header = htonl(length);
    std::memcpy(packet, &header, 4);
    if (length > 0) std::memcpy(packet + 4, data, length);

    std::size_t remaining = length + 4;
    const uint8_t *pos = packet;
    int err = 0;
    while (remaining > 0) {
        // No SIGPIPE: a vanished peer is reported, not fatal to the process.
        ssize_t n = send(c.socket, pos, remaining, MSG_NOSIGNAL);
        if (n >= 0) {
            pos += n;
            remaining -= static_cast<std::size_t>(n);
            continue;
        }
        if (errno == EINTR) continue;
        err = errno;
        break;
    }
    if (remaining == 0) return 0;
    if (err == EPIPE)
        set_message(c, "Connection closed by peer");
    else
        set_message(c, "Failed to send data \nsend(len=%u)\n- %s\n", static_cast<unsigned>(remaining),
                    ErrorText(err).get());
    return 1;
}

int32_t BSDrecv(void *conn, void *buffer, uint32_t size, uint32_t *length) {
    auto &c = *static_cast<BsdConnection *>(conn);
    c.message[0] = '\0';
    uint8_t raw[4];
    int got = safe_recv(c.socket, raw, 4);
    if (got != 4) {
        int err = errno;
        if (c.mode == 0 && got == -1 && err == 0)
            set_message(c, "Connection closed by peer");
        else
            set_message(c, "Failed to receive packet header, recv()=%d - %s (errno=%d)", got,
                        ErrorText(err).get(), err);
        return 1;
    }
    uint32_t header;
    std::memcpy(&header, raw, 4);
    header = ntohl(header);
    *length = header;

    if (header == kErrorNotice) return take_error_notice(c, length);
    if (header > size) {
        char sample[kSampleSize + 1];
        gather_sample(c.socket, raw, size, sample);
        set_message(c, "Failed to receive data \nPacket (size=%x) too big for buffer (size=%d) (%s)\n",
                    header, static_cast<int>(size), sample);
        return 1;
    }
    int read = safe_recv(c.socket, buffer, header);
    if (read != static_cast<int>(header)) {
        set_message(c, "Failed to receive data \nrecv(len=%u)\n- %s\n", header, ErrorText(errno).get());
        return 1;
    }
    return 0;
}

int32_t BSDdisc(void *conn) {
    if (conn == nullptr) return 1;
    auto *c = static_cast<BsdConnection *>(conn);
    if (c->connected == 1 && c->socket != -1) {
        // Tell the peer we are done and let it finish first, so it sees an
        // orderly end rather than a reset.
        shutdown(c->socket, SHUT_WR);
        char sink[1024];
        while (recv(c->socket, sink, sizeof sink, 0) > 0) {
        }
    }
    if (c->socket != -1) close(c->socket);
    c->socket = -1;
    c->message[0] = '\0';
    std::free(c);
    return 0;
}

}  // namespace zrpc
