// SPDX-License-Identifier: MIT
// Sleeping on a word of shared memory.
#pragma once

#include "base/atomic.h"

#include <cerrno>
#include <cstdint>
#include <linux/futex.h>
#include <sys/syscall.h>
#include <unistd.h>

namespace qz::mbus
{

using base::load;
using base::store;

#ifdef SYS_futex
constexpr long FUTEX_CALL = SYS_futex;
#else
constexpr long FUTEX_CALL = SYS_futex_time64; // where times never had 32 bits
#endif

// Not FUTEX_PRIVATE: the sleeper is in another process.
inline void wake(uint32_t &word, int sleepers = 1)
{
    syscall(FUTEX_CALL, &word, FUTEX_WAKE, sleepers, nullptr, nullptr, 0);
}

// False at the time limit. At once when the word is not as expected.
inline bool sleep_on(uint32_t &word, uint32_t expected, unsigned timeout_ms)
{
    // The kernel's own timespec for this call; libc's may be wider on 32-bit machines.
    const struct {
        long seconds;
        long nanoseconds;
    } timeout = {static_cast<long>(timeout_ms / 1000), static_cast<long>(timeout_ms % 1000) * 1'000'000};
    return syscall(FUTEX_CALL, &word, FUTEX_WAIT, expected, &timeout, nullptr, 0) == 0 || errno != ETIMEDOUT;
}

} // namespace qz::mbus
