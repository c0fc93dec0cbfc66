// What cases of every family need: tables of cases, waiting, and the check that nothing is left.
#pragma once

#include "support/files.h"

#include <gtest/gtest.h>

#include <cerrno>
#include <chrono>
#include <string>
#include <sys/resource.h>
#include <sys/wait.h>
#include <thread>
#include <tuple>
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
