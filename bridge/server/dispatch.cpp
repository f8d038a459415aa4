// The library-facing side of the server: the exported function table, the
// one entry point every operation goes through, and the serving loop.
#include <netinet/in.h>
#include <netinet/tcp.h>
#include <signal.h>
#include <sys/socket.h>
#include <unistd.h>

#include <cstdlib>
#include <cstring>
#include <optional>

#include <zephrpc.h>

#include "server/cancel.h"
#include "server/ops.h"
#include "server/rows.h"

namespace zbs {
namespace {

Session *g_session = nullptr;  // the one client connection a process serves at a time

enum class Target { None, Connection, Statement };

struct OpInfo {
    Handler handler;
    Target target;
};

OpInfo info_for(zb::Op op) {
    using zb::Op;
    switch (op) {
    case Op::Connect: return {op_connect, Target::None};
    case Op::Disconnect: return {op_disconnect, Target::Connection};
    case Op::SetConnectAttr: return {op_set_connect_attr, Target::Connection};
    case Op::GetConnectAttr: return {op_get_connect_attr, Target::Connection};
    case Op::GetInfo: return {op_get_info, Target::Connection};
    case Op::EndTran: return {op_end_tran, Target::Connection};
    case Op::NativeSql: return {op_native_sql, Target::Connection};
    case Op::AllocStmt: return {op_alloc_stmt, Target::Connection};
    case Op::FreeStmt: return {op_free_stmt, Target::Statement};
    case Op::SetStmtAttr: return {op_set_stmt_attr, Target::Statement};
    case Op::GetStmtAttr: return {op_get_stmt_attr, Target::Statement};
    case Op::Prepare: return {op_prepare, Target::Statement};
    case Op::Execute: return {op_execute, Target::Statement};
    case Op::Catalog: return {op_catalog, Target::Statement};
    case Op::DescribeParam: return {op_describe_param, Target::Statement};
    case Op::Fetch: return {op_fetch, Target::Statement};
    case Op::GetData: return {op_get_data, Target::Statement};
    case Op::ColAttribute: return {op_col_attribute, Target::Statement};
    case Op::MoreResults: return {op_more_results, Target::Statement};
    case Op::Cancel: return {op_cancel, Target::Statement};
    case Op::CancelCall: return {op_cancel_call, Target::None};
    case Op::Count: break;
    }
    return {nullptr, Target::None};
}

// What a failure inside an operation tells the client: memory it could not
// have (HY001), or a malformed request or anything else (HY000).
zb::DiagRecord failure_diag(const std::exception &e) {
    if (dynamic_cast<const TooLarge *>(&e) != nullptr) return bridge_diag("HY001", e.what());
    if (dynamic_cast<const std::bad_alloc *>(&e) != nullptr) return bridge_diag("HY001", "Memory allocation error");
    return bridge_diag("HY000", e.what());
}

// Runs one operation. Never throws: a malformed request or a failure inside
// becomes SQL_ERROR with a diagnostic, and a handle this session did not
// issue becomes SQL_INVALID_HANDLE without being touched.
SQLRETURN run(zb::Op op, void *handle, const RPCMemDesc &request, zb::Writer &reply) {
    Outcome out;
    zb::Writer payload;
    try {
        const OpInfo info = info_for(op);
        void *object = nullptr;
        if (info.target == Target::Connection) object = g_session->find_connection(handle);
        if (info.target == Target::Statement) object = g_session->find_statement(handle);
        if (info.handler == nullptr || (info.target != Target::None && object == nullptr)) {
            zb::put_diags(reply, {});
            return SQL_INVALID_HANDLE;
        }
        // Rows a statement reads on are finished first; they are dropped
        // only with the result they belong to.
        g_session->settle();
        if (op == zb::Op::Execute || op == zb::Op::Prepare || op == zb::Op::Catalog ||
            op == zb::Op::MoreResults || op == zb::Op::FreeStmt)
            g_session->drop_read_on(static_cast<Statement *>(object));
        zb::Reader in(request.value, request.value != nullptr && request.length > 0
                                         ? static_cast<size_t>(request.length)
                                         : 0);
        // A statement's call may be cancelled from outside while it runs;
        // not while the statement is being freed.
        std::optional<RunningCall> running;
        if (info.target == Target::Statement && op != zb::Op::FreeStmt)
            running.emplace(reinterpret_cast<uintptr_t>(handle), static_cast<Statement *>(object)->h);
        info.handler(*g_session, object, in, payload, out);
    } catch (const std::exception &e) {
        out.rc = SQL_ERROR;
        out.diags.push_back(failure_diag(e));
        payload = zb::Writer();
    }
    zb::put_diags(reply, out.diags);
    reply.data().insert(reply.data().end(), payload.data().begin(), payload.data().end());
    return out.rc;
}

template <zb::Op op>
int32_t entry(RPCParam *args) {
    RPCParam *cursor = args;
    void *handle = *static_cast<void **>(__RPCextractarg(&cursor));
    const auto *request = static_cast<RPCMemDesc *>(__RPCextractarg(&cursor));
    auto *rc_slot = static_cast<int16_t *>(__RPCextractarg(&cursor));
    auto *reply_desc = static_cast<RPCMemDesc *>(__RPCextractarg(&cursor));
    zb::Writer reply;
    *rc_slot = run(op, handle, *request, reply);
    if (!zb::put_reply(*reply_desc, reply.data())) *rc_slot = SQL_ERROR;
    return 0;
}

template <size_t... I>
RPCServerFn entry_for(zb::Op op, std::index_sequence<I...>) {
    static constexpr RPCServerFn kEntries[] = {&entry<static_cast<zb::Op>(I)>...};
    return kEntries[static_cast<size_t>(op)];
}

std::optional<int32_t> tty_transport(HRPC h) {
    const char *name = nullptr, *description = nullptr;
    for (int32_t i = 0; RPCEnumerateTransports(h, i, &name, &description) == 0; ++i)
        if (name != nullptr && std::strstr(name, "TTY") != nullptr) return i;
    return std::nullopt;
}

// A client that closes its end between calls has left; a stream cut inside a
// packet, or reset, is worth a line like any other failure.
bool left_between_calls(int32_t code, const char *text) {
    return code == RPC_ETRANSPORT && (text == nullptr || std::strstr(text, ")=0 - short read") != nullptr);
}

void log_error(HRPC h, const char *what) {
    const char *text = nullptr;
    int32_t code = RPCReportError(h, &text);
    if (!left_between_calls(code, text))
        fprintf(stderr, "zephodbc-server[%d]: %s: error %d: %s\n", getpid(), what, code,
                text != nullptr ? text : "");
}

// A client whose machine vanished, or that stops taking its replies, must
// not hold a child (and the target's open transaction) for ever: TCP probes
// a connection idle for a minute and gives up on a peer that stays silent,
// or leaves sent data unacknowledged, for two. Fails harmlessly on a
// descriptor that is not a TCP socket.
void watch_peer(int fd) {
    const int on = 1, idle_s = 60, interval_s = 10, probes = 6;
    const unsigned int unacknowledged_ms = 120000;
    setsockopt(fd, SOL_SOCKET, SO_KEEPALIVE, &on, sizeof on);
    setsockopt(fd, IPPROTO_TCP, TCP_KEEPIDLE, &idle_s, sizeof idle_s);
    setsockopt(fd, IPPROTO_TCP, TCP_KEEPINTVL, &interval_s, sizeof interval_s);
    setsockopt(fd, IPPROTO_TCP, TCP_KEEPCNT, &probes, sizeof probes);
    setsockopt(fd, IPPROTO_TCP, TCP_USER_TIMEOUT, &unacknowledged_ms, sizeof unacknowledged_ms);
}

// The client, watched while it is served, and the key it gets to cancel its
// calls from outside (not for a client that is only refused).
class ServedClient {
public:
    ServedClient(int fd, const Config &config) : watched_(config.busy.empty()) {
        if (!watched_) return;
        watch_client(fd);
        claim_cancel_key();
    }
    ~ServedClient() {
        if (!watched_) return;
        watch_client(-1);
        release_cancel_key();
    }
    ServedClient(const ServedClient &) = delete;
    ServedClient &operator=(const ServedClient &) = delete;

private:
    bool watched_;
};

}  // namespace

int serve_descriptor(int fd, const Config &config) {
    static const std::vector<RPCFuncDesc> table = zb::function_table([](zb::Op op) {
        return entry_for(op, std::make_index_sequence<static_cast<size_t>(zb::Op::Count)>());
    });
    watch_peer(fd);
    const ServedClient served(fd, config);
    Session session(config);
    g_session = &session;
    HRPC h = RPCAllocHandle();
    if (h == nullptr) return 1;
    int status = 1;
    std::optional<int32_t> tty;
    if (RPCInitialise(h, RPC_MODE_SERVER, fd) == 0 && RPCExport(h, table.data()) == 0 &&
        (tty = tty_transport(h)) &&
        RPCSetTransportOpts(h, *tty, nullptr, nullptr, nullptr, nullptr, nullptr, nullptr,
                            nullptr) == 0) {
        // A peer that does not negotiate in time is cut off (SIGALRM ends
        // the process): connections that never speak must not pile up.
        signal(SIGALRM, SIG_DFL);
        alarm(config.negotiation_timeout);
        const int32_t connected =
            RPCConnect(h, zb::kProtocolVersion, zb::kProtocolRevision, zb::kProtocolName);
        alarm(0);
        if (connected == 0) {
            RPCRun(h);  // returns when the client leaves or the stream breaks
            log_error(h, "serving");
            status = 0;
        } else {
            log_error(h, "negotiation");
        }
        RPCDisconnect(h);
    } else {
        log_error(h, "setup");
    }
    session.close_all();
    g_session = nullptr;
    RPCTerminate(h);
    RPCFreeHandle(h);
    return status;
}

}  // namespace zbs
