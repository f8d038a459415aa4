// Text between the server and its target driver. By default it crosses as
// 8-bit text (UTF-8). When the application connected through the wide calls
// and the target driver has wide calls of its own, the server uses the wide
// calls too: some drivers (psqlODBC among them) treat a connection as
// Unicode, and report wide column types, only when it is used that way. An
// 8-bit driver is always reached through the 8-bit calls, as the driver
// manager would reach it, but without its lossy conversion.
#pragma once

#include <sql.h>
#include <sqlext.h>

#include <string>

namespace zbs {

// The way this process talks to its target (one connection per process).
bool wide_calls();
void use_wide_calls(bool wide);

// Whether the driver library behind a data source exports wide calls.
bool driver_has_wide_calls(const std::string &dsn);
// The driver library of a data source (a path), or "" when it has none.
std::string driver_library(const std::string &dsn);

std::u16string to_wide(const std::string &utf8);
std::string from_wide(const SQLWCHAR *text, size_t chars);
inline SQLWCHAR *wide_ptr(std::u16string &text) { return reinterpret_cast<SQLWCHAR *>(text.data()); }

}  // namespace zbs
