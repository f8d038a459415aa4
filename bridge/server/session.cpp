#include "server/session.h"

#include "server/wide.h"

namespace zbs {

Session::~Session() { close_all(); }

SQLRETURN Session::ensure_env(SQLINTEGER odbc_version) {
    if (env_ != SQL_NULL_HENV) return SQL_SUCCESS;
    SQLRETURN rc = SQLAllocHandle(SQL_HANDLE_ENV, SQL_NULL_HANDLE, &env_);
    if (!SQL_SUCCEEDED(rc)) return rc;
    return SQLSetEnvAttr(env_, SQL_ATTR_ODBC_VERSION,
                         reinterpret_cast<SQLPOINTER>(static_cast<intptr_t>(odbc_version)), 0);
}

Connection *Session::open_connection() {
    connection_ = std::make_unique<Connection>();
    return connection_.get();
}

Statement *Session::add_statement(SQLHSTMT h) {
    auto s = std::make_unique<Statement>();
    s->h = h;
    Statement *raw = s.get();
    statements_.emplace(raw, std::move(s));
    return raw;
}

void Session::drop_statement(Statement *s) {
    drop_read_on(s);
    statements_.erase(s);
}

void Session::forget_statements() {
    drop_read_on(nullptr);
    statements_.clear();
}

Connection *Session::find_connection(void *p) const {
    return p != nullptr && p == connection_.get() ? connection_.get() : nullptr;
}

Statement *Session::find_statement(void *p) const {
    auto it = statements_.find(p);
    return it == statements_.end() ? nullptr : it->second.get();
}

void Session::settle() {
    if (read_on.worker.joinable()) read_on.worker.join();
}

void Session::drop_read_on(const Statement *s) {
    settle();
    if (s == nullptr || read_on.stmt == s) {
        read_on.stmt = nullptr;
        read_on.rows = zb::Writer();
        read_on.clean = false;
        read_on.failed = false;
    }
}

void Session::close_all() {
    drop_read_on(nullptr);
    for (auto &[key, s] : statements_) SQLFreeHandle(SQL_HANDLE_STMT, s->h);
    statements_.clear();
    if (connection_) {
        if (connection_->connected) {
            SQLEndTran(SQL_HANDLE_DBC, connection_->h, SQL_ROLLBACK);
            SQLDisconnect(connection_->h);
        }
        if (connection_->h != SQL_NULL_HDBC) SQLFreeHandle(SQL_HANDLE_DBC, connection_->h);
        connection_.reset();
    }
    if (env_ != SQL_NULL_HENV) SQLFreeHandle(SQL_HANDLE_ENV, env_);
    env_ = SQL_NULL_HENV;
}

namespace {

// SQLGetDiagRec of record i: state, native code and message.
template <typename Char, typename GetDiagRec, typename Text>
bool diag_record_with(GetDiagRec get, Text text_of, SQLSMALLINT type, SQLHANDLE h, SQLSMALLINT i,
                      zb::DiagRecord &r) {
    Char state[6] = {0};
    SQLINTEGER native = 0;
    SQLSMALLINT len = 0;
    std::vector<Char> text(1024);
    SQLRETURN d = get(type, h, i, state, &native, text.data(), static_cast<SQLSMALLINT>(text.size()), &len);
    if (d == SQL_SUCCESS_WITH_INFO && len >= static_cast<SQLSMALLINT>(text.size())) {
        text.resize(static_cast<size_t>(len) + 1);
        d = get(type, h, i, state, &native, text.data(), static_cast<SQLSMALLINT>(text.size()), &len);
    }
    if (!SQL_SUCCEEDED(d)) return false;
    r.sqlstate = text_of(state, 5);
    r.native = native;
    r.message = text_of(text.data(), std::min<size_t>(static_cast<size_t>(len), text.size() - 1));
    return true;
}

bool diag_record(SQLSMALLINT type, SQLHANDLE h, SQLSMALLINT i, zb::DiagRecord &r) {
    if (wide_calls())
        return diag_record_with<SQLWCHAR>(SQLGetDiagRecW, from_wide, type, h, i, r);
    auto narrow = [](const SQLCHAR *text, size_t n) { return std::string(reinterpret_cast<const char *>(text), n); };
    return diag_record_with<SQLCHAR>(SQLGetDiagRec, narrow, type, h, i, r);
}

// SQLDescribeCol's name of column i.
SQLRETURN describe_column(SQLHSTMT h, SQLSMALLINT i, zb::ColumnDesc &c) {
    SQLSMALLINT len = 0;
    auto *size = reinterpret_cast<SQLULEN *>(&c.size);
    if (wide_calls()) {
        std::vector<SQLWCHAR> name(1024);
        SQLRETURN rc = SQLDescribeColW(h, static_cast<SQLUSMALLINT>(i), name.data(),
                                       static_cast<SQLSMALLINT>(name.size()), &len, &c.sql_type, size,
                                       &c.digits, &c.nullable);
        if (SQL_SUCCEEDED(rc)) c.name = from_wide(name.data(), std::min<size_t>(static_cast<size_t>(len), name.size() - 1));
        return rc;
    }
    std::vector<SQLCHAR> name(1024);
    SQLRETURN rc = SQLDescribeCol(h, static_cast<SQLUSMALLINT>(i), name.data(), static_cast<SQLSMALLINT>(name.size()),
                                  &len, &c.sql_type, size, &c.digits, &c.nullable);
    if (SQL_SUCCEEDED(rc))
        c.name.assign(reinterpret_cast<char *>(name.data()), std::min<size_t>(static_cast<size_t>(len), name.size() - 1));
    return rc;
}

}  // namespace

void collect_diags(SQLSMALLINT type, SQLHANDLE h, SQLRETURN rc, Outcome &out) {
    out.rc = rc;
    if (rc == SQL_SUCCESS || rc == SQL_INVALID_HANDLE || h == SQL_NULL_HANDLE) return;
    for (SQLSMALLINT i = 1;; ++i) {
        zb::DiagRecord r;
        if (!diag_record(type, h, i, r)) break;
        SQLCHAR origin[256];
        SQLSMALLINT olen = 0;
        if (SQL_SUCCEEDED(SQLGetDiagField(type, h, i, SQL_DIAG_CLASS_ORIGIN, origin,
                                          sizeof origin, &olen)))
            r.class_origin.assign(reinterpret_cast<char *>(origin),
                                  std::min<size_t>(olen, sizeof origin - 1));
        if (SQL_SUCCEEDED(SQLGetDiagField(type, h, i, SQL_DIAG_SUBCLASS_ORIGIN, origin,
                                          sizeof origin, &olen)))
            r.subclass_origin.assign(reinterpret_cast<char *>(origin),
                                     std::min<size_t>(olen, sizeof origin - 1));
        out.diags.push_back(std::move(r));
    }
}

zb::DiagRecord bridge_diag(const char *sqlstate, const std::string &message) {
    zb::DiagRecord r;
    r.sqlstate = sqlstate;
    r.message = "[zephodbc-server]" + message;
    r.class_origin = sqlstate[0] == 'I' && sqlstate[1] == 'M' ? "ODBC 3.0" : "ISO 9075";
    r.subclass_origin = r.class_origin;
    return r;
}

void Outcome::fail(const char *sqlstate, const std::string &message) {
    rc = SQL_ERROR;
    diags.push_back(bridge_diag(sqlstate, message));
}

void put_result_shape(zb::Writer &w, SQLHSTMT h) { zb::put_shape(w, result_shape(h)); }

zb::ResultShape result_shape(SQLHSTMT h) {
    zb::ResultShape s;
    SQLSMALLINT n = 0;
    s.columns_rc = SQLNumResultCols(h, &n);
    s.column_count = SQL_SUCCEEDED(s.columns_rc) ? n : 0;
    for (SQLSMALLINT i = 1; i <= s.column_count; ++i) {
        zb::ColumnDesc c;
        describe_column(h, i, c);
        SQLLEN is_unsigned = 0;
        c.unsigned_rc = SQLColAttribute(h, static_cast<SQLUSMALLINT>(i), SQL_DESC_UNSIGNED, nullptr, 0,
                                        nullptr, &is_unsigned);
        c.is_unsigned = is_unsigned;
        s.columns.push_back(std::move(c));
    }
    SQLLEN count = -1;
    s.rowcount_rc = SQLRowCount(h, &count);
    s.row_count = count;
    return s;
}

}  // namespace zbs
