// SPDX-License-Identifier: MIT
// What a reader does before it sleeps, in the hope that it need not.
#pragma once

#include <algorithm>
#include <cstdint>
#include <ctime>
#include <sched.h>

namespace qz::mbus
{

constexpr uint32_t YIELD_PATIENCE_US = 1000;
constexpr unsigned DIRECT_SLEEPS = 500;
constexpr uint32_t POLL_US = 50; // about what a sleep and a wake-up cost
constexpr unsigned BACKOFF_MAX = 511;

// What a reader has learnt about giving the processor away. Zero at first.
struct Patience {
    unsigned direct_sleeps;  // waits that are not to give it away
    unsigned waits_unpolled; // waits that are to give it away only once
    unsigned backoff;        // how many those were to be last
};

// Wraps around, so only differences mean anything.
inline uint32_t monotonic_us()
{
    timespec now;
    clock_gettime(CLOCK_MONOTONIC, &now);
    return static_cast<uint32_t>(now.tv_sec) * 1'000'000 + static_cast<uint32_t>(now.tv_nsec / 1000);
}

// Where the writer has a processor of its own its answer is often on the way, and waiting for
// it is cheaper for both than a sleep and a wake-up. Every time in vain makes the next rarer,
// so that a reader with little to do spends nothing.
template <typename HasWork>
void await_answer(Patience &patience, const HasWork &has_work)
{
    if (patience.waits_unpolled > 0) {
        --patience.waits_unpolled;
        return;
    }
    const uint32_t start = monotonic_us();
    do {
        sched_yield();
        if (has_work()) {
            patience.backoff = 0;
            return;
        }
    } while (monotonic_us() - start < POLL_US);
    patience.backoff = std::min(patience.backoff * 2 + 1, BACKOFF_MAX);
    patience.waits_unpolled = patience.backoff;
}

// Gives the processor away before sleeping: on one core the writer then fills the ring, and
// nobody has to be woken. That is good only while the processor soon comes back. Where others
// compute, a sleeper that is woken gets it sooner than one who gave it away.
template <typename HasWork>
void let_writers_run(Patience &patience, const HasWork &has_work)
{
    if (patience.direct_sleeps > 0) {
        --patience.direct_sleeps;
        return;
    }
    const uint32_t start = monotonic_us();
    sched_yield();
    if (monotonic_us() - start > YIELD_PATIENCE_US)
        patience.direct_sleeps = DIRECT_SLEEPS;
    else if (!has_work())
        await_answer(patience, has_work);
}

} // namespace qz::mbus
