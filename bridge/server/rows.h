// Result rows on the server: binding the target's columns for a fetch,
// writing rowsets, and reading rows ahead (see protocol/read_ahead.h).
#pragma once

#include <cstdint>
#include <stdexcept>
#include <vector>

#include "protocol/read_ahead.h"
#include "server/session.h"

namespace zbs {

inline constexpr SQLLEN kMaxBuffer = 256 << 20;  // one value never needs more
inline constexpr uint64_t kMaxBoundBytes = uint64_t{1} << 30;  // one fetch's bound buffers

// More memory than the server sets aside for one request (HY001).
struct TooLarge : std::runtime_error {
    using std::runtime_error::runtime_error;
};

// Bytes a value of c_type takes in a buffer of buffer_length.
SQLLEN element_size(SQLSMALLINT c_type, SQLLEN buffer_length);
// Bytes of a value worth sending back: what the target wrote, not the buffer.
size_t extent(SQLSMALLINT c_type, SQLLEN indicator, SQLLEN buffer_length, SQLLEN element);

// SQLGetData as requested, into a buffer of the requested size; writes the
// indicator and the value's bytes, as a replayed call (outcome first,
// protocol/read_ahead.h) when replayed. The diagnostics also go to out.
SQLRETURN put_data_value(Statement &s, const zb::DataRequest &r, Outcome &out, zb::Writer &w, bool replayed);

struct ColumnRequest {
    SQLUSMALLINT column;
    SQLSMALLINT c_type;
    SQLLEN buffer_length;
};

// Binds the target's columns to the statement's buffers as requested,
// reusing the binding of the previous fetch when nothing changed. Throws
// TooLarge, binding nothing, when the buffers would exceed kMaxBoundBytes.
SQLRETURN bind_columns(Statement &s, const std::vector<ColumnRequest> &req, SQLULEN rowset);

// Writes the rowset a fetch left in the statement's bound buffers.
void put_rowset(zb::Writer &w, Statement &s, const std::vector<ColumnRequest> &req, SQLULEN rows);

// Writes SQLGetStmtAttr(SQL_ATTR_ROW_NUMBER): return code, number. Rows read
// ahead carry it, since the application may ask once the cursor moved on.
void put_row_number(Statement &s, zb::Writer &w);

// Makes the plan's requests on the row the cursor is on and writes them;
// false when one was not plain SQL_SUCCESS (the row ends there).
bool replay_row(Statement &s, const zb::ReadAheadPlan &plan, zb::Writer &w);

// Fetches and replays further rows as the plan says, writing the row list
// (each row: 1, return code, diagnostics, rowset, replayed calls; then 0).
// `rows` were already written since w held `start` bytes. True when it
// stopped at the row or byte limit, with every outcome plain SQL_SUCCESS.
bool read_rows(Statement &s, const zb::ReadAheadPlan &plan, const std::vector<ColumnRequest> &req,
               size_t start, uint32_t rows, zb::Writer &w);

// The tail of a fetch that returned first_rc for a one-row rowset: the
// fetched row's replayed calls, then the row list. True as read_rows.
bool read_ahead(Statement &s, const zb::ReadAheadPlan &plan, const std::vector<ColumnRequest> &req,
                SQLRETURN first_rc, zb::Writer &w);

// Starts reading the next row list for s on a thread of its own
// (Session::read_on), unless another statement's rows wait already.
// REQUIRES: nothing else uses the target until Session::settle() returns.
void read_on(Session &session, Statement &s, zb::ReadAheadPlan plan, std::vector<ColumnRequest> req);

}  // namespace zbs
