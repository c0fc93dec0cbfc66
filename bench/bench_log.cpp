// SPDX-License-Identifier: MIT
// What a log message costs beside the system calls that it cannot do without, made once by
// hand. Runs in a box, whose /dev/log it uses.
#include "ratio_reporter.h"

#include <ctime>
#include <fcntl.h>
#include <qzlib.h>
#include <sys/stat.h>
#include <syslog.h>
#include <unistd.h>

namespace
{

constexpr const char *CLI_CONF = "/tmp/config/cli.conf";
constexpr const char *LOG = "/tmp/bench.log";
constexpr int CAP = 200 * 1024;

void bare_stat(benchmark::State &state)
{
    struct stat status {
    };
    for (auto _ : state)
        benchmark::DoNotOptimize(stat(CLI_CONF, &status));
}

void filtered_message(benchmark::State &state)
{
    openmsg("bench");
    for (auto _ : state)
        debug_msg(QZLIB_LOG_DEBUG, "bench", __LINE__, "rssi %d of %s", -71, "wwan0");
}

void file_by_hand(benchmark::State &state)
{
    const char line[] = "[2026-11-21 10:00:00]<ERROR>bench:rssi -71 of wwan0\n";
    struct stat status {
    };
    for (auto _ : state) {
        benchmark::DoNotOptimize(stat(CLI_CONF, &status));
        if (stat(LOG, &status) == 0 && status.st_size >= CAP)
            unlink(LOG);
        const int fd = open(LOG, O_WRONLY | O_APPEND | O_CREAT, 0644);
        benchmark::DoNotOptimize(write(fd, line, sizeof line - 1));
        close(fd);
    }
}

void message_to_file(benchmark::State &state)
{
    openmsg_com(LOG, CAP, "bench", 0);
    for (auto _ : state)
        debug_msg(QZLIB_LOG_ERROR, "bench", __LINE__, "rssi %d of %s", -71, "wwan0");
}

void syslog_by_hand(benchmark::State &state)
{
    openmsg("bench");
    struct stat status {
    };
    for (auto _ : state) {
        benchmark::DoNotOptimize(stat(CLI_CONF, &status));
        syslog(LOG_ERR, "%s", "rssi -71 of wwan0{bench->42}");
    }
}

void message_to_syslog(benchmark::State &state)
{
    openmsg("bench");
    for (auto _ : state)
        debug_msg(QZLIB_LOG_ERROR, "bench", 42, "rssi %d of %s", -71, "wwan0");
}

BENCHMARK(bare_stat);
BENCHMARK(filtered_message);
BENCHMARK(file_by_hand);
BENCHMARK(message_to_file);
BENCHMARK(syslog_by_hand);
BENCHMARK(message_to_syslog);

} // namespace

int main()
{
    return bench::run_comparisons({{"filtered_message", "bare_stat", 1.05},
                                   {"message_to_file", "file_by_hand", 1.1},
                                   {"message_to_syslog", "syslog_by_hand", 1.1}});
}
