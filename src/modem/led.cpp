// SPDX-License-Identifier: MIT
// Front-panel LEDs and GPIO lines through the kernel's sysfs classes. Nothing is cached:
// every step opens, writes or reads, and closes one small file.
#include "base/export.h"
#include "base/owners.h"
#include "base/text.h"

#include <algorithm>
#include <array>
#include <cstring>
#include <qzlib.h>

namespace
{

using qz::base::UniqueFd;
using qz::base::UniqueStream;

constexpr char LEDS[][6] = {"power", "data", "net", "rssi0", "rssi1", "rssi2", "rssi3"};
constexpr int FAST_BLINK_MS = 100;
constexpr int SLOW_BLINK_MS = 500;
constexpr int SHORT_SHOT_MS = 50;
constexpr int LONG_SHOT_MS = 100;

// A path that does not fit is cut, and then names no file.
struct Path {
    std::array<char, 63> text;
};

Path led_path(const char *led, const char *file)
{
    Path path;
    snprintf(path.text.data(), path.text.size(), "/sys/class/leds/%s/%s", led, file);
    return path;
}

Path gpio_path(const char *gpio)
{
    Path path;
    snprintf(path.text.data(), path.text.size(), "/sys/class/gpio/%s/value", gpio);
    return path;
}

// One write, since sysfs takes each write as a whole value. False when the file cannot be
// opened; what the kernel makes of the value is not looked at.
bool write_text(const Path &path, const char *text)
{
    const UniqueFd file(open(path.text.data(), O_WRONLY | O_TRUNC | O_CLOEXEC));
    if (!file)
        return false;
    (void)!write(file.get(), text, strlen(text));
    return true;
}

using Line = std::array<char, 256>;

bool read_first_line(const Path &path, Line &line)
{
    const UniqueStream stream = qz::base::open_for_reading(path.text.data());
    return stream && qz::base::read_line(stream.get(), line);
}

// The number in a file's first line, or -1.
int read_number(const Path &path)
{
    Line line;
    return read_first_line(path, line) ? qz::base::read_number(line.data()) : -1;
}

bool write_led(const char *led, const char *file, const char *text)
{
    return write_text(led_path(led, file), text);
}

bool write_led_number(const char *led, const char *file, int number)
{
    char text[12];
    snprintf(text, sizeof text, "%d", number);
    return write_led(led, file, text);
}

bool write_delays(const char *led, int period_ms)
{
    return write_led_number(led, "delay_on", period_ms) && write_led_number(led, "delay_off", period_ms);
}

// The trigger comes first: writing it makes the kernel create or remove the delay files.
void set_steady(const char *led, int brightness)
{
    (void)write_led(led, "trigger", "none");
    (void)write_led_number(led, "brightness", brightness);
}

void set_blinking(const char *led, int period_ms)
{
    (void)write_led(led, "trigger", "timer");
    (void)write_delays(led, period_ms);
}

int blink_mode(const char *led)
{
    switch (read_number(led_path(led, "delay_on"))) {
    case FAST_BLINK_MS:
        return QZLIB_LED_FAST_BLINK;
    case SLOW_BLINK_MS:
        return QZLIB_LED_SLOW_BLINK;
    default:
        return -1;
    }
}

int steady_mode(const char *led)
{
    Line line;
    if (!read_first_line(led_path(led, "brightness"), line))
        return -1;
    return qz::base::read_number(line.data()) != 0 ? QZLIB_LED_ON : QZLIB_LED_OFF;
}

int to_status(bool done)
{
    return done ? 0 : -1;
}

} // namespace

QZ_EXPORT int qzlib_led_name_set(const char *name, unsigned int mode)
{
    if (name == nullptr)
        return 0;
    switch (mode) {
    case QZLIB_LED_OFF:
        set_steady(name, 0);
        break;
    case QZLIB_LED_ON:
        set_steady(name, 1);
        break;
    case QZLIB_LED_FAST_BLINK:
        set_blinking(name, FAST_BLINK_MS);
        break;
    case QZLIB_LED_SLOW_BLINK:
        set_blinking(name, SLOW_BLINK_MS);
        break;
    case QZLIB_LED_ONE_SHOT:
        (void)write_led(name, "trigger", "oneshot");
        break;
    default:
        break;
    }
    return 0;
}

// The kernel lists all triggers and puts the active one in brackets.
QZ_EXPORT int qzlib_led_name_get(const char *name)
{
    Line triggers;
    if (name == nullptr || !read_first_line(led_path(name, "trigger"), triggers))
        return -1;
    if (strstr(triggers.data(), "[timer]") != nullptr)
        return blink_mode(name);
    if (strstr(triggers.data(), "[none]") != nullptr)
        return steady_mode(name);
    return strstr(triggers.data(), "[oneshot]") != nullptr ? QZLIB_LED_ONE_SHOT : -1;
}

QZ_EXPORT int qzlib_led_name_shot(const char *name, unsigned int action)
{
    if (name == nullptr)
        return -1;
    switch (action) {
    case QZLIB_LED_SHOT_FIRE:
        return to_status(write_led(name, "shot", "1"));
    case QZLIB_LED_SHOT_INVERT:
        return to_status(write_led(name, "invert", "1"));
    case QZLIB_LED_SHOT_50_MS:
        return to_status(write_delays(name, SHORT_SHOT_MS));
    case QZLIB_LED_SHOT_100_MS:
        return to_status(write_delays(name, LONG_SHOT_MS));
    default:
        return 0;
    }
}

QZ_EXPORT int qzlib_led_set(int index, unsigned int mode)
{
    const auto place = static_cast<size_t>(index); // a negative index becomes one that is far too large
    return place < std::size(LEDS) ? qzlib_led_name_set(LEDS[place], mode) : 0;
}

QZ_EXPORT int qzlib_led_shot(int index, unsigned int action)
{
    const auto place = static_cast<size_t>(index);
    return place < std::size(LEDS) ? qzlib_led_name_shot(LEDS[place], action) : 0;
}

QZ_EXPORT void qzlib_gpio_name_set(const char *name, int value)
{
    if (name != nullptr)
        (void)write_text(gpio_path(name), value != 0 ? "1" : "0");
}

QZ_EXPORT int qzlib_gpio_name_get(const char *name)
{
    return name != nullptr ? read_number(gpio_path(name)) : -1;
}
