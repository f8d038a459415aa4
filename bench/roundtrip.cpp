// Round-trip benchmark: a server process and a client process, forked and
// pinned to CPUs (both on CPU 0, then on CPUs 0 and 1), over TCP loopback.
//
//   small call   int32 in, int32 out through RPCExec/RPCRun
//   raw TCP      the same packets (4-byte big-endian length + payload in one
//                send, MSG_WAITALL reads, TCP_NODELAY) without the library
//   32 KiB in    memory blocks, compressible and random, with and without
//                compression, in MB/s
//
// Compression is negotiated on between two ends of this library. To measure
// without it, both processes clear the negotiated compression bit on their own
// handle right after connecting (white-box, hence the static library): the
// sender then stops compressing and the receiver stops expecting a
// compressed length, so the two stay in step.
//
// Usage: zephrpc_bench [seconds-per-case]   (default 1)
#include <arpa/inet.h>
#include <netinet/in.h>
#include <netinet/tcp.h>
#include <sched.h>
#include <sys/socket.h>
#include <sys/wait.h>
#include <unistd.h>

#include <algorithm>
#include <chrono>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <string>
#include <vector>

#include "base/handle.h"

namespace {

using Clock = std::chrono::steady_clock;

constexpr int32_t kBsd = 1;
constexpr int32_t kBlockSize = 32768;
constexpr unsigned kChildAlarm = 60;  // no child outlives this, whatever happens

double seconds_per_case = 1.0;

int32_t inc(RPCParam *args) {
    RPCParam *cur = args;
    const int32_t a = *static_cast<int32_t *>(__RPCextractarg(&cur));
    __RPCsetarg(&cur, a + 1);
    return 0;
}

int32_t put_block(RPCParam *args) {
    RPCParam *cur = args;
    const auto *data = static_cast<RPCMemDesc *>(__RPCextractarg(&cur));
    __RPCsetarg(&cur, data->length);
    return 0;
}

RPCFuncDesc *table() {
    static RPCFuncDesc t[3] = {};
    t[0].name = const_cast<char *>("inc");
    t[0].entry = inc;
    t[0].params[0] = {RPC_INT32 | RPC_IN, 0, const_cast<char *>("a"), 0, 0, nullptr, {}};
    t[0].params[1] = {RPC_INT32 | RPC_OUT, 0, const_cast<char *>("b"), 0, 0, nullptr, {}};
    t[1].name = const_cast<char *>("put_block");
    t[1].entry = put_block;
    t[1].params[0] = {RPC_MEM | RPC_IN, 0, const_cast<char *>("data"), 0, 0, nullptr, {}};
    t[1].params[1] = {RPC_INT32 | RPC_OUT, 0, const_cast<char *>("length"), 0, 0, nullptr, {}};
    return t;
}

bool pin(int cpu) {
    cpu_set_t set;
    CPU_ZERO(&set);
    CPU_SET(cpu, &set);
    return sched_setaffinity(0, sizeof set, &set) == 0;
}

uint16_t free_port() {
    int fd = socket(AF_INET, SOCK_STREAM, 0);
    sockaddr_in a{};
    a.sin_family = AF_INET;
    a.sin_addr.s_addr = htonl(INADDR_LOOPBACK);
    bind(fd, reinterpret_cast<sockaddr *>(&a), sizeof a);
    socklen_t len = sizeof a;
    getsockname(fd, reinterpret_cast<sockaddr *>(&a), &len);
    close(fd);
    return ntohs(a.sin_port);
}

double median(std::vector<double> v) {
    if (v.empty()) return 0;
    std::nth_element(v.begin(), v.begin() + v.size() / 2, v.end());
    return v[v.size() / 2];
}

// Times `once` (one round trip, false on failure) repeatedly for the case's
// duration after a short warm-up; returns the median in seconds, or -1.
template <typename F>
double time_round_trips(F once) {
    for (int i = 0; i < 200; ++i)
        if (!once()) return -1;
    std::vector<double> samples;
    samples.reserve(1 << 20);
    const auto end = Clock::now() + std::chrono::duration<double>(seconds_per_case);
    for (;;) {
        const auto t0 = Clock::now();
        if (!once()) return -1;
        const auto t1 = Clock::now();
        samples.push_back(std::chrono::duration<double>(t1 - t0).count());
        if (t1 >= end || samples.size() >= (1u << 20)) break;
    }
    return median(std::move(samples));
}

// --- the library's two ends ---------------------------------------------------

[[noreturn]] void library_server(uint16_t port, bool compress) {
    HRPC h = RPCAllocHandle();
    RPCInitialise(h, RPC_MODE_SERVER, 0);
    RPCExport(h, table());
    const std::string p = std::to_string(port);
    RPCSetTransportOpts(h, kBsd, nullptr, p.c_str(), nullptr, nullptr, nullptr, nullptr, nullptr);
    if (RPCConnect(h, 1, 0, "bench") == 0) {
        if (!compress) h->flags &= ~uint64_t{zrpc::kCompress};
        RPCRun(h);  // until the client goes away
    }
    RPCDisconnect(h);
    RPCTerminate(h);
    RPCFreeHandle(h);
    _exit(0);
}

HRPC library_client(uint16_t port, bool compress) {
    HRPC h = RPCAllocHandle();
    RPCInitialise(h, RPC_MODE_CLIENT, 0);
    const std::string p = std::to_string(port);
    RPCSetTransportOpts(h, kBsd, "127.0.0.1", p.c_str(), nullptr, nullptr, nullptr, nullptr, nullptr);
    RPCSetLowLTransportOpts(h, 1, RPC_LOWL_ATTEMPTS, "30");  // the server may still be starting
    if (RPCConnect(h, 1, 0, "bench") != 0) return nullptr;
    if (!compress) h->flags &= ~uint64_t{zrpc::kCompress};
    return h;
}

void close_library_client(HRPC h) {
    RPCDisconnect(h);
    RPCTerminate(h);
    RPCFreeHandle(h);
}

double small_call(uint16_t port) {
    HRPC h = library_client(port, true);
    if (!h) return -1;
    int32_t in = 0;
    const double t = time_round_trips([&] {
        int32_t out = 0;
        const bool ok = RPCExec(h, "inc", int64_t{in}, &out) == 0 && out == in + 1;
        ++in;
        return ok;
    });
    close_library_client(h);
    return t;
}

double block_call(uint16_t port, bool compress, bool random) {
    HRPC h = library_client(port, compress);
    if (!h) return -1;
    std::vector<uint8_t> data(kBlockSize);
    uint32_t s = 2463534242u;
    for (std::size_t i = 0; i < data.size(); ++i) {
        s ^= s << 13, s ^= s >> 17, s ^= s << 5;  // xorshift: incompressible
        data[i] = random ? static_cast<uint8_t>(s) : static_cast<uint8_t>("row data "[i % 9]);
    }
    RPCMemDesc desc{};
    desc.length = kBlockSize;
    desc.value = data.data();
    const double t = time_round_trips([&] {
        int32_t length = 0;
        return RPCExec(h, "put_block", &desc, &length) == 0 && length == kBlockSize;
    });
    close_library_client(h);
    return t;
}

// --- raw TCP ping-pong with the same packets -----------------------------------

constexpr uint8_t kRequest[] = {'D', 0, 0, 1, 0, 0, 0};  // start byte, ordinal, int32
constexpr uint8_t kReply[] = {'D', 0, 0, 2, 0, 0, 0};

bool send_packet(int fd, const uint8_t *payload, uint32_t n) {
    uint8_t buf[64];
    const uint32_t header = htonl(n);
    std::memcpy(buf, &header, 4);
    std::memcpy(buf + 4, payload, n);
    return send(fd, buf, n + 4, MSG_NOSIGNAL) == static_cast<ssize_t>(n + 4);
}

bool recv_packet(int fd, uint8_t *payload, uint32_t size) {
    uint32_t header;
    if (recv(fd, &header, 4, MSG_WAITALL) != 4) return false;
    const uint32_t n = ntohl(header);
    return n <= size && recv(fd, payload, n, MSG_WAITALL) == static_cast<ssize_t>(n);
}

void nodelay(int fd) {
    int one = 1;
    setsockopt(fd, IPPROTO_TCP, TCP_NODELAY, &one, sizeof one);
}

[[noreturn]] void raw_server(int listener) {
    int fd = accept(listener, nullptr, nullptr);
    nodelay(fd);
    uint8_t buf[64];
    while (recv_packet(fd, buf, sizeof buf) && send_packet(fd, kReply, sizeof kReply)) {
    }
    close(fd);
    _exit(0);
}

double raw_ping_pong(uint16_t port) {
    int fd = socket(AF_INET, SOCK_STREAM, 0);
    sockaddr_in a{};
    a.sin_family = AF_INET;
    a.sin_port = htons(port);
    a.sin_addr.s_addr = htonl(INADDR_LOOPBACK);
    if (connect(fd, reinterpret_cast<sockaddr *>(&a), sizeof a) != 0) return -1;
    nodelay(fd);
    uint8_t buf[64];
    const double t = time_round_trips([&] {
        return send_packet(fd, kRequest, sizeof kRequest) && recv_packet(fd, buf, sizeof buf);
    });
    close(fd);
    return t;
}

// --- processes ------------------------------------------------------------------

enum class Case { SmallCall, RawTcp, Compressible, Random, CompressibleOff, RandomOff };

// Runs one case: the server and the client each in a pinned child process.
// Returns the client's median in seconds, or -1.
double run_case(Case c, int server_cpu, int client_cpu) {
    const bool raw = c == Case::RawTcp;
    uint16_t port = 0;
    int listener = -1;
    if (raw) {  // listening before the fork, so the client cannot be refused
        listener = socket(AF_INET, SOCK_STREAM, 0);
        sockaddr_in a{};
        a.sin_family = AF_INET;
        a.sin_addr.s_addr = htonl(INADDR_LOOPBACK);
        bind(listener, reinterpret_cast<sockaddr *>(&a), sizeof a);
        listen(listener, 1);
        socklen_t len = sizeof a;
        getsockname(listener, reinterpret_cast<sockaddr *>(&a), &len);
        port = ntohs(a.sin_port);
    } else {
        port = free_port();
    }
    const bool compress = c != Case::CompressibleOff && c != Case::RandomOff;

    int pipefd[2];
    if (pipe(pipefd) != 0) return -1;
    const pid_t server = fork();
    if (server == 0) {
        alarm(kChildAlarm);
        close(pipefd[0]);
        pin(server_cpu);
        if (raw) raw_server(listener);
        library_server(port, compress);
    }
    const pid_t client = fork();
    if (client == 0) {
        alarm(kChildAlarm);
        close(pipefd[0]);
        double t = -1;
        if (pin(client_cpu)) {
            switch (c) {
            case Case::SmallCall: t = small_call(port); break;
            case Case::RawTcp: t = raw_ping_pong(port); break;
            case Case::Compressible: t = block_call(port, true, false); break;
            case Case::Random: t = block_call(port, true, true); break;
            case Case::CompressibleOff: t = block_call(port, false, false); break;
            case Case::RandomOff: t = block_call(port, false, true); break;
            }
        }
        (void)!write(pipefd[1], &t, sizeof t);
        _exit(0);
    }
    close(pipefd[1]);
    if (listener >= 0) close(listener);
    double t = -1;
    if (read(pipefd[0], &t, sizeof t) != sizeof t) t = -1;
    close(pipefd[0]);
    waitpid(client, nullptr, 0);
    waitpid(server, nullptr, 0);  // ends once its client has gone (or at its alarm)
    return t;
}

void run_pinning(const char *label, int server_cpu, int client_cpu) {
    std::printf("\n== %s (server on CPU %d, client on CPU %d)\n", label, server_cpu, client_cpu);
    // Alternate the two a few times and keep the median of each: the machine
    // is shared, and load drifts between cases.
    std::vector<double> calls, raws;
    for (int round = 0; round < 3; ++round) {
        calls.push_back(run_case(Case::SmallCall, server_cpu, client_cpu));
        raws.push_back(run_case(Case::RawTcp, server_cpu, client_cpu));
    }
    const bool failed = std::min(*std::min_element(calls.begin(), calls.end()),
                                 *std::min_element(raws.begin(), raws.end())) <= 0;
    const double call = median(calls), raw = median(raws);
    if (failed) {
        std::printf("  small call or raw ping-pong failed\n");
    } else {
        std::printf("  small call (int32 in, int32 out)   median %8.2f us  (3 runs)\n", call * 1e6);
        std::printf("  raw TCP ping-pong, same packets    median %8.2f us  (3 runs)\n", raw * 1e6);
        std::printf("  ratio call / raw                   %8.3f  (target <= 1.15)\n", call / raw);
    }
    const struct {
        Case c;
        const char *what;
    } blocks[] = {{Case::Compressible, "compressible, compression on "},
                  {Case::Random, "random,       compression on "},
                  {Case::CompressibleOff, "compressible, compression off"},
                  {Case::RandomOff, "random,       compression off"}};
    for (const auto &b : blocks) {
        const double t = run_case(b.c, server_cpu, client_cpu);
        if (t <= 0)
            std::printf("  32 KiB in, %s  failed\n", b.what);
        else
            std::printf("  32 KiB in, %s  %8.1f MB/s  (median %.1f us)\n", b.what,
                        kBlockSize / t / 1e6, t * 1e6);
    }
}

}  // namespace

int main(int argc, char **argv) {
    if (argc > 1) seconds_per_case = std::clamp(std::atof(argv[1]), 0.05, 10.0);
    setvbuf(stdout, nullptr, _IOLBF, 0);
    std::printf("zephrpc round trips, %.2f s of timed calls per case, medians\n", seconds_per_case);
    run_pinning("one CPU", 0, 0);
    if (sysconf(_SC_NPROCESSORS_ONLN) > 1)
        run_pinning("two CPUs", 1, 0);
    else
        std::printf("\n== two CPUs: skipped, one CPU online\n");
    return 0;
}
