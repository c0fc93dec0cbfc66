// SPDX-License-Identifier: MIT
#include "support/case.h"
#include "topics.h"

namespace
{

using namespace support;

TEST(Topics, only_the_routers_own_sends_are_orders)
{
    const mqtt::Topics topics("net/a", "r1");
    EXPECT_EQ(topics.of_packet("rssi", 2), "net/a/r1/bus/rssi/2");
    EXPECT_EQ(topics.orders(), "net/a/r1/send/#");
    const std::string longest(64, 'n');
    const Table<std::string, std::string> rows = {
        {"net/a/r1/send/led/0", "led 0"},
        {"net/a/r1/send/led/3", "led 3"},
        {"net/a/r1/send/a/b/1", "a/b 1"},
        {"net/a/r1/send/" + longest + "/1", longest + " 1"},
        {"net/a/r1/send/n" + longest + "/1", "the name is too long"},
        {"net/a/r1/send//1", "the name is empty"},
        {"net/a/r1/send/led", "the topic does not end in a type from 0 to 3"},
        {"net/a/r1/send/led/4", "the topic does not end in a type from 0 to 3"},
        {"net/a/r1/send/led/01", "the topic does not end in a type from 0 to 3"},
        {"net/a/r1/send/", "the topic does not end in a type from 0 to 3"},
        {"net/a/r1/send/l\ned/1", "the name is not printable"},
        {"net/a/r1/send/l\xC3\xA9"
         "d/1",
         "the name is not printable"},
        {"net/a/r1/send/l+d/1", "the name holds + or #"},
        {"net/a/r2/send/led/1", "the topic is another's"},
        {"net/a/r1/bus/led/1", "the topic is another's"},
        {"", "the topic is another's"},
    };
    for (const auto &[topic, expected] : rows) {
        const char *why = nullptr;
        const auto address = topics.address(topic, why);
        EXPECT_EQ(address ? address->name + " " + std::to_string(address->type) : why, expected) << topic;
    }
}

TEST(Topics, a_list_without_patterns_matches_nothing)
{
    const Table<mqtt::Patterns, std::string, bool> rows = {
        {{}, "led", false},         {{"led"}, "led", true},     {{"led"}, "leds", false},
        {{"LED"}, "led", false},    {{"x", "l*"}, "led", true}, {{"*"}, "a/b", true},
        {{"l[a-e]d"}, "led", true}, {{"l?d"}, "lad", true},     {{"l[f-z]d"}, "led", false},
    };
    for (const auto &[patterns, name, expected] : rows)
        EXPECT_EQ(mqtt::matches(patterns, name), expected) << name;
}

} // namespace
