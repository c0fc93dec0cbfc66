// Process-shared conditions that no peer can block.
//
// The condition fields of the bus are pthread_cond_t and work with processes that use
// pthread_cond_wait() and pthread_cond_signal() on them. This library calls neither: libc's
// functions lock state inside the condition, or wait for other waiters to leave it, and so
// hang when a process was killed at the wrong instruction or the bytes are garbage. And
// between the test for a packet and pthread_cond_wait() a signal gets lost, since no mutex
// is shared. Instead the futex words inside libc's own layout are used directly:
//
//   - To wait is to announce the wait, to test once more, and to sleep on the word that a
//     signal changes: nothing is lost in between, and a timeout needs no lock.
//   - To signal is to leave a token that the present or else the next sleeper takes, and to
//     wake. It needs no lock either, and no sleeper to be there.
//
// A condition has one waiter at a time (the reader of the ring, or the bus server), which
// rewrites the whole field before it sleeps: whatever a killed or hostile peer left is gone.
#pragma once

#include <cstdint>
#include <pthread.h>

namespace qz::mbus
{

// Initialises the field: process-shared, monotonic clock.
void init_condition(pthread_cond_t &condition);

// Whether the field was initialised, process-shared. Signals leave a zeroed one uninitialised.
bool is_initialised(const pthread_cond_t &condition);

// What one signalling process remembers of a condition, so that it wakes a sleeper once.
struct SignalMemory {
    uint32_t epoch;
};

// Makes the waiter look at its rings. The caller has published what is to be seen with a
// sequentially consistent store. No system call unless somebody sleeps and this process has not woken him
// yet.
void signal_condition(pthread_cond_t &condition, SignalMemory &memory);

// Wakes the waiter, whatever is remembered: for a ring that is found full.
void force_condition(pthread_cond_t &condition);

// Announces a wait. A signal from now on makes wait_condition() return. The caller tests
// what it waits for after this, and ends with end_wait() in any case.
uint32_t begin_wait(pthread_cond_t &condition);

// Sleeps until a signal or a stray wake-up; false at the timeout.
bool wait_condition(pthread_cond_t &condition, uint32_t ticket, unsigned timeout_ms);

void end_wait(pthread_cond_t &condition);

} // namespace qz::mbus
