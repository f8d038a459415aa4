// Small helpers shared by the drivers: failure texts and system error texts.
#pragma once

#include <cstdarg>
#include <cstddef>
#include <cstdint>
#include <cstdio>

namespace zrpc {

constexpr uint32_t kErrorNotice = 0xFFFFFFFFu;  // header announcing a peer's error text
constexpr std::size_t kNoticeSize = 512;        // most of a peer's error text read at once

void xstrerror_r(int error_number, char *buffer, std::size_t size);

// The system error text of one error number, in the 512 bytes every driver
// text uses. Take it before a later call can change errno.
class ErrorText {
public:
    explicit ErrorText(int error_number) { xstrerror_r(error_number, text_, sizeof text_); }
    const char *get() const { return text_; }

private:
    char text_[512];
};

// Replaces a driver object's message; the text is cut to fit, never overflows.
void vformat_into(char *message, std::size_t size, const char *format, va_list args)
    __attribute__((format(printf, 3, 0)));

}  // namespace zrpc
