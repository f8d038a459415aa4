// What a client answers a server's negotiation: its parameter text (and
// whatever follows it).
#include "harness.h"

extern "C" int LLVMFuzzerTestOneInput(const uint8_t *data, size_t size) {
    fuzz::Input in(data, size);
    fuzz::Session s(RPC_MODE_SERVER, in.packets());
    if (s.ready && RPCExport(s.h, fuzz::served_table()) == 0) RPCConnect(s.h, 1, 0, "fuzz");
    return 0;
}
