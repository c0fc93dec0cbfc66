#include "mbus/bus_box.h"

#include <fnmatch.h>
#include <memory>
#include <set>
#include <sstream>
#include <sys/mman.h>
#include <sys/ptrace.h>

namespace
{

using namespace support;

constexpr const char *LOG = "/tmp/mbusd.log";
constexpr const char *OUT = "/tmp/mbusd.out";

// The server as it is installed.
struct Mbusd : Process {
    Mbusd() : Process({"mbusd", "--quiet", "--log", LOG, "--stats", "1"}, OUT)
    {
        EXPECT_TRUE(eventually([] { return logged("serving /tmp/mbus.sock", LOG); }));
    }
};

// What the processes of a test tell each other.
struct Board {
    std::atomic<int> connected; // how many clients were
    std::atomic<int> step;      // how far the test is
    std::atomic<long> rounds;
};
Board &board = *static_cast<Board *>(
    mmap(nullptr, sizeof(Board), PROT_READ | PROT_WRITE, MAP_SHARED | MAP_ANONYMOUS, -1, 0));

void await_connected(int clients)
{
    ASSERT_TRUE(eventually([clients] { return board.connected >= clients; }));
}

void await_step(int step)
{
    ASSERT_TRUE(eventually([step] { return board.step >= step; }));
}

// A client in a process of its own.
struct Client : Process {
    template <typename Function>
    Client(const std::string &name, Function run)
        : Process([&] {
              connect_as(name.c_str());
              ++board.connected;
              run();
          })
    {
    }
    void kill() { EXPECT_EQ(end(SIGKILL), -SIGKILL); }
};

// Waits while the ring is full.
void send(const std::string &name, const std::string &text, int type = 0)
{
    const int length = static_cast<int>(text.size());
    ASSERT_TRUE(eventually(
        [&] { return qzlib_mbus_write(nullptr, type, name.c_str(), text.data(), length) == length; }));
}

// As "TYPE NAME PAYLOAD".
std::string next_packet()
{
    const mbus_pkg *pkg = qzlib_mbus_read_pkg(nullptr, 0);
    if (pkg == nullptr)
        return "none";
    return std::to_string(pkg->type) + " " + std::string(pkg->name, strnlen(pkg->name, 64)) + " " +
           payload(pkg);
}

void expect_packets(const std::vector<std::string> &packets)
{
    for (const std::string &expected : packets)
        ASSERT_EQ(next_packet(), expected);
}

size_t shared_segments()
{
    const std::string list = read_file("/proc/sysvipc/shm");
    return static_cast<size_t>(std::count(list.begin(), list.end(), '\n')) - 1;
}

// What the server last printed of a client.
std::vector<unsigned> statistics(const std::string &client)
{
    const std::string out = "\n" + read_file(OUT);
    const size_t line = out.rfind("\n" + client + " ");
    std::istringstream columns(line == out.npos ? "" : out.substr(line + client.size() + 1));
    return {std::istream_iterator<unsigned>(columns), {}};
}

struct Served : testing::Test {
    Mbusd mbusd;
};

TEST_F(Served, packets_go_by_their_names_and_are_counted)
{
    const Client b("beta", [] {
        expect_packets({"3 BETA to one", "1 topic to all", "0 alpha unnamed", "0 alpha farewell"});
    });
    const Client c("gamma", [] {
        expect_packets({"1 topic to all", "0 alpha unnamed", "0 alpha farewell"});
        send("gamma", "12345");
        send("gamma", "1234567");
        expect_packets({"0 gamma 12345"}); // its slot is not given back yet
        const std::vector<unsigned> figures = {12, 12, 0, 0, 33, 26, 0, 2};
        EXPECT_TRUE(eventually([&] { return statistics("gamma") == figures; })) << read_file(OUT);
    });
    await_connected(2);
    const Client a("alpha", [] {
        send("BETA", "to one", 3);
        send("topic", "to all", 1);
        EXPECT_EQ(qzlib_mbus_write_data("unnamed", 7), 7);
        send("alpha", "to myself", 2);
        expect_packets({"2 alpha to myself"});
        send("", "farewell");
        qzlib_disconnect_mbus_server(); // what was sent before is delivered
    });
}

// Each name of exactly 32 characters, with a key of its own.
std::string full_name(int i)
{
    return std::string(1, static_cast<char>('!' + i)) + std::string(31, 'n');
}

TEST_F(Served, at_once_are_50_clients_but_no_51st)
{
    std::vector<std::unique_ptr<Client>> clients;
    for (int i = 0; i < 50; ++i)
        clients.push_back(std::make_unique<Client>(full_name(i), [i] {
            if (i != 0) {
                expect_packets({"0 go go"});
                send(full_name(0), "here", 1);
            } else {
                await_step(1);
                send("go", "go");
                expect_packets(std::vector<std::string>(49, "1 " + full_name(0) + " here"));
                board.step = 2;
            }
            await_step(2);
        }));
    await_connected(50);
    EXPECT_EQ(shared_segments(), 51U);
    EXPECT_EQ(qzlib_connect_mbus_server("one more"), -1);
    EXPECT_TRUE(eventually([] { return logged("refused one more: 50 clients are connected", LOG); }));
    board.step = 1;
}

void send_control(const std::string &datagram)
{
    EXPECT_EQ(qzlib_send_to_unixdomain("/tmp/mbus.sock", datagram.data(), static_cast<int>(datagram.size())),
              0);
}

TEST_F(Served, names_and_datagrams_are_looked_at)
{
    Client holder("ab", pause);
    await_connected(1);
    const Table<std::string, const char *> cases = {
        {"short", "refused a datagram of 5 bytes"},
        {command(1, "toolong") + "12345", "refused a datagram of 41 bytes"},
        {command(7, "cd"), "refused command 7 for \"cd\""},
        {command(1, ""), "refused command 1 for \"\""},
        {command(1, "a\x9f"), "refused a?: its key is not usable"},
        {command(1, "AB"), "refused AB from process"},
        {command(1, "AB"), "the name is that of ab"},
        {command(2, "xy"), "xy is not registered"},
        {command(2, "ab"), "refused to unregister ab"}, // as one does that was refused
        {command(1, "ba"), "refused ba from process"},
        {command(1, "ba"), "it has the key of ab"},
    };
    for (const auto &[datagram, line] : cases) {
        send_control(datagram);
        EXPECT_TRUE(eventually([text = line] { return logged(text, LOG); })) << line;
    }
    EXPECT_EQ(qzlib_connect_mbus_server("ba"), -1);
    EXPECT_EQ(shared_segments(), 2U);
    holder.kill();
}

// On a slow machine a daemon may try again while the server has its first attempt before it. And it is
// not told when the server has read its commands: it then finds its old record, and must not be left
// with it.
TEST_F(Served, a_hasty_client_keeps_its_record_and_a_late_server_cuts_nobody_off)
{
    const int key = qzlib_mbus_name_to_key("hasty");
    send_control(command(1, "hasty"));
    ASSERT_TRUE(eventually([=] { return shmget(key, 0, 0) >= 0; }));
    const int segment = shmget(key, 0, 0);
    send_control(command(1, "hasty"));
    connect_as("hasty");
    EXPECT_EQ(shmget(key, 0, 0), segment);
    send("hasty", "to myself");
    expect_packets({"0 hasty to myself"});
    qzlib_disconnect_mbus_server();
    for (const bool unregisters : {true, false}) {
        Client("daemon", [&] {
            send("daemon", "old");
            expect_packets({"0 daemon old"});
            kill(mbusd.pid(), SIGSTOP);
            if (unregisters)
                qzlib_disconnect_mbus_server();
        });
        Client("daemon", [&] {
            kill(mbusd.pid(), SIGCONT);
            send("daemon", "new");
            expect_packets({"0 daemon new"});
        });
    }
    EXPECT_TRUE(eventually([] { return shared_segments() == 1; }));
}

TEST_F(Served, killed_clients_leave_nothing_and_may_return_at_once)
{
    const Segment table(QZLIB_MBUS_SHARE_KEY);
    {
        const Client other("other", [] {
            for (int i = 0; i < 20; ++i) {
                expect_packets({"0 other last words"});
                send("doomed", "hello");
            }
        });
        await_connected(1);
        for (int i = 0; i < 20; ++i) {
            Client doomed("doomed", [] {
                send("other", "last words");
                expect_packets({"0 doomed hello"});
                ++board.step;
                (void)next_packet();
            });
            await_step(i + 1);
            doomed.kill();
        }
    }
    EXPECT_TRUE(eventually([] { return shared_segments() == 1; }));
    // But for the server's doorbell, in the last word. Cleared after the segments.
    EXPECT_TRUE(eventually([&] { return table.bytes(48, 8396) == std::string(8396, '\0'); }));
}

TEST(Mbusd, starts_over_remains_ends_without_any_and_refuses_a_twin)
{
    const int key = qzlib_mbus_name_to_key("client");
    write_file("/tmp/mbus.sock", "no socket at all");
    const int stale = shmget(QZLIB_MBUS_SHARE_KEY, 100, IPC_CREAT | 0666); // of another size
    EXPECT_GE(shmget(key, 100, IPC_CREAT | 0666), 0);
    Mbusd mbusd;
    EXPECT_NE(shmget(QZLIB_MBUS_SHARE_KEY, 0, 0), stale);
    EXPECT_EQ(Process({"mbusd", "--quiet", "--log", LOG}, "/tmp/twin").wait(), 1);
    EXPECT_TRUE(logged("another bus server is running", LOG));
    Client client("client", [] {
        await_step(1);
        EXPECT_EQ(qzlib_mbus_write_data("x", 1), 0) << "accepted, and nobody to read it";
        EXPECT_EQ(qzlib_find_client_by_name("client"), nullptr);
        connect_as("client");
        send("client", "back");
        expect_packets({"0 client back"});
        qzlib_disconnect_mbus_server();
    });
    await_connected(1);
    EXPECT_EQ(mbusd.end(), 0);
    EXPECT_NE(access("/tmp/mbus.sock", F_OK), 0);
    EXPECT_EQ(shmget(QZLIB_MBUS_SHARE_KEY, 0, 0), -1);
    EXPECT_EQ(shmget(key, 0, 0), -1);
    board.step = 1;
    Mbusd next;
    EXPECT_EQ(client.wait(), 0);
    EXPECT_EQ(next.end(), 0);
    EXPECT_EQ(shared_segments(), 0U);
}

// Names and handles lie where every client can write.
TEST_F(Served, nothing_in_shared_memory_is_believed)
{
    const Segment table(QZLIB_MBUS_SHARE_KEY);
    auto *records = reinterpret_cast<mbus_share_segment *>(table.base)->clients;
    const auto live = [] {
        send("victim", "mine");
        expect_packets({"0 victim mine"});
        const int step = ++board.step;
        await_step(step + 1);
        send("VICTIM", "still");
        expect_packets({"0 VICTIM still"});
    };
    Client first("victim", live);
    await_step(1);
    for (size_t i = 1; i < 50; ++i)
        records[i].server_handle = records[0].server_handle;
    Client("other", [] {});
    board.step = 2;
    EXPECT_EQ(first.wait(), 0);
    records[0].name[0] = 'X'; // in the moment of its restart
    Client second("victim", live);
    await_step(3);
    board.step = 4;
    EXPECT_EQ(second.wait(), 0);
    EXPECT_EQ(mbusd.end(), 0);
    EXPECT_EQ(shared_segments(), 1U) << "this test's own view of the table, and nothing else";
}

void expect_numbers(int count)
{
    for (int i = 0; i < count; ++i) {
        ASSERT_EQ(next_packet(), "0 receiver " + std::to_string(i));
        if (i % 100 == 99)
            usleep(3000);
    }
}

TEST_F(Served, nothing_is_lost_that_was_sent_before_a_quick_reconnection)
{
    constexpr int LIVES = 60, PACKETS = 40;
    const Client receiver("receiver", [] { expect_numbers(LIVES * PACKETS); });
    await_connected(1);
    for (int i = 0; i < LIVES * PACKETS; ++i) {
        if (i % PACKETS == 0)
            connect_as("sender");
        send("receiver", std::to_string(i));
    }
    qzlib_disconnect_mbus_server();
}

TEST_F(Served, nothing_is_lost_that_was_sent_before_the_sender_left)
{
    constexpr int PACKETS = 120; // what both rings hold
    const Client receiver("receiver", [] {
        // Elsewhere the server's patience is over before this is seen.
        EXPECT_TRUE(slowness() > 1 || eventually([] { return logged("sender: unregistered", LOG); }));
        expect_numbers(PACKETS);
    });
    await_connected(1);
    connect_as("sender");
    for (int i = 0; i < PACKETS; ++i)
        send("receiver", std::to_string(i));
    qzlib_disconnect_mbus_server();
}

TEST(Mbusd, takes_over_the_clients_of_one_that_was_killed)
{
    auto first = std::make_unique<Mbusd>();
    const auto talk = [](const char *name, const char *peer, std::set<std::string> expected) {
        return [=]() mutable {
            await_step(2);
            send(peer, name);
            for (size_t left = expected.size(); left > 0; --left)
                EXPECT_EQ(expected.erase(next_packet()), 1U);
        };
    };
    Client ping("ping", talk("ping", "pong", {"0 ping pong"}));
    Client pong("pong", talk("pong", "ping", {"0 pong ping", "0 pong dead"}));
    Client dead("dead", [] {
        await_step(1);
        send("pong", "dead");
    });
    await_connected(3);
    EXPECT_EQ(first->end(SIGKILL), -SIGKILL);
    board.step = 1;
    ASSERT_EQ(dead.wait(), 0);
    remove(LOG);
    const Mbusd second;
    board.step = 2;
    EXPECT_EQ(ping.wait(), 0);
    EXPECT_EQ(pong.wait(), 0);
    EXPECT_TRUE(eventually([] { return shared_segments() == 1; }));
}

// The output of a server that was started with these words, as far as its reader wanted it.
std::string output_of(const std::string &words, const std::string &reader)
{
    FILE *pipe = popen(("exec 2>&1; " BINARY_DIR "/bin/mbusd " + words + " | " + reader).c_str(), "r");
    char text[2000] = "";
    text[fread(text, 1, sizeof text - 1, pipe)] = '\0';
    pclose(pipe);
    return text;
}

TEST(Mbusd, tells_what_is_wrong_and_ends_with_its_reader)
{
    EXPECT_EQ(output_of("--log /tmp", "cat").find("mbusd: cannot write the log /tmp: Is a directory"), 0U);
    EXPECT_EQ(output_of("--quiet --stats 1", "head -n 1").find("client "), 0U);
    const Client talker("talker", [] {
        for (const char *text : {"hello", "\1\xff", "hello"})
            send("TALKER", text, 1);
    });
    const std::string said = output_of("--quiet --trace=talker", "head -n 3");
    const char *expected = "*time *.* talker *talker *TALKER * 1 * 5  \"hello\"\n* 2  01ff\n*";
    EXPECT_EQ(fnmatch(expected, said.c_str(), 0), 0) << said;
}

TEST_F(Served, the_socket_is_made_again_when_it_was_deleted)
{
    remove("/tmp/mbus.sock");
    EXPECT_TRUE(eventually([] { return access("/tmp/mbus.sock", F_OK) == 0; }));
    connect_as("client");
    qzlib_disconnect_mbus_server();
}

// The senders' patience is used up once, not with every packet that it takes.
TEST_F(Served, a_receiver_that_lags_costs_only_itself)
{
    Client lagging("lagging", [] {
        while (qzlib_mbus_read_pkg(nullptr, 0) != nullptr)
            usleep(90'000);
    });
    Client fast("fast", [] {
        while (qzlib_mbus_read_pkg(nullptr, 0) != nullptr)
            ++board.rounds;
    });
    await_connected(2);
    connect_as("sender");
    long accepted = 0;
    for (int i = 0; i < 2000; ++i, usleep(1000))
        accepted += qzlib_mbus_write(nullptr, 0, "topic", "x", 1);
    EXPECT_GE(accepted, 1500);
    EXPECT_TRUE(eventually([=] { return board.rounds == accepted; })) << board.rounds;
    lagging.kill();
    fast.kill();
}

// A sender faster than its receiver is slowed down; a receiver that has stopped holds it up
// only once.
TEST_F(Served, nothing_is_lost_to_a_slow_receiver_and_nobody_waits_for_a_stopped_one)
{
    constexpr int PACKETS = 3000;
    Client receiver("receiver", [] {
        expect_numbers(PACKETS);
        board.step = 1;
        pause();
    });
    await_connected(1);
    Client sender("sender", [] {
        for (int i = 0; i < PACKETS; ++i)
            send("receiver", std::to_string(i));
        await_step(1);
        const Stopwatch watch;
        for (int i = 0; i < 200; ++i)
            send("receiver", "who no longer reads");
        send("sender", "to myself");
        expect_packets({"0 sender to myself"});
        EXPECT_LT(watch.punctual_seconds(), patient(5.0)); // each would cost 0.1 s
    });
    EXPECT_EQ(sender.wait(), 0);
    receiver.kill();
}

// Two clients talk while a third is killed. Nobody else may notice.
void echo()
{
    for (;;) {
        const mbus_pkg *pkg = qzlib_mbus_read_pkg(nullptr, 0);
        ASSERT_NE(pkg, nullptr);
        if (strncmp(pkg->name, "echo", 64) == 0) // or else the victim's noise
            send("caller", payload(pkg));
    }
}

void call()
{
    std::minstd_rand random(5);
    while (board.step == 0) {
        const std::string text = next_text(random);
        send("echo", text);
        std::string said;
        while ((said = next_packet()) == "0 victim noise")
            continue;
        ASSERT_EQ(said, "0 caller " + text);
        ++board.rounds;
    }
}

// What a victim does: its whole life on the bus with the system calls as steps, or with
// single instructions as steps its way through writing, waiting and reading.
void live(bool whole_life)
{
    if (!whole_life)
        connect_as("victim");
    ptrace(PTRACE_TRACEME, 0, nullptr, nullptr);
    raise(SIGSTOP);
    if (whole_life)
        connect_as("victim");
    qzlib_mbus_write(nullptr, 0, nullptr, "noise", 5); // to all
    qzlib_mbus_write(nullptr, 0, "victim", "to myself", 9);
    while (payload(qzlib_mbus_read_pkg(nullptr, 0)) != "to myself")
        continue;
    (void)qzlib_mbus_read_pkg(nullptr, 1);
    if (whole_life)
        qzlib_disconnect_mbus_server();
    _exit(0);
}

// Runs a victim for so many steps and kills it. False when it ended by itself before. Steps
// are microseconds where single instructions cannot be: the kernels of MIPS and 32-bit ARM do not
// stop at them, and on 64-bit ARM a conditional store fails after a stop, and its loop never ends.
bool kill_after(long steps, bool whole_life)
{
    const pid_t pid = fork();
    if (pid == 0)
        live(whole_life);
    int status = 0;
    waitpid(pid, &status, 0);
    for (long i = 0; i < steps && WIFSTOPPED(status); ++i) {
#ifndef __x86_64__
        if (!whole_life) {
            ptrace(PTRACE_CONT, pid, nullptr, nullptr);
            usleep(static_cast<useconds_t>(steps / slowness()));
            break;
        }
#endif
        ptrace(whole_life ? PTRACE_SYSCALL : PTRACE_SINGLESTEP, pid, nullptr, nullptr);
        waitpid(pid, &status, 0);
    }
    if (!WIFSTOPPED(status))
        return false;
    kill(pid, SIGKILL);
    waitpid(pid, &status, 0);
    return WIFSIGNALED(status);
}

TEST_F(Served, nobody_notices_a_client_killed_at_any_system_call_or_instruction)
{
    // Every so many instructions, of which a sanitized build has more; 1 takes some minutes.
    const char *stride = getenv("QZLIB_TEST_STRIDE");
    const long step = stride != nullptr ? atol(stride) : 97L * slowness();
    const auto expect_rounds = [] {
        EXPECT_TRUE(eventually([rounds = board.rounds + 10] { return board.rounds > rounds; }));
    };
    Client echoing("echo", echo);
    await_connected(1);
    Client caller("caller", call);
    expect_rounds();
    long steps = 0;
    while (kill_after(steps, true))
        ++steps;
    EXPECT_GT(steps, 50) << "entries and exits of system calls";
    for (steps = 0; kill_after(steps, false);)
        steps += step;
    EXPECT_GT(steps, 500);
    expect_rounds();
    board.step = 1;
    EXPECT_EQ(caller.wait(), 0);
    echoing.kill();
    EXPECT_TRUE(eventually([] { return shared_segments() == 1; }));
}

} // namespace
