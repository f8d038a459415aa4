#include "driver/connstr.h"

#include <odbcinst.h>
#include <strings.h>

#include <cstdlib>

namespace zbd {
namespace {

bool same(const std::string &a, const char *b) { return strcasecmp(a.c_str(), b) == 0; }

std::string trim(const std::string &s) {
    size_t b = s.find_first_not_of(' '), e = s.find_last_not_of(' ');
    return b == std::string::npos ? "" : s.substr(b, e - b + 1);
}

std::optional<std::string> from_ini(const std::string &dsn, const char *key) {
    char buf[1024] = "";
    int n = SQLGetPrivateProfileString(dsn.c_str(), key, "", buf, sizeof buf, "odbc.ini");
    if (n <= 0 || buf[0] == '\0') return std::nullopt;
    return std::string(buf);
}

}  // namespace

Pairs parse_connection_string(const std::string &text) {
    Pairs out;
    size_t i = 0;
    while (i < text.size()) {
        size_t eq = text.find('=', i);
        if (eq == std::string::npos) break;
        std::string key = trim(text.substr(i, eq - i));
        std::string value;
        size_t j = eq + 1;
        if (j < text.size() && text[j] == '{') {
            for (++j; j < text.size(); ++j) {
                if (text[j] == '}') {
                    if (j + 1 < text.size() && text[j + 1] == '}') {
                        value += '}';
                        ++j;
                        continue;
                    }
                    ++j;
                    break;
                }
                value += text[j];
            }
            size_t semi = text.find(';', j);
            i = semi == std::string::npos ? text.size() : semi + 1;
        } else {
            size_t semi = text.find(';', j);
            value = text.substr(j, semi == std::string::npos ? std::string::npos : semi - j);
            i = semi == std::string::npos ? text.size() : semi + 1;
        }
        if (!key.empty()) out.emplace_back(key, value);
    }
    return out;
}

Settings resolve_settings(const Pairs &keywords) {
    Settings s;
    std::optional<std::string> dsn, server, port, target, timeout;
    for (const auto &[k, v] : keywords) {
        if (same(k, "DSN")) dsn = v;
        else if (same(k, "DRIVER") || same(k, "FILEDSN") || same(k, "SAVEFILE")) continue;
        else if (same(k, "SERVER")) server = v;
        else if (same(k, "PORT")) port = v;
        else if (same(k, "TARGETDSN")) target = v;
        else if (same(k, "TIMEOUT")) timeout = v;
        else s.pass_through.emplace_back(k, v);
    }
    if (dsn && !dsn->empty()) {
        if (!server) server = from_ini(*dsn, "Server");
        if (!port) port = from_ini(*dsn, "Port");
        if (!target) target = from_ini(*dsn, "TargetDSN");
        if (!timeout) timeout = from_ini(*dsn, "Timeout");
    }
    if (server && !server->empty()) s.server = *server;
    if (port && !port->empty()) s.port = *port;
    if (target) s.target_dsn = *target;
    if (timeout) s.timeout = std::atoi(timeout->c_str());
    return s;
}

}  // namespace zbd
