// Layer net: the transport drivers and the switch between them. Includes
// nothing of the library but the public header.
//
// Driver switch internals: the records behind the opaque NET handles.
#pragma once

#include <cstdint>

#include "zephrpc.h"

struct NETContext {
    int32_t transport;
    char message[1024];
};

struct NETConnection {
    char message[1024];
    void *driver_conn;
    NETDriver *driver;  // entry inside the loaded driver table
};

namespace zrpc {

// Process-wide driver table filled by NETLoad: copies of the drivers whose
// init succeeded, in table order. Transport numbers index this array.
extern NETDriver *available_drvs;
extern int32_t available_drv_count;

// Test seam: replaces the compiled-in driver table used by the next NETLoad.
// REQUIRES: no driver table loaded; `table` outlives the load. Null restores
// the built-in table ("*TTY Driver", "*BSD Driver").
void net_set_static_drivers(NETDriver *table, int32_t count);

}  // namespace zrpc
