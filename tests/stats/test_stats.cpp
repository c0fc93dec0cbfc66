#include "support/network.h"
#include "support/syslog_sink.h"

#include <gtest/gtest.h>
#include <qzlib.h>

#include <chrono>
#include <sys/inotify.h>
#include <thread>

namespace
{

using support::FakeFile;
using support::sh;

TEST(Uptime, is_what_the_kernel_file_says_unscaled)
{
    const unsigned before = static_cast<unsigned>(std::stoul(support::read_file("/proc/uptime")));
    const unsigned seconds = qzlib_get_system_uptime();
    EXPECT_GE(seconds, before);
    EXPECT_LE(seconds, before + 60);
    const unsigned long long ms = qzlib_get_system_uptime_ms();
    EXPECT_GE(ms / 1000, seconds);
    EXPECT_LE(ms / 1000, seconds + 60);
    EXPECT_LT(ms % 1000, 100U) << "hundredths are not scaled";

    const FakeFile file("/proc/uptime", "");
    const struct {
        std::string content;
        unsigned seconds;
        unsigned long long ms;
    } cases[] = {
        {"100.05 200.00\n", 100, 100005},
        {"12.3 4\n", 12, 12003},
        {"7 8\n", 7, 7000},
        {"7\n.55\n", 7, 7000},                   // the first line only
        {"4294967297.01 1\n", 1, 4294967297001}, // past 32 bits of seconds
        {"", 0, 0},
        {std::string(62, '0') + "12.99\n", 1, 1000}, // 63 characters count
    };
    for (const auto &c : cases) {
        file.set(c.content);
        EXPECT_EQ(qzlib_get_system_uptime(), c.seconds) << c.content;
        EXPECT_EQ(qzlib_get_system_uptime_ms(), c.ms) << c.content;
    }
}

TEST(Memory, is_what_the_kernel_file_says)
{
    const auto kernel = [](const char *key) {
        return std::stoi(sh(std::string("awk '/^") + key + ":/{print $2}' /proc/meminfo"));
    };
    EXPECT_EQ(qzlib_get_total_mem_size(), kernel("MemTotal"));
    EXPECT_NEAR(qzlib_get_free_mem_size(), kernel("MemAvailable"), kernel("MemTotal") / 10);
    EXPECT_NEAR(qzlib_get_mem_use_percent(), 100.0 * kernel("MemAvailable") / kernel("MemTotal"), 10);

    const FakeFile file("/proc/meminfo", "");
    const struct {
        std::string content;
        int total, available, percent;
    } cases[] = {
        {"MemTotal:       100000 kB\nMemFree: 1 kB\nMemAvailable:    25000 kB\n", 100000, 25000, 25},
        {"MemAvailable: 1 kB\nMemTotal: 3 kB\n", 3, 1, 33},
        {"MemTotal: 100000 kB\nMemFree: 5 kB\n", 100000, 0, -1}, // older kernels
        {"MemTotal: 0 kB\nMemAvailable: 5 kB\n", 0, 5, -1},
        {"xMemTotal:7\nyMemAvailable:7", 7, 7, 100},
        {"MemTotal: 60000000 kB\nMemAvailable: 50000000 kB\n", 60000000, 50000000,
         11}, // 32 bits: (5e9 mod 2^32) / 6e7
        {"MemTotal: 9 kB\nMemTotal: 8 kB\nMemAvailable: 9 kB\nMemAvailable: 1 kB\n", 9, 9, 112},
        {std::string(127, 'x') + "MemTotal: 4 kB\n" + std::string(120, 'x') + "MemAvailable: 4 kB\n", 4, 0,
         -1},
        {"", 0, 0, -1},
    };
    for (const auto &c : cases) {
        file.set(c.content);
        EXPECT_EQ(qzlib_get_total_mem_size(), c.total) << c.content;
        EXPECT_EQ(qzlib_get_free_mem_size(), c.available) << c.content;
        EXPECT_EQ(qzlib_get_mem_use_percent(), c.percent) << c.content;
    }
}

TEST(CpuUse, is_a_percentage_over_one_second)
{
    const auto start = std::chrono::steady_clock::now();
    const int percent = qzlib_get_cpu_use_percent();
    EXPECT_GE(std::chrono::steady_clock::now() - start, std::chrono::seconds(1));
    EXPECT_GE(percent, 0);
    EXPECT_LE(percent, 100);
}

TEST(CpuUse, is_the_difference_of_two_samples)
{
    const struct {
        const char *before, *after;
        int percent;
    } cases[] = {
        {"cpu 0 0 0 0 0 0 0\n", "cpu 10 10 10 40 10 10 10\n", 60},      // waiting and interrupts are busy
        {"cpu 0 0 0 0 0 0 0 0 0\n", "cpu 1 0 0 2 0 0 0 900 900\n", 33}, // stolen time is not looked at
        {"cpu 5 5 5 5 5 5 5\n", "cpu 5 5 5 5 5 5 5\n", 0},
        {"cpu 4294967290 0 0 4294967290 0 0 0\n", "cpu 4294967300 0 0 4294967320 0 0 0\n",
         25}, // past 32 bits
    };
    for (const auto &c : cases) {
        const FakeFile file("/proc/stat", c.before);
        const int watch = inotify_init1(IN_CLOEXEC);
        inotify_add_watch(watch, "/proc/stat", IN_ACCESS);
        std::thread later([&] { // as soon as the first sample is taken
            char event[512];
            (void)!read(watch, event, sizeof event);
            file.set(c.after);
        });
        EXPECT_EQ(qzlib_get_cpu_use_percent(), c.percent) << c.after;
        later.join();
        close(watch);
    }
}

TEST(Statistics, without_files_are_logged_but_for_the_uptime_and_close_them)
{
    support::SyslogSink sink;
    syslog(LOG_ERR, "connects");
    sink.next();
    {
        const support::NoDescriptors none;
        EXPECT_EQ(qzlib_get_system_uptime(), 0U);
        EXPECT_EQ(qzlib_get_system_uptime_ms(), 0U);
        EXPECT_EQ(qzlib_get_total_mem_size(), -1);
        EXPECT_EQ(qzlib_get_free_mem_size(), -1);
        EXPECT_EQ(qzlib_get_mem_use_percent(), -1);
        EXPECT_EQ(qzlib_get_cpu_use_percent(), -1);
    }
    const size_t descriptors = support::open_descriptors();
    qzlib_get_system_uptime_ms();
    qzlib_get_mem_use_percent();
    qzlib_get_free_mem_size();
    EXPECT_EQ(support::open_descriptors(), descriptors);
    for (const char *text :
         {"can't open /proc/meminfo{system_api->", "can't open /proc/meminfo{system_api->",
          "can't open /proc/meminfo{system_api->", "fopen /proc/stat fail\n{system_api->"}) {
        const std::string line = sink.next();
        EXPECT_EQ(line.compare(0, 4, "<12>"), 0) << line; // a warning
        EXPECT_NE(line.find(text), std::string::npos) << line;
    }
    EXPECT_EQ(sink.next(), "");
}

} // namespace
