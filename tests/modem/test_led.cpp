#include "support/box.h"
#include "support/case.h"
#include "support/syscall_trace.h"

#include <qzlib.h>

namespace
{

using namespace support;
using Writes = std::vector<std::string>;

constexpr const char *CLASS = "/sys/class/";
const std::string LEDS = "/sys/class/leds/";
constexpr const char *NAMES[] = {"power", "data", "net", "rssi0", "rssi1", "rssi2", "rssi3"};

struct Led : NothingLeft {
    Led()
    {
        for (const char *led : NAMES)
            for (const char *file : {"trigger", "brightness", "delay_on", "delay_off", "shot", "invert"})
                write_file(LEDS + led + "/" + file, "");
        write_file("/sys/class/gpio/sim_select/value", "1\n");
    }
    Cover classes{CLASS};
};

TEST_F(Led, modes_and_actions_are_written_in_order)
{
    const Table<unsigned, Writes, Writes> cases = {
        {0, {"trigger=none", "brightness=0"}, {"shot=1"}},
        {1, {"trigger=none", "brightness=1"}, {"invert=1"}},
        {2, {"trigger=timer", "delay_on=100", "delay_off=100"}, {"delay_on=50", "delay_off=50"}},
        {3, {"trigger=timer", "delay_on=500", "delay_off=500"}, {"delay_on=100", "delay_off=100"}},
        {4, {"trigger=oneshot"}, {}},
        {5, {}, {}},
        {~0U, {}, {}},
    };
    for (const auto &[number, set, shot] : cases) {
        const auto both = [n = number] {
            return qzlib_led_name_set("net", n) + qzlib_led_name_shot("net", n);
        };
        Writes writes = set;
        writes.insert(writes.end(), shot.begin(), shot.end());
        EXPECT_EQ(trace_writes(LEDS + "net/", both), writes);
        EXPECT_EQ(both(), 0);
        EXPECT_EQ(qzlib_led_name_set("absent", number), 0) << "not told";
        EXPECT_EQ(qzlib_led_name_shot("absent", number), number > 3 ? 0 : -1);
        EXPECT_EQ(qzlib_led_name_shot(nullptr, number), -1);
    }
    EXPECT_EQ(trace_writes(CLASS, [] { qzlib_led_name_set(nullptr, 1); }), Writes{});
    EXPECT_NE(access("/sys/class/leds/absent", F_OK), 0);
}

TEST_F(Led, second_delay_is_written_only_where_the_first_one_opens)
{
    remove((LEDS + "data/delay_on").c_str());
    EXPECT_EQ(trace_writes(LEDS + "data/", [] { qzlib_led_name_set("data", 2); }), Writes{"trigger=timer"});
    EXPECT_EQ(trace_writes(LEDS + "data/", [] { qzlib_led_name_shot("data", 2); }), Writes{});
    EXPECT_EQ(qzlib_led_name_shot("data", 2), -1);
    remove((LEDS + "net/delay_off").c_str());
    EXPECT_EQ(trace_writes(LEDS + "net/", [] { qzlib_led_name_shot("net", 3); }), Writes{"delay_on=100"});
    EXPECT_EQ(qzlib_led_name_shot("net", 3), -1);
    remove((LEDS + "net/trigger").c_str());
    EXPECT_EQ(trace_writes(LEDS + "net/", [] { qzlib_led_name_set("net", 1); }), Writes{"brightness=1"});
}

TEST_F(Led, index_is_a_place_in_the_table)
{
    for (int index = 0; index < 7; ++index) {
        const std::string led = NAMES[index];
        EXPECT_EQ(trace_writes(LEDS, [&] { qzlib_led_set(index, 4); }), Writes{led + "/trigger=oneshot"});
        EXPECT_EQ(trace_writes(LEDS, [&] { qzlib_led_shot(index, 0); }), Writes{led + "/shot=1"});
    }
    EXPECT_EQ(trace_writes(CLASS, [] { qzlib_led_set(7, 1), qzlib_led_shot(7, 0); }), Writes{});
    EXPECT_EQ(qzlib_led_set(7, 1), 0);
    EXPECT_EQ(qzlib_led_shot(7, 0), 0);
    remove((LEDS + "power/shot").c_str());
    EXPECT_EQ(qzlib_led_shot(0, 0), -1);
}

TEST_F(Led, mode_read_back_is_what_the_kernel_reports)
{
    constexpr const char *ABSENT = nullptr;
    const std::string many = "none [timer] oneshot " + std::string(400, 'x') + "\n";
    const std::string late = std::string(256, 'x') + " [none]\n";
    const Table<const char *, const char *, const char *, int> cases = {
        {"[none] timer oneshot\n", "0\n", "100\n", 0},
        {"[none] timer oneshot\n", "1\n", "100\n", 1},
        {"[none] timer oneshot", "255", "100\n", 1},
        {"[none] timer oneshot\n", ABSENT, "100\n", -1},
        {"none [timer] oneshot\n", "0\n", "100\n", 2},
        {"none [timer] oneshot\n", "0\n", "500\n", 3},
        {"none [timer] oneshot\n", "0\n", "50\n", -1},
        {"none [timer] oneshot\n", "0\n", ABSENT, -1},
        {"none timer [oneshot]\n", "1\n", "100\n", 4},
        {"none timer oneshot [heartbeat]\n", "1\n", "100\n", -1},
        {"none timer oneshot\n", "1\n", "100\n", -1},
        {"none timer\n[none]\n", "1\n", "100\n", -1}, // the first line only
        {"", "1\n", "100\n", -1},
        {ABSENT, "1\n", "100\n", -1},
        {many.c_str(), "0\n", "500\n", 3},
        {late.c_str(), "1\n", "100\n", -1}, // past the 256 bytes that are looked at
    };
    const auto put = [](const char *file, const char *content) {
        remove((LEDS + "rssi0/" + file).c_str());
        if (content != nullptr)
            write_file(LEDS + "rssi0/" + file, content);
    };
    for (const auto &[trigger, brightness, delay_on, expected] : cases) {
        put("trigger", trigger);
        put("brightness", brightness);
        put("delay_on", delay_on);
        EXPECT_EQ(qzlib_led_name_get("rssi0"), expected) << (trigger != nullptr ? trigger : "none");
    }
    EXPECT_EQ(qzlib_led_name_get(nullptr), -1);
    EXPECT_EQ(qzlib_led_name_get(std::string(5000, 'l').c_str()), -1);
}

TEST_F(Led, gpio_value_is_one_or_zero_and_read_as_a_number)
{
    EXPECT_EQ(qzlib_gpio_name_get("sim_select"), 1);
    const std::string value = "gpio/sim_select/value=";
    EXPECT_EQ(trace_writes(CLASS, [] { qzlib_gpio_name_set("sim_select", 5); }), Writes{value + "1"});
    EXPECT_EQ(trace_writes(CLASS, [] { qzlib_gpio_name_set("sim_select", 0); }), Writes{value + "0"});
    EXPECT_EQ(qzlib_gpio_name_get("sim_select"), 0);
    write_file("/sys/class/gpio/sim_select/value", "7");
    EXPECT_EQ(qzlib_gpio_name_get("sim_select"), 7);
    for (const char *name : {"absent", static_cast<const char *>(nullptr)}) {
        qzlib_gpio_name_set(name, 1);
        EXPECT_EQ(qzlib_gpio_name_get(name), -1);
    }
}

} // namespace
