#include "support/case.h"
#include "support/log.h"

#include <sys/inotify.h>

namespace
{

using namespace support;

using Statistics = NothingLeft;

TEST_F(Statistics, of_the_uptime)
{
    const FakeFile file("/proc/uptime", "");
    const Table<std::string, unsigned, unsigned long long> cases = {
        {"100.05 200.00\n", 100, 100005},        // hundredths are not scaled
        {"7\n.55\n", 7, 7000},                   // the first line only
        {"4294967297.01 1\n", 1, 4294967297001}, // past 32 bits of seconds
        {"", 0, 0},
        {"100. 200\n", 100, 100000}, // digits only
        {"-5.07\n", 0, 0},
        {"9999999999999999999.5\n", 4294967295, 18446744073709550621U}, // the largest number
        {std::string(62, '0') + "12.99\n", 1, 1000},                    // 63 characters count
    };
    for (const auto &[content, seconds, milliseconds] : cases) {
        file.set(content);
        EXPECT_EQ(qzlib_get_system_uptime(), seconds) << content;
        EXPECT_EQ(qzlib_get_system_uptime_ms(), milliseconds) << content;
    }
}

TEST_F(Statistics, of_the_memory)
{
    const FakeFile file("/proc/meminfo", "");
    const std::string x127(127, 'x');
    const Table<std::string, int, int, int> cases = {
        {"MemAvailable:    25000 kB\nMemFree: 1 kB\nMemTotal:       100000 kB\n", 100000, 25000, 25},
        {"MemTotal: 9 kB\nMemTotal: 8 kB\nMemAvailable: 9 kB\nMemAvailable: 1 kB\n", 9, 9, 112},
        {"MemTotal: 100000 kB\nMemFree: 5 kB\n", 100000, 0, -1}, // older kernels
        {"MemTotal: 0 kB\nMemAvailable: 5 kB\n", 0, 5, -1},
        {"xMemTotal:7\nyMemAvailable:7", 7, 7, 100},
        {"MemTotal: 60000000 kB\nMemAvailable: 50000000 kB\n", 60000000, 50000000, 11},  // in 32 bits
        {x127 + "MemTotal: 4 kB\n" + x127.substr(7) + "MemAvailable: 4 kB\n", 4, 0, -1}, // pieces of 127
    };
    for (const auto &[content, total, available, percent] : cases) {
        file.set(content);
        EXPECT_EQ(qzlib_get_total_mem_size(), total) << content;
        EXPECT_EQ(qzlib_get_free_mem_size(), available) << content;
        EXPECT_EQ(qzlib_get_mem_use_percent(), percent) << content;
    }
}

TEST_F(Statistics, of_the_processor_are_the_difference_of_two_samples_a_second_apart)
{
    const Table<const char *, const char *, int> cases = {
        {"cpu 0 0 0 0 0 0 0\n", "cpu 10 10 10 40 10 10 10\n", 60},      // waiting and interrupts are busy
        {"cpu 0 0 0 0 0 0 0 0 0\n", "cpu 1 0 0 2 0 0 0 900 900\n", 33}, // stolen time is not looked at
        {"cpu 5 5 5 5 5 5 5\n", "cpu 5 5 5 5 5 5 5\n", 0},
        {"cpu 4294967290 0 0 4294967290 0 0 0\n", "cpu 4294967300 0 0 4294967320 0 0 0\n", 25},
        {"cpu 0 0 0 100 0 0 0\n", "cpu 0 0 0 50 100 0 0\n", 100}, // counters that go down
        {"cpu 0 0 0 0 100 0 0\n", "cpu 0 0 0 100 50 0 0\n", 0},
        {"cpu 100 0 0 100 0 0 0\n", "cpu 99 0 0 100 0 0 0\n", 0},
    };
    for (size_t i = 0; i < cases.size();) {
        const auto &[first, second, percent] = cases[i];
        const FakeFile file("/proc/stat", first);
        const int watch = inotify_init1(IN_CLOEXEC);
        inotify_add_watch(watch, "/proc/stat", IN_ACCESS);
        const Stopwatch stopwatch;
        double changed_s = 0;
        std::jthread later([&, content = second] { // as soon as the first sample is taken
            char event[512];
            (void)!read(watch, event, sizeof event);
            close(watch);
            file.set(content);
            changed_s = stopwatch.seconds();
        });
        const int measured = qzlib_get_cpu_use_percent();
        EXPECT_GE(stopwatch.seconds(), 1.0);
        later.join();
        if (changed_s >= 1)
            continue; // perhaps after the second sample: the machine had other work
        EXPECT_EQ(measured, percent) << second;
        ++i;
    }
}

TEST_F(Statistics, without_files_are_logged_but_for_the_uptime)
{
    SyslogSink sink;
    syslog(LOG_ERR, "connects");
    sink.next();
    {
        const NoDescriptors none;
        EXPECT_EQ(qzlib_get_system_uptime(), 0U);
        EXPECT_EQ(qzlib_get_system_uptime_ms(), 0U);
        for (const auto read : {qzlib_get_total_mem_size, qzlib_get_free_mem_size, qzlib_get_mem_use_percent,
                                qzlib_get_cpu_use_percent})
            EXPECT_EQ(read(), -1);
    }
    const std::string line = "<12>can't open /proc/meminfo{system_api\n"; // a warning
    EXPECT_EQ(sink.take(), line + line + line + "<12>fopen /proc/stat fail\n{system_api\n");
    closelog();
    ASSERT_EQ(mount("/proc/self/mem", "/proc/stat", nullptr, MS_BIND, nullptr), 0); // cannot be read
    EXPECT_EQ(qzlib_get_cpu_use_percent(), -1);
    umount2("/proc/stat", MNT_DETACH);
}

} // namespace
