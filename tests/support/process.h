// A process beside a test: a piece of the test itself, or a program of this build.
#pragma once

#include "support/files.h"

#include <gtest/gtest.h>

#include <concepts>
#include <csignal>
#include <string>
#include <sys/wait.h>
#include <type_traits>
#include <unistd.h>
#include <utility>
#include <vector>

namespace support
{

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
        if (pid_ != 0)
            return;
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

} // namespace support
