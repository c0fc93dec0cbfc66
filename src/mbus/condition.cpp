// SPDX-License-Identifier: MIT
#include "mbus/condition.h"

#include "base/lock.h"
#include "mbus/futex.h"
#include "mbus/patience.h"

#include <climits>
#include <cstring>
#include <ctime>
#include <sched.h>

namespace qz::mbus
{
namespace
{

static_assert(sizeof(pthread_cond_t) == 48, "the condition fields of the bus");

// The field as words. Libc's own types lie in it, hence the attribute.
using Word [[gnu::may_alias]] = uint32_t;

Word *words(pthread_cond_t &condition)
{
    return reinterpret_cast<Word *>(&condition);
}

// The layouts of a condition that this code knows, each named by the word that counts waiters.
//
// Groups (glibc 2.25 and later): waiters sit in two groups that change places. One that comes
// enters the group that bit 0 of the sequence names, and sleeps on that group's signal word until
// there are signals in it. It takes any that is added, and one that enters later finds it there,
// which is what makes a token stick.
//     0            sequence: bit 0 as said, the rest counts waits
//     2            where the older group starts; up to 2.40 there are signals in a word that is
//                  not 0, in steps of 2, from 2.41 on in one that is ahead of this word
//     waiters - 1  size of the older group << 2, and libc's lock in the low bits
//     waiters      waiters << 3, and flags
//     waiters + 1  signals, a word for each group
// Counter (musl): a sequence that a signal advances, before the count of waiters.
enum Picture : uint8_t { UNSEEN = 0, FOREIGN = 1, COUNTER = 3, GROUPS_2_41 = 7, GROUPS = 9 };

constexpr uint32_t SHARED_MONOTONIC = 3; // the flags
constexpr uint32_t WAITER = 8;
constexpr uint32_t LOCK_BITS = 3;
constexpr uint32_t EPOCHS = 1U << 20;      // the size field has 30 bits
constexpr uint32_t LOCK_PATIENCE_US = 200; // for a peer in libc's signal, giving the processor away

// By libc's own functions. False at the time limit.
bool wait_until(pthread_cond_t &condition, const timespec &end)
{
    static pthread_mutex_t mutex = PTHREAD_MUTEX_INITIALIZER; // for those functions alone
    const base::Lock lock(mutex);
    return pthread_cond_timedwait(&condition, &mutex, &end) == 0;
}

// A peer that is inside libc's signal holds the lock for some instructions only. One that
// was killed there holds it for ever, and peers may sleep on it.
bool await_lock(const Word &lock)
{
    const uint32_t start = monotonic_us();
    while ((load(lock) & LOCK_BITS) != 0) {
        if (monotonic_us() - start > LOCK_PATIENCE_US)
            return false;
        sched_yield();
    }
    return true;
}

// Leaves a token in the word that the present sleeper sleeps on, or the next one will. The sequence
// moves with every wait, so a sequence that this process has signalled already, with the token
// still there, needs nothing more. (Somebody else's token does not count: he may have been killed
// before he woke the sleeper.)
void signal_group(Word *field, Picture picture, uint32_t *epoch)
{
    const uint32_t sequence = load(field[0]);
    const uint32_t none = picture == GROUPS ? 0 : load(field[2]);
    Word &signals = field[picture + 1U + (sequence & 1)];
    const uint32_t present = load(signals);
    const bool has_token = static_cast<int32_t>(present - none) > 0;
    if (epoch != nullptr) {
        if (has_token && *epoch == sequence)
            return;
        *epoch = sequence;
    }
    if (!has_token) {
        const uint32_t token = none + (picture == GROUPS ? 2 : 1);
        (void)base::exchange_if(signals, present, token); // or somebody else was quicker
    }
    if (load(field[picture]) >= WAITER)
        wake(signals);
}

void signal(pthread_cond_t &condition, Picture picture, uint32_t *epoch)
{
    Word *field = words(condition);
    if (picture >= GROUPS_2_41) {
        signal_group(field, picture, epoch);
    } else if (picture == COUNTER) {
        if (load(field[COUNTER]) == 0)
            return;
        base::add(field[COUNTER - 1], 1);
        wake(field[COUNTER - 1]);
    } else {
        (void)pthread_cond_signal(&condition);
    }
}

// The word that a waiter of ours sleeps on: that of group 0, where there are groups.
Word &sleep_word(pthread_cond_t &condition, Picture picture)
{
    return words(condition)[picture == COUNTER ? COUNTER - 1 : picture + 1];
}

// Writes the field as it is when one waiter has entered group 0 and nobody has signalled,
// with everybody who came before counted as gone.
void enter_group(Word *field, Picture picture)
{
    Word &lock = field[picture - 1];
    const bool locked = !await_lock(lock);
    const uint32_t before = (load(field[0]) >> 1) % EPOCHS;
    for (Word *word = field + 1; word < field + picture + 3; ++word) // not yet told of by anything
        if (word != field + picture)
            __atomic_store_n(word, word == &lock ? before << 2 : 0, __ATOMIC_RELAXED);
    store(field[0], (before + 1) << 1);
    store(field[picture], SHARED_MONOTONIC | WAITER);
    if (locked)
        wake(lock, INT_MAX);
}

uint32_t announce(pthread_cond_t &condition, Picture picture)
{
    Word *field = words(condition);
    if (picture >= GROUPS_2_41) {
        enter_group(field, picture);
    } else if (picture == COUNTER) {
        __atomic_store_n(&field[0], UINT32_MAX, __ATOMIC_RELAXED); // process-shared
        store(field[COUNTER], 1);
        return load(field[COUNTER - 1]);
    }
    return 0;
}

// What a new condition of this libc looks like, and whether it then behaves so: a waiter that
// announced itself is woken by pthread_cond_signal(), and a token that was left is found by
// pthread_cond_timedwait(), whose time is up already.
Picture look()
{
    pthread_cond_t condition;
    memset(&condition, 0, sizeof condition);
    init_condition(condition);
    const Word *field = words(condition);
    Picture picture = FOREIGN;
    if (field[0] == UINT32_MAX && field[COUNTER - 1] == 0 && field[COUNTER] == 0)
        picture = COUNTER;
    else if (field[0] == 0 && field[GROUPS_2_41] == SHARED_MONOTONIC)
        picture = GROUPS_2_41;
    else if (field[0] == 0 && field[GROUPS] == SHARED_MONOTONIC)
        picture = GROUPS;
    if (picture == FOREIGN)
        return FOREIGN;
    const uint32_t ticket = announce(condition, picture);
    (void)pthread_cond_signal(&condition);
    if (load(sleep_word(condition, picture)) == ticket)
        return FOREIGN;
    if (picture == COUNTER)
        return COUNTER;
    init_condition(condition);
    signal(condition, picture, nullptr);
    const timespec past = {0, 0};
    return wait_until(condition, past) ? picture : FOREIGN;
}

Picture known_picture()
{
    static uint8_t known = UNSEEN; // every thread that looks finds the same
    uint8_t picture = __atomic_load_n(&known, __ATOMIC_RELAXED);
    if (picture == UNSEEN) {
        picture = look();
        __atomic_store_n(&known, picture, __ATOMIC_RELAXED);
    }
    return static_cast<Picture>(picture);
}

bool wait_foreign(pthread_cond_t &condition, unsigned timeout_ms)
{
    timespec end;
    clock_gettime(CLOCK_MONOTONIC, &end);
    end.tv_nsec += static_cast<long>(timeout_ms % 1000) * 1'000'000;
    end.tv_sec +=
        static_cast<time_t>(timeout_ms / 1000 + static_cast<unsigned long>(end.tv_nsec) / 1'000'000'000);
    end.tv_nsec %= 1'000'000'000;
    return wait_until(condition, end);
}

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

void signal_condition(pthread_cond_t &condition, uint32_t *epoch)
{
    signal(condition, known_picture(), epoch);
}

uint32_t begin_wait(pthread_cond_t &condition)
{
    return announce(condition, known_picture());
}

bool wait_condition(pthread_cond_t &condition, uint32_t ticket, unsigned timeout_ms)
{
    const Picture picture = known_picture();
    return picture == FOREIGN ? wait_foreign(condition, timeout_ms)
                              : sleep_on(sleep_word(condition, picture), ticket, timeout_ms);
}

void end_wait(pthread_cond_t &condition)
{
    const Picture picture = known_picture();
    if (picture != FOREIGN)
        store(words(condition)[picture], picture == COUNTER ? 0 : SHARED_MONOTONIC);
}

} // namespace qz::mbus
