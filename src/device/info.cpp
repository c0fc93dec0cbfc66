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

using qz::base::UniqueFd;
using qz::base::UniqueStream;

constexpr const char *DEVICE_INFO_PATH = "/tmp/device.info";
constexpr const char *COMMAND_LINE_PATH = "/proc/cmdline";
constexpr const char *VERSION_PATH = "/proc/version";
constexpr const char *WEB_VERSION_PATH = "/data/www/version";
constexpr const char *TEMPERATURE_PATH = "/sys/devices/virtual/thermal/thermal_zone0/temp";
constexpr const char *MODEL_PATH = "/proc/device-tree/model";
constexpr const char *SETTINGS_COMMAND = "nvram show";

// The build stamp is the version's tail; qzlib_get_device_build_time() gives all of it.
constexpr std::string_view SOFTWARE_VERSION = "V3.2.0_1904151627";
static_assert(SOFTWARE_VERSION.size() + 1 == 18);

constexpr size_t LINE_SIZE = 256;
using Line = std::array<char, LINE_SIZE>;

// In the order in which they are tried; a type is the place in the list, from 1.
constexpr std::array<const char *, 3> MODULES = {"EC20", "SLM750", "SIM7600CE"};
constexpr std::array<const char *, 3> BOARDS = {"K31", "K52R", "K52T"};

// The first bytes of a file as text: a zeroed buffer and one spare NUL.
template <size_t SIZE>
class FileStart
{
public:
    explicit FileStart(const char *path)
    {
        const UniqueFd file(open(path, O_RDONLY | O_CLOEXEC));
        opened_ = static_cast<bool>(file);
        if (opened_)
            (void)!read(file.get(), text_.data(), SIZE); // unreadable: an empty text
    }

    explicit operator bool() const { return opened_; }
    [[nodiscard]] char *text() { return text_.data(); }

    // What stands behind a key, null without it.
    [[nodiscard]] char *behind(const char *key)
    {
        char *found = strstr(text_.data(), key);
        return found != nullptr ? found + strlen(key) : nullptr;
    }

private:
    std::array<char, SIZE + 1> text_{};
    bool opened_;
};

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

// Ends a pipe as any stream, deliberately: the command's process is not waited for. (glibc
// waits for it here all the same, the router's C library does not.) Not inlined, or GCC
// takes the missing pclose() for a mistake.
[[gnu::noinline]] int close_unwaited(FILE *pipe)
{
    return fclose(pipe);
}

using UnwaitedPipe = qz::base::UniqueHandle<FILE, close_unwaited>;

// A value in a text file of the kernel: from behind its key to the first of some characters.
int copy_kernel_value(const char *path, const char *key, const char *end, char *out)
{
    if (out == nullptr)
        return -1;
    FileStart<256> file(path);
    char *value = file.behind(key);
    if (value == nullptr)
        return -1;
    value[strcspn(value, end)] = '\0';
    strcpy(out, value);
    return 0;
}

int copy_software_version(char *out)
{
    if (out == nullptr)
        return -1;
    qz::base::copy_text({out, SOFTWARE_VERSION.size() + 1}, SOFTWARE_VERSION);
    return 0;
}

int type_in_model(std::span<const char *const> names)
{
    FileStart<128> model(MODEL_PATH);
    const auto name =
        std::ranges::find_if(names, [&](const char *n) { return strstr(model.text(), n) != nullptr; });
    return name != names.end() ? static_cast<int>(name - names.begin()) + 1 : 0;
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
    const char *value = find_value(stream.get(), key, ':', line);
    if (value == nullptr)
        return -1;
    strcpy(value_out, value);
    return 0;
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
    if (out == nullptr)
        return -1;
    FileStart<64> version(WEB_VERSION_PATH);
    if (!version)
        return -1;
    strcpy(out, qzlib_str_trim(version.text()));
    return 0;
}

QZ_EXPORT int qzlib_get_device_softversion(char *out)
{
    return copy_software_version(out);
}

QZ_EXPORT int qzlib_get_device_build_time(char *out)
{
    return copy_software_version(out);
}

QZ_EXPORT unsigned int qzlib_get_cpuid(void)
{
    FileStart<512> line(COMMAND_LINE_PATH);
    const char *number = line.behind("androidboot.serialno=");
    if (number == nullptr)
        return 0;
    // As a 32-bit strtoul() would have it on every machine: a longer number is the largest.
    constexpr unsigned long long MAXIMUM = std::numeric_limits<uint32_t>::max();
    return static_cast<unsigned int>(std::min(strtoull(number, nullptr, 16), MAXIMUM));
}

QZ_EXPORT int qzlib_get_cputempture(void)
{
    const UniqueStream stream = qz::base::open_for_reading(TEMPERATURE_PATH);
    Line line;
    if (!stream || fgets(line.data(), static_cast<int>(line.size()), stream.get()) == nullptr)
        return -1;
    return atoi(line.data()); // NOLINT(cert-err34-c): the kernel's own number
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
    const UnwaitedPipe pipe(popen(SETTINGS_COMMAND, "re")); // NOLINT(cert-env33-c): a fixed command
    if (!pipe)
        return -1;
    Line line;
    const char *value = find_value(pipe.get(), "hd_number", '=', line);
    if (value == nullptr)
        return -1;
    qz::base::fill_field({out, static_cast<size_t>(size)}, value);
    return 0;
}
