// SPDX-License-Identifier: MIT
// Atomic operations on words that threads or processes share, in an order that all of them see.
//
// MIPS's 16-bit instructions have no barrier, and GCC calls a function for each one: two for a
// sequentially consistent load. There these operations are functions of 32-bit instructions, one
// call each; everywhere else they are inline. Without an order nothing but the load or the store
// is left, and __atomic_load_n() or __atomic_store_n() with __ATOMIC_RELAXED does.
#pragma once

#include <cstdint>

#ifdef __mips16
#define QZ_ORDERED [[gnu::nomips16, gnu::noinline]] inline
#else
#define QZ_ORDERED inline
#endif

#pragma GCC visibility push(hidden)

namespace qz::base
{

// Sequentially consistent, but for store_release().

QZ_ORDERED uint32_t load(const uint32_t &word)
{
    return __atomic_load_n(&word, __ATOMIC_SEQ_CST);
}

QZ_ORDERED void store(uint32_t &word, uint32_t value)
{
    __atomic_store_n(&word, value, __ATOMIC_SEQ_CST);
}

// Whoever loads this value sees what was written before it.
QZ_ORDERED void store_release(uint32_t &word, uint32_t value)
{
    __atomic_store_n(&word, value, __ATOMIC_RELEASE);
}

// Stores the value where the word is as expected; false when it was not.
QZ_ORDERED bool exchange_if(uint32_t &word, uint32_t expected, uint32_t value)
{
    return __atomic_compare_exchange_n(&word, &expected, value, false, __ATOMIC_SEQ_CST, __ATOMIC_RELAXED);
}

// Adds modulo 2^32; returns the sum.
QZ_ORDERED uint32_t add(uint32_t &word, uint32_t amount)
{
    return __atomic_add_fetch(&word, amount, __ATOMIC_SEQ_CST);
}

} // namespace qz::base

#pragma GCC visibility pop
