/**
 * @file zephrpc.h
 * @brief zephrpc - remote procedure calls between two processes over one byte stream.
 *
 * Public C API, valid C99 and C++. A server exports a table of function
 * descriptors (RPCExport) and runs the dispatch loop (RPCRun); a client
 * connects, receives that table during negotiation and calls functions by
 * name (RPCExec).
 *
 * Conventions:
 * - Operations on a handle return 0 on success and 1 on failure, leaving the
 *   reason as an error code in the handle: read it, with its text, through
 *   RPCReportError. These differ: RPCIsConnected and RPCFuncExists answer
 *   1 or 0; RPCEnumerateTransports on a handle not yet initialised returns 0
 *   and leaves code 2; RPCReportError returns the code; RPCLastRPC returns an
 *   ordinal or -1; RPCGetInfo returns 0, 1 (truncated) or -1; the NET
 *   operations return 0 or a non-zero driver result; the hash table and float
 *   operations return what their own entries say.
 * - The handle's lifecycle runs RPCAllocHandle, RPCInitialise,
 *   RPCSetTransportOpts, RPCConnect, then calls, then RPCDisconnect,
 *   RPCTerminate and RPCFreeHandle. An operation called in the wrong state
 *   fails with RPC_BADSTATE.
 * - Threads: one thread at a time per handle, except RPCExec, which threads
 *   may share (each call holds the handle for its whole round trip).
 *   Initialise and terminate handles from one thread at a time: the driver
 *   table they load is counted without a lock.
 * - Ownership: text the library returns is its own (constant, or owned by
 *   the handle until its next failing operation); buffers it allocates for a
 *   caller are malloc'ed and the caller frees them with free().
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

/** One handle per connection; its layout is private to the library. */
typedef struct rpc_handle *HRPC;

/** @name Modes of RPCInitialise */
/** @{ */
/** A server serves one connection; a client connects out. */
#define RPC_MODE_SERVER 0
#define RPC_MODE_CLIENT 1
/** @} */

/** @name Lifecycle states of a handle */
/** @{ */
/** Allocated, initialised, options set, connecting, connected. */
#define RPC_STATE_ALLOCATED   0
#define RPC_STATE_INITIALISED 1
#define RPC_STATE_OPTIONS_SET 2
#define RPC_STATE_CONNECTING  3
#define RPC_STATE_CONNECTED   4
/** @} */

/* ---- Error codes ------------------------------------------------------- */

/** @name Error codes */
/** @{ */
/** Left in the handle by a failing operation; RPCReportError gives each its text. */
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
/** @} */

/* ---- Parameter flag bits ----------------------------------------------- */

/** @name Parameter flag bits */
/** @{ */
/** One type bit and the direction bits (RPC_IN, RPC_OUT) make a parameter's flags; RPC_HANDLE marks a parameter that stays on the server. */
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
/** @} */

/** @name Variant element types */
/** @{ */
/** The type codes of RPCVariant.type. */
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
/** @} */

/* ---- Records ----------------------------------------------------------- */

/**
 * Parameter entry, 48 bytes. Also the layout of a memory descriptor: the
 * record a client passes (by pointer) for every block argument of RPCExec,
 * and the record __RPCextractarg returns for a block on the server.
 */
typedef struct RPCParam {
    uint32_t flags;      /**< type and direction bits; 0 ends a parameter list */
    uint32_t pad0;       /**< unused */
    char *name;          /**< trace label; may be null on the server */
    int32_t length;      /**< block length in bytes (-3: NUL-terminated string) */
    int32_t pad1;        /**< unused */
    void *value;         /**< scalar value slot, or the block's buffer */
    void *extra[2];      /**< carried along, never interpreted */
} RPCParam;

/** A block argument's record: the same layout as a parameter entry. */
typedef RPCParam RPCMemDesc;

/** Entries of a descriptor's parameter list: 19 usable, the 20th is the end mark. */
#define RPC_MAX_PARAMS 20

/** A served function; it gets a pointer to its first parameter entry, and
 * its result is not used. */
typedef int32_t (*RPCServerFn)(RPCParam *args);

/** Function descriptor, 1000 bytes; a caller's table ends at a null name. */
typedef struct RPCFuncDesc {
    char *name;                      /**< the name clients call */
    RPCServerFn entry;               /**< server: the function; null on a client */
    RPCParam params[RPC_MAX_PARAMS]; /**< parameters, ended by flags 0 */
    struct RPCFuncDesc *next;        /**< the library's list link */
    int16_t ordinal;                 /**< number on the wire, given by the table exchange */
    int16_t pad0;                    /**< unused */
    int32_t pad1;                    /**< unused */
    uint64_t user_word;              /**< carried along, never interpreted */
} RPCFuncDesc;

/** Variant array element, 16 bytes. */
typedef struct RPCVariant {
    void *data;      /**< the element's value */
    int32_t length;  /**< its length in bytes */
    uint32_t type;   /**< an RPC_V_ type code */
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

/** Called by RPCExec with the code of a failed call and the registered argument. */
typedef void (*RPCErrorFn)(int32_t code, void *arg);
/** Called by RPCTerminate with the registered argument. */
typedef void (*RPCTerminateFn)(void *arg);

/* ---- Handle lifecycle and errors --------------------------------------- */

/** Allocates a handle in state RPC_STATE_ALLOCATED.
 * @return the handle, or null when memory is short. Free it with RPCFreeHandle. */
ZEPHRPC_API HRPC RPCAllocHandle(void);
/** Frees a handle and everything it owns (a private pointer too, when
 * registered with RPC_PRIVATE_FREE).
 * @param h a handle in state RPC_STATE_ALLOCATED (terminated or never initialised)
 * @return 0; 1 with RPC_BADSTATE in any other state */
ZEPHRPC_API int32_t RPCFreeHandle(HRPC h);
/** Initialises an allocated handle and lists the transports (the first
 * handle loads the driver table). Leaves code 28 behind on success.
 * @param h a handle in state RPC_STATE_ALLOCATED
 * @param mode RPC_MODE_SERVER or RPC_MODE_CLIENT
 * @param server_descriptor a server's descriptor for the descriptor (TTY) transport
 * @return 0; 1 with RPC_BADSTATE, RPC_INVMODE or RPC_NETLOAD */
ZEPHRPC_API int32_t RPCInitialise(HRPC h, int32_t mode, int32_t server_descriptor);
/** Returns an initialised handle to state RPC_STATE_ALLOCATED, drops its
 * transport options, closes the logs and calls the terminate callback.
 * @param h a handle in state RPC_STATE_INITIALISED or RPC_STATE_OPTIONS_SET
 * @return 0; 1 with RPC_BADSTATE */
ZEPHRPC_API int32_t RPCTerminate(HRPC h);
/** @param h a handle, or null
 * @return 1 when the handle is connected, else 0 */
ZEPHRPC_API int32_t RPCIsConnected(HRPC h);
/** Names one transport of the driver table.
 * @param h an initialised handle
 * @param index 0 up to the number of transports
 * @param[out] name the transport's name (the library's text)
 * @param[out] description its description (the library's text)
 * @return 0; 1 with RPC_BADARG for an index out of range; 0 with code
 * RPC_BADSTATE left behind when the handle is not initialised */
ZEPHRPC_API int32_t RPCEnumerateTransports(HRPC h, int32_t index, const char **name,
                                           const char **description);
/** Registers the function RPCTerminate calls.
 * @param h the handle, or null
 * @param fn the function, or null for none
 * @param arg its argument
 * @return 0; 1 for a null handle */
ZEPHRPC_API int32_t RPCRegisterTerminateFn(HRPC h, RPCTerminateFn fn, void *arg);
/** Attaches a pointer of the caller's to the handle.
 * @param h the handle, or null
 * @param ptr the pointer
 * @param flags RPC_PRIVATE_FREE: RPCFreeHandle frees the pointer with free()
 * @return 0; 1 for a null handle */
ZEPHRPC_API int32_t RPCRegisterPrivatePtr(HRPC h, void *ptr, uint64_t flags);
/** @param h the handle, or null
 * @return the pointer registered with RPCRegisterPrivatePtr, or null */
ZEPHRPC_API void *RPCGetPrivatePtr(HRPC h);
/** Registers the function RPCExec calls, after releasing the handle, with
 * the code of every failed call.
 * @param h the handle
 * @param fn the function, or null for none
 * @param arg its argument
 * @return 0 */
ZEPHRPC_API int32_t RPCSetError(HRPC h, RPCErrorFn fn, void *arg);
/** The handle's error code and its text. REQUIRES: message not null.
 * @param h the handle
 * @param[out] message the text: constant, or owned by the handle until its
 *             next failing operation (codes 7, 8, 9 and 999 carry the
 *             transport's text)
 * @return the code (RPC_NOERROR when none) */
ZEPHRPC_API int32_t RPCReportError(HRPC h, const char **message);
/** The function a server called last.
 * @param h a server handle, or null
 * @param[out] name its name, when not null
 * @return its ordinal, or -1 when no function was called */
ZEPHRPC_API int32_t RPCLastRPC(HRPC h, const char **name);

/** Bit 0 of RPCRegisterPrivatePtr's flags: RPCFreeHandle frees the pointer. */
#define RPC_PRIVATE_FREE 0x1u

/* ---- Tracing ----------------------------------------------------------- */

/** Sets the letters that ask the peer to trace into its trace log at the
 * next connect: "c" calls, "a" values, "y" both.
 * @param h the handle, or null (ignored)
 * @param text the letters (copied; cut to 63 characters), or null (ignored) */
ZEPHRPC_API void SetTracing(HRPC h, const char *text);

/* ---- Connection -------------------------------------------------------- */

/** Chooses the transport and its options (each text copied); replaces
 * earlier options. The handle goes to state RPC_STATE_OPTIONS_SET.
 * @param h an initialised handle, or one whose options are set
 * @param transport the transport's index (see RPCEnumerateTransports)
 * @param opt1 host (client), or null
 * @param opt2 port, or null
 * @param opt3 unused by the drivers, or null
 * @param opt4 unused by the drivers, or null
 * @param opt5 unused by the drivers, or null
 * @param opt6 the descriptor transport's read time-out, or null
 * @param opt7 extra driver options, or null
 * @return 0; 1 with RPC_BADSTATE, RPC_BADTRAN or RPC_NOMEM */
ZEPHRPC_API int32_t RPCSetTransportOpts(HRPC h, int32_t transport, const char *opt1,
                                        const char *opt2, const char *opt3, const char *opt4,
                                        const char *opt5, const char *opt6, const char *opt7);
/** Sets socket-level options, each an RPC_LOWL_ identifier followed by its
 * text (copied); an unknown identifier is skipped without its text.
 * @param h a handle whose options are set
 * @param count the number of identifiers that follow
 * @return 0; 1 with RPC_BADSTATE */
ZEPHRPC_API int32_t RPCSetLowLTransportOpts(HRPC h, uint32_t count, ...);
/** Connects (client) or accepts one connection (server), negotiates byte
 * order, sizes, compression and tracing with the peer, and exchanges the
 * function table. On failure the handle is back in state RPC_STATE_OPTIONS_SET.
 * @param h a handle whose options are set
 * @param version1 the first version number; the peer's must be equal
 * @param version2 the second version number; the peer's must be equal
 * @param uid the identity text; borrowed: keep it alive while connected
 * @return 0; 1 with RPC_BADSTATE, RPC_ECONNECT, RPC_ETRANSPORT, RPC_BADMGK,
 * RPC_BADVER, RPC_BADUID, RPC_MISSPARAM or another negotiation code */
ZEPHRPC_API int32_t RPCConnect(HRPC h, int32_t version1, int32_t version2, const char *uid);
/** Closes the connection; the client keeps the received table for a
 * reconnect. The handle goes to state RPC_STATE_OPTIONS_SET.
 * @param h a handle whose options are set, connecting or connected
 * @return 0; 1 with RPC_BADSTATE, or RPC_ETRANSPORT when the transport
 * would not close cleanly */
ZEPHRPC_API int32_t RPCDisconnect(HRPC h);

/** @name Low-level option identifiers */
/** @{ */
/** For RPCSetLowLTransportOpts: receive low-water mark, receive and send buffer sizes, connect attempts, receive and send time-outs. */
#define RPC_LOWL_RCVLOWAT   1
#define RPC_LOWL_RCVBUF     2
#define RPC_LOWL_SNDBUF     3
#define RPC_LOWL_ATTEMPTS   4
#define RPC_LOWL_RCVTIMEO   5
#define RPC_LOWL_SNDTIMEO   6
/** @} */

/* ---- Export and calls -------------------------------------------------- */

/** Server: copies the table the next RPCConnect sends to the client,
 * replacing an earlier one.
 * @param h a server handle
 * @param table descriptors ended by one with a null name (copied)
 * @return 0; 1 with RPC_NOMEM */
ZEPHRPC_API int32_t RPCExport(HRPC h, const RPCFuncDesc *table);
/** @param h a handle, or null
 * @param name a function name, or null
 * @return 1 when the handle's table holds the name, else 0 */
ZEPHRPC_API int32_t RPCFuncExists(HRPC h, const char *name);
/** Client: calls a function of the server's table and waits for its reply.
 * Threads may share the handle. A failure is sticky: later calls fail at
 * once until the handle reconnects (an unknown name excepted).
 * @param h a connected client handle
 * @param name the function's name
 * @param ... one 8-byte argument (integer or pointer) per parameter: scalar
 *        inputs by value, outputs and blocks by pointer (blocks as an
 *        RPCMemDesc). A block the library allocates (in-out blocks, and
 *        outputs of capacity 0) is the caller's to free with free().
 * @return 0; 1 with RPC_BADSTATE, RPC_NONAME, RPC_ETRANSPORT, RPC_TRUNC or
 * another marshalling code */
ZEPHRPC_API int32_t RPCExec(HRPC h, const char *name, ...);
/** Server: the dispatch loop. Serves calls until one fails, usually because
 * the client went away.
 * @param h a connected server handle
 * @return 1, with the code that ended the loop (RPC_ETRANSPORT when the
 * client left) */
ZEPHRPC_API int32_t RPCRun(HRPC h);
/** Served functions: the current argument, moving the cursor to the next.
 * @param cursor the served function's argument pointer, advanced here
 * @return the argument's value slot (scalars), its RPCMemDesc (blocks),
 * or null at the end; the process aborts on an entry naming no type */
ZEPHRPC_API void *__RPCextractarg(RPCParam **cursor);
/** Served functions: sets the current output argument from the value that
 * follows (of the parameter's type) and moves the cursor to the next.
 * @param cursor the served function's argument pointer, advanced here */
ZEPHRPC_API void __RPCsetarg(RPCParam **cursor, ...);

/* ---- Information ------------------------------------------------------- */

/** RPCGetInfo item: "Y" when the peer's byte order differs. */
#define RPC_INFO_BYTESWAP  1
/** RPCGetInfo item: "Y" when the last error was 7 or 10. */
#define RPC_INFO_NETFAIL   2

/** Answers an RPC_INFO_ item as "Y" or "N".
 * @param h the handle, or null
 * @param item RPC_INFO_BYTESWAP or RPC_INFO_NETFAIL
 * @param[out] dest the answer, always terminated
 * @param size bytes at dest, at least 2
 * @return 0; 1 when cut to fit; -1 for a null handle, an unknown item or no room */
ZEPHRPC_API int32_t RPCGetInfo(HRPC h, int32_t item, char *dest, int32_t size);
/** The texts that describe this machine to the peer. Each returns a buffer
 * of the library's, one per thread, rewritten by the next call (the pointer
 * and SQLLEN sizes share one).
 * @param h unused
 * @return the operating system's name, or "undetermined" */
ZEPHRPC_API char *QXRPCGetSystemType(HRPC h);
/** @param h unused
 * @return the operating system's release, or "undetermined" (see QXRPCGetSystemType) */
ZEPHRPC_API char *QXRPCGetSystemInformation(HRPC h);
/** @param h unused
 * @return the machine's processor type, or "undetermined" (see QXRPCGetSystemType) */
ZEPHRPC_API char *QXRPCGetProcessorType(HRPC h);
/** @param h unused
 * @return this build's pointer size in bytes, as text (see QXRPCGetSystemType) */
ZEPHRPC_API char *QXRPCGetPtrSize(HRPC h);
/** @param h unused
 * @return this build's SQLLEN size in bytes, as text (see QXRPCGetSystemType) */
ZEPHRPC_API char *QXRPCGetSqlLenSize(HRPC h);

/* ---- Driver switch ----------------------------------------------------- */

/** A transport context, one per connecting handle; private to the drivers. */
typedef struct NETContext NETContext;
/** A net connection, one per connected handle; private to the drivers. */
typedef struct NETConnection NETConnection;

/** One network driver; init fills in everything after `available`. Every
 * operation returns 0 on success. */
typedef struct NETDriver {
    const char *name;                          /**< the transport's name */
    int32_t (*init)(struct NETDriver *self);   /**< fills in the rest; 0 when usable */
    int32_t available;                         /**< non-zero when the driver is usable */
    const char *description;                   /**< the transport's description */
    int32_t (*term)(void);                     /**< releases the driver */
    /** mode 0 connects out, 1 accepts; on failure *out may hold a connection
        whose message explains the failure and which must still go to disc. */
    int32_t (*conn)(void **out, uint32_t mode, char **options, int32_t descriptor);
    int32_t (*disc)(void *conn);               /**< closes and frees a connection */
    int32_t (*send)(void *conn, const void *data, uint32_t length);  /**< sends one packet */
    /** receives one packet of at most size bytes; *length is its length */
    int32_t (*recv)(void *conn, void *buffer, uint32_t size, uint32_t *length);
    int32_t (*error)(void *conn, const char **text);  /**< the connection's last message */
} NETDriver;

/** Entries of the option vector a driver's conn receives. */
#define NET_OPTION_SLOTS 14

/** Loads the driver table (RPCInitialise does it for the first handle).
 * @return 0; non-zero when no driver could be had */
ZEPHRPC_API uint32_t NETLoad(void);
/** Unloads the driver table.
 * @return 0 */
ZEPHRPC_API uint32_t NETUnload(void);
/** Names a transport of the loaded table.
 * @param number the transport's number, from 0
 * @param[out] name its name (the library's text)
 * @param[out] description its description (the library's text)
 * @return 0; non-zero past the last transport */
ZEPHRPC_API uint32_t NETTransportName(int32_t number, const char **name,
                                      const char **description);
/** Creates a transport context (free it with NETTerminate).
 * @param number the transport's number
 * @param[out] context the context; on failure it may hold one whose message
 *             (NETError) explains the failure
 * @return 0; non-zero on failure */
ZEPHRPC_API uint32_t NETInitialise(int32_t number, NETContext **context);
/** Frees a transport context.
 * @param context the context, or null
 * @return 0; non-zero when it would not close cleanly */
ZEPHRPC_API uint32_t NETTerminate(NETContext *context);
/** Connects out (mode 0) or accepts one connection (mode 1).
 * @param context the transport context
 * @param mode 0 or 1
 * @param options NET_OPTION_SLOTS texts, null where unset
 * @param descriptor the descriptor the descriptor (TTY) transport adopts
 * @param[out] connection the connection (free it with NETDisconnect), which
 *             on failure may hold the message that explains it
 * @return 0; non-zero on failure */
ZEPHRPC_API uint32_t NETConnect(NETContext *context, uint32_t mode, char **options,
                                int32_t descriptor, NETConnection **connection);
/** Sends one packet (a 4-byte length, then the bytes).
 * @param connection the connection
 * @param data the bytes
 * @param length their count
 * @return 0; non-zero on failure */
ZEPHRPC_API uint32_t NETSend(NETConnection *connection, const void *data, uint32_t length);
/** Receives one packet.
 * @param connection the connection
 * @param[out] buffer room for the packet
 * @param size bytes of room
 * @param[out] length the packet's length
 * @return 0; non-zero on failure, a packet larger than size included */
ZEPHRPC_API uint32_t NETReceive(NETConnection *connection, void *buffer, uint32_t size,
                                uint32_t *length);
/** Closes and frees a connection.
 * @param connection the connection, or null
 * @return 0; non-zero on failure */
ZEPHRPC_API uint32_t NETDisconnect(NETConnection *connection);
/** The last message of a connection, or else of a context.
 * @param context the context, or null
 * @param connection the connection, or null
 * @param[out] text the message (the driver's text)
 * @return 0 */
ZEPHRPC_API uint32_t NETError(NETContext *context, NETConnection *connection,
                              const char **text);
/** The descriptor (TTY) driver's init: fills in its entry.
 * @param entry the driver's entry
 * @return 0 */
ZEPHRPC_API int32_t TTYinit(NETDriver *entry);
/** The BSD sockets driver's init: fills in its entry.
 * @param entry the driver's entry
 * @return 0 */
ZEPHRPC_API int32_t BSDinit(NETDriver *entry);

/** BSD driver default: send time-out in seconds. */
ZEPHRPC_API extern const int32_t SEND_TIMEOUT;
/** BSD driver default: receive time-out in seconds. */
ZEPHRPC_API extern const int32_t RECEIVE_TIMEOUT;
/** BSD driver default: send buffer size in bytes. */
ZEPHRPC_API extern const int32_t SEND_BUFFER_SIZE;
/** BSD driver default: receive buffer size in bytes. */
ZEPHRPC_API extern const int32_t RECEIVE_BUFFER_SIZE;
/** BSD driver default: receive low-water mark in bytes. */
ZEPHRPC_API extern const int32_t RECEIVE_LOWWATERMARK;

/* ---- String hash table ------------------------------------------------- */

/** An item of a string hash table (malloc'ed by add_hash_item). */
typedef struct hash_item {
    struct hash_item *next;  /**< the next item of its bucket */
    char *key;   /**< the caller's string, not copied */
    void *data;  /**< set by the caller after adding */
    int32_t hits;  /**< finds since it was added */
} hash_item;

/** A chained string hash table. */
typedef struct hash_table {
    hash_item **buckets;  /**< the bucket chains */
    int32_t size;         /**< the number of buckets */
    int32_t count;        /**< the number of items */
} hash_table;

/** @param size the number of buckets; 0 for the default
 * @return a new table (free it with dispose_hash_table), or null */
ZEPHRPC_API hash_table *make_hash_table(int32_t size);
/** @param key a string
 * @param table the table
 * @return the key's bucket index */
ZEPHRPC_API long hash_string(const char *key, hash_table *table);
/** @param key a string
 * @param table the table, or null
 * @return the key's item (its hits counted), or null */
ZEPHRPC_API hash_item *find_hash_item(const char *key, hash_table *table);
/** Adds a key (borrowed, not copied), or finds it when present.
 * @param key a string
 * @param table the table
 * @return the key's item */
ZEPHRPC_API hash_item *add_hash_item(const char *key, hash_table *table);
/** @param key a string
 * @param table the table, or null
 * @return the key's item, taken out of the table (the caller frees it), or null */
ZEPHRPC_API hash_item *remove_hash_item(const char *key, hash_table *table);
/** Frees every item; with free_contents, each item's data (through release,
 * else free()) and key (free()) too.
 * @param table the table, or null
 * @param release frees an item's data, or null for free()
 * @param free_contents non-zero to free data and keys */
ZEPHRPC_API void flush_hash_table(hash_table *table, int (*release)(void *data),
                                  int32_t free_contents);
/** Frees the table itself (flush it first).
 * @param table the table, or null */
ZEPHRPC_API void dispose_hash_table(hash_table *table);
/** @param index a bucket index
 * @param table the table, or null
 * @return the first item of the bucket, or null */
ZEPHRPC_API hash_item *get_hash_bucket(int32_t index, hash_table *table);

/* ---- Stored float formats ---------------------------------------------- */

/** A float layout description is 42 int32 words; see float_to_float. */
#define FLT_DESC_WORDS 42

/** Converts a float value in place between two layout descriptions (id,
 * size, bias, exponent pieces, mantissa pieces, sign piece); the mantissa is
 * truncated, not rounded. Equal ids leave the value alone.
 * @param source the value's layout
 * @param destination the layout wanted
 * @param[in,out] value the value; room for the larger of the two sizes
 * @return 0 */
ZEPHRPC_API int32_t float_to_float(const int32_t *source, const int32_t *destination, void *value);
/** Converts a native float to its wire form, in place.
 * @param[in,out] value the float
 * @return 0 */
ZEPHRPC_API int32_t float_to_store(void *value);
/** Converts a float from its wire form to the native one, in place.
 * @param[in,out] value the float
 * @return 0 */
ZEPHRPC_API int32_t store_to_float(void *value);
/** Converts a native double to its wire form, in place.
 * @param[in,out] value the double
 * @return 0 */
ZEPHRPC_API int32_t double_to_store(void *value);
/** Converts a double from its wire form to the native one, in place.
 * @param[in,out] value the double
 * @return 0 */
ZEPHRPC_API int32_t store_to_double(void *value);

/* ---- Build identity ---------------------------------------------------- */

/** The library's version number. */
ZEPHRPC_API extern const int32_t _lib_version;
/** When and where the library was built. */
ZEPHRPC_API extern const char server_built[];

#ifdef __cplusplus
}
#endif

#endif /* ZEPHRPC_H */
