// SPDX-License-Identifier: MIT
// The server's messages: to the router's log, and to standard error for whoever started it.
#pragma once

#include <cstdio>
#include <string>
#include <string_view>

namespace mbusd
{

// Nothing but errors on standard error.
void set_quiet(bool quiet);

[[gnu::format(printf, 2, 3)]] void log_line(int level, const char *format, ...);

// Prints a line at once. False, and nothing printed, when the stream's reader is so far behind
// that this would block: the bus waits for nobody.
[[gnu::format(printf, 2, 3)]] bool print_line(FILE *stream, const char *format, ...);

// Closed standard descriptors lead nowhere from now on, so that no socket takes their place. Terminals
// are opened anew, not to be waited for: poll() promises room for one byte there, not for a line.
// False when standard output was closed.
bool prepare_streams();

// Whether nobody reads standard output any longer.
bool is_output_gone();

// A name for a line: what cannot be printed is shown as '?'.
std::string printable(std::string_view name);

} // namespace mbusd
