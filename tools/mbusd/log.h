// What the server has to say: to the router's log, and to standard error for whoever started it.
#pragma once

namespace mbusd
{

void set_quiet(bool quiet);

[[gnu::format(printf, 2, 3)]] void log_line(int level, const char *format, ...);

} // namespace mbusd
