// SPDX-License-Identifier: MIT
// Who the device is, from the files that other programs and the kernel keep.
#include "base/export.h"
#include "base/owners.h"
#include "base/text.h"

#include <algorithm>
#include <array>
#include <limits>
#include <qzlib.h>

namespace
{

using qz::base::UniqueStream;

constexpr const char *DEVICE_INFO_PATH = "/tmp/device.info";
constexpr const char *COMMAND_LINE_PATH = "/proc/cmdline";
constexpr const char *VERSION_PATH = "/proc/version";
constexpr const char *WEB_VERSION_PATH = "/data/www/version";
constexpr const char *TEMPERATURE_PATH = "/sys/devices/virtual/thermal/thermal_zone0/temp";
constexpr const char *MODEL_PATH = "/proc/device-tree/model";
constexpr const char *SETTINGS_COMMAND = "nvram show";

// The build stamp is the version's tail; qzlib_get_device_build_time() gives all of it.
constexpr char SOFTWARE_VERSION[] = "V3.2.0_1904151627";
static_assert(sizeof SOFTWARE_VERSION == 18);

constexpr size_t LINE_SIZE = 256;
using Line = std::array<char, LINE_SIZE>;

// In the order in which they are tried; a type is the place in the list, from 1.
using ModelName = char[10];
constexpr ModelName MODULES[] = {"EC20", "SLM750", "SIM7600CE"};
constexpr ModelName BOARDS[] = {"K31", "K52R", "K52T"};

// The second of the fields into which a separator parts a line, trimmed; null when the line
// has no separator.
char *second_field(char *line, char separator)
{
    char *field = strchr(line, separator);
    if (field == nullptr)
        return nullptr;
    ++field;
    if (char *end = strchr(field, separator); end != nullptr)
        *end = '\0';
    return qzlib_str_trim(field);
}

// The value in the first line that holds the key anywhere; null without such a line. It
// lies in the caller's line buffer.
char *find_value(FILE *stream, const char *key, char separator, Line &line)
{
    while (qz::base::read_full_line(stream, line))
        if (strstr(line.data(), key) != nullptr)
            return second_field(line.data(), separator);
    return nullptr;
}

// The caller provides the room.
int hand_out(char *out, const char *value)
{
    if (out == nullptr || value == nullptr)
        return -1;
    strcpy(out, value);
    return 0;
}

// The text after a key in one of the kernel's text files, of which as much is read as the buffer holds;
// null without the key.
char *find_behind(const char *path, const char *key, std::span<char> text)
{
    (void)qz::base::read_start(path, text); // without the file: no key
    char *found = strstr(text.data(), key);
    return found != nullptr ? found + strlen(key) : nullptr;
}

// A value in such a file, up to the first of some characters.
int copy_kernel_value(const char *path, const char *key, const char *end, char *out)
{
    std::array<char, 256 + 1> text;
    char *value = find_behind(path, key, text);
    if (value != nullptr)
        value[strcspn(value, end)] = '\0';
    return hand_out(out, value);
}

int type_in_model(std::span<const ModelName> names)
{
    std::array<char, 128 + 1> model;
    (void)qz::base::read_start(MODEL_PATH, model);
    for (size_t i = 0; i < names.size(); ++i)
        if (strstr(model.data(), names[i]) != nullptr)
            return static_cast<int>(i) + 1;
    return 0;
}

} // namespace

QZ_EXPORT int qzlib_get_device_system_info(const char *key, char *value_out)
{
    if (key == nullptr || value_out == nullptr)
        return -1;
    const UniqueStream stream = qz::base::open_for_reading(DEVICE_INFO_PATH);
    if (!stream)
        return -1;
    Line line;
    return hand_out(value_out, find_value(stream.get(), key, ':', line));
}

QZ_EXPORT int qzlib_get_device_hwversion(char *value_out)
{
    return qzlib_get_device_system_info("HW_Version", value_out);
}

QZ_EXPORT int qzlib_get_device_sn(char *value_out)
{
    return qzlib_get_device_system_info("devid", value_out);
}

QZ_EXPORT int qzlib_get_device_model(char *value_out)
{
    return qzlib_get_device_system_info("devmodel", value_out);
}

QZ_EXPORT int qzlib_get_device_bootversion(char *out)
{
    return copy_kernel_value(COMMAND_LINE_PATH, "boot_version=", " \t\r\n", out);
}

QZ_EXPORT int qzlib_get_device_kernelversion(char *out)
{
    return copy_kernel_value(VERSION_PATH, "kernel_version=", "\n", out);
}

QZ_EXPORT int qzlib_get_device_webversion(char *out)
{
    std::array<char, 64 + 1> version;
    if (!qz::base::read_start(WEB_VERSION_PATH, version))
        return -1;
    return hand_out(out, qzlib_str_trim(version.data()));
}

QZ_EXPORT int qzlib_get_device_softversion(char *out)
{
    return hand_out(out, SOFTWARE_VERSION);
}

QZ_EXPORT int qzlib_get_device_build_time(char *out)
{
    return hand_out(out, SOFTWARE_VERSION);
}

QZ_EXPORT unsigned int qzlib_get_cpuid(void)
{
    std::array<char, 512 + 1> text;
    const char *number = find_behind(COMMAND_LINE_PATH, "androidboot.serialno=", text);
    if (number == nullptr)
        return 0;
    // As a 32-bit strtoul() would have it on every machine: a longer number is the largest.
    constexpr long long MAXIMUM = std::numeric_limits<uint32_t>::max();
    return static_cast<unsigned int>(std::min(strtoll(number, nullptr, 16), MAXIMUM));
}

QZ_EXPORT int qzlib_get_cputempture(void)
{
    const UniqueStream stream = qz::base::open_for_reading(TEMPERATURE_PATH);
    Line line;
    if (!stream || !qz::base::read_line(stream.get(), line))
        return -1;
    return qz::base::read_number(line.data());
}

QZ_EXPORT int qzlib_get_moduel_type(void)
{
    return type_in_model(MODULES);
}

QZ_EXPORT int qzlib_get_board_type(void)
{
    return type_in_model(BOARDS);
}

QZ_EXPORT const char *qzlib_get_cpu_vender(void)
{
    return "Qualcomm";
}

QZ_EXPORT const char *qzlib_get_cpu_model(void)
{
    return "MDM9607";
}

QZ_EXPORT const char *qzlib_get_cpu_freq(void)
{
    return "1GHz";
}

QZ_EXPORT int qzlib_get_dev_sn(char *out, int size)
{
    if (out == nullptr || size < 1)
        return QZLIB_ERR_ARGUMENT;
    // Ended as any stream, deliberately: the command's process is not waited for. (glibc waits for
    // it here all the same, the router's C library does not.)
    const UniqueStream pipe(popen(SETTINGS_COMMAND, "re")); // NOLINT(cert-env33-c): a fixed command
    if (!pipe)
        return -1;
    Line line;
    const char *value = find_value(pipe.get(), "hd_number", '=', line);
    if (value == nullptr)
        return -1;
    qz::base::fill_field({out, static_cast<size_t>(size)}, value);
    return 0;
}
