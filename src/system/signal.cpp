// SPDX-License-Identifier: MIT
#include "base/export.h"

#include <csignal>
#include <qzlib.h>

namespace
{

// SA_INTERRUPT of old systems. Current kernels ignore it; what counts is that SA_RESTART is not
// set, so that a signal ends a call in progress with EINTR.
constexpr unsigned HISTORIC_INTERRUPT_FLAG = 0x20000000;
static_assert((HISTORIC_INTERRUPT_FLAG & static_cast<unsigned>(SA_RESTART)) == 0);
static_assert((HISTORIC_INTERRUPT_FLAG &
               (static_cast<unsigned>(SA_SIGINFO) | static_cast<unsigned>(SA_RESETHAND) |
                static_cast<unsigned>(SA_NODEFER) | static_cast<unsigned>(SA_ONSTACK) |
                static_cast<unsigned>(SA_NOCLDSTOP) | static_cast<unsigned>(SA_NOCLDWAIT))) == 0,
              "on this machine the bit would mean something else");

} // namespace

QZ_EXPORT void (*qzlib_sys_signal(int sig, void (*handler)(int)))(int)
{
    struct sigaction action {
    };
    action.sa_handler = handler;
    action.sa_flags = static_cast<decltype(action.sa_flags)>(HISTORIC_INTERRUPT_FLAG);
    sigemptyset(&action.sa_mask);
    struct sigaction previous;
    if (sigaction(sig, &action, &previous) != 0)
        return SIG_ERR; // NOLINT: -1 as a pointer, the C library's own
    return previous.sa_handler;
}
