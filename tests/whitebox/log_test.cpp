// Trace log entries, memory dumps and the handle's tracing string.
#include <gtest/gtest.h>

#include <filesystem>
#include <tuple>

#include "base/handle.h"
#include "base/log.h"
#include "helpers/log_file.h"

using namespace zrpc;
using test::read_trace_log;

TEST(Log, EntriesAreWrittenAsFormattedCutAt511AndAppendedAfterReopening) {
    test::reset_logs();
    ASSERT_TRUE(std::filesystem::create_directory(kTraceLogPath));
    LogTrcMsgStr("lost\n");  // cannot be opened: skipped, tried again by the next entry
    ASSERT_TRUE(std::filesystem::remove(kTraceLogPath));
    LogTrcMsgStr("pushing int16 %s : %d\n", "n%%", -7);  // "%%" lives to the second pass
    LogErrMsgStr("bad handle %d\n", 3);  // same stream as the trace entries
    LogClose();                          // the next entry reopens in append mode
    LogTrcMsgStr("%s", std::string(600, 'x').c_str());
    EXPECT_EQ(read_trace_log(), "pushing int16 n% : -7\nbad handle 3\n" + std::string(511, 'x'));
}

TEST(Log, TextIsExpandedTwice) {
    // No arguments exist for the second pass: every conversion reads a zero of
    // its type, so traced data holding "%s" or "%n" cannot crash the process.
    const struct {
        const char *traced, *written;
    } cases[] = {
        {"get%d", "get0"},          {"%5d|%-3x|%05.1f", "    0|0  |000.0"},
        {"%s %p", "(null) (nil)"},  {"a%nb%ldc%*d", "ab0c0"},
        {"tail%", "tail%"},         {"%y%", "%y%"},
    };
    for (const auto &c : cases) {
        test::reset_logs();
        LogTrcMsgStr("\nCalling function: %s\n", c.traced);
        EXPECT_EQ(read_trace_log(), std::string("\nCalling function: ") + c.written + "\n")
            << c.traced;
    }
}

TEST(Log, TraceMemShowsPrintableBytesUpToTheGroupAfter128) {
    const std::string q(200, 'q');
    const std::tuple<const char *, int32_t, std::string> cases[] = {
        {"Hi, 9\t\0\n\x7f\xff", 10, "Hi, 9....."}, {q.data(), 128, q.substr(0, 128)},
        {q.data(), 130, q.substr(0, 130)}, {q.data(), 200, q.substr(0, 133)},
        {nullptr, 5, "<null pointer>"}, {"abc", 0, ""}, {"abc", -1, ""},
    };
    for (const auto &[bytes, length, shown] : cases) {
        test::reset_logs();
        trace_mem(bytes, length);
        EXPECT_EQ(read_trace_log(), "mem: " + shown + "\n") << length;
    }
}

TEST(Log, SetTracingCopiesTruncatesAndIgnoresNull) {
    auto h = std::make_unique<rpc_handle>();
    SetTracing(h.get(), std::string(200, 'y').c_str());
    SetTracing(h.get(), nullptr);
    EXPECT_EQ(GetTracing(h.get()), std::string(kTracingCapacity - 1, 'y'));
}
