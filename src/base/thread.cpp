// SPDX-License-Identifier: MIT
#include "base/thread.h"

#include <csignal>

namespace qz::base
{

bool start_thread(pthread_t &thread, void *(*run)(void *), void *argument)
{
    sigset_t all;
    sigset_t before;
    sigfillset(&all);
    pthread_sigmask(SIG_SETMASK, &all, &before);
    const int error = pthread_create(&thread, nullptr, run, argument);
    pthread_sigmask(SIG_SETMASK, &before, nullptr);
    return error == 0;
}

void unlock(void *mutex)
{
    pthread_mutex_unlock(static_cast<pthread_mutex_t *>(mutex));
}

} // namespace qz::base
