// A peer that speaks the library's protocol by hand over a raw socket: the
// negotiation texts, the function table and call frames, with integers
// written in whichever byte order the test chooses. Header-only; every wait
// is bounded by the raw_peer helpers it uses.
#pragma once

#include <cstdint>
#include <cstring>
#include <optional>
#include <string>
#include <vector>

#include "helpers/raw_peer.h"

namespace zrpc::test {

// Builds a frame's bytes with integers in the chosen order.
class Wire {
public:
    explicit Wire(bool big_endian) : big_(big_endian) {}
    Wire &u8(uint8_t v) { bytes.push_back(v); return *this; }
    Wire &i16(int16_t v) { return put(static_cast<uint16_t>(v), 2); }
    Wire &i32(int32_t v) { return put(static_cast<uint32_t>(v), 4); }
    Wire &i64(int64_t v) { return put(static_cast<uint64_t>(v), 8); }
    Wire &raw(const void *data, std::size_t n) {
        const auto *p = static_cast<const uint8_t *>(data);
        bytes.insert(bytes.end(), p, p + n);
        return *this;
    }
    Wire &raw(std::initializer_list<uint8_t> list) {
        bytes.insert(bytes.end(), list);
        return *this;
    }
    Bytes bytes;

private:
    Wire &put(uint64_t v, int width) {
        for (int i = 0; i < width; ++i) {
            int shift = big_ ? (width - 1 - i) * 8 : i * 8;
            bytes.push_back(static_cast<uint8_t>(v >> shift));
        }
        return *this;
    }
    bool big_;
};

// Reads a received frame's bytes with integers in the chosen order.
class Cursor {
public:
    Cursor(Bytes data, bool big_endian) : data_(std::move(data)), big_(big_endian) {}
    uint8_t u8() { return take(1)[0]; }
    int16_t i16() { return static_cast<int16_t>(get(2)); }
    int32_t i32() { return static_cast<int32_t>(get(4)); }
    int64_t i64() { return static_cast<int64_t>(get(8)); }
    Bytes bytes(std::size_t n) {
        const uint8_t *p = take(n);
        return Bytes(p, p + n);
    }
    std::size_t left() const { return data_.size() - pos_; }
    bool overrun() const { return overrun_; }

private:
    const uint8_t *take(std::size_t n) {
        static const uint8_t zeros[64] = {};
        if (pos_ + n > data_.size()) {
            overrun_ = true;
            return zeros;
        }
        pos_ += n;
        return data_.data() + pos_ - n;
    }
    uint64_t get(int width) {
        const uint8_t *p = take(static_cast<std::size_t>(width));
        uint64_t v = 0;
        for (int i = 0; i < width; ++i) {
            int shift = big_ ? (width - 1 - i) * 8 : i * 8;
            v |= static_cast<uint64_t>(p[i]) << shift;
        }
        return v;
    }
    Bytes data_;
    std::size_t pos_ = 0;
    bool big_;
    bool overrun_ = false;
};

// What the hand-made peer announces in its parameter text.
struct PeerIdentity {
    std::string system = "TestOS";
    std::string pointer_size = "4";
    std::string tracing;
    std::string marker = "\x11\x99";  // 0x1199 as a big-endian machine stores it
    std::string compression = "0";
    std::string sqllen_size = "4";

    std::string parameter_text() const {
        return "01:" + system + "^02:1.0^03:testcpu^04:" + pointer_size + "^05:" + tracing +
               "^06:" + marker + "^07:" + compression + "^10:" + sqllen_size + "^";
    }
};

inline bool send_text_packet(int fd, const std::string &text) {
    return send_packet(fd, text, /*with_nul=*/true);
}

// Server role on an accepted socket: magic, version, parameters, then the
// client's parameters (returned) and the table records given (each a record
// text without its leading "B").
inline std::optional<std::string> serve_negotiation(int fd, const PeerIdentity &me,
                                                    const std::string &version,
                                                    const std::vector<std::string> &records) {
    if (!send_text_packet(fd, "87FA9694") || !send_text_packet(fd, version) ||
        !send_text_packet(fd, me.parameter_text()))
        return std::nullopt;
    auto theirs = recv_packet(fd);
    if (!theirs) return std::nullopt;
    if (!send_packet(fd, "A", false)) return std::nullopt;
    for (const std::string &r : records)
        if (!send_text_packet(fd, "B" + r)) return std::nullopt;
    if (!send_packet(fd, "C", false)) return std::nullopt;
    return std::string(theirs->begin(), theirs->end());
}

// What a hand-made client learns from a library server.
struct ServerHello {
    std::string magic, version, parameters;
    std::vector<std::string> records;  // each "B...": as received, zero dropped
};

// Client role on a connected socket.
inline std::optional<ServerHello> client_negotiation(int fd, const PeerIdentity &me) {
    ServerHello hello;
    auto text = [](const Bytes &b) {
        std::string s(b.begin(), b.end());
        if (!s.empty() && s.back() == '\0') s.pop_back();
        return s;
    };
    auto magic = recv_packet(fd), version = recv_packet(fd), params = recv_packet(fd);
    if (!magic || !version || !params) return std::nullopt;
    hello.magic = text(*magic);
    hello.version = text(*version);
    hello.parameters = text(*params);
    if (!send_text_packet(fd, me.parameter_text())) return std::nullopt;
    auto start = recv_packet(fd);
    if (!start || *start != bytes_of("A")) return std::nullopt;
    for (;;) {
        auto record = recv_packet(fd);
        if (!record) return std::nullopt;
        if (*record == bytes_of("C")) return hello;
        hello.records.push_back(text(*record));
    }
}

}  // namespace zrpc::test
