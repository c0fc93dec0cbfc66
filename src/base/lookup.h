// SPDX-License-Identifier: MIT
// Look-ups of names, and how a fork() keeps out of their way.
#pragma once

#include <cstdint>
#include <netdb.h>

#pragma GCC visibility push(hidden)

namespace qz::base
{

// A list of addresses from the resolver. Cancelling the thread does not break off the look-up.
class AddressList
{
public:
    AddressList(const char *host, const char *service, const addrinfo *hints);
    ~AddressList()
    {
        if (head_ != nullptr)
            freeaddrinfo(head_);
    }
    AddressList(const AddressList &) = delete;
    AddressList &operator=(const AddressList &) = delete;

    [[nodiscard]] bool resolved() const { return resolved_; }
    [[nodiscard]] const addrinfo *head() const { return head_; }

private:
    addrinfo *head_ = nullptr;
    bool resolved_;
};

// How many threads are in the resolver, and how many fork or wait to. A child that is forked in the
// midst of a look-up inherits the resolver's locks, and with them nobody who gives them back; so each
// side announces itself before it looks at the other, and no look-up begins while breaks are wanted.
extern uint32_t lookups;
extern uint32_t lookup_breaks;

// Adds to one of the counts, 0 to read it; returns the result. A child of fork() inherits the counts but
// not the threads; the word holds the process id, so that they read as 0 there.
[[gnu::noinline]] uint32_t change(uint32_t &count, int by = 0);

constexpr int TURN_MS = 5; // between two looks at the other side

} // namespace qz::base

#pragma GCC visibility pop
