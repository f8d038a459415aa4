// Results: column descriptions (from what execute returned), column
// attributes (asked once per result), fetches into bound columns, SQLGetData.
#include <algorithm>
#include <cstring>
#include <iterator>

#include "driver/api.h"
#include "driver/params.h"
#include "driver/remote.h"
#include "protocol/odbc_kinds.h"

namespace zbd {
namespace {

bool column_in_range(Stmt &s, SQLUSMALLINT column) {
    return s.has_shape && column >= 1 && column <= s.shape.columns.size();
}

// The attributes clients ask for, fetched for every column at the first ask.
constexpr SQLUSMALLINT kCommonAttributes[] = {
    SQL_DESC_AUTO_UNIQUE_VALUE, SQL_DESC_BASE_COLUMN_NAME, SQL_DESC_BASE_TABLE_NAME,
    SQL_DESC_CASE_SENSITIVE, SQL_DESC_CATALOG_NAME, SQL_DESC_CONCISE_TYPE, SQL_DESC_DISPLAY_SIZE,
    SQL_DESC_FIXED_PREC_SCALE, SQL_DESC_LABEL, SQL_DESC_LENGTH, SQL_DESC_LITERAL_PREFIX,
    SQL_DESC_LITERAL_SUFFIX, SQL_DESC_LOCAL_TYPE_NAME, SQL_DESC_NAME, SQL_DESC_NULLABLE,
    SQL_DESC_NUM_PREC_RADIX, SQL_DESC_OCTET_LENGTH, SQL_DESC_PRECISION, SQL_DESC_SCALE,
    SQL_DESC_SCHEMA_NAME, SQL_DESC_SEARCHABLE, SQL_DESC_TABLE_NAME, SQL_DESC_TYPE,
    SQL_DESC_TYPE_NAME, SQL_DESC_UNNAMED, SQL_DESC_UNSIGNED, SQL_DESC_UPDATABLE,
    SQL_COLUMN_LENGTH, SQL_COLUMN_PRECISION, SQL_COLUMN_SCALE,
};

bool is_common_attribute(SQLUSMALLINT field) {
    for (auto f : kCommonAttributes)
        if (f == field) return true;
    return false;
}

void load_common_attributes(Stmt &s) {
    s.attributes_loaded = true;
    zb::Writer w;
    w.i16(0);
    put_common_fields(w);
    Reply r = call(s, zb::Op::ColAttribute, w);
    if (r.rc != SQL_SUCCESS) return;  // each attribute is then asked on its own
    take_common_attributes(s, r.in);
    if (s.result_text) {
        auto known = s.dbc->texts.find(*s.result_text);
        if (known != s.dbc->texts.end()) known->second.described = true;
    }
}

void put_data(SQLPOINTER data, SQLSMALLINT c_type, SQLLEN length, SQLLEN *indicator, SQLLEN ind,
              std::span<const uint8_t> bytes) {
    const SQLLEN room = element_size(c_type, length);
    if (data != nullptr && !bytes.empty())
        std::memcpy(data, bytes.data(), std::min<size_t>(bytes.size(), static_cast<size_t>(std::max<SQLLEN>(room, 0))));
    if (indicator != nullptr) *indicator = ind;
}

SQLRETURN live_get_data(Stmt &s, const zb::DataRequest &request, SQLPOINTER data, SQLLEN *indicator) {
    zb::Writer w;
    w.i16(request.column);
    w.i16(request.c_type);
    w.i64(request.buffer_length);
    Reply r = call(s, zb::Op::GetData, w);
    SQLRETURN rc = adopt(s, r);
    if (SQL_SUCCEEDED(rc) && !r.in.done()) {
        SQLLEN ind = static_cast<SQLLEN>(r.in.i64());
        put_data(data, request.c_type, request.buffer_length, indicator, ind, r.in.bytes());
    }
    return rc;
}

}  // namespace

void put_common_fields(zb::Writer &w) {
    w.u32(static_cast<uint32_t>(std::size(kCommonAttributes)));
    for (auto f : kCommonAttributes) w.i16(static_cast<int16_t>(f));
}

void take_common_attributes(Stmt &s, zb::Reader &in) {
    s.attributes_loaded = true;
    for (uint32_t n = in.u32(); n > 0; --n) {
        int column = in.i16(), field = in.i16();
        SQLRETURN rc = in.i16();
        std::string text = in.str();
        auto number = static_cast<SQLLEN>(in.i64());
        if (rc == SQL_SUCCESS) s.attributes.emplace(std::make_pair(column, field), CachedAttribute{rc, {}, text, number});
    }
}

SQLRETURN num_result_cols(Stmt &s, SQLSMALLINT *count) {
    SQLSMALLINT n = s.has_shape && SQL_SUCCEEDED(s.shape.columns_rc) ? s.shape.column_count : 0;
    if (count != nullptr) *count = n;
    return SQL_SUCCESS;
}

SQLRETURN describe_col(Stmt &s, SQLUSMALLINT column, const OutBuf &name, SQLSMALLINT *name_length,
                       SQLSMALLINT *type, SQLULEN *size, SQLSMALLINT *digits, SQLSMALLINT *nullable) {
    if (!s.has_shape || s.shape.column_count == 0) return add_diag(s, "07005", "the statement has no result columns to describe");
    if (!column_in_range(s, column)) return add_diag(s, "07009", "Invalid descriptor index");
    const zb::ColumnDesc &c = s.shape.columns[column - 1];
    if (type) *type = c.sql_type;
    if (size) *size = c.size;
    if (digits) *digits = c.digits;
    if (nullable) *nullable = c.nullable;
    return write_text(s, c.name, name, name_length);
}

SQLRETURN col_attribute(Stmt &s, SQLUSMALLINT column, SQLUSMALLINT field, const OutBuf &text,
                        SQLSMALLINT *text_length, SQLLEN *number) {
    if (field == SQL_DESC_COUNT || field == SQL_COLUMN_COUNT) {
        SQLSMALLINT n = 0;
        num_result_cols(s, &n);
        if (number) *number = n;
        return SQL_SUCCESS;
    }
    const auto key = std::make_pair(static_cast<int>(column), static_cast<int>(field));
    auto it = s.attributes.find(key);
    if (it == s.attributes.end() && !s.attributes_loaded && column_in_range(s, column) &&
        is_common_attribute(field)) {
        load_common_attributes(s);
        it = s.attributes.find(key);
    }
    if (it == s.attributes.end()) {
        zb::Writer w;
        w.i16(static_cast<int16_t>(column));
        w.u32(1);
        w.i16(static_cast<int16_t>(field));
        Reply r = call(s, zb::Op::ColAttribute, w);
        if (!SQL_SUCCEEDED(r.rc)) return adopt(s, r);
        r.in.u32();
        r.in.i16();
        r.in.i16();
        CachedAttribute a{r.in.i16(), r.diags, r.in.str(), static_cast<SQLLEN>(r.in.i64())};
        it = s.attributes.emplace(key, a).first;
    }
    const CachedAttribute &a = it->second;
    s.diag.records = a.diags;
    if (zb::col_attribute_is_text(field)) {
        SQLRETURN t = write_text(s, a.text, text, text_length);
        return t == SQL_SUCCESS ? a.rc : t;
    }
    if (number) *number = a.number;
    return a.rc;
}

namespace {

// Reports a request the rows read ahead cannot answer any more.
SQLRETURN lost(Stmt &s) {
    return add_diag(s, "HY000",
                    "rows were read ahead as the row before was read: this one cannot be read another way");
}

BoundKey bound_key(const Stmt &s) {
    BoundKey key;
    for (const auto &[column, b] : s.columns) key.emplace_back(column, b.c_type, b.length);
    return key;
}

void set_row_counts(Stmt &s, SQLULEN rows, SQLULEN rowset) {
    rows = std::min(rows, rowset);  // whatever the server claims
    if (s.row_status != nullptr)
        for (SQLULEN i = rows; i < rowset; ++i) s.row_status[i] = SQL_ROW_NOROW;
    if (s.rows_fetched != nullptr) *s.rows_fetched = rows;
}

// A bound column's value for row i of the rowset.
void put_value(Stmt &s, const ColumnBinding &b, SQLULEN i, SQLLEN ind, std::span<const uint8_t> bytes) {
    const SQLLEN elem = element_size(b.c_type, b.length);
    put_data(bound_address(b.data, s.row_bind_offset, s.row_bind_type, elem, i), b.c_type, b.length,
             bound_indicator(b.indicator, s.row_bind_offset, s.row_bind_type, i), ind, bytes);
}

SQLRETURN hand_out(Stmt &s, const HeldRow &row) {
    s.diag.records.insert(s.diag.records.end(), row.diags.begin(), row.diags.end());
    if (row.rows == 1) {
        if (s.row_status != nullptr) s.row_status[0] = row.status;
        size_t k = 0;
        for (const auto &[column, b] : s.columns) {
            const HeldValue &v = row.bound[k++];
            put_value(s, b, 0, v.indicator, s.ahead.value(v));
        }
    }
    set_row_counts(s, row.rows, 1);
    return row.rc;
}

}  // namespace

SQLRETURN fetch(Stmt &s, bool scroll, SQLSMALLINT orientation, SQLLEN offset) {
    if (!s.has_shape || s.shape.column_count == 0) return add_diag(s, "24000", "Invalid cursor state");
    const bool one_row = s.row_array_size == 1 && (!scroll || orientation == SQL_FETCH_NEXT);
    const BoundKey bound = bound_key(s);
    if (s.ahead.holds_rows()) {
        if (!one_row || s.ahead.bound() != bound) return lost(s);
        return hand_out(s, *s.ahead.next_row(s.columns.empty()));
    }
    s.ahead.next_row(one_row && s.columns.empty());
    zb::Writer w;
    w.u8(scroll);
    w.i16(orientation);
    w.i64(offset);
    const SQLULEN rowset = s.row_array_size;
    w.u64(rowset);
    w.u32(static_cast<uint32_t>(s.columns.size()));
    for (const auto &[column, b] : s.columns) {
        w.i16(static_cast<int16_t>(column));
        w.i16(b.c_type);
        w.i64(b.length);
    }
    const zb::ReadAheadPlan plan = s.ahead.plan(bound);
    if (one_row) zb::put_plan(w, plan);
    Reply r = call(s, zb::Op::Fetch, w);
    SQLRETURN rc = adopt(s, r);
    SQLULEN rows = 0;
    if (rc != SQL_INVALID_HANDLE && !r.in.done() && r.in.u8() != 0) {
        // Rows the server read on after the last reply, read as the request
        // it answered asked.
        const auto by = s.ahead.read_on_by();
        if (!by) throw zb::DecodeError("rows read on that no request asked for");
        s.ahead.take_rows(std::move(r.bytes), r.in, by->first, by->second);
        s.ahead.reading_on(r.in.u8() != 0, plan, bound);
        const HeldRow *first = s.ahead.first_row();
        if (first == nullptr || !one_row || by->second != bound) return lost(s);
        return hand_out(s, *first);
    }
    if (rc != SQL_INVALID_HANDLE && !r.in.done()) {
        rows = r.in.u64();
        for (SQLULEN i = 0; i < rows; ++i) {
            int16_t st = r.in.i16();
            if (s.row_status != nullptr && i < rowset) s.row_status[i] = static_cast<SQLUSMALLINT>(st);
        }
        for (const auto &[column, b] : s.columns)
            for (SQLULEN i = 0; i < rows; ++i) {
                SQLLEN ind = static_cast<SQLLEN>(r.in.i64());
                auto bytes = r.in.bytes();
                if (i < rowset) put_value(s, b, i, ind, bytes);
            }
        if (one_row && !r.in.done()) {
            s.ahead.take(std::move(r.bytes), r.in, bound, plan);
            s.ahead.reading_on(r.in.u8() != 0, plan, bound);
        }
    }
    set_row_counts(s, rows, rowset);
    return rc;
}

SQLRETURN get_data(Stmt &s, SQLUSMALLINT column, SQLSMALLINT c_type, SQLPOINTER data,
                   SQLLEN length, SQLLEN *indicator) {
    const zb::DataRequest request{static_cast<int16_t>(column), c_type, data == nullptr ? 0 : length};
    const HeldCall *held = nullptr;
    SQLRETURN rc;
    switch (s.ahead.answer(request, held)) {
    case ReadAhead::Answer::Held:
        s.diag.records.insert(s.diag.records.end(), held->diags.begin(), held->diags.end());
        rc = held->rc;
        if (SQL_SUCCEEDED(rc)) put_data(data, c_type, length, indicator, held->value.indicator, s.ahead.value(held->value));
        break;
    case ReadAhead::Answer::Lost:
        rc = lost(s);
        break;
    default:
        rc = live_get_data(s, request, data, indicator);
    }
    s.ahead.record(request, rc);
    return rc;
}

}  // namespace zbd
