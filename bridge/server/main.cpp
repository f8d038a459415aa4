// zephodbc-server: serves ODBC data sources of this machine to bridge drivers.
//
//   zephodbc-server --listen [HOST:]PORT [--max-clients N] [OPTIONS]
//   zephodbc-server --inetd [OPTIONS]
//   OPTIONS: --allow-dsn NAME (repeatable), --negotiation-timeout SECONDS
//
// In listen mode the parent only accepts: every connection is served by a
// forked child, so a child that fails takes no other client with it. At most
// --max-clients children serve at once; a client beyond them is told the
// server is busy (08004) by a short-lived child of its own, and beyond a few
// of those the connection is simply closed.
#include <arpa/inet.h>
#include <netdb.h>
#include <poll.h>
#include <signal.h>
#include <sys/socket.h>
#include <fcntl.h>
#include <sys/wait.h>
#include <unistd.h>

#include <cerrno>
#include <clocale>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <set>
#include <string>

#include "server/session.h"

namespace {

volatile sig_atomic_t g_stop = 0;

void on_stop(int) { g_stop = 1; }

int usage() {
    fprintf(stderr,
            "usage: zephodbc-server --listen [HOST:]PORT [--max-clients N] [OPTIONS]\n"
            "       zephodbc-server --inetd [OPTIONS]\n"
            "options: --allow-dsn NAME (repeatable), --negotiation-timeout SECONDS\n");
    return 2;
}

int open_listener(const std::string &where) {
    std::string host = "127.0.0.1", port = where;
    if (auto colon = where.rfind(':'); colon != std::string::npos) {
        host = where.substr(0, colon);
        port = where.substr(colon + 1);
    }
    addrinfo hints{}, *found = nullptr;
    hints.ai_family = AF_UNSPEC;
    hints.ai_socktype = SOCK_STREAM;
    hints.ai_flags = AI_PASSIVE;
    if (int e = getaddrinfo(host.c_str(), port.c_str(), &hints, &found); e != 0) {
        fprintf(stderr, "zephodbc-server: %s: %s\n", where.c_str(), gai_strerror(e));
        return -1;
    }
    int fd = socket(found->ai_family, found->ai_socktype | SOCK_CLOEXEC, 0);
    int one = 1;
    if (fd >= 0) setsockopt(fd, SOL_SOCKET, SO_REUSEADDR, &one, sizeof one);
    if (fd < 0 || bind(fd, found->ai_addr, found->ai_addrlen) != 0 || listen(fd, 64) != 0) {
        fprintf(stderr, "zephodbc-server: cannot listen on %s: %s\n", where.c_str(),
                strerror(errno));
        if (fd >= 0) close(fd);
        fd = -1;
    }
    freeaddrinfo(found);
    return fd;
}

void print_address(int fd) {
    sockaddr_storage a{};
    socklen_t len = sizeof a;
    getsockname(fd, reinterpret_cast<sockaddr *>(&a), &len);
    char host[NI_MAXHOST], port[NI_MAXSERV];
    getnameinfo(reinterpret_cast<sockaddr *>(&a), len, host, sizeof host, port, sizeof port,
                NI_NUMERICHOST | NI_NUMERICSERV);
    printf("zephodbc-server: listening on %s:%s\n", host, port);
    fflush(stdout);
}

std::set<pid_t> g_children;  // serving a client
std::set<pid_t> g_refusers;  // telling a client the server is busy
constexpr size_t kMaxRefusers = 8;

void reap() {
    pid_t pid;
    while ((pid = waitpid(-1, nullptr, WNOHANG)) > 0) {
        g_children.erase(pid);
        g_refusers.erase(pid);
    }
}

// Stops the children still serving clients: politely, then for sure.
void stop_children() {
    g_children.insert(g_refusers.begin(), g_refusers.end());
    g_refusers.clear();
    for (pid_t pid : g_children) kill(pid, SIGTERM);
    for (int i = 0; i < 50 && !g_children.empty(); ++i) {
        usleep(100000);
        reap();
    }
    for (pid_t pid : g_children) kill(pid, SIGKILL);
    while (!g_children.empty() && waitpid(-1, nullptr, 0) > 0) reap();
    g_children.clear();
}

int serve_forever(int listener, const zbs::Config &config, size_t max_clients) {
    zbs::Config busy = config;
    busy.busy = "server busy: " + std::to_string(max_clients) + " clients are connected (--max-clients)";
    struct sigaction sa {};
    sa.sa_handler = on_stop;
    sigaction(SIGTERM, &sa, nullptr);
    sigaction(SIGINT, &sa, nullptr);
    while (!g_stop) {
        reap();
        pollfd p{listener, POLLIN, 0};
        if (poll(&p, 1, 200) <= 0) continue;
        int fd = accept4(listener, nullptr, nullptr, SOCK_CLOEXEC);
        if (fd < 0) continue;
        reap();  // children that ended while we waited no longer count
        const bool full = g_children.size() >= max_clients;
        if (full && g_refusers.size() >= kMaxRefusers) {
            close(fd);  // a flood: not even a refusal
            continue;
        }
        pid_t child = fork();
        if (child == 0) {
            signal(SIGTERM, SIG_DFL);
            signal(SIGINT, SIG_DFL);
            close(listener);
            fcntl(fd, F_SETFD, 0);
            // _exit: the driver manager's exit handlers belong to the parent.
            _exit(zbs::serve_descriptor(fd, full ? busy : config));
        }
        if (child < 0) fprintf(stderr, "zephodbc-server: fork: %s\n", strerror(errno));
        else (full ? g_refusers : g_children).insert(child);
        close(fd);
    }
    close(listener);
    stop_children();
    return 0;
}

}  // namespace

int main(int argc, char **argv) {
    std::string listen_at;
    bool inetd = false;
    zbs::Config config;
    size_t max_clients = 64;
    auto number = [](const char *text, size_t &out) {
        char *end = nullptr;
        const unsigned long n = std::strtoul(text, &end, 10);
        if (end == text || *end != '\0' || n == 0 || n > 100000) return false;
        out = n;
        return true;
    };
    for (int i = 1; i < argc; ++i) {
        std::string a = argv[i];
        size_t n = 0;
        if (a == "--listen" && i + 1 < argc) listen_at = argv[++i];
        else if (a == "--inetd") inetd = true;
        else if (a == "--allow-dsn" && i + 1 < argc) config.allowed_dsns.insert(argv[++i]);
        else if (a == "--max-clients" && i + 1 < argc && number(argv[++i], n)) max_clients = n;
        else if (a == "--negotiation-timeout" && i + 1 < argc && number(argv[++i], n))
            config.negotiation_timeout = static_cast<unsigned>(n);
        else return usage();
    }
    if (inetd == !listen_at.empty()) return usage();
    setlocale(LC_CTYPE, "C.UTF-8");
    signal(SIGPIPE, SIG_IGN);
    if (inetd) return zbs::serve_descriptor(0, config);
    int listener = open_listener(listen_at);
    if (listener < 0) return 1;
    zbs::preload_drivers(config);
    print_address(listener);
    return serve_forever(listener, config, max_clients);
}
