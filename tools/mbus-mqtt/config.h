// SPDX-License-Identifier: MIT
// What the bridge is told: by its options, and by the service store's /tmp/config/mqtt.conf.
#pragma once

#include "topics.h"

#include <string>

namespace mqtt
{

inline constexpr const char *TOOL = "mbus-mqtt";

struct Config {
    std::string host; // name, address, or path of a local socket
    int port = 0;     // 0: that of the protocol
    std::string ca;   // file or directory; empty: no TLS
    std::string cert;
    std::string key;
    std::string user;
    std::string password;
    bool clear_password = false;
    std::string id; // the router
    std::string prefix = "routers";
    std::string name = TOOL; // in the bus
    Patterns publish;
    Patterns accept;
    Patterns status{"*"};
    size_t queue_bytes = 262'144;
    int keepalive_s = 60;
    unsigned session_s = 3600;
    unsigned retry_first_s = 2;
    unsigned retry_longest_s = 120;
    std::string log;

    [[nodiscard]] bool is_local() const { return host.front() == '/'; }
};

// Ends the process, with a sentence, where something is wrong.
Config configure(int argc, char **argv);

} // namespace mqtt
