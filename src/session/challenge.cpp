// The challenge handshake: each side sends 4 bytes and expects them back
// XORed with 0x6D. A protocol check, not a secret.
//
// Packets, in order: server challenge, client answer, client challenge,
// server answer; each exactly 4 bytes without terminator.
#include <sys/times.h>

#include <cstring>

#include "base/handle.h"
#include "session/session.h"

namespace zrpc {
namespace {

constexpr uint32_t kChallengeSize = 4;

using Challenge = uint8_t[kChallengeSize];

bool send4(HRPC h, const Challenge bytes) { return NETSend(h->conn, bytes, kChallengeSize) == 0; }

bool receive4(HRPC h, Challenge bytes, uint32_t *length) {
    return NETReceive(h->conn, bytes, kChallengeSize, length) == 0;
}

void challenge_server(HRPC h) {
    Challenge mine{};
    make_challenge(mine);
    if (!send4(h, mine)) fail(RPC_ETRANSPORT);

    Challenge answer{};
    uint32_t length = 0;
    if (!receive4(h, answer, &length)) fail(RPC_ETRANSPORT);
    if (length != kChallengeSize) fail(RPC_BAD_CHALLENGELEN);
    challenge_answer(answer);
    if (std::memcmp(answer, mine, kChallengeSize) != 0) fail(RPC_BAD_CHALLENGE);

    // The client's challenge is answered without a length check.
    Challenge theirs{};
    if (!receive4(h, theirs, &length)) fail(RPC_ETRANSPORT);
    challenge_answer(theirs);
    if (!send4(h, theirs)) fail(RPC_ETRANSPORT);
}

void challenge_client(HRPC h) {
    Challenge theirs{};
    uint32_t length = 0;
    if (!receive4(h, theirs, &length)) fail(RPC_ETRANSPORT);
    if (length != kChallengeSize) fail(RPC_BAD_CHALLENGELEN);
    challenge_answer(theirs);
    if (!send4(h, theirs)) fail(RPC_ETRANSPORT);

    Challenge mine{};
    make_challenge(mine);
    if (!send4(h, mine)) fail(RPC_ETRANSPORT);
    Challenge answer{};
    if (!receive4(h, answer, &length)) fail(RPC_ETRANSPORT);
    if (length != kChallengeSize) fail(RPC_BAD_CHALLENGELEN);
    challenge_answer(mine);
    if (std::memcmp(answer, mine, kChallengeSize) != 0) fail(RPC_BAD_CHALLENGE);

}

}  // namespace

void make_challenge(uint8_t challenge[4]) {
    tms unused;
    const clock_t ticks = times(&unused);
    // The first bytes in memory of the tick count: its low 32 bits here.
    std::memcpy(challenge, &ticks, kChallengeSize);
}

void challenge_answer(uint8_t challenge[4]) {
    for (uint32_t i = 0; i < kChallengeSize; ++i) challenge[i] ^= kChallengeXor;
}

void issue_challenge(HRPC h) {
    if (h->mode == RPC_MODE_SERVER)
        challenge_server(h);
    else
        challenge_client(h);
}

}  // namespace zrpc
