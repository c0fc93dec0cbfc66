// SPDX-License-Identifier: MIT
#include "mbus/doorbell.h"

namespace qz::mbus
{

// That the waiter was rung by another process does not count: that one may have been killed before
// it woke the sleeper.
void wake_waiter(Doorbell bell, uint32_t state, RingMemory *memory)
{
    if ((state & BELL_SERVED) == 0 || (state & BELL_ON_CONDITION) != 0) {
        signal_condition(bell.condition, memory == nullptr ? nullptr : &memory->epoch);
        return;
    }
    if ((state & BELL_ASLEEP) == 0)
        return;
    if (memory != nullptr) {
        const uint32_t wait = state | BELL_RUNG;
        if (wait == memory->wait)
            return;
        memory->wait = wait;
    }
    (void)base::exchange_if(bell.word, state, state | BELL_RUNG); // or somebody else was quicker, or it woke
    wake(bell.word);
}

Wait::Wait(Doorbell bell, bool on_condition)
    : bell_(bell), on_condition_(on_condition),
      ticket_((load(bell.word) & ~(BELL_WAIT - 1)) + BELL_WAIT + BELL_SERVED +
              (on_condition ? BELL_ON_CONDITION : BELL_ASLEEP))
{
    const uint32_t condition_ticket = on_condition ? begin_wait(bell.condition) : 0;
    store(bell.word, ticket_);
    if (on_condition)
        ticket_ = condition_ticket;
}

bool Wait::sleep(unsigned timeout_ms)
{
    return on_condition_ ? wait_condition(bell_.condition, ticket_, timeout_ms)
                         : sleep_on(bell_.word, ticket_, timeout_ms);
}

Wait::~Wait()
{
    if (on_condition_)
        end_wait(bell_.condition);
    store(bell_.word, (load(bell_.word) & ~(BELL_WAIT - 1)) | BELL_SERVED);
}

} // namespace qz::mbus
