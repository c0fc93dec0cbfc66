#include <gtest/gtest.h>
#include <qzlib.h>

#include <atomic>
#include <cerrno>
#include <chrono>
#include <memory>
#include <thread>
#include <vector>

namespace
{

using namespace std::chrono_literals;
using Clock = std::chrono::steady_clock;

struct Event : testing::Test {
    std::unique_ptr<qzlib_event, int (*)(qzlib_event *)> group{qzlib_event_init(), qzlib_event_unint};
    qzlib_event *ev = group.get();
};

TEST_F(Event, null_group_is_refused)
{
    EXPECT_EQ(qzlib_event_unint(nullptr), -1);
    EXPECT_EQ(qzlib_event_set_flag(nullptr, 1), -1);
    EXPECT_EQ(qzlib_event_clear_flag(nullptr, 1), -1);
    EXPECT_EQ(qzlib_event_check_flag(nullptr, 0), 0);
    EXPECT_EQ(qzlib_event_wait_flag(nullptr, 1, 1), -1);
    EXPECT_EQ(qzlib_event_wait_all_flag(nullptr, 1, 1), -1);
    EXPECT_EQ(qzlib_event_wait_flag_with_status(nullptr, 1, 0, 1), -1);
    EXPECT_EQ(qzlib_event_wait_noflag(nullptr, 1, 0, 1), -1);
    EXPECT_EQ(qzlib_event_wait_event(nullptr, 1), -1);
}

TEST_F(Event, check_needs_every_bit)
{
    EXPECT_EQ(qzlib_event_check_flag(ev, 0), 1);
    EXPECT_EQ(qzlib_event_check_flag(ev, 0x80000000), 0);
    EXPECT_EQ(qzlib_event_set_flag(ev, 0x80000001), 0);
    EXPECT_EQ(qzlib_event_check_flag(ev, 0x80000000), 1);
    EXPECT_EQ(qzlib_event_check_flag(ev, 0x80000003), 0);
    EXPECT_EQ(qzlib_event_clear_flag(ev, 1), 0);
    EXPECT_EQ(qzlib_event_check_flag(ev, 0x80000000), 1);
    EXPECT_EQ(qzlib_event_check_flag(ev, 0x80000001), 0);
}

TEST_F(Event, satisfied_waits_return_at_once_and_change_nothing)
{
    qzlib_event_set_flag(ev, 0b101);
    EXPECT_EQ(qzlib_event_wait_flag(ev, 0b110, 0), 0);
    EXPECT_EQ(qzlib_event_wait_flag_with_status(ev, 0b100, 7, 0), 0);
    EXPECT_EQ(qzlib_event_wait_all_flag(ev, 0b101, 0), 0);
    EXPECT_EQ(qzlib_event_wait_all_flag(ev, 0, 0), 0);
    EXPECT_EQ(qzlib_event_wait_noflag(ev, 0b010, 7, 0), 0);
    EXPECT_EQ(qzlib_event_wait_noflag(ev, 0, 0, 0), 0);
    EXPECT_EQ(ev->flags, 0b101U);
}

TEST_F(Event, unsatisfied_waits_end_at_the_limit)
{
    qzlib_event_set_flag(ev, 0b01);
    const auto start = Clock::now();
    std::vector<std::thread> waits;
    std::atomic<int> timeouts = 0;
    const auto expect_timeout = [&](auto wait) {
        waits.emplace_back([&, wait] { timeouts += wait() == ETIMEDOUT; });
    };
    expect_timeout([&] { return qzlib_event_wait_flag(ev, 0, 1); });
    expect_timeout([&] { return qzlib_event_wait_flag(ev, 0b10, 1); });
    expect_timeout([&] { return qzlib_event_wait_all_flag(ev, 0b11, 1); });
    expect_timeout([&] { return qzlib_event_wait_flag_with_status(ev, 0b10, 1, 1); });
    expect_timeout([&] { return qzlib_event_wait_noflag(ev, 0b01, 0, 1); });
    expect_timeout([&] { return qzlib_event_wait_event(ev, 1); });
    for (std::thread &wait : waits)
        wait.join();
    EXPECT_EQ(timeouts, 6);
    EXPECT_GE(Clock::now() - start, 1s);
    EXPECT_LT(Clock::now() - start, 3s);
}

TEST_F(Event, a_change_of_other_bits_restarts_the_whole_limit)
{
    const auto start = Clock::now();
    std::thread other([&] {
        std::this_thread::sleep_for(700ms);
        qzlib_event_set_flag(ev, 0b10);
    });
    EXPECT_EQ(qzlib_event_wait_flag(ev, 0b01, 1), ETIMEDOUT);
    EXPECT_GE(Clock::now() - start, 1700ms);
    other.join();
}

TEST_F(Event, set_and_clear_wake_waiters_without_limit)
{
    qzlib_event_set_flag(ev, 0b100);
    std::thread set([&] { EXPECT_EQ(qzlib_event_wait_all_flag(ev, 0b011, 0), 0); });
    qzlib_event_set_flag(ev, 0b001);
    qzlib_event_set_flag(ev, 0b010);
    set.join();
    std::thread cleared([&] { EXPECT_EQ(qzlib_event_wait_noflag(ev, 0b100, 0, -5), 0); });
    qzlib_event_clear_flag(ev, 0b100);
    cleared.join();
}

TEST_F(Event, one_change_wakes_one_waiter)
{
    std::atomic<int> woken = 0;
    std::vector<std::thread> waiters;
    for (int i = 0; i < 4; ++i)
        waiters.emplace_back([&] { woken += qzlib_event_wait_event(ev, 2) == 0; });
    std::this_thread::sleep_for(500ms);
    qzlib_event_set_flag(ev, 1);
    for (std::thread &waiter : waiters)
        waiter.join();
    EXPECT_EQ(woken, 1);
}

// Two threads hand a token back and forth; a lost wake-up hangs.
TEST_F(Event, no_wake_up_is_lost_in_ten_thousand_rounds)
{
    constexpr int ROUNDS = 10000;
    std::thread other([&] {
        for (int i = 0; i < ROUNDS; ++i) {
            ASSERT_EQ(qzlib_event_wait_flag(ev, 0b01, 0), 0);
            qzlib_event_clear_flag(ev, 0b01);
            qzlib_event_set_flag(ev, 0b10);
        }
    });
    for (int i = 0; i < ROUNDS; ++i) {
        qzlib_event_set_flag(ev, 0b01);
        ASSERT_EQ(qzlib_event_wait_all_flag(ev, 0b10, 0), 0);
        qzlib_event_check_flag(ev, 0b11);
        qzlib_event_clear_flag(ev, 0b10);
    }
    other.join();
}

} // namespace
