#include "mbus/bus_box.h"

#include <ctime>

namespace
{

using namespace support;

const uint32_t ROUNDS = scaled(40'000U);

// What the callback of a client saw, in bytes or in packets; it may be held up.
std::atomic<uint32_t> seen, wrong;
std::atomic<bool> held;

int check_order(unsigned type, const char *name, const void *data, unsigned len)
{
    uint32_t number = 0;
    memcpy(&number, data, sizeof number);
    sigset_t mask; // the caller's, which the programs that it starts inherit
    pthread_sigmask(SIG_SETMASK, nullptr, &mask);
    const bool right = type == number % 4 && strncmp(name, "order", 64) == 0 && len == sizeof number &&
                       number == seen && reinterpret_cast<uintptr_t>(data) % alignof(uint64_t) == 0 &&
                       sigismember(&mask, SIGUSR1) == 1 && sigismember(&mask, SIGTERM) == 0;
    wrong += !right;
    ++seen;
    return -1; // ignored
}

int count_bytes(unsigned /*type*/, const char * /*name*/, const void * /*data*/, unsigned len)
{
    seen += len;
    while (held)
        usleep(1000);
    return 0;
}

struct DownCache : Bus {
    void send(int length) const
    {
        ASSERT_EQ(qzlib_mbus_write(record, 0, nullptr, std::string(4096, 'x').data(), length), length);
    }
    void await_packet() const
    {
        ASSERT_TRUE(eventually([this] { return qzlib_mbus_read_pkg(record, 1) != nullptr; }));
    }
};

TEST_F(DownCache, delivers_one_at_a_time_in_order_and_loses_no_wakeup)
{
    EXPECT_EQ(qzlib_mbus_down_cache_process(0, check_order), -1) << "not connected";
    const Process client([] {
        sigset_t mask;
        sigemptyset(&mask);
        sigaddset(&mask, SIGUSR1);
        pthread_sigmask(SIG_SETMASK, &mask, nullptr);
        connect_as("demo");
        ASSERT_EQ(qzlib_mbus_down_cache_process(0, check_order), 0);
        for (uint32_t answered = 0; answered < ROUNDS; ++answered) {
            spin([=] { return seen != answered; });
            ASSERT_EQ(qzlib_mbus_write_data("x", 1), 1);
        }
        EXPECT_EQ(wrong, 0U);
        EXPECT_EQ(seen, ROUNDS);
    });
    await_connected(record);
    for (uint32_t i = 0; i < ROUNDS; ++i) {
        ASSERT_EQ(qzlib_mbus_write(record, static_cast<int>(i % 4), "order", &i, sizeof i), 4);
        spin([this] { return qzlib_mbus_read_pkg(record, 1) != nullptr; });
    }
}

// With a cap of 5000: 0 + 87 + 4096 fits; then 4179 are in use, which 87 + 734 fill up exactly and
// 87 + 735 do not. A delivered packet gives its charge back, the last one perhaps a little later:
// 4000 more fit in either case. A cap below 4097 is the default.
TEST_F(DownCache, admits_by_the_cap)
{
    const Table<int, std::vector<int>> cases = {
        {5000, {4096, 735, 1}}, {4096, {}}, {-1, {}}}; // the cap, and the lengths that it drops
    for (const auto &[cap, dropped] : cases) {
        const Process client([limit = cap, lengths = dropped] {
            start_log("id");
            connect_as("demo");
            held = true;
            ASSERT_EQ(qzlib_mbus_down_cache_process(limit, count_bytes), 0);
            uint32_t sum = 2 * 4096 + 735 + 734 + 1;
            std::string drops;
            for (const int length : lengths) {
                drops += "<WARNING>id:demo down_cache is full, drop " + std::to_string(length) + "bytes\n";
                sum -= static_cast<uint32_t>(length);
            }
            await(seen, 4096);
            EXPECT_TRUE(eventually([&] { return lengths.empty() || logged("drop 1bytes"); })); // the last one
            held = false;
            await(seen, sum);
            qzlib_mbus_write_data("again", 5);
            await(seen, sum + 4000);
            std::string log = take_log();
            EXPECT_EQ(log.substr(log.find("success\n") + 8), drops);
        });
        await_connected(record);
        record->flags = 0;
        for (const int length : {4096, 4096, 735, 734, 1})
            send(length);
        await_packet();
        send(4000);
    }
}

TEST_F(DownCache, sleeps_while_disconnected_and_goes_on_after_a_reconnect)
{
    const Process client([] {
        connect_as("demo");
        ASSERT_EQ(qzlib_mbus_down_cache_process(0, count_bytes), 0);
        usleep(20'000); // the reader waits for a packet
        ASSERT_EQ(qzlib_client_clear_flag(1), 0);
        qzlib_mbus_share_uninit(); // under the reader, which is sent away first
        EXPECT_EQ(qzlib_mbus_write_data("x", 1), 0);
        ASSERT_EQ(qzlib_disconnect_mbus_server(), 0);
        const clock_t before = clock();
        sleep(2); // the reader slept for one of them, as the table had gone
        EXPECT_LT(clock() - before, CLOCKS_PER_SEC / 20);
        connect_as("demo");
        qzlib_mbus_write_data("again", 5);
        await(seen, 3);
    });
    await_packet();
    send(3);
}

// The thread sanitizer starts no threads in a child of a process with threads, and adds a
// thread of its own that wakes often.
#ifndef __SANITIZE_THREAD__
// A child of fork() has the locks that its parent's threads hold, but not the threads.
TEST_F(DownCache, of_a_child_is_its_own)
{
    mbus_client *childs = server.add("child");
    const Process parent([] {
        connect_as("demo");
        ASSERT_EQ(qzlib_mbus_down_cache_process(0, count_bytes), 0);
        usleep(20'000); // the reader waits for a packet
        const Process child([] {
            connect_as("child");
            ASSERT_EQ(qzlib_mbus_down_cache_process(0, count_bytes), 0);
            await(seen, 3);
        });
        await(seen, 4);
    });
    await_connected(childs);
    ASSERT_EQ(qzlib_mbus_write(childs, 0, nullptr, "abc", 3), 3);
    ASSERT_EQ(qzlib_mbus_write(record, 0, nullptr, "abcd", 4), 4);
    EXPECT_EQ(server.control()[0], 1);
    EXPECT_EQ(server.control()[0], 1) << "the parent is not unregistered";
}

long voluntary_switches(pid_t pid)
{
    const std::string files = "/proc/" + std::to_string(pid) + "/task/*/status";
    return std::stol(sh("awk '/^voluntary_ctxt_switches/ { sum += $2 } END { print sum }' " + files));
}

TEST_F(DownCache, wakes_an_idle_daemon_at_most_once_a_second)
{
    Process client([] {
        connect_as("demo");
        ASSERT_EQ(qzlib_mbus_down_cache_process(0, count_bytes), 0);
        pause();
    });
    usleep(2'500'000); // the bound of the wait has grown
    const Stopwatch watch;
    const long before = voluntary_switches(client.pid());
    usleep(3'000'000);
    EXPECT_LE(voluntary_switches(client.pid()) - before, static_cast<long>(watch.seconds()));
    EXPECT_EQ(client.end(SIGKILL), -SIGKILL);
}
#endif

} // namespace
