// What the server has to say: to the router's log, and to standard error for whoever started it.
#pragma once

#include <cstdio>

namespace mbusd
{

void set_quiet(bool quiet);

[[gnu::format(printf, 2, 3)]] void log_line(int level, const char *format, ...);

// Prints a line at once. False, and nothing printed, when the stream's reader is so far behind
// that this would block: the bus waits for nobody.
[[gnu::format(printf, 2, 3)]] bool print_line(FILE *stream, const char *format, ...);

} // namespace mbusd
