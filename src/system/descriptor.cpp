// SPDX-License-Identifier: MIT
#include "base/export.h"

#include <fcntl.h>
#include <qzlib.h>
#include <unistd.h>

namespace
{

int change_status_flags(int fd, int clear, int set)
{
    const int flags = fcntl(fd, F_GETFL);
    if (flags < 0 || fcntl(fd, F_SETFL, (flags & ~clear) | set) < 0)
        return QZLIB_ERR_FAILED;
    return 0;
}

} // namespace

// The descriptor is a standard slot when that slot was closed before the call. Slot 0 then
// stays open, slots 1 and 2 are closed again: daemons that start without them rely on it.
QZ_EXPORT int qzlib_stdout_to_null(int keep_stderr)
{
    const int null = open("/dev/null", O_RDWR); // NOLINT: not close-on-exec, it may stay as descriptor 0
    if (null < 0)
        return null;
    int result = null;
    if (null != STDOUT_FILENO)
        result = dup2(null, STDOUT_FILENO);
    if (keep_stderr == 0 && null != STDERR_FILENO)
        result = dup2(null, STDERR_FILENO);
    if (null != STDIN_FILENO)
        result = close(null);
    return result;
}

QZ_EXPORT int qzlib_set_nonblock(int fd)
{
    return change_status_flags(fd, 0, O_NONBLOCK);
}

QZ_EXPORT int qzlib_set_block(int fd)
{
    return change_status_flags(fd, O_NONBLOCK, 0);
}
