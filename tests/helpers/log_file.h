// Access to the library's fixed log files from tests. Suites that use these
// are listed in ZEPHRPC_LOG_SUITES (tests/CMakeLists.txt) so they run alone.
#pragma once

#include <string>

namespace zrpc::test {

// Closes the library's trace stream and removes both log files.
void reset_logs();
// Whole content of a file, or "" when it does not exist.
std::string read_file(const std::string &path);
std::string read_trace_log();
std::string read_error_log();

}  // namespace zrpc::test
