// System information texts and the table of negotiation parameters.
#pragma once

#include <cstddef>
#include <cstdint>

#include "zephrpc.h"

struct utsname;

namespace zrpc {

using InfoFn = const char *(*)(HRPC h);

struct InfoItem {
    int32_t number;     // parameter item number sent to the peer; 0 ends the table
    InfoFn function;
    const char *label;  // report label, e.g. "\tSystem Type:    %s"
};

// Items 1, 2, 3, 4, 5, 6, 7, 10 in the order they are sent, then {0}.
extern const InfoItem param_list[];

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
