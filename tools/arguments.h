// SPDX-License-Identifier: MIT
// What the tools do with their arguments: whatever is wrong with them is one line on standard error,
// "tool: what is wrong: why", and status 2, before anything has been started or written.
#pragma once

#include <cerrno>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <fcntl.h>
#include <string>

namespace arguments
{

inline constexpr int WRONG_USAGE = 2;

[[noreturn]] inline void fail(const char *tool, const std::string &text, int status = WRONG_USAGE)
{
    fprintf(stderr, "%s: %s\n", tool, text.c_str());
    exit(status);
}

// For --help and --version. The other status when the text could not be written.
[[noreturn]] inline void print(const char *tool, const char *text, int status = 1)
{
    if (fputs(text, stdout) < 0 || fflush(stdout) != 0)
        fail(tool, std::string("standard output: ") + strerror(errno), status);
    exit(0);
}

// The whole text must be a decimal number within the limits.
inline unsigned long number(const char *tool, const char *option, const char *text, unsigned long min,
                            unsigned long max)
{
    char *end = nullptr;
    errno = 0;
    const unsigned long value = strtoul(text, &end, 10);
    if (*text < '0' || *text > '9' || *end != '\0' || errno != 0 || value < min || value > max)
        fail(tool, std::string(option) + " " + text + ": not a number from " + std::to_string(min) + " to " +
                       std::to_string(max));
    return value;
}

// Takes the places of standard streams that the caller has closed, so that no socket or terminal
// gets their number and is printed to. Using them fails as before.
inline void hold_standard_streams()
{
    for (int fd = 0; fd <= 2; ++fd)
        if (fcntl(fd, F_GETFD) < 0)
            (void)!open("/dev/null", fd == 0 ? O_WRONLY : O_RDONLY); // the lowest free number is this one
}

} // namespace arguments
