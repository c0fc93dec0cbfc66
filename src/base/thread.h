// SPDX-License-Identifier: MIT
// Threads: how the library starts its own, and what calls need that a caller may cancel.
#pragma once

#include <pthread.h>

namespace qz::base
{

// Starts a thread with all signals blocked: the process's signals stay with its own threads.
// False when the system has none.
bool start_thread(pthread_t &thread, void *(*run)(void *), void *argument);

// pthread_mutex_unlock() as pthread_cleanup_push() takes it.
void unlock(void *mutex);

// As long as it lives the calling thread cannot be cancelled.
class CancellationHold
{
public:
    CancellationHold() { pthread_setcancelstate(PTHREAD_CANCEL_DISABLE, &saved_); }
    ~CancellationHold() { pthread_setcancelstate(saved_, nullptr); }
    CancellationHold(const CancellationHold &) = delete;
    CancellationHold &operator=(const CancellationHold &) = delete;

private:
    int saved_ = 0;
};

} // namespace qz::base
