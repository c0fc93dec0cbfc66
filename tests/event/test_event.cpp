#include "support/case.h"

#include <qzlib.h>

namespace
{

using namespace support;

struct Event : testing::Test {
    ~Event() override { EXPECT_EQ(qzlib_event_unint(ev), 0); }
    qzlib_event *ev = qzlib_event_init();
};

// Waits in all ways at the same time, for what is not so; expects that result of each.
void expect_of_all_waits(int result, qzlib_event *ev, uint32_t set, uint32_t clear, int limit_s)
{
    const std::jthread waits[] = {
        std::jthread([=] { EXPECT_EQ(qzlib_event_wait_flag(ev, clear, limit_s), result); }),
        std::jthread([=] { EXPECT_EQ(qzlib_event_wait_all_flag(ev, set | clear, limit_s), result); }),
        std::jthread([=] { EXPECT_EQ(qzlib_event_wait_flag_with_status(ev, clear, 7, limit_s), result); }),
        std::jthread([=] { EXPECT_EQ(qzlib_event_wait_noflag(ev, set, 7, limit_s), result); }),
        std::jthread([=] { EXPECT_EQ(qzlib_event_wait_event(ev, limit_s), result); }),
    };
}

TEST_F(Event, check_needs_every_bit_and_waits_that_hold_change_nothing)
{
    EXPECT_EQ(qzlib_event_set_flag(ev, 0x8000000F), 0);
    EXPECT_EQ(qzlib_event_clear_flag(ev, 0b1010), 0);
    for (const auto &[mask, result] : {std::pair(0U, 1), {0x80000001, 1}, {0x80000003, 0}, {0b10, 0}})
        EXPECT_EQ(qzlib_event_check_flag(ev, mask), result) << mask;
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
    expect_of_all_waits(ETIMEDOUT, ev, 0b01, 0b10, 1);
    EXPECT_GE(watch.seconds(), 1.0);
    EXPECT_LT(watch.punctual_seconds(), 3.0);
    EXPECT_EQ(qzlib_event_wait_flag(ev, 0, 1), ETIMEDOUT) << "no bit is never set";

    expect_of_all_waits(-1, nullptr, 1, 2, 1);
    for (const auto change : {qzlib_event_set_flag, qzlib_event_clear_flag})
        EXPECT_EQ(change(nullptr, 1), -1);
    EXPECT_EQ(qzlib_event_unint(nullptr), -1);
    EXPECT_EQ(qzlib_event_check_flag(nullptr, 0), 0);
}

TEST_F(Event, a_change_of_other_bits_restarts_the_whole_limit)
{
    std::atomic<float> changed_s = 0;
    const Stopwatch watch;
    const std::jthread other([&] {
        usleep(500'000);
        changed_s = static_cast<float>(watch.seconds());
        qzlib_event_set_flag(ev, 0b10);
    });
    EXPECT_EQ(qzlib_event_wait_flag(ev, 0b01, 4), ETIMEDOUT);
    EXPECT_GE(watch.seconds(), changed_s + 3.99);
}

TEST_F(Event, one_change_wakes_one_waiter)
{
    std::atomic<int> begun = 0, woken = 0;
    std::vector<std::jthread> waiters;
    for (int i = 0; i < 4; ++i)
        waiters.emplace_back([&] { ++begun, woken += qzlib_event_wait_event(ev, 2) == 0; });
    EXPECT_TRUE(eventually([&] { return begun == 4; }));
    usleep(300'000);
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
    for (const int limit_s : {0, 1000}) {
        Wait wait(ev, limit_s);
        pthread_t waiter;
        ASSERT_EQ(pthread_create(&waiter, nullptr, run, &wait), 0);
        usleep(100'000);
        pthread_cancel(waiter);
        pthread_join(waiter, nullptr);
        ASSERT_EQ(pthread_mutex_trylock(&ev->mutex), 0);
        pthread_mutex_unlock(&ev->mutex);
    }
}

// Two threads hand a token back and forth, without a limit; a lost wake-up hangs.
TEST_F(Event, no_wake_up_is_lost_in_ten_thousand_rounds)
{
    const std::jthread other([this] {
        for (int i = 0; i < 10'000; ++i) {
            EXPECT_EQ(qzlib_event_wait_all_flag(ev, 0b11, 0), 0);
            qzlib_event_clear_flag(ev, 0b11);
        }
    });
    for (int i = 0; i < 10'000; ++i) {
        EXPECT_EQ(qzlib_event_wait_noflag(ev, 0b11, 0, -5), 0);
        qzlib_event_set_flag(ev, 0b01);
        qzlib_event_set_flag(ev, 0b10);
    }
}

} // namespace
