// SPDX-License-Identifier: MIT
#include "base/export.h"
#include "base/text.h"
#include "mbus/bus.h"

#include <algorithm>
#include <cstring>
#include <ctime>
#include <strings.h>
#include <sys/ipc.h>
#include <sys/shm.h>
#include <unistd.h>

QZ_EXPORT void *mbus_share = nullptr;
QZ_EXPORT int mbus_share_memid = -1;

namespace qz::mbus
{

State state;
Attachment *recent_attachment = &state.clients[0];

namespace
{

constexpr int SEGMENT_FLAGS = IPC_CREAT | 0666;
constexpr int LEAVE_PATIENCE_MS = 2000;

int key_of(const char *name)
{
    unsigned sum = 0;
    for (; *name != '\0'; ++name)
        sum += static_cast<unsigned>(static_cast<signed char>(*name));
    return static_cast<int>(sum);
}

void remove_if_unused(int id)
{
    shmid_ds status;
    if (shmctl(id, IPC_STAT, &status) == 0 && status.shm_nattch == 0)
        (void)shmctl(id, IPC_RMID, nullptr); // the other side may have been quicker
}

// Place of a record in the table; beyond the table for any other.
size_t table_index(const mbus_client *record)
{
    const mbus_share_segment *segment = share();
    if (segment == nullptr)
        return QZLIB_MBUS_CLIENTS;
    const auto offset = reinterpret_cast<uintptr_t>(record) - reinterpret_cast<uintptr_t>(segment->clients);
    return offset / sizeof(mbus_client);
}

// The attachment to fill for a record: its present one, else a free one.
Attachment *claim_attachment(mbus_client *record)
{
    const size_t index = table_index(record);
    if (index < QZLIB_MBUS_CLIENTS)
        return &state.clients[index];
    Attachment *free_one = nullptr;
    for (size_t i = QZLIB_MBUS_CLIENTS; i < std::size(state.clients); ++i) {
        if (state.clients[i].record == record)
            return &state.clients[i];
        if (state.clients[i].record == nullptr)
            free_one = &state.clients[i];
    }
    return free_one;
}

uint32_t address_word(const void *address)
{
    return static_cast<uint32_t>(reinterpret_cast<uintptr_t>(address));
}

// Where addresses do not fit, a key of the attachment stands for them.
uint32_t key_word(const Attachment &attachment)
{
    return &attachment == &state.own ? 1 : static_cast<uint32_t>(&attachment - state.clients) + 1;
}

mbus_seg_handle make_handle(int id, const Attachment &attachment, char *base)
{
    if constexpr (WIDE_ADDRESSES)
        return {id, key_word(attachment), 0, 0};
    return {id, address_word(base), address_word(base), address_word(base + QZLIB_MBUS_RING_SIZE)};
}

// The handle is the own one on the client side, else the one in the record.
mbus_seg_handle &handle_of(mbus_client &record, Attachment &attachment)
{
    return &attachment == &state.own ? attachment.handle : record.server_handle;
}

void detach(Attachment &attachment)
{
    if (attachment.base != nullptr)
        (void)shmdt(attachment.base);
    if (attachment.handle.address != 0)
        remove_if_unused(attachment.handle.id);
}

void detach_own()
{
    char *const base = state.own.attached();
    state.own.set_attached(nullptr);
    if (self() != nullptr &&
        state.pid == getpid()) // or else the threads have left already, or are the parent's
        dismiss_users(base);
    Attachment own = state.own;
    own.base = state.is_occupied ? nullptr : base;
    detach(own);
    state.own.handle = {};
}

// Attaches unless that very segment is attached already. The address, for the attachment once it may be used.
char *attach(mbus_client &record, Attachment &attachment, int id)
{
    char *base = attachment.base;
    if (base == nullptr || attachment.handle.id != id) {
        base = static_cast<char *>(shmat(id, nullptr, 0));
        detach(attachment); // of a record that was given another name without being detached
    }
    attachment = {};
    attachment.handed_out = SLOTS;
    attachment.wait_ms = WAIT_MIN_MS;
    attachment.record = &record;
    attachment.handle.id = id;
    if (base != nullptr)
        attachment.handle = make_handle(id, attachment, base);
    handle_of(record, attachment) = attachment.handle;
    return base;
}

void empty_rings(mbus_client &record)
{
    for (uint32_t *index : {&record.up_write, &record.up_read, &record.down_write, &record.down_read})
        store(*index, 0);
}

bool same_name(const mbus_client &record, const char *name)
{
    return strncasecmp(record.name, name, sizeof record.name) == 0 &&
           strnlen(name, sizeof record.name + 1) <= sizeof record.name;
}

bool is_in_use()
{
    return std::any_of(std::begin(state.in_use), std::end(state.in_use), [](const uint32_t &use) {
        const uint32_t era = load(use);
        return era != 0 && era != state.era + 1;
    });
}

Attachment *remember(Attachment *attachment)
{
    __atomic_store_n(&recent_attachment, attachment, __ATOMIC_RELAXED);
    return attachment;
}

} // namespace

// A record is normally found where it lies in the table. A copy of one is found by its
// handle, which counts for nothing unless it is one that this process made.
Attachment *search_attachment(const mbus_client *record)
{
    const size_t index = table_index(record);
    if (index < QZLIB_MBUS_CLIENTS && state.clients[index].record == record)
        return remember(&state.clients[index]);
    for (Attachment &attachment : state.clients) {
        if (attachment.record == nullptr)
            continue;
        if (attachment.record == record ||
            memcmp(&attachment.handle, &record->server_handle, sizeof attachment.handle) == 0)
            return remember(&attachment);
    }
    return nullptr;
}

// The bound is for a caller that is itself such a thread, interrupted by a signal. What it uses stays then.
void dismiss_users(char *base)
{
    if (base != nullptr)
        ring_anyway(down_doorbell(base, *state.own.record));
    store(state.era, (state.era + 1) & INT32_MAX);
    const timespec pause = {0, 1'000'000};
    int left = LEAVE_PATIENCE_MS;
    for (; is_in_use() && left > 0; --left) {
        (void)nanosleep(&pause, nullptr);
        if (base != nullptr) // whatever others have made of the word meanwhile
            wake_waiter(down_doorbell(base, *state.own.record), BELL_SERVED | BELL_ASLEEP, nullptr);
    }
    state.is_occupied = is_in_use();
    if (base != nullptr)
        store(down_doorbell(base, *state.own.record).word, 0);
}

// The record is not looked at: the server may have given it to somebody else by now.
void uninit_own()
{
    MBUS_LOG(QZLIB_LOG_INFO, "remove %s on client", state.own_name);
    detach_own();
}

} // namespace qz::mbus

using namespace qz::mbus;

QZ_EXPORT int qzlib_mbus_name_to_key(const char *name)
{
    return name == nullptr ? -1 : key_of(name);
}

QZ_EXPORT mbus_client *qzlib_find_client_by_name(const char *name)
{
    mbus_share_segment *segment = share();
    if (segment == nullptr || name == nullptr)
        return nullptr;
    for (mbus_client &record : segment->clients)
        if (same_name(record, name))
            return &record;
    return nullptr;
}

// A name whose key is IPC_PRIVATE would get a segment that the other side cannot find.
QZ_EXPORT int qzlib_client_init(mbus_client *client)
{
    if (client == nullptr)
        return -1;
    const bool own_side = client == self();
    const Name name(*client);
    const int key = key_of(name.text());
    Attachment *attachment = own_side ? &state.own : claim_attachment(client);
    const int id = key == IPC_PRIVATE || attachment == nullptr
                       ? -1
                       : shmget(key, QZLIB_MBUS_SEGMENT_SIZE, SEGMENT_FLAGS);
    if (id < 0) {
        MBUS_LOG(QZLIB_LOG_ERROR, "create share mem for %s fail", name.text());
        return -1;
    }
    char *base = attach(*client, *attachment, id);
    if (base == nullptr) {
        MBUS_LOG(QZLIB_LOG_ERROR, "mat share mem for %s fail", name.text());
        return -1;
    }
    if (!is_usable(base))
        base = nullptr;
    if (own_side && strncmp(client->name, name.text(), sizeof client->name) != 0) {
        Attachment other = state.own; // it is not this name's, or not yet again
        other.base = base;
        detach(other);
        state.own = {};
        return -1;
    }
    if (own_side) {
        empty_rings(*client);
        init_condition(client->down_cond);
        if (base != nullptr)
            serve(down_doorbell(base, *client));
    }
    attachment->set_attached(base);
    // "on server" on both sides: tools that read logs know this text.
    MBUS_LOG(QZLIB_LOG_INFO, "create %s on server, memid=%d", name.text(), id);
    return 0;
}

QZ_EXPORT void qzlib_client_uninit(mbus_client *client)
{
    if (client == nullptr)
        return;
    if (client == self()) {
        uninit_own();
        return;
    }
    const Name name(*client);
    MBUS_LOG(QZLIB_LOG_INFO, "remove %s on server", name.text());
    Attachment *attachment = find_attachment(client);
    if (attachment != nullptr) {
        detach(*attachment);
        *attachment = {};
    }
    client->server_handle = {};
}

QZ_EXPORT int qzlib_mbus_share_init(void)
{
    const int id = shmget(QZLIB_MBUS_SHARE_KEY, QZLIB_MBUS_SHARE_SIZE, SEGMENT_FLAGS);
    if (id < 0) // what is attached keeps its id, for whoever removes it
        return -1;
    if (share() != nullptr && mbus_share_memid == id)
        return 0;
    if (share() != nullptr)
        (void)shmdt(mbus_share); // of a bus server that is gone
    mbus_share_memid = id;
    __atomic_store_n(&mbus_share, shmat(id, nullptr, 0), __ATOMIC_RELAXED);
    if (mbus_share == nullptr) {
        MBUS_LOG(QZLIB_LOG_ERROR, "init share mem fail");
        return -1;
    }
    return 0;
}

QZ_EXPORT void qzlib_mbus_share_uninit(void)
{
    if (self() != nullptr) { // the indices go with the table, so the rings are of no more use
        state.table_gone = true;
        detach_own();
    }
    if (const void *table = mbus_share; table != nullptr) {
        __atomic_store_n(&mbus_share, nullptr, __ATOMIC_RELAXED);
        if (!state.is_occupied)
            (void)shmdt(table);
    }
    if (mbus_share_memid >= 0) {
        remove_if_unused(mbus_share_memid);
        mbus_share_memid = -1;
    }
}

QZ_EXPORT int qzlib_client_set_flag(unsigned flags)
{
    mbus_client *own = self();
    if (own == nullptr || state.table_gone)
        return -1;
    own->flags |= flags;
    return 0;
}

QZ_EXPORT int qzlib_client_clear_flag(unsigned flags)
{
    mbus_client *own = self();
    if (own == nullptr || state.table_gone)
        return -1;
    own->flags &= ~flags;
    return 0;
}
