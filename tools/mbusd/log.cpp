// SPDX-License-Identifier: MIT
#include "log.h"

#include <algorithm>
#include <cstdarg>
#include <fcntl.h>
#include <poll.h>
#include <qzlib.h>
#include <unistd.h>

namespace mbusd
{
namespace
{
bool quiet_stderr = false;
}

void set_quiet(bool quiet)
{
    quiet_stderr = quiet;
}

void log_line(int level, const char *format, ...)
{
    char line[256];
    va_list arguments;
    va_start(arguments, format);
    (void)vsnprintf(line, sizeof line, format, arguments);
    va_end(arguments);
    debug_msg(level, "mbusd", __LINE__, "%s", line);
    if (!quiet_stderr || level >= QZLIB_LOG_ERROR)
        (void)print_line(stderr, "mbusd: %s", line);
}

bool print_line(FILE *stream, const char *format, ...)
{
    pollfd room = {fileno(stream), POLLOUT, 0};
    if (poll(&room, 1, 0) != 1 || (room.revents & POLLOUT) == 0)
        return false;
    char line[512];
    va_list arguments;
    va_start(arguments, format);
    int length = vsnprintf(line, sizeof line, format, arguments);
    va_end(arguments);
    length = std::clamp(length, 0, static_cast<int>(sizeof line) - 1);
    line[length] = '\n';
    return write(room.fd, line, static_cast<size_t>(length) + 1) == length + 1;
}

bool prepare_streams()
{
    bool is_open = true;
    for (int fd = STDIN_FILENO; fd <= STDERR_FILENO; ++fd) {
        if (fcntl(fd, F_GETFD) < 0) {
            is_open = is_open && fd != STDOUT_FILENO;
            (void)open("/dev/null", O_RDWR); // the lowest that is free
        } else if (fd != STDIN_FILENO && isatty(fd) != 0) {
            char path[] = "/proc/self/fd/0";
            path[sizeof path - 2] = static_cast<char>('0' + fd);
            const int own = open(path, O_WRONLY | O_NONBLOCK | O_NOCTTY | O_CLOEXEC);
            if (own >= 0) {
                (void)dup2(own, fd);
                close(own);
            }
        }
    }
    return is_open;
}

bool is_output_gone()
{
    pollfd output = {STDOUT_FILENO, 0, 0};
    return poll(&output, 1, 0) == 1 && (output.revents & (POLLERR | POLLNVAL)) != 0;
}

std::string printable(std::string_view name)
{
    std::string text(name);
    std::replace_if(
        text.begin(), text.end(), [](char c) { return c < ' ' || c > '~'; }, '?');
    return text;
}

} // namespace mbusd
