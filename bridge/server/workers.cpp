#include "server/workers.h"

#include <fcntl.h>
#include <malloc.h>
#include <poll.h>
#include <signal.h>
#include <sys/prctl.h>
#include <sys/socket.h>
#include <sys/wait.h>
#include <unistd.h>

#include <cerrno>
#include <cstdio>
#include <cstring>
#include <string>
#include <vector>

#include "server/cancel.h"

namespace zbs {
namespace {

volatile sig_atomic_t g_stop = 0;

void on_stop(int) { g_stop = 1; }

constexpr char kIdleNotice = 'i';

// A one-byte message with room for one descriptor in its control data.
struct DescriptorMessage {
    char byte = 0;
    iovec io{&byte, 1};
    alignas(cmsghdr) char space[CMSG_SPACE(sizeof(int))] = {};
    msghdr m{};
    DescriptorMessage() {
        m.msg_iov = &io;
        m.msg_iovlen = 1;
        m.msg_control = space;
        m.msg_controllen = sizeof space;
    }
    DescriptorMessage(const DescriptorMessage &) = delete;  // m points into itself
};

bool send_descriptor(int channel, int fd) {
    DescriptorMessage d;
    cmsghdr *c = CMSG_FIRSTHDR(&d.m);
    c->cmsg_level = SOL_SOCKET;
    c->cmsg_type = SCM_RIGHTS;
    c->cmsg_len = CMSG_LEN(sizeof(int));
    std::memcpy(CMSG_DATA(c), &fd, sizeof fd);
    return sendmsg(channel, &d.m, MSG_NOSIGNAL) == 1;
}

// Blocks until the parent hands over a connection; -1 when it closed the
// channel (the worker is retired) or the channel failed.
int receive_descriptor(int channel) {
    DescriptorMessage d;
    ssize_t n;
    do n = recvmsg(channel, &d.m, MSG_CMSG_CLOEXEC);
    while (n < 0 && errno == EINTR);
    cmsghdr *c = n == 1 ? CMSG_FIRSTHDR(&d.m) : nullptr;
    if (c == nullptr || c->cmsg_type != SCM_RIGHTS || c->cmsg_len != CMSG_LEN(sizeof(int)))
        return -1;
    int fd;
    std::memcpy(&fd, CMSG_DATA(c), sizeof fd);
    return fd;
}

void name_process(const char *name) { prctl(PR_SET_NAME, name, 0, 0, 0); }

void as_child(int listener) {
    signal(SIGTERM, SIG_DFL);
    signal(SIGINT, SIG_DFL);
    close(listener);
}

// A worker's life: the connection it was forked for, then those handed over.
// _exit throughout: the driver manager's exit handlers belong to the parent.
[[noreturn]] void work(int channel, int fd, const Config &config) {
    for (int served = 1;; ++served) {
        fcntl(fd, F_SETFD, 0);
        serve_descriptor(fd, config);
        close(fd);
        if (served >= kConnectionsPerWorker) _exit(0);
        malloc_trim(0);  // what a large client made the heap grow is not kept while idle
        if (send(channel, &kIdleNotice, 1, MSG_NOSIGNAL) != 1) _exit(0);
        name_process("zephodbc-idle");  // after the notice: a worker seen idle can be handed a client
        fd = receive_descriptor(channel);
        if (fd < 0) _exit(0);
        name_process("zephodbc-server");
    }
}

}  // namespace

Workers::Workers(int listener, const Config &config, size_t max_clients)
    : listener_(listener), config_(config), busy_(config), max_clients_(max_clients) {
    open_cancel_board(max_clients + kIdleWorkers);
    busy_.busy = "server busy: " + std::to_string(max_clients) +
                 " clients are connected (--max-clients)";
}

Workers::~Workers() {
    std::vector<pid_t> all(refusers_.begin(), refusers_.end());
    for (auto &[pid, w] : workers_) {
        all.push_back(pid);
        close(w.channel);
    }
    workers_.clear();
    refusers_.clear();
    for (pid_t pid : all) kill(pid, SIGTERM);
    auto gone = [](pid_t pid) { return waitpid(pid, nullptr, WNOHANG) != 0; };
    for (int i = 0; i < 50 && !all.empty(); ++i) {
        std::erase_if(all, gone);
        if (!all.empty()) usleep(100000);
    }
    for (pid_t pid : all) {
        kill(pid, SIGKILL);
        waitpid(pid, nullptr, 0);
    }
}

void Workers::run() {
    struct sigaction sa {};
    sa.sa_handler = on_stop;
    sigaction(SIGTERM, &sa, nullptr);
    sigaction(SIGINT, &sa, nullptr);
    std::vector<pollfd> watched;
    while (!g_stop) {
        reap();
        watched.assign(1, pollfd{listener_, POLLIN, 0});
        for (auto &[pid, w] : workers_) watched.push_back({w.channel, POLLIN, 0});
        if (poll(watched.data(), watched.size(), 200) <= 0) continue;
        read_channels();
        if (!(watched[0].revents & POLLIN)) continue;
        int fd = accept4(listener_, nullptr, nullptr, SOCK_CLOEXEC);
        if (fd < 0) continue;
        reap();  // children that ended while we waited no longer count
        serve(fd);
        close(fd);
    }
}

void Workers::serve(int fd) {
    if (serving() >= max_clients_) return refuse(fd);
    if (!hand_over(fd)) fork_worker(fd);
}

bool Workers::hand_over(int fd) {
    for (auto it = workers_.begin(); it != workers_.end();) {
        auto &[pid, w] = *it;
        if (!w.idle) {
            ++it;
            continue;
        }
        if (send_descriptor(w.channel, fd)) {
            w.idle = false;
            return true;
        }
        close(w.channel);  // it ended while idle: reap() collects it
        it = workers_.erase(it);
    }
    return false;
}

void Workers::fork_worker(int fd) {
    int pair[2];
    if (socketpair(AF_UNIX, SOCK_SEQPACKET | SOCK_CLOEXEC, 0, pair) != 0) {
        fprintf(stderr, "zephodbc-server: socketpair: %s\n", strerror(errno));
        return;
    }
    pid_t pid = fork();
    if (pid == 0) {
        as_child(listener_);
        close(pair[0]);
        for (auto &[other, w] : workers_) close(w.channel);
        work(pair[1], fd, config_);
    }
    close(pair[1]);
    if (pid < 0) {
        fprintf(stderr, "zephodbc-server: fork: %s\n", strerror(errno));
        close(pair[0]);
        return;
    }
    workers_[pid] = Worker{pair[0], false};
}

void Workers::refuse(int fd) {
    if (refusers_.size() >= kMaxRefusers) return;  // a flood: not even a refusal
    pid_t pid = fork();
    if (pid == 0) {
        as_child(listener_);
        fcntl(fd, F_SETFD, 0);
        _exit(serve_descriptor(fd, busy_));
    }
    if (pid > 0) refusers_.insert(pid);
}

void Workers::read_channels() {
    size_t idle = 0;
    for (auto &[pid, w] : workers_) idle += w.idle;
    for (auto it = workers_.begin(); it != workers_.end();) {
        auto &[pid, w] = *it;
        char notice = 0;
        const ssize_t n = recv(w.channel, &notice, 1, MSG_DONTWAIT);
        if (n < 0 && (errno == EAGAIN || errno == EINTR)) {
            ++it;
            continue;
        }
        if (n == 1 && notice == kIdleNotice && idle < kIdleWorkers) {
            w.idle = true;
            ++idle;
            ++it;
            continue;
        }
        // Ended, or one idle worker too many: closing its channel ends it.
        close(w.channel);
        it = workers_.erase(it);
    }
}

void Workers::reap() {
    pid_t pid;
    while ((pid = waitpid(-1, nullptr, WNOHANG)) > 0) {
        release_cancel_slot(pid);  // a child that crashed still held one
        refusers_.erase(pid);
        if (auto it = workers_.find(pid); it != workers_.end()) {
            close(it->second.channel);
            workers_.erase(it);
        }
    }
}

size_t Workers::serving() const {
    size_t n = 0;
    for (const auto &[pid, w] : workers_) n += !w.idle;
    return n;
}

}  // namespace zbs
