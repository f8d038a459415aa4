// Negotiation against a raw peer: exact bytes, bad input, negotiated flags
// and the error log of a missing parameter.
#include <gtest/gtest.h>
#include <unistd.h>

#include <cstring>
#include <string>
#include <vector>

#include "core/session.h"
#include "helpers/log_file.h"
#include "helpers/raw_peer.h"
#include "helpers/session_peer.h"

namespace {

using namespace zrpc;
using namespace zrpc::test;

std::string z(std::string_view text) { return std::string(text) + '\0'; }

void expect_back_in_state2(HRPC h) {
    EXPECT_EQ(h->state, RPC_STATE_OPTIONS_SET);
    EXPECT_EQ(RPCIsConnected(h), 0);
    EXPECT_EQ(h->conn, nullptr);
    EXPECT_EQ(h->context, nullptr);
}

// `count` dumped bytes of 0 in the error log's format.
std::string zeros(int count) {
    std::string out;
    for (int i = 0; i < count; ++i) out += "0x0 ";
    return out;
}

TEST(Negotiate, ServerSendsMagicVersionParametersAndTable) {
    RawClient peer;
    ASSERT_EQ(RPCExport(peer.server, sample_table()), 0);
    Background pending = peer.start();
    std::vector<std::string> got = raw_client_handshake(peer.fd);
    ASSERT_EQ(pending.result(), 0) << report(peer.server).text;
    // Ordinals in list order (the reverse of the array); an empty name and
    // a null one both travel as "n"; the RPC_HANDLE parameter stays out.
    EXPECT_EQ(got, (std::vector<std::string>{z("87FA9694"), z("3:1:abc"), z(own_parameters()), "A",
                                             z("B0!gamma!3073!0!n!132096!80!lens!"), z("B1!beta!"),
                                             z("B2!alpha!1026!0!count!2052!64!n!"), "C"}));
    EXPECT_EQ(RPCIsConnected(peer.server), 1);
    for (int i = 0; i < 3; ++i) EXPECT_EQ(peer.server->ordinal_table[i]->ordinal, i);
    EXPECT_STREQ(peer.server->ordinal_table[2]->name, "alpha");
}

TEST(Negotiate, ClientAnswersWithItsParametersAndImports) {
    RawServer peer;
    Background pending = peer.start();
    std::string theirs =
        raw_server_handshake(peer.fd, "3:1:abc", "04:8^10:8^", {z("B7!remote!1026!0!n!")});
    ASSERT_EQ(pending.result(), 0) << report(peer.client).text;
    EXPECT_EQ(theirs, z(own_parameters()));
    EXPECT_EQ(RPCIsConnected(peer.client), 1);
    ASSERT_NE(peer.client->desc_list, nullptr);
    EXPECT_EQ(peer.client->desc_list->ordinal, 7);
    EXPECT_STREQ(peer.client->desc_list->params[0].name, "n");
}

TEST(Negotiate, ClientRefusesBadServerInput) {
    const std::string magic = z("87FA9694"), version = z("3:1:abc"), params = z("04:8^10:8^");
    std::string twenty = "B0!f!";
    for (int i = 0; i < 20; ++i) twenty += "1026!0!n!";
    struct Case {
        const char *what;
        std::vector<std::string> packets;  // sent as they are, then the line is closed
        int32_t code;
        bool answers;  // the client got far enough to send its parameters
    };
    const Case cases[] = {
        {"wrong magic", {z("87FA9695")}, RPC_BADMGK, false},
        {"magic without zero", {"87FA9694"}, RPC_BADMGK, false},
        {"magic with a ninth character", {"87FA9694X"}, RPC_BADMGK, false},
        {"version of 256 bytes", {magic, z(std::string(255, '3'))}, RPC_VERSION_TOO_BIG, false},
        {"parameters of 256 bytes", {magic, version, z(std::string(255, '0'))}, RPC_PARAMS_TOO_BIG,
         false},
        {"item without value", {magic, version, z("01:x")}, RPC_INVPARAM, false},
        {"no item at all", {magic, version, z("abc")}, RPC_BADNEG, false},
        {"other first version", {magic, z("4:1:abc"), params}, RPC_BADVER, true},
        {"other second version", {magic, z("3:2:abc"), params}, RPC_BADVER, true},
        {"version without colon", {magic, z("3"), params}, RPC_BADVER, true},
        {"other uid", {magic, z("3:1:abd"), params}, RPC_BADUID, true},
        {"20 parameters", {magic, version, params, "A", z(twenty), "C"}, RPC_FUNCFAIL, true},
        {"empty record", {magic, version, params, "A", ""}, RPC_FUNCFAIL, true},
        {"duplicate", {magic, version, params, "A", z("B0!f!"), z("B1!f!"), "C"}, RPC_DUPEXPFN, true},
        {"closed before magic", {}, RPC_ETRANSPORT, false},
        {"closed before version", {magic}, RPC_ETRANSPORT, false},
        {"closed before parameters", {magic, version}, RPC_ETRANSPORT, false},
        {"closed before table", {magic, version, params}, RPC_ETRANSPORT, true},
        {"closed inside table", {magic, version, params, "A", z("B0!f!")}, RPC_ETRANSPORT, true},
    };
    for (const Case &c : cases) {
        SCOPED_TRACE(c.what);
        RawServer peer;
        Background pending = peer.start();
        peer.send_all(c.packets);
        if (c.answers) {
            EXPECT_TRUE(recv_packet(peer.fd));
        }
        peer.hang_up();
        EXPECT_EQ(pending.result(), 1);
        EXPECT_EQ(peer.client->error_code, c.code);
        if (c.code == RPC_ETRANSPORT) {  // the driver's text is kept past the disconnect
            EXPECT_EQ(report(peer.client).text, "Connection closed by peer");
        }
        expect_back_in_state2(peer.client);
    }
}

TEST(Negotiate, ServerRefusesBadClientInput) {
    struct Case {
        const char *what;
        const char *params;  // null: close instead of answering
        int32_t code;
    };
    const Case cases[] = {
        {"no item", "abc", RPC_BADNEG},
        {"item without value", "01:x", RPC_INVPARAM},
        {"closed before parameters", nullptr, RPC_ETRANSPORT},
    };
    for (const Case &c : cases) {
        SCOPED_TRACE(c.what);
        RawClient peer;
        Background pending = peer.start();
        for (int i = 0; i < 3; ++i) ASSERT_TRUE(recv_packet(peer.fd));
        if (c.params) {
            ASSERT_TRUE(send_packet(peer.fd, c.params, true));
        }
        peer.hang_up();
        EXPECT_EQ(pending.result(), 1);
        EXPECT_EQ(peer.server->error_code, c.code);
        expect_back_in_state2(peer.server);
    }
}

TEST(Negotiate, PeerParametersSetFlagsAndSizes) {
    struct Case {
        const char *params;
        int32_t mode;
        uint64_t flags;
        int32_t ptr_size, sqllen_size;
        uint32_t frame_limit;
    };
    const uint64_t ptr4 = kPeerPtrIndex | kPeerPtrNot8, sql4 = kPeerSqlLenNot8 | kPeerSqlLen4;
    const Case cases[] = {
        {"04:8^10:8^", RPC_MODE_CLIENT, 0, 8, 8, 4096},
        {"04:4^10:8^", RPC_MODE_SERVER, ptr4, 4, 8, 4096},
        {"04:16^10:8^", RPC_MODE_CLIENT, kPeerPtrNot8, 16, 8, 4096},
        {"04:-1^10:8^", RPC_MODE_CLIENT, kPeerPtrNot8, -1, 8, 4096},  // unsigned: not below 8
        {"04:8^10:4^", RPC_MODE_CLIENT, sql4, 8, 4, 4096},
        {"04:8^10:16^", RPC_MODE_CLIENT, kPeerSqlLenNot8, 8, 16, 4096},
        {"04:8^04:4^10:8^", RPC_MODE_CLIENT, ptr4, 8, 8, 4096},  // first in the buffer is read last
        {"05:ca^04:8^10:8^", RPC_MODE_CLIENT, kTraceCalls | kTraceValues, 8, 8, 4096},
        {"05:y^04:8^10:8^", RPC_MODE_CLIENT, kTraceCalls | kTraceValues, 8, 8, 4096},
        {"05:c^04:8^10:8^", RPC_MODE_CLIENT, kTraceCalls, 8, 8, 4096},
        {"05:a^04:8^10:8^", RPC_MODE_CLIENT, kTraceValues, 8, 8, 4096},
        {"06:\x11\x99^04:8^10:8^", RPC_MODE_CLIENT, kByteSwap, 8, 8, 4096},
        {"06:\x11^04:8^10:8^", RPC_MODE_CLIENT, 0, 8, 8, 4096},
        {"06:\x99\x11^04:8^10:8^", RPC_MODE_CLIENT, 0, 8, 8, 4096},
        {"07:1^04:8^10:8^", RPC_MODE_CLIENT, kPeerCompresses | kCompress, 8, 8, 4096},
        {"07:0^04:8^10:8^", RPC_MODE_CLIENT, 0, 8, 8, 4096},
        {"08:1^04:8^10:8^", RPC_MODE_CLIENT, kPeerChallenge, 8, 8, 4096},  // we never ask for it
        {"01:OpenVMS^04:8^10:8^", RPC_MODE_SERVER, 0, 8, 8, 1024},
        {"01:OpenVMS^04:8^10:8^", RPC_MODE_CLIENT, 0, 8, 8, 4096},
    };
    for (const Case &c : cases) {
        SCOPED_TRACE(c.params);
        TestHandle h(c.mode);
        char area[kNegotiationArea] = {};
        std::strcpy(area, c.params);
        ASSERT_EQ(UnpackParameters(h, area, static_cast<int32_t>(std::strlen(c.params))), 0);
        ASSERT_EQ(apply_peer_parameters(h, area, area), 0);
        EXPECT_EQ(h->flags, c.flags);
        EXPECT_EQ(h->peer_ptr_size, c.ptr_size);
        EXPECT_EQ(h->peer_sqllen_size, c.sqllen_size);
        EXPECT_EQ(h->frame_limit, c.frame_limit);
        // A server facing narrower pointers gives null the first index.
        EXPECT_EQ(h->ptr_count, c.mode == RPC_MODE_SERVER && c.ptr_size == 4 ? 1 : 0);
    }
}

TEST(Negotiate, TokenizerStopsAtTheReceivedLength) {
    TestHandle h(RPC_MODE_CLIENT), fresh(RPC_MODE_CLIENT);
    char empty[] = "";
    EXPECT_EQ(UnpackParameters(fresh, empty, 0), 1);
    EXPECT_EQ(fresh->error_code, RPC_BADNEG);
    EXPECT_EQ(UnpackParameters(fresh, nullptr, 4), 1);
    EXPECT_EQ(fresh->error_code, RPC_INTERR);
    char area[] = "04:8^10:8^";
    EXPECT_EQ(UnpackParameters(h, area, 9), 1);  // the closing caret lies past the length
    EXPECT_EQ(h->error_code, RPC_INVPARAM);
    EXPECT_EQ(h->peer_params->number, 4);  // records made before the fault stay

    char text[] = "a!!b";
    char *cursor = text;
    EXPECT_STREQ(rpcstrtok(&cursor, '!', text + 3), "a");
    EXPECT_STREQ(rpcstrtok(&cursor, '!', text + 3), "");
    EXPECT_EQ(rpcstrtok(&cursor, '!', text + 3), nullptr);  // "b" has no delimiter
    EXPECT_EQ(cursor, nullptr);
}

TEST(Negotiate, ReconnectPutsNewRecordsFirstAndKeepsFlags) {
    RawServer peer;
    for (const char *params : {"04:8^10:8^", "04:8^10:4^"}) {
        SCOPED_TRACE(params);
        Background pending = peer.start();
        raw_server_handshake(peer.fd, "3:1:abc", params);
        ASSERT_EQ(pending.result(), 0) << report(peer.client).text;
        peer.hang_up();
        ASSERT_EQ(RPCDisconnect(peer.client), 0);
    }
    // The older record is read last, so its size wins; the bits stay set.
    EXPECT_EQ(peer.client->peer_sqllen_size, 8);
    const uint64_t sql4 = kPeerSqlLenNot8 | kPeerSqlLen4;
    EXPECT_EQ(peer.client->flags & sql4, sql4);
    EXPECT_EQ(peer.client->peer_params->number, 10);
    EXPECT_STREQ(peer.client->peer_params->value, "4");
}

TEST(NegotiateErrorLog, ClientMissingSqlLenSize) {
    reset_logs();
    RawServer peer;
    Background pending = peer.start();
    peer.send_all({z("87FA9694"), z("3:1:abc"), z("04:8^")});
    recv_packet(peer.fd);
    peer.send_all({"A", "C"});
    peer.hang_up();
    EXPECT_EQ(pending.result(), 1);
    EXPECT_EQ(report(peer.client).text, "RPC-MISSPARAM, Missing Parameter");
    expect_back_in_state2(peer.client);
    // Both areas as the tokenizer left them: delimiters became zeros.
    EXPECT_EQ(read_error_log(),
              "Parameter Number: 4\nParameter Value: 8\n\t0x38,\nparam buffer:\n0 4 0x0 8 0x0 0x0 " +
                  zeros(250) + "\nversion buffer:\n3 0x0 1 0x0 a b c 0x0 " + zeros(248) + "\n");
}

TEST(NegotiateErrorLog, ServerMissingPointerSizeStopsAtParameterEnd) {
    reset_logs();
    RawClient peer;
    Background pending = peer.start();
    for (int i = 0; i < 3; ++i) ASSERT_TRUE(recv_packet(peer.fd));
    ASSERT_TRUE(send_packet(peer.fd, std::string_view("10:8^00:z^06:\x99\x11^", 17), true));
    EXPECT_EQ(pending.result(), 1);
    EXPECT_EQ(peer.server->error_code, RPC_MISSPARAM);
    // Newest first: 06 is listed, the item numbered 0 ends the walk early.
    EXPECT_EQ(read_error_log(),
              "Parameter Number: 6\nParameter Value: \x99\x11\n\t0x99,0x11,\n"
              "WARNING: PARAM_END found with next ptr\n"
              "param buffer:\n1 0 0x0 8 0x0 0 0 0x0 z 0x0 0 6 0x0 0xffffff99 0x11 0x0 0x0 " +
                  zeros(239) + "\nversion buffer:\n" + zeros(256) + "\n");

    reset_logs();
    TestHandle h(RPC_MODE_CLIENT);
    char area[kNegotiationArea] = "00:x^";
    char version[kNegotiationArea] = {};
    ASSERT_EQ(UnpackParameters(h, area, 6), 0);
    EXPECT_EQ(apply_peer_parameters(h, area, version), 1);
    EXPECT_EQ(read_error_log(), "param buffer:\n0 0 0x0 x 0x0 0x0 " + zeros(250) +
                                    "\nversion buffer:\n" + zeros(256) + "\n");
}

}  // namespace
