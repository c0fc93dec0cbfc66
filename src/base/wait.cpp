// SPDX-License-Identifier: MIT
#include "base/wait.h"

#include <cerrno>

namespace qz::base
{

int wait_ready(int fd, short events, const timespec *limit)
{
    pollfd set = {fd, events, 0};
    const int ready = ppoll(&set, 1, limit, nullptr);
    if (set.revents == POLLHUP && events == POLLOUT)
        return 0; // as at the limit: a write might never end
    if ((set.revents & POLLNVAL) == 0)
        return ready;
    errno = EBADF;
    return -1;
}

} // namespace qz::base
