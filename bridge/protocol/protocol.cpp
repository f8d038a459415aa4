#include "protocol/protocol.h"

namespace zb {

const char *op_name(Op op) {
    switch (op) {
#define ZB_CASE(id, name) \
    case Op::id:          \
        return name;
        ZB_OPERATIONS(ZB_CASE)
#undef ZB_CASE
    case Op::Count:
        break;
    }
    return "";
}

}  // namespace zb
