// A program of this build, run beside a test.
#pragma once

#include <csignal>
#include <cstdlib>
#include <fcntl.h>
#include <string>
#include <sys/wait.h>
#include <unistd.h>
#include <vector>

namespace support
{

// Ended with the object. What it prints goes to the file, if one is given.
class Program
{
public:
    explicit Program(std::vector<std::string> words, const char *output = nullptr) : pid_(fork())
    {
        if (pid_ != 0)
            return;
        if (output != nullptr) {
            dup2(open(output, O_WRONLY | O_CREAT | O_TRUNC, 0644), STDOUT_FILENO);
            dup2(STDOUT_FILENO, STDERR_FILENO);
        }
        words[0] = BINARY_DIR "/bin/" + words[0];
        std::vector<char *> argv;
        for (std::string &word : words)
            argv.push_back(word.data());
        argv.push_back(nullptr);
        execv(argv[0], argv.data());
        _exit(127);
    }
    ~Program() { end(); }
    Program(const Program &) = delete;
    Program &operator=(const Program &) = delete;

    // Ends it with SIGTERM; its wait status.
    int end()
    {
        int status = 0;
        if (pid_ > 0) {
            kill(pid_, SIGTERM);
            waitpid(pid_, &status, 0);
        }
        pid_ = 0;
        return status;
    }

private:
    pid_t pid_ = 0;
};

} // namespace support
