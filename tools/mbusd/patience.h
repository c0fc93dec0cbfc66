// What the server does before it sleeps, in the hope that it need not.
#pragma once

#include <algorithm>
#include <cstdint>
#include <ctime>
#include <sched.h>

namespace mbusd
{

class Patience
{
public:
    // Gives the processor away: on one core the clients then fill their rings, and nobody has to
    // be woken. That is good only while it soon comes back. Where others compute, a sleeper that
    // is woken gets it sooner than one who gave it away.
    template <typename HasWork>
    void spend(const HasWork &has_work)
    {
        if (direct_sleeps_ > 0) {
            --direct_sleeps_;
            return;
        }
        const uint32_t start = monotonic_us();
        sched_yield();
        if (monotonic_us() - start > LATE_US)
            direct_sleeps_ = DIRECT_SLEEPS;
        else if (!has_work())
            await_work(has_work);
    }

private:
    static constexpr uint32_t LATE_US = 1000;
    static constexpr uint32_t POLL_US = 50; // about what a sleep and a wake-up cost
    static constexpr unsigned DIRECT_SLEEPS = 500;
    static constexpr unsigned BACKOFF_MAX = 511;

    // A client with a processor of its own often has the next packet on the way. Every time
    // in vain makes the next rarer, so that a server with little to do spends nothing.
    template <typename HasWork>
    void await_work(const HasWork &has_work)
    {
        if (waits_unpolled_ > 0) {
            --waits_unpolled_;
            return;
        }
        const uint32_t start = monotonic_us();
        do {
            sched_yield();
            if (has_work()) {
                backoff_ = 0;
                return;
            }
        } while (monotonic_us() - start < POLL_US);
        backoff_ = std::min(backoff_ * 2 + 1, BACKOFF_MAX);
        waits_unpolled_ = backoff_;
    }

    // Wraps: good for differences.
    static uint32_t monotonic_us()
    {
        timespec now{};
        clock_gettime(CLOCK_MONOTONIC, &now);
        return static_cast<uint32_t>(now.tv_sec) * 1'000'000 + static_cast<uint32_t>(now.tv_nsec / 1000);
    }

    unsigned direct_sleeps_ = 0;  // waits that are not to give the processor away
    unsigned waits_unpolled_ = 0; // waits that are to give it away only once
    unsigned backoff_ = 0;        // how many those were to be last
};

} // namespace mbusd
