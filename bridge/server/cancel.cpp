#include "server/cancel.h"

#include <signal.h>
#include <sys/mman.h>
#include <sys/random.h>
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
bool g_waiting = false;  // the thread that waits for requests runs

// The running call as this process sees it; held while the target cancels.
std::mutex g_running_lock;
uint64_t g_running = 0;
SQLHSTMT g_running_target = SQL_NULL_HSTMT;

sigset_t cancel_signal() {
    sigset_t set;
    sigemptyset(&set);
    sigaddset(&set, SIGUSR2);
    return set;
}

void wait_for_requests() {
    const sigset_t set = cancel_signal();
    for (;;) {
        int caught = 0;
        if (sigwait(&set, &caught) != 0) continue;
        Slot *slot = g_mine.load();
        const uint64_t wanted = slot != nullptr ? shared(slot->request).exchange(0) : 0;
        std::lock_guard<std::mutex> hold(g_running_lock);
        if (wanted != 0 && wanted == g_running) SQLCancel(g_running_target);
    }
}

bool start_waiting() {
    static std::once_flag once;
    std::call_once(once, [] {
        const sigset_t set = cancel_signal();
        pthread_sigmask(SIG_BLOCK, &set, nullptr);
        try {
            std::thread(wait_for_requests).detach();
            g_waiting = true;
        } catch (const std::system_error &) {  // no thread: no cancelling from outside
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

std::optional<CancelKey> claim_cancel_key() {
    release_cancel_key();
    if (g_board == nullptr || !start_waiting()) return std::nullopt;
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
