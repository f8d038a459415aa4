// One client connection as the server sees it: the target environment and
// connection, the statements opened for the client, and the handles issued.
//
// A server process (or child) serves one client connection at a time, so
// the session is process-wide state.
#pragma once

#include <sql.h>
#include <sqlext.h>

#include <memory>
#include <set>
#include <string>
#include <thread>
#include <unordered_map>
#include <vector>

#include "protocol/codec.h"
#include "protocol/protocol.h"

namespace zbs {

// Buffers the target holds pointers into between calls.
struct BoundColumn {
    SQLSMALLINT c_type = 0;
    SQLLEN element = 0;  // bytes per row
    std::vector<uint8_t> data;
    std::vector<SQLLEN> indicators;
};

struct Statement {
    SQLHSTMT h = SQL_NULL_HSTMT;
    std::vector<std::vector<uint8_t>> param_values;
    std::vector<SQLLEN> param_indicators;
    std::unordered_map<int, BoundColumn> columns;  // by column number
    SQLULEN rowset = 1;
    SQLULEN rows_fetched = 0;
    std::vector<SQLUSMALLINT> row_status;
    std::vector<uint8_t> scratch;  // SQLGetData's buffer while reading ahead
};

struct Connection {
    SQLHDBC h = SQL_NULL_HDBC;
    bool connected = false;
};

struct Config {
    std::set<std::string> allowed_dsns;  // empty: every DSN
    unsigned negotiation_timeout = 10;   // seconds a new client has to negotiate
    std::string busy;                    // not empty: every connect is refused (08004) with it
};

// What a handler tells the dispatcher besides its return code.
struct Outcome {
    SQLRETURN rc = SQL_SUCCESS;
    std::vector<zb::DiagRecord> diags;

    // The operation fails with one diagnostic of the bridge's own.
    void fail(const char *sqlstate, const std::string &message);
};

// Rows one statement goes on reading on a thread of its own once a fetch
// reply is on its way (server/rows.h): the client's next fetch is answered
// with them. Every operation waits for the reading to end first.
struct ReadOn {
    Statement *stmt = nullptr;  // none: nothing read on
    std::thread worker;
    zb::Writer rows;  // a row list, as protocol/read_ahead.h describes
    bool clean = false;   // it stopped at a limit, not at an outcome
    bool failed = false;
};

class Session {
public:
    explicit Session(const Config &config) : config_(config) {}
    ~Session();

    const Config &config() const { return config_; }
    SQLHENV env() const { return env_; }
    SQLRETURN ensure_env(SQLINTEGER odbc_version);

    Connection *connection() { return connection_.get(); }
    Connection *open_connection();
    Statement *add_statement(SQLHSTMT h);
    void drop_statement(Statement *s);
    // After a disconnect: the driver manager has freed every statement.
    void forget_statements();

    // The issued object behind a pointer the client sent, or null when the
    // pointer is not one this session issued as that kind.
    Connection *find_connection(void *p) const;
    Statement *find_statement(void *p) const;

    // Rolls back and releases everything the client left open.
    void close_all();

    ReadOn read_on;
    // Waits for the rows being read on (the target is used by one thread at a time).
    void settle();
    // Forgets what was read on for s (for any statement when s is null).
    void drop_read_on(const Statement *s);

private:
    Config config_;
    SQLHENV env_ = SQL_NULL_HENV;
    std::unique_ptr<Connection> connection_;
    std::unordered_map<void *, std::unique_ptr<Statement>> statements_;
};

// Appends the target's diagnostics for a handle when rc asks for them.
void collect_diags(SQLSMALLINT type, SQLHANDLE h, SQLRETURN rc, Outcome &out);
zb::DiagRecord bridge_diag(const char *sqlstate, const std::string &message);

// Handlers: decode the request, act on the target, encode the reply payload.
using Handler = void (*)(Session &, void *handle, zb::Reader &, zb::Writer &, Outcome &);
Handler handler_for(zb::Op op);

// What SQLNumResultCols, SQLDescribeCol and SQLRowCount report, and its encoding.
zb::ResultShape result_shape(SQLHSTMT h);
void put_result_shape(zb::Writer &w, SQLHSTMT h);

// Writes SQLColAttribute's answers for the fields of one column, or of every
// column (first 0): a count, then column, field, return code, text, number
// for each. The diagnostics go to out when it is given.
void put_column_attributes(SQLHSTMT h, SQLUSMALLINT first, const std::vector<SQLUSMALLINT> &fields,
                           zb::Writer &w, Outcome *out);

// Loads the served data sources' drivers once, before children are forked.
void preload_drivers(const Config &config);

// Serves one connected client on descriptor fd until it leaves.
int serve_descriptor(int fd, const Config &config);

}  // namespace zbs
