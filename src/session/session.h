// Layer session: handle lifecycle, transport options, connect, negotiation
// (with its information table), challenge and the function-table exchange.
// Includes marshal/ and everything below it.
//
// Session establishment: transport options, negotiation, challenge.
#pragma once

#include <cstdint>

#include "base/handle.h"

namespace zrpc {

// --- transport options (connect.cpp)
// Lists the driver table's transports in the handle. Always leaves a code
// behind without failing: 28 after the last transport, 4 when there is none.
void GetTransportList(HRPC h);
void FreeTransport(HRPC h);
void FreeLowLTransport(HRPC h);
// Fills the 14-slot option vector handed to NETConnect for this handle's mode.
void build_option_vector(HRPC h, char *slots[NET_OPTION_SLOTS]);

// --- negotiation (negotiate.cpp)
constexpr const char *kMagic = "87FA9694";
constexpr std::size_t kNegotiationArea = 256;

// Each of these throws RpcError (fail()) when it fails.
void RpcNegotiate(HRPC h);
void UnpackParameters(HRPC h, char *buffer, int32_t length);
// Returns the next token ended by `delimiter` (overwritten with 0) or null;
// `last`, when given, is the last byte the scan may examine.
char *rpcstrtok(char **cursor, char delimiter, const char *last);
const char *GetEndianess(HRPC h);
const char *GetCompression(HRPC h);
const char *GetChallenge(HRPC h);
// Derives the negotiated flags and peer sizes from the peer parameter list.
void apply_peer_parameters(HRPC h, const char *param_area, const char *version_area);

// --- handle lifecycle (handle.cpp)
// Number of initialised handles holding the driver table (for tests).
int32_t net_load_count();

// --- challenge (challenge.cpp)
constexpr uint8_t kChallengeXor = 0x6D;
void issue_challenge(HRPC h);  // throws RpcError when it fails
void make_challenge(uint8_t challenge[4]);
void challenge_answer(uint8_t challenge[4]);

}  // namespace zrpc
