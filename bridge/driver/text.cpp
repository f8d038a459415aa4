#include "driver/text.h"

#include <cstring>

#include "driver/remote.h"
#include "protocol/utf16.h"

namespace zbd {

std::optional<std::string> in_text(const SQLCHAR *text, SQLINTEGER length) {
    if (text == nullptr) return std::nullopt;
    const char *p = reinterpret_cast<const char *>(text);
    if (length == SQL_NTS) return std::string(p);
    return std::string(p, length > 0 ? static_cast<size_t>(length) : 0);
}

std::optional<std::string> in_wtext(const SQLWCHAR *text, SQLINTEGER length) {
    if (text == nullptr) return std::nullopt;
    size_t n = 0;
    if (length == SQL_NTS) {
        while (text[n] != 0) ++n;
    } else if (length > 0) {
        n = static_cast<size_t>(length);
    }
    return zb::utf16_to_utf8(reinterpret_cast<const char16_t *>(text), n);
}


template <typename Len>
SQLRETURN out_text(Handle &h, const std::string &text, SQLPOINTER buffer, SQLLEN capacity, Len *length) {
    if (length != nullptr) *length = static_cast<Len>(text.size());
    if (buffer == nullptr || capacity <= 0) {
        return text.empty() || buffer == nullptr ? SQL_SUCCESS
                                                 : add_diag(h, "01004", "String data, right truncated",
                                                            SQL_SUCCESS_WITH_INFO);
    }
    size_t n = std::min(text.size(), static_cast<size_t>(capacity - 1));
    std::memcpy(buffer, text.data(), n);
    static_cast<char *>(buffer)[n] = '\0';
    if (n < text.size()) return add_diag(h, "01004", "String data, right truncated", SQL_SUCCESS_WITH_INFO);
    return SQL_SUCCESS;
}

template <typename Len>
SQLRETURN out_wtext(Handle &h, const std::string &text, SQLPOINTER buffer, SQLLEN capacity,
                    Len *length, bool in_bytes) {
    const std::u16string w = zb::utf8_to_utf16(text);
    const size_t unit = in_bytes ? sizeof(char16_t) : 1;
    if (length != nullptr) *length = static_cast<Len>(w.size() * unit);
    SQLLEN chars = in_bytes ? capacity / 2 : capacity;
    if (buffer == nullptr || chars <= 0) {
        return w.empty() || buffer == nullptr ? SQL_SUCCESS
                                              : add_diag(h, "01004", "String data, right truncated",
                                                         SQL_SUCCESS_WITH_INFO);
    }
    size_t n = std::min(w.size(), static_cast<size_t>(chars - 1));
    std::memcpy(buffer, w.data(), n * sizeof(char16_t));
    static_cast<char16_t *>(buffer)[n] = 0;
    if (n < w.size()) return add_diag(h, "01004", "String data, right truncated", SQL_SUCCESS_WITH_INFO);
    return SQL_SUCCESS;
}

#define ZBD_TEXT_INSTANCES(Len)                                                                      \
    template SQLRETURN out_text<Len>(Handle &, const std::string &, SQLPOINTER, SQLLEN, Len *);       \
    template SQLRETURN out_wtext<Len>(Handle &, const std::string &, SQLPOINTER, SQLLEN, Len *, bool);
ZBD_TEXT_INSTANCES(SQLSMALLINT)
ZBD_TEXT_INSTANCES(SQLINTEGER)
ZBD_TEXT_INSTANCES(SQLLEN)

}  // namespace zbd
