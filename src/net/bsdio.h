// BSD sockets driver: length-prefixed packets over one IPv4 TCP connection.
#pragma once

#include <cstddef>
#include <cstdint>

#include "net/netutil.h"
#include "zephrpc.h"

namespace zrpc {

constexpr std::size_t kBsdMessageSize = 5632;
constexpr std::size_t kPacketBufferSize = 5120;  // header plus the largest payload

struct BsdConnection {
    int32_t socket;
    int32_t rcvbuf;
    int32_t sndbuf;
    char message[kBsdMessageSize];
    uint32_t mode;       // 0 client, 1 server
    int32_t connected;   // 1 after a successful client connect
};

int32_t BSDterm();
int32_t BSDconn(void **out, uint32_t mode, char **options, int32_t descriptor);
int32_t BSDdisc(void *conn);
int32_t BSDsend(void *conn, const void *data, uint32_t length);
int32_t BSDrecv(void *conn, void *buffer, uint32_t size, uint32_t *length);
int32_t BSDerror(void *conn, const char **text);

// Socket creation and tuning, run for every new socket (also per retry).
int32_t create_and_setup_socket(BsdConnection &c, char **options);
// Raises SO_SNDBUF/SO_RCVBUF to the wanted sizes; never lowers them.
int32_t set_sndrcv_buf_sizes(BsdConnection &c);
int32_t set_rcvlowat(BsdConnection &c, int value);
// Seconds; 0 and -1 leave the time-out unset.
int32_t set_sndrcv_timeo(BsdConnection &c, int receive_seconds, int send_seconds);

bool is_ipaddress(const char *text);
// Reads exactly `length` bytes; -1 with errno 0 on end of stream.
int safe_recv(int socket, void *buffer, std::size_t length);

// Replaces the connection's message (printf format, cut to fit).
void set_message(BsdConnection &c, const char *format, ...) __attribute__((format(printf, 2, 3)));

}  // namespace zrpc
