#include "mbus/bus_box.h"
#include "support/case.h"

#include <algorithm>
#include <chrono>
#include <fcntl.h>
#include <fnmatch.h>
#include <memory>
#include <sched.h>
#include <set>
#include <sys/mman.h>
#include <sys/ptrace.h>
#include <sys/stat.h>
#include <thread>
#include <vector>

namespace
{

using namespace support;
using Clock = std::chrono::steady_clock;
using std::chrono::milliseconds;

constexpr const char *LOG = "/tmp/mbusd.log";
constexpr const char *OUT = "/tmp/mbusd.out";

template <typename Condition>
bool happens(Condition condition, milliseconds limit = milliseconds(5000))
{
    const auto end = Clock::now() + patient(limit);
    while (!condition()) {
        if (Clock::now() > end)
            return false;
        usleep(500);
    }
    return true;
}

bool logged(const std::string &text)
{
    return read_file(LOG).find(text) != std::string::npos;
}

// The server as it is installed, in its own process.
class Mbusd
{
public:
    explicit Mbusd(bool expect_start = true) : pid_(fork())
    {
        if (pid_ == 0) {
            (void)!freopen(OUT, "w", stdout);
            execl(BINARY_DIR "/bin/mbusd", "mbusd", "--quiet", "--log", LOG, "--stats", "1", nullptr);
            _exit(99);
        }
        if (expect_start) {
            EXPECT_TRUE(happens([] { return logged("serving /tmp/mbus.sock"); }));
        }
    }
    ~Mbusd()
    {
        if (pid_ > 0) {
            EXPECT_EQ(end(SIGTERM), 0);
        }
    }
    Mbusd(const Mbusd &) = delete;
    Mbusd &operator=(const Mbusd &) = delete;

    void signal(int number) const { kill(pid_, number); }
    int end(int signal)
    {
        if (signal != 0)
            kill(pid_, signal);
        int status = -1;
        waitpid(std::exchange(pid_, -1), &status, 0);
        return status;
    }

private:
    pid_t pid_;
};

// Flags and figures that the processes of a test share.
struct Board {
    volatile int ready[64];
    volatile int stop;
    volatile long rounds;
    volatile int64_t longest_us;
};
Board *new_board()
{
    return static_cast<Board *>(
        mmap(nullptr, sizeof(Board), PROT_READ | PROT_WRITE, MAP_SHARED | MAP_ANONYMOUS, -1, 0));
}

size_t shared_segments()
{
    const std::string list = read_file("/proc/sysvipc/shm");
    return static_cast<size_t>(std::count(list.begin(), list.end(), '\n')) - 1;
}

std::string next_packet()
{
    const mbus_pkg *pkg = qzlib_mbus_read_pkg(nullptr, 0);
    if (pkg == nullptr)
        return "none";
    return std::to_string(pkg->type) + " " + std::string(pkg->name, strnlen(pkg->name, 64)) + " " +
           payload(pkg);
}

TEST(Mbusd, routes_by_the_name_of_the_packet)
{
    const Mbusd mbusd;
    Board *board = new_board();
    const auto all_ready = [board] { return board->ready[0] && board->ready[1] && board->ready[2]; };
    const Child a([&] {
        connect_as("alpha");
        board->ready[0] = 1;
        ASSERT_TRUE(happens(all_ready));
        EXPECT_EQ(qzlib_mbus_write(nullptr, 3, "BETA", "to one", 6), 6);
        EXPECT_EQ(qzlib_mbus_write(nullptr, 1, "topic", "to all", 6), 6);
        EXPECT_EQ(qzlib_mbus_write_data("unnamed", 7), 7);
        EXPECT_EQ(qzlib_mbus_write(nullptr, 2, "alpha", "to myself", 9), 9);
        EXPECT_EQ(next_packet(), "2 alpha to myself");
        EXPECT_EQ(qzlib_mbus_write(nullptr, 0, nullptr, "farewell", 8), 8);
        qzlib_disconnect_mbus_server(); // what was sent before is delivered
    });
    const Child b([&] {
        connect_as("beta");
        board->ready[1] = 1;
        for (const char *expected :
             {"3 BETA to one", "1 topic to all", "0 alpha unnamed", "0 alpha farewell"})
            EXPECT_EQ(next_packet(), expected);
    });
    const Child c([&] {
        connect_as("gamma");
        board->ready[2] = 1;
        for (const char *expected : {"1 topic to all", "0 alpha unnamed", "0 alpha farewell"})
            EXPECT_EQ(next_packet(), expected);
    });
}

// Each name of exactly 32 characters, with a key of its own.
std::string full_name(int i)
{
    return std::string(1, static_cast<char>('!' + i)) + std::string(31, 'n');
}

TEST(Mbusd, serves_50_clients_at_once_and_refuses_the_51st)
{
    const Mbusd mbusd;
    Board *board = new_board();
    std::vector<std::unique_ptr<Child>> clients;
    for (int i = 0; i < 50; ++i)
        clients.push_back(std::make_unique<Child>([=] {
            // On a loaded machine the 7 ms that connecting waits for its record may not do.
            ASSERT_TRUE(happens([&] { return qzlib_connect_mbus_server(full_name(i).c_str()) == 0; }));
            board->ready[i] = 1;
            if (i != 0) {
                EXPECT_EQ(next_packet(), "0 go go");
                EXPECT_EQ(qzlib_mbus_write(nullptr, 1, full_name(0).c_str(), "here", 4), 4);
            } else {
                EXPECT_TRUE(happens([=] { return board->stop; }, milliseconds(30000)));
                EXPECT_EQ(qzlib_mbus_write(nullptr, 0, "go", "go", 2), 2);
                for (int answers = 0; answers < 49; ++answers)
                    EXPECT_EQ(next_packet(), "1 " + full_name(0) + " here");
                board->stop = 2;
            }
            EXPECT_TRUE(happens([=] { return board->stop == 2; }, milliseconds(30000)));
        }));
    EXPECT_TRUE(
        happens([=] { return std::count(board->ready, board->ready + 50, 1) == 50; }, milliseconds(20000)));
    EXPECT_EQ(shared_segments(), 51U);
    EXPECT_EQ(qzlib_connect_mbus_server("one more"), -1);
    EXPECT_TRUE(logged("refused one more: 50 clients are connected"));
    board->stop = 1;
}

void send_control(const std::string &datagram)
{
    EXPECT_EQ(qzlib_send_to_unixdomain("/tmp/mbus.sock", datagram.data(), static_cast<int>(datagram.size())),
              0);
}

TEST(Mbusd, refuses_what_is_taken_or_malformed)
{
    const Mbusd mbusd;
    Board *board = new_board();
    Child holder([=] {
        connect_as("ab");
        board->ready[0] = 1;
        for (;;)
            pause();
    });
    ASSERT_TRUE(happens([=] { return board->ready[0]; }));
    send_control("short");
    send_control(std::string("\1\0\0\0toolong", 11) + std::string(30, '\0'));
    send_control(std::string("\7\0\0\0cd", 6) + std::string(30, '\0'));
    send_control(std::string("\1\0\0\0", 4) + std::string(32, '\0'));
    send_control(std::string("\1\0\0\0a\x9f", 6) + std::string(30, '\0'));
    send_control(std::string("\1\0\0\0AB", 6) + std::string(30, '\0'));
    send_control(std::string("\2\0\0\0xy", 6) + std::string(30, '\0'));
    send_control(std::string("\2\0\0\0ab", 6) + std::string(30, '\0')); // as one does that was refused
    EXPECT_EQ(qzlib_connect_mbus_server("ba"), -1);
    for (const char *expected :
         {"refused a datagram of 5 bytes", "refused a datagram of 41 bytes", "refused command 7 for \"cd\"",
          "refused command 1 for \"\"", "refused a?: its key is not usable", "refused AB from process",
          "the name is that of ab", "refused ba from process", "it has the key of ab", "xy is not registered",
          "refused to unregister ab"})
        EXPECT_TRUE(logged(expected)) << expected;
    EXPECT_EQ(shared_segments(), 2U);
    holder.kill();
}

// On a slow machine a daemon may try again while the server has its first attempt before it.
TEST(Mbusd, keeps_the_record_of_a_process_that_registers_again_before_it_attached)
{
    const Mbusd mbusd;
    const std::string registration = std::string("\1\0\0\0hasty", 9) + std::string(27, '\0');
    const int key = qzlib_mbus_name_to_key("hasty");
    send_control(registration);
    ASSERT_TRUE(happens([=] { return shmget(key, 0, 0) >= 0; }));
    const int segment = shmget(key, 0, 0);
    send_control(registration);
    send_control("the end");
    ASSERT_TRUE(happens([] { return logged("refused a datagram of 7 bytes"); }));
    EXPECT_EQ(shmget(key, 0, 0), segment);
    connect_as("hasty");
    EXPECT_EQ(qzlib_mbus_write(nullptr, 1, "hasty", "to myself", 9), 9);
    EXPECT_EQ(next_packet(), "1 hasty to myself");
    qzlib_disconnect_mbus_server();
}

TEST(Mbusd, frees_what_a_killed_client_held_and_lets_it_return_at_once)
{
    const Mbusd mbusd;
    Board *board = new_board();
    Child other([=] {
        connect_as("other");
        board->ready[0] = 1;
        for (int i = 0; i < 20; ++i) {
            EXPECT_EQ(next_packet(), "0 other last words");
            EXPECT_EQ(qzlib_mbus_write(nullptr, 0, "doomed", "hello", 5), 5);
        }
    });
    ASSERT_TRUE(happens([=] { return board->ready[0]; }));
    for (int i = 0; i < 20; ++i) {
        board->ready[1] = 0;
        Child doomed([=] {
            ASSERT_TRUE(happens([] { return qzlib_connect_mbus_server("doomed") == 0; }));
            EXPECT_EQ(qzlib_mbus_write(nullptr, 0, "other", "last words", 10), 10);
            EXPECT_EQ(next_packet(), "0 doomed hello");
            board->ready[1] = 1;
            for (;;)
                (void)qzlib_mbus_read_pkg(nullptr, 0);
        });
        ASSERT_TRUE(happens([=] { return board->ready[1]; })) << i;
        doomed.kill();
    }
    ASSERT_EQ(other.wait(), 0);
    EXPECT_TRUE(happens([] { return shared_segments() == 1; }));
    const RawSegment table(SHARE_KEY);
    const std::string free_records(8396, '\0'); // but for the server's doorbell, cleared after the segments
    EXPECT_TRUE(happens([&] { return memcmp(table.at(48), free_records.data(), 8396) == 0; }));
}

// The client is not told when the server has read its commands: it finds its old record, and
// must not be left with it.
TEST(Mbusd, being_late_does_not_cut_off_a_client_that_connects_again)
{
    const Mbusd mbusd;
    for (const bool unregisters : {true, false}) {
        Child before([&] {
            connect_as("daemon");
            EXPECT_EQ(qzlib_mbus_write(nullptr, 0, "daemon", "old", 3), 3);
            EXPECT_EQ(next_packet(), "0 daemon old");
            mbusd.signal(SIGSTOP);
            if (unregisters)
                qzlib_disconnect_mbus_server();
        });
        EXPECT_EQ(before.wait(), 0);
        const Child again([&] {
            connect_as("daemon");
            mbusd.signal(SIGCONT);
            EXPECT_EQ(qzlib_mbus_write(nullptr, 0, "daemon", "new", 3), 3);
            EXPECT_EQ(next_packet(), "0 daemon new");
        });
    }
    EXPECT_TRUE(happens([] { return shared_segments() == 1; }));
}

TEST(Mbusd, starts_over_remains_ends_without_any_and_refuses_a_twin)
{
    write_file("/tmp/mbus.sock", "no socket at all");
    const int stale = shmget(SHARE_KEY, 100, IPC_CREAT | 0666); // of another size
    EXPECT_GE(shmget(qzlib_mbus_name_to_key("client"), 100, IPC_CREAT | 0666), 0);
    Mbusd mbusd;
    EXPECT_NE(shmget(SHARE_KEY, 0, 0), stale);
    Mbusd twin(false);
    EXPECT_EQ(twin.end(0), 1 << 8);
    EXPECT_TRUE(logged("another bus server is running"));
    Board *board = new_board();
    const Child client([=] {
        connect_as("client");
        board->ready[0] = 1;
        EXPECT_TRUE(happens([=] { return board->stop; }, milliseconds(30000)));
        EXPECT_EQ(qzlib_mbus_write_data("x", 1), 0) << "accepted, and nobody to read it";
        EXPECT_EQ(qzlib_find_client_by_name("client"), nullptr);
        EXPECT_TRUE(happens([] { return qzlib_connect_mbus_server("client") == 0; }, milliseconds(30000)));
        EXPECT_EQ(qzlib_mbus_write(nullptr, 0, "client", "back", 4), 4);
        EXPECT_EQ(next_packet(), "0 client back");
        qzlib_disconnect_mbus_server();
    });
    ASSERT_TRUE(happens([=] { return board->ready[0]; }));
    EXPECT_EQ(mbusd.end(SIGTERM), 0);
    EXPECT_NE(access("/tmp/mbus.sock", F_OK), 0);
    EXPECT_EQ(shmget(SHARE_KEY, 0, 0), -1);
    EXPECT_EQ(shmget(qzlib_mbus_name_to_key("client"), 0, 0), -1);
    board->stop = 1;
    Mbusd next;
    EXPECT_EQ(const_cast<Child &>(client).wait(), 0);
    EXPECT_EQ(next.end(SIGTERM), 0);
    EXPECT_EQ(shared_segments(), 0U);
}

// Names and handles lie where every client can write.
TEST(Mbusd, believes_nothing_that_it_wrote_into_shared_memory)
{
    Mbusd mbusd;
    RawSegment table(SHARE_KEY);
    Board *board = new_board();
    const auto live = [=](int place) {
        ASSERT_TRUE(happens([] { return qzlib_connect_mbus_server("victim") == 0; }));
        EXPECT_EQ(qzlib_mbus_write(nullptr, 0, "victim", "mine", 4), 4);
        EXPECT_EQ(next_packet(), "0 victim mine");
        board->ready[place] = 1;
        EXPECT_TRUE(happens([=] { return board->stop > place; }));
        EXPECT_EQ(qzlib_mbus_write(nullptr, 0, "VICTIM", "still", 5), 5);
        EXPECT_EQ(next_packet(), "0 VICTIM still");
    };
    Child first([=] { live(0); });
    ASSERT_TRUE(happens([=] { return board->ready[0]; }));
    for (size_t i = 1; i < 50; ++i)
        memcpy(table.at(record_at(i) + 32), table.at(record_at(0) + 32), 16); // its handle
    Child([] { connect_as("other"); });
    board->stop = 1;
    EXPECT_EQ(first.wait(), 0);
    *table.at(record_at(0)) = 'X'; // in the moment of its restart
    Child second([=] { live(1); });
    ASSERT_TRUE(happens([=] { return board->ready[1]; }));
    board->stop = 2;
    EXPECT_EQ(second.wait(), 0);
    EXPECT_EQ(mbusd.end(SIGTERM), 0);
    EXPECT_EQ(shared_segments(), 1U) << "this test's own view of the table, and nothing else";
}

TEST(Mbusd, loses_nothing_that_was_sent_before_a_quick_reconnection)
{
    constexpr int LIVES = 60;
    constexpr int PACKETS = 40;
    const Mbusd mbusd;
    Board *board = new_board();
    const Child receiver([=] {
        connect_as("receiver");
        board->ready[0] = 1;
        for (int i = 0; i < LIVES * PACKETS; ++i) {
            ASSERT_EQ(next_packet(), "0 receiver " + std::to_string(i));
            if (i % 100 == 0)
                usleep(3000);
        }
    });
    ASSERT_TRUE(happens([=] { return board->ready[0]; }));
    for (int i = 0; i < LIVES * PACKETS; ++i) {
        const std::string text = std::to_string(i);
        if (i % PACKETS == 0)
            connect_as("sender");
        ASSERT_TRUE(happens([&] {
            return qzlib_mbus_write(nullptr, 0, "receiver", text.data(), static_cast<int>(text.size())) != 0;
        }));
    }
    qzlib_disconnect_mbus_server();
}

TEST(Mbusd, takes_over_the_clients_of_one_that_was_killed)
{
    Board *board = new_board();
    auto first = std::make_unique<Mbusd>();
    const auto talk = [=](const char *name, const char *peer, int place, std::set<std::string> expected) {
        connect_as(name);
        board->ready[place] = 1;
        EXPECT_TRUE(happens([=] { return board->stop; }, milliseconds(30000)));
        EXPECT_EQ(qzlib_mbus_write(nullptr, 0, peer, name, static_cast<int>(strlen(name))),
                  static_cast<int>(strlen(name)));
        for (size_t left = expected.size(); left > 0; --left)
            EXPECT_EQ(expected.erase(next_packet()), 1U);
    };
    Child ping([=] { talk("ping", "pong", 0, {"0 ping pong"}); });
    Child pong([=] { talk("pong", "ping", 1, {"0 pong ping", "0 pong dead"}); });
    Child dead([=] {
        connect_as("dead");
        board->ready[2] = 1;
        EXPECT_TRUE(happens([=] { return board->rounds; }));
        EXPECT_EQ(qzlib_mbus_write(nullptr, 0, "pong", "dead", 4), 4);
    });
    ASSERT_TRUE(happens([=] { return board->ready[0] && board->ready[1] && board->ready[2]; }));
    first->end(SIGKILL);
    board->rounds = 1;
    ASSERT_EQ(dead.wait(), 0);
    remove(LOG);
    const Mbusd second;
    board->stop = 1;
    EXPECT_EQ(ping.wait(), 0);
    EXPECT_EQ(pong.wait(), 0);
    EXPECT_TRUE(happens([] { return shared_segments() == 1; }));
}

// The output of a server that was started with these words, as far as its reader wanted it.
std::string output_of(const std::string &words, const std::string &reader = "cat")
{
    const std::string command = "exec 2>&1; " BINARY_DIR "/bin/mbusd " + words + " | " + reader;
    FILE *pipe = popen(command.c_str(), "r");
    char text[2000] = "";
    text[fread(text, 1, sizeof text - 1, pipe)] = '\0';
    pclose(pipe);
    return text;
}

TEST(Mbusd, tells_what_is_wrong_and_ends_with_its_reader)
{
    EXPECT_EQ(output_of("--log /tmp").find("mbusd: cannot write the log /tmp: Is a directory"), 0U);
    EXPECT_EQ(output_of("--quiet --stats 1", "head -n 1").find("client "), 0U);
    Child([] {
        std::thread talker([] {
            EXPECT_TRUE(happens([] { return qzlib_connect_mbus_server("talker") == 0; }));
            for (int i = 0; i < 3; ++i)
                EXPECT_EQ(
                    qzlib_mbus_write(nullptr, 1, "TALKER", i == 1 ? "\1\xff" : "hello", 2 + 3 * (i != 1)),
                    2 + 3 * (i != 1));
        });
        const std::string said = output_of("--quiet --trace=talker", "head -n 3");
        const char *expected = "*time *.* talker *talker *TALKER * 1 * 5  \"hello\"\n* 2  01ff\n*";
        EXPECT_EQ(fnmatch(expected, said.c_str(), 0), 0) << said;
        talker.join();
    });
}

TEST(Mbusd, makes_its_socket_again_when_it_was_deleted)
{
    const Mbusd mbusd;
    remove("/tmp/mbus.sock");
    EXPECT_TRUE(happens([] { return access("/tmp/mbus.sock", F_OK) == 0; }));
    connect_as("client");
    qzlib_disconnect_mbus_server();
}

// The senders' patience is used up once, not with every packet that it takes.
TEST(Mbusd, lets_a_receiver_that_lags_cost_only_itself)
{
    const Mbusd mbusd;
    Board *board = new_board();
    Child lagging([=] {
        connect_as("lagging");
        board->ready[0] = 1;
        while (qzlib_mbus_read_pkg(nullptr, 0) != nullptr)
            usleep(90'000);
    });
    Child fast([=] {
        connect_as("fast");
        board->ready[1] = 1;
        while (qzlib_mbus_read_pkg(nullptr, 0) != nullptr)
            board->rounds = board->rounds + 1;
    });
    ASSERT_TRUE(happens([=] { return board->ready[0] && board->ready[1]; }));
    connect_as("sender");
    long accepted = 0;
    for (int i = 0; i < 2000; ++i) {
        accepted += qzlib_mbus_write(nullptr, 0, "topic", "x", 1);
        usleep(1000);
    }
    EXPECT_GE(accepted, 2000 * 95 / 100);
    EXPECT_TRUE(happens([=] { return board->rounds == accepted; })) << board->rounds;
    lagging.kill();
    fast.kill();
}

TEST(Mbusd, prints_a_line_per_client)
{
    const Mbusd mbusd;
    const Child client([] {
        connect_as("client");
        EXPECT_EQ(qzlib_mbus_write(nullptr, 0, "client", "12345", 5), 5);
        EXPECT_EQ(qzlib_mbus_write(nullptr, 0, "client", "1234567", 7), 7);
        EXPECT_EQ(next_packet(), "0 client 12345"); // its slot is not given back yet
        EXPECT_TRUE(happens([] {
            const std::string out = read_file(OUT);
            const size_t at = out.rfind("\nclient ");
            unsigned v[8] = {};
            return at != std::string::npos &&
                   sscanf(out.c_str() + at + 8, "%u %u %u %u %u %u %u %u", v, v + 1, v + 2, v + 3, v + 4,
                          v + 5, v + 6, v + 7) == 8 &&
                   v[0] == 12 && v[1] == 12 && v[2] == 0 && v[3] == 0 && v[4] == 12 && v[5] == 5 &&
                   v[6] == 0 && v[7] == 2;
        }));
    });
}

// A sender faster than its receiver is slowed down; a receiver that has stopped holds it up
// only once.
TEST(Mbusd, loses_nothing_to_a_slow_receiver_and_does_not_wait_for_a_stopped_one)
{
    constexpr uint32_t PACKETS = 3000;
    const Mbusd mbusd;
    Board *board = new_board();
    Child receiver([=] {
        connect_as("receiver");
        board->ready[0] = 1;
        for (uint32_t i = 0; i < PACKETS; ++i) {
            const mbus_pkg *pkg = qzlib_mbus_read_pkg(nullptr, 0);
            ASSERT_NE(pkg, nullptr);
            ASSERT_EQ(memcmp(pkg->data, &i, sizeof i), 0) << i;
            if (i % 500 == 0)
                usleep(20'000);
        }
        board->ready[0] = 2;
        for (;;)
            pause();
    });
    ASSERT_TRUE(happens([=] { return board->ready[0]; }));
    const Child sender([=] {
        connect_as("sender");
        const auto send = [](const char *name, uint32_t number) {
            while (qzlib_mbus_write(nullptr, 0, name, &number, sizeof number) != sizeof number)
                usleep(20);
        };
        for (uint32_t i = 0; i < PACKETS; ++i)
            send("receiver", i);
        EXPECT_TRUE(happens([=] { return board->ready[0] == 2; }));
        const auto start = Clock::now();
        for (uint32_t i = 0; i < 200; ++i)
            send("receiver", i); // who no longer reads
        send("sender", 1);
        EXPECT_NE(qzlib_mbus_read_pkg(nullptr, 0), nullptr);
        EXPECT_LT(Clock::now() - start, patient(milliseconds(1000)));
    });
    const_cast<Child &>(sender).wait();
    receiver.kill();
}

TEST(Mbusd, delivers_what_was_sent_before_the_sender_left)
{
    constexpr int PACKETS = 120; // what both rings hold
    const Mbusd mbusd;
    Board *board = new_board();
    const Child receiver([=] {
        connect_as("receiver");
        board->ready[0] = 1;
        EXPECT_TRUE(happens([] { return logged("sender: unregistered"); }));
        for (int i = 0; i < PACKETS; ++i)
            ASSERT_EQ(next_packet(), "0 receiver " + std::to_string(i));
    });
    ASSERT_TRUE(happens([=] { return board->ready[0]; }));
    const Child sender([] {
        connect_as("sender");
        for (int i = 0; i < PACKETS; ++i) {
            const std::string text = std::to_string(i);
            while (qzlib_mbus_write(nullptr, 0, "receiver", text.data(), static_cast<int>(text.size())) == 0)
                usleep(20);
        }
        qzlib_disconnect_mbus_server();
    });
}

// Two clients talk while a third is killed after every number of instructions of its way
// through writing, waiting and reading. Nobody else may notice.
class Talkers
{
public:
    explicit Talkers(Board *board)
        : board_(board), echo_([=] {
              connect_as("echo");
              board->ready[0] = 1;
              for (;;) {
                  const mbus_pkg *pkg = qzlib_mbus_read_pkg(nullptr, 0);
                  ASSERT_NE(pkg, nullptr);
                  if (strncmp(pkg->name, "echo", 64) != 0)
                      continue; // the victim's noise
                  const std::string text = payload(pkg);
                  ASSERT_EQ(
                      qzlib_mbus_write(nullptr, 0, "caller", text.data(), static_cast<int>(text.size())),
                      static_cast<int>(text.size()));
              }
          }),
          caller_([=] { call(board); })
    {
    }
    ~Talkers()
    {
        board_->stop = 1;
        EXPECT_EQ(caller_.wait(), 0);
        echo_.kill();
    }
    Talkers(const Talkers &) = delete;
    Talkers &operator=(const Talkers &) = delete;

private:
    static void call(Board *board)
    {
        ASSERT_TRUE(happens([=] { return board->ready[0]; }));
        connect_as("caller");
        Pattern pattern(5);
        while (board->stop == 0) {
            const std::string text = pattern.packet();
            const auto start = Clock::now();
            ASSERT_EQ(qzlib_mbus_write(nullptr, 0, "echo", text.data(), static_cast<int>(text.size())),
                      static_cast<int>(text.size()));
            const mbus_pkg *pkg = nullptr;
            do {
                pkg = qzlib_mbus_read_pkg(nullptr, 0);
                ASSERT_NE(pkg, nullptr);
                ASSERT_TRUE(strncmp(pkg->name, "caller", 64) == 0 || payload(pkg) == "noise");
            } while (strncmp(pkg->name, "caller", 64) != 0);
            ASSERT_EQ(payload(pkg), text);
            const int64_t took =
                std::chrono::duration_cast<std::chrono::microseconds>(Clock::now() - start).count();
            if (took > board->longest_us)
                board->longest_us = took;
            board->rounds = board->rounds + 1;
        }
    }

    Board *board_;
    Child echo_;
    Child caller_;
};

// What a victim does: its whole life on the bus with the system calls as steps, or with
// single instructions as steps its way through writing, waiting and reading.
void live(bool whole_life)
{
    if (!whole_life && !happens([] { return qzlib_connect_mbus_server("victim") == 0; }))
        _exit(1);
    ptrace(PTRACE_TRACEME, 0, nullptr, nullptr);
    raise(SIGSTOP);
    if (whole_life && !happens([] { return qzlib_connect_mbus_server("victim") == 0; }))
        _exit(1);
    qzlib_mbus_write(nullptr, 0, nullptr, "noise", 5); // to all
    qzlib_mbus_write(nullptr, 0, "victim", "to myself", 9);
    while (payload(qzlib_mbus_read_pkg(nullptr, 0)) != "to myself") {
    }
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

TEST(Mbusd, nobody_notices_a_client_killed_at_any_system_call_or_instruction)
{
    // Every so many instructions, of which a sanitized build has more; 1 takes some minutes.
    const char *stride = getenv("QZLIB_TEST_STRIDE");
    const long step = stride != nullptr ? atol(stride) : 97L * slowness();
    const Mbusd mbusd;
    Board *board = new_board();
    {
        const Talkers talkers(board);
        ASSERT_TRUE(happens([=] { return board->rounds > 10; }));
        long steps = 0;
        while (kill_after(steps, true))
            ++steps;
        EXPECT_GT(steps, 50) << "entries and exits of system calls";
        for (steps = 0; kill_after(steps, false);)
            steps += step;
        EXPECT_GT(steps, 500);
        const long rounds = board->rounds;
        EXPECT_TRUE(happens([=] { return board->rounds > rounds + 10; }));
    }
    EXPECT_LT(board->longest_us, patient(int64_t{2'000'000}));
    EXPECT_TRUE(happens([] { return shared_segments() == 1; }));
}

} // namespace
