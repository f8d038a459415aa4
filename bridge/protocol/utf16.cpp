#include "protocol/utf16.h"

namespace zb {

std::string utf16_to_utf8(const char16_t *s, size_t n) {
    std::string out;
    out.reserve(n);
    for (size_t i = 0; i < n; ++i) {
        uint32_t c = s[i];
        if (c >= 0xD800 && c <= 0xDBFF && i + 1 < n && s[i + 1] >= 0xDC00 && s[i + 1] <= 0xDFFF) {
            c = 0x10000 + ((c - 0xD800) << 10) + (s[i + 1] - 0xDC00);
            ++i;
        } else if (c >= 0xD800 && c <= 0xDFFF) {
            c = 0xFFFD;  // a lone surrogate
        }
        if (c < 0x80) {
            out += static_cast<char>(c);
        } else if (c < 0x800) {
            out += static_cast<char>(0xC0 | (c >> 6));
            out += static_cast<char>(0x80 | (c & 0x3F));
        } else if (c < 0x10000) {
            out += static_cast<char>(0xE0 | (c >> 12));
            out += static_cast<char>(0x80 | ((c >> 6) & 0x3F));
            out += static_cast<char>(0x80 | (c & 0x3F));
        } else {
            out += static_cast<char>(0xF0 | (c >> 18));
            out += static_cast<char>(0x80 | ((c >> 12) & 0x3F));
            out += static_cast<char>(0x80 | ((c >> 6) & 0x3F));
            out += static_cast<char>(0x80 | (c & 0x3F));
        }
    }
    return out;
}

std::u16string utf8_to_utf16(const std::string &s) {
    std::u16string out;
    out.reserve(s.size());
    const auto *p = reinterpret_cast<const unsigned char *>(s.data());
    size_t i = 0, n = s.size();
    while (i < n) {
        uint32_t c = p[i];
        int extra = c < 0x80 ? 0 : (c >> 5) == 0x6 ? 1 : (c >> 4) == 0xE ? 2 : (c >> 3) == 0x1E ? 3 : -1;
        if (extra < 0 || i + static_cast<size_t>(extra) >= n + (extra == 0 ? 1 : 0)) {
            out += u'\uFFFD';  // not UTF-8: keep going rather than lose the rest
            ++i;
            continue;
        }
        if (extra > 0) c &= (0x3F >> extra);
        bool ok = true;
        for (int k = 1; k <= extra; ++k) {
            if (i + k >= n || (p[i + k] & 0xC0) != 0x80) {
                ok = false;
                break;
            }
            c = (c << 6) | (p[i + k] & 0x3F);
        }
        if (!ok) {
            out += u'\uFFFD';
            ++i;
            continue;
        }
        i += static_cast<size_t>(extra) + 1;
        if (c >= 0x10000) {
            c -= 0x10000;
            out += static_cast<char16_t>(0xD800 + (c >> 10));
            out += static_cast<char16_t>(0xDC00 + (c & 0x3FF));
        } else {
            out += static_cast<char16_t>(c);
        }
    }
    return out;
}

}  // namespace zb
