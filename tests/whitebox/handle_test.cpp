// Handle lifecycle, states and the error table, through the public API
// (with white-box access where a state is hard to reach otherwise).
#include <gtest/gtest.h>

#include <cstdlib>
#include <string>

#include "base/handle.h"
#include "session/session.h"
#include "zephrpc.h"

namespace {

using namespace zrpc;

struct HandleGuard {
    HRPC h = RPCAllocHandle();
    ~HandleGuard() {
        if (h->state == RPC_STATE_INITIALISED || h->state == RPC_STATE_OPTIONS_SET)
            RPCTerminate(h);
        h->state = RPC_STATE_ALLOCATED;
        RPCFreeHandle(h);
    }
};

std::string report(HRPC h, int32_t *code = nullptr) {
    const char *text = nullptr;
    int32_t c = RPCReportError(h, &text);
    if (code) *code = c;
    return text ? text : "<null>";
}

struct ErrorText {
    int32_t code;
    const char *text;
};

// Every row with a text; a one-character change anywhere fails here.
constexpr ErrorText kErrorTexts[] = {
    {0, "RPC-NOERROR No error currently active"},
    {1, "RPC-INVMODE Mode argument invalid"},
    {2, "RPC-BADSTATE Function called out of sequence"},
    {3, "RPC-NOMEM Memory allocation failed"},
    {4, "RPC-NOTSP No transport found"},
    {5, "RPC-BADARG Invalid argument"},
    {6, "RPC-BADTRAN Invalid transport"},
    {10, "RPC-BADNEG Negotiation fails"},
    {11, "RPC-BADMGK Bad magic number"},
    {12, "RPC-FUNCFAIL Function fails"},
    {13, "RPC-NONAME Function name not in dispatch table"},
    {14, "RPC-BADFUNC Function is invalid"},
    {15, "RPC-EPKT Empty packet received"},
    {16, "RPC-BADSTR Bad start packet received"},
    {17, "RPC-SRTPKT Short packet received"},
    {18, "RPC-TRUNC Data would be lost"},
    {19, "RPC-BADUID, Bad uid - incompatible client and server versions"},
    {20, "RPC-BADVER, Bad Version"},
    {21, "RPC-INTERR, Internal Error"},
    {22, "RPC-INVPARAM, Invalid Parameter"},
    {23, "RPC-MISSPARAM, Missing Parameter"},
    {24, "RPC-TBLFULL, Pointer lookup table full"},
    {25, "RPC-DECOMP, Decompression error"},
    {26, "RPC-HMARSHAL, Handle marshalling error"},
    {27, "RPC-NETLOAD, Failed to load network drivers"},
    {28, "RPC-NOTRNAME, No transport anme located"},
    {29, "RPC-NETINITFAIL, Failed to initialise network layer"},
    {30, "RPC-DUPEXPFN, Duplicate function exported"},
    {31, "RPC_BADWINSOCK, Failed to initialise Winsock 2"},
    {32, "RPC_BADWINSOCKVER, Unsuitable Winsock version"},
    {33, "RPC_BAD_CHALLENGELEN, Bad challenge length"},
    {34, "RPC_BAD_CHALLENGE, Incorrect challenge response"},
    {35, "RPC_VERSION_TOO_BIG, RPC version string too long"},
    {36, "RPC_PARAMS_TOO_BIG, RPC parameter string too long"},
    {37, "RPC-NOMSG, No message available"},
    {-5, "RPC-NOMSG, No message available"},
};

TEST(ErrorTable, EveryCodeReportsItsExactTextAndKeepsTheCode) {
    HandleGuard g;
    for (const auto &row : kErrorTexts) {
        g.h->error_code = row.code;
        int32_t code = -100;
        EXPECT_EQ(report(g.h, &code), row.text) << "code " << row.code;
        EXPECT_EQ(code, row.code);
        EXPECT_EQ(g.h->error_code, row.code) << "reporting must not clear the code";
    }
}

TEST(ErrorTable, TransportCodesReportTheTransportText) {
    HandleGuard g;
    for (int32_t code : {7, 8, 9, 999}) {
        g.h->error_code = code;
        EXPECT_EQ(report(g.h), "unknown error") << "no text, no context, no connection";
    }
    NETContext *context = nullptr;
    ASSERT_EQ(NETLoad(), 0u);
    EXPECT_EQ(NETInitialise(5, &context), 1u);
    g.h->context = context;
    g.h->error_code = 7;
    EXPECT_EQ(report(g.h), "Invalid Transport - 5\n");
    zrpc::set_error_text(g.h, "driver said no");
    g.h->error_code = 999;
    EXPECT_EQ(report(g.h), "driver said no") << "the handle's own text comes first";
    g.h->context = nullptr;
    NETTerminate(context);
    NETUnload();
}

TEST(HandleLifecycle, InitialiseChecksModeAndStateAndLeavesCode28) {
    HandleGuard g;
    EXPECT_EQ(report(g.h), "RPC-NOERROR No error currently active");
    EXPECT_EQ(g.h->frame_limit, 4096u);
    EXPECT_EQ(RPCInitialise(g.h, 2, 0), 1);
    EXPECT_EQ(g.h->error_code, RPC_INVMODE);
    EXPECT_EQ(g.h->state, RPC_STATE_ALLOCATED);
    ASSERT_EQ(RPCInitialise(g.h, RPC_MODE_SERVER, 7), 0);
    int32_t code = -1;
    EXPECT_EQ(report(g.h, &code), "RPC-NOTRNAME, No transport anme located");
    EXPECT_EQ(code, RPC_NOTRNAME);
    EXPECT_EQ(g.h->server_descriptor, 7);
    EXPECT_EQ(g.h->transport_count, 2);
    EXPECT_EQ(RPCInitialise(g.h, RPC_MODE_SERVER, 0), 1);
    EXPECT_EQ(g.h->error_code, RPC_BADSTATE);
}

TEST(HandleLifecycle, TerminateAndFreeRespectTheirStates) {
    HRPC h = RPCAllocHandle();
    ASSERT_EQ(RPCInitialise(h, RPC_MODE_CLIENT, 0), 0);
    EXPECT_EQ(RPCFreeHandle(h), 1);
    EXPECT_EQ(h->error_code, RPC_BADSTATE);

    h->state = RPC_STATE_CONNECTED;  // reachable only over a connection
    h->error_code = 0;
    EXPECT_EQ(RPCTerminate(h), 1);
    EXPECT_EQ(h->error_code, RPC_BADSTATE);
    EXPECT_EQ(h->state, RPC_STATE_CONNECTED);

    h->state = RPC_STATE_INITIALISED;
    EXPECT_EQ(RPCTerminate(h), 0);
    EXPECT_EQ(h->state, RPC_STATE_ALLOCATED);
    // A terminated handle can be initialised again.
    ASSERT_EQ(RPCInitialise(h, RPC_MODE_SERVER, 0), 0);
    ASSERT_EQ(RPCTerminate(h), 0);
    EXPECT_EQ(RPCFreeHandle(h), 0);
}

TEST(HandleLifecycle, DriverTableLivesUntilTheLastHandleTerminates) {
    HandleGuard a, b;
    ASSERT_EQ(RPCInitialise(a.h, RPC_MODE_CLIENT, 0), 0);
    ASSERT_EQ(RPCInitialise(b.h, RPC_MODE_CLIENT, 0), 0);
    EXPECT_EQ(net_load_count(), 2);
    ASSERT_EQ(RPCTerminate(a.h), 0);
    const char *name = nullptr, *description = nullptr;
    EXPECT_EQ(NETTransportName(1, &name, &description), 0u) << "still loaded for b";
    ASSERT_EQ(RPCTerminate(b.h), 0);
    EXPECT_EQ(net_load_count(), 0);
    EXPECT_EQ(NETTransportName(0, &name, &description), 1u) << "unloaded with the last";
}

TEST(HandleLifecycle, EnumerateTransports) {
    HandleGuard g;
    // "result:error code:name/description" for one index.
    const auto listed = [&](int32_t index) {
        const char *name = "-", *description = "-";
        const int32_t result = RPCEnumerateTransports(g.h, index, &name, &description);
        return std::to_string(result) + ":" + std::to_string(g.h->error_code) + ":" + name + "/" +
               description;
    };
    EXPECT_EQ(listed(0), "0:2:-/-") << "success with the error set, before initialisation";
    ASSERT_EQ(RPCInitialise(g.h, RPC_MODE_CLIENT, 0), 0);
    EXPECT_EQ(listed(0), "0:0:*TTY Driver/SYSV TTY interface");
    EXPECT_EQ(listed(1), "0:0:*BSD Driver/BSD Sockets Interface");
    EXPECT_EQ(listed(2), "1:5:-/-");
    EXPECT_EQ(listed(-1), "1:5:-/-");
}

TEST(HandleLifecycle, CallbacksAndPrivatePointer) {
    static int terminated = 0;
    static void *seen = nullptr;
    EXPECT_EQ(RPCIsConnected(nullptr), 0);
    EXPECT_EQ(RPCLastRPC(nullptr, nullptr), -1);
    EXPECT_EQ(RPCRegisterTerminateFn(nullptr, nullptr, nullptr), 1);
    EXPECT_EQ(RPCRegisterPrivatePtr(nullptr, nullptr, 0), 1);
    EXPECT_EQ(RPCGetPrivatePtr(nullptr), nullptr);
    HRPC h = RPCAllocHandle();
    const char *name = "untouched";
    EXPECT_EQ(RPCLastRPC(h, &name), -1);
    EXPECT_STREQ(name, "untouched");
    int marker = 0;
    ASSERT_EQ(RPCRegisterTerminateFn(
                  h, [](void *arg) { ++terminated, seen = arg; }, &marker),
              0);
    // Freed by RPCFreeHandle because of the flag; the sanitizer build sees a leak otherwise.
    ASSERT_EQ(RPCRegisterPrivatePtr(h, std::malloc(32), RPC_PRIVATE_FREE), 0);
    EXPECT_NE(RPCGetPrivatePtr(h), nullptr);
    ASSERT_EQ(RPCInitialise(h, RPC_MODE_CLIENT, 0), 0);
    ASSERT_EQ(RPCTerminate(h), 0);
    EXPECT_EQ(terminated, 1);
    EXPECT_EQ(seen, &marker);
    EXPECT_EQ(RPCFreeHandle(h), 0);
}

}  // namespace
