// SPDX-License-Identifier: MIT
// bus: the message bus, seen from outside by its table and from inside as a client of a name that is free.
#include "listen.h"
#include "print.h"

#include <cerrno>
#include <cstring>
#include <ctime>
#include <sys/shm.h>
#include <sys/socket.h>
#include <sys/un.h>
#include <utility>

namespace qzctl
{
namespace
{

// Whether a server listens, which is found out without a message. False: with errno.
bool has_server()
{
    const Fd fd(socket(AF_UNIX, SOCK_DGRAM | SOCK_CLOEXEC, 0));
    sockaddr_un address{};
    address.sun_family = AF_UNIX;
    (void)strcpy(address.sun_path, QZLIB_MBUS_SOCKET);
    return fd && connect(fd.get(), reinterpret_cast<const sockaddr *>(&address), sizeof address) == 0;
}

// The same, and says why not.
bool is_served()
{
    if (has_server())
        return true;
    if (errno == ENOENT || errno == ECONNREFUSED)
        (void)say(NO, "no server: nobody serves the message bus on %s", QZLIB_MBUS_SOCKET);
    else
        (void)say_errno(QZLIB_MBUS_SOCKET);
    return false;
}

// The table of clients, to be read only. Looking at it makes no table and keeps nobody's alive.
class Table
{
public:
    Table()
    {
        const int id = shmget(QZLIB_MBUS_SHARE_KEY, QZLIB_MBUS_SHARE_SIZE, 0);
        void *place = id < 0 ? failed() : shmat(id, nullptr, SHM_RDONLY);
        share_ = place == failed() ? nullptr : static_cast<const mbus_share_segment *>(place);
        if (share_ == nullptr)
            (void)say(NO, "no table of the message bus: %s", strerror(errno));
    }
    Table(const Table &) = delete;
    Table &operator=(const Table &) = delete;
    ~Table()
    {
        if (share_ != nullptr)
            (void)shmdt(share_);
    }
    explicit operator bool() const { return share_ != nullptr; }
    [[nodiscard]] const mbus_client &client(unsigned index) const { return share_->clients[index]; }

    [[nodiscard]] bool has(const char *name) const
    {
        for (const mbus_client &client : share_->clients)
            if (strncasecmp(client.name, name, sizeof client.name) == 0)
                return true;
        return false;
    }
    [[nodiscard]] bool has_key(int key) const
    {
        for (const mbus_client &client : share_->clients) {
            char name[QZLIB_MBUS_NAME_SIZE + 1] = "";
            memcpy(name, client.name, QZLIB_MBUS_NAME_SIZE);
            if (*name != '\0' && qzlib_mbus_name_to_key(name) == key)
                return true;
        }
        return false;
    }

private:
    static void *failed() { return reinterpret_cast<void *>(-1); }

    const mbus_share_segment *share_ = nullptr;
};

// A client's figures at one moment. The counters are written by other processes meanwhile: on 32 bits one
// is read until its halves belong together.
struct Figures {
    char name[QZLIB_MBUS_NAME_SIZE + 1];
    unsigned up_write, up_read, down_write, down_read;
    uint64_t sent, received, dropped;
    uint32_t flags;
};

uint64_t read_counter(const uint64_t &counter)
{
    const volatile uint64_t &shared = counter;
    uint64_t value = shared;
    for (uint64_t again = shared; again != value; again = shared)
        value = again;
    return value;
}

unsigned read_index(const uint32_t &index)
{
    return *static_cast<const volatile uint32_t *>(&index) % QZLIB_MBUS_RING_SLOTS;
}

Figures read_figures(const mbus_client &client)
{
    Figures figures{};
    memcpy(figures.name, client.name, QZLIB_MBUS_NAME_SIZE);
    figures.up_write = read_index(client.up_write);
    figures.up_read = read_index(client.up_read);
    figures.down_write = read_index(client.down_write);
    figures.down_read = read_index(client.down_read);
    figures.sent = read_counter(client.client_offered);
    figures.received = read_counter(client.client_read);
    figures.dropped = read_counter(client.client_dropped) + read_counter(client.server_dropped);
    figures.flags = client.flags;
    return figures;
}

unsigned step(unsigned from, unsigned to)
{
    return (to - from) % QZLIB_MBUS_RING_SLOTS;
}

double number(uint64_t value)
{
    return static_cast<double>(value);
}

void put_rings(const Json &record, const Figures &now)
{
    put_number(record, "ring_up", step(now.up_read, now.up_write));
    put_number(record, "ring_down", step(now.down_read, now.down_write));
}

} // namespace

int bus_list(const Arguments &arguments)
{
    if (!is_served())
        return NO;
    const Table table;
    if (!table)
        return NO;
    const Json list = new_list();
    for (unsigned i = 0; i < QZLIB_MBUS_CLIENTS; ++i) {
        const Figures now = read_figures(table.client(i));
        if (*now.name == '\0')
            continue;
        Json record = new_record();
        put(record, "name", now.name);
        put_rings(record, now);
        put_number(record, "bytes_up", number(now.sent));
        put_number(record, "bytes_down", number(now.received));
        put_number(record, "dropped", number(now.dropped));
        put_number(record, "flags", now.flags);
        append(list, std::move(record));
    }
    return print_list(arguments, list);
}

// ---- top
namespace
{

constexpr unsigned INTERVAL_MAX = 86400;
constexpr unsigned COUNT_MAX = 1'000'000'000;
// The rings count packets modulo 64. Looked at 200 times a second they tell up to 12,600 packets apart.
constexpr timespec LOOK = {0, 5'000'000};

struct Row {
    Figures first; // at the beginning of the interval
    Figures last;
    uint64_t sent, received; // packets since then
};
Row rows[QZLIB_MBUS_CLIENTS];

uint64_t now_ms()
{
    timespec now{};
    (void)clock_gettime(CLOCK_MONOTONIC, &now);
    return static_cast<uint64_t>(now.tv_sec) * 1000 + static_cast<uint64_t>(now.tv_nsec) / 1'000'000;
}

void begin_rows(const Table &table)
{
    for (unsigned i = 0; i < QZLIB_MBUS_CLIENTS; ++i) {
        rows[i] = Row{};
        rows[i].first = rows[i].last = read_figures(table.client(i));
    }
}

void look(const Table &table)
{
    for (unsigned i = 0; i < QZLIB_MBUS_CLIENTS; ++i) {
        Row &row = rows[i];
        const Figures now = read_figures(table.client(i));
        if (strcmp(now.name, row.last.name) != 0) {
            row = Row{};
            row.first = now;
        } else {
            row.sent += step(row.last.up_write, now.up_write);
            row.received += step(row.last.down_read, now.down_read);
        }
        row.last = now;
    }
}

void print_rows(const Arguments &arguments, uint64_t passed_ms)
{
    const Json list = new_list();
    const auto per_second = [passed_ms](uint64_t value) {
        return number((value * 1000 + passed_ms / 2) / passed_ms);
    };
    for (const Row &row : rows) {
        if (*row.last.name == '\0')
            continue;
        Json record = new_record();
        put(record, "name", row.last.name);
        put_number(record, "packets_up", per_second(row.sent));
        put_number(record, "packets_down", per_second(row.received));
        put_number(record, "bytes_up", per_second(row.last.sent - row.first.sent));
        put_number(record, "bytes_down", per_second(row.last.received - row.first.received));
        put_number(record, "dropped", per_second(row.last.dropped - row.first.dropped));
        put_rings(record, row.last);
        append(list, std::move(record));
    }
    if (arguments.has(JSON)) {
        print_json_line(list);
        return;
    }
    (void)fputs(has_colours() ? "\033[H\033[J" : "", stdout);
    if (list.get()->child == nullptr)
        (void)puts("no clients");
    (void)print_list(arguments, list);
    (void)putchar('\n');
}

} // namespace

int bus_top(const Arguments &arguments)
{
    const unsigned interval_s = arguments.number(INTERVAL, 1, 1, INTERVAL_MAX);
    const unsigned count = arguments.number(COUNT, 0, 1, COUNT_MAX);
    for (unsigned round = 0; count == 0 || round < count; ++round) {
        if (!is_served())
            return NO;
        const Table table;
        if (!table)
            return NO;
        const uint64_t begin = now_ms();
        begin_rows(table);
        while (now_ms() - begin < interval_s * uint64_t{1000}) {
            (void)nanosleep(&LOOK, nullptr);
            look(table);
        }
        print_rows(arguments, now_ms() - begin);
        if (fflush(stdout) != 0)
            break;
    }
    return DONE;
}

// ---- As a client
namespace
{

constexpr unsigned TIMEOUT_MAX = 1'000'000;
char own_name[QZLIB_MBUS_NAME_SIZE + 1];

const char *check_client(const char *name)
{
    return check_length("the name", name, QZLIB_MBUS_NAME_SIZE);
}

// A name that nobody has, whose key nobody has either, on the bus or for other memory.
bool find_name(const Table &table)
{
    timespec now{};
    (void)clock_gettime(CLOCK_MONOTONIC, &now);
    for (long number = now.tv_nsec; number < now.tv_nsec + 10'000; ++number) {
        (void)snprintf(own_name, sizeof own_name, "qzctl-%d-%05lx", getpid(), number & 0xFFFFF);
        const int key = qzlib_mbus_name_to_key(own_name);
        if (!table.has(own_name) && !table.has_key(key) && shmget(key, 0, 0) < 0 && errno == ENOENT)
            return true;
    }
    (void)say(NO, "no free name on the bus");
    return false;
}

// On the bus for as long as it lives.
class Membership
{
public:
    explicit Membership(const Table &table)
    {
        constexpr int TRIES = 3; // another client may take the key meanwhile
        for (int i = 0; i < TRIES && !is_on_bus_ && find_name(table); ++i)
            is_on_bus_ = qzlib_connect_mbus_server(own_name) == 0;
        if (!is_on_bus_)
            (void)say(NO, "the server does not let %s onto the bus", own_name);
    }
    Membership(const Membership &) = delete;
    Membership &operator=(const Membership &) = delete;
    ~Membership() { (void)qzlib_disconnect_mbus_server(); }
    explicit operator bool() const { return is_on_bus_; }

private:
    bool is_on_bus_ = false;
};

} // namespace

int bus_send(const Arguments &arguments)
{
    const char *name = check_length("the name", arguments.word(0),
                                    arguments.has(TOPIC) ? QZLIB_MBUS_PKG_NAME_SIZE : QZLIB_MBUS_NAME_SIZE);
    const char *text = check_length("the text", arguments.word(1), QZLIB_MBUS_PAYLOAD_MAX);
    const auto type = static_cast<int>(arguments.number(TYPE, 0, 0, 3));
    if (!is_served())
        return NO;
    const Table table;
    if (!table)
        return NO;
    if (!arguments.has(TOPIC) && !table.has(name))
        return say(NO, "no client has the name %s; see qzctl bus list, or send it as a topic with --topic",
                   name);
    const Membership membership(table);
    if (!membership)
        return NO;
    const auto length = static_cast<int>(strlen(text));
    if (qzlib_mbus_write(nullptr, type, name, text, length) != length)
        return say(NO, "the bus did not take the packet");
    return DONE;
}

int bus_wait(const Arguments &arguments)
{
    const char *name = check_client(arguments.word(0));
    const unsigned limit_s = arguments.number(TIMEOUT, 10, 1, TIMEOUT_MAX);
    const uint64_t end = now_ms() + limit_s * uint64_t{1000};
    constexpr timespec PAUSE = {0, 50'000'000};
    if (!is_served())
        return NO;
    const Table table;
    if (!table)
        return NO;
    while (!table.has(name)) {
        if (now_ms() >= end)
            return say(NOT_IN_TIME, "no client %s came onto the bus in %u s", name, limit_s);
        (void)nanosleep(&PAUSE, nullptr);
    }
    return DONE;
}

namespace
{

Listening *listening = nullptr;
const char *wanted_name = nullptr; // null: every packet
bool prints_json = false;

void print_packet(unsigned type, std::string_view name, std::string_view data)
{
    if (!prints_json) {
        print_text(name);
        (void)printf("  type %u  ", type);
        print_text(data);
        (void)putchar('\n');
        return;
    }
    const Json record = new_record();
    put_bytes(record, "name", name);
    put_number(record, "type", type);
    put_data(record, data);
    print_json_line(record);
}

int take_packet(unsigned type, const char *name, const void *data, unsigned length)
{
    const std::string_view shown(name, strnlen(name, QZLIB_MBUS_PKG_NAME_SIZE));
    if ((wanted_name != nullptr && shown != wanted_name) || !listening->begin())
        return 0;
    print_packet(type, shown, {static_cast<const char *>(data), length});
    listening->end();
    return 0;
}

bool is_member()
{
    return qzlib_find_client_by_name(own_name) != nullptr;
}

// The server alone sees all packets, and it has to be told when it starts.
int trace(const char *name)
{
    if (has_server())
        return say(NO,
                   "a server runs already, and prints packets only if it was started so; end it, and this "
                   "command serves the bus in its place, with mbusd --trace");
    char option[sizeof "--trace=" + QZLIB_MBUS_PKG_NAME_SIZE];
    (void)snprintf(option, sizeof option, name == nullptr ? "--trace" : "--trace=%s", name);
    (void)execlp("mbusd", "mbusd", option, nullptr);
    return say_errno("mbusd");
}

} // namespace

int bus_listen(const Arguments &arguments)
{
    wanted_name = arguments.word(0) == nullptr
                      ? nullptr
                      : check_length("the name", arguments.word(0), QZLIB_MBUS_PKG_NAME_SIZE);
    prints_json = arguments.has(JSON);
    if (arguments.has(TRACE) && (arguments.has(COUNT) || arguments.has(TIMEOUT) || prints_json))
        refuse("--trace is mbusd's, which knows no --count, --timeout and --json");
    if (arguments.has(TRACE))
        return trace(wanted_name);
    static Listening waiting(arguments);
    listening = &waiting;
    if (!is_served())
        return NO;
    const Table table;
    if (!table)
        return NO;
    const Membership membership(table);
    if (!membership)
        return NO;
    if (qzlib_mbus_down_cache_process(0, take_packet) != 0)
        return say(NO, "the bus cannot be read");
    (void)fprintf(stderr,
                  "qzctl: on the bus as %s: it gets topics and what is sent to that name, not what is "
                  "sent to others (--trace)\n",
                  own_name);
    const int status = waiting.wait(is_member);
    if (status == NO)
        return say(NO, "the server of the bus ended");
    return status == NOT_IN_TIME ? say(NOT_IN_TIME, "no packet came in time") : status;
}

} // namespace qzctl
