// What a hostile or careless peer sends must not kill, bloat or leak into
// the other side: empty variant arrays, huge announced lengths, unfilled
// output buffers, odd capacities, parameter lists cut short, planted links.
#include <gtest/gtest.h>
#include <sys/resource.h>
#include <unistd.h>

#include <cstring>
#include <string>
#include <tuple>

#include "base/log.h"
#include "session/functable.h"
#include "helpers/log_file.h"
#include "helpers/capture_link.h"
#include "helpers/served.h"
#include "helpers/session_peer.h"
#include "helpers/wire_pair.h"

namespace zrpc::test {
namespace {

int32_t leave_untouched(RPCParam *) { return 0; }

const RPCFuncDesc kTable[] = {
    F("variants_out", leave_untouched, {{RPC_WVARRAY | OUT, "v"}}),
    F("variants_inout", leave_untouched, {{RPC_WVARRAY | INOUT, "v"}}),
    F("take", leave_untouched, {{RPC_MEM | IN, "m"}}),
    F("unfilled", leave_untouched, {{RPC_MEM | OUT, "m"}}),
    {}};

struct Session {
    ServedHandle server{kTable};
    HRPC client = new_handle(RPC_MODE_CLIENT, server.port);
    bool connected = RPCConnect(client, 1, 0, kUid) == 0;
    ~Session() { free_handle(client); }
};

TEST(HostileInput, VariantArraysOfNoElementsComeBackEmpty) {
    Session s;
    ASSERT_TRUE(s.connected);
    RPCVariant none[1] = {};
    for (const char *fn : {"variants_out", "variants_inout", "variants_out"}) {
        RPCMemDesc d = desc(0, none);
        EXPECT_EQ(RPCExec(s.client, fn, &d), 0) << fn;
    }
}

TEST(HostileInput, OutputBuffersStartZeroed) {
    Session s;
    ASSERT_TRUE(s.connected);
    // An earlier call's input, released after its reply, is where the next
    // buffer of that size is likely to come from.
    uint8_t secret[64], buffer[64];
    std::memset(secret, 0xAB, sizeof secret);
    std::memset(buffer, 0x55, sizeof buffer);
    RPCMemDesc in = desc(sizeof secret, secret), out = desc(sizeof buffer, buffer);
    ASSERT_EQ(RPCExec(s.client, "take", &in), 0);
    ASSERT_EQ(RPCExec(s.client, "unfilled", &out), 0);
    EXPECT_EQ(Bytes(buffer, buffer + 64), Bytes(64, 0));
}

TEST(HostileInput, CapacitiesBelowOneComeBackAsAnnounced) {
    Session s;
    ASSERT_TRUE(s.connected);
    for (int32_t capacity : {0, -1, -2}) {
        RPCMemDesc d = desc(capacity, nullptr);
        ASSERT_EQ(RPCExec(s.client, "unfilled", &d), 0);
        EXPECT_EQ(d.length, capacity);
        EXPECT_EQ(d.value, nullptr);
    }
}

// A 4-byte-SQLLEN peer announces a 64 MiB SQLLEN array and sends 8 bytes of
// it: the receiver must not fill (and so make resident) the work memory for
// the whole announced length before the bytes arrive.
TEST(HostileInput, AnnouncedLengthsCostNothingBeforeTheBytesArrive) {
    constexpr int32_t kAnnounced = 64 << 20;
    rusage before{}, after{};
    getrusage(RUSAGE_SELF, &before);
    WirePair w(1, kPeerSqlLen4);
    Bytes frame(1 + 4 + 8, 0x11);  // 'D', the length in this machine's order, 8 payload bytes
    frame[0] = 'D';
    std::memcpy(&frame[1], &kAnnounced, 4);
    w.receive({frame});
    int32_t length = 0;
    RPCPopInt32(w.rx, &length, "n");
    ASSERT_EQ(length, kAnnounced);
    void *dest = std::malloc(2 * static_cast<size_t>(length));
    EXPECT_EQ(error_of([&] { RPCPopArray(w.rx, length, 2 * length, dest, RPC_SQLLEN_ARRAY, "a"); }),
              RPC_ETRANSPORT);
    std::free(dest);
    getrusage(RUSAGE_SELF, &after);
    EXPECT_LT(after.ru_maxrss - before.ru_maxrss, 48 << 10) << "KiB resident growth";
}

TEST(HostileInput, AFlagsWordOfZeroEndsTheImportedParameters) {
    TestHandle h(RPC_MODE_CLIENT);
    CaptureLink link;
    link.attach(h);
    for (std::string frame : {std::string("A"), std::string("B0!f!1026!4!a!0!0!b!2050!0!c!", 30),
                              std::string("C")})
        link.incoming.emplace_back(frame.begin(), frame.end());
    ASSERT_EQ(code_of(h, ImportFunc), 0);
    const RPCParam *p = h->desc_list->params;
    EXPECT_STREQ(p[0].name, "a");
    EXPECT_EQ(p[1].flags, 0u);  // the end mark: "c" is never read, nor kept
    EXPECT_EQ(p[1].name, nullptr);
    EXPECT_EQ(p[2].name, nullptr);
}

TEST(HostileInput, LogFilesAreNeverOpenedThroughALink) {
    char dir[] = "/tmp/zephrpc-log-XXXXXX";
    ASSERT_NE(mkdtemp(dir), nullptr);
    const std::string target = std::string(dir) + "/target", link = std::string(dir) + "/log";
    ASSERT_EQ(symlink(target.c_str(), link.c_str()), 0);
    for (bool truncate : {false, true}) EXPECT_EQ(open_log_file(link.c_str(), truncate), nullptr);
    EXPECT_NE(access(target.c_str(), F_OK), 0);  // nothing was created through the link
    unlink(link.c_str());
    // A plain file: appended to, or truncated.
    for (auto [truncate, text, expected] : {std::tuple{false, "ab", "ab"}, {false, "cd", "abcd"},
                                            {true, "ef", "ef"}}) {
        std::FILE *f = open_log_file(link.c_str(), truncate);
        ASSERT_NE(f, nullptr);
        std::fputs(text, f);
        std::fclose(f);
        EXPECT_EQ(read_file(link), expected);
    }
    unlink(link.c_str());
    rmdir(dir);
}

}  // namespace
}  // namespace zrpc::test
