// SPDX-License-Identifier: MIT
#include "base/atomic.h"
#include "base/export.h"
#include "base/lock.h"
#include "base/thread.h"

#include <cstdlib>
#include <ctime>
#include <limits>
#include <qzlib.h>

namespace
{

using qz::base::load;
using qz::base::Lock;

timespec deadline_after(int seconds)
{
    timespec deadline{};
    clock_gettime(CLOCK_MONOTONIC, &deadline);
    if (__builtin_add_overflow(deadline.tv_sec, seconds, &deadline.tv_sec))
        deadline.tv_sec = std::numeric_limits<time_t>::max(); // 32-bit time_t and a huge limit
    return deadline;
}

// Waits once for a change, with the mutex held. A limit below 1 means none. A thread that is cancelled
// here releases the mutex.
int wait_change(qzlib_event &ev, int timeout_s)
{
    int result;
    pthread_cleanup_push(qz::base::unlock, &ev.mutex);
    if (timeout_s < 1) {
        result = pthread_cond_wait(&ev.changed, &ev.mutex);
    } else {
        const timespec deadline = deadline_after(timeout_s);
        result = pthread_cond_timedwait(&ev.changed, &ev.mutex, &deadline);
    }
    pthread_cleanup_pop(0);
    return result;
}

enum class Wanted { ANY, ALL, NONE };

bool holds(uint32_t flags, uint32_t mask, Wanted wanted)
{
    if (wanted == Wanted::ALL)
        return (flags & mask) == mask;
    return ((flags & mask) != 0) == (wanted == Wanted::ANY);
}

// The limit starts anew at every wake-up that does not bring what is wanted: daemons count
// on a group that keeps changing to keep its waiters waiting.
int wait_until(qzlib_event *ev, uint32_t mask, Wanted wanted, int timeout_s)
{
    if (ev == nullptr)
        return -1;
    const Lock lock(ev->mutex);
    while (!holds(load(ev->flags), mask, wanted)) {
        const int result = wait_change(*ev, timeout_s);
        if (timeout_s >= 1 && result != 0)
            return result;
    }
    return 0;
}

// Wakes one waiter only, deliberately.
int change_flags(qzlib_event *ev, uint32_t clear, uint32_t set)
{
    if (ev == nullptr)
        return -1;
    const Lock lock(ev->mutex);
    // Atomic because qzlib_event_check_flag() reads without the mutex; every change is made under it.
    qz::base::store_release(ev->flags, (ev->flags & ~clear) | set);
    pthread_cond_signal(&ev->changed);
    return 0;
}

} // namespace

QZ_EXPORT qzlib_event *qzlib_event_init(void)
{
    auto *ev = static_cast<qzlib_event *>(calloc(1, sizeof(qzlib_event)));
    if (ev == nullptr)
        return nullptr;
    pthread_condattr_t monotonic;
    pthread_condattr_init(&monotonic);
    pthread_condattr_setclock(&monotonic, CLOCK_MONOTONIC);
    pthread_mutex_init(&ev->mutex, nullptr);
    pthread_cond_init(&ev->changed, &monotonic);
    return ev;
}

QZ_EXPORT int qzlib_event_unint(qzlib_event *ev)
{
    if (ev == nullptr)
        return -1;
    free(ev);
    return 0;
}

QZ_EXPORT int qzlib_event_set_flag(qzlib_event *ev, uint32_t mask)
{
    return change_flags(ev, 0, mask);
}

QZ_EXPORT int qzlib_event_clear_flag(qzlib_event *ev, uint32_t mask)
{
    return change_flags(ev, mask, 0);
}

QZ_EXPORT int qzlib_event_check_flag(qzlib_event *ev, uint32_t mask)
{
    return ev != nullptr && (load(ev->flags) & mask) == mask;
}

QZ_EXPORT int qzlib_event_wait_flag(qzlib_event *ev, uint32_t mask, int timeout)
{
    return wait_until(ev, mask, Wanted::ANY, timeout);
}

QZ_EXPORT int qzlib_event_wait_all_flag(qzlib_event *ev, uint32_t mask, int timeout)
{
    return wait_until(ev, mask, Wanted::ALL, timeout);
}

QZ_EXPORT int qzlib_event_wait_flag_with_status(qzlib_event *ev, uint32_t mask, uint32_t /*status*/,
                                                int timeout)
{
    return qzlib_event_wait_flag(ev, mask, timeout);
}

QZ_EXPORT int qzlib_event_wait_noflag(qzlib_event *ev, uint32_t mask, uint32_t /*ignored*/, int timeout)
{
    return wait_until(ev, mask, Wanted::NONE, timeout);
}

QZ_EXPORT int qzlib_event_wait_event(qzlib_event *ev, int timeout)
{
    if (ev == nullptr)
        return -1;
    const Lock lock(ev->mutex);
    return wait_change(*ev, timeout);
}
