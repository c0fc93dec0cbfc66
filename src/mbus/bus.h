// What the bus files share: the formats in shared memory and this process's own state.
#pragma once

#include "mbus/condition.h"

#include <cstddef>
#include <cstdint>
#include <cstring>
#include <qzlib.h>
#include <type_traits>

#define MBUS_LOG(level, ...) debug_msg(level, "mbus_api", __LINE__, __VA_ARGS__)

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

// Accepted from a peer. In the last slot of the down ring such a payload reaches past the
// segment's nominal size, but not past its last page.
constexpr uint32_t READ_LENGTH_MAX = QZLIB_MBUS_SLOT_SIZE;
constexpr uint32_t SMALLEST_PAGE = 4096;

// Bounds of a wait: how late a packet may be whose signal never came.
constexpr unsigned WAIT_MIN_MS = 1;
constexpr unsigned WAIT_MAX_MS = 1000;

constexpr bool WIDE_ADDRESSES = sizeof(void *) > sizeof(uint32_t);

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

// What a reader has learnt about giving the processor away before it sleeps.
struct Patience {
    unsigned direct_sleeps;  // waits that are not to give it away
    unsigned waits_unpolled; // waits that are to give it away only once
    unsigned backoff;        // how many those were to be last
};

// This process's attachment of a client segment: of its own as a client, or of one of the
// clients as bus server. The addresses used are always these, never those in shared memory.
struct Attachment {
    mbus_client *record;    // whom it belongs to
    char *base;             // null: not attached
    mbus_seg_handle handle; // what stands for it in the record, or in the own handle
    uint32_t handed_out;    // slot that was handed out last; SLOTS for none
    unsigned wait_ms;       // bound of the next wait, own attachment only
    SignalMemory signals;   // of the condition that this side signals
    mbus_pkg header;        // handed out in place of the slot where addresses are wide

    [[nodiscard]] Slot *up_ring() const { return reinterpret_cast<Slot *>(base); }
    [[nodiscard]] Slot *down_ring() const { return reinterpret_cast<Slot *>(base + QZLIB_MBUS_RING_SIZE); }
};

constexpr size_t OUTSIDE_RECORDS = 14; // a server may keep records of its own, too

// What a thread uses the shared memory for: one thread at a time for each.
enum Use { READING, WRITING, WRITING_RUN, CACHING, USES };

// Everything that the bus keeps in this process, but for the down cache.
struct State {
    // The own record; null when not connected. Changed by connect and disconnect only.
    mbus_client *self;
    uint32_t in_use[USES]; // each 1 or 0, see Presence
    pid_t pid;             // the process that connected
    bool table_gone;       // the table was detached under the own record
    Patience patience;
    Attachment own;
    char own_name[QZLIB_MBUS_NAME_SIZE + 1];
    // The server side: one for each table record, in the table's order, then any others.
    Attachment clients[QZLIB_MBUS_CLIENTS + OUTSIDE_RECORDS];
};
extern State state; // zero at first, which takes no room in the image

// Of the clients' attachments the one used last; rings may be used by several threads. Beside the
// state, as it is never null. Said to be hidden here, it costs a packet one instruction, not two.
[[gnu::visibility("hidden")]] extern Attachment *recent_attachment;

inline mbus_client *self()
{
    return __atomic_load_n(&state.self, __ATOMIC_SEQ_CST);
}

inline void set_self(mbus_client *record)
{
    __atomic_store_n(&state.self, record, __ATOMIC_SEQ_CST);
}

// shmat() reports failure with -1, which attachments are deliberately not tested for where
// the result is decided, but nothing is ever read there.
inline bool is_usable(const void *address)
{
    return reinterpret_cast<uintptr_t>(address) + 1 > 1;
}

// The attached share segment, or null.
inline mbus_share_segment *share()
{
    void *address = __atomic_load_n(&mbus_share, __ATOMIC_RELAXED);
    return is_usable(address) ? static_cast<mbus_share_segment *>(address) : nullptr;
}

// The server side's attachment for a record, or null.
Attachment *search_attachment(const mbus_client *record);
inline Attachment *find_attachment(const mbus_client *record)
{
    Attachment *recent = __atomic_load_n(&recent_attachment, __ATOMIC_RELAXED);
    return recent->record == record ? recent : search_attachment(record);
}

// A record's name, terminated and safe from a peer that changes it meanwhile.
class Name
{
public:
    explicit Name(const mbus_client &record)
    {
        memcpy(text_, record.name, sizeof record.name);
        text_[sizeof record.name] = '\0';
    }
    [[nodiscard]] const char *text() const { return text_; }

private:
    char text_[QZLIB_MBUS_NAME_SIZE + 1];
};

// qzlib_client_uninit() of the own record.
void uninit_own();

// Blocks until the process is connected. At once when it is.
void wait_connected();

// While one exists, disconnecting waits: its thread is using the shared memory. A plain store
// tells, as there is one thread at a time for each use. It may still be on its way when this thread
// looks whether the process is connected, hence the pause in wait_absence().
class Presence
{
public:
    explicit Presence(Use use) : use_(state.in_use[use])
    {
        __atomic_store_n(&use_, 1, __ATOMIC_RELAXED);
        __atomic_signal_fence(__ATOMIC_SEQ_CST);
    }
    ~Presence() { __atomic_store_n(&use_, 0, __ATOMIC_RELEASE); }
    Presence(const Presence &) = delete;
    Presence &operator=(const Presence &) = delete;

private:
    uint32_t &use_;
};

// Waits until no thread uses the shared memory.
void wait_absence();

// True, once, in a child of fork(), which has its parent's connection and its locks, perhaps held,
// but not its threads: the locks are made new.
bool is_new_process();

// For a child of fork(): nobody holds the down cache's locks, and nothing is in it.
void renew_down_cache();

// The payload of a header that a read handed out. Where the header is the slot itself its
// data field lies in shared memory and is not believed.
inline const char *payload_of(const mbus_pkg &pkg)
{
    if constexpr (WIDE_ADDRESSES)
        return static_cast<const char *>(pkg.data);
    return reinterpret_cast<const char *>(&pkg) + QZLIB_MBUS_SLOT_PAYLOAD;
}

} // namespace qz::mbus
