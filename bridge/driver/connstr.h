// Connection settings from a connection string and the DSN's odbc.ini entry.
#pragma once

#include <optional>
#include <string>
#include <utility>
#include <vector>

namespace zbd {

using Pairs = std::vector<std::pair<std::string, std::string>>;

// KEY=VALUE;... with {braced} values; keys keep their spelling.
Pairs parse_connection_string(const std::string &text);

struct Settings {
    std::string server = "127.0.0.1";
    std::string port = "5555";
    std::string target_dsn;
    int timeout = 0;
    Pairs pass_through;  // UID, PWD and every keyword the bridge does not use
};

// Settings from the keywords, completed from the named DSN's entry in
// odbc.ini for keywords the string does not give.
Settings resolve_settings(const Pairs &keywords);

}  // namespace zbd
