// SPDX-License-Identifier: MIT
// One end of a ring of packets.
#pragma once

#include "mbus/format.h"

#include <cstring>

namespace qz::mbus
{

constexpr uint8_t TYPES = 4;

// Keeps the code that every packet passes in one piece.
#define PACKET_PATH [[gnu::always_inline]] inline

// The end of a ring that this process works on. The indices lie in shared memory; one of
// them is moved by this process alone, both may hold anything.
struct Ring {
    Slot *slots;
    uint32_t &write;
    uint32_t &read;
};

// Acquires what the peer published with the index.
inline uint32_t load_index(const uint32_t &index)
{
    return load(index) % SLOTS;
}

template <typename Integer>
Integer load_relaxed(const Integer &field)
{
    return __atomic_load_n(&field, __ATOMIC_RELAXED);
}

inline uint32_t following(uint32_t slot)
{
    return (slot + 1) % SLOTS;
}

enum class Side { CLIENT, SERVER };

// Sequentially consistent against the announcement of a wait: either the sleeper sees the packet or
// the writer sees the sleeper. False when the server's index moved meanwhile: a client that connects
// anew has emptied the ring, and what lies before this packet is old.
template <Side SIDE>
bool publish(uint32_t &index, uint32_t before, uint32_t slot)
{
    if constexpr (SIDE == Side::SERVER)
        return base::exchange_if(index, before, slot);
    store(index, slot);
    return true;
}

inline bool is_empty(const Ring &ring)
{
    return load_index(ring.write) == load_index(ring.read);
}

inline uint32_t mark_of(const Slot &slot)
{
    return static_cast<uint32_t>(reinterpret_cast<uintptr_t>(slot.payload));
}

// A bounded copy of a name, word by word, as most of the packet path's own work is here. Zero
// bytes are found with the usual trick; the lowest one found is a true one.
inline void copy_name(char (&to)[QZLIB_MBUS_PKG_NAME_SIZE], const char (&from)[QZLIB_MBUS_PKG_NAME_SIZE])
{
    constexpr size_t ONES = ~size_t{0} / 0xff;
    memset(to, 0, sizeof to);
#pragma GCC unroll WIDE_ADDRESSES ? 8 : 1
    for (size_t at = 0; at < sizeof to; at += sizeof(size_t)) {
        size_t chunk;
        memcpy(&chunk, from + at, sizeof chunk);
        const size_t zeros = (chunk - ONES) & ~chunk & (ONES << 7);
        if (zeros != 0) {
            chunk &= ((zeros & (~zeros + 1)) >> 7) - 1;
            memcpy(to + at, &chunk, sizeof chunk);
            return;
        }
        memcpy(to + at, &chunk, sizeof chunk);
    }
}

// A packet as it was when it was checked: as bus server of 32 bits a caller may pass on a
// header that lies in a ring, where its writer can still change it.
struct Outgoing {
    const mbus_pkg &header;
    uint8_t type;
    uint32_t length;
    const void *data;

    explicit Outgoing(const mbus_pkg &pkg)
        : header(pkg), type(load_relaxed(pkg.type)), length(load_relaxed(pkg.length)),
          data(load_relaxed(pkg.data))
    {
    }
    [[nodiscard]] bool is_valid() const
    {
        return type < TYPES && length >= 1 && length <= QZLIB_MBUS_PAYLOAD_MAX && data != nullptr;
    }
};

// False when the ring is full, or was emptied meanwhile.
template <Side SIDE>
PACKET_PATH bool put(const Ring &ring, const Outgoing &packet)
{
    const uint32_t before = load_relaxed(ring.write); // this side's own
    const uint32_t at = before % SLOTS;
    const uint32_t next = following(at);
    if (next == load_index(ring.read))
        return false;
    Slot &slot = ring.slots[at];
    slot.type = packet.type;
    slot.length = packet.length;
    slot.data_address = mark_of(slot) | FRESH;
    copy_name(slot.name, packet.header.name);
    memcpy(slot.payload, packet.data, packet.length);
    return publish<SIDE>(ring.write, before, next);
}

} // namespace qz::mbus
