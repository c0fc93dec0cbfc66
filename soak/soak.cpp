// SPDX-License-Identifier: MIT
// A router's day in some minutes: soak MINUTES, in a box. A bus with 20 clients that send each other numbered
// packets, a modem with changing faults, configuration, environment and commands; the server and clients
// are killed and started again. Prints what was counted; status 1 when something is missing, or grew.
#include <qzlib.h>

#include <algorithm>
#include <array>
#include <atomic>
#include <chrono>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <fcntl.h>
#include <fstream>
#include <map>
#include <random>
#include <string>
#include <sys/mman.h>
#include <sys/prctl.h>
#include <sys/wait.h>
#include <unistd.h>

namespace
{

using Clock = std::chrono::steady_clock;

constexpr unsigned CLIENTS = 20;
constexpr unsigned FIRST_STOPPED = 10; // those before run all the time
constexpr unsigned FIRST_KILLED = 15;  // those before are stopped now and then
// Bytes of a packet. One for a client that is just not there goes to all the others, and may be dropped
// there: the bytes that were dropped tell how many there were of both.
constexpr uint64_t LENGTH = 64;
constexpr uint64_t LENGTH_FOR_KILLED = 1021;
constexpr const char *MODEM = "/tmp/modem";

struct Message {
    uint32_t from, to, number, sum;
};

struct Pair {
    uint32_t accepted; // by the sender's ring
    uint32_t expected; // next by the receiver
    uint32_t missing, twice;
};

struct Shared {
    std::atomic<bool> quiet, stop;
    std::atomic<unsigned> joined, torn, rejoined, refused, commands, answers;
    Pair pairs[CLIENTS][CLIENTS];
    struct {
        uint32_t to, next;
    } under_way[CLIENTS]; // past what a killed sender may have written and not counted
    uint64_t dropped[CLIENTS];
};
Shared *shared;
int failures = 0;

void expect(bool holds, const std::string &what)
{
    if (holds)
        return;
    printf("FAILED: %s\n", what.c_str());
    ++failures;
}

std::string name_of(unsigned client)
{
    return std::string("soak") + static_cast<char>('A' + client);
}

void join_bus(const std::string &name)
{
    while (qzlib_connect_mbus_server(name.c_str()) != 0 && !shared->stop)
        usleep(20'000);
}

bool send(unsigned from, unsigned to)
{
    Pair &pair = shared->pairs[from][to];
    const uint32_t number = pair.accepted;
    std::array<char, LENGTH_FOR_KILLED> packet{};
    const int length = static_cast<int>(to < FIRST_KILLED ? LENGTH : LENGTH_FOR_KILLED);
    const Message message = {from, to, number, from * 3 + to * 5 + number * 7};
    memcpy(packet.data(), &message, sizeof message);
    shared->under_way[from] = {to, number + 1};
    const bool sent = qzlib_mbus_write(nullptr, 0, name_of(to).c_str(), packet.data(), length) == length;
    pair.accepted += sent;
    shared->refused += !sent;
    return sent;
}

bool receive(unsigned own)
{
    const mbus_pkg *pkg = qzlib_mbus_read_pkg(nullptr, 1);
    if (pkg == nullptr)
        return false;
    Message message{};
    memcpy(&message, pkg->data, sizeof message);
    const auto [from, to, number, sum] = message;
    const bool whole = pkg->length == (to < FIRST_KILLED ? LENGTH : LENGTH_FOR_KILLED) && from < CLIENTS &&
                       to < CLIENTS && sum == from * 3 + to * 5 + number * 7;
    shared->torn += !whole;
    if (!whole || to != own)
        return true;
    Pair &pair = shared->pairs[from][own];
    if (number < pair.expected) {
        ++pair.twice;
        return true;
    }
    pair.missing += number - pair.expected;
    pair.expected = number + 1;
    return true;
}

[[noreturn]] void run_client(unsigned own)
{
    const std::string name = name_of(own);
    const auto [to, next] = shared->under_way[own];
    Pair &last = shared->pairs[own][to];
    last.accepted = std::max(last.accepted, next); // in an earlier life
    openmsg_com("/tmp/soak.log", 0, name.c_str(), 0);
    join_bus(name);
    ++shared->joined;
    while (shared->joined < CLIENTS)
        usleep(1000);
    std::minstd_rand random(static_cast<unsigned>(getpid()));
    while (!shared->stop) {
        for (int i = 0; i < 16 && !shared->quiet; ++i)
            if (!send(own, static_cast<unsigned>(random()) % CLIENTS))
                break;
        for (int i = 0; i < 64 && receive(own); ++i) {
        }
        debug_msg(QZLIB_LOG_INFO, nullptr, 0, "a round of %s", name.c_str());
        if (random() % 64 == 0 && qzlib_find_client_by_name(name.c_str()) == nullptr) {
            ++shared->rejoined;
            join_bus(name);
        }
        usleep(4000);
    }
    if (const mbus_client *record = qzlib_find_client_by_name(name.c_str()); record != nullptr)
        shared->dropped[own] = record->server_dropped;
    qzlib_disconnect_mbus_server();
    _exit(0);
}

[[noreturn]] void run_modem_daemon()
{
    openmsg_com("/tmp/modem.log", 0, "modem", 0);
    std::array<char, 512> answer{};
    while (!shared->stop) {
        const int fd = dev_init(MODEM, O_RDWR | O_NOCTTY | O_NONBLOCK | O_CLOEXEC, 115200);
        for (int failed = 0; fd > 0 && failed < 5 && !shared->stop;) {
            ++shared->commands;
            const bool good = chat_send_read(fd, "ATI", answer.data(), answer.size(), 1, 0) > 0 &&
                              strstr(answer.data(), "OK") != nullptr;
            shared->answers += good;
            failed = good ? 0 : failed + 1;
        }
        (void)dev_close(fd);
    }
    _exit(0);
}

template <typename Run>
pid_t start(Run run)
{
    fflush(stdout);
    const pid_t pid = fork();
    if (pid != 0)
        return pid;
    prctl(PR_SET_PDEATHSIG, SIGKILL);
    run();
    _exit(127);
}

int end(pid_t pid, int signal)
{
    int status = 0;
    if (signal != 0)
        kill(pid, signal);
    waitpid(pid, &status, 0);
    return status;
}

pid_t start_server()
{
    return start(
        [] { execl(BINARY_DIR "/bin/mbusd", "mbusd", "--quiet", "--log", "/tmp/mbusd.log", nullptr); });
}

pid_t start_client(unsigned client)
{
    return start([client] { run_client(client); });
}

// Descriptors and resident memory in KiB of a process, and the segments and zombies of all.
struct Size {
    long descriptors, kib, segments, zombies;
};

long count(const std::string &command)
{
    FILE *pipe = popen(command.c_str(), "re");
    long value = -1;
    expect(pipe != nullptr && fscanf(pipe, "%ld", &value) == 1, command);
    pclose(pipe);
    return value;
}

Size size_of(pid_t pid)
{
    const std::string proc = "/proc/" + std::to_string(pid);
    return {count("ls " + proc + "/fd | wc -l"), count("sed -n 's/^Rss: *//p' " + proc + "/smaps_rollup"),
            count("sed 1d /proc/sysvipc/shm | wc -l"),
            count("grep -l '^State:.Z' /proc/[0-9]*/status | wc -l")};
}

void write_file(const char *path, const std::string &content)
{
    std::ofstream(path) << content;
}

// What the other daemons of a router do, in turn.
void do_chore(unsigned turn)
{
    static const char *const LEVELS[] = {"debug", "info", "warn", "error"};
    static const char *const FAULTS[] = {"late=100",  "drop=3", "garbage=9", "pieces=3,20",
                                         "1:silence", "half=8", "usim"};
    const std::string value = std::to_string(turn);
    std::array<char, 256> found{};
    service_info *info = nullptr;
    srtinfo *routes = nullptr;
    switch (turn % 6) {
    case 0:
        write_file("/tmp/config/cli.conf",
                   std::string("log msg-level ") + LEVELS[turn / 6 % std::size(LEVELS)] + "\n");
        break;
    case 1:
        info = qzlib_service_info_init("soak");
        (void)qzlib_service_set_param(info, "group", ("name" + std::to_string(turn % 50)).c_str(),
                                      value.c_str());
        (void)qzlib_service_saveto_file(info, "/tmp/config/soak.conf");
        (void)qzlib_service_info_uninit(info);
        expect(qzlib_service_find_param("soak", "group", ("name" + std::to_string(turn % 50)).c_str()) == 0,
               "saved parameter");
        break;
    case 2:
        expect(qzlib_set_boot_env("soak", value.c_str()) == 0 &&
                   qzlib_get_boot_env("soak", found.data(), found.size()) == 0 && value == found.data(),
               "environment");
        break;
    case 3:
        expect(system_dumb("exit 7", 20) == 7, "command");
        break;
    case 4:
        expect(qzlib_get_tcp_latency("127.0.0.1", "9", 2000) == -1, "latency");
        routes = qz_srtinfo_stat();
        qz_srtinfo_free(&routes);
        break;
    default:
        write_file("/tmp/modem.control",
                   std::string("clear\nfault ") + FAULTS[turn / 6 % std::size(FAULTS)] + "\n");
    }
}

} // namespace

int main(int argc, char **argv)
{
    const double seconds = (argc > 1 ? atof(argv[1]) : 1) * 60;
    shared = static_cast<Shared *>(
        mmap(nullptr, sizeof(Shared), PROT_READ | PROT_WRITE, MAP_SHARED | MAP_ANONYMOUS, -1, 0));
    pid_t server = start_server();
    const pid_t modem = start([] {
        execl(BINARY_DIR "/bin/modemsim", "modemsim", "--link", MODEM, "--control", "/tmp/modem.control",
              SOURCE_DIR "/examples/modem.at", nullptr);
    });
    while (access(MODEM, F_OK) != 0 || access(QZLIB_MBUS_SOCKET, F_OK) != 0)
        usleep(10'000);
    const pid_t modem_daemon = start(run_modem_daemon);
    std::array<pid_t, CLIENTS> clients{};
    for (unsigned i = 0; i < CLIENTS; ++i)
        clients[i] = start_client(i);

    std::map<std::string, unsigned> did;
    std::map<pid_t, Size> early;
    const auto begin = Clock::now();
    const auto passed = [begin] { return std::chrono::duration<double>(Clock::now() - begin).count(); };
    for (unsigned tick = 1; passed() < seconds; ++tick) {
        usleep(100'000);
        const unsigned killed = FIRST_KILLED + tick / 10 % (CLIENTS - FIRST_KILLED);
        const unsigned stopped = FIRST_STOPPED + tick / 20 % (FIRST_KILLED - FIRST_STOPPED);
        if (tick % 4 == 0)
            do_chore(did["chores"]++);
        if (tick % 10 == 5) {
            end(clients[killed], SIGKILL);
            clients[killed] = start_client(killed);
            ++did["clients killed"];
        }
        if (tick % 20 == 7 || tick % 20 == 11)
            kill(clients[stopped], tick % 20 == 7 ? SIGSTOP : SIGCONT);
        if (tick % 100 == 50) {
            end(server, SIGKILL);
            server = start_server();
            ++did["servers killed"];
        }
        if (early.empty() && passed() > seconds / 4)
            for (const pid_t pid : {getpid(), clients[0], modem_daemon})
                early[pid] = size_of(pid);
        if (tick % 100 == 0)
            fprintf(stderr, "%3.0f %%, %u answers of the modem, %u clients and %u servers killed\n",
                    passed() * 100 / seconds, shared->answers.load(), did["clients killed"],
                    did["servers killed"]);
    }
    for (const pid_t pid : clients)
        kill(pid, SIGCONT);
    shared->quiet = true;
    write_file("/tmp/modem.control", "clear\n");
    sleep(5);
    for (const auto &[pid, before] : early) {
        const Size after = size_of(pid);
        printf("| process %s | %ld descriptors, %ld KiB, %ld segments, %ld zombies | %ld, %ld, %ld, %ld |\n",
               pid == getpid()       ? "with the chores"
               : pid == modem_daemon ? "of the modem"
                                     : "on the bus",
               before.descriptors, before.kib, before.segments, before.zombies, after.descriptors, after.kib,
               after.segments, after.zombies);
        expect(after.descriptors <= before.descriptors && after.kib <= before.kib + 200 &&
                   after.segments <= before.segments && after.zombies <= before.zombies + 1,
               "something grew");
    }
    shared->stop = true;
    for (const pid_t pid : clients)
        expect(end(pid, 0) == 0, "a client's end");
    expect(end(modem_daemon, 0) == 0, "the modem daemon's end");
    end(modem, SIGTERM);
    expect(end(server, SIGTERM) == 0, "the server's end");
    expect(count("sed 1d /proc/sysvipc/shm | wc -l") == 0, "a segment is left");

    uint64_t accepted = 0;
    uint64_t lost = 0;
    uint64_t twice = 0;
    for (unsigned to = 0; to < FIRST_KILLED; ++to) {
        uint64_t missing[2] = {}; // of senders that lived, and of all
        for (unsigned from = 0; from < CLIENTS; ++from) {
            Pair &pair = shared->pairs[from][to];
            const uint32_t all = pair.missing + pair.accepted - std::min(pair.expected, pair.accepted);
            missing[0] += from < FIRST_KILLED ? all : 0;
            missing[1] += all;
            accepted += pair.accepted;
            twice += pair.twice;
        }
        lost += missing[1];
        uint64_t counted = missing[0];
        while (counted < missing[1] && (shared->dropped[to] - counted * LENGTH) % LENGTH_FOR_KILLED != 0)
            ++counted;
        expect(counted * LENGTH <= shared->dropped[to] &&
                   (shared->dropped[to] - counted * LENGTH) % LENGTH_FOR_KILLED == 0,
               name_of(to) + ": missing " + std::to_string(missing[0]) + " to " + std::to_string(missing[1]) +
                   ", dropped " + std::to_string(shared->dropped[to]) + " bytes");
    }
    expect(shared->torn == 0, std::to_string(shared->torn) + " torn");
    expect(twice <= uint64_t{did["servers killed"]} * CLIENTS, std::to_string(twice) + " came twice");
    expect(shared->answers * 4 > shared->commands, "the modem's answers");
    printf("| packets accepted for receivers that live | %llu | torn %u, out of order or twice %llu |\n",
           static_cast<unsigned long long>(accepted), shared->torn.load(),
           static_cast<unsigned long long>(twice));
    printf("| of these not received | %llu | as many as counted as dropped, but for senders that were killed "
           "|\n",
           static_cast<unsigned long long>(lost));
    printf("| killed | %u clients, %u servers | connected again %u times |\n", did["clients killed"],
           did["servers killed"], shared->rejoined.load());
    printf("| modem commands with changing faults | %u | answered %u |\n", shared->commands.load(),
           shared->answers.load());
    printf("| changes of configuration, environment, faults; commands | %u | |\n", did["chores"]);
    return failures == 0 ? 0 : 1;
}
