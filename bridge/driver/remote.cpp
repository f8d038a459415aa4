#include "driver/remote.h"

#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <mutex>

namespace zbd {
namespace {

// The library's process-wide setup (its driver table) is not guarded: only
// one thread may initialise or terminate a handle at a time.
std::mutex g_library_lock;

// ZEPHODBC_CALL_LOG=path makes the driver append one line per bridged call:
// its operation. Round trips are
// the cost of a bridge; this is how to count them from outside.
void log_call(zb::Op op) {
    static std::mutex lock;
    static FILE *log = [] {
        const char *path = std::getenv("ZEPHODBC_CALL_LOG");
        return path != nullptr && *path != '\0' ? std::fopen(path, "a") : nullptr;
    }();
    if (log == nullptr) return;
    std::lock_guard<std::mutex> guard(lock);
    std::fprintf(log, "%s\n", zb::op_name(op));
    std::fflush(log);
}

std::string library_error(HRPC h) {
    const char *text = nullptr;
    RPCReportError(h, &text);
    return text != nullptr ? text : "unknown error";
}

int32_t bsd_transport(HRPC h) {
    const char *name = nullptr, *description = nullptr;
    for (int32_t i = 0; RPCEnumerateTransports(h, i, &name, &description) == 0; ++i)
        if (name != nullptr && std::strstr(name, "BSD") != nullptr) return i;
    return -1;
}

zb::DiagRecord record(const char *sqlstate, const std::string &message) {
    zb::DiagRecord r;
    r.sqlstate = sqlstate;
    r.message = "[zephodbc]" + message;
    r.class_origin = "ISO 9075";
    r.subclass_origin = std::strncmp(sqlstate, "08S01", 5) == 0 ? "ODBC 3.0" : "ISO 9075";
    return r;
}

}  // namespace

SQLRETURN add_diag(Handle &h, const char *sqlstate, const std::string &message, SQLRETURN rc) {
    h.diag.records.push_back(record(sqlstate, message));
    h.diag.rc = rc;
    return rc;
}

namespace {

constexpr const char *kOutOfMemory = "out of memory";

void free_library_handle(HRPC h) {
    RPCDisconnect(h);
    std::lock_guard<std::mutex> lock(g_library_lock);
    RPCTerminate(h);
    RPCFreeHandle(h);
}

// A library handle connected to the server at host:port, or null with the
// failure's text and code.
HRPC connect_to_server(const std::string &host, const std::string &port, int timeout_s,
                       std::string &failure, int32_t &code) {
    HRPC h;
    {
        std::lock_guard<std::mutex> lock(g_library_lock);
        h = RPCAllocHandle();
        if (h == nullptr) {
            failure = kOutOfMemory;
            return nullptr;
        }
        if (RPCInitialise(h, RPC_MODE_CLIENT, 0) != 0) failure = library_error(h);
    }
    int32_t transport = failure.empty() ? bsd_transport(h) : -1;
    if (failure.empty() &&
        (transport < 0 || RPCSetTransportOpts(h, transport, host.c_str(), port.c_str(), nullptr,
                                              nullptr, nullptr, nullptr, nullptr) != 0))
        failure = library_error(h);
    if (failure.empty()) {
        const std::string timeout = std::to_string(timeout_s);
        if (timeout_s > 0)
            RPCSetLowLTransportOpts(h, 3, RPC_LOWL_ATTEMPTS, "1", RPC_LOWL_RCVTIMEO, timeout.c_str(),
                                    RPC_LOWL_SNDTIMEO, timeout.c_str());
        else
            RPCSetLowLTransportOpts(h, 1, RPC_LOWL_ATTEMPTS, "1");
        if (RPCConnect(h, zb::kProtocolVersion, zb::kProtocolRevision, zb::kProtocolName) != 0) {
            const char *text = nullptr;
            code = RPCReportError(h, &text);
            failure = text != nullptr ? text : "unknown error";
        }
    }
    if (failure.empty()) return h;
    free_library_handle(h);
    return nullptr;
}

// One bridged call on h: the operation's return code and reply bytes, or
// false when the library failed it (its error is h's).
bool exec(HRPC h, zb::Op op, uint64_t handle, zb::Writer &request, int16_t &rc,
          std::vector<uint8_t> &reply) {
    log_call(op);
    RPCMemDesc in{};
    in.value = request.data().data();
    in.length = static_cast<int32_t>(request.size());
    RPCMemDesc out{};
    if (RPCExec(h, zb::op_name(op), reinterpret_cast<void *>(handle), &in, &rc, &out) != 0) return false;
    if (out.value != nullptr && out.length > 0)
        reply.assign(static_cast<uint8_t *>(out.value), static_cast<uint8_t *>(out.value) + out.length);
    std::free(out.value);
    return true;
}

}  // namespace

SQLRETURN open_transport(Dbc &dbc, const std::string &host, const std::string &port) {
    std::string failure;
    int32_t code = 0;
    dbc.rpc = connect_to_server(host, port, dbc.timeout, failure, code);
    if (dbc.rpc != nullptr) {
        dbc.host = host;
        dbc.port = port;
        return SQL_SUCCESS;
    }
    if (failure == kOutOfMemory) return add_diag(dbc, "HY001", failure);
    if (code == RPC_BADVER || code == RPC_BADUID)
        return add_diag(dbc, "08001",
                        "bridge protocol version mismatch: this driver speaks version " +
                            std::to_string(zb::kProtocolVersion) + "." +
                            std::to_string(zb::kProtocolRevision) + " (" + failure + ")");
    return add_diag(dbc, "08001", "cannot reach the bridge server: " + failure);
}

void close_transport(Dbc &dbc) {
    if (dbc.rpc == nullptr) return;
    free_library_handle(dbc.rpc);
    dbc.rpc = nullptr;
    dbc.remote = 0;
    dbc.cancel_key.reset();
}

SQLRETURN cancel_from_outside(const Dbc &dbc, uint64_t statement) {
    if (!dbc.cancel_key) return SQL_ERROR;
    std::string failure;
    int32_t code = 0;
    HRPC h = connect_to_server(dbc.host, dbc.port, dbc.timeout, failure, code);
    if (h == nullptr) return SQL_ERROR;
    zb::Writer w;
    zb::put_cancel_key(w, *dbc.cancel_key);
    w.u64(statement);
    int16_t rc = SQL_ERROR;
    std::vector<uint8_t> ignored;
    if (!exec(h, zb::Op::CancelCall, 0, w, rc, ignored)) rc = SQL_ERROR;
    free_library_handle(h);
    return rc;
}

Reply call(Dbc &dbc, zb::Op op, uint64_t handle, zb::Writer &request) {
    Reply reply;
    if (dbc.rpc == nullptr || dbc.broken) {
        reply.diags.push_back(record("08S01", "the connection to the bridge server was lost"));
        return reply;
    }
    int16_t rc = SQL_ERROR;
    if (!exec(dbc.rpc, op, handle, request, rc, reply.bytes)) {
        dbc.broken = true;
        reply.diags.push_back(record("08S01", "communication link failure: " + library_error(dbc.rpc)));
        return reply;
    }
    reply.rc = rc;
    try {
        zb::Reader r(reply.bytes.data(), reply.bytes.size());
        reply.diags = zb::get_diags(r);
        reply.in = r;
    } catch (const zb::DecodeError &) {
        reply.rc = SQL_ERROR;
        reply.diags.push_back(record("08S01", "malformed reply from the bridge server"));
    }
    return reply;
}

Reply call(Stmt &s, zb::Op op, zb::Writer &request) {
    const bool carries_close = op == zb::Op::Execute || op == zb::Op::Prepare || op == zb::Op::Catalog;
    if (carries_close) {
        request.data().insert(request.data().begin(), static_cast<uint8_t>(s.close_pending));
    } else if (s.close_pending && op != zb::Op::FreeStmt) {
        zb::Writer close;
        close.i16(SQL_CLOSE);
        Reply closed = call(*s.dbc, zb::Op::FreeStmt, s.remote, close);
        if (s.dbc->broken) return closed;
    }
    s.close_pending = false;
    return call(*s.dbc, op, s.remote, request);
}

SQLRETURN adopt(Handle &h, Reply &reply) {
    for (auto &d : reply.diags) h.diag.records.push_back(std::move(d));
    reply.diags.clear();
    h.diag.rc = reply.rc;
    return reply.rc;
}

}  // namespace zbd
