// SPDX-License-Identifier: MIT
// A route request as daemons send it to the routing daemon, and its strict decoding.
#pragma once

#include <array>
#include <cstdint>
#include <span>
#include <string>

namespace zservsim
{

struct Request {
    unsigned command = 0;
    unsigned type = 0;
    std::array<uint8_t, 4> prefix{}; // as sent: not masked to the length
    unsigned prefix_length = 0;
    std::string next_hop; // dotted address or interface name
    bool next_hop_is_interface = false;
    unsigned distance = 0;
};

// The length that a message states for itself; 0 while its two bytes are not there yet.
size_t stated_length(std::span<const uint8_t> bytes);

// Takes one whole message apart. Every byte must be what the format allows, none may be left
// over. Empty when it was right, else what was wrong with it.
std::string decode(std::span<const uint8_t> message, Request &request);

// "a.b.c.d/n", as sent or with the bits after the length cleared, as a routing daemon does.
std::string prefix_text(const Request &request);
std::string network_text(const Request &request);

} // namespace zservsim
