// Covering the box's kernel files, and running a piece of a test in a process of its own.
#pragma once

#include <cstdio>
#include <cstdlib>
#include <sys/mount.h>
#include <sys/wait.h>
#include <unistd.h>

namespace support
{

// Puts an empty file system over a directory, for a test to fill with its own files.
class Cover
{
public:
    explicit Cover(const char *directory, const char *options = "") : directory_(directory)
    {
        if (mount("test", directory, "tmpfs", 0, options) != 0) {
            perror(directory);
            abort();
        }
    }
    ~Cover() { (void)umount2(directory_, MNT_DETACH); }
    Cover(const Cover &) = delete;
    Cover &operator=(const Cover &) = delete;

private:
    const char *directory_;
};

// Forks; the child runs the function and ends with its result as exit status.
template <typename Function>
pid_t start_child(Function function)
{
    const pid_t pid = fork();
    if (pid == 0)
        _exit(function());
    return pid;
}

// The exit status, or -1 for a child that did not exit.
inline int wait_child(pid_t pid)
{
    int status = 0;
    if (waitpid(pid, &status, 0) != pid || !WIFEXITED(status))
        return -1;
    return WEXITSTATUS(status);
}

template <typename Function>
int run_child(Function function)
{
    return wait_child(start_child(function));
}

} // namespace support
