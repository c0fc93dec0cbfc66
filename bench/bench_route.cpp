// SPDX-License-Identifier: MIT
// What a snapshot of source routing costs beside the `ip` commands that it runs: a hundred
// rules with ten routes each. Runs in a box, whose tables it fills. The work is done by child
// processes and most of it is waiting for them, so that time on the clock is compared, in pairs
// that follow each other directly: what else the machine does meets both halves of a pair.
#include <algorithm>
#include <array>
#include <chrono>
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
constexpr size_t PAIRS = 31;
constexpr double LIMIT = 1.1;

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

// Runs a command with its output thrown away, as cheaply as a program can.
void run_discarding(const char *const *words, const posix_spawn_file_actions_t &actions)
{
    pid_t pid = -1;
    if (posix_spawnp(&pid, words[0], &actions, nullptr, const_cast<char *const *>(words), environ) != 0 ||
        waitpid(pid, nullptr, 0) != pid)
        exit(1);
}

void take_snapshot()
{
    srtinfo *list = qz_srtinfo_stat();
    int records = 0;
    for (const srtinfo *record = list; record != nullptr; record = record->next)
        ++records;
    qz_srtinfo_free(&list);
    if (records != RULES * ROUTES) {
        (void)fprintf(stderr, "bench_route: %d records\n", records);
        exit(1);
    }
}

void run_commands_alone()
{
    posix_spawn_file_actions_t actions;
    posix_spawn_file_actions_init(&actions);
    posix_spawn_file_actions_addopen(&actions, STDOUT_FILENO, "/dev/null", O_WRONLY, 0);
    const char *rules[] = {"ip", "rule", "ls", nullptr};
    run_discarding(rules, actions);
    for (int rule = 1; rule <= RULES; ++rule) {
        char table[16];
        (void)snprintf(table, sizeof table, "%d", 1000 + rule);
        const char *routes[] = {"ip", "route", "ls", "table", table, nullptr};
        run_discarding(routes, actions);
    }
    posix_spawn_file_actions_destroy(&actions);
}

// As popen() and system() run commands.
void run_commands_by_shell()
{
    (void)!system("ip rule ls >/dev/null");
    for (int rule = 1; rule <= RULES; ++rule) {
        char command[64];
        (void)snprintf(command, sizeof command, "ip route ls table %d >/dev/null", 1000 + rule);
        (void)!system(command);
    }
}

double seconds_of(void (*work)())
{
    const auto start = std::chrono::steady_clock::now();
    work();
    return std::chrono::duration<double>(std::chrono::steady_clock::now() - start).count();
}

// The median over pairs of how much longer a snapshot takes.
double ratio_to(void (*peer)())
{
    std::array<double, PAIRS> ratios;
    for (size_t pair = 0; pair < ratios.size(); ++pair) {
        const bool peer_first = pair % 2 == 1;
        const double before = peer_first ? seconds_of(peer) : 0;
        const double snapshot = seconds_of(take_snapshot);
        ratios[pair] = snapshot / (peer_first ? before : seconds_of(peer));
    }
    std::nth_element(ratios.begin(), ratios.begin() + PAIRS / 2, ratios.end());
    return ratios[PAIRS / 2];
}

} // namespace

int main()
{
    fill_tables();
    const double alone = ratio_to(run_commands_alone);
    const double by_shell = ratio_to(run_commands_by_shell);
    printf("| measured | against | ratio | limit |\n|---|---|---|---|\n");
    printf("| snapshot | commands_alone | %.3f | %.2f%s |\n", alone, LIMIT, alone <= LIMIT ? "" : " MISSED");
    printf("| snapshot | commands_by_shell | %.3f | |\n", by_shell);
    return alone <= LIMIT ? 0 : 1;
}
