// What the library appends to its trace log (/tmp/qxrpc.log) while a test
// runs, read from the file alone. Suites that use it hold the log lock
// (ZEPHRPC_LOG_SUITES in tests/CMakeLists.txt).
#pragma once

#include <fstream>
#include <iterator>
#include <string>

namespace zrpc::test {

class TraceTail {
public:
    static constexpr const char *kPath = "/tmp/qxrpc.log";
    TraceTail() : start_(size()) {}
    // Everything written since construction (the log is append-only).
    std::string read() const {
        std::ifstream in(kPath, std::ios::binary);
        in.seekg(start_);
        return std::string(std::istreambuf_iterator<char>(in), {});
    }

private:
    static std::streamoff size() {
        std::ifstream in(kPath, std::ios::binary | std::ios::ate);
        return in ? static_cast<std::streamoff>(in.tellg()) : 0;
    }
    std::streamoff start_;
};

}  // namespace zrpc::test
