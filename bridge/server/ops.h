// The server's operation handlers, one per bridged operation.
// REQUIRES: the handle argument is the issued object of the kind the
// operation acts on (checked by the dispatcher; null for op_connect).
#pragma once

#include <cstring>

#include "server/session.h"

namespace zbs {

#define ZBS_HANDLER(name) void name(Session &, void *, zb::Reader &, zb::Writer &, Outcome &)
ZBS_HANDLER(op_connect);
ZBS_HANDLER(op_disconnect);
ZBS_HANDLER(op_set_connect_attr);
ZBS_HANDLER(op_get_connect_attr);
ZBS_HANDLER(op_get_info);
ZBS_HANDLER(op_end_tran);
ZBS_HANDLER(op_native_sql);
ZBS_HANDLER(op_alloc_stmt);
ZBS_HANDLER(op_free_stmt);
ZBS_HANDLER(op_set_stmt_attr);
ZBS_HANDLER(op_get_stmt_attr);
ZBS_HANDLER(op_prepare);
ZBS_HANDLER(op_execute);
ZBS_HANDLER(op_catalog);
ZBS_HANDLER(op_describe_param);
ZBS_HANDLER(op_fetch);
ZBS_HANDLER(op_get_data);
ZBS_HANDLER(op_col_attribute);
ZBS_HANDLER(op_more_results);
ZBS_HANDLER(op_cancel);
ZBS_HANDLER(op_cancel_call);
#undef ZBS_HANDLER

}  // namespace zbs
