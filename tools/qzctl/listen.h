// SPDX-License-Identifier: MIT
// Waiting for what another thread receives, for bus listen and msg listen.
#pragma once

#include "command.h"

namespace qzctl
{

// Counts what has come and ends the waiting when it is enough. One at a time in a process.
class Listening
{
public:
    // Holds back the signals that end it, in this thread and in those that are started from now on.
    explicit Listening(const Arguments &arguments);
    // In the thread that receives, around the printing of what came. False: it is not wanted any longer.
    bool begin();
    void end();
    // Until enough has come, the time is up, a signal asks for the end, or is_alive() says no, which is
    // asked twice a second. @return DONE, NO (is_alive() said so), NOT_IN_TIME
    int wait(bool (*is_alive)());

private:
    unsigned count_; // 0: no limit
    unsigned limit_s_;
    volatile unsigned came_ = 0;
    pthread_mutex_t printing_ = PTHREAD_MUTEX_INITIALIZER;
};

} // namespace qzctl
