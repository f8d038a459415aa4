// The driver's side of the wire: opening the library connection and making
// one bridged call. Transport failures become ODBC diagnostics here and
// nowhere else.
#pragma once

#include <string>

#include "driver/handles.h"
#include "protocol/protocol.h"

namespace zbd {

struct Reply {
    SQLRETURN rc = SQL_ERROR;
    std::vector<zb::DiagRecord> diags;
    std::vector<uint8_t> bytes;
    zb::Reader in;  // the payload after the diagnostics
};

// Opens the library connection of dbc to host:port. On failure returns
// SQL_ERROR with an 08001 record in dbc's diagnostics and leaves dbc closed.
SQLRETURN open_transport(Dbc &dbc, const std::string &host, const std::string &port);
void close_transport(Dbc &dbc);

// Asks the server, over a connection of its own, to cancel the call running
// on statement (its server-side handle) while dbc's connection waits for it:
// SQL_SUCCESS when asked, SQL_NO_DATA when that statement has no call
// running, SQL_ERROR when the server cannot be reached or cannot cancel.
// Touches nothing in dbc but what connecting set.
SQLRETURN cancel_from_outside(const Dbc &dbc, uint64_t statement);

// Calls op on the server for the server-side handle. A transport failure
// marks dbc broken and yields SQL_ERROR with 08S01. The reply's diagnostics
// are not yet stored anywhere; see adopt().
Reply call(Dbc &dbc, zb::Op op, uint64_t handle, zb::Writer &request);

// Calls op for statement s. A cursor close the driver deferred (see
// free_stmt) travels first: inside the request of an execute, prepare or
// catalog call (whose first byte says so), as a call of its own before any
// other operation.
Reply call(Stmt &s, zb::Op op, zb::Writer &request);

// Stores a reply's diagnostics as the handle's and returns its code.
SQLRETURN adopt(Handle &h, Reply &reply);

// Adds a diagnostic of the driver's own making.
SQLRETURN add_diag(Handle &h, const char *sqlstate, const std::string &message,
                   SQLRETURN rc = SQL_ERROR);

}  // namespace zbd
