// Handlers that read a result: block fetches into bound columns, SQLGetData
// and column attributes.
#include <algorithm>
#include <cstring>

#include "protocol/odbc_kinds.h"
#include "server/ops.h"
#include "server/rows.h"
#include "server/wide.h"

namespace zbs {
namespace {

Statement &stmt(void *obj) { return *static_cast<Statement *>(obj); }

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

void op_fetch(Session &session, void *obj, zb::Reader &in, zb::Writer &w, Outcome &out) {
    Statement &s = stmt(obj);
    const bool scroll = in.u8() != 0;
    const int16_t orientation = in.i16();
    const int64_t offset = in.i64();
    const SQLULEN rowset = std::max<uint64_t>(in.u64(), 1);
    std::vector<ColumnRequest> req(in.count(12));
    for (auto &r : req) {
        r.column = static_cast<SQLUSMALLINT>(in.i16());
        r.c_type = in.i16();
        r.buffer_length = static_cast<SQLLEN>(in.i64());
    }
    const bool has_plan = !in.done();
    const zb::ReadAheadPlan plan = has_plan ? zb::get_plan(in) : zb::ReadAheadPlan{};
    const bool one_row = has_plan && !scroll && rowset == 1;
    // Rows read on since the last answer answer this fetch, read as the
    // request before this one asked: a row list from the first row.
    if (session.read_on.stmt == &s) {
        session.settle();
        const bool failed = session.read_on.failed;
        const bool clean = session.read_on.clean;
        zb::Writer rows = std::move(session.read_on.rows);
        session.drop_read_on(&s);
        if (failed) {
            out.fail("HY000", "rows read ahead were lost");
            return;
        }
        w.u8(1);
        w.data().insert(w.data().end(), rows.data().begin(), rows.data().end());
        const bool on = clean && one_row && plan.max_rows > 1 && SQL_SUCCEEDED(bind_columns(s, req, 1));
        w.u8(on);
        if (on) read_on(session, s, plan, req);
        return;
    }
    w.u8(0);
    SQLRETURN rc = bind_columns(s, req, rowset);
    if (SQL_SUCCEEDED(rc)) {
        s.rows_fetched = 0;
        rc = scroll ? SQLFetchScroll(s.h, orientation, static_cast<SQLLEN>(offset)) : SQLFetch(s.h);
    }
    collect_diags(SQL_HANDLE_STMT, s.h, rc, out);
    put_rowset(w, s, req, SQL_SUCCEEDED(rc) ? std::min(s.rows_fetched, rowset) : 0);
    if (!one_row) return;
    const bool on = read_ahead(s, plan, req, rc, w) && plan.max_rows > 1;
    w.u8(on);
    if (on) read_on(session, s, plan, req);
}

void op_get_data(Session &, void *obj, zb::Reader &in, zb::Writer &w, Outcome &out) {
    zb::DataRequest r;
    r.column = in.i16();
    r.c_type = in.i16();
    r.buffer_length = in.i64();
    put_data_value(stmt(obj), r, out, w, false);
}

void put_column_attributes(SQLHSTMT h, SQLUSMALLINT first, const std::vector<SQLUSMALLINT> &fields,
                           zb::Writer &w, Outcome *out) {
    SQLUSMALLINT last = first;
    if (first == 0) {
        SQLSMALLINT n = 0;
        SQLNumResultCols(h, &n);
        last = static_cast<SQLUSMALLINT>(std::max<SQLSMALLINT>(n, 0));
    }
    const SQLUSMALLINT from = first == 0 ? 1 : first;
    w.u32(static_cast<uint32_t>(last >= from ? (last - from + 1) * fields.size() : 0));
    for (SQLUSMALLINT column = from; column <= last; ++column) {
        for (SQLUSMALLINT field : fields) {
            std::string value;
            SQLLEN number = 0;
            SQLRETURN rc = col_attribute(h, column, field, value, number);
            if (out != nullptr) collect_diags(SQL_HANDLE_STMT, h, rc, *out);
            w.i16(static_cast<int16_t>(column));
            w.i16(static_cast<int16_t>(field));
            w.i16(rc);
            w.str(value);
            w.i64(number);
        }
    }
}

// Column attributes: one column or all (column 0), any number of fields, in
// one reply. Clients that ask attributes ask many (isql: two per column).
void op_col_attribute(Session &, void *obj, zb::Reader &in, zb::Writer &w, Outcome &out) {
    Statement &s = stmt(obj);
    const auto first = static_cast<SQLUSMALLINT>(in.i16());
    std::vector<SQLUSMALLINT> fields(in.count(2));
    for (auto &f : fields) f = static_cast<SQLUSMALLINT>(in.i16());
    put_column_attributes(s.h, first, fields, w, first != 0 ? &out : nullptr);
}

}  // namespace zbs
