// Parameters: reading the application's bound buffers at execute time
// (parameter arrays, bind offsets, row-wise binding, data at execution) and
// writing back what the server returned.
#pragma once

#include "driver/api.h"

namespace zbd {

// Where row (or parameter set) i of a bound buffer lives, honouring the bind
// offset and the bind type (column-wise: element apart; row-wise: bind_type).
char *bound_address(SQLPOINTER base, const SQLLEN *offset, SQLULEN bind_type, SQLLEN element,
                    SQLULEN i);
SQLLEN *bound_indicator(SQLLEN *base, const SQLLEN *offset, SQLULEN bind_type, SQLULEN i);

// Bytes per element of a C type bound with the given buffer length.
SQLLEN element_size(SQLSMALLINT c_type, SQLLEN buffer_length);

// Encodes an execute request. Parameters whose value comes at execution
// time are listed in data_at_exec (and encoded from s.dae.values when set).
SQLRETURN encode_execute(Stmt &s, const Text &direct_sql, zb::Writer &w,
                         std::vector<SQLUSMALLINT> &data_at_exec);

// Reads the execute reply's parameter part: status array, processed count,
// output parameters. Leaves the reader at the result shape.
void decode_execute_reply(Stmt &s, zb::Reader &in);

SQLRETURN append_put_data(Stmt &s, const ParamBinding &b, std::optional<std::vector<uint8_t>> &value,
                          SQLPOINTER data, SQLLEN length);

}  // namespace zbd
