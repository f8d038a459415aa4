// Byte layout of the bridge's request and reply blocks.
//
// Integers are little-endian and fixed-width whatever the machine, except
// where a layout says "varint": then 7 bits a byte, low bits first, the top
// bit set on every byte but the last (at most 10 bytes); a signed varint is
// zigzag-coded first (0, -1, 1, -2, ... as 0, 1, 2, 3, ...). Byte strings
// carry a 32-bit length; an optional byte string (an ODBC text argument that
// may be a null pointer) carries a presence byte first.
// A Reader that runs past its block throws DecodeError: a malformed block is
// the peer's fault and must never be read beyond its end.
#pragma once

#include <cstdint>
#include <cstring>
#include <optional>
#include <span>
#include <stdexcept>
#include <string>
#include <string_view>
#include <vector>

namespace zb {

struct DecodeError : std::runtime_error {
    using std::runtime_error::runtime_error;
};

class Writer {
public:
    void u8(uint8_t v) { bytes_.push_back(v); }
    void i16(int16_t v) { put(static_cast<uint64_t>(static_cast<uint16_t>(v)), 2); }
    void i32(int32_t v) { put(static_cast<uint64_t>(static_cast<uint32_t>(v)), 4); }
    void u32(uint32_t v) { put(v, 4); }
    void i64(int64_t v) { put(static_cast<uint64_t>(v), 8); }
    void u64(uint64_t v) { put(v, 8); }
    void bytes(std::span<const uint8_t> b) {
        u32(static_cast<uint32_t>(b.size()));
        bytes_.insert(bytes_.end(), b.begin(), b.end());
    }
    void bytes(const void *p, size_t n) { bytes({static_cast<const uint8_t *>(p), n}); }
    void var(uint64_t v) {
        for (; v >= 0x80; v >>= 7) bytes_.push_back(static_cast<uint8_t>(v | 0x80));
        bytes_.push_back(static_cast<uint8_t>(v));
    }
    void svar(int64_t v) { var((static_cast<uint64_t>(v) << 1) ^ static_cast<uint64_t>(v >> 63)); }
    // Bytes with a varint length.
    void var_bytes(const void *p, size_t n) {
        var(n);
        bytes_.insert(bytes_.end(), static_cast<const uint8_t *>(p), static_cast<const uint8_t *>(p) + n);
    }
    void str(std::string_view s) { bytes(s.data(), s.size()); }
    void opt_str(const std::optional<std::string> &s) {
        u8(s.has_value());
        if (s) str(*s);
    }
    std::vector<uint8_t> &data() { return bytes_; }
    size_t size() const { return bytes_.size(); }

private:
    void put(uint64_t v, int width) {
        uint8_t le[8];
        for (int i = 0; i < width; ++i) le[i] = static_cast<uint8_t>(v >> (8 * i));
        bytes_.insert(bytes_.end(), le, le + width);
    }
    std::vector<uint8_t> bytes_;
};

class Reader {
public:
    Reader() = default;
    Reader(const void *p, size_t n) : p_(static_cast<const uint8_t *>(p)), n_(n) {}
    uint8_t u8() { return static_cast<uint8_t>(get(1)); }
    int16_t i16() { return static_cast<int16_t>(get(2)); }
    int32_t i32() { return static_cast<int32_t>(get(4)); }
    uint32_t u32() { return static_cast<uint32_t>(get(4)); }
    int64_t i64() { return static_cast<int64_t>(get(8)); }
    uint64_t u64() { return get(8); }
    std::span<const uint8_t> bytes() { return take(u32()); }
    // A count of items that follow, each at least `min_item_bytes` long. A
    // count the rest of the block cannot hold is a DecodeError, so a few
    // bytes never make the reader set aside room for billions of items.
    uint32_t count(size_t min_item_bytes) {
        const uint32_t n = u32();
        if (uint64_t{n} * min_item_bytes > remaining())
            throw DecodeError("bridge message counts more items than it holds");
        return n;
    }
    uint64_t var() {
        uint64_t v = 0;
        for (int shift = 0; shift < 64; shift += 7) {
            const uint8_t b = u8();
            if (shift == 63 && b > 1) break;
            v |= static_cast<uint64_t>(b & 0x7f) << shift;
            if ((b & 0x80) == 0) return v;
        }
        throw DecodeError("bridge message holds a malformed varint");
    }
    int64_t svar() {
        const uint64_t v = var();
        return static_cast<int64_t>(v >> 1) ^ -static_cast<int64_t>(v & 1);
    }
    std::span<const uint8_t> var_bytes() { return take(var()); }
    std::string str() {
        auto b = bytes();
        return std::string(reinterpret_cast<const char *>(b.data()), b.size());
    }
    std::optional<std::string> opt_str() {
        if (u8() == 0) return std::nullopt;
        return str();
    }
    bool done() const { return pos_ == n_; }
    size_t remaining() const { return n_ - pos_; }

private:
    std::span<const uint8_t> take(uint64_t n) {
        need(n);
        std::span<const uint8_t> s(p_ + pos_, static_cast<size_t>(n));
        pos_ += static_cast<size_t>(n);
        return s;
    }
    void need(uint64_t k) const {
        if (k > n_ - pos_) throw DecodeError("bridge message is shorter than its contents");
    }
    uint64_t get(int width) {
        need(static_cast<size_t>(width));
        uint64_t v = 0;
        for (int i = 0; i < width; ++i) v |= static_cast<uint64_t>(p_[pos_ + i]) << (8 * i);
        pos_ += static_cast<size_t>(width);
        return v;
    }
    const uint8_t *p_ = nullptr;
    size_t n_ = 0;
    size_t pos_ = 0;
};

// One diagnostic record as the target reported it.
struct DiagRecord {
    std::string sqlstate;  // five characters
    int32_t native = 0;
    std::string message;
    std::string class_origin;
    std::string subclass_origin;
};

inline void put_diags(Writer &w, const std::vector<DiagRecord> &diags) {
    w.u32(static_cast<uint32_t>(diags.size()));
    for (const auto &d : diags) {
        w.str(d.sqlstate);
        w.i32(d.native);
        w.str(d.message);
        w.str(d.class_origin);
        w.str(d.subclass_origin);
    }
}

inline std::vector<DiagRecord> get_diags(Reader &r) {
    const uint32_t n = r.count(20);
    std::vector<DiagRecord> out;
    for (uint32_t i = 0; i < n; ++i) {
        DiagRecord d;
        d.sqlstate = r.str();
        d.native = r.i32();
        d.message = r.str();
        d.class_origin = r.str();
        d.subclass_origin = r.str();
        out.push_back(std::move(d));
    }
    return out;
}

// What SQLDescribeCol reports for one result column.
struct ColumnDesc {
    std::string name;
    int16_t sql_type = 0;
    uint64_t size = 0;
    int16_t digits = 0;
    int16_t nullable = 0;
    int16_t unsigned_rc = -1;  // SQLColAttribute(SQL_DESC_UNSIGNED), which most clients ask
    int64_t is_unsigned = 0;
};

// The shape of a statement's current result, sent after everything that can
// open one (execute, catalog functions, more results) or describe one (prepare).
struct ResultShape {
    int16_t columns_rc = 0;  // SQLNumResultCols' return code
    int16_t column_count = 0;
    std::vector<ColumnDesc> columns;
    int16_t rowcount_rc = -1;  // SQLRowCount's return code
    int64_t row_count = -1;
};

inline void put_shape(Writer &w, const ResultShape &s) {
    w.i16(s.columns_rc);
    w.i16(s.column_count);
    w.u32(static_cast<uint32_t>(s.columns.size()));
    for (const auto &c : s.columns) {
        w.str(c.name);
        w.i16(c.sql_type);
        w.u64(c.size);
        w.i16(c.digits);
        w.i16(c.nullable);
        w.i16(c.unsigned_rc);
        w.i64(c.is_unsigned);
    }
    w.i16(s.rowcount_rc);
    w.i64(s.row_count);
}

inline ResultShape get_shape(Reader &r) {
    ResultShape s;
    s.columns_rc = r.i16();
    s.column_count = r.i16();
    const uint32_t n = r.count(28);
    for (uint32_t i = 0; i < n; ++i) {
        ColumnDesc c;
        c.name = r.str();
        c.sql_type = r.i16();
        c.size = r.u64();
        c.digits = r.i16();
        c.nullable = r.i16();
        c.unsigned_rc = r.i16();
        c.is_unsigned = r.i64();
        s.columns.push_back(std::move(c));
    }
    s.rowcount_rc = r.i16();
    s.row_count = r.i64();
    return s;
}

}  // namespace zb
