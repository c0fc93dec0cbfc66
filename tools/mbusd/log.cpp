#include "log.h"

#include <cstdarg>
#include <poll.h>
#include <qzlib.h>

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
    if (!quiet_stderr)
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
    (void)vsnprintf(line, sizeof line, format, arguments);
    va_end(arguments);
    (void)fprintf(stream, "%s\n", line);
    return fflush(stream) == 0;
}

} // namespace mbusd
