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

// Results of all waits, with bits that are set and bits that are not, at the same time.
std::vector<int> wait_all_ways(qzlib_event *ev, uint32_t set, uint32_t clear, int limit_s)
{
    std::vector<int> results(5);
    std::vector<std::thread> waits;
    waits.emplace_back([=, &results] { results[0] = qzlib_event_wait_flag(ev, clear, limit_s); });
    waits.emplace_back([=, &results] { results[1] = qzlib_event_wait_all_flag(ev, set | clear, limit_s); });
    waits.emplace_back(
        [=, &results] { results[2] = qzlib_event_wait_flag_with_status(ev, clear, 7, limit_s); });
    waits.emplace_back([=, &results] { results[3] = qzlib_event_wait_noflag(ev, set, 7, limit_s); });
    waits.emplace_back([=, &results] { results[4] = qzlib_event_wait_event(ev, limit_s); });
    for (std::thread &wait : waits)
        wait.join();
    return results;
}

TEST_F(Event, check_needs_every_bit_and_waits_that_hold_change_nothing)
{
    EXPECT_EQ(qzlib_event_check_flag(ev, 0), 1);
    EXPECT_EQ(qzlib_event_check_flag(ev, 0x80000000), 0);
    EXPECT_EQ(qzlib_event_set_flag(ev, 0x80000001), 0);
    EXPECT_EQ(qzlib_event_check_flag(ev, 0x80000003), 0);
    EXPECT_EQ(qzlib_event_clear_flag(ev, 1), 0);
    EXPECT_EQ(qzlib_event_check_flag(ev, 0x80000000), 1);
    EXPECT_EQ(qzlib_event_check_flag(ev, 0x80000001), 0);

    qzlib_event_set_flag(ev, 0b101);
    EXPECT_EQ(qzlib_event_wait_flag(ev, 0b110, 0), 0);
    EXPECT_EQ(qzlib_event_wait_flag_with_status(ev, 0b100, 7, 0), 0);
    EXPECT_EQ(qzlib_event_wait_all_flag(ev, 0b101, 0), 0);
    EXPECT_EQ(qzlib_event_wait_all_flag(ev, 0, 0), 0);
    EXPECT_EQ(qzlib_event_wait_noflag(ev, 0b010, 7, 0), 0);
    EXPECT_EQ(qzlib_event_wait_noflag(ev, 0, 0, 0), 0);
    EXPECT_EQ(ev->flags, 0x80000005U);
}

TEST_F(Event, waits_end_at_the_limit_or_without_a_group)
{
    qzlib_event_set_flag(ev, 0b01);
    const auto start = Clock::now();
    EXPECT_EQ(wait_all_ways(ev, 0b01, 0b10, 1), std::vector<int>(5, ETIMEDOUT));
    EXPECT_GE(Clock::now() - start, 1s);
    EXPECT_LT(Clock::now() - start, 3s);
    EXPECT_EQ(qzlib_event_wait_flag(ev, 0, 1), ETIMEDOUT) << "no bit is never set";

    EXPECT_EQ(wait_all_ways(nullptr, 1, 2, 1), std::vector<int>(5, -1));
    EXPECT_EQ(qzlib_event_unint(nullptr), -1);
    EXPECT_EQ(qzlib_event_set_flag(nullptr, 1), -1);
    EXPECT_EQ(qzlib_event_clear_flag(nullptr, 1), -1);
    EXPECT_EQ(qzlib_event_check_flag(nullptr, 0), 0);
}

TEST_F(Event, a_change_of_other_bits_restarts_the_whole_limit)
{
    const auto start = Clock::now();
    std::thread other([&] {
        std::this_thread::sleep_for(500ms);
        qzlib_event_set_flag(ev, 0b10);
    });
    EXPECT_EQ(qzlib_event_wait_flag(ev, 0b01, 1), ETIMEDOUT);
    EXPECT_GE(Clock::now() - start, 1500ms);
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
        waiters.emplace_back([&] { woken += qzlib_event_wait_event(ev, 1) == 0; });
    std::this_thread::sleep_for(300ms);
    qzlib_event_set_flag(ev, 1);
    for (std::thread &waiter : waiters)
        waiter.join();
    EXPECT_EQ(woken, 1);
}

TEST_F(Event, cancelled_waiter_gives_the_group_up)
{
    const auto for_ever = [](void *waited) -> void * {
        qzlib_event_wait_flag(static_cast<qzlib_event *>(waited), 1, 0);
        return nullptr;
    };
    const auto with_limit = [](void *waited) -> void * {
        qzlib_event_wait_event(static_cast<qzlib_event *>(waited), 100);
        return nullptr;
    };
    for (void *(*const wait)(void *) : {+for_ever, +with_limit}) {
        pthread_t waiter;
        pthread_create(&waiter, nullptr, wait, ev);
        std::this_thread::sleep_for(100ms);
        pthread_cancel(waiter);
        pthread_join(waiter, nullptr);
        ASSERT_EQ(pthread_mutex_trylock(&ev->mutex), 0);
        pthread_mutex_unlock(&ev->mutex);
    }
}

// Two threads hand a token back and forth; a lost wake-up hangs.
TEST_F(Event, no_wake_up_is_lost_in_ten_thousand_rounds)
{
    const auto rounds = [this](uint32_t awaited, uint32_t sent) {
        for (int i = 0; i < 10'000; ++i) {
            ASSERT_EQ(qzlib_event_wait_all_flag(ev, awaited, 0), 0);
            qzlib_event_clear_flag(ev, awaited);
            qzlib_event_set_flag(ev, sent);
        }
    };
    std::thread other(rounds, 0b01, 0b10);
    qzlib_event_set_flag(ev, 0b01);
    rounds(0b10, 0b01);
    other.join();
}

} // namespace
