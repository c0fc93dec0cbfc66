// SPDX-License-Identifier: MIT
// What passes the server, a line for each packet, on standard output.
#pragma once

#include <qzlib.h>
#include <string>
#include <string_view>

namespace mbusd
{

class Trace
{
public:
    // Only packets from, to or named as this name; empty: all.
    void start(std::string_view name);
    [[nodiscard]] bool is_on() const { return on_; }
    // A packet of a client was given to a client, or was dropped, as its ring is full.
    void print(std::string_view from, std::string_view to, const mbus_pkg &pkg, bool dropped);

private:
    bool on_ = false;
    std::string name_;
    unsigned long long left_out_ = 0; // lines, since the last one that was printed
};

} // namespace mbusd
