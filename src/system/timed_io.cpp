// SPDX-License-Identifier: MIT
#include "base/export.h"
#include "base/wait.h"

#include <cerrno>
#include <qzlib.h>
#include <unistd.h>

namespace
{

// The end of a limit, so that the rest of it is known after a signal or a part of the work.
class Deadline
{
public:
    explicit Deadline(int limit_ms) : limited_(limit_ms >= 1)
    {
        if (!limited_)
            return;
        clock_gettime(CLOCK_MONOTONIC, &end_);
        end_.tv_sec += limit_ms / 1000;
        end_.tv_nsec += static_cast<long>(limit_ms % 1000) * 1'000'000;
    }

    // Null when there is no limit.
    [[nodiscard]] const timespec *left(timespec &value) const
    {
        if (!limited_)
            return nullptr;
        clock_gettime(CLOCK_MONOTONIC, &value);
        value.tv_sec = end_.tv_sec - value.tv_sec;
        value.tv_nsec = end_.tv_nsec - value.tv_nsec;
        if (value.tv_nsec >= SECOND_NS) {
            ++value.tv_sec;
            value.tv_nsec -= SECOND_NS;
        } else if (value.tv_nsec < 0) {
            --value.tv_sec;
            value.tv_nsec += SECOND_NS;
        }
        if (value.tv_sec < 0)
            value = {};
        return &value;
    }

private:
    static constexpr long SECOND_NS = 1'000'000'000;

    bool limited_;
    timespec end_{}; // up to two seconds in the nanoseconds
};

int wait_once(int fd, short events, const Deadline &deadline)
{
    timespec left;
    return qz::base::wait_ready(fd, events, deadline.left(left));
}

// A signal does not end the wait, nor does it begin the limit anew.
int wait_through(int fd, short events, const Deadline &deadline)
{
    int result = 0;
    do {
        result = wait_once(fd, events, deadline);
    } while (result < 0 && errno == EINTR);
    return result;
}

} // namespace

QZ_EXPORT int qzlib_fd_read(int fd, void *buf, unsigned len, int timeout_ms)
{
    if (fd < 0 || buf == nullptr)
        return -1;
    const int ready = wait_through(fd, POLLIN, Deadline(timeout_ms));
    if (ready <= 0)
        return ready;
    return static_cast<int>(read(fd, buf, len));
}

// The loop does not look at the count: when everything is written it waits once more and a write
// of 0 bytes ends it. Deliberate, as the header tells callers.
QZ_EXPORT int qzlib_fd_write(int fd, const void *buf, unsigned len, int timeout_ms)
{
    if (fd < 0 || buf == nullptr)
        return -1;
    const auto *bytes = static_cast<const char *>(buf);
    const Deadline deadline(timeout_ms);
    unsigned total = 0;
    while (wait_through(fd, POLLOUT, deadline) > 0) {
        const ssize_t written = write(fd, bytes + total, len - total);
        if (written <= 0)
            break;
        total += static_cast<unsigned>(written);
    }
    return static_cast<int>(total);
}

QZ_EXPORT int qzlib_fd_read_package(int fd, void *buf, int size, int gap_ms)
{
    if (fd < 0 || buf == nullptr || size < 1 || gap_ms < 1)
        return -1;
    const int ready = wait_once(fd, POLLIN, Deadline(0)); // a signal ends this one
    if (ready < 0)
        return ready;
    auto *bytes = static_cast<char *>(buf);
    int total = 0;
    do {
        const ssize_t count = read(fd, bytes + total, static_cast<size_t>(size - total));
        if (count <= 0)
            break;
        total += static_cast<int>(count);
    } while (total < size && wait_through(fd, POLLIN, Deadline(gap_ms)) > 0);
    return total;
}
