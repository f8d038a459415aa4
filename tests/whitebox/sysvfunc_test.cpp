// System information texts, the information table and RPCGetInfo.
#include <gtest/gtest.h>

#include <sys/utsname.h>

#include <cstring>
#include <utility>

#include "base/handle.h"
#include "support/sysvfunc.h"

using namespace zrpc;

TEST(SysInfo, TextsComeFromUnameCutTo49OrAreUndetermined) {
    uname_fn = [](struct utsname *names) {
        std::strcpy(names->sysname, "SunOS");
        std::strcpy(names->release, std::string(50, 'r').c_str());
        std::strcpy(names->machine, std::string(60, 'm').c_str());
        return 0;
    };
    EXPECT_STREQ(QXRPCGetSystemType(nullptr), "SunOS");
    EXPECT_EQ(QXRPCGetSystemInformation(nullptr), std::string(50, 'r'));  // 50 fit whole
    EXPECT_EQ(QXRPCGetProcessorType(nullptr), std::string(49, 'm'));     // longer: cut to 49
    uname_fn = [](struct utsname *) { return -1; };
    for (auto text : {QXRPCGetSystemType, QXRPCGetSystemInformation, QXRPCGetProcessorType})
        EXPECT_STREQ(text(nullptr), "undetermined");
    uname_fn = ::uname;
}

TEST(SysInfo, SizesShareOneBuffer) {
    char *ptr = QXRPCGetPtrSize(nullptr);
    std::strcpy(ptr, "x");  // each call must rewrite the one shared buffer
    EXPECT_EQ(QXRPCGetSqlLenSize(nullptr), ptr);
    EXPECT_STREQ(ptr, "8");
}

TEST(SysInfo, GetInfoAnswersAndRefusals) {
    auto h = std::make_unique<rpc_handle>();
    auto info = [](HRPC handle, int32_t item, int32_t size) {  // result, then what is left
        char dest[4] = "###";
        return std::to_string(RPCGetInfo(handle, item, dest, size)) + ":" + dest;
    };
    EXPECT_EQ(info(nullptr, RPC_INFO_BYTESWAP, 4), "-1:###");
    EXPECT_EQ(info(h.get(), 3, 4), "-1:###");
    EXPECT_EQ(info(h.get(), RPC_INFO_BYTESWAP, 1), "-1:###");
    EXPECT_EQ(info(h.get(), RPC_INFO_BYTESWAP, 2), "0:N");
    h->flags = kByteSwap;
    EXPECT_EQ(info(h.get(), RPC_INFO_BYTESWAP, 4), "0:Y");
    for (auto [code, answer] : {std::pair{RPC_ETRANSPORT, "0:Y"}, std::pair{RPC_BADNEG, "0:Y"},
                                std::pair{RPC_ECONNECT, "0:N"}, std::pair{RPC_NOERROR, "0:N"}}) {
        h->error_code = code;
        EXPECT_EQ(info(h.get(), RPC_INFO_NETFAIL, 2), answer) << code;
    }
}
