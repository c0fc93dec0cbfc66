#include "base/export.h"
#include "base/owners.h"

#include <array>
#include <climits>
#include <ctime>
#include <qzlib.h>
#include <sys/select.h>
#include <sys/time.h>

namespace
{

using qz::base::UniqueMemory;

enum class Ready { TO_READ, TO_WRITE };

// select() changes the time value it is given on some systems only, so what is left of a limit
// is worked out from the clock.
class Deadline
{
public:
    explicit Deadline(int limit_ms) : limited_(limit_ms >= 1)
    {
        if (!limited_)
            return;
        const timeval limit = {limit_ms / 1000,
                               limit_ms % 1000 * 1000 + 1}; // 1: never early for the clock's rounding
        const timeval start = now();
        timeradd(&start, &limit, &end_);
    }

    // The time value for select(): null when there is no limit.
    [[nodiscard]] timeval *left(timeval &value) const
    {
        if (!limited_)
            return nullptr;
        const timeval current = now();
        timersub(&end_, &current, &value);
        if (value.tv_sec < 0)
            value = {};
        return &value;
    }

private:
    static timeval now()
    {
        timespec time{};
        clock_gettime(CLOCK_MONOTONIC, &time);
        return {time.tv_sec, time.tv_nsec / 1000};
    }

    bool limited_;
    timeval end_{};
};

// A set for select() that holds one descriptor, whatever its number: an fd_set ends at 1024.
class SingleSet
{
public:
    explicit SingleSet(int fd) : large_(fd < FD_SETSIZE ? nullptr : calloc(word(fd) + 1, sizeof(Word)))
    {
        if (fd < FD_SETSIZE || large_)
            words()[word(fd)] = Word{1} << (static_cast<size_t>(fd) % WORD_BITS);
    }

    // Null when there was no memory for a large set.
    [[nodiscard]] fd_set *get(int fd)
    {
        return fd < FD_SETSIZE || large_ ? reinterpret_cast<fd_set *>(words()) : nullptr;
    }

private:
    using Word = unsigned long; // the kernel's unit
    static constexpr size_t WORD_BITS = sizeof(Word) * CHAR_BIT;
    static_assert(sizeof(fd_set) == FD_SETSIZE / CHAR_BIT);

    static size_t word(int fd) { return static_cast<size_t>(fd) / WORD_BITS; }
    Word *words() { return large_ ? reinterpret_cast<Word *>(large_.get()) : small_.data(); }

    std::array<Word, FD_SETSIZE / WORD_BITS> small_{};
    UniqueMemory large_;
};

// One wait: what select() gives. A number that is not open is asked for first, since select()
// passes over numbers behind the end of the process's table and would wait for nothing.
int wait_once(int fd, Ready ready, const Deadline &deadline)
{
    if (fcntl(fd, F_GETFD) < 0)
        return -1;
    SingleSet holder(fd);
    fd_set *set = holder.get(fd);
    if (set == nullptr)
        return -1;
    timeval value;
    timeval *left = deadline.left(value);
    return ready == Ready::TO_READ ? select(fd + 1, set, nullptr, nullptr, left)
                                   : select(fd + 1, nullptr, set, nullptr, left);
}

// A signal does not end the wait, nor does it begin the limit anew.
int wait_ready(int fd, Ready ready, const Deadline &deadline)
{
    int result = 0;
    do {
        result = wait_once(fd, ready, deadline);
    } while (result < 0 && errno == EINTR);
    return result;
}

} // namespace

QZ_EXPORT int qzlib_fd_read(int fd, void *buf, unsigned len, int timeout_ms)
{
    if (fd < 0 || buf == nullptr)
        return -1;
    const int ready = wait_ready(fd, Ready::TO_READ, Deadline(timeout_ms));
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
    while (wait_ready(fd, Ready::TO_WRITE, deadline) > 0) {
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
    const int ready = wait_once(fd, Ready::TO_READ, Deadline(0)); // a signal ends this one
    if (ready < 0)
        return ready;
    auto *bytes = static_cast<char *>(buf);
    int total = 0;
    do {
        const ssize_t count = read(fd, bytes + total, static_cast<size_t>(size - total));
        if (count <= 0)
            break;
        total += static_cast<int>(count);
    } while (total < size && wait_ready(fd, Ready::TO_READ, Deadline(gap_ms)) > 0);
    return total;
}
