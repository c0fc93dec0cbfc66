// SPDX-License-Identifier: MIT
// The names of things on both sides: packets of the bus, topics of the broker, and which may pass.
#pragma once

#include <optional>
#include <string>
#include <string_view>
#include <vector>

namespace mqtt
{

// Why a text can be no name of a packet that has a topic, or null: names are 1 to max printable ASCII
// characters without MQTT's wildcards.
const char *fault_of_name(std::string_view name, size_t max);

// Patterns as file names have them: *, ? and [...]; a list without any matches nothing.
using Patterns = std::vector<std::string>;
bool matches(const Patterns &patterns, const std::string &name);

// Where an order is to go.
struct Address {
    std::string name;
    int type = 0;
};

class Topics
{
public:
    // Both were checked before: no wildcards, nothing unprintable.
    Topics(const std::string &prefix, const std::string &router) : base_(prefix + "/" + router + "/") {}

    [[nodiscard]] std::string of_packet(const std::string &name, unsigned type) const
    {
        return base_ + "bus/" + name + "/" + std::to_string(type);
    }
    [[nodiscard]] std::string of_status(const std::string &name) const { return base_ + "status/" + name; }
    [[nodiscard]] std::string state() const { return base_ + "state"; }
    [[nodiscard]] std::string dropped() const { return base_ + "dropped"; }
    // What the router listens to.
    [[nodiscard]] std::string orders() const { return base_ + "send/#"; }

    // Takes the topic of an order apart; nothing, and why, when it is none.
    [[nodiscard]] std::optional<Address> address(std::string_view topic, const char *&why) const;

private:
    std::string base_;
};

// For a line of the log: of foreign texts the first bytes, and '?' for what cannot be printed.
std::string printable(std::string_view text);

} // namespace mqtt
