// The driver's handles: environment, connection, statement and descriptor.
//
// A connection owns one library handle (one TCP connection to the bridge
// server) and the server-side connection it opened. Statements mirror a
// server-side statement; what the application binds stays here and is read
// or written only when a call needs it (execute, fetch).
#pragma once

#include <sql.h>
#include <sqlext.h>

#include <cstdint>
#include <map>
#include <memory>
#include <mutex>
#include <optional>
#include <set>
#include <string>
#include <vector>

#include <zephrpc.h>

#include "driver/read_ahead.h"
#include "protocol/codec.h"
#include "protocol/protocol.h"

namespace zbd {

enum class Kind : uint32_t { Env = 0x7a45e1, Dbc = 0x7a45e2, Stmt = 0x7a45e3, Desc = 0x7a45e4 };

// Diagnostics of the last call on a handle (the driver's copy).
struct Diagnostics {
    std::vector<zb::DiagRecord> records;
    SQLRETURN rc = SQL_SUCCESS;
    SQLLEN row_count = 0;
    int next_error = 0;  // SQLError's position
    void clear() {
        records.clear();
        rc = SQL_SUCCESS;
        next_error = 0;
    }
};

// Calls on one connection (its statements and descriptors included) run one
// at a time: the driver manager leaves that to drivers. An environment has a
// lock of its own, taken before any of its connections' where both are.
using CallLock = std::shared_ptr<std::recursive_mutex>;

struct Handle {
    explicit Handle(Kind k, CallLock l = std::make_shared<std::recursive_mutex>())
        : kind(k), lock(std::move(l)) {}
    Kind kind;
    CallLock lock;
    Diagnostics diag;
};

struct Dbc;
struct Stmt;

struct Env : Handle {
    Env() : Handle(Kind::Env) {}
    SQLINTEGER odbc_version = SQL_OV_ODBC3;
    std::set<Dbc *> connections;
};

struct ConnectAttr {
    SQLINTEGER attribute;
    bool text;
    int64_t value;
    std::string str;
};

struct Dbc : Handle {
    explicit Dbc(Env *e) : Handle(Kind::Dbc), env(e) {}
    Env *env;
    HRPC rpc = nullptr;
    uint64_t remote = 0;  // the server's connection
    std::string host, port;  // of the server
    std::optional<zb::CancelKey> cancel_key;  // none: the server cannot cancel from outside
    bool broken = false;  // the transport failed: only disconnect helps
    bool wide = false;    // the application connected through the wide entry points
    // SQL_ATTR_QUIET_MODE: a window of the application's, no use to a server.
    int64_t quiet_mode = 0;
    std::vector<ConnectAttr> pending;  // set before connecting
    std::map<int, std::pair<SQLRETURN, std::vector<uint8_t>>> info;  // SQLGetInfo answers
    std::set<Stmt *> statements;
    // Server statements the application freed with no attribute set on the
    // server: the next allocation takes one instead of a round trip each
    // way. A cursor still open on one (true) is closed by the first call
    // that uses it again, as any deferred close is.
    std::vector<std::pair<uint64_t, bool>> spare_statements;
    std::string out_connection;  // the completed connection string
    FirstReads first_reads;      // how results of each shape were read
    // What the last result each statement text opened looked like, and
    // whether the application asked its column attributes.
    struct TextMemory {
        ShapeKey shape;
        bool described = false;
    };
    std::map<std::string, TextMemory> texts;
    int timeout = 0;
    bool connected() const { return rpc != nullptr && remote != 0; }
};

// An implicit descriptor: only its handle is served (applications ask for it
// and hand it back); its fields are the statement's.
struct Desc : Handle {
    Desc(Stmt *s, SQLINTEGER w);
    Stmt *stmt;
    SQLINTEGER which;  // SQL_ATTR_APP_ROW_DESC, ...
};

struct ColumnBinding {
    SQLSMALLINT c_type;
    SQLPOINTER data;
    SQLLEN length;
    SQLLEN *indicator;
};

struct ParamBinding {
    SQLSMALLINT io, c_type, sql_type, digits;
    SQLULEN size;
    SQLPOINTER data;
    SQLLEN length;
    SQLLEN *indicator;
};

struct CachedAttribute {
    SQLRETURN rc;
    std::vector<zb::DiagRecord> diags;
    std::string text;
    SQLLEN number;
};

struct Stmt : Handle {
    explicit Stmt(Dbc *d)
        : Handle(Kind::Stmt, d->lock), dbc(d), ard(this, SQL_ATTR_APP_ROW_DESC),
          apd(this, SQL_ATTR_APP_PARAM_DESC), ird(this, SQL_ATTR_IMP_ROW_DESC),
          ipd(this, SQL_ATTR_IMP_PARAM_DESC), ahead(d->first_reads) {}
    Dbc *dbc;
    uint64_t remote = 0;
    Desc ard, apd, ird, ipd;

    std::map<SQLUSMALLINT, ColumnBinding> columns;
    std::map<SQLUSMALLINT, ParamBinding> params;

    // Attributes the driver applies itself.
    SQLULEN row_array_size = 1, row_bind_type = SQL_BIND_BY_COLUMN;
    SQLLEN *row_bind_offset = nullptr;
    SQLUSMALLINT *row_status = nullptr;
    SQLULEN *rows_fetched = nullptr;
    SQLULEN paramset_size = 1, param_bind_type = SQL_PARAM_BIND_BY_COLUMN;
    SQLLEN *param_bind_offset = nullptr;
    SQLUSMALLINT *param_status = nullptr;
    SQLULEN *params_processed = nullptr;

    // The current result, as the last execute, catalog call or prepare told.
    bool has_shape = false;
    zb::ResultShape shape;
    std::map<std::pair<int, int>, CachedAttribute> attributes;
    bool attributes_loaded = false;  // the common ones, for every column
    std::optional<std::string> result_text;  // the statement text of the current result
    ReadAhead ahead;                 // rows of the current result read ahead
    bool cursor_open = false;        // a result the server may still hold open
    bool close_pending = false;      // closed here, not yet on the server
    bool prepared = false;
    bool server_attributes_set = false;  // a SetStmtAttr went to the server
    std::optional<std::string> prepared_sql;
    SQLRETURN num_params_rc = SQL_ERROR;
    SQLSMALLINT num_params = 0;

    // Data at execution: pending execution and the values gathered so far.
    struct DataAtExec {
        bool active = false;
        std::optional<std::string> direct_sql;
        std::vector<SQLUSMALLINT> pending;  // parameter numbers still to send
        size_t current = SIZE_MAX;          // index into pending being filled
        std::map<SQLUSMALLINT, std::optional<std::vector<uint8_t>>> values;  // nullopt: NULL
    } dae;
};

// Casts a handle from the application after checking its kind; null when it
// is not a live handle of that kind.
template <typename T>
T *as(SQLHANDLE h, Kind k) {
    auto *base = static_cast<Handle *>(h);
    return base != nullptr && base->kind == k ? static_cast<T *>(base) : nullptr;
}

inline Desc::Desc(Stmt *s, SQLINTEGER w) : Handle(Kind::Desc, s->lock), stmt(s), which(w) {}

}  // namespace zbd
