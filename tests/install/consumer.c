/* A user's C program: includes the installed header, links the installed
   library, and drives the handle lifecycle. Exits non-zero on any surprise. */
#include <stdio.h>
#include <string.h>

#include <zephrpc.h>

static int failures = 0;

static void expect(int ok, const char *what) {
    if (!ok) {
        fprintf(stderr, "FAILED: %s\n", what);
        ++failures;
    }
}

int main(void) {
    const char *text = NULL;
    const char *name = NULL;
    const char *description = NULL;
    HRPC h = RPCAllocHandle();

    expect(sizeof(RPCParam) == 48, "parameter entry is 48 bytes");
    expect(sizeof(RPCFuncDesc) == 1000, "function descriptor is 1000 bytes");
    expect(sizeof(RPCVariant) == 16, "variant element is 16 bytes");
    expect(_lib_version == 1, "library version 1");
    expect(strncmp(server_built, "$Built: ", 8) == 0, "build stamp");
    expect(RECEIVE_LOWWATERMARK == 8192 && SEND_BUFFER_SIZE == 16384, "socket defaults");

    expect(h != NULL, "handle allocated");
    expect(RPCInitialise(h, RPC_MODE_CLIENT, 0) == 0, "initialised");
    expect(RPCReportError(h, &text) == RPC_NOTRNAME, "transport list leaves code 28");
    expect(RPCEnumerateTransports(h, 1, &name, &description) == 0, "transport 1 listed");
    expect(name != NULL && strcmp(name, "*BSD Driver") == 0, "transport 1 is the BSD driver");
    expect(RPCFuncExists(h, "anything") == 0, "nothing imported yet");
    expect(RPCTerminate(h) == 0, "terminated");
    expect(RPCFreeHandle(h) == 0, "freed");

    if (failures == 0) printf("c consumer ok: %s\n", server_built);
    return failures == 0 ? 0 : 1;
}
