// UTF-8 (the bridge's text on the wire) to and from UTF-16 (ODBC's wide
// text). Bytes that are not UTF-8 and lone surrogates become U+FFFD.
#pragma once

#include <cstddef>
#include <string>

namespace zb {

std::u16string utf8_to_utf16(const std::string &s);
std::string utf16_to_utf8(const char16_t *s, size_t n);

}  // namespace zb
