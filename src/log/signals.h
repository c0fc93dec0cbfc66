// SPDX-License-Identifier: MIT
// Signals whose handlers log.
#pragma once

#include <csignal>

namespace qz::log
{

// A thread that writes a message holds these back meanwhile: a handler that logs and that
// interrupted the thread there would wait for ever for the locks (time zone, syslog) that the
// thread holds. Signals are added, and never taken out, by those who install such a handler; a
// process without one does not pay for it.
struct HeldSignals {
    sigset_t set;
    bool any; // atomic
};
extern HeldSignals held_signals;

} // namespace qz::log
