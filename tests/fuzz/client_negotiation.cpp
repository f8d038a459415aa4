// What a server sends a connecting client: magic, version text, parameter
// text, function-table packets.
#include "harness.h"

extern "C" int LLVMFuzzerTestOneInput(const uint8_t *data, size_t size) {
    fuzz::Input in(data, size);
    fuzz::Session s(RPC_MODE_CLIENT, in.packets());
    if (s.ready) RPCConnect(s.h, 1, 0, "fuzz");
    return 0;
}
