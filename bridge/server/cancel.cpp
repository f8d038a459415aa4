#include "server/cancel.h"

#include <poll.h>
#include <signal.h>
#include <sys/eventfd.h>
#include <sys/mman.h>
#include <sys/random.h>
#include <sys/signalfd.h>
#include <unistd.h>

#include <sqlext.h>

#include <atomic>
#include <mutex>
#include <system_error>
#include <thread>

namespace zbs {
namespace {

// One place on the board. Processes share it, so every field is read and
// written atomically; the secret is in place before the key is handed out.
struct Slot {
    int32_t pid;         // 0: free
    uint64_t running;    // the statement whose call is running; 0: none
    uint64_t request;    // the statement a request asked to cancel
    uint8_t secret[16];
};

template <typename T>
std::atomic_ref<T> shared(T &field) {
    return std::atomic_ref<T>(field);
}

Slot *g_board = nullptr;
size_t g_slots = 0;
std::atomic<Slot *> g_mine{nullptr};  // this process's place while it serves
std::optional<CancelKey> g_key;
bool g_waiting = false;  // the thread that watches runs

// The running call and the client as this process sees them; the lock is
// held while the target cancels.
std::mutex g_running_lock;
uint64_t g_running = 0;
SQLHSTMT g_running_target = SQL_NULL_HSTMT;
int g_client = -1;  // the client being served; -1: none
int g_wake = -1;    // eventfd: the client watched has changed

sigset_t cancel_signal() {
    sigset_t set;
    sigemptyset(&set);
    sigaddset(&set, SIGUSR2);
    return set;
}

// REQUIRES: g_running_lock held.
void cancel_running(uint64_t statement) {
    if (statement != 0 && statement == g_running) SQLCancel(g_running_target);
}

void take_requests(int signals) {
    signalfd_siginfo info;
    while (read(signals, &info, sizeof info) == static_cast<ssize_t>(sizeof info)) {
        Slot *slot = g_mine.load();
        const uint64_t wanted = slot != nullptr ? shared(slot->request).exchange(0) : 0;
        std::lock_guard<std::mutex> hold(g_running_lock);
        cancel_running(wanted);
    }
}

// Waits for cancel requests and for the client to go away. A client gone
// while a call runs has that call cancelled; gone between calls, it is the
// serving loop's to notice, and the watch looks again shortly in case a
// call started on what the client sent before it went.
void watch(int signals) {
    bool recheck = false;
    for (;;) {
        int client;
        {
            std::lock_guard<std::mutex> hold(g_running_lock);
            client = g_client;
        }
        pollfd fds[3] = {{signals, POLLIN, 0}, {g_wake, POLLIN, 0}, {client, POLLRDHUP, 0}};
        const nfds_t watched = client >= 0 && !recheck ? 3 : 2;
        const int ready = poll(fds, watched, recheck ? 50 : -1);
        recheck = false;
        if (ready < 0) continue;
        if (fds[1].revents & POLLIN) {
            uint64_t changes;
            [[maybe_unused]] ssize_t n = read(g_wake, &changes, sizeof changes);
        }
        if (fds[0].revents & POLLIN) take_requests(signals);
        if (watched == 3 && (fds[2].revents & POLLNVAL)) recheck = true;  // closed before it was unwatched
        if (watched == 3 && (fds[2].revents & (POLLRDHUP | POLLHUP | POLLERR))) {
            std::lock_guard<std::mutex> hold(g_running_lock);
            if (g_client == client) cancel_running(g_running);
            recheck = true;
        }
    }
}

bool start_watching() {
    static std::once_flag once;
    std::call_once(once, [] {
        const sigset_t set = cancel_signal();
        pthread_sigmask(SIG_BLOCK, &set, nullptr);  // threads started later inherit it
        const int signals = signalfd(-1, &set, SFD_CLOEXEC | SFD_NONBLOCK);
        g_wake = eventfd(0, EFD_CLOEXEC | EFD_NONBLOCK);
        if (signals < 0 || g_wake < 0) return;
        try {
            std::thread(watch, signals).detach();
            g_waiting = true;
        } catch (const std::system_error &) {  // no thread: nothing is cancelled from outside
        }
    });
    return g_waiting;
}

bool holds(Slot &slot, const CancelKey &key) {
    if (shared(slot.pid).load() != key.pid) return false;
    bool same = true;
    for (size_t i = 0; i < key.secret.size(); ++i) same &= shared(slot.secret[i]).load() == key.secret[i];
    return same;
}

}  // namespace

void open_cancel_board(size_t slots) {
    void *p = mmap(nullptr, slots * sizeof(Slot), PROT_READ | PROT_WRITE, MAP_SHARED | MAP_ANONYMOUS, -1, 0);
    if (p == MAP_FAILED) return;  // clients get no key
    g_board = static_cast<Slot *>(p);  // zero-filled: every place free
    g_slots = slots;
}

void release_cancel_slot(pid_t pid) {
    for (size_t i = 0; i < g_slots; ++i) {
        int32_t expected = pid;
        shared(g_board[i].pid).compare_exchange_strong(expected, 0);
    }
}

void watch_client(int fd) {
    if (fd >= 0 && !start_watching()) return;
    {
        std::lock_guard<std::mutex> hold(g_running_lock);
        g_client = fd;
    }
    if (g_wake >= 0) {
        const uint64_t one = 1;
        [[maybe_unused]] ssize_t n = write(g_wake, &one, sizeof one);
    }
}

std::optional<CancelKey> claim_cancel_key() {
    release_cancel_key();
    if (g_board == nullptr || !start_watching()) return std::nullopt;
    CancelKey key;
    key.pid = getpid();
    if (getrandom(key.secret.data(), key.secret.size(), 0) != static_cast<ssize_t>(key.secret.size()))
        return std::nullopt;
    for (size_t i = 0; i < g_slots; ++i) {
        Slot &slot = g_board[i];
        int32_t expected = 0;
        if (!shared(slot.pid).compare_exchange_strong(expected, key.pid)) continue;
        shared(slot.running).store(0);
        shared(slot.request).store(0);
        for (size_t k = 0; k < key.secret.size(); ++k) shared(slot.secret[k]).store(key.secret[k]);
        g_mine.store(&slot);
        g_key = key;
        return g_key;
    }
    return std::nullopt;
}

const std::optional<CancelKey> &current_cancel_key() { return g_key; }

void release_cancel_key() {
    g_key.reset();
    if (Slot *slot = g_mine.exchange(nullptr)) {
        shared(slot->running).store(0);
        shared(slot->pid).store(0);
    }
}

CancelResult request_cancel(const CancelKey &key, uint64_t statement) {
    for (size_t i = 0; key.pid > 0 && i < g_slots; ++i) {
        Slot &slot = g_board[i];
        if (!holds(slot, key)) continue;
        if (statement == 0 || shared(slot.running).load() != statement) return CancelResult::NotRunning;
        shared(slot.request).store(statement);
        return kill(key.pid, SIGUSR2) == 0 ? CancelResult::Signalled : CancelResult::UnknownKey;
    }
    return CancelResult::UnknownKey;
}

RunningCall::RunningCall(uint64_t statement, SQLHSTMT target) {
    std::lock_guard<std::mutex> hold(g_running_lock);
    g_running = statement;
    g_running_target = target;
    if (Slot *slot = g_mine.load()) shared(slot->running).store(statement);
}

RunningCall::~RunningCall() {
    std::lock_guard<std::mutex> hold(g_running_lock);
    g_running = 0;
    g_running_target = SQL_NULL_HSTMT;
    if (Slot *slot = g_mine.load()) shared(slot->running).store(0);
}

}  // namespace zbs
