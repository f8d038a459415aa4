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
// Reply tail, after the fetched rowset: the replayed calls of that row,
// then for each further row a 1 byte, its fetch's return code,
// diagnostics, rowset and replayed calls; a 0 byte ends the list.
// A replayed call: return code, diagnostics, indicator, value bytes.
#pragma once

#include <cstdint>
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
    for (uint32_t n = r.u32(); n > 0; --n) {
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
