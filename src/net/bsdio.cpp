// BSD sockets driver, connection side: socket creation and tuning, client
// connect with refusal retries, server accept of one peer, and the entry table.
#include "net/bsdio.h"

#include <arpa/inet.h>
#include <netdb.h>
#include <netinet/in.h>
#include <netinet/tcp.h>
#include <sys/select.h>
#include <sys/socket.h>
#include <unistd.h>

#include <algorithm>
#include <cctype>
#include <cerrno>
#include <cstdlib>
#include <cstring>
#include <new>

#include "net/netutil.h"

extern "C" const int32_t SEND_TIMEOUT = 0;
extern "C" const int32_t RECEIVE_TIMEOUT = 0;
extern "C" const int32_t SEND_BUFFER_SIZE = 16384;
extern "C" const int32_t RECEIVE_BUFFER_SIZE = 16384;
extern "C" const int32_t RECEIVE_LOWWATERMARK = 8192;

namespace zrpc {
namespace {

constexpr int kDefaultAttempts = 5;
constexpr int kListenBacklog = 5;
constexpr int kSafeLowWaterMark = 1;

// A null slot takes the default; negative values fall back to it too.
int option_or_default(char **options, int slot, int fallback) {
    if (options == nullptr || options[slot] == nullptr) return fallback;
    int value = std::atoi(options[slot]);
    return value < 0 ? fallback : value;
}

int option_int(char **options, int slot) {
    return options != nullptr && options[slot] != nullptr ? std::atoi(options[slot]) : 0;
}

const char *option_text(char **options, int slot) {
    return options != nullptr ? options[slot] : nullptr;
}

struct BufferSide {
    int option;
    const char *obtain;
    const char *increase;
    const char *check;
    const char *differs;
};

constexpr BufferSide kSendSide{SO_SNDBUF, "Failed to obtain socket send buffer size\n- %s\n",
                               "Failed to increase send socket buffer size to %d\n- %s\n",
                               "Failed to check socket send buffer size\n- %s\n",
                               "Reported socket send buffer size (%d) is not what was set (%d)\n"};
constexpr BufferSide kReceiveSide{
    SO_RCVBUF, "Failed to obtain socket receive buffer size\n- %s\n",
    "Failed to increase receive socket buffer size to %d\n- %s\n",
    "Failed to check socket receive buffer size\n- %s\n",
    "Reported socket receive buffer size (%d) is not what was set (%d)\n"};

// Raises one buffer to `wanted`; a smaller or equal wish leaves it alone.
int32_t raise_buffer(BsdConnection &c, const BufferSide &side, int wanted) {
    int current = 0;
    socklen_t len = sizeof current;
    if (getsockopt(c.socket, SOL_SOCKET, side.option, &current, &len) != 0) {
        set_message(c, side.obtain, ErrorText(errno).get());
        return 1;
    }
    if (wanted < 1 || current >= wanted) return 0;
    if (setsockopt(c.socket, SOL_SOCKET, side.option, &wanted, sizeof wanted) != 0) {
        set_message(c, side.increase, wanted, ErrorText(errno).get());
        return 1;
    }
    int reported = 0;
    len = sizeof reported;
    if (getsockopt(c.socket, SOL_SOCKET, side.option, &reported, &len) != 0) {
        set_message(c, side.check, ErrorText(errno).get());
        return 1;
    }
    // Some kernels report a doubled size; that is worth a note, not a failure.
    if (reported != wanted) set_message(c, side.differs, reported, wanted);
    return 0;
}

void set_timeout(int socket, int option, int seconds) {
    if (seconds == 0) return;
    timeval tv{};
    socklen_t len = sizeof tv;
    if (getsockopt(socket, SOL_SOCKET, option, &tv, &len) != 0) return;
    tv.tv_sec = seconds;
    tv.tv_usec = 0;
    (void)setsockopt(socket, SOL_SOCKET, option, &tv, sizeof tv);
}

void close_socket(BsdConnection &c) {
    if (c.socket != -1) close(c.socket);
    c.socket = -1;
}

void sleep_us(long microseconds) {
    timeval tv{microseconds / 1000000, microseconds % 1000000};
    (void)select(0, nullptr, nullptr, nullptr, &tv);
}

int32_t serve(BsdConnection &c, uint16_t port_be) {
    int one = 1;  // lets a test or a restarted server bind the same port at once
    (void)setsockopt(c.socket, SOL_SOCKET, SO_REUSEADDR, &one, sizeof one);
    sockaddr_in addr{};
    addr.sin_family = AF_INET;
    addr.sin_addr.s_addr = htonl(INADDR_ANY);
    addr.sin_port = port_be;
    if (bind(c.socket, reinterpret_cast<sockaddr *>(&addr), sizeof addr) != 0) {
        int err = errno;
        close_socket(c);
        set_message(c, "Failed to bind socket \nbind()\n- %s\n", ErrorText(err).get());
        return 1;
    }
    if (listen(c.socket, kListenBacklog) != 0) {
        int err = errno;
        close_socket(c);
        set_message(c, "Failed to listen on port \nlisten()\n- %s\n", ErrorText(err).get());
        return 1;
    }
    int peer = accept(c.socket, nullptr, nullptr);
    if (peer < 0) {
        int err = errno;
        close_socket(c);
        set_message(c, "Failed to accept connection \naccept()\n- %s\n", ErrorText(err).get());
        return 1;
    }
    // One peer per connection: the listener is not needed any more. The peer
    // socket inherits the listener's tuning.
    close(c.socket);
    c.socket = peer;
    return 0;
}

// Fills `addr` for `host`; 1 with the message set when the lookup fails.
int32_t resolve(BsdConnection &c, const char *host, in_addr_t &addr) {
    addr = 1;
    if (is_ipaddress(host)) addr = inet_addr(host);
    if (addr != INADDR_NONE && std::isdigit(static_cast<unsigned char>(host[0]))) return 0;
    hostent entry{};
    hostent *result = nullptr;
    char work[512];
    int h_error = 0;
    int rc = gethostbyname_r(host, &entry, work, sizeof work, &result, &h_error);
    if (rc != 0 || result == nullptr || result->h_addr_list[0] == nullptr) {
        endhostent();
        // The resolver code goes through the system error table as an errno.
        set_message(c, "Failed to get hostname %s \ngethostbyname(), h_error=%d\n- %s", host,
                    h_error, ErrorText(h_error).get());
        return 1;
    }
    std::memcpy(&addr, result->h_addr_list[0], 4);
    endhostent();
    return 0;
}

int32_t connect_out(BsdConnection &c, char **options, uint16_t port_be, int max_attempts) {
    const char *host = option_text(options, 0);
    if (host == nullptr) host = "";
    long attempts = 0;
    int result = 0;
    int err = 0;
    do {
        sockaddr_in addr{};
        addr.sin_family = AF_INET;
        addr.sin_port = port_be;
        if (resolve(c, host, addr.sin_addr.s_addr) != 0) return 1;
        result = connect(c.socket, reinterpret_cast<sockaddr *>(&addr), sizeof addr);
        if (result == 0) {
            c.connected = 1;
            return 0;
        }
        err = errno;
        if (err != ECONNREFUSED) break;
        ++attempts;
        sleep_us(attempts * 100000L);  // the peer may still be starting: back off a little more each time
        close_socket(c);
        if (create_and_setup_socket(c, options) != 0) return 1;
    } while (attempts < max_attempts);

    if (err != ECONNREFUSED)
        set_message(c, "Failed to connect, connect()=%d %s\n", result, ErrorText(err).get());
    else
        set_message(c, "Connection refused, connect(), after %ld attempt%s\n", attempts,
                    attempts <= 1 ? "" : "s");
    close_socket(c);
    return 1;
}

}  // namespace

int32_t create_and_setup_socket(BsdConnection &c, char **options) {
    int fd = socket(AF_INET, SOCK_STREAM, 0);
    if (fd < 0) {
        set_message(c, "Failed to create socket \nsocket(AF_INET, SOCKSTREAM,..)=%d\n- %s\n,\n", -1,
                    ErrorText(errno).get());
        return 1;
    }
    c.socket = fd;
    int one = 1;
    if (setsockopt(fd, IPPROTO_TCP, TCP_NODELAY, &one, sizeof one) != 0) {
        set_message(c, "Failed to set TCP_NODELAY\n- %s\n", ErrorText(errno).get());
        return 1;
    }
    c.rcvbuf = option_or_default(options, 7, RECEIVE_BUFFER_SIZE);
    c.sndbuf = option_or_default(options, 8, SEND_BUFFER_SIZE);
    if (set_sndrcv_buf_sizes(c) != 0) return 1;
    // Linux wakes a blocked reader only once the low-water mark's worth of
    // data has arrived, even for a read of fewer bytes, so any mark above one
    // byte stalls a request/response exchange of small packets. The option is
    // still read; its effect is capped at the one byte that cannot stall.
    int lowat = option_or_default(options, 6, RECEIVE_LOWWATERMARK);
    if (lowat != 0) set_rcvlowat(c, std::min(lowat, kSafeLowWaterMark));
    set_sndrcv_timeo(c, option_int(options, 11), option_int(options, 12));
    return 0;
}

int32_t set_sndrcv_buf_sizes(BsdConnection &c) {
    if (raise_buffer(c, kSendSide, c.sndbuf) != 0) return 1;
    return raise_buffer(c, kReceiveSide, c.rcvbuf);
}

int32_t set_rcvlowat(BsdConnection &c, int value) {
    int current = 0;
    socklen_t len = sizeof current;
    if (getsockopt(c.socket, SOL_SOCKET, SO_RCVLOWAT, &current, &len) != 0 || current >= value)
        return 0;
    (void)setsockopt(c.socket, SOL_SOCKET, SO_RCVLOWAT, &value, sizeof value);
    return 0;
}

int32_t set_sndrcv_timeo(BsdConnection &c, int receive_seconds, int send_seconds) {
    set_timeout(c.socket, SO_RCVTIMEO, receive_seconds == -1 ? 0 : receive_seconds);
    set_timeout(c.socket, SO_SNDTIMEO, send_seconds == -1 ? 0 : send_seconds);
    return 0;
}

bool is_ipaddress(const char *text) {
    if (text == nullptr || *text == '\0') return false;
    bool dot = false;
    for (const char *p = text; *p != '\0'; ++p) {
        if (*p == '.')
            dot = true;
        else if (!std::isdigit(static_cast<unsigned char>(*p)))
            return false;
    }
    return dot;
}

int32_t BSDterm() { return 0; }

int32_t BSDconn(void **out, uint32_t mode, char **options, int32_t /*descriptor*/) {
    auto *c = static_cast<BsdConnection *>(std::malloc(sizeof(BsdConnection)));
    *out = c;
    if (c == nullptr) return 1;
    c->socket = -1;
    c->rcvbuf = 0;
    c->sndbuf = 0;
    c->message[0] = '\0';
    c->mode = mode;
    c->connected = 0;

    int max_attempts = option_or_default(options, 9, kDefaultAttempts);
    (void)option_int(options, 10);  // accepted for compatibility, no effect

    if (create_and_setup_socket(*c, options) != 0) return 1;
    const char *port_text = option_text(options, 1);
    if (port_text == nullptr) {
        set_message(*c, "Missing Port\n");
        return 1;
    }
    uint16_t port_be = htons(static_cast<uint16_t>(std::atoi(port_text)));
    if (mode != 0) return serve(*c, port_be);
    return connect_out(*c, options, port_be, max_attempts);
}

int32_t BSDerror(void *conn, const char **text) {
    *text = conn != nullptr ? static_cast<BsdConnection *>(conn)->message : "no message";
    return 0;
}

}  // namespace zrpc

extern "C" int32_t BSDinit(NETDriver *entry) {
    entry->description = "BSD Sockets Interface";
    entry->term = zrpc::BSDterm;
    entry->conn = zrpc::BSDconn;
    entry->disc = zrpc::BSDdisc;
    entry->send = zrpc::BSDsend;
    entry->recv = zrpc::BSDrecv;
    entry->error = zrpc::BSDerror;
    return 0;
}
