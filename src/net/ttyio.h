// TTY driver: the same packets over a descriptor that is already open.
#pragma once

#include <cstddef>
#include <cstdint>

#include "zephrpc.h"

namespace zrpc {

struct TtyConnection {
    char message[512];            // first field: TTYerror hands out the object itself
    uint8_t packet[5124];
    int32_t descriptor;
    uint64_t read_timeout;        // seconds; 0 = no limit
    uint64_t waited;
};

int32_t TTYterm();
int32_t TTYconn(void **out, uint32_t mode, char **options, int32_t descriptor);
int32_t TTYdisc(void *conn);
int32_t TTYsend(void *conn, const void *data, uint32_t length);
int32_t TTYrecv(void *conn, void *buffer, uint32_t size, uint32_t *length);
int32_t TTYerror(void *conn, const char **text);

// Length of one readiness wait in milliseconds (5000). Each wait still counts
// as 5 seconds against the read time-out; tests shorten the real wait only.
extern int tty_wait_ms;

}  // namespace zrpc
