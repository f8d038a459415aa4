// System information texts, the information table, copy() and RPCGetInfo.
#include <gtest/gtest.h>

#include <sys/utsname.h>

#include <cstring>
#include <utility>
#include <memory>
#include <string>

#include "core/handle.h"
#include "core/log.h"
#include "core/session.h"
#include "support/sysvfunc.h"

namespace {

using namespace zrpc;

const std::string kLongMachine(60, 'm');

int fake_uname(struct utsname *names) {
    std::strcpy(names->sysname, "SunOS");
    std::strcpy(names->release, "5.10");
    std::strcpy(names->machine, kLongMachine.c_str());
    return 0;
}
int failing_uname(struct utsname *) { return -1; }

class SysInfo : public ::testing::Test {
protected:
    void TearDown() override { uname_fn = ::uname; }
    std::unique_ptr<rpc_handle> h = std::make_unique<rpc_handle>();
};

TEST_F(SysInfo, UnameTextsAreCutTo49OrUndetermined) {
    uname_fn = fake_uname;
    EXPECT_STREQ(QXRPCGetSystemType(h.get()), "SunOS");
    EXPECT_STREQ(QXRPCGetSystemInformation(h.get()), "5.10");
    EXPECT_EQ(std::string(QXRPCGetProcessorType(h.get())), kLongMachine.substr(0, 49));

    uname_fn = failing_uname;
    EXPECT_STREQ(QXRPCGetSystemType(nullptr), "undetermined");
    EXPECT_STREQ(QXRPCGetSystemInformation(nullptr), "undetermined");
    EXPECT_STREQ(QXRPCGetProcessorType(nullptr), "undetermined");
}

TEST_F(SysInfo, SizesShareOneBuffer) {
    char *ptr = QXRPCGetPtrSize(h.get());
    EXPECT_STREQ(ptr, "8");
    std::strcpy(ptr, "x");  // each call must rewrite the one shared buffer
    EXPECT_EQ(QXRPCGetSqlLenSize(h.get()), ptr);
    EXPECT_STREQ(ptr, "8");
    std::strcpy(ptr, "x");
    EXPECT_STREQ(QXRPCGetPtrSize(h.get()), "8");
}

TEST_F(SysInfo, CopyZeroFillsAndCutsOnlyLongerSources) {
    struct Case {
        const char *source;
        std::string expected;  // all size + 1 bytes
    };
    const Case cases[] = {
        {"abc", std::string("abc\0\0#", 6)},  // only size bytes are zeroed
        {"abcde", std::string("abcde\0", 6)},  // exactly size: zero lands at [size]
        {"abcdef", std::string("abcd\0#", 6)},  // longer: size - 1 characters
    };
    for (const Case &c : cases) {
        char dest[6];
        std::memset(dest, '#', sizeof dest);
        copy(dest, c.source, 5);
        EXPECT_EQ(std::string(dest, sizeof dest), c.expected) << c.source;
    }
}

TEST_F(SysInfo, ParamListOrderLabelsAndTexts) {
    uname_fn = fake_uname;
    SetTracing(h.get(), "ca");
    struct Row {
        int32_t number;
        const char *label;
        std::string text;  // empty: compared by function instead
        InfoFn function;
    };
    const Row rows[] = {
        {1, "\tSystem Type:    %s", "SunOS", nullptr},
        {2, "\tSystem Info:    %s", "5.10", nullptr},
        {3, "\tProcessor Type: %s", kLongMachine.substr(0, 49), nullptr},
        {4, "\tPointer Size:   %s", "8", nullptr},
        {5, "\tTracing:        %s", "ca", nullptr},
        {6, "\tEndianess:      %s", "", GetEndianess},
        {7, "\tCompression:    %s", "", GetCompression},
        {10, "\tSQLLEN Size:   %s", "8", nullptr},
    };
    int i = 0;
    for (const Row &row : rows) {
        const InfoItem &item = param_list[i++];
        EXPECT_EQ(item.number, row.number);
        EXPECT_STREQ(item.label, row.label);
        if (row.function != nullptr)
            EXPECT_EQ(item.function, row.function);
        else
            EXPECT_EQ(item.function(h.get()), row.text) << row.number;
    }
    EXPECT_EQ(param_list[i].number, 0);
}

TEST_F(SysInfo, GetInfoAnswersAndRefusals) {
    char dest[4] = "###";
    EXPECT_EQ(RPCGetInfo(nullptr, RPC_INFO_BYTESWAP, dest, 4), -1);
    EXPECT_EQ(RPCGetInfo(h.get(), 3, dest, 4), -1);
    EXPECT_EQ(RPCGetInfo(h.get(), RPC_INFO_BYTESWAP, dest, 1), -1);
    EXPECT_STREQ(dest, "###");

    EXPECT_EQ(RPCGetInfo(h.get(), RPC_INFO_BYTESWAP, dest, 2), 0);
    EXPECT_STREQ(dest, "N");
    h->flags = kByteSwap;
    EXPECT_EQ(RPCGetInfo(h.get(), RPC_INFO_BYTESWAP, dest, 4), 0);
    EXPECT_STREQ(dest, "Y");

    for (auto [code, answer] : {std::pair{RPC_ETRANSPORT, "Y"}, std::pair{RPC_BADNEG, "Y"},
                                std::pair{RPC_ECONNECT, "N"}, std::pair{RPC_NOERROR, "N"}}) {
        h->error_code = code;
        EXPECT_EQ(RPCGetInfo(h.get(), RPC_INFO_NETFAIL, dest, 2), 0);
        EXPECT_STREQ(dest, answer) << code;
    }
}

}  // namespace
