// The server's sleep on the up condition of the share segment.
//
// Clients signal the condition, with the library or with pthread_cond_signal(). The server
// does not use pthread_cond_wait(): a signal between its look at the rings and that call
// would be lost, and the call hangs when a client was killed inside pthread_cond_signal().
// It is the condition's only waiter and sleeps on the futex word in it that a signal
// changes; docs/bus.md describes the words.
#pragma once

#include <cstdint>
#include <pthread.h>

namespace mbusd
{

class UpCondition
{
public:
    explicit UpCondition(pthread_cond_t &condition);

    // Announces a wait. A signal or a wake() from now on ends sleep(); look at the rings
    // after this, and call end() in any case.
    void begin();
    // False when the time was up.
    bool sleep(unsigned timeout_ms);
    void end();

    // Ends a wait that was announced. Callable from a signal handler.
    void wake();

private:
    volatile uint32_t *words_;
    uint32_t ticket_ = 0;
};

} // namespace mbusd
