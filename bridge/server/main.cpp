// zephodbc-server: serves ODBC data sources of this machine to bridge drivers.
//
//   zephodbc-server --listen [HOST:]PORT [--max-clients N] [OPTIONS]
//   zephodbc-server --inetd [OPTIONS]
//   OPTIONS: --allow-dsn NAME (repeatable), --negotiation-timeout SECONDS
//
// In listen mode the parent only accepts: every connection is served by a
// child process (server/workers.h), so a child that fails takes no other
// client with it. At most --max-clients children serve at once; a client
// beyond them is told the server is busy (08004) by a short-lived child of
// its own, and beyond a few of those the connection is simply closed.
#include <arpa/inet.h>
#include <netdb.h>
#include <signal.h>
#include <sys/socket.h>
#include <unistd.h>

#include <cerrno>
#include <clocale>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <string>

#include "server/workers.h"

namespace {

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
    zbs::Workers(listener, config, max_clients).run();
    close(listener);
    return 0;
}
