#include "helpers/log_file.h"

#include <cstdio>
#include <fstream>
#include <sstream>

#include "base/log.h"

namespace zrpc::test {

void reset_logs() {
    LogClose();
    std::remove(kTraceLogPath);
    std::remove(kErrorLogPath);
}

std::string read_file(const std::string &path) {
    std::ifstream in(path, std::ios::binary);
    std::ostringstream out;
    out << in.rdbuf();
    return out.str();
}

std::string read_trace_log() { return read_file(kTraceLogPath); }
std::string read_error_log() { return read_file(kErrorLogPath); }

}  // namespace zrpc::test
