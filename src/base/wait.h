// SPDX-License-Identifier: MIT
// Waiting for a descriptor.
#pragma once

#include <ctime>
#include <poll.h>

#pragma GCC visibility push(hidden)

namespace qz::base
{

// Waits until the descriptor is ready for POLLIN or POLLOUT, whatever its number; no limit: null. As
// select() has it: 1, 0 at the limit, -1 with errno, EBADF for a number that is not open, EINTR after
// a signal.
int wait_ready(int fd, short events, const timespec *limit);

} // namespace qz::base

#pragma GCC visibility pop
