// Call messages against a server exporting every parameter kind in every
// direction, under the variation the first byte picks (byte order, 4-byte
// pointers, 4-byte SQLLEN, compression).
#include "harness.h"

extern "C" int LLVMFuzzerTestOneInput(const uint8_t *data, size_t size) {
    fuzz::Input in(data, size);
    const fuzz::Variation v = fuzz::Variation::from(in.byte());
    std::vector<fuzz::Bytes> packets = {fuzz::packet_of(v.parameters())};
    for (auto &p : in.packets()) packets.push_back(std::move(p));
    fuzz::Session s(RPC_MODE_SERVER, packets);
    if (s.ready && RPCExport(s.h, fuzz::served_table()) == 0 && RPCConnect(s.h, 1, 0, "fuzz") == 0)
        RPCRun(s.h);  // until the input runs out or is refused
    return 0;
}
