// SPDX-License-Identifier: MIT
// The router's log, and how not to fill it with what somebody else causes.
#pragma once

#include <ctime>
#include <qzlib.h>

#define LOG_LINE(level, ...) debug_msg(level, "mbus-mqtt", __LINE__, __VA_ARGS__)

namespace mqtt
{

// Seconds of a clock that nobody sets.
inline double now_s()
{
    timespec now{};
    clock_gettime(CLOCK_MONOTONIC, &now);
    return static_cast<double>(now.tv_sec) + static_cast<double>(now.tv_nsec) * 1e-9;
}

// Counts events of a kind, of which at most one in a second is worth a line.
class Occasions
{
public:
    // Whether this one is; then unsaid() tells how many there were since the last that was.
    bool is_due()
    {
        ++total_;
        return say(total_ - said_ - 1);
    }
    // Whether there were some that got no line, for a second; as is_due() then.
    bool has_rest() { return said_ < total_ && say(total_ - said_); }
    [[nodiscard]] unsigned long long unsaid() const { return unsaid_; }
    [[nodiscard]] unsigned long long total() const { return total_; }

private:
    bool say(unsigned long long unsaid)
    {
        const double now = now_s();
        if (said_s_ != 0 && now - said_s_ < 1)
            return false;
        unsaid_ = unsaid;
        said_ = total_;
        said_s_ = now;
        return true;
    }

    unsigned long long total_ = 0;
    unsigned long long said_ = 0;
    unsigned long long unsaid_ = 0;
    double said_s_ = 0;
};

} // namespace mqtt
