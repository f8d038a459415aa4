// The bridge's wire contract, shared by the driver and the server.
//
// Every bridged operation is one library call with the same four parameters:
// the server-side handle it acts on (a pointer the server issued), a request
// block, the ODBC return code, and a reply block the server allocates. The
// blocks hold the operation's own arguments and results in the byte layout of
// codec.h. Diagnostics of a call that did not simply succeed travel at the
// head of its reply.
#pragma once

#include <array>
#include <cstdint>
#include <vector>

#include <zephrpc.h>

#include "protocol/codec.h"

namespace zb {

// Checked by the library's negotiation: a server of another protocol version
// refuses the connection (the client sees it as 08001).
inline constexpr int32_t kProtocolVersion = 1;
inline constexpr int32_t kProtocolRevision = 1;
inline constexpr const char *kProtocolName = "zephodbc";

// The operations. Names are what crosses the wire; keep them stable.
#define ZB_OPERATIONS(X)                                                              \
    X(Connect, "zb_connect")             /* dbc: target connection string -> dbc */    \
    X(Disconnect, "zb_disconnect")                                                    \
    X(SetConnectAttr, "zb_set_connect_attr")                                          \
    X(GetConnectAttr, "zb_get_connect_attr")                                          \
    X(GetInfo, "zb_get_info")                                                         \
    X(EndTran, "zb_end_tran")                                                         \
    X(NativeSql, "zb_native_sql")                                                     \
    X(AllocStmt, "zb_alloc_stmt")                                                     \
    X(FreeStmt, "zb_free_stmt")                                                       \
    X(SetStmtAttr, "zb_set_stmt_attr")                                                \
    X(GetStmtAttr, "zb_get_stmt_attr")                                                \
    X(Prepare, "zb_prepare")                                                          \
    X(Execute, "zb_execute")             /* prepared or direct, with parameters */    \
    X(Catalog, "zb_catalog")             /* SQLTables, SQLColumns, ... */              \
    X(DescribeParam, "zb_describe_param")                                             \
    X(Fetch, "zb_fetch")                                                              \
    X(GetData, "zb_get_data")                                                         \
    X(ColAttribute, "zb_col_attribute")                                               \
    X(MoreResults, "zb_more_results")                                                 \
    X(Cancel, "zb_cancel")                                                            \
    X(CancelCall, "zb_cancel_call")      /* another connection's running call */

enum class Op : int {
#define ZB_ENUM(id, name) id,
    ZB_OPERATIONS(ZB_ENUM)
#undef ZB_ENUM
        Count
};

const char *op_name(Op op);

// The table a server exports: every operation with the four parameters
// above, each served by entry_for(op); ends with the empty descriptor.
std::vector<RPCFuncDesc> function_table(RPCServerFn (*entry_for)(Op));

// Hands a served call's reply bytes to the library through its reply
// parameter, in a fresh malloc'd buffer the library frees once it is sent.
// False, with an empty reply, when memory is short.
bool put_reply(RPCMemDesc &reply, const std::vector<uint8_t> &bytes);

// The key a serving child gives its client at connect: a second connection
// shows it, with a statement, to have that client's running call cancelled
// (Op::CancelCall).
struct CancelKey {
    int32_t pid = 0;
    std::array<uint8_t, 16> secret{};
};

inline void put_cancel_key(Writer &w, const CancelKey &key) {
    w.i32(key.pid);
    for (uint8_t b : key.secret) w.u8(b);
}

inline CancelKey get_cancel_key(Reader &r) {
    CancelKey key;
    key.pid = r.i32();
    for (auto &b : key.secret) b = r.u8();
    return key;
}

// Catalog functions carried by Op::Catalog.
enum class CatalogFn : int32_t {
    Tables = 1,
    Columns,
    PrimaryKeys,
    ForeignKeys,
    Statistics,
    SpecialColumns,
    Procedures,
    ProcedureColumns,
    GetTypeInfo,
    TablePrivileges,
    ColumnPrivileges,
};

// Kinds of handle a server issues, so that one kind is never taken for another.
enum class HandleKind : int32_t { Connection = 1, Statement = 2 };

}  // namespace zb
