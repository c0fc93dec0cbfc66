#include "log.h"

#include <cstdarg>
#include <cstdio>
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
        (void)fprintf(stderr, "mbusd: %s\n", line);
}

} // namespace mbusd
