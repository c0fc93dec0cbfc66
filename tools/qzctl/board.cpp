// SPDX-License-Identifier: MIT
// led, gpio, watchdog, sys: the board.
#include "print.h"

#include <cerrno>
#include <cstring>
#include <dirent.h>
#include <utility>

namespace qzctl
{
namespace
{

constexpr const char *LED_FOLDER = "/sys/class/leds";
constexpr const char *GPIO_FOLDER = "/sys/class/gpio";
constexpr const char *WATCHDOG = "/dev/mdm9x07_watchdog";
constexpr size_t LED_NAME_MAX = 35; // the library's paths end after 62 characters
constexpr size_t GPIO_NAME_MAX = 40;

constexpr const char *MODES[] = {"off", "on", "fast", "slow", "oneshot", "fire", "invert", "50ms", "100ms"};
constexpr unsigned ACTIONS = QZLIB_LED_ONE_SHOT + 1; // from here on

int by_name(const dirent **a, const dirent **b)
{
    return strverscmp((*a)->d_name, (*b)->d_name);
}

// Calls take(name) for everything in a folder that has a file of that name in it. @return DONE or NO
template <typename Take>
int for_each_in(const char *folder, const char *file, Take take)
{
    dirent **entries = nullptr;
    const int count = scandir(
        folder, &entries, [](const dirent *entry) { return entry->d_name[0] == '.' ? 0 : 1; }, by_name);
    if (count < 0)
        return say_errno(folder);
    for (int i = 0; i < count; ++i) {
        char path[512];
        (void)snprintf(path, sizeof path, "%s/%s/%s", folder, entries[i]->d_name, file);
        if (access(path, F_OK) == 0)
            take(entries[i]->d_name);
        free(entries[i]);
    }
    free(entries);
    return DONE;
}

// Whether the file is there for reading or writing; says it where not.
bool is_accessible(const char *folder, const char *name, const char *file, int how)
{
    char path[512];
    (void)snprintf(path, sizeof path, "%s/%s/%s", folder, name, file);
    return access(path, how) == 0 || say_errno(path) == DONE;
}

const char *mode_of(const char *name)
{
    const int mode = qzlib_led_name_get(name);
    return mode < 0 ? nullptr : MODES[mode];
}

// The library skips what it cannot open, so the file that each mode needs is looked at first.
int set_led(const char *name, unsigned mode)
{
    if (mode < ACTIONS) {
        if (!is_accessible(LED_FOLDER, name, "trigger", W_OK))
            return NO;
        (void)qzlib_led_name_set(name, mode);
        return DONE;
    }
    if (qzlib_led_name_shot(name, mode - ACTIONS) != 0)
        return say(NO, "%s: %s is for a light that blinks or fires: %s", name, MODES[mode], strerror(errno));
    return DONE;
}

int list_leds(const Arguments &arguments)
{
    const Json list = new_list();
    const int status = for_each_in(LED_FOLDER, "trigger", [&](const char *name) {
        Json record = new_record();
        put(record, "name", name);
        put(record, "mode", mode_of(name));
        append(list, std::move(record));
    });
    return status == DONE ? print_list(arguments, list) : status;
}

int list_gpios(const Arguments &arguments)
{
    const Json list = new_list();
    const int status = for_each_in(GPIO_FOLDER, "value", [&](const char *name) {
        Json record = new_record();
        put(record, "name", name);
        put_number(record, "value", qzlib_gpio_name_get(name));
        append(list, std::move(record));
    });
    return status == DONE ? print_list(arguments, list) : status;
}

} // namespace

int led(const Arguments &arguments)
{
    if (arguments.count == 0)
        return list_leds(arguments);
    const char *name = check_file_name("the light", arguments.word(0), LED_NAME_MAX);
    if (arguments.has(JSON))
        refuse("--json is for the list of the lights");
    if (arguments.count == 2)
        return set_led(name, check_word("the mode", arguments.word(1), MODES));
    if (!is_accessible(LED_FOLDER, name, "trigger", R_OK))
        return NO;
    const char *mode = mode_of(name);
    if (mode == nullptr)
        return say(NO, "%s: its trigger is none of qzctl's modes", name);
    (void)puts(mode);
    return DONE;
}

int gpio(const Arguments &arguments)
{
    if (arguments.count == 0)
        return list_gpios(arguments);
    const char *name = check_file_name("the GPIO", arguments.word(0), GPIO_NAME_MAX);
    if (arguments.has(JSON))
        refuse("--json is for the list of the GPIOs");
    const bool sets = arguments.count == 2;
    const unsigned value = sets ? check_number("the value", arguments.word(1), 0, 1) : 0;
    if (!is_accessible(GPIO_FOLDER, name, "value", sets ? W_OK : R_OK))
        return NO;
    if (sets) {
        qzlib_gpio_name_set(name, static_cast<int>(value));
        const int now = qzlib_gpio_name_get(name);
        return now == static_cast<int>(value) ? static_cast<int>(DONE)
                                              : say(NO, "%s: it is %d all the same: an input?", name, now);
    }
    (void)printf("%d\n", qzlib_gpio_name_get(name));
    return DONE;
}

// The library's result does not say why the device cannot be opened.
int watchdog_feed(const Arguments & /*arguments*/)
{
    return access(WATCHDOG, W_OK) == 0 && qzlib_watchdog_feed() == 1 ? static_cast<int>(DONE)
                                                                     : say_errno(WATCHDOG);
}

int watchdog_stop(const Arguments & /*arguments*/)
{
    return access(WATCHDOG, W_OK) == 0 && qzlib_watchdog_stop() >= 0 ? static_cast<int>(DONE)
                                                                     : say_errno(WATCHDOG);
}

// ---- sys
namespace
{

void put_text(const Json &record, const char *key, int (*read)(char *out))
{
    char text[257] = "";
    put(record, key, read(text) == 0 ? text : nullptr);
}

void put_known(const Json &record, const char *key, int number)
{
    if (number < 0)
        put(record, key, nullptr);
    else
        put_number(record, key, number);
}

void put_identity(const Json &record)
{
    static const char *const MODULES[] = {nullptr, "EC20", "SLM750", "SIM7600CE"};
    static const char *const BOARDS[] = {nullptr, "K31", "K52R", "K52T"};
    put_text(record, "model", qzlib_get_device_model);
    put_text(record, "device_id", qzlib_get_device_sn);
    char number[257] = "";
    put(record, "serial_number", qzlib_get_dev_sn(number, sizeof number - 1) == 0 ? number : nullptr);
    put(record, "board", BOARDS[qzlib_get_board_type()]);
    put(record, "module", MODULES[qzlib_get_moduel_type()]);
    put_text(record, "hardware", qzlib_get_device_hwversion);
    put_text(record, "firmware", qzlib_get_device_softversion);
    put_text(record, "boot_loader", qzlib_get_device_bootversion);
    put_text(record, "kernel", qzlib_get_device_kernelversion);
    put_text(record, "web_pages", qzlib_get_device_webversion);
    put(record, "library", QZLIB_VERSION);
}

void put_processor(const Json &record)
{
    char text[64];
    (void)snprintf(text, sizeof text, "%s %s %s", qzlib_get_cpu_vender(), qzlib_get_cpu_model(),
                   qzlib_get_cpu_freq());
    put(record, "processor", text);
    (void)snprintf(text, sizeof text, "%08x", qzlib_get_cpuid());
    put(record, "processor_id", text);
    put_known(record, "processor_use_percent", qzlib_get_cpu_use_percent());
    put_known(record, "temperature", qzlib_get_cputempture());
}

} // namespace

int sys(const Arguments &arguments)
{
    const Json record = new_record();
    put_identity(record);
    put_number(record, "uptime_s", qzlib_get_system_uptime());
    put_known(record, "memory_kB", qzlib_get_total_mem_size());
    put_known(record, "memory_available_kB", qzlib_get_free_mem_size());
    put_processor(record);
    return print_record(arguments, record);
}

} // namespace qzctl
