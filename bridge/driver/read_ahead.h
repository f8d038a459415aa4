// Rows the server read ahead of the application (see protocol/read_ahead.h).
//
// A fetch reply may carry more rows than the application asked for, each
// with the SQLGetData calls the server made on it: the ones the application
// made on the row before. SQLFetch then hands out the next held row, and
// SQLGetData answers from it while the application asks the same as before.
// A request the held row cannot answer goes to the server only where the
// server's cursor is still on that row, in the same state; anywhere else the
// data is gone from the target's forward-only cursor, and the request fails.
#pragma once

#include <sql.h>
#include <sqlext.h>

#include <cstdint>
#include <map>
#include <optional>
#include <span>
#include <string>
#include <tuple>
#include <utility>
#include <vector>

#include "protocol/read_ahead.h"

namespace zbd {

struct HeldValue {
    SQLLEN indicator = 0;
    size_t at = 0, length = 0;  // in ReadAhead::bytes
};

struct HeldCall {
    zb::DataRequest request;
    SQLRETURN rc = SQL_SUCCESS;
    std::vector<zb::DiagRecord> diags;
    HeldValue value;
    bool served = false;  // the application has made this call
};

struct HeldRow {
    SQLRETURN rc = SQL_SUCCESS;  // the row's SQLFetch
    std::vector<zb::DiagRecord> diags;
    SQLULEN rows = 0;  // 0 or 1
    SQLUSMALLINT status = 0;
    std::vector<HeldValue> bound;  // one per bound column, in column order
    SQLRETURN number_rc = SQL_ERROR;  // SQLGetStmtAttr(SQL_ATTR_ROW_NUMBER) on the row
    SQLULEN number = 0;
    size_t first_call = 0, calls = 0;
};

// What a result's columns are. The requests an application made on a
// result's first row are remembered per connection by shape: the first
// fetch of a result of that shape reads ahead with them, and so does an
// execute that is expected to open one, when the first fetch was plain
// (one-row rowset, nothing bound).
using ShapeKey = std::vector<zb::ColumnKey>;
struct FirstRead {
    std::vector<zb::DataRequest> requests;
    bool plain = false;
};
using FirstReads = std::map<ShapeKey, FirstRead>;
// The bound columns a fetch filled: column, C type, buffer length.
using BoundKey = std::vector<std::tuple<int, int16_t, int64_t>>;

class ReadAhead {
public:
    explicit ReadAhead(FirstReads &first_reads) : first_reads_(first_reads) {}

    // A new result (execute, catalog call, more results, close): held rows
    // are dropped.
    void new_result(const ShapeKey &next_shape);
    void close_result() { new_result(shape_); }

    // The plan for a live fetch of a one-row rowset, the columns `bound`
    // bound. A result's first row is read past only when the plan reads
    // every column: any other guess may miss what the application asks of
    // that row, and the server's cursor must still be on it then.
    zb::ReadAheadPlan plan(const BoundKey &bound) const;
    // The plan for an execute expected to open a result of `shape`, if any.
    std::optional<zb::ReadAheadPlan> execute_plan(const ShapeKey &shape) const;
    // Takes a row list from the first row: what an execute sent with `plan`
    // returned, or rows the server read on for the columns `bound`.
    void take_rows(std::vector<uint8_t> bytes, zb::Reader &in, const zb::ReadAheadPlan &plan,
                   const BoundKey &bound = {});
    // The first row of a list just taken, made current.
    const HeldRow *first_row();

    // What the last fetch reply said: the server reads on past the rows
    // held, with the plan and bindings of the request it answered (the list
    // comes as the answer to the next fetch). Until that list is taken, the
    // server's cursor is not where the held rows end.
    void reading_on(bool on, const zb::ReadAheadPlan &plan, const BoundKey &bound);
    const std::optional<std::pair<zb::ReadAheadPlan, BoundKey>> &read_on_by() const { return read_on_by_; }
    // Takes what a live fetch sent with `plan` returned after its rowset:
    // the first row's replayed calls, then the further rows, filled for the
    // columns `bound` names.
    void take(std::vector<uint8_t> bytes, zb::Reader &in, const BoundKey &bound,
              const zb::ReadAheadPlan &plan);

    // Rows are held that the server has read past; the bindings they were
    // read for.
    bool holds_rows() const { return next_ < rows_.size(); }
    // The current row when it came read ahead (the server's cursor may be
    // elsewhere): what SQL_ATTR_ROW_NUMBER was on it.
    const HeldRow *current() const { return on_held_ ? &rows_[next_ - 1] : nullptr; }
    const BoundKey &bound() const { return bound_; }
    // Starts the next row: the held one (REQUIRES: holds_rows()), or null
    // when the fetch goes to the server. Either way the application's
    // requests on the row before become the next plan's.
    // `plain`: a one-row rowset with nothing bound.
    const HeldRow *next_row(bool plain);

    enum class Answer { Held, Live, Lost };
    // Where a SQLGetData request is answered; for Held, `call` is set and the
    // call counts as made. A held call answers its request in any order: it
    // holds what the target returned for it. Anything else goes live on the
    // row the server's cursor is on, unless a held call not yet answered read
    // that column.
    Answer answer(const zb::DataRequest &r, const HeldCall *&call);
    // Every SQLGetData the application made, with its return code.
    void record(const zb::DataRequest &r, SQLRETURN rc);

    std::span<const uint8_t> value(const HeldValue &v) const { return {bytes_.data() + v.at, v.length}; }

private:
    void end_row();
    void take_list(zb::Reader &in, const zb::ReadAheadPlan &plan);

    std::vector<uint8_t> bytes_;
    std::vector<HeldRow> rows_;
    std::vector<HeldCall> calls_;
    size_t next_ = 0;                 // next held row to hand out
    bool on_held_ = false;            // the current row is rows_[next_ - 1]
    bool row_current_ = false;        // a fetch has made a row current
    std::optional<std::pair<zb::ReadAheadPlan, BoundKey>> read_on_by_;  // see reading_on()
    BoundKey bound_;
    std::vector<std::pair<zb::DataRequest, SQLRETURN>> made_;  // on the current row
    std::vector<zb::DataRequest> requests_;                    // of the row before
    bool first_row_ = true;
    bool first_plain_ = false;
    ShapeKey shape_;
    FirstReads &first_reads_;
};

}  // namespace zbd
