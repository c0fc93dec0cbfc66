// SPDX-License-Identifier: MIT
// The text of a local time, in 64 bits whatever the time_t of callers is.
#pragma once

#include <cstdint>
#include <span>

#pragma GCC visibility push(hidden)

namespace qz::log
{

// Seconds since the epoch, 0 for now; cut to what the buffer holds, which is not empty.
void format_time(int64_t seconds, std::span<char> out);

} // namespace qz::log

#pragma GCC visibility pop
