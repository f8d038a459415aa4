// Export of descriptors and the function-table exchange, over an in-memory link.
#include <gtest/gtest.h>

#include <cstring>
#include <string>
#include <vector>

#include "core/functable.h"
#include "helpers/capture_link.h"
#include "helpers/session_peer.h"

namespace {

using namespace zrpc;
using namespace zrpc::test;

std::vector<uint8_t> frame(const std::string &text) { return {text.begin(), text.end()}; }

std::vector<std::string> names(HRPC h) {
    std::vector<std::string> out;
    for (RPCFuncDesc *d = h->desc_list; d; d = d->next) out.emplace_back(d->name);
    return out;
}

// "B<ordinal>!<name>!" plus `count` parameters named p0, p1, ...
std::string record_with(int count) {
    std::string r = "B0!f!";
    for (int i = 0; i < count; ++i) r += "1026!0!p" + std::to_string(i) + "!";
    return r + '\0';
}

TEST(Export, CopiesInReverseOrderAndSizesTheOrdinalTable) {
    TestHandle h(RPC_MODE_SERVER);
    std::vector<RPCFuncDesc> table(sample_table(), sample_table() + 4);
    table[0].ordinal = 77;
    table[0].user_word = 0xABCD;
    ASSERT_EQ(RPCExport(h, table.data()), 0);
    EXPECT_EQ(names(h), (std::vector<std::string>{"gamma", "beta", "alpha"}));
    EXPECT_EQ(h->ordinal_count, 3);
    ASSERT_NE(h->ordinal_table, nullptr);
    const RPCFuncDesc *alpha = h->desc_list->next->next;
    EXPECT_EQ(alpha->ordinal, 0);  // numbered by the exchange, not copied
    EXPECT_EQ(alpha->user_word, 0xABCDu);
    EXPECT_EQ(std::memcmp(alpha->params, table[0].params, sizeof alpha->params), 0);
    EXPECT_NE(alpha->name, table[0].name);  // the name is the library's copy

    // A second export replaces the first and forgets the last served call.
    h->last_called = h->desc_list;
    const RPCFuncDesc empty[] = {RPCFuncDesc{}};
    ASSERT_EQ(RPCExport(h, empty), 0);
    EXPECT_EQ(h->desc_list, nullptr);
    EXPECT_EQ(h->last_called, nullptr);
    EXPECT_NE(h->ordinal_table, nullptr);
    EXPECT_EQ(h->ordinal_count, 0);
}

TEST(Export, FuncExistsIsExactAndNeedsATable) {
    TestHandle h(RPC_MODE_SERVER);
    EXPECT_EQ(RPCFuncExists(h, "alpha"), 0);
    ASSERT_EQ(RPCExport(h, sample_table()), 0);
    EXPECT_EQ(RPCFuncExists(h, "alpha"), 1);
    EXPECT_EQ(RPCFuncExists(h, "Alpha"), 0);
    EXPECT_EQ(RPCFuncExists(h, "alph"), 0);
    EXPECT_EQ(RPCFuncExists(nullptr, "alpha"), 0);
}

TEST(TableExchange, ServerRefusesRecordsOverTheLimits) {
    struct Case {
        std::string name;
        int params;            // each named with 100 characters
        std::size_t last_len;  // name length of one more parameter
        int32_t code;
    };
    const Case cases[] = {
        {std::string(124, 'f'), 0, 0, 0},            // function part of 127 characters
        {std::string(125, 'f'), 0, 0, RPC_NOMEM},    // 128: no room for its zero
        {"f", 9, 38, 0},                             // 1023 characters, 1024 with the zero
        {"f", 9, 39, RPC_NOMEM},
    };
    for (const Case &c : cases) {
        SCOPED_TRACE(c.name.size() + c.last_len);
        TestHandle h(RPC_MODE_SERVER);
        const std::string long_name(100, 'p'), last_name(c.last_len, 'q');
        RPCFuncDesc table[2] = {};
        table[0].name = const_cast<char *>(c.name.c_str());
        for (int i = 0; i <= c.params && c.params > 0; ++i) {
            table[0].params[i].flags = RPC_INT32 | RPC_IN;
            const std::string &name = i < c.params ? long_name : last_name;
            table[0].params[i].name = const_cast<char *>(name.c_str());
        }
        ASSERT_EQ(RPCExport(h, table), 0);
        CaptureLink server, client;
        server.attach(h);
        server.pair_with(client);
        EXPECT_EQ(ExportFunc(h), c.code != 0 ? 1 : 0);
        if (c.code != 0) {
            EXPECT_EQ(h->error_code, c.code);
            continue;
        }
        // What the sender allows, the receiver's buffer holds.
        TestHandle cl(RPC_MODE_CLIENT);
        client.attach(cl);
        EXPECT_EQ(ImportFunc(cl), 0);
        EXPECT_EQ(RPCFuncExists(cl, c.name.c_str()), 1);
    }
}

TEST(TableExchange, ClientRebuildsDescriptorsAndIndex) {
    TestHandle server(RPC_MODE_SERVER), client(RPC_MODE_CLIENT);
    ASSERT_EQ(RPCExport(server, sample_table()), 0);
    CaptureLink out, in;
    out.attach(server);
    out.pair_with(in);
    in.attach(client);
    ASSERT_EQ(ExportFunc(server), 0);
    in.incoming.insert(in.incoming.end() - 1, frame(record_with(19)));  // a full list fits
    ASSERT_EQ(ImportFunc(client), 0);

    // Flags and lengths are checked end to end by the connect suite.
    EXPECT_EQ(names(client), (std::vector<std::string>{"f", "alpha", "beta", "gamma"}));
    const RPCFuncDesc *alpha = client->desc_list->next;
    EXPECT_EQ(alpha->entry, nullptr);
    EXPECT_STREQ(alpha->params[0].name, "count");
    EXPECT_STREQ(alpha->params[1].name, "n");
    EXPECT_EQ(client->desc_list->params[18].flags, RPC_INT32 | RPC_IN);
    EXPECT_EQ(client->desc_list->params[19].flags, 0u);
    for (const char *name : {"alpha", "beta", "gamma", "f"}) {
        hash_item *item = find_hash_item(name, client->name_index);
        ASSERT_NE(item, nullptr) << name;
        EXPECT_STREQ(static_cast<RPCFuncDesc *>(item->data)->name, name);
    }
    drop_name_index(client);
    EXPECT_EQ(client->name_index, nullptr);
}

TEST(TableExchange, ClientRefusesBadTables) {
    struct Case {
        const char *what;
        std::vector<std::string> frames;
        int32_t code;
        std::size_t kept;  // descriptors left in the list
    };
    const std::string ok = std::string("B0!f!\0", 6);
    const Case cases[] = {
        {"no start", {ok}, RPC_ETRANSPORT, 0},
        {"long start", {"AA"}, RPC_ETRANSPORT, 0},
        {"nothing", {}, RPC_ETRANSPORT, 0},
        {"no end", {"A", ok}, RPC_ETRANSPORT, 1},
        {"not a record", {"A", std::string("X0!f!\0", 6)}, RPC_FUNCFAIL, 0},
        {"long end", {"A", "CC"}, RPC_FUNCFAIL, 0},
        {"bare mark", {"A", std::string("B\0", 2)}, RPC_FUNCFAIL, 0},
        {"no name", {"A", std::string("B0!\0", 4)}, RPC_FUNCFAIL, 0},
        {"no final mark", {"A", std::string("B0!f!1026!0!count\0", 18)}, RPC_FUNCFAIL, 1},
        {"no length", {"A", std::string("B0!f!1026!\0", 11)}, RPC_FUNCFAIL, 1},
        {"zero flags", {"A", std::string("B0!f!0!0!x!\0", 12)}, RPC_FUNCFAIL, 1},
        {"20 parameters", {"A", record_with(20)}, RPC_FUNCFAIL, 1},
        {"duplicate", {"A", ok, std::string("B1!f!\0", 6), "C"}, RPC_DUPEXPFN, 2},
        {"oversized", {"A", "B0!f!" + std::string(1100, 'x') + "!"}, RPC_FUNCFAIL, 0},
        // Stale bytes of the previous record behind the received length
        // would complete the name; the scan stops at the length.
        {"stale tail", {"A", std::string("B0!f!1026!0!abc!\0zz!", 20), "B1!g!1026!0!abcde"},
         RPC_FUNCFAIL, 2},
    };
    for (const Case &c : cases) {
        SCOPED_TRACE(c.what);
        TestHandle h(RPC_MODE_CLIENT);
        CaptureLink link;
        link.attach(h);
        for (const std::string &f : c.frames) link.incoming.push_back(frame(f));
        EXPECT_EQ(ImportFunc(h), 1);
        EXPECT_EQ(h->error_code, c.code);
        EXPECT_EQ(names(h).size(), c.kept);
    }
}

}  // namespace
