// What cases of every family need: tables of cases, time and waiting, processes beside the case, and the
// check that nothing is left.
#pragma once

#include "support/box.h"

#include <gtest/gtest.h>

#include <algorithm>
#include <atomic>
#include <cerrno>
#include <chrono>
#include <concepts>
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
#include <utility>
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
    [[nodiscard]] double seconds() const { return seconds_since(start_); }
    // For upper bounds: what a machine that is never late would have taken.
    [[nodiscard]] double punctual_seconds() const { return seconds() - late_s_; }

private:
    using Clock = std::chrono::steady_clock;

    static double seconds_since(Clock::time_point begin)
    {
        return std::chrono::duration<double>(Clock::now() - begin).count();
    }
    void measure(const std::stop_token &stop)
    {
        constexpr std::chrono::duration<double> STEP(0.005);
        sigset_t all;
        sigfillset(&all);
        for (pthread_sigmask(SIG_SETMASK, &all, nullptr); !stop.stop_requested();) {
            const auto begin = Clock::now();
            std::this_thread::sleep_for(STEP);
            late_s_ += static_cast<float>(seconds_since(begin) - STEP.count());
        }
    }

    Clock::time_point start_ = Clock::now();
    std::atomic<float> late_s_ = 0; // 32-bit machines have no larger ones
    std::jthread beside_{[this](const std::stop_token &stop) { measure(stop); }};
};

// Polls for what another process or thread does. The limit tells a hang only: false then.
template <typename Condition>
bool eventually(Condition holds)
{
    const auto end = std::chrono::steady_clock::now() + patient(std::chrono::seconds(60));
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
        struct sigaction interrupt = {};
        interrupt.sa_handler = [](int) {}; // without SA_RESTART
        sigaction(SIGALRM, &interrupt, nullptr);
        const itimerval interval = {{0, us}, {0, us}};
        setitimer(ITIMER_REAL, &interval, nullptr);
    }
};

// What is still there at the object's end is waited for, a program after SIGTERM, and has to exit with 0.
class Process : NoCopy
{
public:
    // The function's result is the exit status; one without a result gives 0. A failed expectation gives 1.
    template <std::invocable Function>
    explicit Process(Function run)
    {
        if (pid_ != 0)
            return;
        int status = 0;
        if constexpr (std::is_void_v<std::invoke_result_t<Function>>)
            run();
        else
            status = run();
        fflush(nullptr);
        _exit(testing::Test::HasFailure() ? 1 : status);
    }
    // What the program prints goes to the file, if one is given.
    explicit Process(std::vector<std::string> words, const char *output = nullptr) : is_program_(true)
    {
        if (pid_ == 0)
            exec(std::move(words), output);
    }
    [[noreturn]] static void exec(std::vector<std::string> words, const char *output)
    {
        if (output != nullptr && freopen(output, "w", stdout) != nullptr)
            dup2(STDOUT_FILENO, STDERR_FILENO);
        words[0] = BINARY_DIR "/bin/" + words[0];
        std::vector<char *> argv;
        for (std::string &word : words)
            argv.push_back(word.data());
        argv.push_back(nullptr);
        execv(argv[0], argv.data());
        _exit(127);
    }
    ~Process()
    {
        if (pid_ != 0) {
            EXPECT_EQ(is_program_ ? end() : wait(), 0);
        }
    }

    [[nodiscard]] pid_t pid() const { return pid_; }

    // Its exit status, or minus the signal that ended it.
    int wait()
    {
        int status = 0;
        EXPECT_GT(waitpid(std::exchange(pid_, 0), &status, 0), 0);
        return WIFEXITED(status) ? WEXITSTATUS(status) : -WTERMSIG(status);
    }
    int end(int signal = SIGTERM)
    {
        kill(pid_, signal);
        return wait();
    }

private:
    bool is_program_ = false;
    pid_t pid_ = fork();
};

template <typename Function>
int run_child(Function run)
{
    return Process(run).wait();
}

// The thread sanitizer has one of its own from the first thread on.
inline size_t running_threads()
{
#ifdef __SANITIZE_THREAD__
    return 0;
#else
    return entries_in("/proc/self/task");
#endif
}

// What a process may leave behind, as text. SIGALRM's action is left out: storms of signals take it.
inline std::string remains()
{
    std::ifstream table("/proc/sysvipc/shm");
    const auto lines = std::count(std::istreambuf_iterator<char>(table), {}, '\n');
    table.close();
    const bool childless = waitpid(-1, nullptr, WNOHANG) < 0 && errno == ECHILD;
    const mode_t mask = umask(0);
    umask(mask);
    std::string signals;
    sigset_t blocked;
    pthread_sigmask(SIG_SETMASK, nullptr, &blocked);
    for (int number = 1; number < SIGRTMAX; ++number) {
        struct sigaction action = {};
        if (sigaction(number, nullptr, &action) != 0 || number == SIGALRM)
            continue;
        if (action.sa_handler != SIG_DFL)
            signals +=
                " " + std::to_string(number) + (action.sa_handler == SIG_IGN ? " ignored" : " handled");
        if (sigismember(&blocked, number) == 1)
            signals += " " + std::to_string(number) + " blocked";
    }
    return std::to_string(open_descriptors()) + " descriptors, " + std::to_string(running_threads()) +
           " threads, " + std::to_string(lines - 1) + " segments, " + (childless ? "no" : "a") +
           " child, umask " + std::to_string(mask) + ", signals" + signals;
}

// Checks after every case that it left nothing.
struct NothingLeft : testing::Test {
    ~NothingLeft() override
    {
        EXPECT_TRUE(eventually([this] { return remains() == remains_before; }))
            << remains_before << "\nbecame " << remains();
    }
    std::string remains_before = remains();
    size_t descriptors = open_descriptors();
};

// A time without a descriptor to be had.
struct NoDescriptors : NoCopy {
    NoDescriptors()
    {
        getrlimit(RLIMIT_NOFILE, &saved);
        const rlimit none = {0, saved.rlim_max};
        setrlimit(RLIMIT_NOFILE, &none);
    }
    ~NoDescriptors() { setrlimit(RLIMIT_NOFILE, &saved); }
    rlimit saved{};
};

} // namespace support
