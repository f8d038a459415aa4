// Failure-text helpers shared by the drivers.
#include "net/netutil.h"

#include <cstring>

namespace zrpc {

void vformat_into(char *message, std::size_t size, const char *format, va_list args) {
    std::vsnprintf(message, size, format, args);
}

void xstrerror_r(int error_number, char *buffer, std::size_t size) {
    if (size == 0) return;
    const char *text = strerrordesc_np(error_number);  // null for unknown numbers
    if (text == nullptr) text = "";
    std::snprintf(buffer, size, "%s", text);
}

}  // namespace zrpc
