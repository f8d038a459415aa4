/*
 * Example server: the database side of a bridge. It exports a few functions
 * shaped like the calls a driver bridge forwards (scalars, lengths, strings,
 * buffers, typed arrays, statement handles, column descriptions), serves one
 * client over TCP and exits when that client goes away.
 *
 *   zephrpc_example_server PORT
 */
#include <ctype.h>
#include <stdio.h>
#include <stdlib.h>
#include <string.h>

#include <zephrpc.h>

#define BSD_SOCKETS 1 /* transport number of the BSD sockets driver */

/* The next argument of a served function: a pointer to its value slot (for
 * scalars) or to its memory descriptor (for blocks). */
#define NEXT(cursor) __RPCextractarg(&(cursor))

/* add(a, b) -> sum */
static int32_t add(RPCParam *args) {
    RPCParam *cur = args;
    int32_t a = *(int32_t *)NEXT(cur);
    int32_t b = *(int32_t *)NEXT(cur);
    printf("server: add(%d, %d)\n", a, b);
    __RPCsetarg(&cur, a + b);
    return 0;
}

/* row_count(first) -> rows, bytes: SQLLEN and SQLULEN values. */
static int32_t row_count(RPCParam *args) {
    RPCParam *cur = args;
    int64_t first = *(int64_t *)NEXT(cur);
    printf("server: row_count(first=%lld)\n", (long long)first);
    __RPCsetarg(&cur, (int64_t)(1000 - first));        /* SQLLEN */
    __RPCsetarg(&cur, (uint64_t)(1000 - first) * 512); /* SQLULEN */
    return 0;
}

/* shout(text) -> reply: a string in, a block out into the caller's buffer. */
static int32_t shout(RPCParam *args) {
    RPCParam *cur = args;
    RPCMemDesc *text = NEXT(cur);
    RPCMemDesc *reply = NEXT(cur);
    int32_t i, n = text->length; /* the string's length with its terminator */
    printf("server: shout(\"%s\", room for %d bytes)\n", (char *)text->value, reply->length);
    if (n > reply->length) n = reply->length; /* never past the client's room */
    for (i = 0; i < n; ++i) ((char *)reply->value)[i] = (char)toupper(((char *)text->value)[i]);
    reply->length = n;
    return 0;
}

/* fetch(size) -> data: the client gave no buffer, so the server makes one.
 * The library frees whatever the slot holds once the reply is sent. */
static int32_t fetch(RPCParam *args) {
    RPCParam *cur = args;
    int32_t size = *(int32_t *)NEXT(cur);
    RPCMemDesc *data = NEXT(cur);
    unsigned char *bytes;
    int32_t i;
    printf("server: fetch(%d)\n", size);
    free(data->value); /* replaces whatever buffer the announced room gave */
    bytes = malloc(size > 0 ? (size_t)size : 1);
    if (bytes == NULL) size = 0;
    for (i = 0; i < size; ++i) bytes[i] = (unsigned char)('a' + i % 26);
    data->value = bytes;
    data->length = size;
    return 0;
}

/* scale(values, factor) -> scaled, lengths: typed arrays both ways. */
static int32_t scale(RPCParam *args) {
    RPCParam *cur = args;
    RPCMemDesc *values = NEXT(cur);
    int32_t factor = *(int32_t *)NEXT(cur);
    RPCMemDesc *scaled = NEXT(cur);
    RPCMemDesc *lengths = NEXT(cur);
    int32_t i, n = values->length / 4;
    printf("server: scale(%d values, factor %d)\n", n, factor);
    if (scaled->length < values->length || lengths->length < n * 8) n = 0;
    for (i = 0; i < n; ++i) {
        ((int32_t *)scaled->value)[i] = ((int32_t *)values->value)[i] * factor;
        ((int64_t *)lengths->value)[i] = (int64_t)i * 100;
    }
    scaled->length = n * 4;
    lengths->length = n * 8;
    return 0;
}

/* A statement handle: created here, held by the client as an opaque
 * pointer, passed back on later calls. */
typedef struct Statement {
    HRPC connection;
    int32_t next_row;
    int32_t last_row;
} Statement;

static int32_t open_statement(RPCParam *args) {
    RPCParam *cur = args;
    HRPC connection = *(HRPC *)NEXT(cur); /* RPC_HANDLE: filled in locally */
    int32_t rows = *(int32_t *)NEXT(cur);
    Statement *st = malloc(sizeof *st);
    if (st != NULL) {
        st->connection = connection;
        st->next_row = 1;
        st->last_row = rows;
    }
    printf("server: open_statement(%d rows) -> %p\n", rows, (void *)st);
    __RPCsetarg(&cur, (void *)st);
    return 0;
}

static int32_t next_row(RPCParam *args) {
    RPCParam *cur = args;
    Statement *st = *(Statement **)NEXT(cur);
    int32_t row = -1; /* no more rows */
    if (st != NULL && st->next_row <= st->last_row) row = st->next_row++;
    printf("server: next_row(%p) -> %d\n", (void *)st, row);
    __RPCsetarg(&cur, row);
    return 0;
}

static int32_t close_statement(RPCParam *args) {
    RPCParam *cur = args;
    Statement *st = *(Statement **)NEXT(cur);
    printf("server: close_statement(%p)\n", (void *)st);
    free(st);
    return 0;
}

/* describe(columns): the client sends empty, typed elements; the server
 * fills each with a value of its type. */
static int32_t describe(RPCParam *args) {
    RPCParam *cur = args;
    RPCMemDesc *columns = NEXT(cur);
    RPCVariant *v = columns->value;
    int32_t i;
    printf("server: describe(%d elements)\n", columns->length);
    for (i = 0; i < columns->length; ++i) {
        if (v[i].type == RPC_V_INT32) *(int32_t *)v[i].data = 3;            /* column type */
        if (v[i].type == RPC_V_SQLLEN) *(int64_t *)v[i].data = 255;         /* column size */
        if (v[i].type == RPC_V_MEM) strncpy(v[i].data, "customer_name", (size_t)v[i].length);
    }
    return 0;
}

#define IN(type, text) {.flags = (type) | RPC_IN, .name = (text)}
#define OUT(type, text) {.flags = (type) | RPC_OUT, .name = (text)}

static RPCFuncDesc table[] = {
    {.name = "add", .entry = add,
     .params = {IN(RPC_INT32, "a"), IN(RPC_INT32, "b"), OUT(RPC_INT32, "sum")}},
    {.name = "row_count", .entry = row_count,
     .params = {IN(RPC_SQLLEN, "first"), OUT(RPC_SQLLEN, "rows"), OUT(RPC_SQLULEN, "bytes")}},
    {.name = "shout", .entry = shout, .params = {IN(RPC_MEM, "text"), OUT(RPC_MEM, "reply")}},
    {.name = "fetch", .entry = fetch, .params = {IN(RPC_INT32, "size"), OUT(RPC_MEM, "data")}},
    {.name = "scale", .entry = scale,
     .params = {IN(RPC_INT32_ARRAY, "values"), IN(RPC_INT32, "factor"),
                OUT(RPC_INT32_ARRAY, "scaled"), OUT(RPC_SQLLEN_ARRAY, "lengths")}},
    /* RPC_HANDLE is never sent: the server's own handle fills the slot. */
    {.name = "open_statement", .entry = open_statement,
     .params = {IN(RPC_HANDLE, "connection"), IN(RPC_INT32, "rows"), OUT(RPC_PTR, "statement")}},
    {.name = "next_row", .entry = next_row,
     .params = {IN(RPC_PTR, "statement"), OUT(RPC_INT32, "row")}},
    {.name = "close_statement", .entry = close_statement, .params = {IN(RPC_PTR, "statement")}},
    {.name = "describe", .entry = describe, .params = {OUT(RPC_WVARRAY, "columns")}},
    {.name = NULL},
};

static void report(HRPC h, const char *what) {
    const char *text = NULL;
    int32_t code = RPCReportError(h, &text);
    fprintf(stderr, "server: %s: error %d: %s\n", what, code, text ? text : "");
}

int main(int argc, char **argv) {
    HRPC h;
    int status = 0;
    if (argc != 2) {
        fprintf(stderr, "usage: %s PORT\n", argv[0]);
        return 2;
    }
    setvbuf(stdout, NULL, _IOLBF, 0);
    h = RPCAllocHandle();
    if (h == NULL || RPCInitialise(h, RPC_MODE_SERVER, 0) != 0 || RPCExport(h, table) != 0 ||
        RPCSetTransportOpts(h, BSD_SOCKETS, NULL, argv[1], NULL, NULL, NULL, NULL, NULL) != 0) {
        if (h != NULL) report(h, "setup");
        return 1;
    }
    printf("server: waiting for a client on port %s\n", argv[1]);
    if (RPCConnect(h, 1, 0, "example") != 0) {
        report(h, "connect");
        status = 1;
    } else {
        printf("server: client connected\n");
        RPCRun(h); /* returns when the client goes away (error 7) */
        const char *text = NULL;
        if (RPCReportError(h, &text) != RPC_ETRANSPORT) {
            report(h, "run");
            status = 1;
        } else {
            printf("server: client disconnected\n");
        }
    }
    RPCDisconnect(h);
    RPCTerminate(h);
    RPCFreeHandle(h);
    return status;
}
