// SPDX-License-Identifier: MIT
// The modem chip's hardware watchdog.
#include "base/export.h"
#include "base/owners.h"

#include <linux/watchdog.h>
#include <qzlib.h>
#include <sys/ioctl.h>

namespace
{

constexpr const char *WATCHDOG_PATH = "/dev/mdm9x07_watchdog";

// Shared by all threads, opened on first use and never closed: the hardware resets the
// board unless it is fed again or stopped. Two first calls at once may open it twice.
int watchdog_fd = 0;

// The open device; -1 is kept like a descriptor, and the next call tries again.
int watchdog()
{
    int fd = __atomic_load_n(&watchdog_fd, __ATOMIC_RELAXED);
    if (fd >= 1)
        return fd;
    fd = qz::base::move_up(open(WATCHDOG_PATH, O_RDWR | O_CLOEXEC)); // not 0, which stands for "not open"
    __atomic_store_n(&watchdog_fd, fd, __ATOMIC_RELAXED);
    return fd;
}

} // namespace

QZ_EXPORT void qzlib_watchdog_enable(void) {}

QZ_EXPORT void qzlib_watchdog_disable(void) {}

QZ_EXPORT int qzlib_watchdog_feed(void)
{
    return static_cast<int>(write(watchdog(), "\n", 1));
}

QZ_EXPORT int qzlib_watchdog_stop(void)
{
    int option = WDIOS_DISABLECARD;
    return ioctl(watchdog(), WDIOC_SETOPTIONS, &option);
}
