#include "server/wide.h"

#include <dlfcn.h>
#include <odbcinst.h>

#include "protocol/utf16.h"

namespace zbs {
namespace {

bool g_wide = false;

std::string profile(const std::string &section, const char *key, const char *file) {
    char buf[1024] = "";
    SQLGetPrivateProfileString(section.c_str(), key, "", buf, sizeof buf, file);
    return buf;
}

}  // namespace

bool wide_calls() { return g_wide; }
void use_wide_calls(bool wide) { g_wide = wide; }

std::string driver_library(const std::string &dsn) {
    std::string driver = profile(dsn, "Driver", "odbc.ini");
    // A registered driver's name, or the library's path itself.
    if (!driver.empty() && driver.find('/') == std::string::npos) {
        const std::string path = profile(driver, "Driver", "odbcinst.ini");
        if (!path.empty()) driver = path;
    }
    return driver;
}

bool driver_has_wide_calls(const std::string &dsn) {
    const std::string library = driver_library(dsn);
    if (library.empty()) return false;
    // Loaded already (before forking) or about to be: this costs a lookup.
    void *handle = dlopen(library.c_str(), RTLD_LAZY | RTLD_LOCAL);
    if (handle == nullptr) return false;
    const bool wide = dlsym(handle, "SQLDriverConnectW") != nullptr;
    dlclose(handle);
    return wide;
}

std::u16string to_wide(const std::string &utf8) { return zb::utf8_to_utf16(utf8); }

std::string from_wide(const SQLWCHAR *text, size_t chars) {
    return zb::utf16_to_utf8(reinterpret_cast<const char16_t *>(text), chars);
}

}  // namespace zbs
