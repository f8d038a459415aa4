// Support: system information texts, the name hash table and float formats.
// This layer includes nothing of the library but the public header.
#pragma once

#include <cstddef>
#include <cstdint>

#include "zephrpc.h"

struct utsname;

namespace zrpc {

constexpr std::size_t kInfoTextSize = 50;

// The system call behind the first three texts; tests swap it to fake a
// machine or a failure. Same contract as uname(2): 0 on success.
using UnameFn = int (*)(struct ::utsname *);
extern UnameFn uname_fn;

// Zero-fills `size` bytes of dest, then copies source whole when it is at most
// `size` characters long (its terminator may land at dest[size]), else its
// first size - 1 characters. REQUIRES: dest holds size + 1 bytes.
void copy(char *dest, const char *source, std::size_t size);

}  // namespace zrpc
