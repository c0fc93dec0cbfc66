#include "support/case.h"

#include <qzlib.h>

#include <memory>

namespace
{

using namespace support;
using namespace std::chrono_literals;

struct Event : testing::Test {
    std::unique_ptr<qzlib_event, int (*)(qzlib_event *)> group{qzlib_event_init(), qzlib_event_unint};
    qzlib_event *ev = group.get();
};

// Results of all waits, with bits that are set and bits that are not, at the same time.
std::vector<int> wait_all_ways(qzlib_event *ev, uint32_t set, uint32_t clear, int limit_s)
{
    const std::function<int()> calls[] = {
        [=] { return qzlib_event_wait_flag(ev, clear, limit_s); },
        [=] { return qzlib_event_wait_all_flag(ev, set | clear, limit_s); },
        [=] { return qzlib_event_wait_flag_with_status(ev, clear, 7, limit_s); },
        [=] { return qzlib_event_wait_noflag(ev, set, 7, limit_s); },
        [=] { return qzlib_event_wait_event(ev, limit_s); },
    };
    std::vector<int> results(std::size(calls));
    std::vector<std::jthread> waits;
    for (size_t i = 0; i < results.size(); ++i)
        waits.emplace_back([&results, call = calls[i], i] { results[i] = call(); });
    waits.clear();
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
    const Stopwatch watch;
    EXPECT_EQ(wait_all_ways(ev, 0b01, 0b10, 1), std::vector<int>(5, ETIMEDOUT));
    EXPECT_GE(watch.seconds(), 1.0);
    EXPECT_LT(watch.punctual_seconds(), 3.0);
    EXPECT_EQ(qzlib_event_wait_flag(ev, 0, 1), ETIMEDOUT) << "no bit is never set";

    EXPECT_EQ(wait_all_ways(nullptr, 1, 2, 1), std::vector<int>(5, -1));
    EXPECT_EQ(qzlib_event_unint(nullptr), -1);
    EXPECT_EQ(qzlib_event_set_flag(nullptr, 1), -1);
    EXPECT_EQ(qzlib_event_clear_flag(nullptr, 1), -1);
    EXPECT_EQ(qzlib_event_check_flag(nullptr, 0), 0);
}

TEST_F(Event, a_change_of_other_bits_restarts_the_whole_limit)
{
    const Stopwatch watch;
    std::atomic<double> changed_s = 0;
    const std::jthread other([&] {
        std::this_thread::sleep_for(500ms);
        changed_s = watch.seconds();
        qzlib_event_set_flag(ev, 0b10);
    });
    EXPECT_EQ(qzlib_event_wait_flag(ev, 0b01, 4), ETIMEDOUT);
    EXPECT_GE(watch.seconds(), changed_s + 4);
}

TEST_F(Event, set_and_clear_wake_waiters_without_limit)
{
    qzlib_event_set_flag(ev, 0b100);
    std::jthread set([this] { EXPECT_EQ(qzlib_event_wait_all_flag(ev, 0b011, 0), 0); });
    qzlib_event_set_flag(ev, 0b001);
    qzlib_event_set_flag(ev, 0b010);
    set.join();
    const std::jthread cleared([this] { EXPECT_EQ(qzlib_event_wait_noflag(ev, 0b100, 0, -5), 0); });
    qzlib_event_clear_flag(ev, 0b100);
}

TEST_F(Event, one_change_wakes_one_waiter)
{
    std::atomic<int> begun = 0, woken = 0;
    std::vector<std::jthread> waiters;
    for (int i = 0; i < 4; ++i)
        waiters.emplace_back([&] { ++begun, woken += qzlib_event_wait_event(ev, 2) == 0; });
    EXPECT_TRUE(eventually([&] { return begun == 4; }));
    std::this_thread::sleep_for(300ms);
    qzlib_event_set_flag(ev, 1);
    waiters.clear();
    EXPECT_EQ(woken, 1);
}

TEST_F(Event, cancelled_waiter_gives_the_group_up)
{
    using Wait = std::pair<qzlib_event *, int>;
    const auto run = [](void *wait) -> void * {
        qzlib_event_wait_event(static_cast<Wait *>(wait)->first, static_cast<Wait *>(wait)->second);
        return nullptr;
    };
    for (Wait wait : {Wait(ev, 0), Wait(ev, 1000)}) {
        pthread_t waiter;
        pthread_create(&waiter, nullptr, run, &wait);
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
    const std::jthread other(rounds, 0b01, 0b10);
    qzlib_event_set_flag(ev, 0b01);
    rounds(0b10, 0b01);
}

} // namespace
