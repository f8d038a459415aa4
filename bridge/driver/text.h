// Text crossing the driver's entry points: application strings in (8-bit
// taken as is, UTF-16 converted to UTF-8) and strings out into application
// buffers with ODBC's truncation rules (01004, the full length reported).
#pragma once

#include <optional>
#include <string>

#include "driver/handles.h"

namespace zbd {

// An input text argument: nullopt for a null pointer.
std::optional<std::string> in_text(const SQLCHAR *text, SQLINTEGER length);
std::optional<std::string> in_wtext(const SQLWCHAR *text, SQLINTEGER length);  // length in characters

// Copies text into buffer (capacity in bytes for 8-bit text). Writes the
// full length to *length when given. Adds 01004 to h and returns
// SQL_SUCCESS_WITH_INFO when it had to cut.
template <typename Len>
SQLRETURN out_text(Handle &h, const std::string &text, SQLPOINTER buffer, SQLLEN capacity, Len *length);

// The same for UTF-16 text. capacity and the reported length are in bytes
// when in_bytes, else in characters.
template <typename Len>
SQLRETURN out_wtext(Handle &h, const std::string &text, SQLPOINTER buffer, SQLLEN capacity,
                    Len *length, bool in_bytes);

}  // namespace zbd

namespace zbd {

// An application's output buffer for text, narrow or wide.
struct OutBuf {
    SQLPOINTER data = nullptr;
    SQLLEN capacity = 0;
    bool wide = false;
    bool in_bytes = true;  // wide only: capacity and lengths count bytes, not characters
};

template <typename Len>
SQLRETURN write_text(Handle &h, const std::string &text, const OutBuf &out, Len *length) {
    return out.wide ? out_wtext(h, text, out.data, out.capacity, length, out.in_bytes)
                    : out_text(h, text, out.data, out.capacity, length);
}

}  // namespace zbd
