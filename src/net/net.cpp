// Driver switch: numbers the usable drivers as transports and forwards every
// connection request to the driver of the chosen transport.
#include "net/net.h"

#include <cstdio>
#include <cstdlib>
#include <cstring>

namespace zrpc {

NETDriver *available_drvs = nullptr;
int32_t available_drv_count = 0;

namespace {

// Compiled-in drivers; the order fixes the transport numbers.
NETDriver drvs[] = {
    {"*TTY Driver", TTYinit, 0, nullptr, nullptr, nullptr, nullptr, nullptr, nullptr, nullptr},
    {"*BSD Driver", BSDinit, 0, nullptr, nullptr, nullptr, nullptr, nullptr, nullptr, nullptr},
};

NETDriver *static_drivers = drvs;
int32_t static_driver_count = static_cast<int32_t>(sizeof drvs / sizeof drvs[0]);

bool valid_transport(int32_t number) { return number >= 0 && number < available_drv_count; }

}  // namespace

void net_set_static_drivers(NETDriver *table, int32_t count) {
    if (table == nullptr) {
        static_drivers = drvs;
        static_driver_count = static_cast<int32_t>(sizeof drvs / sizeof drvs[0]);
    } else {
        static_drivers = table;
        static_driver_count = count;
    }
}

}  // namespace zrpc

using zrpc::available_drv_count;
using zrpc::available_drvs;

extern "C" uint32_t NETLoad(void) {
    std::free(available_drvs);  // a repeated load replaces the table instead of leaking it
    available_drvs = nullptr;

    int32_t count = 0;
    for (int32_t i = 0; i < zrpc::static_driver_count; ++i) {
        NETDriver &entry = zrpc::static_drivers[i];
        entry.available = entry.init(&entry) == 0 ? 1 : 0;
        if (entry.available) ++count;
    }
    available_drv_count = count;
    if (count == 0) return 0;

    available_drvs = static_cast<NETDriver *>(std::calloc(count, sizeof(NETDriver)));
    if (available_drvs == nullptr) return 1;
    int32_t next = 0;
    for (int32_t i = 0; i < zrpc::static_driver_count; ++i)
        if (zrpc::static_drivers[i].available) available_drvs[next++] = zrpc::static_drivers[i];
    return 0;
}

extern "C" uint32_t NETUnload(void) {
    std::free(available_drvs);
    available_drvs = nullptr;
    available_drv_count = 0;
    return 0;
}

extern "C" uint32_t NETTransportName(int32_t number, const char **name, const char **description) {
    if (!zrpc::valid_transport(number) || available_drvs == nullptr) return 1;
    *name = available_drvs[number].name;
    *description = available_drvs[number].description;
    return 0;
}

extern "C" uint32_t NETInitialise(int32_t number, NETContext **context) {
    auto *ctx = static_cast<NETContext *>(std::malloc(sizeof(NETContext)));
    *context = ctx;
    if (ctx == nullptr) return 1;
    ctx->message[0] = '\0';
    if (!zrpc::valid_transport(number)) {
        ctx->transport = -1;  // never indexes the table, even if the caller connects anyway
        std::snprintf(ctx->message, sizeof ctx->message, "Invalid Transport - %d\n", number);
        return 1;
    }
    ctx->transport = number;
    return 0;
}

extern "C" uint32_t NETTerminate(NETContext *context) {
    std::free(context);
    return 0;
}

extern "C" uint32_t NETConnect(NETContext *context, uint32_t mode, char **options,
                               int32_t descriptor, NETConnection **connection) {
    context->message[0] = '\0';
    auto *conn = static_cast<NETConnection *>(std::malloc(sizeof(NETConnection)));
    *connection = conn;
    if (conn == nullptr) {
        std::snprintf(context->message, sizeof context->message, "Insufficient virtual memory");
        return 1;
    }
    conn->message[0] = '\0';
    conn->driver_conn = nullptr;
    conn->driver = nullptr;
    // A table unloaded or reloaded since NETInitialise must not be indexed blindly.
    if (!zrpc::valid_transport(context->transport) || available_drvs == nullptr) {
        std::snprintf(context->message, sizeof context->message, "Invalid Transport - %d\n",
                      context->transport);
        return 1;
    }
    conn->driver = &available_drvs[context->transport];
    void *driver_conn = nullptr;
    int32_t rc = conn->driver->conn(&driver_conn, mode, options, descriptor);
    conn->driver_conn = driver_conn;
    if (rc != 0 && driver_conn == nullptr)
        std::snprintf(context->message, sizeof context->message, "Insufficient virtual memory\n");
    return rc != 0 ? 1 : 0;
}

extern "C" uint32_t NETSend(NETConnection *connection, const void *data, uint32_t length) {
    connection->message[0] = '\0';
    return static_cast<uint32_t>(connection->driver->send(connection->driver_conn, data, length));
}

extern "C" uint32_t NETReceive(NETConnection *connection, void *buffer, uint32_t size,
                               uint32_t *length) {
    connection->message[0] = '\0';
    return static_cast<uint32_t>(
        connection->driver->recv(connection->driver_conn, buffer, size, length));
}

extern "C" uint32_t NETDisconnect(NETConnection *connection) {
    if (connection == nullptr) return 0;
    connection->message[0] = '\0';
    if (connection->driver != nullptr) connection->driver->disc(connection->driver_conn);
    std::free(connection);
    return 0;
}

extern "C" uint32_t NETError(NETContext *context, NETConnection *connection, const char **text) {
    if (context != nullptr) {
        *text = context->message;
    } else if (connection != nullptr) {
        *text = connection->message;
        if (connection->message[0] == '\0' && connection->driver != nullptr)
            connection->driver->error(connection->driver_conn, text);
    } else {
        *text = "unknown error";
    }
    return 0;
}
