// SPDX-License-Identifier: MIT
// How the two ends of the bus wake each other.
//
// A doorbell is a word in shared memory beside a condition field. The waiter, the reader of a ring
// or the bus server, sleeps on it, and says in it what it does; 0 stands for a waiter that knows
// nothing of doorbells, and is served by the condition. It does not depend on any libc:
//
//   - To wait is to announce the wait in the word, to test once more, and to sleep on the word.
//   - To ring is to change the word and to wake; when nobody sleeps, there is nothing to do.
//
// Since the ringer publishes its packet before it looks at the word, and the waiter announces
// itself before it looks for packets, one of them sees the other; the kernel compares the word
// before it lets the waiter sleep. Nobody waits for a peer, so that nobody hangs on one that was
// killed, and whatever a hostile peer writes there is gone with the next wait.
//
// A waiter that has to serve peers without doorbells sleeps on the condition, and says so.
#pragma once

#include "mbus/condition.h"
#include "mbus/futex.h"

#pragma GCC visibility push(hidden)

namespace qz::mbus
{

struct Doorbell {
    uint32_t &word;
    pthread_cond_t &condition;
};

// The word: what the waiter does, and above that how many waits there were.
constexpr uint32_t BELL_SERVED = 1;       // the waiter knows doorbells
constexpr uint32_t BELL_ASLEEP = 2;       // it sleeps on the word, or is about to
constexpr uint32_t BELL_ON_CONDITION = 4; // it sleeps on the condition, or is about to
constexpr uint32_t BELL_RUNG = 8;         // it was woken
constexpr uint32_t BELL_WAIT = 16;

// What one process remembers of a doorbell that it rings, so that it wakes a sleeper once.
struct RingMemory {
    uint32_t wait;
    uint32_t epoch;
};

inline bool is_served(const uint32_t &word)
{
    return (load(word) & BELL_SERVED) != 0;
}

// The waiter's first act: from now on it is rung.
inline void serve(Doorbell bell)
{
    store(bell.word, (load(bell.word) & ~(BELL_WAIT - 1)) | BELL_SERVED);
}

// Wakes the sleeper; null: whatever is remembered.
void wake_waiter(Doorbell bell, uint32_t state, RingMemory *memory);

// Makes the waiter look at its rings. The caller has published what is to be seen with a
// sequentially consistent store. A system call only when the waiter sleeps and this process has not
// woken it yet.
inline void ring(Doorbell bell, RingMemory &memory)
{
    const uint32_t state = load(bell.word);
    if ((state & (BELL_WAIT - 1)) != BELL_SERVED)
        wake_waiter(bell, state, &memory);
}

// Whatever is remembered: for a ring that is found full.
inline void ring_anyway(Doorbell bell)
{
    wake_waiter(bell, load(bell.word), nullptr);
}

// One wait, as long as the object lives. `on_condition`: some peer does not know doorbells. Test what is
// waited for after making one and before sleep().
class Wait
{
public:
    Wait(Doorbell bell, bool on_condition);
    ~Wait();
    Wait(const Wait &) = delete;
    Wait &operator=(const Wait &) = delete;

    // Until somebody rings, or a stray wake-up; false at the time limit.
    [[nodiscard]] bool sleep(unsigned timeout_ms);

private:
    Doorbell bell_;
    bool on_condition_;
    uint32_t ticket_;
};

} // namespace qz::mbus

#pragma GCC visibility pop
