// The two decoders behind the frames: LZO decompression of a block's
// payload and the variant-array decoder, reached as a peer reaches them,
// through call messages to a server with compression in force. The first
// byte picks which: a compressed input block (the rest is its payload, with
// the announced length from the next two bytes), or the argument bytes of a
// variant-array call.
#include <algorithm>
#include <cstring>

#include "harness.h"

namespace {

void put32(fuzz::Bytes &b, uint32_t v) {
    for (int i = 0; i < 4; ++i) b.push_back(static_cast<uint8_t>(v >> (8 * i)));
}

// Splits a message into frames the way a sender does: the first starts with
// "D", none is longer than 4096 bytes.
std::vector<fuzz::Bytes> frames(const fuzz::Bytes &message) {
    std::vector<fuzz::Bytes> out;
    for (size_t at = 0; at < message.size(); at += 4096)
        out.emplace_back(message.begin() + at, message.begin() + std::min(message.size(), at + 4096));
    return out;
}

}  // namespace

extern "C" int LLVMFuzzerTestOneInput(const uint8_t *data, size_t size) {
    fuzz::Input in(data, size);
    const bool variants = in.byte() & 1;
    fuzz::Variation v;
    v.compression = true;
    std::vector<fuzz::Bytes> packets = {fuzz::packet_of(v.parameters())};
    // Ordinals run backwards from the table's last function; "mem" and
    // "vars" are the 7th and 14th of 14.
    const int count = fuzz::served_count();
    fuzz::Bytes message = {'D'};
    if (variants) {
        const auto ordinal = static_cast<uint16_t>(count - 14);
        message.push_back(static_cast<uint8_t>(ordinal));
        message.push_back(static_cast<uint8_t>(ordinal >> 8));
        const fuzz::Bytes rest = in.rest();  // the element count, tags and values
        message.insert(message.end(), rest.begin(), rest.end());
    } else {
        const auto ordinal = static_cast<uint16_t>(count - 7);
        message.push_back(static_cast<uint8_t>(ordinal));
        message.push_back(static_cast<uint8_t>(ordinal >> 8));
        uint32_t length = in.byte();
        length |= static_cast<uint32_t>(in.byte()) << 8;
        length = 500 + length % (32768 - 500 + 1);  // the compressed range
        const fuzz::Bytes payload = in.rest();
        put32(message, length);
        put32(message, static_cast<uint32_t>(payload.size()));
        message.insert(message.end(), payload.begin(), payload.end());
    }
    for (auto &f : frames(message)) packets.push_back(std::move(f));
    fuzz::Session s(RPC_MODE_SERVER, packets);
    if (s.ready && RPCExport(s.h, fuzz::served_table()) == 0 && RPCConnect(s.h, 1, 0, "fuzz") == 0)
        RPCRun(s.h);
    return 0;
}
