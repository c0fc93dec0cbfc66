// What cases of every family need: tables of cases, waiting, and the check that nothing is left.
#pragma once

#include "support/files.h"

#include <gtest/gtest.h>

#include <algorithm>
#include <atomic>
#include <cerrno>
#include <chrono>
#include <csignal>
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

class Stopwatch
{
public:
    [[nodiscard]] double seconds() const
    {
        return std::chrono::duration<double>(std::chrono::steady_clock::now() - start_).count();
    }

private:
    std::chrono::steady_clock::time_point start_ = std::chrono::steady_clock::now();
};

// Polls for what another process or thread does; false after 15 seconds.
template <typename Condition>
bool eventually(Condition holds)
{
    for (const Stopwatch watch; watch.seconds() < 15;) {
        if (holds())
            return true;
        std::this_thread::sleep_for(std::chrono::milliseconds(5));
    }
    return false;
}

// Signals that come all the time and interrupt every wait of this process.
class SignalStorm
{
public:
    SignalStorm() { every(10'000); }
    ~SignalStorm() { every(0); }
    SignalStorm(const SignalStorm &) = delete;
    SignalStorm &operator=(const SignalStorm &) = delete;

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
class NoDescriptors
{
public:
    NoDescriptors()
    {
        getrlimit(RLIMIT_NOFILE, &saved_);
        const rlimit none = {0, saved_.rlim_max};
        setrlimit(RLIMIT_NOFILE, &none);
    }
    ~NoDescriptors() { setrlimit(RLIMIT_NOFILE, &saved_); }
    NoDescriptors(const NoDescriptors &) = delete;
    NoDescriptors &operator=(const NoDescriptors &) = delete;

private:
    rlimit saved_{};
};

} // namespace support
