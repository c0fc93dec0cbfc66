// SPDX-License-Identifier: MIT
// What the bus files share: this process's own state.
#pragma once

#include "mbus/format.h"
#include "mbus/patience.h"

#include <cstring>

#define MBUS_LOG(level, ...) debug_msg(level, "mbus_api", __LINE__, __VA_ARGS__)

#pragma GCC visibility push(hidden)

namespace qz::mbus
{

// This process's attachment of a client segment: of its own as a client, or of one of the
// clients as bus server. The addresses used are always these, never those in shared memory.
struct Attachment {
    mbus_client *record;    // whom it belongs to
    char *base;             // null: not attached
    mbus_seg_handle handle; // what stands for it in the record, or in the own handle
    uint32_t handed_out;    // slot that was handed out last; SLOTS for none
    unsigned wait_ms;       // bound of the next wait, own attachment only
    RingMemory rung;        // of the doorbell that this side rings
    mbus_pkg header;        // handed out in place of the slot where addresses are wide

    // Detaching by another thread shows here first, see Presence; attaching last.
    [[nodiscard]] QZ_ORDERED char *attached() const { return __atomic_load_n(&base, __ATOMIC_SEQ_CST); }
    QZ_ORDERED void set_attached(char *at) { __atomic_store_n(&base, at, __ATOMIC_SEQ_CST); }
};

constexpr size_t OUTSIDE_RECORDS = 14; // a server may keep records of its own, too

// What a thread uses the shared memory for: one thread at a time for each.
enum Use { READING, WRITING, WRITING_RUN, CACHING, USES };

// Everything that the bus keeps in this process, but for the down cache.
struct State {
    // The own record; null when not connected. Changed by connect and disconnect only.
    mbus_client *self;
    uint32_t in_use[USES]; // each 0 or the era in which its thread came, see Presence
    uint32_t era;          // below that of the next thread by 1: how often threads were dismissed
    bool is_occupied;      // some did not leave: the memory that they use stays attached
    pid_t pid;             // the process that connected
    bool table_gone;       // the table was detached under the own record
    Patience patience;
    Attachment own;
    char own_name[QZLIB_MBUS_NAME_SIZE + 1];
    // The server side: one for each table record, in the table's order, then any others.
    Attachment clients[QZLIB_MBUS_CLIENTS + OUTSIDE_RECORDS];
};
extern State state; // zero at first, which takes no room in the image

// The client attachment that was used last, never null; rings may be used by several threads.
extern Attachment *recent_attachment;

QZ_ORDERED mbus_client *self()
{
    return __atomic_load_n(&state.self, __ATOMIC_SEQ_CST);
}

QZ_ORDERED void set_self(mbus_client *record)
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

// Makes the threads leave that use the own segment, which is attached at base (null: nowhere).
void dismiss_users(char *base);

// qzlib_client_uninit() of the own record.
void uninit_own();

// Blocks until the process is connected. At once when it is.
void wait_connected();

// While one exists, disconnecting waits: its thread is using the shared memory. There is one thread at a time
// for each use. A thread says that it is there, then looks whether the process is connected; whoever
// disconnects says so, then looks for such threads: all in one order, so that one of them sees the other.
// A thread of the era that begins then has seen it, and is not waited for.
class Presence
{
public:
    explicit Presence(Use use) : use_(state.in_use[use])
    {
        base::store(use_, __atomic_load_n(&state.era, __ATOMIC_ACQUIRE) + 1);
    }
    ~Presence() { base::store_release(use_, 0); }
    Presence(const Presence &) = delete;
    Presence &operator=(const Presence &) = delete;

private:
    uint32_t &use_;
};

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

#pragma GCC visibility pop
