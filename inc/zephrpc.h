/*
 * zephrpc - remote procedure calls between two processes over one byte stream.
 *
 * Public C API. Valid C99 and C++. Every operation that can fail returns 0 on
 * success and 1 on failure, leaving the reason as an error code in the handle
 * (read it with RPCReportError).
 */
#ifndef ZEPHRPC_H
#define ZEPHRPC_H

#include <stddef.h>
#include <stdint.h>

#if defined(ZEPHRPC_BUILDING)
#define ZEPHRPC_API __attribute__((visibility("default")))
#else
#define ZEPHRPC_API
#endif

#ifdef __cplusplus
extern "C" {
#endif

/* ---- Handle ------------------------------------------------------------ */

/* One handle per connection; its layout is private to the library. */
typedef struct rpc_handle *HRPC;

#define RPC_MODE_SERVER 0
#define RPC_MODE_CLIENT 1

/* Lifecycle states reported by the library. */
#define RPC_STATE_ALLOCATED   0
#define RPC_STATE_INITIALISED 1
#define RPC_STATE_OPTIONS_SET 2
#define RPC_STATE_CONNECTING  3
#define RPC_STATE_CONNECTED   4

/* ---- Error codes ------------------------------------------------------- */

#define RPC_NOERROR             0
#define RPC_INVMODE             1
#define RPC_BADSTATE            2
#define RPC_NOMEM               3
#define RPC_NOTSP               4
#define RPC_BADARG              5
#define RPC_BADTRAN             6
#define RPC_ETRANSPORT          7   /* send or receive failed; text from the driver */
#define RPC_ERESERVED           8
#define RPC_ECONNECT            9   /* connect failed; text from the driver */
#define RPC_BADNEG             10
#define RPC_BADMGK             11
#define RPC_FUNCFAIL           12
#define RPC_NONAME             13
#define RPC_BADFUNC            14
#define RPC_EPKT               15
#define RPC_BADSTR             16
#define RPC_SRTPKT             17
#define RPC_TRUNC              18
#define RPC_BADUID             19
#define RPC_BADVER             20
#define RPC_INTERR             21
#define RPC_INVPARAM           22
#define RPC_MISSPARAM          23
#define RPC_TBLFULL            24
#define RPC_DECOMP             25
#define RPC_HMARSHAL           26
#define RPC_NETLOAD            27
#define RPC_NOTRNAME           28
#define RPC_NETINITFAIL        29
#define RPC_DUPEXPFN           30
#define RPC_BADWINSOCK         31
#define RPC_BADWINSOCKVER      32
#define RPC_BAD_CHALLENGELEN   33
#define RPC_BAD_CHALLENGE      34
#define RPC_VERSION_TOO_BIG    35
#define RPC_PARAMS_TOO_BIG     36
#define RPC_ETEXT             999   /* the message is the handle's error text */

/* ---- Parameter flag bits ----------------------------------------------- */

#define RPC_INT16          0x1u
#define RPC_INT32          0x2u
#define RPC_MEM            0x4u
#define RPC_INT16_ARRAY    0x8u
#define RPC_INT32_ARRAY    0x10u
#define RPC_INT64          0x20u
#define RPC_PTR            0x40u
#define RPC_BLOCK          0x80u
#define RPC_WVARRAY        0x100u
#define RPC_HANDLE         0x200u
#define RPC_IN             0x400u
#define RPC_OUT            0x800u
#define RPC_INT64_ARRAY    0x4000u
#define RPC_SQLLEN         0x8000u
#define RPC_SQLULEN        0x10000u
#define RPC_SQLLEN_ARRAY   0x20000u
#define RPC_SQLULEN_ARRAY  0x40000u

/* Every bit that makes a parameter a block (buffer plus length). */
#define RPC_BLOCK_MASK     0x6419Cu

/* Variant element type codes (RPCVariant.type). */
#define RPC_V_NONE          0x0u
#define RPC_V_INT16         0x1u
#define RPC_V_INT32         0x2u
#define RPC_V_MEM           0x4u
#define RPC_V_INT16_ARRAY   0x8u
#define RPC_V_INT32_ARRAY   0x10u
#define RPC_V_INT64         0x20u
#define RPC_V_PTR           0x40u
#define RPC_V_FLOAT_ARRAY   0x1000u
#define RPC_V_DOUBLE_ARRAY  0x2000u
#define RPC_V_INT64_ARRAY   0x4000u
#define RPC_V_SQLLEN        0x8000u
#define RPC_V_SQLULEN       0x10000u
#define RPC_V_SQLLEN_ARRAY  0x20000u
#define RPC_V_SQLULEN_ARRAY 0x40000u

/* ---- Records ----------------------------------------------------------- */

/*
 * Parameter entry, 48 bytes. Also the layout of a memory descriptor: the
 * record a client passes (by pointer) for every block argument of RPCExec,
 * and the record __RPCextractarg returns for a block on the server.
 */
typedef struct RPCParam {
    uint32_t flags;      /* type and direction bits; 0 ends a parameter list */
    uint32_t pad0;
    char *name;          /* trace label; may be null on the server */
    int32_t length;      /* block length in bytes (-3: NUL-terminated string) */
    int32_t pad1;
    void *value;         /* scalar value slot, or the block's buffer */
    void *extra[2];      /* carried along, never interpreted */
} RPCParam;

typedef RPCParam RPCMemDesc;

#define RPC_MAX_PARAMS 20 /* 19 usable: the 20th entry is the end mark */

/* A served function gets a pointer to its first parameter entry. */
typedef int32_t (*RPCServerFn)(RPCParam *args);

/* Function descriptor, 1000 bytes; a caller's table ends at a null name. */
typedef struct RPCFuncDesc {
    char *name;
    RPCServerFn entry;
    RPCParam params[RPC_MAX_PARAMS];
    struct RPCFuncDesc *next;
    int16_t ordinal;
    int16_t pad0;
    int32_t pad1;
    uint64_t user_word;
} RPCFuncDesc;

/* Variant array element, 16 bytes. */
typedef struct RPCVariant {
    void *data;
    int32_t length;
    uint32_t type;
} RPCVariant;

#if defined(__cplusplus)
static_assert(sizeof(RPCParam) == 48, "parameter entry is 48 bytes");
static_assert(sizeof(RPCFuncDesc) == 1000, "function descriptor is 1000 bytes");
static_assert(sizeof(RPCVariant) == 16, "variant element is 16 bytes");
#elif defined(__STDC_VERSION__) && __STDC_VERSION__ >= 201112L
_Static_assert(sizeof(RPCParam) == 48, "parameter entry is 48 bytes");
_Static_assert(sizeof(RPCFuncDesc) == 1000, "function descriptor is 1000 bytes");
_Static_assert(sizeof(RPCVariant) == 16, "variant element is 16 bytes");
#endif

typedef void (*RPCErrorFn)(int32_t code, void *arg);
typedef void (*RPCTerminateFn)(void *arg);

/* ---- Handle lifecycle and errors --------------------------------------- */

ZEPHRPC_API HRPC RPCAllocHandle(void);
ZEPHRPC_API int32_t RPCFreeHandle(HRPC h);
ZEPHRPC_API int32_t RPCInitialise(HRPC h, int32_t mode, int32_t server_descriptor);
ZEPHRPC_API int32_t RPCTerminate(HRPC h);
ZEPHRPC_API int32_t RPCIsConnected(HRPC h);
ZEPHRPC_API int32_t RPCEnumerateTransports(HRPC h, int32_t index, const char **name,
                                           const char **description);
ZEPHRPC_API int32_t RPCRegisterTerminateFn(HRPC h, RPCTerminateFn fn, void *arg);
ZEPHRPC_API int32_t RPCRegisterPrivatePtr(HRPC h, void *ptr, uint64_t flags);
ZEPHRPC_API void *RPCGetPrivatePtr(HRPC h);
ZEPHRPC_API int32_t RPCSetError(HRPC h, RPCErrorFn fn, void *arg);
/* REQUIRES: message not null. The text is constant or owned by the handle. */
ZEPHRPC_API int32_t RPCReportError(HRPC h, const char **message);
ZEPHRPC_API int32_t RPCLastRPC(HRPC h, const char **name);

/* Bit 0 of RPCRegisterPrivatePtr's flags: RPCFreeHandle frees the pointer. */
#define RPC_PRIVATE_FREE 0x1u

/* ---- Tracing ----------------------------------------------------------- */

/* Letters asking the peer to trace: "c" calls, "a" values, "y" both. */
ZEPHRPC_API void SetTracing(HRPC h, const char *text);

/* ---- Connection -------------------------------------------------------- */

/* Transport options: 1 host, 2 port, 6 descriptor read time-out, 7 extra. */
ZEPHRPC_API int32_t RPCSetTransportOpts(HRPC h, int32_t transport, const char *opt1,
                                        const char *opt2, const char *opt3, const char *opt4,
                                        const char *opt5, const char *opt6, const char *opt7);
/* count pairs of (int32 identifier, const char *text) follow. */
ZEPHRPC_API int32_t RPCSetLowLTransportOpts(HRPC h, uint32_t count, ...);
/* The uid text is borrowed: keep it alive while the handle is connected. */
ZEPHRPC_API int32_t RPCConnect(HRPC h, int32_t version1, int32_t version2, const char *uid);
ZEPHRPC_API int32_t RPCDisconnect(HRPC h);

/* Low-level option identifiers for RPCSetLowLTransportOpts. */
#define RPC_LOWL_RCVLOWAT   1
#define RPC_LOWL_RCVBUF     2
#define RPC_LOWL_SNDBUF     3
#define RPC_LOWL_ATTEMPTS   4
#define RPC_LOWL_RCVTIMEO   5
#define RPC_LOWL_SNDTIMEO   6

/* ---- Export and calls -------------------------------------------------- */

ZEPHRPC_API int32_t RPCExport(HRPC h, const RPCFuncDesc *table);
ZEPHRPC_API int32_t RPCFuncExists(HRPC h, const char *name);
/* One 8-byte argument (integer or pointer) per parameter of the function. */
ZEPHRPC_API int32_t RPCExec(HRPC h, const char *name, ...);
ZEPHRPC_API int32_t RPCRun(HRPC h);
ZEPHRPC_API void *__RPCextractarg(RPCParam **cursor);
ZEPHRPC_API void __RPCsetarg(RPCParam **cursor, ...);

/* ---- Information ------------------------------------------------------- */

#define RPC_INFO_BYTESWAP  1 /* "Y" when the peer's byte order differs */
#define RPC_INFO_NETFAIL   2 /* "Y" when the last error was 7 or 10 */

ZEPHRPC_API int32_t RPCGetInfo(HRPC h, int32_t item, char *dest, int32_t size);
ZEPHRPC_API char *QXRPCGetSystemType(HRPC h);
ZEPHRPC_API char *QXRPCGetSystemInformation(HRPC h);
ZEPHRPC_API char *QXRPCGetProcessorType(HRPC h);
ZEPHRPC_API char *QXRPCGetPtrSize(HRPC h);
ZEPHRPC_API char *QXRPCGetSqlLenSize(HRPC h);

/* ---- Driver switch ----------------------------------------------------- */

typedef struct NETContext NETContext;       /* per-handle transport context */
typedef struct NETConnection NETConnection; /* per-handle net connection */

/* One network driver; init fills in everything after `available`. */
typedef struct NETDriver {
    const char *name;
    int32_t (*init)(struct NETDriver *self);
    int32_t available;
    const char *description;
    int32_t (*term)(void);
    /* mode 0 connects out, 1 accepts; on failure *out may hold a connection
       whose message explains the failure and which must still go to disc. */
    int32_t (*conn)(void **out, uint32_t mode, char **options, int32_t descriptor);
    int32_t (*disc)(void *conn);
    int32_t (*send)(void *conn, const void *data, uint32_t length);
    int32_t (*recv)(void *conn, void *buffer, uint32_t size, uint32_t *length);
    int32_t (*error)(void *conn, const char **text);
} NETDriver;

#define NET_OPTION_SLOTS 14

ZEPHRPC_API uint32_t NETLoad(void);
ZEPHRPC_API uint32_t NETUnload(void);
ZEPHRPC_API uint32_t NETTransportName(int32_t number, const char **name,
                                      const char **description);
ZEPHRPC_API uint32_t NETInitialise(int32_t number, NETContext **context);
ZEPHRPC_API uint32_t NETTerminate(NETContext *context);
ZEPHRPC_API uint32_t NETConnect(NETContext *context, uint32_t mode, char **options,
                                int32_t descriptor, NETConnection **connection);
ZEPHRPC_API uint32_t NETSend(NETConnection *connection, const void *data, uint32_t length);
ZEPHRPC_API uint32_t NETReceive(NETConnection *connection, void *buffer, uint32_t size,
                                uint32_t *length);
ZEPHRPC_API uint32_t NETDisconnect(NETConnection *connection);
ZEPHRPC_API uint32_t NETError(NETContext *context, NETConnection *connection,
                              const char **text);
ZEPHRPC_API int32_t TTYinit(NETDriver *entry);
ZEPHRPC_API int32_t BSDinit(NETDriver *entry);

/* Socket tuning defaults of the BSD driver. */
ZEPHRPC_API extern const int32_t SEND_TIMEOUT;
ZEPHRPC_API extern const int32_t RECEIVE_TIMEOUT;
ZEPHRPC_API extern const int32_t SEND_BUFFER_SIZE;
ZEPHRPC_API extern const int32_t RECEIVE_BUFFER_SIZE;
ZEPHRPC_API extern const int32_t RECEIVE_LOWWATERMARK;

/* ---- String hash table ------------------------------------------------- */

typedef struct hash_item {
    struct hash_item *next;
    char *key;   /* the caller's string, not copied */
    void *data;  /* set by the caller after adding */
    int32_t hits;
} hash_item;

typedef struct hash_table {
    hash_item **buckets;
    int32_t size;
    int32_t count;
} hash_table;

ZEPHRPC_API hash_table *make_hash_table(int32_t size);
ZEPHRPC_API long hash_string(const char *key, hash_table *table);
ZEPHRPC_API hash_item *find_hash_item(const char *key, hash_table *table);
ZEPHRPC_API hash_item *add_hash_item(const char *key, hash_table *table);
ZEPHRPC_API hash_item *remove_hash_item(const char *key, hash_table *table);
ZEPHRPC_API void flush_hash_table(hash_table *table, int (*release)(void *data),
                                  int32_t free_contents);
ZEPHRPC_API void dispose_hash_table(hash_table *table);
ZEPHRPC_API hash_item *get_hash_bucket(int32_t index, hash_table *table);

/* ---- Stored float formats ---------------------------------------------- */

/* A format description is 42 int32 words; see float_to_float. */
#define FLT_DESC_WORDS 42

ZEPHRPC_API int32_t float_to_float(const int32_t *source, const int32_t *destination, void *value);
ZEPHRPC_API int32_t float_to_store(void *value);
ZEPHRPC_API int32_t store_to_float(void *value);
ZEPHRPC_API int32_t double_to_store(void *value);
ZEPHRPC_API int32_t store_to_double(void *value);

/* ---- Build identity ---------------------------------------------------- */

ZEPHRPC_API extern const int32_t _lib_version;
ZEPHRPC_API extern const char server_built[];

#ifdef __cplusplus
}
#endif

#endif /* ZEPHRPC_H */
