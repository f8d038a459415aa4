// The listening server's children. A worker serves one client connection at
// a time; when the client has left (its handles freed, its transaction
// rolled back) the worker tells the parent it is idle and waits for the next
// connection, handed over on a Unix socket. A warm worker answers a connect
// in a fraction of the time a fresh fork takes: the fork and the target
// driver's first connect in a new process are most of a connection's cost.
//
// A worker that crashes or is killed takes only its own client with it. It
// serves at most kConnectionsPerWorker clients, so whatever a target driver
// leaks stays bounded, and at most kIdleWorkers wait idle; the rest exit.
// Idle workers are named "zephodbc-idle" (ps, /proc/PID/comm).
#pragma once

#include <sys/types.h>

#include <map>
#include <set>

#include "server/session.h"

namespace zbs {

inline constexpr int kConnectionsPerWorker = 200;
inline constexpr size_t kIdleWorkers = 4;
inline constexpr size_t kMaxRefusers = 8;

class Workers {
public:
    Workers(int listener, const Config &config, size_t max_clients);
    ~Workers();  // stops every child: politely, then for sure

    // Serves until SIGTERM or SIGINT.
    void run();

private:
    struct Worker {
        int channel = -1;  // the parent's end of the worker's Unix socket
        bool idle = false;
    };

    void serve(int fd);           // REQUIRES: fd is an accepted connection
    bool hand_over(int fd);       // to an idle worker; false when none took it
    void fork_worker(int fd);
    void refuse(int fd);          // a short-lived child answers 08004
    void read_channels();         // idle notices and workers that ended
    void reap();
    size_t serving() const;

    int listener_;
    Config config_;
    Config busy_;
    size_t max_clients_;
    std::map<pid_t, Worker> workers_;
    std::set<pid_t> refusers_;
};

}  // namespace zbs
