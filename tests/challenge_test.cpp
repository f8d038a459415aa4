// The challenge handshake: the transform, two ends of the library, and raw
// peers that answer wrongly, short or not at all.
#include <gtest/gtest.h>
#include <sys/times.h>

#include <cstring>

#include "core/session.h"
#include "helpers/raw_peer.h"
#include "helpers/session_peer.h"

namespace {

using namespace zrpc;
using namespace zrpc::test;

Bytes xored(Bytes b) {
    challenge_answer(b.data());
    return b;
}

TEST(Challenge, AnswerXorsEachByteAndUndoesItself) {
    uint8_t bytes[4] = {0x00, 0x01, 0x02, 0x03};
    challenge_answer(bytes);
    EXPECT_EQ(Bytes(bytes, bytes + 4), (Bytes{0x6D, 0x6C, 0x6F, 0x6E}));
    challenge_answer(bytes);
    EXPECT_EQ(Bytes(bytes, bytes + 4), (Bytes{0x00, 0x01, 0x02, 0x03}));

    // The low 32 bits of the tick count, taken between two readings.
    tms unused;
    const auto before = static_cast<uint32_t>(times(&unused));
    uint8_t made[4];
    make_challenge(made);
    const auto after = static_cast<uint32_t>(times(&unused));
    uint32_t value;
    std::memcpy(&value, made, 4);
    EXPECT_GE(value, before);
    EXPECT_LE(value, after);
}

TEST(Challenge, TwoEndsOfTheLibraryAgree) {
    TestHandle server(RPC_MODE_SERVER), client(RPC_MODE_CLIENT);
    const uint16_t port = free_port();
    use_tcp_server(server, port);
    use_tcp_client(client, port);
    Background connecting = connect_server_async(server, port);
    ASSERT_EQ(RPCConnect(client, 3, 1, "abc"), 0);
    ASSERT_EQ(connecting.result(), 0);
    EXPECT_FALSE(has_flag(client, kChallenge));  // neither end asks for it

    Background serving([&] { return issue_challenge(server); });
    EXPECT_EQ(issue_challenge(client), 0);
    EXPECT_EQ(serving.result(), 0);
    EXPECT_EQ(RPCDisconnect(server), 0);
}

TEST(Challenge, ServerChecksTheClientsAnswer) {
    struct Case {
        const char *what;
        int answer;  // 0 right, 1 echoed unchanged, 2 three bytes, 3 hang up
        int32_t code;
    };
    const Case cases[] = {
        {"right", 0, 0},
        {"echoed", 1, RPC_BAD_CHALLENGE},
        {"short", 2, RPC_BAD_CHALLENGELEN},
        {"hung up", 3, RPC_ETRANSPORT},
    };
    for (const Case &c : cases) {
        SCOPED_TRACE(c.what);
        RawClient peer;
        Background connecting = peer.start();
        ASSERT_FALSE(raw_client_handshake(peer.fd).empty());
        ASSERT_EQ(connecting.result(), 0);

        Background challenging([&] { return issue_challenge(peer.server); },
                               [&] { peer.hang_up(); });
        auto challenge = recv_packet(peer.fd);
        ASSERT_TRUE(challenge);
        ASSERT_EQ(challenge->size(), 4u);
        if (c.answer == 0) send_packet(peer.fd, xored(*challenge));
        if (c.answer == 1) send_packet(peer.fd, *challenge);
        if (c.answer == 2) send_packet(peer.fd, Bytes(challenge->begin(), challenge->begin() + 3));
        if (c.answer == 3) peer.hang_up();
        if (c.answer == 0) {  // now the server answers ours
            const Bytes mine{0x00, 0x01, 0x02, 0x03};
            send_packet(peer.fd, mine);
            EXPECT_EQ(recv_packet(peer.fd), xored(mine));
        }
        EXPECT_EQ(challenging.result(), c.code != 0 ? 1 : 0);
        if (c.code != 0) {
            EXPECT_EQ(peer.server->error_code, c.code);
        }
    }
}

TEST(Challenge, ClientChecksTheServersChallengeAndAnswer) {
    struct Case {
        const char *what;
        Bytes challenge;  // what the server sends first
        int answer;       // -1 none, 0 right, 1 unchanged, 2 two bytes
        int32_t code;
    };
    const Bytes four{0x10, 0x20, 0x30, 0x40};
    const Case cases[] = {
        {"right", four, 0, 0},
        {"short challenge", {0x10, 0x20, 0x30}, -1, RPC_BAD_CHALLENGELEN},
        {"unchanged answer", four, 1, RPC_BAD_CHALLENGE},
        {"short answer", four, 2, RPC_BAD_CHALLENGELEN},
        {"no answer", four, -1, RPC_ETRANSPORT},
    };
    for (const Case &c : cases) {
        SCOPED_TRACE(c.what);
        RawServer peer;
        Background connecting = peer.start();
        ASSERT_FALSE(raw_server_handshake(peer.fd).empty());
        ASSERT_EQ(connecting.result(), 0);

        Background challenging([&] { return issue_challenge(peer.client); },
                               [&] { peer.hang_up(); });
        send_packet(peer.fd, c.challenge);
        if (c.challenge.size() == 4) {
            EXPECT_EQ(recv_packet(peer.fd), xored(four));
            auto theirs = recv_packet(peer.fd);
            ASSERT_TRUE(theirs);
            if (c.answer == 0) send_packet(peer.fd, xored(*theirs));
            if (c.answer == 1) send_packet(peer.fd, *theirs);
            if (c.answer == 2) send_packet(peer.fd, Bytes{0x01, 0x02});
        }
        if (c.answer == -1) peer.hang_up();
        EXPECT_EQ(challenging.result(), c.code != 0 ? 1 : 0);
        if (c.code != 0) {
            EXPECT_EQ(peer.client->error_code, c.code);
        }
    }
}

TEST(Challenge, ConnectRunsItOnlyWhenAgreed) {
    // A peer asking for it is noted, but this end does not ask: no packets.
    {
        RawServer peer;
        Background connecting = peer.start();
        raw_server_handshake(peer.fd, "3:1:abc", "04:8^10:8^08:1^");
        ASSERT_EQ(connecting.result(), 0);
        EXPECT_TRUE(has_flag(peer.client, kPeerChallenge));
        EXPECT_FALSE(has_flag(peer.client, kChallenge));
    }
    // With the bit in force a failed handshake fails the connect.
    RawServer peer;
    peer.client->flags |= kChallenge;
    Background connecting = peer.start();
    raw_server_handshake(peer.fd);
    const Bytes four{1, 2, 3, 4};
    send_packet(peer.fd, four);
    EXPECT_EQ(recv_packet(peer.fd), xored(four));
    auto theirs = recv_packet(peer.fd);
    ASSERT_TRUE(theirs);
    send_packet(peer.fd, *theirs);  // not transformed
    peer.hang_up();
    EXPECT_EQ(connecting.result(), 1);
    EXPECT_EQ(peer.client->error_code, RPC_BAD_CHALLENGE);
    EXPECT_EQ(peer.client->state, RPC_STATE_OPTIONS_SET);
}

}  // namespace
