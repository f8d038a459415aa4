// Cancelling a call the client is still waiting on.
//
// An application cancels a running statement with SQLCancel from a second
// thread. The client's connection is busy with that call, so the driver
// opens a short connection of its own and sends zb_cancel_call with the key
// the child serving it gave at connect. Whichever process serves that
// request finds the child on a board in memory that the listening server
// shares with every process it forks, and signals it (SIGUSR2); a thread of
// the child waits for the signal and calls the target's SQLCancel on the
// statement, if its call is still running. The same thread cancels the
// running call of a client that has gone away.
//
// Without a board (inetd mode) no key is given and nothing can be cancelled
// from outside.
#pragma once

#include <sql.h>
#include <sys/types.h>

#include <cstdint>
#include <optional>

#include "protocol/protocol.h"

namespace zbs {

using zb::CancelKey;

// Parent, before forking: room for `slots` children serving at once.
void open_cancel_board(size_t slots);
// Parent, for a child that ended: its place is free again.
void release_cancel_slot(pid_t pid);

// Watches the client on fd (-1: none) while it is served: a client that
// goes away during a call has that call cancelled, so a query it left
// running does not hold the target for its whole length. The first call
// blocks SIGUSR2 in this thread (threads started later inherit that) and
// starts the watching thread, which also takes cancel requests.
void watch_client(int fd);

// A child starting to serve a client: takes a place with a fresh key (and
// starts the watching thread). Nothing when there is no board or it is full.
std::optional<CancelKey> claim_cancel_key();
// The key claimed for the client being served, if any.
const std::optional<CancelKey> &current_cancel_key();
// The client has left: its place is free again.
void release_cancel_key();

enum class CancelResult { Signalled, NotRunning, UnknownKey };
// Any process with the board: asks the child holding `key` to cancel the
// call on `statement` (the handle that child issued).
CancelResult request_cancel(const CancelKey &key, uint64_t statement);

// Marks the call on a statement as running for as long as it lives: the one
// call a request can cancel. REQUIRES: the target statement outlives it.
class RunningCall {
public:
    RunningCall(uint64_t statement, SQLHSTMT target);
    ~RunningCall();
    RunningCall(const RunningCall &) = delete;
    RunningCall &operator=(const RunningCall &) = delete;
};

}  // namespace zbs
