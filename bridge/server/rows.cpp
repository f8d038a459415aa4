// Result rows on the server: binding the target's columns for a fetch,
// writing rowsets, and reading rows ahead (see protocol/read_ahead.h).
#include "server/rows.h"

#include <algorithm>
#include <cstring>
#include <system_error>

#include "protocol/odbc_kinds.h"

namespace zbs {

SQLLEN element_size(SQLSMALLINT c_type, SQLLEN buffer_length) {
    if (int fixed = zb::c_type_fixed_size(c_type)) return fixed;
    return std::clamp<SQLLEN>(buffer_length, 1, kMaxBuffer);
}

// Bytes of a value worth sending back: what the target wrote, not the buffer.
size_t extent(SQLSMALLINT c_type, SQLLEN indicator, SQLLEN buffer_length, SQLLEN element) {
    if (zb::c_type_fixed_size(c_type) != 0) return indicator == SQL_NULL_DATA ? 0 : static_cast<size_t>(element);
    if (buffer_length <= 0) return 0;
    const SQLLEN term = c_type == SQL_C_CHAR ? 1 : c_type == SQL_C_WCHAR ? 2 : 0;
    // Targets may write an empty string under a NULL: its terminator goes
    // back, so the application's buffer reads as it would directly.
    if (indicator == SQL_NULL_DATA) return static_cast<size_t>(std::min(term, element));
    SQLLEN n = (indicator < 0 || indicator + term > buffer_length) ? buffer_length : indicator + term;
    return static_cast<size_t>(std::min(n, element));
}

SQLRETURN put_data_value(Statement &s, const zb::DataRequest &r, Outcome &out, zb::Writer &w, bool replayed) {
    const SQLLEN buffer_length = std::min<SQLLEN>(static_cast<SQLLEN>(r.buffer_length), kMaxBuffer);
    const SQLLEN element = element_size(r.c_type, buffer_length);
    if (s.scratch.size() < static_cast<size_t>(element)) s.scratch.resize(static_cast<size_t>(element));
    // What goes back is what the target says it wrote (extent() below). Only
    // a terminator under a NULL, or the odd last byte of a wide value cut to
    // an odd buffer length, may not have been written: both ends are
    // cleared. Clearing the whole buffer (pyodbc asks 4 KiB a text column)
    // would cost more than the call.
    const size_t edge = std::min<size_t>(static_cast<size_t>(element), 16);
    std::memset(s.scratch.data(), 0, edge);
    std::memset(s.scratch.data() + element - edge, 0, edge);
    SQLLEN ind = 0;
    const SQLRETURN rc =
        SQLGetData(s.h, static_cast<SQLUSMALLINT>(r.column), r.c_type, s.scratch.data(), buffer_length, &ind);
    collect_diags(SQL_HANDLE_STMT, s.h, rc, out);
    const size_t sent = SQL_SUCCEEDED(rc) ? extent(r.c_type, ind, buffer_length, element) : 0;
    if (replayed) {
        zb::put_outcome(w, rc, out.diags);
        w.svar(ind);
        w.var_bytes(s.scratch.data(), sent);
    } else {
        w.i64(ind);
        w.bytes(s.scratch.data(), sent);
    }
    constexpr size_t kScratchKept = 1 << 20;  // a huge buffer once is not kept for the session
    if (s.scratch.size() > kScratchKept) std::vector<uint8_t>().swap(s.scratch);
    return rc;
}

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
    // A client announces the rowset and buffer lengths; the server zeroes
    // what it binds, so those are bounded before anything is set aside.
    uint64_t per_row = sizeof(SQLUSMALLINT);
    for (const auto &r : req) per_row += static_cast<uint64_t>(element_size(r.c_type, r.buffer_length)) + sizeof(SQLLEN);
    if (rowset > kMaxBoundBytes / per_row)
        throw TooLarge("a rowset of " + std::to_string(rowset) + " rows of " + std::to_string(per_row) +
                       " bytes is more than the server binds (" + std::to_string(kMaxBoundBytes >> 20) + " MiB)");
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

namespace {

// SQLGetData as requested, written as a replayed call. False when its
// outcome was anything but plain SQL_SUCCESS: reading ahead stops there.
bool replay_call(Statement &s, const zb::DataRequest &r, zb::Writer &w) {
    Outcome o;
    return put_data_value(s, r, o, w, true) == SQL_SUCCESS;
}

}  // namespace

void put_row_number(Statement &s, zb::Writer &w) {
    SQLULEN number = 0;
    const SQLRETURN rc = SQLGetStmtAttr(s.h, SQL_ATTR_ROW_NUMBER, &number, sizeof number, nullptr);
    zb::put_outcome(w, rc, {});
    w.var(number);
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

bool read_rows(Statement &s, const zb::ReadAheadPlan &plan, const std::vector<ColumnRequest> &req,
               size_t start, uint32_t rows, zb::Writer &w) {
    const uint32_t max_rows = std::min(plan.max_rows, zb::kReadAheadRows);
    bool clean = true;
    for (; clean && rows < max_rows && (rows == 0 || w.size() - start < plan.byte_budget); ++rows) {
        s.rows_fetched = 0;
        const SQLRETURN rc = SQLFetch(s.h);
        Outcome o;
        collect_diags(SQL_HANDLE_STMT, s.h, rc, o);
        w.u8(1);
        zb::put_outcome(w, rc, o.diags);
        put_rowset(w, s, req, SQL_SUCCEEDED(rc) ? std::min<SQLULEN>(s.rows_fetched, 1) : 0);
        put_row_number(s, w);
        if (rc != SQL_SUCCESS) {
            w.u32(0);
            clean = false;
        } else {
            clean = replay_row(s, plan, w);
        }
    }
    w.u8(0);
    return clean;
}

bool read_ahead(Statement &s, const zb::ReadAheadPlan &plan, const std::vector<ColumnRequest> &req,
                SQLRETURN first_rc, zb::Writer &w) {
    const size_t start = w.size();
    put_row_number(s, w);
    if (first_rc != SQL_SUCCESS) w.u32(0);
    if (first_rc != SQL_SUCCESS || !replay_row(s, plan, w)) {
        w.u8(0);
        return false;
    }
    return read_rows(s, plan, req, start, 1, w);
}

void read_on(Session &session, Statement &s, zb::ReadAheadPlan plan, std::vector<ColumnRequest> req) {
    session.settle();
    ReadOn &on = session.read_on;
    if (on.stmt != nullptr) return;  // another statement's rows wait for its next fetch
    try {
        on.worker = std::thread([&s, &on, plan = std::move(plan), req = std::move(req)] {
            try {
                on.clean = read_rows(s, plan, req, 0, 0, on.rows);
            } catch (...) {  // rows were read but cannot be handed on
                on.failed = true;
            }
        });
        on.stmt = &s;
    } catch (const std::system_error &) {  // no thread: the next fetch reads as usual
    }
}

}  // namespace zbs
