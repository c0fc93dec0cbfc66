// SPDX-License-Identifier: MIT
#include "base/export.h"
#include "base/owners.h"
#include "base/text.h"

#include <algorithm>
#include <array>
#include <cstdlib>
#include <cstring>
#include <qzlib.h>
#include <span>

namespace
{

using qz::base::UniqueFd;
using qz::base::UniqueStream;

constexpr const char *MODULE = "system_api";
constexpr size_t UPTIME_TEXT_SIZE = 64;
constexpr size_t LINE_SIZE = 128;

constexpr char TOTAL_KEY[] = "MemTotal:";
constexpr char AVAILABLE_KEY[] = "MemAvailable:";

struct Uptime {
    unsigned long long seconds = 0;
    unsigned long long fraction = 0; // the digits after the point as a number: hundredths of a second
};

// Digits only: strtoll() by itself takes blanks and a sign in front of them.
unsigned long long read_digits(const char *text, char **end = nullptr)
{
    return static_cast<unsigned char>(*text - '0') <= 9
               ? static_cast<unsigned long long>(strtoll(text, end, 10))
               : 0;
}

// By plain reads: the latency probe takes its times in a child of a threaded process, where the
// heap is better left alone.
Uptime read_uptime()
{
    std::array<char, UPTIME_TEXT_SIZE> text;
    (void)qz::base::read_start("/proc/uptime", text); // without it: zero
    Uptime uptime;
    char *end = text.data();
    uptime.seconds = read_digits(end, &end);
    if (*end == '.')
        uptime.fraction = read_digits(end + 1);
    return uptime;
}

UniqueStream open_meminfo()
{
    UniqueStream stream = qz::base::open_for_reading("/proc/meminfo");
    if (!stream)
        debug_msg(QZLIB_LOG_WARNING, MODULE, __LINE__, "can't open /proc/meminfo");
    return stream;
}

// The number after a key that may stand anywhere in the line. False without the key.
bool find_value(const char *line, const char *key, uint32_t &value)
{
    const char *at = strstr(line, key);
    if (at == nullptr)
        return false;
    value = static_cast<uint32_t>(strtoll(at + strlen(key), nullptr, 10));
    return true;
}

// kB of the first line with the key, 0 without one, -1 without the file.
int read_mem_size(const char *key)
{
    const UniqueStream stream = open_meminfo();
    if (!stream)
        return -1;
    std::array<char, LINE_SIZE> line;
    uint32_t size_kb = 0;
    while (qz::base::read_line(stream.get(), line)) {
        if (find_value(line.data(), key, size_kb))
            break;
    }
    return static_cast<int>(size_kb);
}

// Sums of clock ticks since boot, modulo 2^32.
struct CpuTicks {
    uint32_t total = 0;
    uint32_t idle = 0;
};

// "cpu user nice system idle iowait irq softirq ..."; what is missing counts as 0.
CpuTicks parse_cpu_line(const char *line)
{
    constexpr int COLUMNS = 7;
    constexpr int IDLE_COLUMN = 3;
    const char *at = line + strspn(line, " \t");
    at += strcspn(at, " \t"); // the label
    CpuTicks ticks;
    for (int column = 0; column < COLUMNS; ++column) {
        char *end = nullptr;
        const auto value = static_cast<uint32_t>(strtoll(at, &end, 10));
        if (end == at)
            break;
        at = end;
        ticks.total += value;
        if (column == IDLE_COLUMN)
            ticks.idle = value;
    }
    return ticks;
}

// Reads the file's first line afresh; false when it cannot be read. Not through a stream: rewinding
// one may leave its buffer as it was, and the second sample would be the first again.
bool read_cpu_ticks(const UniqueFd &file, CpuTicks &ticks)
{
    std::array<char, LINE_SIZE> line{};
    if (pread(file.get(), line.data(), line.size() - 1, 0) < 0)
        return false;
    line[strcspn(line.data(), "\n")] = '\0';
    ticks = parse_cpu_line(line.data());
    return true;
}

// The counters wrap at 32 bits, and single ones do go down: the idle time is then a share that does
// not exist, and a total that went down no time at all.
int cpu_percent(const CpuTicks &before, const CpuTicks &after)
{
    const auto total = static_cast<int32_t>(after.total - before.total);
    const auto idle = static_cast<int32_t>(after.idle - before.idle);
    if (total <= 0)
        return 0;
    const auto busy = static_cast<uint32_t>(total - std::clamp(idle, 0, total));
    return static_cast<int>(busy * 100 / static_cast<uint32_t>(total));
}

} // namespace

QZ_EXPORT unsigned int qzlib_get_system_uptime(void)
{
    return static_cast<unsigned>(read_uptime().seconds);
}

// The hundredths are added as they stand, not scaled: callers rely on exactly this scale.
QZ_EXPORT unsigned long long qzlib_get_system_uptime_ms(void)
{
    const Uptime uptime = read_uptime();
    return uptime.seconds * 1000 + uptime.fraction;
}

QZ_EXPORT int qzlib_get_total_mem_size(void)
{
    return read_mem_size(TOTAL_KEY);
}

QZ_EXPORT int qzlib_get_free_mem_size(void)
{
    return read_mem_size(AVAILABLE_KEY);
}

// The share that is available, in spite of the name: callers display it as it is.
QZ_EXPORT int qzlib_get_mem_use_percent(void)
{
    const UniqueStream stream = open_meminfo();
    if (!stream)
        return -1;
    std::array<char, LINE_SIZE> line;
    uint32_t total = 0;
    uint32_t available = 0;
    while ((total == 0 || available == 0) && qz::base::read_line(stream.get(), line)) {
        (void)find_value(line.data(), TOTAL_KEY, total);
        (void)find_value(line.data(), AVAILABLE_KEY, available);
    }
    if (total == 0 || available == 0)
        return -1;
    return static_cast<int>(available * 100 / total);
}

QZ_EXPORT int qzlib_get_cpu_use_percent(void)
{
    const UniqueFd file = qz::base::open_to_read("/proc/stat");
    if (!file) {
        debug_msg(QZLIB_LOG_WARNING, MODULE, __LINE__, "fopen /proc/stat fail\n");
        return -1;
    }
    CpuTicks before;
    CpuTicks after;
    if (!read_cpu_ticks(file, before))
        return -1;
    sleep(1);
    return read_cpu_ticks(file, after) ? cpu_percent(before, after) : -1;
}
