#include "up_condition.h"

#include <cerrno>
#include <climits>
#include <cstddef>
#include <linux/futex.h>
#include <sys/syscall.h>
#include <unistd.h>

namespace mbusd
{
namespace
{

static_assert(sizeof(pthread_cond_t) == 48);

void store(volatile uint32_t &word, uint32_t value)
{
    __atomic_store_n(&word, value, __ATOMIC_SEQ_CST);
}

long futex(volatile uint32_t &word, int operation, uint32_t value, const void *timeout)
{
    return syscall(SYS_futex, &word, operation, value, timeout, nullptr, 0);
}

#if defined(__GLIBC__)

// glibc 2.25 and later, as one waiter that has just entered group 0 leaves it.
enum : size_t { SEQUENCE = 0, FIRST_COUNT = 2, GROUP_SIZE = 8, WAITERS = 9, SIGNALS = 10 };
constexpr size_t SLEEP_WORD = SIGNALS;
constexpr uint32_t SHARED_MONOTONIC = 3;
constexpr uint32_t WAITER = 8;
constexpr uint32_t SIGNAL = 2;
constexpr uint32_t EPOCHS = 1U << 20;

// Rewrites the whole field: the lock of a client that was killed inside libc and garbage go.
uint32_t announce(volatile uint32_t *words)
{
    const uint32_t before = (words[SEQUENCE] >> 1) % EPOCHS;
    const bool locked = (words[GROUP_SIZE] & 3) != 0;
    words[SIGNALS] = 0;
    words[SIGNALS + 1] = 0;
    for (size_t i = FIRST_COUNT; i < GROUP_SIZE; ++i)
        words[i] = 0;
    words[GROUP_SIZE] = before << 2;
    words[SEQUENCE + 1] = 0;
    store(words[SEQUENCE], (before + 1) << 1);
    store(words[WAITERS], SHARED_MONOTONIC | WAITER);
    if (locked)
        futex(words[GROUP_SIZE], FUTEX_WAKE, INT_MAX, nullptr);
    return 0;
}

void withdraw(volatile uint32_t *words)
{
    store(words[WAITERS], SHARED_MONOTONIC);
}

#elif defined(__UCLIBC__)
#error "add the layout of this C library's process-shared condition"
#else // musl

enum : size_t { SHARED = 0, SEQUENCE = 2, WAITERS = 3 };
constexpr size_t SLEEP_WORD = SEQUENCE;
constexpr uint32_t SIGNAL = 1;

uint32_t announce(volatile uint32_t *words)
{
    const uint32_t ticket = words[SEQUENCE];
    words[SHARED] = UINT32_MAX;
    store(words[WAITERS], 1);
    return ticket;
}

void withdraw(volatile uint32_t *words)
{
    store(words[WAITERS], 0);
}

#endif

} // namespace

UpCondition::UpCondition(pthread_cond_t &condition) : words_(reinterpret_cast<uint32_t *>(&condition))
{
    pthread_condattr_t attributes;
    pthread_condattr_init(&attributes);
    pthread_condattr_setpshared(&attributes, PTHREAD_PROCESS_SHARED);
    pthread_condattr_setclock(&attributes, CLOCK_MONOTONIC);
    pthread_cond_init(&condition, &attributes);
    pthread_condattr_destroy(&attributes);
}

void UpCondition::begin()
{
    ticket_ = announce(words_);
}

bool UpCondition::sleep(unsigned timeout_ms)
{
    // The kernel's own timespec for this call; libc's may be wider on 32-bit machines.
    const struct {
        long seconds;
        long nanoseconds;
    } timeout = {static_cast<long>(timeout_ms / 1000), static_cast<long>(timeout_ms % 1000) * 1'000'000};
    return futex(words_[SLEEP_WORD], FUTEX_WAIT, ticket_, &timeout) == 0 || errno != ETIMEDOUT;
}

void UpCondition::end()
{
    withdraw(words_);
}

void UpCondition::wake()
{
    __atomic_fetch_add(&words_[SLEEP_WORD], SIGNAL, __ATOMIC_SEQ_CST);
    futex(words_[SLEEP_WORD], FUTEX_WAKE, 1, nullptr);
}

} // namespace mbusd
