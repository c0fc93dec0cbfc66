#include "mbus/bus_box.h"

#include <atomic>
#include <ctime>
#include <vector>

#include "support/case.h"

namespace
{

using namespace support;

const uint32_t ROUNDS = scaled(100'000U);

// What the callback of a client saw; it may be held up.
struct Seen {
    std::atomic<uint32_t> count;
    std::atomic<uint32_t> wrong;
    std::atomic<bool> held;
};
Seen seen;

int check_order(unsigned type, const char *name, const void *data, unsigned len)
{
    uint32_t number = 0;
    memcpy(&number, data, sizeof number);
    const bool right = type == number % 4 && strncmp(name, "order", 64) == 0 && len == sizeof number &&
                       number == seen.count && reinterpret_cast<uintptr_t>(data) % alignof(uint64_t) == 0;
    if (!right)
        ++seen.wrong;
    ++seen.count;
    while (seen.held)
        usleep(1000);
    return -1; // ignored
}

int count_packet(unsigned /*type*/, const char * /*name*/, const void * /*data*/, unsigned len)
{
    seen.count += len;
    while (seen.held)
        usleep(1000);
    return 0;
}

void await_count(uint32_t count)
{
    while (seen.count < count)
        usleep(100);
}

int mask_seen = -1;

int look_at_mask(unsigned /*type*/, const char * /*name*/, const void * /*data*/, unsigned /*len*/)
{
    sigset_t mask;
    pthread_sigmask(SIG_SETMASK, nullptr, &mask);
    mask_seen = sigismember(&mask, SIGUSR1) * 2 + sigismember(&mask, SIGTERM);
    seen.count = 1;
    return 0;
}

// Which the programs that it starts inherit.
TEST(DownCache, calls_back_with_the_callers_signal_mask)
{
    ServerEnd server;
    mbus_client *record = server.add("demo");
    const Child client([] {
        sigset_t mask;
        sigemptyset(&mask);
        sigaddset(&mask, SIGUSR1);
        pthread_sigmask(SIG_SETMASK, &mask, nullptr);
        connect_as("demo");
        ASSERT_EQ(qzlib_mbus_down_cache_process(0, look_at_mask), 0);
        await_count(1);
        EXPECT_EQ(mask_seen, 2);
    });
    await_connected(record);
    ASSERT_EQ(qzlib_mbus_write(record, 0, nullptr, "x", 1), 1);
}

TEST(DownCache, needs_a_connection)
{
    EXPECT_EQ(qzlib_mbus_down_cache_process(0, check_order), -1);
}

TEST(DownCache, delivers_one_at_a_time_in_order_and_loses_no_wakeup)
{
    ServerEnd server;
    mbus_client *record = server.add("demo");
    const Child client([] {
        connect_as("demo");
        ASSERT_EQ(qzlib_mbus_down_cache_process(0, check_order), 0);
        for (uint32_t answered = 0; answered < ROUNDS; ++answered) {
            for (int spin = 0; seen.count == answered; ++spin)
                if (spin > 100)
                    usleep(20);
            ASSERT_EQ(qzlib_mbus_write_data("x", 1), 1);
        }
        EXPECT_EQ(seen.wrong, 0U);
        EXPECT_EQ(seen.count, ROUNDS);
    });
    await_connected(record);
    for (uint32_t i = 0; i < ROUNDS; ++i) {
        ASSERT_EQ(qzlib_mbus_write(record, static_cast<int>(i % 4), "order", &i, sizeof i), 4);
        for (int spin = 0; qzlib_mbus_read_pkg(record, 1) == nullptr; ++spin)
            if (spin > 100)
                usleep(20);
    }
}

// With a cap of 5000: 0 + 87 + 4096 fits; then 4179 are in use, which 87 + 734 fill up
// exactly and 87 + 735 do not. A delivered packet gives its charge back.
TEST(DownCache, admits_by_the_cap)
{
    const LogFile log;
    ServerEnd server;
    mbus_client *record = server.add("demo");
    const std::string text(4096, 'x');
    const Child client([&] {
        connect_as("demo");
        seen.held = true;
        ASSERT_EQ(qzlib_mbus_down_cache_process(5000, count_packet), 0);
        await_count(4096);
        while (!LogFile::has("<WARNING>id:demo down_cache is full, drop 1bytes")) // the last one
            usleep(1000);
        EXPECT_TRUE(LogFile::has("<WARNING>id:demo down_cache is full, drop 4096bytes"));
        EXPECT_TRUE(LogFile::has("<WARNING>id:demo down_cache is full, drop 735bytes"));
        EXPECT_FALSE(LogFile::has("<WARNING>id:demo down_cache is full, drop 734bytes"));
        seen.held = false;
        await_count(4096 + 734);
        usleep(20'000); // the last charge is given back after the callback
        qzlib_mbus_write_data("again", 5);
        await_count(4096 + 734 + 4096);
    });
    await_connected(record);
    for (const int length : {4096, 4096, 735, 734, 1})
        ASSERT_EQ(qzlib_mbus_write(record, 0, nullptr, text.data(), length), length);
    while (qzlib_mbus_read_pkg(record, 1) == nullptr)
        usleep(1000);
    ASSERT_EQ(qzlib_mbus_write(record, 0, nullptr, text.data(), 4096), 4096);
}

TEST(DownCache, cap_below_4097_is_the_default)
{
    ServerEnd server;
    mbus_client *record = server.add("demo");
    const std::string text(4096, 'x');
    for (const int cap : {4096, -1}) {
        const Child client([cap] {
            connect_as("demo");
            seen.held = true;
            ASSERT_EQ(qzlib_mbus_down_cache_process(cap, count_packet), 0);
            await_count(4096);
            seen.held = false;
            await_count(3 * 4096);
        });
        await_connected(record);
        record->flags = 0;
        for (int i = 0; i < 3; ++i)
            ASSERT_EQ(qzlib_mbus_write(record, 0, nullptr, text.data(), 4096), 4096);
    }
}

double cpu_seconds()
{
    timespec used{};
    clock_gettime(CLOCK_PROCESS_CPUTIME_ID, &used);
    return static_cast<double>(used.tv_sec) + static_cast<double>(used.tv_nsec) / 1e9;
}

TEST(DownCache, sleeps_while_disconnected_and_goes_on_after_a_reconnect)
{
    ServerEnd server;
    mbus_client *record = server.add("demo");
    const Child client([] {
        connect_as("demo");
        ASSERT_EQ(qzlib_mbus_down_cache_process(0, count_packet), 0);
        usleep(20'000); // the reader waits for a packet
        ASSERT_EQ(qzlib_client_clear_flag(1), 0);
        qzlib_mbus_share_uninit(); // under the reader, which is sent away first
        EXPECT_EQ(qzlib_mbus_write_data("x", 1), 0);
        ASSERT_EQ(qzlib_disconnect_mbus_server(), 0);
        const double before = cpu_seconds();
        usleep(300'000);
        EXPECT_LT(cpu_seconds() - before, 0.05);
        connect_as("demo");
        qzlib_mbus_write_data("again", 5);
        await_count(3);
    });
    while (qzlib_mbus_read_pkg(record, 1) == nullptr)
        usleep(1000);
    ASSERT_EQ(qzlib_mbus_write(record, 0, nullptr, "xyz", 3), 3);
}

// The thread sanitizer starts no threads in a child of a process with threads, and adds a
// thread of its own that wakes often.
#ifndef __SANITIZE_THREAD__
// A child of fork() has the locks that its parent's threads hold, but not the threads.
TEST(DownCache, child_of_a_process_with_one_has_a_bus_of_its_own)
{
    ServerEnd server;
    mbus_client *parents = server.add("parent");
    mbus_client *childs = server.add("child");
    const Child parent([] {
        connect_as("parent");
        ASSERT_EQ(qzlib_mbus_down_cache_process(0, count_packet), 0);
        usleep(20'000); // the reader waits for a packet
        const Child child([] {
            connect_as("child");
            ASSERT_EQ(qzlib_mbus_down_cache_process(0, count_packet), 0);
            await_count(3);
        });
        await_count(4);
    });
    await_connected(childs);
    ASSERT_EQ(qzlib_mbus_write(childs, 0, nullptr, "abc", 3), 3);
    ASSERT_EQ(qzlib_mbus_write(parents, 0, nullptr, "abcd", 4), 4);
    EXPECT_EQ(server.control()[0], 1);
    EXPECT_EQ(server.control()[0], 1) << "the parent is not unregistered";
}

long voluntary_switches(pid_t pid)
{
    long sum = 0;
    for (const auto &task : std::filesystem::directory_iterator("/proc/" + std::to_string(pid) + "/task")) {
        const std::string status = read_file(task.path().string() + "/status");
        const size_t at = status.find("\nvoluntary_ctxt_switches:");
        sum += atol(status.c_str() + at + strlen("\nvoluntary_ctxt_switches:"));
    }
    return sum;
}

TEST(DownCache, idle_daemon_wakes_at_most_once_a_second)
{
    ServerEnd server;
    server.add("demo");
    Child client([] {
        connect_as("demo");
        ASSERT_EQ(qzlib_mbus_down_cache_process(0, count_packet), 0);
        for (;;)
            pause();
    });
    usleep(2'500'000); // the bound of the wait has grown
    const long before = voluntary_switches(client.pid());
    usleep(3'000'000);
    EXPECT_LE(voluntary_switches(client.pid()) - before, 3);
    client.kill();
}
#endif

} // namespace
