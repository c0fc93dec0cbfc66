// SPDX-License-Identifier: MIT
#include "base/lookup.h"
#include "base/atomic.h"
#include "base/thread.h"

#include <poll.h>
#include <unistd.h>

namespace qz::base
{

uint32_t lookups = 0;
uint32_t lookup_breaks = 0;

uint32_t change(uint32_t &count, int by)
{
    constexpr unsigned COUNT_BITS = 12; // the rest is the process
    const uint32_t own = static_cast<uint32_t>(getpid()) << COUNT_BITS;
    for (;;) {
        const uint32_t before = load(count);
        const uint32_t inherited = (before ^ own) >> COUNT_BITS;
        const uint32_t now = (inherited == 0 ? before : own) + static_cast<uint32_t>(by);
        if (exchange_if(count, before, now))
            return now % (1U << COUNT_BITS);
    }
}

AddressList::AddressList(const char *host, const char *service, const addrinfo *hints)
{
    const CancellationHold hold;
    change(lookups, 1);
    while (change(lookup_breaks) != 0) {
        change(lookups, -1);
        (void)poll(nullptr, 0, TURN_MS);
        change(lookups, 1);
    }
    resolved_ = getaddrinfo(host, service, hints, &head_) == 0;
    change(lookups, -1);
}

} // namespace qz::base
