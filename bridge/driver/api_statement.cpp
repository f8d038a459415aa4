// Statements: allocation, attributes, prepare and execute with the
// application's parameters (read from its buffers at execute time), data at
// execution, catalog functions.
#include <cstring>
#include <tuple>

#include "driver/api.h"
#include "driver/params.h"
#include "driver/remote.h"
#include "protocol/odbc_kinds.h"

namespace zbd {
namespace {

Reply stmt_call(Stmt &s, zb::Op op, zb::Writer &w) { return call(s, op, w); }

void take_shape(Stmt &s, Reply &r, SQLRETURN rc, bool opens_cursor = true) {
    s.attributes.clear();
    s.attributes_loaded = false;
    s.has_shape = false;
    s.result_text.reset();
    s.ahead.close_result();
    if (!SQL_SUCCEEDED(rc) && rc != SQL_NO_DATA) return;
    if (r.in.done()) return;
    s.shape = zb::get_shape(r.in);
    s.has_shape = true;
    s.ahead.new_result(zb::column_keys(s.shape));
    for (size_t i = 0; i < s.shape.columns.size(); ++i) {
        const auto &c = s.shape.columns[i];
        if (c.unsigned_rc == SQL_SUCCESS)
            s.attributes.emplace(std::make_pair(static_cast<int>(i + 1), SQL_DESC_UNSIGNED),
                                 CachedAttribute{SQL_SUCCESS, {}, {}, static_cast<SQLLEN>(c.is_unsigned)});
    }
    if (opens_cursor && s.shape.column_count > 0) s.cursor_open = true;
}

void remember_shape(Stmt &s, const std::optional<std::string> &text) {
    if (!text || !s.has_shape || s.shape.column_count == 0) return;
    auto &known = s.dbc->texts;
    constexpr size_t kTextsKept = 256;
    if (known.size() >= kTextsKept && !known.contains(*text)) known.clear();
    known[*text].shape = zb::column_keys(s.shape);
}

SQLRETURN run_execute(Stmt &s, const Text &direct_sql) {
    zb::Writer w;
    std::vector<SQLUSMALLINT> dae;
    if (SQLRETURN rc = encode_execute(s, direct_sql, w, dae); rc != SQL_SUCCESS) return rc;
    if (!dae.empty()) {  // the values come through SQLParamData and SQLPutData first
        s.dae = {};
        s.dae.active = true;
        s.dae.direct_sql = direct_sql;
        s.dae.pending = dae;
        return SQL_NEED_DATA;
    }
    // A statement text that opened a result before is expected to open one
    // of the same shape: its first rows (and its column attributes, when
    // the application asked them last time) come back with the execute.
    const std::optional<std::string> &text = direct_sql ? direct_sql : s.prepared_sql;
    std::optional<zb::ReadAheadPlan> plan;
    uint8_t extras = 0;
    auto known = text ? s.dbc->texts.find(*text) : s.dbc->texts.end();
    if (known != s.dbc->texts.end()) {
        if (s.columns.empty() && s.row_array_size == 1 && s.paramset_size == 1)
            plan = s.ahead.execute_plan(known->second.shape);
        extras = static_cast<uint8_t>((plan ? zb::kExecuteReadsAhead : 0) |
                                      (known->second.described ? zb::kExecuteDescribes : 0));
    }
    if (extras != 0) {
        w.u8(extras);
        if (plan) {
            zb::put_plan(w, *plan);
            zb::put_column_keys(w, known->second.shape);
        }
        if (extras & zb::kExecuteDescribes) put_common_fields(w);
    }
    Reply r = stmt_call(s, zb::Op::Execute, w);
    SQLRETURN rc = adopt(s, r);
    if (rc != SQL_INVALID_HANDLE && !r.in.done()) {
        decode_execute_reply(s, r.in);
        take_shape(s, r, rc);
        if (extras != 0 && !r.in.done()) {
            if (plan && r.in.u8() != 0) s.ahead.take_rows(std::move(r.bytes), r.in, *plan);
            if ((extras & zb::kExecuteDescribes) && r.in.u8() != 0) take_common_attributes(s, r.in);
        }
    }
    s.result_text = text;
    remember_shape(s, text);
    if (direct_sql) s.prepared = false;
    return rc;
}

}  // namespace

SQLRETURN alloc_stmt(Dbc &dbc, SQLHANDLE *out) {
    if (!dbc.connected()) return add_diag(dbc, "08003", "Connection not open");
    if (!dbc.spare_statements.empty()) {
        auto *s = new Stmt(&dbc);
        std::tie(s->remote, s->close_pending) = dbc.spare_statements.back();
        dbc.spare_statements.pop_back();
        dbc.statements.insert(s);
        *out = s;
        return SQL_SUCCESS;
    }
    zb::Writer w;
    Reply r = call(dbc, zb::Op::AllocStmt, dbc.remote, w);
    SQLRETURN rc = adopt(dbc, r);
    if (!SQL_SUCCEEDED(rc)) return rc;
    auto *s = new Stmt(&dbc);
    s->remote = r.in.u64();
    dbc.statements.insert(s);
    *out = s;
    return rc;
}

SQLRETURN free_stmt(Stmt &s, SQLUSMALLINT option) {
    switch (option) {
    case SQL_UNBIND:
        s.columns.clear();
        return SQL_SUCCESS;
    case SQL_RESET_PARAMS:
        s.params.clear();
        return SQL_SUCCESS;
    case SQL_DROP: {
        Dbc &dbc = *s.dbc;
        constexpr size_t kSparesKept = 4;
        const bool reusable = !s.dae.active && !s.server_attributes_set;
        if (reusable && dbc.connected() && !dbc.broken && dbc.spare_statements.size() < kSparesKept) {
            dbc.spare_statements.emplace_back(s.remote, s.cursor_open || s.close_pending);
        } else if (dbc.connected() && !dbc.broken) {
            zb::Writer w;
            w.i16(SQL_DROP);
            Reply r = stmt_call(s, zb::Op::FreeStmt, w);
            if (r.rc == SQL_ERROR && !dbc.broken) return adopt(s, r);
        }
        dbc.statements.erase(&s);
        delete &s;
        return SQL_SUCCESS;
    }
    case SQL_CLOSE:
        // Closing a cursor cannot fail in a way the application could act
        // on; the server closes it with the next call on this statement
        // (applications close before every execute: no round trip for it).
        s.dae = {};
        s.ahead.close_result();
        if (s.cursor_open) s.close_pending = true;
        s.cursor_open = false;
        if (!s.prepared) s.has_shape = false;
        return SQL_SUCCESS;
    default:
        return add_diag(s, "HY092", "Invalid attribute/option identifier");
    }
}

SQLRETURN close_cursor(Stmt &s) {
    zb::Writer w;
    w.i16(-1);
    Reply r = stmt_call(s, zb::Op::FreeStmt, w);
    SQLRETURN rc = adopt(s, r);
    s.ahead.close_result();
    if (SQL_SUCCEEDED(rc)) {
        s.cursor_open = false;
        if (!s.prepared) s.has_shape = false;
    }
    return rc;
}

SQLRETURN set_stmt_attr(Stmt &s, SQLINTEGER attr, SQLPOINTER value) {
    const auto number = static_cast<SQLULEN>(reinterpret_cast<uintptr_t>(value));
    if (!zb::stmt_attr_is_local(attr)) {
        s.server_attributes_set = true;
        zb::Writer w;
        w.i32(attr);
        w.i64(static_cast<int64_t>(number));
        Reply r = stmt_call(s, zb::Op::SetStmtAttr, w);
        return adopt(s, r);
    }
    switch (attr) {
    case SQL_ATTR_ROW_ARRAY_SIZE:
        if (number == 0) return add_diag(s, "HY024", "Invalid attribute value");
        s.row_array_size = number;
        break;
    case SQL_ATTR_ROW_BIND_TYPE: s.row_bind_type = number; break;
    case SQL_ATTR_ROW_BIND_OFFSET_PTR: s.row_bind_offset = static_cast<SQLLEN *>(value); break;
    case SQL_ATTR_ROW_STATUS_PTR: s.row_status = static_cast<SQLUSMALLINT *>(value); break;
    case SQL_ATTR_ROWS_FETCHED_PTR: s.rows_fetched = static_cast<SQLULEN *>(value); break;
    case SQL_ATTR_PARAMSET_SIZE:
        if (number == 0) return add_diag(s, "HY024", "Invalid attribute value");
        s.paramset_size = number;
        break;
    case SQL_ATTR_PARAM_BIND_TYPE: s.param_bind_type = number; break;
    case SQL_ATTR_PARAM_BIND_OFFSET_PTR: s.param_bind_offset = static_cast<SQLLEN *>(value); break;
    case SQL_ATTR_PARAM_STATUS_PTR: s.param_status = static_cast<SQLUSMALLINT *>(value); break;
    case SQL_ATTR_PARAMS_PROCESSED_PTR: s.params_processed = static_cast<SQLULEN *>(value); break;
    default:  // the implicit descriptors cannot be replaced
        return add_diag(s, "HY017", "Invalid use of an automatically allocated descriptor handle");
    }
    return SQL_SUCCESS;
}

SQLRETURN get_stmt_attr(Stmt &s, SQLINTEGER attr, SQLPOINTER value) {
    if (value == nullptr) return add_diag(s, "HY009", "Invalid use of null pointer");
    auto put = [&](auto v) {
        std::memcpy(value, &v, sizeof v);
        return SQL_SUCCESS;
    };
    switch (attr) {
    case SQL_ATTR_APP_ROW_DESC: return put(static_cast<SQLHANDLE>(&s.ard));
    case SQL_ATTR_APP_PARAM_DESC: return put(static_cast<SQLHANDLE>(&s.apd));
    case SQL_ATTR_IMP_ROW_DESC: return put(static_cast<SQLHANDLE>(&s.ird));
    case SQL_ATTR_IMP_PARAM_DESC: return put(static_cast<SQLHANDLE>(&s.ipd));
    case SQL_ATTR_ROW_ARRAY_SIZE: return put(s.row_array_size);
    case SQL_ATTR_ROW_BIND_TYPE: return put(s.row_bind_type);
    case SQL_ATTR_ROW_BIND_OFFSET_PTR: return put(s.row_bind_offset);
    case SQL_ATTR_ROW_STATUS_PTR: return put(s.row_status);
    case SQL_ATTR_ROWS_FETCHED_PTR: return put(s.rows_fetched);
    case SQL_ATTR_PARAMSET_SIZE: return put(s.paramset_size);
    case SQL_ATTR_PARAM_BIND_TYPE: return put(s.param_bind_type);
    case SQL_ATTR_PARAM_BIND_OFFSET_PTR: return put(s.param_bind_offset);
    case SQL_ATTR_PARAM_STATUS_PTR: return put(s.param_status);
    case SQL_ATTR_PARAMS_PROCESSED_PTR: return put(s.params_processed);
    default: break;
    }
    // The server's cursor may be rows ahead of the application's.
    if (const HeldRow *row = s.ahead.current(); attr == SQL_ATTR_ROW_NUMBER && row != nullptr) {
        if (!SQL_SUCCEEDED(row->number_rc)) return add_diag(s, "HY000", "the row number of this row is not known");
        return put(row->number);
    }
    zb::Writer w;
    w.i32(attr);
    Reply r = stmt_call(s, zb::Op::GetStmtAttr, w);
    SQLRETURN rc = adopt(s, r);
    if (SQL_SUCCEEDED(rc)) put(static_cast<SQLULEN>(r.in.u64()));
    return rc;
}

SQLRETURN prepare(Stmt &s, const std::string &sql) {
    s.dae = {};
    zb::Writer w;
    w.str(sql);
    Reply r = stmt_call(s, zb::Op::Prepare, w);
    SQLRETURN rc = adopt(s, r);
    s.prepared = SQL_SUCCEEDED(rc);
    s.prepared_sql = s.prepared ? std::optional<std::string>(sql) : std::nullopt;
    s.has_shape = false;
    s.attributes.clear();
    if (s.prepared) {
        s.num_params_rc = r.in.i16();
        s.num_params = r.in.i16();
        take_shape(s, r, rc, false);
    }
    return rc;
}

SQLRETURN execute(Stmt &s, const Text &direct_sql) {
    if (s.dae.active) return add_diag(s, "HY010", "Function sequence error");
    if (!direct_sql && !s.prepared) return add_diag(s, "HY010", "Function sequence error");
    return run_execute(s, direct_sql);
}

SQLRETURN param_data(Stmt &s, SQLPOINTER *token) {
    auto &d = s.dae;
    if (!d.active) return add_diag(s, "HY010", "Function sequence error");
    d.current = d.current == SIZE_MAX ? 0 : d.current + 1;
    if (d.current < d.pending.size()) {
        const ParamBinding &b = s.params.at(d.pending[d.current]);
        if (token != nullptr) *token = b.data;
        return SQL_NEED_DATA;
    }
    zb::Writer w;
    std::vector<SQLUSMALLINT> unused;
    SQLRETURN rc = encode_execute(s, d.direct_sql, w, unused);
    Text direct = d.direct_sql;
    if (rc != SQL_SUCCESS) {
        s.dae = {};
        return rc;
    }
    s.dae = {};
    Reply r = stmt_call(s, zb::Op::Execute, w);
    rc = adopt(s, r);
    if (rc != SQL_INVALID_HANDLE && !r.in.done()) {
        decode_execute_reply(s, r.in);
        take_shape(s, r, rc);
    }
    if (direct) s.prepared = false;
    return rc;
}

SQLRETURN put_data(Stmt &s, SQLPOINTER data, SQLLEN length) {
    auto &d = s.dae;
    if (!d.active || d.current >= d.pending.size()) return add_diag(s, "HY010", "Function sequence error");
    const SQLUSMALLINT number = d.pending[d.current];
    return append_put_data(s, s.params.at(number), d.values[number], data, length);
}

SQLRETURN catalog(Stmt &s, int fn, const std::vector<Text> &texts, const std::vector<int16_t> &numbers) {
    zb::Writer w;
    w.i32(fn);
    w.u32(static_cast<uint32_t>(texts.size()));
    for (const auto &t : texts) w.opt_str(t);
    w.u32(static_cast<uint32_t>(numbers.size()));
    for (auto n : numbers) w.i16(n);
    Reply r = stmt_call(s, zb::Op::Catalog, w);
    SQLRETURN rc = adopt(s, r);
    s.prepared = false;
    take_shape(s, r, rc);
    return rc;
}

SQLRETURN more_results(Stmt &s) {
    zb::Writer w;
    Reply r = stmt_call(s, zb::Op::MoreResults, w);
    SQLRETURN rc = adopt(s, r);
    take_shape(s, r, rc);
    if (rc == SQL_NO_DATA) s.cursor_open = false;  // no more results: the target closed the cursor
    return rc;
}

SQLRETURN cancel(Stmt &s) {
    if (s.dae.active) {
        s.dae = {};
        return SQL_SUCCESS;
    }
    zb::Writer w;
    Reply r = stmt_call(s, zb::Op::Cancel, w);
    return adopt(s, r);
}

SQLRETURN describe_param(Stmt &s, SQLUSMALLINT n, SQLSMALLINT *type, SQLULEN *size,
                         SQLSMALLINT *digits, SQLSMALLINT *nullable) {
    zb::Writer w;
    w.i16(static_cast<int16_t>(n));
    Reply r = stmt_call(s, zb::Op::DescribeParam, w);
    SQLRETURN rc = adopt(s, r);
    if (!SQL_SUCCEEDED(rc)) return rc;
    int16_t t = r.in.i16();
    uint64_t z = r.in.u64();
    int16_t dg = r.in.i16(), nl = r.in.i16();
    if (type) *type = t;
    if (size) *size = z;
    if (digits) *digits = dg;
    if (nullable) *nullable = nl;
    return rc;
}

}  // namespace zbd
