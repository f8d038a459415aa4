// Export of descriptors and the function-table exchange, over an in-memory link.
#include <gtest/gtest.h>

#include "session/functable.h"
#include "helpers/capture_link.h"
#include "helpers/session_peer.h"

namespace {

using namespace zrpc;
using namespace zrpc::test;

TEST(Export, ASecondExportReplacesTheFirst) {
    TestHandle h(RPC_MODE_SERVER);
    ASSERT_EQ(RPCExport(h, sample_table()), 0);
    h->last_called = h->desc_list;
    const RPCFuncDesc empty[1] = {};
    ASSERT_EQ(RPCExport(h, empty), 0);
    EXPECT_EQ(RPCFuncExists(h, "alpha"), 0);
    EXPECT_EQ(h->last_called, nullptr);  // the served call went with its table
}

TEST(TableExchange, RecordLimits) {
    // Parameters named with 100 characters, then one of `last` characters.
    const struct { std::size_t name, params, last; int32_t code; } cases[] = {
        {124, 0, 0, 0},          // function part of 127 characters
        {125, 0, 0, RPC_NOMEM},  // 128: no room for its zero
        {1, 9, 38, 0},           // 1023 characters, 1024 with the zero
        {1, 9, 39, RPC_NOMEM},
    };
    for (const auto &c : cases) {
        SCOPED_TRACE(c.name + c.params * 100 + c.last);
        const std::string name(c.name, 'f'), full(100, 'p'), last(c.last, 'q');
        RPCFuncDesc table[2] = {};
        table[0].name = const_cast<char *>(name.c_str());
        for (std::size_t i = 0; c.params > 0 && i <= c.params; ++i) {
            table[0].params[i].flags = RPC_INT32 | RPC_IN;
            table[0].params[i].name = const_cast<char *>((i < c.params ? full : last).c_str());
        }
        TestHandle server(RPC_MODE_SERVER), client(RPC_MODE_CLIENT);
        ASSERT_EQ(RPCExport(server, table), 0);
        CaptureLink out, in;
        out.attach(server);
        out.pair_with(in);
        in.attach(client);
        EXPECT_EQ(code_of(server, ExportFunc), c.code);
        if (c.code != 0) continue;
        EXPECT_EQ(code_of(client, ImportFunc), 0);  // what the sender allows, the receiver holds
        EXPECT_EQ(RPCFuncExists(client, name.c_str()), 1);
    }
}

TEST(TableExchange, ClientChecksEachRecord) {
    auto with_params = [](int count) {  // named p0, p1, ..., each as long as its number
        std::string r = "B0!f!";
        for (int i = 0; i < count; ++i)
            r += "1026!" + std::to_string(i) + "!p" + std::to_string(i) + "!";
        return z(r);
    };
    const struct { const char *what; std::vector<std::string> frames; int32_t code; } cases[] = {
        {"19 parameters", {"A", with_params(19), "C"}, 0},
        {"no name", {"A", z("B0!")}, RPC_FUNCFAIL},
        {"no final mark", {"A", z("B0!f!1026!0!count")}, RPC_FUNCFAIL},
        {"20 parameters", {"A", with_params(20)}, RPC_FUNCFAIL},
        {"past the buffer", {"A", z("B0!f!1026!0!" + std::string(1100, 'x') + "!")}, RPC_FUNCFAIL},
        // Stale bytes of the previous record behind the received length
        // would complete the name; the scan stops at the length.
        {"stale tail", {"A", std::string("B0!f!1026!0!abc!\0zz!", 20), "B1!g!1026!0!abcde"},
         RPC_FUNCFAIL},
    };
    for (const auto &c : cases) {
        SCOPED_TRACE(c.what);
        TestHandle h(RPC_MODE_CLIENT);
        CaptureLink link;
        link.attach(h);
        for (const auto &frame : c.frames) link.incoming.emplace_back(frame.begin(), frame.end());
        EXPECT_EQ(code_of(h, ImportFunc), c.code);
        if (c.code == 0) {  // all 19 stored, the 20th entry is the end mark
            EXPECT_STREQ(h->desc_list->params[18].name, "p18");
            EXPECT_EQ(h->desc_list->params[18].length, 18);
            EXPECT_EQ(h->desc_list->params[19].flags, 0u);
        }
    }
}

}  // namespace
