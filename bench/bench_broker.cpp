// SPDX-License-Identifier: MIT
// Packets through the bus server to many clients, beside a D-Bus daemon and an MQTT broker on a
// local socket: one sender, 1 to 48 receivers, everything on one core and on two. Then a round trip
// from client to client beside a direct one, and what an idle bus costs.
//
// The peers queue without bound what a receiver has not taken, so their sender stays a window ahead
// of the slowest receiver; the bus holds its sender back by itself. Runs in a box.
#include <dbus/dbus.h>
#include <mosquitto.h>
#include <qzlib.h>

#include <algorithm>
#include <csignal>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <ctime>
#include <functional>
#include <map>
#include <sched.h>
#include <string>
#include <sys/mman.h>
#include <sys/wait.h>
#include <unistd.h>
#include <vector>

namespace
{

constexpr int RECEIVERS[] = {1, 4, 16, 48};
constexpr int MOST_RECEIVERS = 48;
constexpr int REPETITIONS = 5;
constexpr int BYTES = 256;
constexpr long WINDOW = 400;
constexpr double WARM_UP_S = 0.1;
constexpr double MEASURED_S = 0.5;
constexpr int ROUND_TRIPS = 50'000;
constexpr int IDLE_S = 10;

// What the processes of a measurement share.
struct Board {
    int ready;
    int stop;
    struct alignas(64) {
        long packets;
    } got[MOST_RECEIVERS];
    double round_trip_s;
};
Board *board = static_cast<Board *>(
    mmap(nullptr, sizeof(Board), PROT_READ | PROT_WRITE, MAP_SHARED | MAP_ANONYMOUS, -1, 0));

char payload[BYTES];

[[noreturn]] void give_up(const char *what)
{
    fprintf(stderr, "bench_broker: %s failed\n", what);
    _exit(1);
}

double seconds_of(clockid_t clock)
{
    timespec time{};
    clock_gettime(clock, &time);
    return static_cast<double>(time.tv_sec) + static_cast<double>(time.tv_nsec) * 1e-9;
}

double now()
{
    return seconds_of(CLOCK_MONOTONIC);
}

void sleep_s(double seconds)
{
    usleep(static_cast<useconds_t>(seconds * 1e6));
}

void use_cores(int cores)
{
    cpu_set_t set;
    CPU_ZERO(&set);
    for (int core = 0; core < cores; ++core)
        CPU_SET(static_cast<size_t>(core), &set);
    sched_setaffinity(0, sizeof set, &set);
}

template <typename Work>
pid_t start(Work work)
{
    const pid_t pid = fork();
    if (pid < 0)
        give_up("fork");
    if (pid == 0) {
        work();
        _exit(0);
    }
    return pid;
}

pid_t start_program(std::vector<const char *> words)
{
    words.push_back(nullptr);
    return start([&] {
        (void)!freopen("/dev/null", "w", stderr); // the peers' chatter
        execvp(words[0], const_cast<char **>(words.data()));
        give_up(words[0]);
    });
}

void end(pid_t pid, int signal)
{
    kill(pid, signal);
    waitpid(pid, nullptr, 0);
}

void count(int receiver)
{
    __atomic_fetch_add(&board->got[receiver].packets, 1, __ATOMIC_RELAXED);
}

void announce_ready()
{
    __atomic_fetch_add(&board->ready, 1, __ATOMIC_SEQ_CST);
}

void await_ready(int processes)
{
    const double begun = now();
    while (__atomic_load_n(&board->ready, __ATOMIC_SEQ_CST) < processes) {
        usleep(1000);
        if (now() - begun > 30)
            give_up("start of the receivers");
    }
}

long all_got(int receivers)
{
    long sum = 0;
    for (int i = 0; i < receivers; ++i)
        sum += __atomic_load_n(&board->got[i].packets, __ATOMIC_RELAXED);
    return sum;
}

// A way from one sender through a server to many receivers.
struct Broker {
    const char *name;
    std::function<pid_t()> serve;
    std::function<void(int receiver)> receive;            // never returns
    std::function<void()> join;                           // in the sender
    std::function<bool(long number, int receivers)> send; // false: not taken, try again
    bool is_bounded;
    bool is_unicast;
};

// Names with keys of their own.
std::string name_of(int i)
{
    return std::string(1 + static_cast<size_t>(i / 16), 'z') + static_cast<char>('a' + i % 16);
}

void connect(const char *name)
{
    for (int tries = 0; qzlib_connect_mbus_server(name) != 0; ++tries)
        if (tries > 100)
            give_up("connecting to the bus");
}

pid_t serve_bus()
{
    const pid_t pid = start_program({"mbusd", "--quiet"});
    while (access(QZLIB_MBUS_SOCKET, F_OK) != 0)
        usleep(1000);
    return pid;
}

void receive_from_bus(int receiver)
{
    connect(name_of(receiver).c_str());
    announce_ready();
    for (;;)
        if (qzlib_mbus_read_pkg(nullptr, 0) != nullptr)
            count(receiver);
}

bool send_to_bus(const char *name)
{
    if (qzlib_mbus_write(nullptr, 0, name, payload, BYTES) == BYTES)
        return true;
    sched_yield();
    return false;
}

// ---- D-Bus

constexpr const char *DBUS_ADDRESS = "unix:path=/tmp/bench.dbus";
DBusConnection *dbus;

void join_dbus()
{
    // Its socket is there a moment before it listens.
    for (int tries = 0; dbus == nullptr && tries < 100; ++tries) {
        dbus = dbus_connection_open_private(DBUS_ADDRESS, nullptr);
        usleep(dbus == nullptr ? 10'000 : 0);
    }
    if (dbus == nullptr || dbus_bus_register(dbus, nullptr) == FALSE)
        give_up("connecting to the D-Bus daemon");
}

pid_t serve_dbus()
{
    FILE *file = fopen("/tmp/bench.dbus.conf", "w");
    fprintf(
        file,
        "<busconfig><listen>%s</listen><auth>EXTERNAL</auth><policy context=\"default\"><allow user=\"*\"/>"
        "<allow send_destination=\"*\" eavesdrop=\"true\"/><allow eavesdrop=\"true\"/><allow own=\"*\"/>"
        "</policy></busconfig>",
        DBUS_ADDRESS);
    fclose(file);
    unlink("/tmp/bench.dbus");
    const pid_t pid = start_program({"dbus-daemon", "--nofork", "--config-file=/tmp/bench.dbus.conf"});
    while (access("/tmp/bench.dbus", F_OK) != 0)
        usleep(1000);
    return pid;
}

void receive_from_dbus(int receiver)
{
    join_dbus();
    dbus_bus_add_match(dbus, "type='signal',interface='bench.Topic'", nullptr);
    dbus_connection_flush(dbus);
    announce_ready();
    while (dbus_connection_read_write(dbus, -1) != FALSE)
        while (DBusMessage *message = dbus_connection_pop_message(dbus)) {
            if (dbus_message_is_signal(message, "bench.Topic", "Packet") != FALSE)
                count(receiver);
            dbus_message_unref(message);
        }
}

bool send_to_dbus(long number, int /*receivers*/)
{
    DBusMessage *message = dbus_message_new_signal("/bench", "bench.Topic", "Packet");
    const char *bytes = payload;
    dbus_message_append_args(message, DBUS_TYPE_ARRAY, DBUS_TYPE_BYTE, &bytes, BYTES, DBUS_TYPE_INVALID);
    dbus_connection_send(dbus, message, nullptr);
    dbus_message_unref(message);
    if (number % 16 == 0)
        dbus_connection_flush(dbus);
    return true;
}

// ---- MQTT

constexpr const char *MQTT_SOCKET = "/tmp/bench.mqtt";
mosquitto *mqtt;

void join_mqtt()
{
    mosquitto_lib_init();
    mqtt = mosquitto_new(nullptr, true, nullptr);
    int result = -1;
    for (int tries = 0; tries < 100 && (result = mosquitto_connect(mqtt, MQTT_SOCKET, 0, 60)) != 0; ++tries)
        usleep(10'000);
    if (result != MOSQ_ERR_SUCCESS)
        give_up("connecting to the MQTT broker");
}

pid_t serve_mqtt()
{
    FILE *file = fopen("/tmp/bench.mqtt.conf", "w");
    fprintf(file,
            "listener 0 %s\nallow_anonymous true\nmax_queued_messages 0\nset_tcp_nodelay true\nuser root\n",
            MQTT_SOCKET);
    fclose(file);
    unlink(MQTT_SOCKET);
    const pid_t pid = start_program({"mosquitto", "-c", "/tmp/bench.mqtt.conf"});
    while (access(MQTT_SOCKET, F_OK) != 0)
        usleep(1000);
    return pid;
}

void receive_from_mqtt(int receiver)
{
    join_mqtt();
    mosquitto_user_data_set(mqtt, &receiver);
    mosquitto_message_callback_set(
        mqtt, [](mosquitto *, void *own, const mosquitto_message *) { count(*static_cast<int *>(own)); });
    mosquitto_subscribe_callback_set(mqtt,
                                     [](mosquitto *, void *, int, int, const int *) { announce_ready(); });
    mosquitto_subscribe(mqtt, nullptr, "topic", 0);
    mosquitto_loop_forever(mqtt, -1, 1);
}

bool send_to_mqtt(long number, int /*receivers*/)
{
    mosquitto_publish(mqtt, nullptr, "topic", BYTES, payload, 0, false);
    if (number % 16 == 0)
        mosquitto_loop(mqtt, 0, 1);
    return true;
}

std::vector<Broker> make_brokers()
{
    const auto join_bus = [] { connect("SENDER"); };
    return {{"bus", serve_bus, receive_from_bus, join_bus, [](long, int) { return send_to_bus("topic"); },
             true, false},
            {"unicast", serve_bus, receive_from_bus, join_bus,
             [](long number, int receivers) {
                 return send_to_bus(name_of(static_cast<int>(number / 32 % receivers)).c_str());
             },
             true, true},
            {"dbus", serve_dbus, receive_from_dbus, join_dbus, send_to_dbus, false, false},
            {"mqtt", serve_mqtt, receive_from_mqtt, join_mqtt, send_to_mqtt, false, false}};
}

void send_all(const Broker &broker, int receivers)
{
    broker.join();
    announce_ready();
    for (long sent = 0; __atomic_load_n(&board->stop, __ATOMIC_RELAXED) == 0;) {
        if (broker.send(sent, receivers))
            ++sent;
        while (!broker.is_bounded && sent - all_got(receivers) / receivers > WINDOW &&
               __atomic_load_n(&board->stop, __ATOMIC_RELAXED) == 0)
            sched_yield();
    }
}

// Deliveries per second.
double measure(const Broker &broker, int receivers, int cores)
{
    memset(board, 0, sizeof *board);
    use_cores(cores);
    const pid_t server = broker.serve();
    std::vector<pid_t> clients;
    for (int i = 0; i < receivers; ++i)
        clients.push_back(start([&] { broker.receive(i); }));
    await_ready(receivers);
    clients.push_back(start([&] { send_all(broker, receivers); }));
    await_ready(receivers + 1);
    sleep_s(WARM_UP_S);
    const long before = all_got(receivers);
    const double begun = now();
    sleep_s(MEASURED_S);
    const double rate = static_cast<double>(all_got(receivers) - before) / (now() - begun);
    board->stop = 1;
    for (const pid_t pid : clients)
        end(pid, SIGKILL);
    end(server, SIGTERM);
    return rate;
}

// ---- Round trips and idleness

void echo()
{
    connect("echo");
    announce_ready();
    for (;;) {
        const mbus_pkg *pkg = qzlib_mbus_read_pkg(nullptr, 0);
        if (pkg != nullptr)
            (void)qzlib_mbus_write(nullptr, 0, "caller", pkg->data, static_cast<int>(pkg->length));
    }
}

// The median, of `call` sending and `hear` waiting for the answer.
template <typename Call, typename Hear>
double median_round_trip(Call call, Hear hear)
{
    std::vector<double> times(ROUND_TRIPS);
    for (double &time : times) {
        const double begun = now();
        call();
        hear();
        time = now() - begun;
    }
    std::nth_element(times.begin(), times.begin() + ROUND_TRIPS / 2, times.end());
    return times[ROUND_TRIPS / 2];
}

double through_server(int cores)
{
    memset(board, 0, sizeof *board);
    use_cores(cores);
    const pid_t server = serve_bus();
    const pid_t other = start(echo);
    await_ready(1);
    const pid_t caller = start([] {
        connect("caller");
        board->round_trip_s =
            median_round_trip([] { (void)qzlib_mbus_write(nullptr, 0, "echo", payload, 64); },
                              [] { (void)qzlib_mbus_read_pkg(nullptr, 0); });
    });
    waitpid(caller, nullptr, 0);
    end(other, SIGKILL);
    end(server, SIGTERM);
    return board->round_trip_s;
}

// Without a server between: the caller is the server's end itself.
double direct(int cores)
{
    memset(board, 0, sizeof *board);
    use_cores(cores);
    const pid_t caller = start([] {
        const int control = qzlib_create_listen_unixdomain(QZLIB_MBUS_SOCKET);
        if (control < 0 || qzlib_mbus_share_init() != 0)
            give_up("the server's end");
        mbus_client *record = &static_cast<mbus_share_segment *>(mbus_share)->clients[0];
        strcpy(record->name, "echo");
        if (qzlib_client_init(record) != 0)
            give_up("the server's end");
        const pid_t other = start(echo);
        await_ready(1);
        board->round_trip_s =
            median_round_trip([&] { (void)qzlib_mbus_write(record, 0, nullptr, payload, 64); },
                              [&] {
                                  while (qzlib_mbus_read_pkg(record, 1) == nullptr)
                                      sched_yield();
                              });
        end(other, SIGKILL);
        qzlib_client_uninit(record);
        qzlib_mbus_share_uninit();
        unlink(QZLIB_MBUS_SOCKET);
    });
    waitpid(caller, nullptr, 0);
    return board->round_trip_s;
}

// Processor time of the server and of 48 clients that wait, as a part of one processor.
double idle_share()
{
    memset(board, 0, sizeof *board);
    std::vector<pid_t> all = {serve_bus()};
    for (int i = 0; i < MOST_RECEIVERS; ++i)
        all.push_back(start([&] { receive_from_bus(i); }));
    await_ready(MOST_RECEIVERS);
    sleep(3); // until they are as idle as they get
    const auto used = [&] {
        double sum = 0;
        for (const pid_t pid : all) {
            clockid_t clock = 0;
            clock_getcpuclockid(pid, &clock);
            sum += seconds_of(clock);
        }
        return sum;
    };
    const double before = used();
    sleep(IDLE_S);
    const double share = (used() - before) / IDLE_S;
    for (size_t i = all.size(); i-- > 0;)
        end(all[i], i == 0 ? SIGTERM : SIGKILL);
    return share;
}

// ---- The report

using Rates = std::map<std::string, std::vector<double>>;

std::string key(const Broker &broker, int receivers, int cores)
{
    return std::string(broker.name) + "/" + std::to_string(receivers) + "/" + std::to_string(cores);
}

double median(std::vector<double> values)
{
    std::nth_element(values.begin(), values.begin() + static_cast<long>(values.size() / 2), values.end());
    return values[values.size() / 2];
}

bool held = true;

const char *verdict(bool holds)
{
    held = held && holds;
    return holds ? "" : " MISSED";
}

void print_rates(const std::vector<Broker> &brokers, Rates &rates)
{
    printf(
        "Deliveries per second of %d-byte packets, in thousands; in brackets how many times those of the\n"
        "D-Bus daemon. Topics go to all receivers, a unicast packet to one. Medians of %d interleaved runs.\n"
        "With 16 and with 48 receivers the topics are to reach half of what 4 receivers get, with 48 at "
        "least\n"
        "20 times the D-Bus daemon.\n\n"
        "| cores | receivers | bus, topic | bus, unicast | D-Bus daemon | MQTT broker "
        "|\n|---|---|---|---|---|---|\n",
        BYTES, REPETITIONS);
    for (const int cores : {1, 2})
        for (const int receivers : RECEIVERS) {
            const auto rate = [&](size_t broker, int of) {
                return median(rates[key(brokers[broker], of, cores)]);
            };
            const double topic = rate(0, receivers);
            const double dbus_rate = rate(2, receivers);
            const bool holds = (receivers < 16 || topic >= rate(0, 4) / 2) &&
                               (receivers < MOST_RECEIVERS || topic >= 20 * dbus_rate);
            printf("| %d | %d | %.0f (%.0f)%s | %.0f (%.0f) | %.0f | %.0f |\n", cores, receivers,
                   topic * 1e-3, topic / dbus_rate, verdict(holds), rate(1, receivers) * 1e-3,
                   rate(1, receivers) / dbus_rate, dbus_rate * 1e-3, rate(3, receivers) * 1e-3);
        }
}

void print_round_trips()
{
    printf("\nOne packet from client to client and back, all readers blocking, beside the same without a "
           "server\n"
           "between. Medians of %d.\n\n| cores | through the server | direct | ratio | at most "
           "|\n|---|---|---|---|---|\n",
           ROUND_TRIPS);
    for (const int cores : {1, 2}) {
        const double through = through_server(cores);
        const double alone = direct(cores);
        printf("| %d | %.2f us | %.2f us | %.2f | %s%s |\n", cores, through * 1e6, alone * 1e6,
               through / alone, cores == 1 ? "2.5" : "", verdict(cores == 2 || through <= 2.5 * alone));
    }
}

} // namespace

int main()
{
    const std::vector<Broker> brokers = make_brokers();
    Rates rates;
    for (int repetition = 0; repetition < REPETITIONS; ++repetition)
        for (const int cores : {1, 2})
            for (const int receivers : RECEIVERS)
                for (const Broker &broker : brokers)
                    rates[key(broker, receivers, cores)].push_back(measure(broker, receivers, cores));
    print_rates(brokers, rates);
    print_round_trips();
    const double share = idle_share();
    printf("\nProcessor time of an idle bus with %d clients and its server: %.3f %% of one processor (limit "
           "0.1 %%)%s\n",
           MOST_RECEIVERS, share * 100, verdict(share < 0.001));
    return held ? 0 : 1;
}
