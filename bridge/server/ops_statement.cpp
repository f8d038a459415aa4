// Handlers for statement operations: attributes, prepare, execute with
// parameters, catalog functions and result-set switching.
#include <algorithm>
#include <optional>

#include "protocol/odbc_kinds.h"
#include "server/cancel.h"
#include "server/ops.h"
#include "server/rows.h"
#include "server/wide.h"

namespace zbs {
namespace {

Statement &stmt(void *obj) { return *static_cast<Statement *>(obj); }

// Execute, prepare and catalog requests begin with the driver's deferred
// cursor close.
void close_if_asked(Statement &s, zb::Reader &in) {
    if (in.u8() != 0) SQLFreeStmt(s.h, SQL_CLOSE);
}

struct ParamSpec {
    SQLUSMALLINT number;
    SQLSMALLINT io, c_type, sql_type, digits;
    SQLULEN size;
    SQLLEN out_length;  // buffer length for output parameters
};

bool is_output(SQLSMALLINT io) { return io == SQL_PARAM_OUTPUT || io == SQL_PARAM_INPUT_OUTPUT; }

// Bytes of a returned value worth sending: what the target wrote, not the
// whole buffer.
size_t value_extent(SQLSMALLINT c_type, SQLLEN indicator, SQLLEN buffer_length) {
    if (int fixed = zb::c_type_fixed_size(c_type)) return indicator == SQL_NULL_DATA ? 0 : fixed;
    if (indicator == SQL_NULL_DATA || buffer_length <= 0) return 0;
    const SQLLEN term = c_type == SQL_C_CHAR ? 1 : c_type == SQL_C_WCHAR ? 2 : 0;
    if (indicator == SQL_NO_TOTAL || indicator < 0 || indicator + term > buffer_length)
        return static_cast<size_t>(buffer_length);
    return static_cast<size_t>(indicator + term);
}

SQLRETURN bind_set(Statement &s, const std::vector<ParamSpec> &specs) {
    for (size_t i = 0; i < specs.size(); ++i) {
        const auto &p = specs[i];
        auto &buf = s.param_values[i];
        SQLLEN length = static_cast<SQLLEN>(buf.size());
        if (is_output(p.io) && p.out_length > length) buf.resize(static_cast<size_t>(p.out_length));
        if (buf.empty()) buf.resize(1);
        SQLRETURN rc = SQLBindParameter(s.h, p.number, p.io, p.c_type, p.sql_type, p.size,
                                        p.digits, buf.data(),
                                        is_output(p.io) ? static_cast<SQLLEN>(buf.size()) : length,
                                        &s.param_indicators[i]);
        if (!SQL_SUCCEEDED(rc)) return rc;
    }
    return SQL_SUCCESS;
}

SQLRETURN worst(SQLRETURN a, SQLRETURN b) {
    if (a == SQL_ERROR || b == SQL_ERROR) return SQL_ERROR;
    if (a == SQL_SUCCESS_WITH_INFO || b == SQL_SUCCESS_WITH_INFO) return SQL_SUCCESS_WITH_INFO;
    return a == SQL_SUCCESS ? b : a;
}

// The catalog function `fn` with text arguments t and numbers n; nullopt for
// an unknown function. The 8-bit and the wide calls.
using Texts = std::vector<std::optional<std::string>>;

template <typename Arg>
std::optional<SQLRETURN> run_catalog(SQLHSTMT h, zb::CatalogFn fn, const std::vector<int16_t> &n, Arg p,
                                     auto calls) {
    auto l = [&](int i) { return p(i) ? static_cast<SQLSMALLINT>(calls.length(i)) : SQLSMALLINT{0}; };
    switch (fn) {
    case zb::CatalogFn::Tables: return calls.tables(h, p(0), l(0), p(1), l(1), p(2), l(2), p(3), l(3));
    case zb::CatalogFn::Columns: return calls.columns(h, p(0), l(0), p(1), l(1), p(2), l(2), p(3), l(3));
    case zb::CatalogFn::PrimaryKeys: return calls.primary_keys(h, p(0), l(0), p(1), l(1), p(2), l(2));
    case zb::CatalogFn::ForeignKeys:
        return calls.foreign_keys(h, p(0), l(0), p(1), l(1), p(2), l(2), p(3), l(3), p(4), l(4), p(5), l(5));
    case zb::CatalogFn::Statistics: return calls.statistics(h, p(0), l(0), p(1), l(1), p(2), l(2), n[0], n[1]);
    case zb::CatalogFn::SpecialColumns:
        return calls.special_columns(h, n[0], p(0), l(0), p(1), l(1), p(2), l(2), n[1], n[2]);
    case zb::CatalogFn::Procedures: return calls.procedures(h, p(0), l(0), p(1), l(1), p(2), l(2));
    case zb::CatalogFn::ProcedureColumns:
        return calls.procedure_columns(h, p(0), l(0), p(1), l(1), p(2), l(2), p(3), l(3));
    case zb::CatalogFn::GetTypeInfo: return calls.type_info(h, n[0]);
    case zb::CatalogFn::TablePrivileges: return calls.table_privileges(h, p(0), l(0), p(1), l(1), p(2), l(2));
    case zb::CatalogFn::ColumnPrivileges:
        return calls.column_privileges(h, p(0), l(0), p(1), l(1), p(2), l(2), p(3), l(3));
    default:
        return std::nullopt;
    }
}

// The catalog calls, 8-bit (no suffix) or wide (suffix W), as members.
#define ZBS_CATALOG_CALLS(W) \
    decltype(&SQLTables##W) tables = SQLTables##W; \
    decltype(&SQLColumns##W) columns = SQLColumns##W; \
    decltype(&SQLPrimaryKeys##W) primary_keys = SQLPrimaryKeys##W; \
    decltype(&SQLForeignKeys##W) foreign_keys = SQLForeignKeys##W; \
    decltype(&SQLStatistics##W) statistics = SQLStatistics##W; \
    decltype(&SQLSpecialColumns##W) special_columns = SQLSpecialColumns##W; \
    decltype(&SQLProcedures##W) procedures = SQLProcedures##W; \
    decltype(&SQLProcedureColumns##W) procedure_columns = SQLProcedureColumns##W; \
    decltype(&SQLGetTypeInfo##W) type_info = SQLGetTypeInfo##W; \
    decltype(&SQLTablePrivileges##W) table_privileges = SQLTablePrivileges##W; \
    decltype(&SQLColumnPrivileges##W) column_privileges = SQLColumnPrivileges##W;

std::optional<SQLRETURN> catalog(SQLHSTMT h, zb::CatalogFn fn, Texts &t, const std::vector<int16_t> &n) {
    struct {
        Texts &t;
        size_t length(int i) const { return t[i]->size(); }
        ZBS_CATALOG_CALLS()
    } calls{t};
    auto p = [&](int i) { return t[i] ? (SQLCHAR *)t[i]->data() : nullptr; };
    return run_catalog(h, fn, n, p, calls);
}

std::optional<SQLRETURN> catalog_wide(SQLHSTMT h, zb::CatalogFn fn, Texts &t, const std::vector<int16_t> &n) {
    std::vector<std::optional<std::u16string>> wt(t.size());
    for (size_t i = 0; i < t.size(); ++i)
        if (t[i]) wt[i] = to_wide(*t[i]);
    struct {
        std::vector<std::optional<std::u16string>> &t;
        size_t length(int i) const { return t[i]->size(); }
        ZBS_CATALOG_CALLS(W)
    } calls{wt};
    auto p = [&](int i) { return wt[i] ? wide_ptr(*wt[i]) : nullptr; };
    return run_catalog(h, fn, n, p, calls);
}

SQLRETURN prepare(SQLHSTMT h, const std::string &sql) {
    if (!wide_calls()) return SQLPrepare(h, (SQLCHAR *)sql.data(), static_cast<SQLINTEGER>(sql.size()));
    std::u16string w = to_wide(sql);
    return SQLPrepareW(h, wide_ptr(w), static_cast<SQLINTEGER>(w.size()));
}

SQLRETURN exec_direct(SQLHSTMT h, const std::string &sql) {
    if (!wide_calls()) return SQLExecDirect(h, (SQLCHAR *)sql.data(), static_cast<SQLINTEGER>(sql.size()));
    std::u16string w = to_wide(sql);
    return SQLExecDirectW(h, wide_ptr(w), static_cast<SQLINTEGER>(w.size()));
}

}  // namespace

void op_free_stmt(Session &sess, void *obj, zb::Reader &in, zb::Writer &, Outcome &out) {
    Statement &s = stmt(obj);
    int16_t option = in.i16();
    SQLRETURN rc;
    if (option == SQL_DROP) {
        rc = SQLFreeHandle(SQL_HANDLE_STMT, s.h);
        out.rc = rc;
        if (SQL_SUCCEEDED(rc)) sess.drop_statement(&s);
        return;
    }
    rc = option < 0 ? SQLCloseCursor(s.h) : SQLFreeStmt(s.h, static_cast<SQLUSMALLINT>(option));
    collect_diags(SQL_HANDLE_STMT, s.h, rc, out);
}

void op_set_stmt_attr(Session &, void *obj, zb::Reader &in, zb::Writer &, Outcome &out) {
    Statement &s = stmt(obj);
    int32_t attr = in.i32();
    int64_t value = in.i64();
    if (zb::stmt_attr_is_refused(attr)) {
        out.fail("HYC00",
                 "statement attribute " + std::to_string(attr) + " is not set through the bridge");
        return;
    }
    SQLRETURN rc = SQLSetStmtAttr(s.h, attr, (SQLPOINTER)(intptr_t)value, 0);
    collect_diags(SQL_HANDLE_STMT, s.h, rc, out);
}

void op_get_stmt_attr(Session &, void *obj, zb::Reader &in, zb::Writer &w, Outcome &out) {
    Statement &s = stmt(obj);
    SQLULEN value = 0;
    SQLINTEGER len = 0;
    SQLRETURN rc = SQLGetStmtAttr(s.h, in.i32(), &value, sizeof value, &len);
    collect_diags(SQL_HANDLE_STMT, s.h, rc, out);
    w.u64(value);
}

void op_prepare(Session &, void *obj, zb::Reader &in, zb::Writer &w, Outcome &out) {
    Statement &s = stmt(obj);
    close_if_asked(s, in);
    std::string sql = in.str();
    SQLRETURN rc = prepare(s.h, sql);
    collect_diags(SQL_HANDLE_STMT, s.h, rc, out);
    SQLSMALLINT params = 0;
    SQLRETURN prc = SQL_SUCCEEDED(rc) ? SQLNumParams(s.h, &params) : SQL_ERROR;
    w.i16(prc);
    w.i16(params);
    if (SQL_SUCCEEDED(rc)) put_result_shape(w, s.h);
}

// What an execute request may ask besides (protocol/read_ahead.h): rows read
// ahead at once for a result shaped as the driver expects, and the column
// attributes of the result.
static void put_execute_extras(Statement &s, zb::Reader &in, const zb::ResultShape &shape, bool clean, zb::Writer &w) {
    const uint8_t extras = in.u8();
    if (extras & zb::kExecuteReadsAhead) {
        const zb::ReadAheadPlan plan = zb::get_plan(in);
        const std::vector<zb::ColumnKey> expected = zb::get_column_keys(in);
        const bool read = clean && shape.column_count > 0 && expected == zb::column_keys(shape) &&
                          SQL_SUCCEEDED(bind_columns(s, {}, 1));
        w.u8(read);
        if (read) read_rows(s, plan, {}, w.size(), 0, w);
    }
    if (extras & zb::kExecuteDescribes) {
        std::vector<SQLUSMALLINT> fields(in.count(2));
        for (auto &f : fields) f = static_cast<SQLUSMALLINT>(in.i16());
        const bool described = shape.column_count > 0;
        w.u8(described);
        if (described) put_column_attributes(s.h, 0, fields, w, nullptr);
    }
}

void op_execute(Session &, void *obj, zb::Reader &in, zb::Writer &w, Outcome &out) {
    Statement &s = stmt(obj);
    close_if_asked(s, in);
    const bool direct = in.u8() != 0;
    std::string sql;
    if (direct) sql = in.str();
    std::vector<ParamSpec> specs(in.count(26));
    for (auto &p : specs) {
        p.number = static_cast<SQLUSMALLINT>(in.i16());
        p.io = in.i16();
        p.c_type = in.i16();
        p.sql_type = in.i16();
        p.size = in.u64();
        p.digits = in.i16();
        // What one value can need (as for SQLGetData); the buffer is
        // zeroed, so a larger one would only cost memory the client never sent.
        p.out_length = std::min<int64_t>(in.i64(), kMaxBuffer);
    }
    const uint64_t sets = std::max<uint64_t>(in.u64(), 1);
    // Each set holds an indicator and a length for every parameter.
    if (!specs.empty() && sets > in.remaining() / (specs.size() * 12))
        throw zb::DecodeError("bridge message counts more parameter sets than it holds");
    s.param_values.assign(specs.size(), {});
    s.param_indicators.assign(specs.size(), 0);
    std::vector<SQLUSMALLINT> status;  // of the sets processed
    SQLRETURN rc = SQL_SUCCESS;
    int64_t total_rows = 0;
    bool counted = false;

    SQLFreeStmt(s.h, SQL_RESET_PARAMS);
    // Parameter arrays run one set at a time: some targets cannot take them.
    if (direct && sets > 1) {
        rc = prepare(s.h, sql);
        collect_diags(SQL_HANDLE_STMT, s.h, rc, out);
    }
    for (uint64_t set = 0; set < sets && SQL_SUCCEEDED(rc); ++set) {
        for (size_t i = 0; i < specs.size(); ++i) {
            s.param_indicators[i] = static_cast<SQLLEN>(in.i64());
            auto b = in.bytes();
            s.param_values[i].assign(b.begin(), b.end());
        }
        SQLRETURN one = bind_set(s, specs);
        if (SQL_SUCCEEDED(one)) {
            if (direct && sets == 1)
                one = exec_direct(s.h, sql);
            else
                one = SQLExecute(s.h);
        }
        Outcome step;
        collect_diags(SQL_HANDLE_STMT, s.h, one, step);
        out.diags.insert(out.diags.end(), step.diags.begin(), step.diags.end());
        status.push_back(one == SQL_ERROR ? SQL_PARAM_ERROR
                      : one == SQL_SUCCESS_WITH_INFO ? SQL_PARAM_SUCCESS_WITH_INFO
                                                     : SQL_PARAM_SUCCESS);
        rc = set == 0 ? one : worst(rc, one);
        SQLLEN n = 0;
        if (sets > 1 && SQL_SUCCEEDED(one) && SQL_SUCCEEDED(SQLRowCount(s.h, &n)) && n >= 0) {
            total_rows += n;
            counted = true;
        }
    }
    out.rc = rc;
    w.u64(status.size());  // sets processed
    w.u32(static_cast<uint32_t>(status.size()));  // the driver marks the rest unused
    for (auto st : status) w.i16(static_cast<int16_t>(st));
    // Output parameters of the last set.
    for (size_t i = 0; i < specs.size(); ++i) {
        if (!is_output(specs[i].io)) continue;
        const auto &buf = s.param_values[i];
        w.i64(s.param_indicators[i]);
        size_t n = value_extent(specs[i].c_type, s.param_indicators[i],
                                static_cast<SQLLEN>(buf.size()));
        w.bytes(buf.data(), std::min(n, buf.size()));
    }
    zb::ResultShape shape = result_shape(s.h);
    if (counted) {  // the count of the whole array, not of its last set
        shape.rowcount_rc = SQL_SUCCESS;
        shape.row_count = total_rows;
    }
    zb::put_shape(w, shape);
    if (status.size() == sets && !in.done()) put_execute_extras(s, in, shape, rc == SQL_SUCCESS && sets == 1, w);
}

void op_catalog(Session &, void *obj, zb::Reader &in, zb::Writer &w, Outcome &out) {
    Statement &s = stmt(obj);
    close_if_asked(s, in);
    auto fn = static_cast<zb::CatalogFn>(in.i32());
    std::vector<std::optional<std::string>> t(in.count(1));
    for (auto &x : t) x = in.opt_str();
    std::vector<int16_t> n(in.count(2));
    for (auto &x : n) x = in.i16();
    t.resize(6);
    n.resize(3);
    const std::optional<SQLRETURN> rc = wide_calls() ? catalog_wide(s.h, fn, t, n) : catalog(s.h, fn, t, n);
    if (!rc) {
        out.fail("HY000", "unknown catalog function");
        return;
    }
    collect_diags(SQL_HANDLE_STMT, s.h, *rc, out);
    put_result_shape(w, s.h);
}

void op_describe_param(Session &, void *obj, zb::Reader &in, zb::Writer &w, Outcome &out) {
    Statement &s = stmt(obj);
    SQLSMALLINT type = 0, digits = 0, nullable = 0;
    SQLULEN size = 0;
    SQLRETURN rc = SQLDescribeParam(s.h, static_cast<SQLUSMALLINT>(in.i16()), &type, &size,
                                    &digits, &nullable);
    collect_diags(SQL_HANDLE_STMT, s.h, rc, out);
    w.i16(type);
    w.u64(size);
    w.i16(digits);
    w.i16(nullable);
}

void op_more_results(Session &, void *obj, zb::Reader &, zb::Writer &w, Outcome &out) {
    Statement &s = stmt(obj);
    SQLRETURN rc = SQLMoreResults(s.h);
    collect_diags(SQL_HANDLE_STMT, s.h, rc, out);
    put_result_shape(w, s.h);
}

void op_cancel(Session &, void *obj, zb::Reader &, zb::Writer &, Outcome &out) {
    Statement &s = stmt(obj);
    collect_diags(SQL_HANDLE_STMT, s.h, SQLCancel(s.h), out);
}

// SQL_SUCCESS: the call was asked to stop; SQL_NO_DATA: the statement has no
// call running.
void op_cancel_call(Session &, void *, zb::Reader &in, zb::Writer &, Outcome &out) {
    const CancelKey key = zb::get_cancel_key(in);
    const uint64_t statement = in.u64();
    switch (request_cancel(key, statement)) {
    case CancelResult::Signalled: break;
    case CancelResult::NotRunning: out.rc = SQL_NO_DATA; break;
    case CancelResult::UnknownKey: out.fail("HY000", "no connection of this server holds that cancel key");
    }
}

}  // namespace zbs
