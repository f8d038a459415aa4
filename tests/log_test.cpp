// Trace log entries, memory dumps and the handle's tracing string.
#include <gtest/gtest.h>

#include <sys/stat.h>
#include <unistd.h>

#include <cstdio>
#include <memory>
#include <string>

#include "core/handle.h"
#include "core/log.h"
#include "helpers/log_file.h"

namespace {

using namespace zrpc;
using test::read_trace_log;

class LogTest : public ::testing::Test {
protected:
    void SetUp() override { test::reset_logs(); }
    void TearDown() override { test::reset_logs(); }
};

TEST_F(LogTest, EntriesAreFormattedFlushedAndAppended) {
    std::FILE *f = std::fopen(kTraceLogPath, "w");
    ASSERT_NE(f, nullptr);
    std::fputs("old\n", f);
    std::fclose(f);
    LogTrcMsgStr("pushing int16 %s : %d\n", "count", -7);
    LogErrMsgStr("bad handle %d\n", 3);  // same stream as the trace entries
    EXPECT_EQ(read_trace_log(), "old\npushing int16 count : -7\nbad handle 3\n");
    EXPECT_EQ(test::read_error_log(), "");

    LogClose();  // the next entry reopens in append mode
    LogTrcMsgStr("after close\n");
    EXPECT_EQ(read_trace_log(), "old\npushing int16 count : -7\nbad handle 3\nafter close\n");
}

TEST_F(LogTest, TextIsExpandedTwice) {
    LogTrcMsgStr("\nCalling function: %s\n", "rate%%");
    EXPECT_EQ(read_trace_log(), "\nCalling function: rate%\n");

    // No arguments exist for the second pass: every conversion reads a zero of
    // its type, so traced data holding "%s" or "%n" cannot crash the process.
    struct Case {
        const char *traced, *written;
    };
    const Case cases[] = {
        {"get%d", "get0"},          {"%5d|%-3x|%05.1f", "    0|0  |000.0"},
        {"%s %p", "(null) (nil)"},  {"a%nb%ldc%*d", "ab0c0"},
        {"tail%", "tail%"},         {"%y%", "%y%"},
    };
    for (const Case &c : cases) {
        test::reset_logs();
        LogTrcMsgStr("\nCalling function: %s\n", c.traced);
        EXPECT_EQ(read_trace_log(), std::string("\nCalling function: ") + c.written + "\n")
            << c.traced;
    }
}

TEST_F(LogTest, EntryIsCutAt511Characters) {
    const std::string long_text(600, 'x');
    LogTrcMsgStr("%s", long_text.c_str());
    EXPECT_EQ(read_trace_log(), std::string(511, 'x'));
}

TEST_F(LogTest, UnopenableLogIsSkippedAndRetried) {
    ASSERT_EQ(::mkdir(kTraceLogPath, 0700), 0);
    LogTrcMsgStr("lost\n");
    ASSERT_EQ(::rmdir(kTraceLogPath), 0);
    LogTrcMsgStr("kept\n");
    EXPECT_EQ(read_trace_log(), "kept\n");
}

std::string letters(int n) {
    std::string s;
    for (int i = 0; i < n; ++i) s += static_cast<char>('a' + i % 26);
    return s;
}

TEST_F(LogTest, TraceMemShowsPrintableBytesUpToTheGroupAfter128) {
    struct Case {
        std::string bytes;
        std::string shown;
    };
    const Case cases[] = {
        {"Hello, W!9", "Hello, W!9"},
        {std::string("a\tb\0c\n\x7f\xff ~", 10), "a.b.c... ~"},
        {letters(128), letters(128)},
        {letters(130), letters(130)},
        {letters(200), letters(133)},
    };
    for (const Case &c : cases) {
        test::reset_logs();
        trace_mem(c.bytes.data(), static_cast<int32_t>(c.bytes.size()));
        EXPECT_EQ(read_trace_log(), "mem: " + c.shown + "\n") << c.bytes.size();
    }
}

TEST_F(LogTest, TraceMemOfNothing) {
    trace_mem(nullptr, 5);
    trace_mem("abc", 0);
    trace_mem("abc", -1);
    EXPECT_EQ(read_trace_log(), "mem: <null pointer>\nmem: \nmem: \n");
}

TEST(Tracing, SetTracingCopiesTruncatesAndIgnoresNull) {
    auto h = std::make_unique<rpc_handle>();
    EXPECT_STREQ(GetTracing(h.get()), "");
    SetTracing(h.get(), "ca");
    EXPECT_STREQ(GetTracing(h.get()), "ca");
    SetTracing(h.get(), nullptr);
    EXPECT_STREQ(GetTracing(h.get()), "ca");

    const std::string long_text(200, 'y');
    SetTracing(h.get(), long_text.c_str());
    EXPECT_EQ(std::string(GetTracing(h.get())), long_text.substr(0, kTracingCapacity - 1));
    SetTracing(nullptr, "c");  // no handle: nothing to do
}

}  // namespace
