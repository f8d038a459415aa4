#include "driver/params.h"

#include <cstring>

#include "driver/remote.h"
#include "protocol/odbc_kinds.h"

namespace zbd {
namespace {

bool is_output(SQLSMALLINT io) { return io == SQL_PARAM_OUTPUT || io == SQL_PARAM_INPUT_OUTPUT; }

bool data_at_exec(SQLLEN ind) { return ind == SQL_DATA_AT_EXEC || ind <= SQL_LEN_DATA_AT_EXEC_OFFSET; }

size_t wide_length(const char16_t *p) {
    size_t n = 0;
    while (p[n] != 0) ++n;
    return n;
}

// The bytes of one input value; nullopt for NULL.
std::optional<std::vector<uint8_t>> input_value(SQLSMALLINT c_type, const char *data, SQLLEN ind,
                                                SQLLEN buffer_length) {
    if (ind == SQL_NULL_DATA) return std::nullopt;
    std::vector<uint8_t> out;
    if (data == nullptr) return out;
    SQLLEN n;
    if (int fixed = zb::c_type_fixed_size(c_type)) {
        n = fixed;
    } else if (ind == SQL_NTS) {
        n = c_type == SQL_C_WCHAR ? static_cast<SQLLEN>(wide_length(reinterpret_cast<const char16_t *>(data)) * 2)
                                  : static_cast<SQLLEN>(std::strlen(data));
    } else if (ind >= 0) {
        n = ind;
    } else {
        n = buffer_length;
    }
    out.assign(data, data + std::max<SQLLEN>(n, 0));
    return out;
}

}  // namespace

SQLLEN element_size(SQLSMALLINT c_type, SQLLEN buffer_length) {
    if (int fixed = zb::c_type_fixed_size(c_type)) return fixed;
    return buffer_length;
}

char *bound_address(SQLPOINTER base, const SQLLEN *offset, SQLULEN bind_type, SQLLEN element, SQLULEN i) {
    if (base == nullptr) return nullptr;
    char *p = static_cast<char *>(base) + (offset != nullptr ? *offset : 0);
    return p + i * (bind_type == SQL_BIND_BY_COLUMN ? static_cast<SQLULEN>(element) : bind_type);
}

SQLLEN *bound_indicator(SQLLEN *base, const SQLLEN *offset, SQLULEN bind_type, SQLULEN i) {
    if (base == nullptr) return nullptr;
    char *p = reinterpret_cast<char *>(base) + (offset != nullptr ? *offset : 0);
    return reinterpret_cast<SQLLEN *>(p + i * (bind_type == SQL_BIND_BY_COLUMN ? sizeof(SQLLEN) : bind_type));
}

SQLRETURN encode_execute(Stmt &s, const Text &direct_sql, zb::Writer &w,
                         std::vector<SQLUSMALLINT> &dae) {
    w.u8(direct_sql.has_value());
    if (direct_sql) w.str(*direct_sql);
    w.u32(static_cast<uint32_t>(s.params.size()));
    for (const auto &[number, b] : s.params) {
        w.i16(static_cast<int16_t>(number));
        w.i16(b.io);
        w.i16(b.c_type);
        w.i16(b.sql_type);
        w.u64(b.size);
        w.i16(b.digits);
        w.i64(is_output(b.io) ? element_size(b.c_type, b.length) : 0);
    }
    const SQLULEN sets = s.paramset_size;
    w.u64(sets);
    for (SQLULEN i = 0; i < sets; ++i) {
        for (const auto &[number, b] : s.params) {
            const SQLLEN elem = element_size(b.c_type, b.length);
            const char *data = bound_address(b.data, s.param_bind_offset, s.param_bind_type, elem, i);
            const SQLLEN *ip = bound_indicator(b.indicator, s.param_bind_offset, s.param_bind_type, i);
            SQLLEN ind = ip != nullptr ? *ip
                         : (b.c_type == SQL_C_CHAR || b.c_type == SQL_C_WCHAR) ? SQL_NTS
                                                                               : b.length;
            std::optional<std::vector<uint8_t>> value;
            if (b.io == SQL_PARAM_OUTPUT) {
                value = std::nullopt;
            } else if (data_at_exec(ind)) {
                if (sets > 1) return add_diag(s, "HYC00", "data at execution with parameter arrays");
                auto it = s.dae.values.find(number);
                if (it == s.dae.values.end()) {
                    dae.push_back(number);
                    value = std::vector<uint8_t>();
                } else {
                    value = it->second;
                }
            } else {
                value = input_value(b.c_type, data, ind, b.length);
            }
            w.i64(value ? static_cast<int64_t>(value->size()) : SQL_NULL_DATA);
            if (value) w.bytes(value->data(), value->size());
            else w.bytes(nullptr, 0);
        }
    }
    return SQL_SUCCESS;
}

void decode_execute_reply(Stmt &s, zb::Reader &in) {
    const uint64_t processed = in.u64();
    // Statuses of the sets the server processed; it stops at the first
    // that fails, and the sets after it are unused.
    const uint32_t statuses = in.count(2);
    for (SQLULEN i = 0; s.param_status != nullptr && i < s.paramset_size; ++i)
        s.param_status[i] = SQL_PARAM_UNUSED;
    for (uint32_t i = 0; i < statuses; ++i) {
        int16_t st = in.i16();
        if (s.param_status != nullptr && i < s.paramset_size) s.param_status[i] = static_cast<SQLUSMALLINT>(st);
    }
    if (s.params_processed != nullptr) *s.params_processed = processed;
    const SQLULEN last = s.paramset_size - 1;
    for (const auto &[number, b] : s.params) {
        if (!is_output(b.io)) continue;
        SQLLEN ind = static_cast<SQLLEN>(in.i64());
        auto bytes = in.bytes();
        const SQLLEN elem = element_size(b.c_type, b.length);
        char *data = bound_address(b.data, s.param_bind_offset, s.param_bind_type, elem, last);
        SQLLEN *ip = bound_indicator(b.indicator, s.param_bind_offset, s.param_bind_type, last);
        if (data != nullptr)
            std::memcpy(data, bytes.data(), std::min<size_t>(bytes.size(), static_cast<size_t>(std::max<SQLLEN>(elem, 0))));
        if (ip != nullptr) *ip = ind;
    }
}

SQLRETURN append_put_data(Stmt &s, const ParamBinding &b, std::optional<std::vector<uint8_t>> &value,
                          SQLPOINTER data, SQLLEN length) {
    if (length == SQL_NULL_DATA) {
        value = std::nullopt;
        return SQL_SUCCESS;
    }
    if (!value) value = std::vector<uint8_t>();
    if (data == nullptr) {
        if (length == 0) return SQL_SUCCESS;
        return add_diag(s, "HY009", "Invalid use of null pointer");
    }
    const char *p = static_cast<const char *>(data);
    SQLLEN n;
    if (int fixed = zb::c_type_fixed_size(b.c_type)) n = fixed;
    else if (length == SQL_NTS)
        n = b.c_type == SQL_C_WCHAR ? static_cast<SQLLEN>(wide_length(reinterpret_cast<const char16_t *>(p)) * 2)
                                    : static_cast<SQLLEN>(std::strlen(p));
    else if (length >= 0) n = length;
    else return add_diag(s, "HY090", "Invalid string or buffer length");
    value->insert(value->end(), p, p + n);
    return SQL_SUCCESS;
}

}  // namespace zbd
