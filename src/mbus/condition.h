// SPDX-License-Identifier: MIT
// The condition fields of the bus, for peers that know nothing but pthread_cond_wait(),
// pthread_cond_timedwait() and pthread_cond_signal() on them. Two processes of this library ring
// each other's doorbell instead (doorbell.h).
//
// Where the libc's own words in the field are known, they are used directly: libc's functions lock
// state inside the condition, and so hang when a process was killed at the wrong instruction or the
// bytes are garbage, and between the test for a packet and pthread_cond_wait() a signal gets lost,
// since no mutex is shared. Which words they are is found out once, at run time, by trying them on a
// condition of our own; what the object was built with says nothing about what it runs with. On any
// other libc its own functions are called, and the bounded wait makes up for what they lose.
//
// A condition has one waiter at a time: the reader of the ring, or the bus server.
#pragma once

#include <cstdint>
#include <pthread.h>

#pragma GCC visibility push(hidden)

namespace qz::mbus
{

// Initialises the field: process-shared, monotonic clock.
void init_condition(pthread_cond_t &condition);

// Wakes the waiter: the present one, or, where libc's conditions can keep a signal, the next. The
// caller has published what is to be seen with a sequentially consistent store. `epoch` is what
// this process remembers of the condition, so that it wakes a sleeper once; null: wakes in any case.
void signal_condition(pthread_cond_t &condition, uint32_t *epoch);

// Announces a wait. A signal from now on makes wait_condition() return, unless libc's own functions
// have to do. The caller tests what it waits for after this, and ends with end_wait() in any case.
// The field is rewritten: whatever a killed or hostile peer left in it is gone.
uint32_t begin_wait(pthread_cond_t &condition);

// Sleeps until a signal or a stray wake-up; false at the time limit.
bool wait_condition(pthread_cond_t &condition, uint32_t ticket, unsigned timeout_ms);

void end_wait(pthread_cond_t &condition);

} // namespace qz::mbus

#pragma GCC visibility pop
