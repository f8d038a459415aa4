// Server dispatch internals.
#pragma once

#include "base/handle.h"

namespace zrpc {

// Sends the current call's reply once and frees the call's buffers.
void RPCReturnArgs(HRPC h);

}  // namespace zrpc
