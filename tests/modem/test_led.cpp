#include "support/case.h"
#include "support/syscall_trace.h"

#include <qzlib.h>

namespace
{

using namespace support;
using Writes = std::vector<std::string>;

const std::string LEDS = "/sys/class/leds/";
constexpr const char *GPIO = "/sys/class/gpio/sim_select/value";
constexpr const char *NAMES[] = {"power", "data", "net", "rssi0", "rssi1", "rssi2", "rssi3"};

struct Led : NothingLeft {
    Led()
    {
        for (const char *led : NAMES)
            for (const char *file : {"trigger", "brightness", "delay_on", "delay_off", "shot", "invert"})
                write_file(LEDS + led + "/" + file, "");
        write_file(GPIO, "");
    }
    Cover classes{"/sys/class"};
};

TEST_F(Led, modes_and_actions_are_written_in_order)
{
    const auto set = qzlib_led_name_set, shot = qzlib_led_name_shot;
    // A file that is missing, call, light, mode, result and what is written.
    const Table<std::string, decltype(set), const char *, unsigned, int, Writes> cases = {
        {"", set, "net", 0, 0, {"trigger=none", "brightness=0"}},
        {"", set, "net", 1, 0, {"trigger=none", "brightness=1"}},
        {"", set, "net", 2, 0, {"trigger=timer", "delay_on=100", "delay_off=100"}},
        {"", set, "net", 3, 0, {"trigger=timer", "delay_on=500", "delay_off=500"}},
        {"", set, "net", 4, 0, {"trigger=oneshot"}},
        {"", set, "net", 5, 0, {}},
        {"", set, "absent", 1, 0, {}}, // not told
        {"", set, nullptr, 1, 0, {}},
        {"", shot, "net", 0, 0, {"shot=1"}},
        {"", shot, "net", 1, 0, {"invert=1"}},
        {"", shot, "net", 2, 0, {"delay_on=50", "delay_off=50"}},
        {"", shot, "net", 3, 0, {"delay_on=100", "delay_off=100"}},
        {"", shot, "net", 4, 0, {}},
        {"", shot, "absent", 3, -1, {}},
        {"", shot, nullptr, 4, -1, {}},
        {"delay_off", shot, "net", 3, -1, {"delay_on=100"}},
        {"delay_on", shot, "net", 2, -1, {}},
        {"delay_on", set, "net", 2, 0, {"trigger=timer"}},
        {"trigger", set, "net", 1, 0, {"brightness=1"}},
    };
    for (const auto &[missing, call, led, mode, result, writes] : cases) {
        SCOPED_TRACE(missing + " " + std::to_string(mode));
        if (!missing.empty())
            remove((LEDS + "net/" + missing).c_str());
        EXPECT_EQ(
            trace_writes(LEDS + "net/", [&, act = call, name = led, chosen = mode] { act(name, chosen); }),
            writes);
        EXPECT_EQ(call(led, mode), result);
        write_file(LEDS + "net/" + (missing.empty() ? "trigger" : missing), "");
    }
}

TEST_F(Led, index_is_a_place_in_the_table)
{
    for (int index = 0; index < 8; ++index) {
        const auto both = [index] { return qzlib_led_set(index, 4) + qzlib_led_shot(index, 0); };
        const std::string led = index < 7 ? NAMES[index] : "";
        EXPECT_EQ(trace_writes(LEDS, both),
                  led.empty() ? Writes{} : (Writes{led + "/trigger=oneshot", led + "/shot=1"}));
        EXPECT_EQ(both(), 0);
    }
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
        {"[none] timer oneshot", "255", "100\n", 1},
        {"[none] timer oneshot\n", ABSENT, "100\n", -1},
        {"none [timer] oneshot\n", "0\n", "100\n", 2},
        {"none [timer] oneshot\n", "0\n", "500\n", 3},
        {"none [timer] oneshot\n", "0\n", "50\n", -1},
        {"none [timer] oneshot\n", "0\n", ABSENT, -1},
        {"none timer [oneshot]\n", "1\n", "100\n", 4},
        {"none timer oneshot\n", "1\n", "100\n", -1},
        {"none timer\n[none]\n", "1\n", "100\n", -1}, // the first line only
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
}

TEST_F(Led, gpio_value_is_one_or_zero_and_read_as_a_number)
{
    for (const int value : {5, 0}) {
        EXPECT_EQ(trace_writes(GPIO, [=] { qzlib_gpio_name_set("sim_select", value); }),
                  Writes{"=" + std::to_string(value != 0)});
        EXPECT_EQ(qzlib_gpio_name_get("sim_select"), value != 0);
    }
    write_file(GPIO, "7");
    EXPECT_EQ(qzlib_gpio_name_get("sim_select"), 7);
    for (const char *name : {"absent", static_cast<const char *>(nullptr)}) {
        qzlib_gpio_name_set(name, 1);
        EXPECT_EQ(qzlib_gpio_name_get(name), -1);
    }
}

} // namespace
