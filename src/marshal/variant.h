// Variant arrays: an element count, then per element a one-byte tag (the
// position of the type code's highest bit) and the value, its shape, or
// nothing, depending on direction and mode.
#pragma once

#include <cstdint>

#include "base/handle.h"

namespace zrpc {

uint8_t bitno(uint32_t code);

// `desc` is the parameter or caller record: length = element count, value =
// the RPCVariant array. Aborts on a null array or a type code it cannot send.
void RPCPushWVArray(HRPC h, uint32_t type_flags, const char *name, RPCMemDesc desc);

// Server: allocates the element records and their buffers (freed after the
// reply). Client: pops into the caller's own records; aborts when the count
// differs from *count.
void RPCPopWVArray(HRPC h, RPCVariant **elements, int32_t *count, uint32_t type_flags,
                   const char *name);

// Frees the element buffers and the record array a server pop allocated.
void free_wvarray(RPCVariant *elements, int32_t count);

}  // namespace zrpc
