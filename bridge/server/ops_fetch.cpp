// Handlers that read a result: block fetches into bound columns, SQLGetData
// and column attributes.
#include <algorithm>
#include <cstring>

#include "protocol/odbc_kinds.h"
#include "protocol/read_ahead.h"
#include "server/ops.h"
#include "server/wide.h"

namespace zbs {
namespace {

Statement &stmt(void *obj) { return *static_cast<Statement *>(obj); }

constexpr SQLLEN kMaxBuffer = 256 << 20;  // one value never needs more

SQLLEN element_size(SQLSMALLINT c_type, SQLLEN buffer_length) {
    if (int fixed = zb::c_type_fixed_size(c_type)) return fixed;
    return std::clamp<SQLLEN>(buffer_length, 1, kMaxBuffer);
}

// Bytes of a value worth sending back: what the target wrote, not the buffer.
size_t extent(SQLSMALLINT c_type, SQLLEN indicator, SQLLEN buffer_length, SQLLEN element) {
    if (zb::c_type_fixed_size(c_type) != 0) return indicator == SQL_NULL_DATA ? 0 : static_cast<size_t>(element);
    if (indicator == SQL_NULL_DATA || buffer_length <= 0) return 0;
    const SQLLEN term = c_type == SQL_C_CHAR ? 1 : c_type == SQL_C_WCHAR ? 2 : 0;
    SQLLEN n = (indicator < 0 || indicator + term > buffer_length) ? buffer_length : indicator + term;
    return static_cast<size_t>(std::min(n, element));
}

struct ColumnRequest {
    SQLUSMALLINT column;
    SQLSMALLINT c_type;
    SQLLEN buffer_length;
};

// Binds the target's columns to this statement's buffers as requested,
// reusing the binding the previous fetch made when nothing changed.
SQLRETURN bind_columns(Statement &s, const std::vector<ColumnRequest> &req, SQLULEN rowset) {
    bool same = s.columns.size() == req.size() && rowset == s.rowset && !s.row_status.empty();
    for (const auto &r : req) {
        auto it = s.columns.find(r.column);
        same = same && it != s.columns.end() && it->second.c_type == r.c_type &&
               it->second.element == element_size(r.c_type, r.buffer_length);
    }
    if (same) return SQL_SUCCESS;
    SQLFreeStmt(s.h, SQL_UNBIND);
    s.columns.clear();
    if (rowset != s.rowset) {
        SQLRETURN rc = SQLSetStmtAttr(s.h, SQL_ATTR_ROW_ARRAY_SIZE, (SQLPOINTER)rowset, 0);
        if (!SQL_SUCCEEDED(rc)) return rc;
        s.rowset = rowset;
    }
    s.row_status.assign(rowset, 0);
    SQLSetStmtAttr(s.h, SQL_ATTR_ROW_STATUS_PTR, s.row_status.data(), 0);
    SQLSetStmtAttr(s.h, SQL_ATTR_ROWS_FETCHED_PTR, &s.rows_fetched, 0);
    for (const auto &r : req) {
        BoundColumn &b = s.columns[r.column];
        b.c_type = r.c_type;
        b.element = element_size(r.c_type, r.buffer_length);
        b.data.assign(static_cast<size_t>(b.element) * rowset, 0);
        b.indicators.assign(rowset, 0);
        SQLRETURN rc = SQLBindCol(s.h, r.column, r.c_type, b.data.data(), b.element,
                                  b.indicators.data());
        if (!SQL_SUCCEEDED(rc)) return rc;
    }
    return SQL_SUCCESS;
}

// SQLColAttribute: the text (when the field has one) and the number.
SQLRETURN col_attribute(SQLHSTMT h, SQLUSMALLINT column, SQLUSMALLINT field, std::string &text,
                        SQLLEN &number) {
    SQLSMALLINT len = 0;
    if (wide_calls()) {
        std::vector<SQLWCHAR> buf(2048, 0);
        SQLRETURN rc = SQLColAttributeW(h, column, field, buf.data(), static_cast<SQLSMALLINT>(2 * (buf.size() - 1)),
                                        &len, &number);
        size_t n = len > 0 ? std::min<size_t>(static_cast<size_t>(len) / 2, buf.size() - 1) : 0;
        while (len <= 0 && n < buf.size() - 1 && buf[n] != 0) ++n;
        text = from_wide(buf.data(), n);
        return rc;
    }
    std::vector<char> buf(4096, 0);
    SQLRETURN rc = SQLColAttribute(h, column, field, buf.data(), static_cast<SQLSMALLINT>(buf.size()), &len, &number);
    size_t n = len > 0 ? std::min<size_t>(static_cast<size_t>(len), 4095) : strnlen(buf.data(), 4095);
    text.assign(buf.data(), n);
    return rc;
}

}  // namespace

namespace {

// Writes the rowset a fetch left in the statement's bound buffers.
void put_rowset(zb::Writer &w, Statement &s, const std::vector<ColumnRequest> &req, SQLULEN rows) {
    w.u64(rows);
    for (SQLULEN i = 0; i < rows; ++i) w.i16(static_cast<int16_t>(s.row_status[i]));
    for (const auto &r : req) {
        const BoundColumn &b = s.columns[r.column];
        for (SQLULEN i = 0; i < rows; ++i) {
            SQLLEN ind = b.indicators[i];
            w.i64(ind);
            w.bytes(b.data.data() + i * static_cast<size_t>(b.element),
                    extent(r.c_type, ind, r.buffer_length, b.element));
        }
    }
}

// SQLGetData as requested, written as a replayed call. False when its
// outcome was anything but plain SQL_SUCCESS: reading ahead stops there.
bool replay_call(Statement &s, const zb::DataRequest &r, zb::Writer &w) {
    const SQLLEN buffer_length = std::min<SQLLEN>(static_cast<SQLLEN>(r.buffer_length), kMaxBuffer);
    const SQLLEN element = element_size(r.c_type, buffer_length);
    if (s.scratch.size() < static_cast<size_t>(element)) s.scratch.resize(static_cast<size_t>(element));
    std::memset(s.scratch.data(), 0, static_cast<size_t>(element));
    SQLLEN ind = 0;
    const SQLRETURN rc =
        SQLGetData(s.h, static_cast<SQLUSMALLINT>(r.column), r.c_type, s.scratch.data(), buffer_length, &ind);
    Outcome o;
    collect_diags(SQL_HANDLE_STMT, s.h, rc, o);
    w.i16(rc);
    zb::put_diags(w, o.diags);
    w.i64(ind);
    w.bytes(s.scratch.data(), SQL_SUCCEEDED(rc) ? extent(r.c_type, ind, buffer_length, element) : 0);
    return rc == SQL_SUCCESS;
}

// The replayed calls of the row the cursor is on; false when one stopped.
bool replay_row(Statement &s, const zb::ReadAheadPlan &plan, zb::Writer &w) {
    w.u32(static_cast<uint32_t>(plan.requests.size()));
    const size_t count_at = w.size() - 4;
    uint32_t made = 0;
    bool clean = true;
    for (const auto &r : plan.requests) {
        ++made;
        if (!(clean = replay_call(s, r, w))) break;
    }
    for (int i = 0; i < 4; ++i) w.data()[count_at + i] = static_cast<uint8_t>(made >> (8 * i));
    return clean;
}

void read_ahead(Statement &s, const zb::ReadAheadPlan &plan, const std::vector<ColumnRequest> &req,
                SQLRETURN first_rc, zb::Writer &w) {
    const size_t start = w.size();
    bool clean = first_rc == SQL_SUCCESS && replay_row(s, plan, w);
    if (first_rc != SQL_SUCCESS) w.u32(0);
    const uint32_t max_rows = std::min(plan.max_rows, zb::kReadAheadRows);
    for (uint32_t rows = 1; clean && rows < max_rows && w.size() - start < plan.byte_budget; ++rows) {
        s.rows_fetched = 0;
        const SQLRETURN rc = SQLFetch(s.h);
        Outcome o;
        collect_diags(SQL_HANDLE_STMT, s.h, rc, o);
        w.u8(1);
        w.i16(rc);
        zb::put_diags(w, o.diags);
        put_rowset(w, s, req, SQL_SUCCEEDED(rc) ? std::min<SQLULEN>(s.rows_fetched, 1) : 0);
        if (rc != SQL_SUCCESS) {
            w.u32(0);
            break;
        }
        clean = replay_row(s, plan, w);
    }
    w.u8(0);
}

}  // namespace

void op_fetch(Session &, void *obj, zb::Reader &in, zb::Writer &w, Outcome &out) {
    Statement &s = stmt(obj);
    const bool scroll = in.u8() != 0;
    const int16_t orientation = in.i16();
    const int64_t offset = in.i64();
    const SQLULEN rowset = std::max<uint64_t>(in.u64(), 1);
    std::vector<ColumnRequest> req(in.u32());
    for (auto &r : req) {
        r.column = static_cast<SQLUSMALLINT>(in.i16());
        r.c_type = in.i16();
        r.buffer_length = static_cast<SQLLEN>(in.i64());
    }
    const bool has_plan = !in.done();
    const zb::ReadAheadPlan plan = has_plan ? zb::get_plan(in) : zb::ReadAheadPlan{};
    SQLRETURN rc = bind_columns(s, req, rowset);
    if (SQL_SUCCEEDED(rc)) {
        s.rows_fetched = 0;
        rc = scroll ? SQLFetchScroll(s.h, orientation, static_cast<SQLLEN>(offset)) : SQLFetch(s.h);
    }
    collect_diags(SQL_HANDLE_STMT, s.h, rc, out);
    put_rowset(w, s, req, SQL_SUCCEEDED(rc) ? std::min(s.rows_fetched, rowset) : 0);
    if (has_plan && !scroll && rowset == 1) read_ahead(s, plan, req, rc, w);
}

void op_get_data(Session &, void *obj, zb::Reader &in, zb::Writer &w, Outcome &out) {
    Statement &s = stmt(obj);
    auto column = static_cast<SQLUSMALLINT>(in.i16());
    SQLSMALLINT c_type = in.i16();
    SQLLEN buffer_length = std::min<SQLLEN>(static_cast<SQLLEN>(in.i64()), kMaxBuffer);
    SQLLEN element = element_size(c_type, buffer_length);
    std::vector<uint8_t> buf(static_cast<size_t>(element), 0);
    SQLLEN ind = 0;
    SQLRETURN rc = SQLGetData(s.h, column, c_type, buf.data(), buffer_length, &ind);
    collect_diags(SQL_HANDLE_STMT, s.h, rc, out);
    w.i64(ind);
    w.bytes(buf.data(), SQL_SUCCEEDED(rc) ? extent(c_type, ind, buffer_length, element) : 0);
}

// Column attributes: one column or all (column 0), any number of fields, in
// one reply. Clients that ask attributes ask many (isql: two per column).
void op_col_attribute(Session &, void *obj, zb::Reader &in, zb::Writer &w, Outcome &out) {
    Statement &s = stmt(obj);
    const auto first = static_cast<SQLUSMALLINT>(in.i16());
    std::vector<SQLUSMALLINT> fields(in.u32());
    for (auto &f : fields) f = static_cast<SQLUSMALLINT>(in.i16());
    SQLUSMALLINT last = first;
    if (first == 0) {
        SQLSMALLINT n = 0;
        SQLNumResultCols(s.h, &n);
        last = static_cast<SQLUSMALLINT>(std::max<SQLSMALLINT>(n, 0));
    }
    const SQLUSMALLINT from = first == 0 ? 1 : first;
    w.u32(static_cast<uint32_t>(last >= from ? (last - from + 1) * fields.size() : 0));
    for (SQLUSMALLINT column = from; column <= last; ++column) {
        for (SQLUSMALLINT field : fields) {
            std::string value;
            SQLLEN number = 0;
            SQLRETURN rc = col_attribute(s.h, column, field, value, number);
            if (first != 0) collect_diags(SQL_HANDLE_STMT, s.h, rc, out);
            w.i16(static_cast<int16_t>(column));
            w.i16(static_cast<int16_t>(field));
            w.i16(rc);
            w.str(value);
            w.i64(number);
        }
    }
}

}  // namespace zbs
