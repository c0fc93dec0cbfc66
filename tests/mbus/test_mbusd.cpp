#include "mbus/bus_box.h"

#include <fnmatch.h>
#include <list>
#include <set>
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
        const auto printed = std::string("grep -sqxE 'gamma +12 +12 +0 +0 +33 +26 +0 +2' ") + OUT;
        EXPECT_TRUE(eventually([&] { return system(printed.c_str()) == 0; })) << read_file(OUT);
    });
    await(board.connected, 2);
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

TEST_F(Served, at_once_are_50_clients_but_no_51st)
{
    std::list<Client> clients;
    const std::string first(32, '!'); // names may fill their field
    for (int i = 0; i < 50; ++i)
        clients.emplace_back(std::string(32, static_cast<char>('!' + i)), [&, i] {
            if (i != 0) {
                expect_packets({"0 go go"});
                send(first, "here", 1);
            } else {
                await(board.step, 1);
                send("go", "go");
                expect_packets(std::vector<std::string>(49, "1 " + first + " here"));
                board.step = 2;
            }
            await(board.step, 2);
        });
    await(board.connected, 50);
    EXPECT_EQ(shared_segments(), 51U);
    EXPECT_EQ(qzlib_connect_mbus_server("one more"), -1);
    EXPECT_TRUE(eventually([] { return logged("refused one more: 50 clients are connected", LOG); }));
    board.step = 1;
}

void send_control(const std::string &datagram)
{
    const int length = static_cast<int>(datagram.size());
    EXPECT_EQ(qzlib_send_to_unixdomain("/tmp/mbus.sock", datagram.data(), length), 0);
}

TEST_F(Served, names_and_datagrams_are_looked_at)
{
    Client holder("ab", pause);
    await(board.connected, 1);
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
        await(board.step, 1);
        EXPECT_EQ(qzlib_mbus_write_data("x", 1), 0) << "accepted, and nobody to read it";
        EXPECT_EQ(qzlib_find_client_by_name("client"), nullptr);
        connect_as("client");
        send("client", "back");
        expect_packets({"0 client back"});
        qzlib_disconnect_mbus_server();
    });
    await(board.connected, 1);
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
        await(board.step, step + 1);
        send("VICTIM", "still");
        expect_packets({"0 VICTIM still"});
    };
    Client first("victim", live);
    await(board.step, 1);
    for (size_t i = 1; i < 50; ++i)
        records[i].server_handle = records[0].server_handle;
    Client("other", [] {});
    board.step = 2;
    EXPECT_EQ(first.wait(), 0);
    records[0].name[0] = 'X'; // in the moment of its restart
    Client second("victim", live);
    await(board.step, 3);
    board.step = 4;
    EXPECT_EQ(second.wait(), 0);
    EXPECT_EQ(mbusd.end(), 0);
    EXPECT_EQ(shared_segments(), 1U) << "this test's own view of the table, and nothing else";
}

TEST(Mbusd, takes_over_the_clients_of_one_that_was_killed)
{
    Mbusd first;
    const auto talk = [](const char *name, const char *peer, std::set<std::string> expected) {
        return [=]() mutable {
            await(board.step, 2);
            send(peer, name);
            for (size_t left = expected.size(); left > 0; --left)
                EXPECT_EQ(expected.erase(next_packet()), 1U);
        };
    };
    Client ping("ping", talk("ping", "pong", {"0 ping pong"}));
    Client pong("pong", talk("pong", "ping", {"0 pong ping", "0 pong dead"}));
    Client dead("dead", [] {
        await(board.step, 1);
        send("pong", "dead");
    });
    await(board.connected, 3);
    EXPECT_EQ(first.end(SIGKILL), -SIGKILL);
    board.step = 1;
    ASSERT_EQ(dead.wait(), 0);
    remove(LOG);
    const Mbusd second;
    board.step = 2;
    EXPECT_EQ(ping.wait(), 0);
    EXPECT_EQ(pong.wait(), 0);
    EXPECT_TRUE(eventually([] { return shared_segments() == 1; }));
}

TEST(Mbusd, tells_what_is_wrong_and_ends_with_its_reader)
{
    const std::string mbusd = "exec 2>&1; " BINARY_DIR "/bin/mbusd ";
    EXPECT_EQ(sh(mbusd + "--log /tmp | cat").find("mbusd: cannot write the log /tmp: Is a directory"), 0U);
    EXPECT_EQ(sh(mbusd + "--quiet --stats 1 | head -n 1").find("client "), 0U);
    const Client talker("talker", [] {
        for (const char *text : {"hello", "\1\xff", "hello"})
            send("TALKER", text, 1);
    });
    const std::string said = sh(mbusd + "--quiet --trace=talker | head -n 3");
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

// The senders' patience is used up once, not with every packet.
TEST_F(Served, a_receiver_that_lags_or_has_stopped_costs_only_itself)
{
    Client stopped("stopped", pause);
    Client lagging("lagging", [] {
        while (qzlib_mbus_read_pkg(nullptr, 0) != nullptr)
            usleep(90'000);
    });
    Client fast("fast", [] {
        while (qzlib_mbus_read_pkg(nullptr, 0) != nullptr)
            ++board.rounds;
    });
    await(board.connected, 3);
    connect_as("sender");
    long accepted = 0;
    for (int i = 0; i < 2000; ++i, usleep(1000))
        accepted += qzlib_mbus_write(nullptr, 0, "topic", "x", 1);
    EXPECT_GE(accepted, 1500);
    EXPECT_TRUE(eventually([=] { return board.rounds == accepted; })) << board.rounds;
    for (Client *client : {&stopped, &lagging, &fast})
        client->kill();
}

void send_numbers(int first, int end)
{
    for (int i = first; i < end; ++i)
        send("receiver", std::to_string(i));
}

void expect_numbers(int first, int end)
{
    for (int i = first; i < end; ++i) {
        ASSERT_EQ(next_packet(), "0 receiver " + std::to_string(i));
        if (i % 100 == 99)
            usleep(3000);
    }
}

// Whether their sender leaves, comes back at once or is faster than the receiver, which slows it down.
TEST_F(Served, numbers_of_one_sender_all_arrive)
{
    constexpr int LEFT = 120; // what both rings hold
    constexpr int RECONNECTED = LEFT + 60 * 40, END = RECONNECTED + 3000;
    const Client receiver("receiver", [] {
        // Elsewhere the server's patience is over before this is seen.
        EXPECT_TRUE(slowness() > 1 || eventually([] { return logged("sender: unregistered", LOG); }));
        expect_numbers(0, LEFT);
        board.step = 1;
        expect_numbers(LEFT, END);
    });
    await(board.connected, 1);
    connect_as("sender");
    send_numbers(0, LEFT);
    qzlib_disconnect_mbus_server();
    await(board.step, 1);
    for (int i = LEFT; i < RECONNECTED; i += 40) {
        connect_as("sender");
        send_numbers(i, i + 40);
    }
    send_numbers(RECONNECTED, END);
    qzlib_disconnect_mbus_server();
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
    const Segment table(QZLIB_MBUS_SHARE_KEY);
    Client echoing("echo", echo);
    await(board.connected, 1);
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
    // But for the server's doorbell, in the last word. Cleared after the segments.
    EXPECT_TRUE(eventually([&] { return table.bytes(48, 8396) == std::string(8396, '\0'); }));
}

} // namespace
