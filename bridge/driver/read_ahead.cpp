#include "driver/read_ahead.h"

namespace zbd {
namespace {

HeldValue held_value(zb::Reader &in, const uint8_t *base) {
    HeldValue v;
    v.indicator = static_cast<SQLLEN>(in.i64());
    auto b = in.bytes();
    v.at = static_cast<size_t>(b.data() - base);
    v.length = b.size();
    return v;
}

}  // namespace

void ReadAhead::new_result(const ShapeKey &next_shape) {
    end_row();
    shape_ = next_shape;
    auto known = first_reads_.find(shape_);
    if (known != first_reads_.end()) requests_ = known->second;
    else requests_.clear();
    first_row_ = true;
    rows_.clear();
    calls_.clear();
    bytes_.clear();
    next_ = 0;
    on_held_ = false;
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
        first_reads_[shape_] = requests_;
    }
    first_row_ = false;
}

zb::ReadAheadPlan ReadAhead::plan(bool bound) const {
    zb::ReadAheadPlan p;
    p.requests = requests_;
    p.max_rows = !requests_.empty() || bound ? zb::kReadAheadRows : 1;
    p.byte_budget = zb::kReadAheadBytes;
    return p;
}

const HeldRow *ReadAhead::next_row() {
    end_row();
    row_current_ = true;
    served_ = 0;
    on_held_ = next_ < rows_.size();
    if (!on_held_) {
        rows_.clear();
        calls_.clear();
        next_ = 0;
        return nullptr;
    }
    return &rows_[next_++];
}

void ReadAhead::take(std::vector<uint8_t> bytes, zb::Reader &in, const BoundKey &bound,
                     const zb::ReadAheadPlan &plan) {
    bytes_ = std::move(bytes);  // `in` reads from this buffer, which the move keeps
    const uint8_t *base = bytes_.data();
    rows_.clear();
    calls_.clear();
    bound_ = bound;
    auto take_calls = [&](HeldRow &row) {
        row.first_call = calls_.size();
        row.calls = in.u32();
        for (size_t i = 0; i < row.calls; ++i) {
            HeldCall c;
            c.rc = in.i16();
            c.diags = zb::get_diags(in);
            c.value = held_value(in, base);
            calls_.push_back(std::move(c));
        }
    };
    rows_.emplace_back();
    take_calls(rows_.back());
    while (in.u8() != 0) {
        HeldRow row;
        row.rc = in.i16();
        row.diags = zb::get_diags(in);
        row.rows = in.u64();
        if (row.rows > 1) throw zb::DecodeError("more than one row in a read-ahead rowset");
        if (row.rows == 1) row.status = static_cast<SQLUSMALLINT>(in.i16());
        for (size_t c = 0; c < bound.size(); ++c)
            row.bound.push_back(row.rows == 1 ? held_value(in, base) : HeldValue{});
        take_calls(row);
        rows_.push_back(std::move(row));
    }
    // The requests each call answers are the plan's, in order.
    for (const HeldRow &row : rows_)
        for (size_t i = 0; i < row.calls; ++i) {
            if (i >= plan.requests.size()) throw zb::DecodeError("more replayed calls than requested");
            calls_[row.first_call + i].request = plan.requests[i];
        }
    next_ = 1;
    on_held_ = true;
    served_ = 0;
}

ReadAhead::Answer ReadAhead::answer(const zb::DataRequest &r, const HeldCall *&call) {
    if (!on_held_) return Answer::Live;
    const HeldRow &row = rows_[next_ - 1];
    if (served_ < row.calls) {
        const HeldCall &held = calls_[row.first_call + served_];
        if (!(held.request == r)) return Answer::Lost;
        ++served_;
        call = &held;
        return Answer::Held;
    }
    return next_ == rows_.size() ? Answer::Live : Answer::Lost;
}

void ReadAhead::record(const zb::DataRequest &r, SQLRETURN rc) { made_.emplace_back(r, rc); }

}  // namespace zbd
