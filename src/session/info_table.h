// The negotiation's information table: which texts describe this side to
// the peer, in the order they are sent.
#pragma once

#include <cstdint>

#include "zephrpc.h"

namespace zrpc {

using InfoFn = const char *(*)(HRPC h);

struct InfoItem {
    int32_t number;     // parameter item number sent to the peer; 0 ends the table
    InfoFn function;
    const char *label;  // report label, e.g. "\tSystem Type:    %s"
};

// Items 1, 2, 3, 4, 5, 6, 7, 10 in the order they are sent, then {0}.
extern const InfoItem param_list[];

}  // namespace zrpc
