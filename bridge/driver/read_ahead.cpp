#include "driver/read_ahead.h"

#include <algorithm>
#include <span>

namespace zbd {
namespace {

// Whether a row read with `requests`, the columns `bound` bound, reads each
// of its `columns` columns.
bool reads_every_column(const std::vector<zb::DataRequest> &requests, size_t columns, const BoundKey &bound) {
    std::vector<bool> read(columns + 1, false);
    for (const auto &r : requests)
        if (r.column > 0 && static_cast<size_t>(r.column) <= columns) read[r.column] = true;
    for (const auto &b : bound)
        if (std::get<0>(b) > 0 && static_cast<size_t>(std::get<0>(b)) <= columns) read[std::get<0>(b)] = true;
    return std::find(read.begin() + 1, read.end(), false) == read.end();
}

// A value held in the block: where its bytes are, not a copy.
HeldValue held_value(SQLLEN indicator, std::span<const uint8_t> b, const uint8_t *base) {
    return HeldValue{indicator, static_cast<size_t>(b.data() - base), b.size()};
}

}  // namespace

void ReadAhead::new_result(const ShapeKey &next_shape) {
    end_row();
    shape_ = next_shape;
    auto known = first_reads_.find(shape_);
    if (known != first_reads_.end()) requests_ = known->second.requests;
    else requests_.clear();
    first_row_ = true;
    rows_.clear();
    calls_.clear();
    bytes_.clear();
    next_ = 0;
    on_held_ = false;
    read_on_by_.reset();
}

void ReadAhead::end_row() {
    if (!row_current_) return;
    row_current_ = false;
    requests_.clear();
    // A call that goes on reading a value the call before left truncated
    // follows from that value, not from the application's way of reading.
    for (size_t i = 0; i < made_.size(); ++i) {
        const bool continues = i > 0 && made_[i - 1].first.column == made_[i].first.column &&
                               made_[i - 1].second == SQL_SUCCESS_WITH_INFO;
        if (!continues) requests_.push_back(made_[i].first);
    }
    made_.clear();
    if (first_row_ && !shape_.empty()) {
        constexpr size_t kShapesKept = 256;
        if (first_reads_.size() >= kShapesKept && !first_reads_.contains(shape_)) first_reads_.clear();
        first_reads_[shape_] = {requests_, first_plain_};
    }
    first_row_ = false;
}

zb::ReadAheadPlan ReadAhead::plan(const BoundKey &bound) const {
    zb::ReadAheadPlan p;
    p.requests = requests_;
    const bool reads_on = first_row_ ? reads_every_column(requests_, shape_.size(), bound)
                                     : !requests_.empty() || !bound.empty();
    p.max_rows = reads_on ? zb::kReadAheadRows : 1;
    p.byte_budget = zb::kReadAheadBytes;
    return p;
}

std::optional<zb::ReadAheadPlan> ReadAhead::execute_plan(const ShapeKey &shape) const {
    auto known = first_reads_.find(shape);
    if (shape.empty() || known == first_reads_.end() || !known->second.plain || known->second.requests.empty())
        return std::nullopt;
    const auto &requests = known->second.requests;
    const uint32_t rows = reads_every_column(requests, shape.size(), {}) ? zb::kReadAheadRows : 1;
    return zb::ReadAheadPlan{requests, rows, zb::kReadAheadBytes};
}

const HeldRow *ReadAhead::next_row(bool plain) {
    end_row();
    if (first_row_) first_plain_ = plain;
    row_current_ = true;
    on_held_ = next_ < rows_.size();
    if (!on_held_) {
        rows_.clear();
        calls_.clear();
        next_ = 0;
        return nullptr;
    }
    return &rows_[next_++];
}

void ReadAhead::take_list(zb::Reader &in, const zb::ReadAheadPlan &plan) {
    const uint8_t *base = bytes_.data();
    auto take_calls = [&](HeldRow &row) {
        row.first_call = calls_.size();
        row.calls = in.u32();
        if (row.calls > plan.requests.size()) throw zb::DecodeError("more replayed calls than requested");
        for (size_t i = 0; i < row.calls; ++i) {
            HeldCall c;
            c.request = plan.requests[i];
            c.rc = zb::get_outcome(in, c.diags);
            const auto indicator = static_cast<SQLLEN>(in.svar());
            c.value = held_value(indicator, in.var_bytes(), base);
            calls_.push_back(std::move(c));
        }
    };
    auto take_bound = [&] {  // as a rowset carries it: fixed-width indicator and length
        const auto indicator = static_cast<SQLLEN>(in.i64());
        return held_value(indicator, in.bytes(), base);
    };
    auto take_number = [&](HeldRow &row) {
        std::vector<zb::DiagRecord> none;
        row.number_rc = zb::get_outcome(in, none);
        row.number = in.var();
    };
    if (!rows_.empty()) {
        take_number(rows_.front());
        take_calls(rows_.front());
    }
    while (in.u8() != 0) {
        HeldRow row;
        row.rc = zb::get_outcome(in, row.diags);
        row.rows = in.u64();
        if (row.rows > 1) throw zb::DecodeError("more than one row in a read-ahead rowset");
        if (row.rows == 1) row.status = static_cast<SQLUSMALLINT>(in.i16());
        for (size_t c = 0; c < bound_.size(); ++c)
            row.bound.push_back(row.rows == 1 ? take_bound() : HeldValue{});
        take_number(row);
        take_calls(row);
        rows_.push_back(std::move(row));
    }
}

void ReadAhead::take(std::vector<uint8_t> bytes, zb::Reader &in, const BoundKey &bound,
                     const zb::ReadAheadPlan &plan) {
    bytes_ = std::move(bytes);  // `in` reads from this buffer, which the move keeps
    rows_.assign(1, HeldRow{});  // the fetched row, already handed out
    calls_.clear();
    bound_ = bound;
    take_list(in, plan);
    next_ = 1;
    on_held_ = true;
}

void ReadAhead::take_rows(std::vector<uint8_t> bytes, zb::Reader &in, const zb::ReadAheadPlan &plan,
                          const BoundKey &bound) {
    bytes_ = std::move(bytes);
    rows_.clear();
    calls_.clear();
    bound_ = bound;
    take_list(in, plan);
    next_ = 0;
    on_held_ = false;
}

const HeldRow *ReadAhead::first_row() {
    if (rows_.empty()) return nullptr;
    row_current_ = true;
    on_held_ = true;
    next_ = 1;
    return &rows_.front();
}

void ReadAhead::reading_on(bool on, const zb::ReadAheadPlan &plan, const BoundKey &bound) {
    if (on) read_on_by_.emplace(plan, bound);
    else read_on_by_.reset();
}

ReadAhead::Answer ReadAhead::answer(const zb::DataRequest &r, const HeldCall *&call) {
    if (!on_held_) return Answer::Live;
    const HeldRow &row = rows_[next_ - 1];
    const std::span<HeldCall> held(calls_.data() + row.first_call, row.calls);
    auto match = std::find_if(held.begin(), held.end(), [&](const HeldCall &c) { return !c.served && c.request == r; });
    if (match != held.end()) {
        match->served = true;
        call = &*match;
        return Answer::Held;
    }
    if (next_ != rows_.size() || read_on_by_) return Answer::Lost;  // the server has read past this row
    // The target has read this column for a held call the application has
    // not made: it can no longer answer as it would have.
    const bool column_taken = std::any_of(held.begin(), held.end(), [&](const HeldCall &c) {
        return !c.served && c.request.column == r.column;
    });
    return column_taken ? Answer::Lost : Answer::Live;
}

void ReadAhead::record(const zb::DataRequest &r, SQLRETURN rc) { made_.emplace_back(r, rc); }

}  // namespace zbd
