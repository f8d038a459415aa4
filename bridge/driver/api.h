// The driver's operations behind the ODBC entry points. The exported 8-bit
// and UTF-16 entry points (api_ansi.cpp, api_wide.cpp) convert text and call
// these; text arguments here are UTF-8 (or the application's bytes, for the
// 8-bit entry points) and nullopt stands for a null pointer.
//
// REQUIRES for all: the handle is live and of the kind named; the caller
// (guarded) has cleared its diagnostics and catches exceptions.
#pragma once

#include <optional>
#include <string>
#include <vector>

#include "driver/handles.h"
#include "driver/text.h"

namespace zbd {

using Text = std::optional<std::string>;

// Connections (api_connection.cpp)
SQLRETURN connect_with(Dbc &dbc, const std::string &connection_string, const OutBuf &out,
                       SQLSMALLINT *out_length);
SQLRETURN connect_dsn(Dbc &dbc, const Text &dsn, const Text &uid, const Text &pwd);
SQLRETURN disconnect(Dbc &dbc);
SQLRETURN set_connect_attr(Dbc &dbc, SQLINTEGER attr, SQLPOINTER value, const Text &text);
SQLRETURN get_connect_attr(Dbc &dbc, SQLINTEGER attr, SQLPOINTER value, const OutBuf &out,
                           SQLINTEGER *length);
SQLRETURN get_info(Dbc &dbc, SQLUSMALLINT type, const OutBuf &out, SQLSMALLINT *length);
SQLRETURN end_tran(SQLSMALLINT type, SQLHANDLE h, SQLSMALLINT completion);
SQLRETURN native_sql(Dbc &dbc, const std::string &sql, const OutBuf &out, SQLINTEGER *length);

// Statements (api_statement.cpp)
SQLRETURN alloc_stmt(Dbc &dbc, SQLHANDLE *out);
SQLRETURN free_stmt(Stmt &s, SQLUSMALLINT option);
SQLRETURN set_stmt_attr(Stmt &s, SQLINTEGER attr, SQLPOINTER value);
SQLRETURN get_stmt_attr(Stmt &s, SQLINTEGER attr, SQLPOINTER value);
SQLRETURN prepare(Stmt &s, const std::string &sql);
SQLRETURN execute(Stmt &s, const Text &direct_sql);
SQLRETURN param_data(Stmt &s, SQLPOINTER *token);
SQLRETURN put_data(Stmt &s, SQLPOINTER data, SQLLEN length);
SQLRETURN catalog(Stmt &s, int fn, const std::vector<Text> &texts, const std::vector<int16_t> &numbers);
SQLRETURN more_results(Stmt &s);
SQLRETURN cancel(Stmt &s);
SQLRETURN close_cursor(Stmt &s);
SQLRETURN describe_param(Stmt &s, SQLUSMALLINT n, SQLSMALLINT *type, SQLULEN *size,
                         SQLSMALLINT *digits, SQLSMALLINT *nullable);

// Results (api_result.cpp)
SQLRETURN num_result_cols(Stmt &s, SQLSMALLINT *count);
SQLRETURN describe_col(Stmt &s, SQLUSMALLINT column, const OutBuf &name, SQLSMALLINT *name_length,
                       SQLSMALLINT *type, SQLULEN *size, SQLSMALLINT *digits, SQLSMALLINT *nullable);
SQLRETURN col_attribute(Stmt &s, SQLUSMALLINT column, SQLUSMALLINT field, const OutBuf &text,
                        SQLSMALLINT *text_length, SQLLEN *number);
SQLRETURN fetch(Stmt &s, bool scroll, SQLSMALLINT orientation, SQLLEN offset);
// The column attributes applications ask for, fetched for every column at
// once: the request's field list, and taking the answer into s.
void put_common_fields(zb::Writer &w);
void take_common_attributes(Stmt &s, zb::Reader &in);
SQLRETURN get_data(Stmt &s, SQLUSMALLINT column, SQLSMALLINT c_type, SQLPOINTER data,
                   SQLLEN length, SQLLEN *indicator);

// Diagnostics (api_diag.cpp)
Handle *diag_handle(SQLSMALLINT type, SQLHANDLE h);
SQLRETURN get_diag_rec(Handle &h, SQLSMALLINT record, const OutBuf &state, SQLINTEGER *native,
                       const OutBuf &message, SQLSMALLINT *length);
SQLRETURN get_diag_field(Handle &h, SQLSMALLINT type, SQLSMALLINT record, SQLSMALLINT field,
                         SQLPOINTER value, const OutBuf &text, SQLSMALLINT *length);
SQLRETURN error_record(Handle &h, const OutBuf &state, SQLINTEGER *native, const OutBuf &message,
                       SQLSMALLINT *length);

}  // namespace zbd
