// SPDX-License-Identifier: MIT
// The formats in shared memory, which all processes on the bus share byte for byte.
#pragma once

#include "mbus/doorbell.h"

#include <cstddef>
#include <cstdint>
#include <qzlib.h>
#include <type_traits>

namespace qz::mbus
{

// One packet in a ring.
struct Slot {
    uint8_t type;
    char name[QZLIB_MBUS_PKG_NAME_SIZE];
    uint8_t padding[3];
    uint32_t length;
    // Address of the payload in the process that touched the slot last, its low 32 bits.
    // A reader marks what it has handed out with it; see FRESH.
    uint32_t data_address;
    char payload[QZLIB_MBUS_SLOT_SIZE - QZLIB_MBUS_SLOT_PAYLOAD];
};

// A writer sets this bit of the data address. Payloads lie at multiples of four, so that a
// fresh packet never bears a reader's mark, wherever the two have attached the segment.
constexpr uint32_t FRESH = 1;

constexpr uint32_t SLOTS = QZLIB_MBUS_RING_SLOTS;

constexpr bool WIDE_ADDRESSES = sizeof(void *) > sizeof(uint32_t);

// Accepted from a peer. In the last slot of the down ring such a payload reaches past the
// segment's nominal size, but not past its last page.
constexpr uint32_t READ_LENGTH_MAX = QZLIB_MBUS_SLOT_SIZE;
constexpr uint32_t SMALLEST_PAGE = 4096;

// Bounds of a wait: how late a packet may be whose signal never came. Where a doorbell is rung, that
// is only one of a writer that was killed just then; the wait may be longer, and past the kernel's
// next tick it is much cheaper, as no timer has to be set for it.
constexpr unsigned WAIT_MIN_MS = 1;
constexpr unsigned WAIT_MAX_MS = 1000;
constexpr unsigned RUNG_WAIT_FACTOR = 16; // 16 ms to 16 s

// The rings of a client segment.
inline Slot *up_slots(char *segment)
{
    return reinterpret_cast<Slot *>(segment);
}
inline Slot *down_slots(char *segment)
{
    return reinterpret_cast<Slot *>(segment + QZLIB_MBUS_RING_SIZE);
}

// The doorbells lie where the formats have nothing: that of a client in the last word after its up
// ring, which no payload reaches, that of the bus server in the reserved word of the last record.
inline Doorbell up_doorbell(mbus_share_segment &share)
{
    return {share.clients[QZLIB_MBUS_CLIENTS - 1].reserved, share.up_cond};
}
inline Doorbell down_doorbell(char *segment, mbus_client &record)
{
    return {*reinterpret_cast<uint32_t *>(segment + QZLIB_MBUS_RING_SIZE - sizeof(uint32_t)),
            record.down_cond};
}

static_assert(__BYTE_ORDER__ == __ORDER_LITTLE_ENDIAN__, "the formats are little-endian");
static_assert(offsetof(Slot, name) == 1 && offsetof(Slot, length) == 68);
static_assert(offsetof(Slot, data_address) == 72 && offsetof(Slot, payload) == QZLIB_MBUS_SLOT_PAYLOAD);
static_assert(sizeof(Slot) == QZLIB_MBUS_SLOT_SIZE && std::is_trivially_copyable_v<Slot>);
static_assert(sizeof(Slot) * SLOTS + 128 == QZLIB_MBUS_RING_SIZE);
static_assert(QZLIB_MBUS_RING_SIZE + sizeof(Slot) * SLOTS == QZLIB_MBUS_SEGMENT_SIZE);
static_assert(QZLIB_MBUS_SEGMENT_SIZE % SMALLEST_PAGE + QZLIB_MBUS_SLOT_PAYLOAD <= SMALLEST_PAGE);

static_assert(offsetof(mbus_pkg, name) == offsetof(Slot, name));
static_assert(offsetof(mbus_pkg, length) == offsetof(Slot, length));
static_assert(offsetof(mbus_pkg, data) == offsetof(Slot, data_address));

static_assert(sizeof(mbus_ctl_msg) == 36 && offsetof(mbus_ctl_msg, name) == 4);
static_assert(sizeof(mbus_seg_handle) == 16 && offsetof(mbus_seg_handle, address) == 4 &&
              offsetof(mbus_seg_handle, up_ring) == 8 && offsetof(mbus_seg_handle, down_ring) == 12);

static_assert(sizeof(mbus_client) == 168);
static_assert(offsetof(mbus_client, server_handle) == 32);
static_assert(offsetof(mbus_client, up_write) == 48 && offsetof(mbus_client, up_read) == 52);
static_assert(offsetof(mbus_client, down_write) == 56 && offsetof(mbus_client, down_read) == 60);
static_assert(offsetof(mbus_client, server_read) == 64 && offsetof(mbus_client, server_offered) == 72);
static_assert(offsetof(mbus_client, client_offered) == 80 && offsetof(mbus_client, client_read) == 88);
static_assert(offsetof(mbus_client, server_dropped) == 96 && offsetof(mbus_client, client_dropped) == 104);
static_assert(offsetof(mbus_client, down_cond) == 112 && offsetof(mbus_client, flags) == 160);
static_assert(offsetof(mbus_client, reserved) == 164);

static_assert(sizeof(mbus_share_segment) == QZLIB_MBUS_SHARE_SIZE);
static_assert(offsetof(mbus_share_segment, clients) == 48 && offsetof(mbus_share_segment, server) == 8448);

} // namespace qz::mbus
