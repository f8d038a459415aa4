/*
 * Example client: the application side of a bridge. It connects to the
 * example server, asks it to trace the calls it serves, and calls each of
 * its functions, printing what every call sent and what came back.
 *
 *   zephrpc_example_client HOST PORT
 */
#include <stdio.h>
#include <stdlib.h>
#include <string.h>

#include <zephrpc.h>

#define BSD_SOCKETS 1 /* transport number of the BSD sockets driver */

/* Called by RPCExec whenever a call fails, after the handle is unlocked. */
static void on_error(int32_t code, void *arg) {
    HRPC h = arg;
    const char *text = NULL;
    RPCReportError(h, &text);
    printf("client: error callback: code %d (%s)\n", code, text ? text : "");
}

static RPCMemDesc block(void *buffer, int32_t length) {
    RPCMemDesc d;
    memset(&d, 0, sizeof d);
    d.value = buffer;
    d.length = length;
    return d;
}

static int fail(HRPC h, const char *what) {
    const char *text = NULL;
    int32_t code = RPCReportError(h, &text);
    fprintf(stderr, "client: %s failed: error %d: %s\n", what, code, text ? text : "");
    return 1;
}

/* Every argument of RPCExec is 8 bytes wide: integers are passed as int64_t
 * (SQLLEN values as int64_t, SQLULEN as uint64_t), outputs and blocks as
 * pointers. */
static int run_calls(HRPC h) {
    int32_t sum = 0, i, row;
    int64_t rows = 0;
    uint64_t bytes = 0;
    char text[] = "hello bridge";
    char reply_buf[64];
    RPCMemDesc in, out;
    void *statement = NULL;

    if (RPCExec(h, "add", (int64_t)2, (int64_t)40, &sum)) return fail(h, "add");
    printf("client: add(a=2, b=40) -> sum=%d\n", sum);

    if (RPCExec(h, "row_count", (int64_t)10, &rows, &bytes)) return fail(h, "row_count");
    printf("client: row_count(first=10) -> rows=%lld (SQLLEN), bytes=%llu (SQLULEN)\n",
           (long long)rows, (unsigned long long)bytes);

    /* A NUL-terminated string travels with length -3. */
    in = block(text, -3);
    out = block(reply_buf, sizeof reply_buf);
    if (RPCExec(h, "shout", &in, &out)) return fail(h, "shout");
    printf("client: shout(text=\"%s\") -> reply=\"%.*s\" (%d bytes, into our buffer)\n", text,
           out.length, (char *)out.value, out.length);

    /* Room 0: the library allocates the buffer and we free it. */
    out = block(NULL, 0);
    if (RPCExec(h, "fetch", (int64_t)26, &out)) return fail(h, "fetch");
    printf("client: fetch(size=26) -> data=\"%.*s\" (%d bytes, allocated for us)\n", out.length,
           (char *)out.value, out.length);
    free(out.value);

    {
        int32_t values[4] = {1, 2, 3, 4}, scaled[4] = {0};
        int64_t lengths[4] = {0};
        RPCMemDesc v = block(values, sizeof values), s = block(scaled, sizeof scaled),
                   l = block(lengths, sizeof lengths);
        if (RPCExec(h, "scale", &v, (int64_t)10, &s, &l)) return fail(h, "scale");
        printf("client: scale(values={1,2,3,4}, factor=10) -> scaled={%d,%d,%d,%d}, "
               "lengths={%lld,%lld,%lld,%lld}\n", scaled[0], scaled[1], scaled[2], scaled[3],
               (long long)lengths[0], (long long)lengths[1], (long long)lengths[2],
               (long long)lengths[3]);
    }

    /* The server's statement handle is opaque here; it goes back as is. */
    if (RPCExec(h, "open_statement", (int64_t)3, &statement)) return fail(h, "open_statement");
    printf("client: open_statement(rows=3) -> statement=%p\n", statement);
    for (i = 0; i < 5; ++i) {
        if (RPCExec(h, "next_row", statement, &row)) return fail(h, "next_row");
        printf("client: next_row(statement=%p) -> row=%d\n", statement, row);
        if (row < 0) break;
    }
    if (RPCExec(h, "close_statement", statement)) return fail(h, "close_statement");
    printf("client: close_statement(statement=%p)\n", statement);

    {
        /* A variant array: typed, empty elements that the server fills. */
        int32_t type = 0;
        int64_t size = 0;
        char name[32] = "";
        RPCVariant columns[3];
        RPCMemDesc c;
        columns[0].data = &type, columns[0].length = 4, columns[0].type = RPC_V_INT32;
        columns[1].data = name, columns[1].length = sizeof name, columns[1].type = RPC_V_MEM;
        columns[2].data = &size, columns[2].length = 8, columns[2].type = RPC_V_SQLLEN;
        c = block(columns, 3);
        if (RPCExec(h, "describe", &c)) return fail(h, "describe");
        printf("client: describe(3 elements) -> type=%d, name=\"%s\", size=%lld\n", type, name,
               (long long)size);
    }

    /* An unknown name fails, runs the error callback, and leaves the handle usable. */
    printf("client: calling \"drop_table\", which the server does not export\n");
    if (RPCExec(h, "drop_table", (int64_t)1) == 0) return fail(h, "drop_table");
    if (RPCExec(h, "add", (int64_t)1, (int64_t)1, &sum)) return fail(h, "add after an error");
    printf("client: add(a=1, b=1) -> sum=%d (the handle still works)\n", sum);
    return 0;
}

int main(int argc, char **argv) {
    HRPC h;
    int status;
    if (argc != 3) {
        fprintf(stderr, "usage: %s HOST PORT\n", argv[0]);
        return 2;
    }
    setvbuf(stdout, NULL, _IOLBF, 0);
    h = RPCAllocHandle();
    if (h == NULL || RPCInitialise(h, RPC_MODE_CLIENT, 0) != 0) return 1;
    RPCSetError(h, on_error, h);
    SetTracing(h, "c"); /* the server traces the calls it serves (/tmp/qxrpc.log) */
    if (RPCSetTransportOpts(h, BSD_SOCKETS, argv[1], argv[2], NULL, NULL, NULL, NULL, NULL) != 0)
        return fail(h, "transport options");
    /* The server may still be starting: retry a refused connect for a while. */
    RPCSetLowLTransportOpts(h, 1, RPC_LOWL_ATTEMPTS, "20");
    if (RPCConnect(h, 1, 0, "example") != 0) {
        status = fail(h, "connect");
    } else {
        printf("client: connected to %s:%s\n", argv[1], argv[2]);
        status = run_calls(h);
    }
    RPCDisconnect(h);
    RPCTerminate(h);
    RPCFreeHandle(h);
    return status;
}
