// Rows read ahead: how a fetch asks the server to go on past the row it
// returns, and how the extra rows come back.
//
// A fetch request may end with a plan: the SQLGetData requests the
// application made on its last row, and how far to read. For one-row
// rowsets the server then makes those requests on the fetched row and on
// further rows, and stops at the first outcome that is not plain
// SQL_SUCCESS (a warning, an error, SQL_NO_DATA), at the row limit or once
// the reply holds the byte budget. The server's cursor stays on the last
// row it read, after the last request it made there, so whatever the
// driver cannot answer from the rows it holds goes on from exactly there.
//
// A fetch reply starts with a byte. 0: the fetched rowset follows and, when
// the request had a plan, a tail: that row's number (the outcome and value
// of SQLGetStmtAttr(SQL_ATTR_ROW_NUMBER), without diagnostics) and replayed
// calls, then the row list of further rows (each a 1 byte, its fetch's
// outcome, rowset, row number and replayed calls; a 0 byte ends it), then 1
// when the server goes on reading (below), else 0.
// 1: rows the server read on since its last reply follow instead, as a row
// list from the first row, read with the plan and bound columns of the
// request that reply answered; then the going-on byte again.
// Replayed calls: a u32 count, then each call's outcome, its indicator
// (signed varint) and its value bytes (varint length).
// An outcome: 0 for SQL_SUCCESS without diagnostics, which is nearly every
// call; else 1, the return code and the diagnostics.
// A row number: its outcome, then the number as a varint.
//
// Going on: after a reply whose rows stopped at a limit (not at an outcome),
// the server reads the next row list on a thread of its own while the
// reply travels, and answers the statement's next fetch with it. Its cursor
// is then past the rows the driver holds.
//
// An execute request may end with a byte of extras. kExecuteReadsAhead: a
// plan and the result columns the driver expects follow; when the result
// has exactly those, the server fetches at once and the reply goes on with
// 1 and the row list (from the first row), otherwise with 0.
// kExecuteDescribes: a count and SQLColAttribute fields follow; the reply
// goes on with 1 and the attributes of every column (as the ColAttribute
// operation answers column 0) when the result has columns, otherwise 0.
#pragma once

#include <compare>
#include <cstdint>
#include <string>
#include <vector>

#include "protocol/codec.h"

namespace zb {

struct DataRequest {
    int16_t column = 0;
    int16_t c_type = 0;
    int64_t buffer_length = 0;
    bool operator==(const DataRequest &) const = default;
};

struct ReadAheadPlan {
    std::vector<DataRequest> requests;
    uint32_t max_rows = 1;       // rows in the reply, the fetched one included
    uint32_t byte_budget = 0;    // stop adding rows once the reply is this long
};

// What identifies a result column for reading it the same way again.
struct ColumnKey {
    std::string name;
    int16_t sql_type = 0;
    uint64_t size = 0;
    int16_t digits = 0;
    auto operator<=>(const ColumnKey &) const = default;
};

inline std::vector<ColumnKey> column_keys(const ResultShape &shape) {
    std::vector<ColumnKey> keys;
    for (const auto &c : shape.columns) keys.push_back({c.name, c.sql_type, c.size, c.digits});
    return keys;
}

inline void put_column_keys(Writer &w, const std::vector<ColumnKey> &keys) {
    w.u32(static_cast<uint32_t>(keys.size()));
    for (const auto &k : keys) {
        w.str(k.name);
        w.i16(k.sql_type);
        w.u64(k.size);
        w.i16(k.digits);
    }
}

inline std::vector<ColumnKey> get_column_keys(Reader &r) {
    std::vector<ColumnKey> keys;
    for (uint32_t n = r.count(16); n > 0; --n) {
        ColumnKey k;
        k.name = r.str();
        k.sql_type = r.i16();
        k.size = r.u64();
        k.digits = r.i16();
        keys.push_back(std::move(k));
    }
    return keys;
}

inline void put_outcome(Writer &w, int16_t rc, const std::vector<DiagRecord> &diags) {
    if (rc == 0 && diags.empty()) {
        w.u8(0);
        return;
    }
    w.u8(1);
    w.i16(rc);
    put_diags(w, diags);
}

inline int16_t get_outcome(Reader &r, std::vector<DiagRecord> &diags) {
    const uint8_t form = r.u8();
    if (form == 0) return 0;
    if (form != 1) throw DecodeError("bridge message holds an unknown outcome form");
    const int16_t rc = r.i16();
    diags = get_diags(r);
    return rc;
}

inline constexpr uint8_t kExecuteReadsAhead = 1;
inline constexpr uint8_t kExecuteDescribes = 2;

inline constexpr uint32_t kReadAheadRows = 4096;
inline constexpr uint32_t kReadAheadBytes = 48 << 10;

inline void put_plan(Writer &w, const ReadAheadPlan &p) {
    w.u32(static_cast<uint32_t>(p.requests.size()));
    for (const auto &r : p.requests) {
        w.i16(r.column);
        w.i16(r.c_type);
        w.i64(r.buffer_length);
    }
    w.u32(p.max_rows);
    w.u32(p.byte_budget);
}

inline ReadAheadPlan get_plan(Reader &r) {
    ReadAheadPlan p;
    for (uint32_t n = r.count(12); n > 0; --n) {
        DataRequest d;
        d.column = r.i16();
        d.c_type = r.i16();
        d.buffer_length = r.i64();
        p.requests.push_back(d);
    }
    p.max_rows = r.u32();
    p.byte_budget = r.u32();
    return p;
}

}  // namespace zb
