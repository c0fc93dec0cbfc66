// What a process may leave behind: descriptors, children, threads, shared memory, signal actions, masks.
#pragma once

#include "support/box.h"

#include <cerrno>
#include <csignal>
#include <fstream>
#include <string>
#include <sys/stat.h>
#include <sys/wait.h>

namespace support
{

// All of it, as text, for a comparison that says what differs.
inline std::string remains()
{
    size_t threads = 0;
    for ([[maybe_unused]] const auto &entry : std::filesystem::directory_iterator("/proc/self/task"))
        ++threads;
    std::ifstream segments("/proc/sysvipc/shm");
    const auto lines = std::count(std::istreambuf_iterator<char>(segments), {}, '\n');
    const bool childless = waitpid(-1, nullptr, WNOHANG) < 0 && errno == ECHILD;
    const mode_t mask = umask(0);
    umask(mask);
    std::string signals;
    sigset_t blocked;
    pthread_sigmask(SIG_SETMASK, nullptr, &blocked);
    for (int number = 1; number < SIGRTMAX; ++number) {
        struct sigaction action {
        };
        if (sigaction(number, nullptr, &action) != 0 || number == SIGALRM)
            continue;
        if (action.sa_handler != SIG_DFL)
            signals +=
                " " + std::to_string(number) + (action.sa_handler == SIG_IGN ? " ignored" : " handled");
        if (sigismember(&blocked, number) == 1)
            signals += " " + std::to_string(number) + " blocked";
    }
    segments.close();
    return std::to_string(open_descriptors()) + " descriptors, " + std::to_string(threads) + " threads, " +
           std::to_string(lines - 1) + " segments, " + (childless ? "no" : "a") + " child, umask " +
           std::to_string(mask) + ", signals" + signals;
}

} // namespace support
