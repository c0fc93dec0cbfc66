#include "mbus/condition.h"

#include <cerrno>
#include <climits>
#include <cstddef>
#include <cstring>
#include <linux/futex.h>
#include <sched.h>
#include <sys/syscall.h>
#include <type_traits>
#include <unistd.h>

namespace qz::mbus
{
namespace
{

static_assert(sizeof(pthread_cond_t) == 48, "the condition fields of the bus");

// The field as words. Libc's own types lie behind it, hence the attribute.
using Word [[gnu::may_alias]] = uint32_t;

Word *words(pthread_cond_t &condition)
{
    return reinterpret_cast<Word *>(&condition);
}

uint32_t load(const Word &word)
{
    return __atomic_load_n(&word, __ATOMIC_SEQ_CST);
}

void store(Word &word, uint32_t value)
{
    __atomic_store_n(&word, value, __ATOMIC_SEQ_CST);
}

// For words that no decision hangs on before a later store() or add() publishes them.
void prepare(Word &word, uint32_t value)
{
    __atomic_store_n(&word, value, __ATOMIC_RELAXED);
}

void add(Word &word, uint32_t value)
{
    __atomic_fetch_add(&word, value, __ATOMIC_SEQ_CST);
}

// Not FUTEX_PRIVATE: the sleeper is in another process.
void wake(Word &word, int sleepers = 1)
{
    syscall(SYS_futex, &word, FUTEX_WAKE, sleepers, nullptr, nullptr, 0);
}

bool sleep_on(Word &word, uint32_t expected, unsigned timeout_ms)
{
    // The kernel's own timespec for this call; libc's may be wider on 32-bit machines.
    const struct {
        long seconds;
        long nanoseconds;
    } timeout = {static_cast<long>(timeout_ms / 1000), static_cast<long>(timeout_ms % 1000) * 1'000'000};
    return syscall(SYS_futex, &word, FUTEX_WAIT, expected, &timeout, nullptr, 0) == 0 || errno != ETIMEDOUT;
}

#if defined(__UCLIBC__)
#error "add the layout of this C library's process-shared condition"
#elif defined(__GLIBC__)

// glibc 2.25 and later. Waiters sit in two groups that change places; a waiter enters the
// group that bit 0 of the sequence names, and sleeps on that group's signal word while it is
// 0. A sleeper takes any signal that is added to the word of its group, and one that enters
// later finds it there, which is what makes a token stick.
enum : size_t {
    SEQUENCE = 0,     // low word; bit 0: group of new waiters, the rest: waiters so far
    G1_START = 2,     // low word of a 64-bit count: waiters before the older group
    G1_SIZE_LOCK = 8, // size of the older group << 2, and libc's lock in the low bits
    WAITERS = 9,      // waiters << 3, and the flags below
    SIGNALS = 10      // one word per group, in steps of 2
};
constexpr uint32_t SHARED_MONOTONIC = 1 | 2;
constexpr uint32_t WAITER = 8;
constexpr uint32_t TOKEN = 2;
constexpr uint32_t LOCK_BITS = 3;
constexpr uint32_t EPOCHS = 1U << 20; // the size field has 30 bits
constexpr int LOCK_PATIENCE = 16;     // times the processor is given away for a peer in libc's signal

static_assert(offsetof(pthread_cond_t, __data.__wseq) == SEQUENCE * 4 &&
              offsetof(pthread_cond_t, __data.__g1_start) == G1_START * 4 &&
              offsetof(pthread_cond_t, __data.__g1_orig_size) == G1_SIZE_LOCK * 4 &&
              offsetof(pthread_cond_t, __data.__wrefs) == WAITERS * 4 &&
              offsetof(pthread_cond_t, __data.__g_signals) == SIGNALS * 4);

// A peer that is inside libc's signal holds the lock for some instructions only. One that
// was killed there holds it for ever, and peers may sleep on it.
bool await_lock(const Word *field)
{
    for (int i = 0; i < LOCK_PATIENCE; ++i) {
        if ((load(field[G1_SIZE_LOCK]) & LOCK_BITS) == 0)
            return true;
        sched_yield();
    }
    return false;
}

#else // musl: a sequence that a signal advances, and a count of waiters

enum : size_t { SHARED = 0, SEQUENCE = 2, WAITERS = 3 };

#endif

} // namespace

void init_condition(pthread_cond_t &condition)
{
    pthread_condattr_t attributes;
    pthread_condattr_init(&attributes);
    pthread_condattr_setpshared(&attributes, PTHREAD_PROCESS_SHARED);
    pthread_condattr_setclock(&attributes, CLOCK_MONOTONIC);
    pthread_cond_init(&condition, &attributes);
    pthread_condattr_destroy(&attributes);
}

bool is_initialised(const pthread_cond_t &condition)
{
#if defined(__GLIBC__)
    constexpr size_t WORD = WAITERS;
    constexpr uint32_t BITS = SHARED_MONOTONIC;
#else
    constexpr size_t WORD = SHARED;
    constexpr uint32_t BITS = UINT32_MAX;
#endif
    return (load(words(const_cast<pthread_cond_t &>(condition))[WORD]) & BITS) != 0;
}

#if defined(__GLIBC__)

// The sequence moves with every wait, so a sequence that this process has signalled already,
// with the token still there, needs nothing more. (Somebody else's token does not count: he
// may have been killed before he woke the sleeper.)
void signal_condition(pthread_cond_t &condition, SignalMemory &memory)
{
    Word *field = words(condition);
    if (load(field[WAITERS]) < WAITER && load(field[SIGNALS + (memory.epoch & 1)]) != 0)
        return;
    const uint32_t sequence = load(field[SEQUENCE]);
    Word &signals = field[SIGNALS + (sequence & 1)];
    if (sequence == memory.epoch && load(signals) != 0)
        return;
    memory.epoch = sequence;
    add(signals, TOKEN);
    if (load(field[WAITERS]) >= WAITER)
        wake(signals);
}

void force_condition(pthread_cond_t &condition)
{
    Word *field = words(condition);
    if (load(field[WAITERS]) < WAITER)
        return;
    Word &signals = field[SIGNALS + (load(field[SEQUENCE]) & 1)];
    if (load(signals) == 0)
        add(signals, TOKEN);
    wake(signals);
}

// Writes the field as it is when one waiter has entered group 0 and nobody has signalled,
// with everybody who came before counted as gone.
uint32_t begin_wait(pthread_cond_t &condition)
{
    Word *field = words(condition);
    const bool locked = !await_lock(field);
    const uint32_t before = (load(field[SEQUENCE]) >> 1) % EPOCHS;
    prepare(field[SIGNALS], 0);
    prepare(field[SIGNALS + 1], 0);
    for (size_t i = G1_START; i < G1_SIZE_LOCK; ++i)
        prepare(field[i], 0);
    prepare(field[G1_SIZE_LOCK], before << 2);
    prepare(field[SEQUENCE + 1], 0);
    store(field[SEQUENCE], (before + 1) << 1);
    store(field[WAITERS], SHARED_MONOTONIC | WAITER);
    if (locked)
        wake(field[G1_SIZE_LOCK], INT_MAX);
    return 0;
}

bool wait_condition(pthread_cond_t &condition, uint32_t ticket, unsigned timeout_ms)
{
    return sleep_on(words(condition)[SIGNALS], ticket, timeout_ms);
}

void end_wait(pthread_cond_t &condition)
{
    store(words(condition)[WAITERS], SHARED_MONOTONIC);
}

#else

// A plain waiter does not move the sequence, so there is nothing to remember a wait by.
void signal_condition(pthread_cond_t &condition, SignalMemory & /*memory*/)
{
    force_condition(condition);
}

void force_condition(pthread_cond_t &condition)
{
    Word *field = words(condition);
    if (load(field[WAITERS]) == 0)
        return;
    add(field[SEQUENCE], 1);
    wake(field[SEQUENCE]);
}

uint32_t begin_wait(pthread_cond_t &condition)
{
    Word *field = words(condition);
    const uint32_t sequence = load(field[SEQUENCE]);
    prepare(field[SHARED], UINT32_MAX);
    store(field[WAITERS], 1);
    return sequence;
}

bool wait_condition(pthread_cond_t &condition, uint32_t ticket, unsigned timeout_ms)
{
    return sleep_on(words(condition)[SEQUENCE], ticket, timeout_ms);
}

void end_wait(pthread_cond_t &condition)
{
    store(words(condition)[WAITERS], 0);
}

#endif

} // namespace qz::mbus
