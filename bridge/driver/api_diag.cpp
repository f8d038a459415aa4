// Diagnostics, answered from the driver's copy of the last call's records.
#include "driver/api.h"
#include "driver/remote.h"

namespace zbd {

Handle *diag_handle(SQLSMALLINT type, SQLHANDLE h) {
    switch (type) {
    case SQL_HANDLE_ENV: return as<Env>(h, Kind::Env);
    case SQL_HANDLE_DBC: return as<Dbc>(h, Kind::Dbc);
    case SQL_HANDLE_STMT: return as<Stmt>(h, Kind::Stmt);
    case SQL_HANDLE_DESC: return as<Desc>(h, Kind::Desc);
    default: return nullptr;
    }
}

SQLRETURN get_diag_rec(Handle &h, SQLSMALLINT record, const OutBuf &state, SQLINTEGER *native,
                       const OutBuf &message, SQLSMALLINT *length) {
    if (record < 1) return SQL_ERROR;
    if (static_cast<size_t>(record) > h.diag.records.size()) return SQL_NO_DATA;
    const zb::DiagRecord &r = h.diag.records[static_cast<size_t>(record) - 1];
    Handle scratch(h.kind);  // truncation here is reported by the return code only
    if (state.data != nullptr) write_text<SQLSMALLINT>(scratch, r.sqlstate, {state.data, 6, state.wide, false}, nullptr);
    if (native != nullptr) *native = r.native;
    return write_text(scratch, r.message, message, length);
}

SQLRETURN error_record(Handle &h, const OutBuf &state, SQLINTEGER *native, const OutBuf &message,
                       SQLSMALLINT *length) {
    if (static_cast<size_t>(h.diag.next_error) >= h.diag.records.size()) return SQL_NO_DATA;
    SQLRETURN rc = get_diag_rec(h, static_cast<SQLSMALLINT>(++h.diag.next_error), state, native, message, length);
    return rc;
}

SQLRETURN get_diag_field(Handle &h, SQLSMALLINT type, SQLSMALLINT record, SQLSMALLINT field,
                         SQLPOINTER value, const OutBuf &text, SQLSMALLINT *length) {
    Handle scratch(h.kind);
    auto put_int = [&](SQLINTEGER v) {
        if (value) *static_cast<SQLINTEGER *>(value) = v;
        return SQL_SUCCESS;
    };
    switch (field) {  // header fields
    case SQL_DIAG_NUMBER: return put_int(static_cast<SQLINTEGER>(h.diag.records.size()));
    case SQL_DIAG_RETURNCODE:
        if (value) *static_cast<SQLRETURN *>(value) = h.diag.rc;
        return SQL_SUCCESS;
    case SQL_DIAG_ROW_COUNT:
    case SQL_DIAG_CURSOR_ROW_COUNT: {
        if (type != SQL_HANDLE_STMT) return SQL_ERROR;
        auto &s = static_cast<Stmt &>(h);
        if (value) *static_cast<SQLLEN *>(value) = s.has_shape ? s.shape.row_count : 0;
        return SQL_SUCCESS;
    }
    case SQL_DIAG_DYNAMIC_FUNCTION: return write_text(scratch, "", text, length);
    case SQL_DIAG_DYNAMIC_FUNCTION_CODE: return put_int(SQL_DIAG_UNKNOWN_STATEMENT);
    default: break;
    }
    if (record < 1) return SQL_ERROR;
    if (static_cast<size_t>(record) > h.diag.records.size()) return SQL_NO_DATA;
    const zb::DiagRecord &r = h.diag.records[static_cast<size_t>(record) - 1];
    switch (field) {
    case SQL_DIAG_SQLSTATE: return write_text(scratch, r.sqlstate, text, length);
    case SQL_DIAG_NATIVE: return put_int(r.native);
    case SQL_DIAG_MESSAGE_TEXT: return write_text(scratch, r.message, text, length);
    case SQL_DIAG_CLASS_ORIGIN: return write_text(scratch, r.class_origin, text, length);
    case SQL_DIAG_SUBCLASS_ORIGIN: return write_text(scratch, r.subclass_origin, text, length);
    case SQL_DIAG_CONNECTION_NAME:
    case SQL_DIAG_SERVER_NAME: return write_text(scratch, "", text, length);
    case SQL_DIAG_COLUMN_NUMBER: return put_int(SQL_COLUMN_NUMBER_UNKNOWN);
    case SQL_DIAG_ROW_NUMBER:
        if (value) *static_cast<SQLLEN *>(value) = SQL_ROW_NUMBER_UNKNOWN;
        return SQL_SUCCESS;
    default: return SQL_ERROR;
    }
}

}  // namespace zbd
