// The challenge handshake against raw peers that answer rightly, wrongly,
// short or not at all. This build never asks for it, so the tests force it
// on; two ends of the library run it in the connect suite.
#include <gtest/gtest.h>

#include "session/session.h"
#include "helpers/session_peer.h"

namespace {

using namespace zrpc;
using namespace zrpc::test;

Bytes xored(Bytes b) {
    challenge_answer(b.data());
    return b;
}

TEST(Challenge, RawPeerAnswers) {
    EXPECT_EQ(xored({0x00, 0x01, 0x02, 0x03}), (Bytes{0x6D, 0x6C, 0x6F, 0x6E}));
    enum Answer { kRight, kUnchanged, kShort, kNone };
    const int32_t codes[] = {0, RPC_BAD_CHALLENGE, RPC_BAD_CHALLENGELEN, RPC_ETRANSPORT};
    const Bytes mine{0x10, 0x20, 0x30, 0x40};
    for (int32_t mode : {RPC_MODE_SERVER, RPC_MODE_CLIENT}) {
        for (Answer answer : {kRight, kUnchanged, kShort, kNone}) {
            SCOPED_TRACE(testing::Message() << "mode " << mode << " answer " << answer);
            RawPeer peer(mode);
            peer.h->flags |= kChallenge;
            std::future<int32_t> connecting = peer.start();
            ASSERT_FALSE(peer.handshake().empty());
            auto challenge_back = [&] {  // the raw end's own challenge
                ASSERT_TRUE(send_packet(peer.fd, mine));
                EXPECT_EQ(recv_packet(peer.fd), xored(mine));
            };
            if (mode == RPC_MODE_CLIENT) challenge_back();  // the raw server challenges first
            const Bytes theirs = recv_packet(peer.fd).value_or(Bytes{});
            ASSERT_EQ(theirs.size(), 4u);
            const Bytes sent[] = {xored(theirs), theirs, Bytes(theirs.begin(), theirs.end() - 1)};
            if (answer != kNone) send_packet(peer.fd, sent[answer]);
            const bool right = answer == kRight;
            if (right && mode == RPC_MODE_SERVER) challenge_back();  // then the server answers ours
            if (!right) peer.hang_up();
            EXPECT_EQ(connecting.get(), right ? 0 : 1);
            EXPECT_EQ(peer.h->error_code, codes[answer]);
            EXPECT_EQ(peer.h->state, right ? RPC_STATE_CONNECTED : RPC_STATE_OPTIONS_SET);
        }
    }
}

}  // namespace
