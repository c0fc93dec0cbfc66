// SPDX-License-Identifier: MIT
// Packets between two processes over the bus, beside what else a daemon could use: a UNIX
// datagram socket, a pipe, a POSIX message queue; and the copy alone, which nothing can beat.
// On one core and on two; then one packet to and fro, beside a bare futex in shared memory.
//
// Everything is measured in one run, interleaved, and compared by medians. The bus is
// measured in both directions: down, the client waiting in qzlib_mbus_read_pkg(), and up, the
// server waiting as mbusd does. Runs in a box, whose /tmp/mbus.sock and shared memory it uses.
#include "mbus/format.h"
#include "mbus/patience.h"

#include <benchmark/benchmark.h>
#include <qzlib.h>

#include <algorithm>
#include <cstdio>
#include <cstring>
#include <ctime>
#include <functional>
#include <linux/futex.h>
#include <map>
#include <mqueue.h>
#include <sched.h>
#include <string>
#include <sys/mman.h>
#include <sys/resource.h>
#include <sys/socket.h>
#include <sys/syscall.h>
#include <sys/wait.h>
#include <unistd.h>
#include <vector>

namespace
{

constexpr int SIZES[] = {16, 256, 1024, 4096};
constexpr int REPETITIONS = 9;
constexpr int PACKETS = 200'000;
constexpr int SLOW_PACKETS = 40'000; // of what goes through the kernel
constexpr int ROUND_TRIPS = 120'000; // times the repetitions: a million
constexpr int ROUND_TRIP_BYTES = 64;

double now()
{
    timespec time{};
    clock_gettime(CLOCK_MONOTONIC, &time);
    return static_cast<double>(time.tv_sec) + static_cast<double>(time.tv_nsec) * 1e-9;
}

double cpu_seconds()
{
    timespec time{};
    clock_gettime(CLOCK_PROCESS_CPUTIME_ID, &time);
    return static_cast<double>(time.tv_sec) + static_cast<double>(time.tv_nsec) * 1e-9;
}

void pin(int core)
{
    cpu_set_t set;
    CPU_ZERO(&set);
    CPU_SET(static_cast<size_t>(core), &set);
    sched_setaffinity(0, sizeof set, &set);
}

[[noreturn]] void give_up(const char *what)
{
    perror(what);
    _exit(1);
}

// Shared by the two processes of a measurement.
struct Board {
    int ready;
    int go;
    double first; // when the writer began, and the reader had all
    double last;
    double child_cpu;
    uint32_t word[2][16]; // of the bare futex, a cache line each
};
Board *board = static_cast<Board *>(
    mmap(nullptr, sizeof(Board), PROT_READ | PROT_WRITE, MAP_SHARED | MAP_ANONYMOUS, -1, 0));

char buffer[8192];

// The bus server's end, in this process.
struct ServerEnd {
    ServerEnd()
    {
        control = qzlib_create_listen_unixdomain(QZLIB_MBUS_SOCKET);
        if (control < 0 || qzlib_mbus_share_init() != 0)
            give_up("bus");
        share = static_cast<mbus_share_segment *>(mbus_share);
        record = &share->clients[0];
        strcpy(record->name, "bench");
        if (qzlib_client_init(record) != 0)
            give_up("segment");
    }
    // The client of the last measurement just ended; its register command is not needed.
    void reset() const
    {
        while (read(control, buffer, sizeof buffer) > 0) {
        }
    }
    int control;
    mbus_share_segment *share;
    mbus_client *record;
};
ServerEnd *server;

void connect_client()
{
    if (qzlib_connect_mbus_server("bench") != 0)
        give_up("connect");
}

void write_packets(mbus_client *record, int size, int count)
{
    mbus_pkg pkg{};
    pkg.length = static_cast<uint32_t>(size);
    pkg.data = buffer;
    while (count > 0) {
        if (qzlib_mbus_write_pkg(record, &pkg) == 0)
            --count;
        else
            sched_yield(); // full: the reader's turn
    }
}

// As mbusd waits for packets in the up rings.
mbus_pkg *read_up()
{
    static qz::mbus::Patience patience;
    const auto has_packet = [] {
        return __atomic_load_n(&server->record->up_write, __ATOMIC_SEQ_CST) != server->record->up_read;
    };
    for (;;) {
        mbus_pkg *pkg = qzlib_mbus_read_pkg(server->record, 1);
        if (pkg != nullptr)
            return pkg;
        qz::mbus::let_writers_run(patience, has_packet);
        if (has_packet())
            continue;
        qz::mbus::Wait wait(qz::mbus::up_doorbell(*server->share), false);
        if (!has_packet())
            (void)wait.sleep(1000);
    }
}

// One way of getting packets to another process. Both functions are called in both
// processes' own: write in one, read in the other.
struct Transport {
    const char *name;
    int packets;
    bool child_writes;
    std::function<void()> open;
    std::function<void()> join; // in the child, before the clock starts
    std::function<void(int size, int count)> write;
    std::function<void(int size, int count)> read;
    std::function<void()> close;
};

int ends[2];
mqd_t queue;

void exchange(ssize_t result, int size)
{
    if (result != size)
        give_up("transfer");
}

void nothing() {}

std::vector<Transport> make_transports()
{
    const auto write_end = [](int size, int count) {
        while (count-- > 0)
            exchange(write(ends[1], buffer, static_cast<size_t>(size)), size);
    };
    const auto read_end = [](int size, int count) {
        while (count-- > 0)
            exchange(read(ends[0], buffer, static_cast<size_t>(size)), size);
    };
    const auto close_ends = [] {
        close(ends[0]);
        close(ends[1]);
    };
    return {
        {"bus_down", PACKETS, false, [] { server->reset(); }, connect_client,
         [](int size, int count) { write_packets(server->record, size, count); },
         [](int /*size*/, int count) {
             while (count-- > 0)
                 benchmark::DoNotOptimize(qzlib_mbus_read_pkg(nullptr, 0));
         },
         nothing},
        {"bus_up", PACKETS, true, [] { server->reset(); }, connect_client,
         [](int size, int count) { write_packets(qzlib_find_client_by_name("bench"), size, count); },
         [](int /*size*/, int count) {
             while (count-- > 0)
                 benchmark::DoNotOptimize(read_up());
         },
         nothing},
        {"datagram", SLOW_PACKETS, false,
         [] {
             if (socketpair(AF_UNIX, SOCK_DGRAM, 0, ends) != 0)
                 give_up("socketpair");
         },
         nothing, write_end, read_end, close_ends},
        {"pipe", SLOW_PACKETS, false,
         [] {
             if (pipe(ends) != 0)
                 give_up("pipe");
         },
         nothing, write_end, read_end, close_ends},
        {"queue", SLOW_PACKETS, false,
         [] {
             mq_attr attributes{};
             attributes.mq_maxmsg = 10;
             attributes.mq_msgsize = 4096;
             queue = mq_open("/bench", O_RDWR | O_CREAT, 0600, &attributes);
             if (queue < 0)
                 give_up("mq_open");
             mq_unlink("/bench");
         },
         nothing,
         [](int size, int count) {
             while (count-- > 0)
                 exchange(mq_send(queue, buffer, static_cast<size_t>(size), 0), 0);
         },
         [](int size, int count) {
             while (count-- > 0)
                 exchange(mq_receive(queue, buffer, sizeof buffer, nullptr), size);
         },
         [] { mq_close(queue); }},
    };
}

// Runs one half in a child, the other here.
template <typename Child, typename Parent>
double with_child(bool two_cores, const Transport &transport, Child child, Parent parent)
{
    board->ready = board->go = 0;
    transport.open();
    const pid_t pid = fork();
    if (pid < 0)
        give_up("fork");
    if (pid == 0) {
        pin(two_cores ? 1 : 0);
        transport.join();
        __atomic_store_n(&board->ready, 1, __ATOMIC_SEQ_CST);
        while (__atomic_load_n(&board->go, __ATOMIC_SEQ_CST) == 0)
            usleep(100);
        const double before = cpu_seconds();
        child();
        board->child_cpu = cpu_seconds() - before;
        _exit(0);
    }
    pin(0);
    while (__atomic_load_n(&board->ready, __ATOMIC_SEQ_CST) == 0) {
        usleep(100);
        if (waitpid(pid, nullptr, WNOHANG) == pid)
            exit(1); // it said why
    }
    const double before = cpu_seconds();
    __atomic_store_n(&board->go, 1, __ATOMIC_SEQ_CST);
    parent();
    const double parent_cpu = cpu_seconds() - before;
    int status = 0;
    waitpid(pid, &status, 0);
    transport.close();
    if (status != 0)
        exit(1);
    return parent_cpu + board->child_cpu;
}

void transfer(benchmark::State &state, const Transport &transport)
{
    const auto size = static_cast<int>(state.range(0));
    const bool two_cores = state.range(1) == 2;
    const int count = transport.packets;
    const auto write_all = [&] {
        board->first = now();
        transport.write(size, count);
    };
    const auto read_all = [&] {
        transport.read(size, count);
        board->last = now();
    };
    double cpu = 0;
    for (auto _ : state) {
        cpu = transport.child_writes ? with_child(two_cores, transport, write_all, read_all)
                                     : with_child(two_cores, transport, read_all, write_all);
        state.SetIterationTime((board->last - board->first) / count);
    }
    state.counters["cpu"] = cpu / count;
}

// What any transport has to do at least.
void plain_copy(benchmark::State &state)
{
    static char slots[QZLIB_MBUS_RING_SLOTS][QZLIB_MBUS_SLOT_SIZE];
    const auto size = static_cast<size_t>(state.range(0));
    pin(0);
    for (auto _ : state) {
        const double start = now();
        for (int i = 0; i < PACKETS; ++i) {
            memcpy(slots[i % QZLIB_MBUS_RING_SLOTS], buffer, size);
            benchmark::ClobberMemory();
        }
        state.SetIterationTime((now() - start) / PACKETS);
    }
}

// ---- One packet to and fro ------------------------------------------------------------

// Times of single round trips, in seconds.
struct RoundTrips {
    std::vector<double> times;
    double longest = 0;
};
std::map<std::string, RoundTrips> round_trips;

template <typename RoundTrip>
double measure_round_trips(const char *name, bool two_cores, RoundTrip once)
{
    std::vector<double> times(ROUND_TRIPS);
    RoundTrips &all = round_trips[std::string(name) + (two_cores ? "/2" : "/1")];
    for (double &time : times) {
        const double start = now();
        once();
        time = now() - start;
        all.longest = std::max(all.longest, time);
    }
    std::nth_element(times.begin(), times.begin() + ROUND_TRIPS / 2, times.end());
    return times[ROUND_TRIPS / 2];
}

void futex_wait(uint32_t *word, uint32_t unwanted)
{
    while (__atomic_load_n(word, __ATOMIC_ACQUIRE) == unwanted)
        syscall(SYS_futex, word, FUTEX_WAIT, unwanted, nullptr, nullptr, 0);
}

void futex_post(uint32_t *word, uint32_t value)
{
    __atomic_store_n(word, value, __ATOMIC_RELEASE);
    syscall(SYS_futex, word, FUTEX_WAKE, 1, nullptr, nullptr, 0);
}

void futex_round_trip(benchmark::State &state)
{
    const bool two_cores = state.range(0) == 2;
    const Transport bare = {"futex", 0, false, nothing, nothing, nullptr, nullptr, nothing};
    for (auto _ : state) {
        memset(board->word, 0, sizeof board->word);
        double median = 0;
        with_child(
            two_cores, bare,
            [] {
                for (uint32_t i = 0; i < ROUND_TRIPS; ++i) {
                    futex_wait(board->word[0], i);
                    futex_post(board->word[1], i + 1);
                }
            },
            [&] {
                uint32_t i = 0;
                median = measure_round_trips("futex", two_cores, [&i] {
                    futex_post(board->word[0], i + 1);
                    futex_wait(board->word[1], i++);
                });
            });
        state.SetIterationTime(median);
    }
}

void bus_round_trip(benchmark::State &state)
{
    const bool two_cores = state.range(0) == 2;
    const Transport bus = {"bus",          0,       false,   [] { server->reset(); },
                           connect_client, nullptr, nullptr, nothing};
    for (auto _ : state) {
        double median = 0;
        with_child(
            two_cores, bus,
            [] {
                for (int i = 0; i < ROUND_TRIPS; ++i) {
                    const mbus_pkg *pkg = qzlib_mbus_read_pkg(nullptr, 0);
                    if (qzlib_mbus_write_data(pkg->data, ROUND_TRIP_BYTES) != ROUND_TRIP_BYTES)
                        give_up("answer");
                }
            },
            [&] {
                median = measure_round_trips("bus", two_cores, [] {
                    (void)qzlib_mbus_write(server->record, 0, nullptr, buffer, ROUND_TRIP_BYTES);
                    benchmark::DoNotOptimize(read_up());
                });
            });
        state.SetIterationTime(median);
    }
}

// ---- The report -----------------------------------------------------------------------

class Report : public benchmark::BenchmarkReporter
{
public:
    bool ReportContext(const Context & /*context*/) override { return true; }
    void ReportRuns(const std::vector<Run> &runs) override
    {
        for (const Run &run : runs) {
            if (run.run_type != Run::RT_Aggregate || run.aggregate_name != "median")
                continue;
            const std::string name = run.run_name.function_name + "/" + run.run_name.args;
            time_[name] = run.GetAdjustedRealTime() * 1e-9;
            const auto cpu = run.counters.find("cpu");
            if (cpu != run.counters.end())
                cpu_[name] = cpu->second.value;
        }
    }

    bool print()
    {
        printf("Packets per second between two processes, in thousands; in brackets as multiples of the\n"
               "datagram socket. Medians of %d interleaved runs.\n\n"
               "| cores | bytes | bus, down | bus, up | at least | datagram | pipe | queue | plain copy |\n"
               "|---|---|---|---|---|---|---|---|---|\n",
               REPETITIONS);
        const double limits[2][4] = {{16, 15, 14, 12}, {20, 12, 10, 7}};
        for (int cores = 1; cores <= 2; ++cores)
            for (size_t i = 0; i < 4; ++i)
                print_row(cores, SIZES[i], limits[cores - 1][i]);
        print_cpu();
        print_round_trips();
        return held_;
    }

private:
    static std::string key(const char *transport, int size, int cores)
    {
        return std::string(transport) + "/" + std::to_string(size) + "/" + std::to_string(cores);
    }

    std::string rate(const char *transport, int size, int cores)
    {
        const double time = time_[key(transport, size, cores)];
        char text[64];
        (void)snprintf(text, sizeof text, "%.0f (%.1f)", 1e-3 / time,
                       time_[key("datagram", size, cores)] / time);
        return text;
    }

    void print_row(int cores, int size, double limit)
    {
        const double datagram = time_[key("datagram", size, cores)];
        const bool held = datagram / time_[key("bus_down", size, cores)] >= limit &&
                          datagram / time_[key("bus_up", size, cores)] >= limit;
        printf("| %d | %d | %s | %s | (%.0f)%s | %.0f | %s | %s | %.0f (%.0f) |\n", cores, size,
               rate("bus_down", size, cores).c_str(), rate("bus_up", size, cores).c_str(), limit,
               held ? "" : " MISSED", 1e-3 / datagram, rate("pipe", size, cores).c_str(),
               rate("queue", size, cores).c_str(), 1e-3 / time_[key_of_copy(size)],
               datagram / time_[key_of_copy(size)]);
        held_ = held_ && held;
    }

    static std::string key_of_copy(int size) { return "plain_copy/" + std::to_string(size); }

    void print_cpu()
    {
        printf("\nProcessor time of both sides per packet, as a multiple of the datagram socket's.\n\n"
               "| cores | bytes | bus, down | bus, up | at most |\n|---|---|---|---|---|\n");
        for (int cores = 1; cores <= 2; ++cores)
            for (const int size : SIZES) {
                const double datagram = cpu_[key("datagram", size, cores)];
                const double down = cpu_[key("bus_down", size, cores)] / datagram;
                const double up = cpu_[key("bus_up", size, cores)] / datagram;
                const bool limited = cores == 1 && size == 256;
                const bool held = !limited || (down <= 0.08 && up <= 0.08);
                printf("| %d | %d | %.3f | %.3f | %s%s |\n", cores, size, down, up, limited ? "0.08" : "",
                       held ? "" : " MISSED");
                held_ = held_ && held;
            }
    }

    void print_round_trips()
    {
        printf(
            "\nOne packet of %d bytes to and fro, both readers blocking; %d round trips. The\n"
            "longest may take 5 ms; what the bare futex took tells how the machine itself stalls.\n\n"
            "| cores | bus, median | bare futex, median | ratio | at most | bus, longest | futex, longest |\n"
            "|---|---|---|---|---|---|---|\n",
            ROUND_TRIP_BYTES, ROUND_TRIPS * REPETITIONS);
        for (int cores = 1; cores <= 2; ++cores) {
            const std::string suffix = "/" + std::to_string(cores);
            const double bus = time_["bus_round_trip" + suffix];
            const double futex = time_["futex_round_trip" + suffix];
            const double limit = cores == 1 ? 1.2 : 1.05;
            const double longest = round_trips["bus" + suffix].longest;
            const bool held = bus / futex <= limit && longest <= 5e-3;
            printf("| %d | %.2f us | %.2f us | %.3f | %.2f%s | %.2f ms | %.2f ms |\n", cores, bus * 1e6,
                   futex * 1e6, bus / futex, limit, held ? "" : " MISSED", longest * 1e3,
                   round_trips["futex" + suffix].longest * 1e3);
            held_ = held_ && held;
        }
    }

    std::map<std::string, double> time_;
    std::map<std::string, double> cpu_;
    bool held_ = true;
};

benchmark::internal::Benchmark *once(benchmark::internal::Benchmark *entry)
{
    return entry->UseManualTime()->Iterations(1)->Repetitions(REPETITIONS)->ReportAggregatesOnly(true);
}

} // namespace

int main(int argc, char **argv)
{
    ServerEnd end;
    qz::mbus::init_condition(end.share->up_cond);
    qz::mbus::serve(qz::mbus::up_doorbell(*end.share));
    server = &end;
    const std::vector<Transport> transports = make_transports();
    for (const Transport &transport : transports)
        for (const int size : SIZES)
            for (const int cores : {1, 2})
                once(benchmark::RegisterBenchmark(transport.name, [&transport](benchmark::State &state) {
                    transfer(state, transport);
                }))->Args({size, cores});
    for (const int size : SIZES)
        once(benchmark::RegisterBenchmark("plain_copy", plain_copy))->Arg(size);
    for (const int cores : {1, 2}) {
        once(benchmark::RegisterBenchmark("futex_round_trip", futex_round_trip))->Arg(cores);
        once(benchmark::RegisterBenchmark("bus_round_trip", bus_round_trip))->Arg(cores);
    }
    std::vector<char *> arguments(argv, argv + argc);
    char interleave[] = "--benchmark_enable_random_interleaving=true";
    arguments.push_back(interleave);
    int count = static_cast<int>(arguments.size());
    arguments.push_back(nullptr);
    benchmark::Initialize(&count, arguments.data());
    Report report;
    benchmark::RunSpecifiedBenchmarks(&report);
    return report.print() ? 0 : 1;
}
