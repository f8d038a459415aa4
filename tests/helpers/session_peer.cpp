#include "helpers/session_peer.h"

#include <gtest/gtest.h>
#include <unistd.h>

#include <chrono>
#include <string>


namespace zrpc::test {
namespace {

std::string text_of(const Bytes &bytes) { return std::string(bytes.begin(), bytes.end()); }

RPCFuncDesc make_desc(const char *name, std::initializer_list<RPCParam> params) {
    RPCFuncDesc d{};
    d.name = const_cast<char *>(name);
    int i = 0;
    for (const RPCParam &p : params) d.params[i++] = p;
    return d;
}

RPCParam param(uint32_t flags, const char *name, int32_t length) {
    RPCParam p{};
    p.flags = flags;
    p.name = const_cast<char *>(name);
    p.length = length;
    return p;
}

}  // namespace

TestHandle::TestHandle(int32_t mode, int32_t server_descriptor) : h_(RPCAllocHandle()) {
    RPCInitialise(h_, mode, server_descriptor);
}

TestHandle::~TestHandle() {
    if (h_->state >= RPC_STATE_OPTIONS_SET) RPCDisconnect(h_);
    if (h_->state != RPC_STATE_ALLOCATED) RPCTerminate(h_);
    RPCFreeHandle(h_);
}

void use_tcp_server(HRPC h, uint16_t port) {
    const std::string p = std::to_string(port);
    ASSERT_EQ(RPCSetTransportOpts(h, 1, nullptr, p.c_str(), nullptr, nullptr, nullptr, nullptr,
                                  nullptr),
              0);
    ASSERT_EQ(RPCSetLowLTransportOpts(h, 2, RPC_LOWL_RCVLOWAT, "1", RPC_LOWL_RCVTIMEO, "10"), 0);
}

void use_tcp_client(HRPC h, uint16_t port, const char *attempts) {
    const std::string p = std::to_string(port);
    ASSERT_EQ(RPCSetTransportOpts(h, 1, "127.0.0.1", p.c_str(), nullptr, nullptr, nullptr,
                                  nullptr, nullptr),
              0);
    ASSERT_EQ(RPCSetLowLTransportOpts(h, 3, RPC_LOWL_RCVLOWAT, "1", RPC_LOWL_ATTEMPTS, attempts,
                                      RPC_LOWL_RCVTIMEO, "10"),
              0);
}

void use_tty(HRPC h) {
    ASSERT_EQ(RPCSetTransportOpts(h, 0, nullptr, nullptr, nullptr, nullptr, nullptr, "10", nullptr),
              0);
}

Background::Background(std::function<int32_t()> work, std::function<void()> unblock)
    : future_(std::async(std::launch::async, std::move(work))), unblock_(std::move(unblock)) {}

Background::~Background() {
    if (future_.valid()) result();
}

int32_t Background::result(int timeout_ms) {
    if (future_.wait_for(std::chrono::milliseconds(timeout_ms)) != std::future_status::ready) {
        ADD_FAILURE() << "background call did not finish in " << timeout_ms << " ms";
        if (unblock_) unblock_();
    }
    return future_.get();
}

Background connect_server_async(HRPC h, uint16_t port, int32_t v1, int32_t v2, const char *uid) {
    return Background([=] { return RPCConnect(h, v1, v2, uid); },
                      [port] {
                          int fd = connect_loopback(port);
                          if (fd >= 0) close(fd);
                      });
}

std::string own_parameters() {
    std::string text = "01:";
    text += QXRPCGetSystemType(nullptr);
    text += "^02:";
    text += QXRPCGetSystemInformation(nullptr);
    text += "^03:";
    text += QXRPCGetProcessorType(nullptr);
    // Tracing empty; the marker 0x1199 as a little-endian machine stores it.
    text += std::string("^04:8^05:^06:\x99\x11^07:1^10:8^", 26);
    return text;
}

std::vector<std::string> raw_client_handshake(int fd, std::string_view params) {
    std::vector<std::string> got;
    for (int i = 0; i < 3; ++i) {
        auto packet = recv_packet(fd);
        if (!packet) return {};
        got.push_back(text_of(*packet));
    }
    if (!send_packet(fd, params, true)) return {};
    for (;;) {
        auto packet = recv_packet(fd);
        if (!packet) return {};
        got.push_back(text_of(*packet));
        if (got.back() == "C") return got;
    }
}

std::string raw_server_handshake(int fd, std::string_view version, std::string_view params,
                                 const std::vector<std::string> &records) {
    if (!send_packet(fd, "87FA9694", true) || !send_packet(fd, version, true) ||
        !send_packet(fd, params, true))
        return "";
    auto theirs = recv_packet(fd);
    if (!theirs) return "";
    if (!send_packet(fd, "A", false)) return "";
    for (const std::string &record : records)
        if (!send_packet(fd, record, true)) return "";
    if (!send_packet(fd, "C", false)) return "";
    return text_of(*theirs);
}

RawServer::RawServer() { use_tcp_client(client, listener.port(), "1"); }
RawServer::~RawServer() { hang_up(); }

Background RawServer::start() {
    Background pending([this] { return RPCConnect(client, 3, 1, "abc"); });
    fd = listener.accept_one();
    return pending;
}

void RawServer::send_all(const std::vector<std::string> &packets) {
    for (const std::string &p : packets) ASSERT_TRUE(send_packet(fd, p, false));
}

void RawServer::hang_up() {
    if (fd >= 0) close(fd);
    fd = -1;
}

RawClient::RawClient() : port(free_port()) { use_tcp_server(server, port); }
RawClient::~RawClient() { hang_up(); }

Background RawClient::start() {
    Background pending = connect_server_async(server, port);
    fd = connect_loopback_retry(port);
    return pending;
}

void RawClient::hang_up() {
    if (fd >= 0) close(fd);
    fd = -1;
}

Reported report(HRPC h) {
    const char *text = nullptr;
    int32_t code = RPCReportError(h, &text);
    return {code, text ? text : "<null>"};
}

const RPCFuncDesc *sample_table() {
    static const RPCFuncDesc table[] = {
        make_desc("alpha", {param(RPC_INT32 | RPC_IN, "count", 0),
                            param(RPC_MEM | RPC_OUT, nullptr, 64), param(RPC_HANDLE | RPC_IN, "h", 0)}),
        make_desc("beta", {}),
        make_desc("gamma", {param(RPC_INT16 | RPC_IN | RPC_OUT, "", 0),
                            param(RPC_SQLLEN_ARRAY | RPC_IN, "lens", 80)}),
        RPCFuncDesc{},
    };
    return table;
}

}  // namespace zrpc::test
