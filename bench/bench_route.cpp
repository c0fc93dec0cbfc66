// What a snapshot of source routing costs beside the `ip` commands that it runs: a hundred
// rules with ten routes each. Runs in a box, whose tables it fills.
#include "ratio_reporter.h"

#include <cstdio>
#include <cstdlib>
#include <fcntl.h>
#include <qzlib.h>
#include <spawn.h>
#include <sys/wait.h>
#include <unistd.h>

namespace
{

constexpr int RULES = 100;
constexpr int ROUTES = 10;

void fill_tables()
{
    FILE *ip = popen("ip link set lo up; ip -batch -", "w");
    for (int rule = 1; rule <= RULES; ++rule) {
        (void)fprintf(ip, "rule add from 10.0.0.%d lookup %d prio %d\n", rule, 1000 + rule, rule);
        for (int route = 0; route < ROUTES; ++route)
            (void)fprintf(ip, "route add 172.16.%d.0/24 dev lo table %d\n", route, 1000 + rule);
    }
    if (pclose(ip) != 0)
        exit(1);
}

void snapshot(benchmark::State &state)
{
    for (auto _ : state) {
        srtinfo *list = qz_srtinfo_stat();
        int records = 0;
        for (const srtinfo *record = list; record != nullptr; record = record->next)
            ++records;
        qz_srtinfo_free(&list);
        if (records != RULES * ROUTES)
            state.SkipWithError("records are missing");
    }
}

// Runs a command with its output thrown away, as cheaply as a program can.
void run_discarding(const char *const *words, const posix_spawn_file_actions_t &actions)
{
    pid_t pid = -1;
    if (posix_spawnp(&pid, words[0], &actions, nullptr, const_cast<char *const *>(words), environ) != 0 ||
        waitpid(pid, nullptr, 0) != pid)
        exit(1);
}

void commands_alone(benchmark::State &state)
{
    posix_spawn_file_actions_t actions;
    posix_spawn_file_actions_init(&actions);
    posix_spawn_file_actions_addopen(&actions, STDOUT_FILENO, "/dev/null", O_WRONLY, 0);
    for (auto _ : state) {
        const char *rules[] = {"ip", "rule", "ls", nullptr};
        run_discarding(rules, actions);
        for (int rule = 1; rule <= RULES; ++rule) {
            char table[16];
            (void)snprintf(table, sizeof table, "%d", 1000 + rule);
            const char *routes[] = {"ip", "route", "ls", "table", table, nullptr};
            run_discarding(routes, actions);
        }
    }
    posix_spawn_file_actions_destroy(&actions);
}

// For information: through the shell, as popen() and system() run commands.
void commands_through_a_shell(benchmark::State &state)
{
    for (auto _ : state) {
        (void)!system("ip rule ls >/dev/null");
        for (int rule = 1; rule <= RULES; ++rule) {
            char command[64];
            (void)snprintf(command, sizeof command, "ip route ls table %d >/dev/null", 1000 + rule);
            (void)!system(command);
        }
    }
}

BENCHMARK(snapshot)->UseRealTime();
BENCHMARK(commands_alone)->UseRealTime();
BENCHMARK(commands_through_a_shell)->UseRealTime();

} // namespace

int main()
{
    fill_tables();
    // Processes share the machine with everything else: many short repetitions.
    return bench::run_comparisons(
        {{"snapshot", "commands_alone", 1.1}, {"snapshot", "commands_through_a_shell", 0}}, 41);
}
