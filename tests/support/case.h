// What cases of every family need: tables of cases, time and waiting, and the check that nothing is left.
#pragma once

#include "support/files.h"

#include <gtest/gtest.h>

#include <algorithm>
#include <atomic>
#include <cerrno>
#include <chrono>
#include <csignal>
#include <cstdlib>
#include <cstring>
#include <fcntl.h>
#include <functional>
#include <string>
#include <sys/resource.h>
#include <sys/time.h>
#include <sys/wait.h>
#include <thread>
#include <tuple>
#include <unistd.h>
#include <vector>

namespace support
{

// Rows of input and expected result, to be looped over with names for the columns.
template <typename... Columns>
using Table = std::vector<std::tuple<Columns...>>;

// How many times slower than the host this machine counts as.
inline int slowness()
{
    const char *scale = getenv("QZ_TEST_SCALE");
    return scale != nullptr ? std::max(atoi(scale), 1) : 1;
}

// That many rounds here, accordingly fewer on a slow machine.
template <typename Count>
Count scaled(Count rounds)
{
    return std::max<Count>(rounds / static_cast<Count>(slowness()), 1);
}

// A limit that tells a hang from waiting: longer on a slow machine.
template <typename Duration>
Duration patient(Duration limit)
{
    return limit * slowness();
}

// The time since it was made. A thread beside it sleeps in short steps and adds up by how much they were
// too long: so late is this machine with everything, be it emulated or full of other work.
class Stopwatch : NoCopy
{
public:
    // For lower bounds.
    [[nodiscard]] double seconds() const
    {
        return std::chrono::duration<double>(Clock::now() - start_).count();
    }
    // For upper bounds: what a machine that is never late would have taken.
    [[nodiscard]] double punctual_seconds() const { return seconds() - late_us_ * 1e-6; }

private:
    using Clock = std::chrono::steady_clock;
    using Microseconds = std::chrono::microseconds;

    void measure(const std::stop_token &stop)
    {
        constexpr std::chrono::milliseconds STEP(5);
        sigset_t all;
        sigfillset(&all);
        for (pthread_sigmask(SIG_SETMASK, &all, nullptr); !stop.stop_requested();) {
            const auto begin = Clock::now();
            std::this_thread::sleep_for(STEP);
            const auto late = std::chrono::duration_cast<Microseconds>(Clock::now() - begin - STEP);
            late_us_ += static_cast<int>(late.count());
        }
    }

    Clock::time_point start_ = Clock::now();
    std::atomic<int> late_us_ = 0;
    std::jthread beside_{[this](const std::stop_token &stop) { measure(stop); }};
};

// Polls for what another process or thread does. The limit tells a hang only: false then.
template <typename Condition>
bool eventually(Condition holds, std::chrono::milliseconds limit = std::chrono::seconds(60))
{
    const auto end = std::chrono::steady_clock::now() + patient(limit);
    while (!holds()) {
        if (std::chrono::steady_clock::now() > end)
            return false;
        std::this_thread::sleep_for(std::chrono::milliseconds(1));
    }
    return true;
}

// Signals that come all the time and interrupt every wait of this process.
class SignalStorm : NoCopy
{
public:
    SignalStorm() { every(10'000); }
    ~SignalStorm() { every(0); }

private:
    static void every(suseconds_t us)
    {
        struct sigaction interrupt {
        };
        interrupt.sa_handler = [](int) {}; // without SA_RESTART
        sigaction(SIGALRM, &interrupt, nullptr);
        const itimerval interval = {{0, us}, {0, us}};
        setitimer(ITIMER_REAL, &interval, nullptr);
    }
};

// True when this process has no child, running or dead.
inline bool has_no_child()
{
    return waitpid(-1, nullptr, WNOHANG) < 0 && errno == ECHILD;
}

// Checks after every case that it left no descriptor and no child.
struct NothingLeft : testing::Test {
    ~NothingLeft() override
    {
        EXPECT_EQ(open_descriptors(), descriptors);
        EXPECT_TRUE(has_no_child());
    }
    size_t descriptors = open_descriptors();
};

// A time without a descriptor to be had.
class NoDescriptors : NoCopy
{
public:
    NoDescriptors()
    {
        getrlimit(RLIMIT_NOFILE, &saved_);
        const rlimit none = {0, saved_.rlim_max};
        setrlimit(RLIMIT_NOFILE, &none);
    }
    ~NoDescriptors() { setrlimit(RLIMIT_NOFILE, &saved_); }

private:
    rlimit saved_{};
};

} // namespace support
