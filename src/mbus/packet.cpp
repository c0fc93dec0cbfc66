// SPDX-License-Identifier: MIT
#include "base/export.h"
#include "base/text.h"
#include "mbus/bus.h"
#include "mbus/ring.h"

#include <algorithm>
#include <cstring>

namespace qz::mbus
{
namespace
{

// Keeps code that few packets need out of the packet path.
#define ASIDE [[gnu::noinline]]

ASIDE int drop(const mbus_client &client, Doorbell bell, uint64_t &dropped, uint32_t length)
{
    ring_anyway(bell);
    dropped += length;
    MBUS_LOG(QZLIB_LOG_DEBUG, "mbus write drop, name:%.32s, size:%d", client.name, static_cast<int>(length));
    return -1;
}

ASIDE int fail(const mbus_client &client)
{
    // The read text on writing, too, deliberately.
    MBUS_LOG(QZLIB_LOG_WARNING, "mbus read fail, name:%.32s",
             &client == state.own.record ? state.own_name : client.name); // it may be gone by now
    return -1;
}

int write_up(mbus_client &client, const Outgoing &packet)
{
    const Presence presence(WRITING);
    if (self() != &client)
        return -1;
    mbus_share_segment *segment = share();
    char *const base = state.own.attached();
    if (segment == nullptr || base == nullptr)
        return fail(client);
    client.client_offered += packet.length;
    if (!put<Side::CLIENT>({up_slots(base), client.up_write, client.up_read}, packet))
        return drop(client, up_doorbell(*segment), client.client_dropped, packet.length);
    ring(up_doorbell(*segment), state.own.rung);
    return 0;
}

int write_down(mbus_client &client, const Outgoing &packet)
{
    Attachment *attachment = find_attachment(&client);
    if (attachment == nullptr || attachment->base == nullptr)
        return fail(client);
    client.server_offered += packet.length;
    const Doorbell bell = down_doorbell(attachment->base, client);
    if (!put<Side::SERVER>({down_slots(attachment->base), client.down_write, client.down_read}, packet))
        return drop(client, bell, client.server_dropped, packet.length);
    ring(bell, attachment->rung);
    return 0;
}

// Gives back the slot that the previous read handed out, and finds the next; SLOTS when the
// ring is empty. The mark alone would not do: a writer on older rules that has the segment at
// the reader's address leaves the same one.
PACKET_PATH uint32_t next_slot(const Ring &ring, Attachment &attachment)
{
    uint32_t at = load_index(ring.read);
    const uint32_t end = load_index(ring.write);
    if (at != end && at == attachment.handed_out &&
        load_relaxed(ring.slots[at].data_address) == mark_of(ring.slots[at])) {
        at = following(at);
        base::store_release(ring.read, at);
    }
    if (at != end)
        return at;
    attachment.handed_out = SLOTS; // a mark that is found later is a plain writer's
    return SLOTS;
}

PACKET_PATH mbus_pkg *hand_out(Slot &slot, Attachment &attachment, uint8_t type, uint32_t length)
{
    if constexpr (!WIDE_ADDRESSES)
        return reinterpret_cast<mbus_pkg *>(&slot);
    attachment.header.type = type;
    memcpy(attachment.header.name, slot.name, sizeof slot.name);
    attachment.header.length = length;
    attachment.header.data = slot.payload;
    return &attachment.header;
}

// Its arguments are what the packet path has in registers anyway.
ASIDE mbus_pkg *skip(Slot &slot, uint32_t &read, uint32_t at, const mbus_client &client, uint8_t type,
                     uint32_t length)
{
    MBUS_LOG(QZLIB_LOG_WARNING, "mbus read fail, name:%.32s, type:%d, len:%d", client.name, type,
             static_cast<int>(length));
    __atomic_store_n(&slot.data_address, 0, __ATOMIC_RELAXED);
    base::store_release(read, following(at));
    return nullptr;
}

// Type and length are looked at once: what was checked is what counts. The next slot is
// fetched meanwhile, to be read and to be marked.
PACKET_PATH mbus_pkg *take(const Ring &ring, uint32_t at, Attachment &attachment, const mbus_client &client,
                           uint64_t &bytes_read)
{
    Slot &slot = ring.slots[at];
    __builtin_prefetch(&slot + 1);
    __builtin_prefetch(&(&slot + 1)->length, 1);
    const uint8_t type = load_relaxed(slot.type);
    const uint32_t length = load_relaxed(slot.length);
    if (type >= TYPES || length < 1 || length > READ_LENGTH_MAX) {
        attachment.handed_out = SLOTS;
        return skip(slot, ring.read, at, client, type, length);
    }
    __atomic_store_n(&slot.data_address, mark_of(slot), __ATOMIC_RELAXED);
    attachment.handed_out = at;
    bytes_read += length;
    return hand_out(slot, attachment, type, length);
}

// Whether the bus server knows doorbells. It writes this process's ring alone.
bool is_server_plain()
{
    mbus_share_segment *segment = share();
    return segment == nullptr || !is_served(up_doorbell(*segment).word);
}

// False when the process disconnects or detaches.
bool wait_packet(const Ring &ring, mbus_client &client, Attachment &own)
{
    char *const base = reinterpret_cast<char *>(ring.slots) - QZLIB_MBUS_RING_SIZE;
    const auto is_connected = [&] { return self() == &client && own.attached() == base; };
    let_writers_run(state.patience, [&ring] { return !is_empty(ring); });
    while (is_empty(ring)) {
        const bool plain = is_server_plain();
        bool woken = true;
        {
            Wait wait(down_doorbell(base, client), plain);
            if (is_empty(ring) && is_connected())
                woken = wait.sleep(plain ? own.wait_ms : own.wait_ms * RUNG_WAIT_FACTOR);
        }
        if (!is_connected())
            return false;
        if (!woken)
            own.wait_ms = std::min(own.wait_ms * 2, WAIT_MAX_MS);
    }
    own.wait_ms = WAIT_MIN_MS;
    return true;
}

ASIDE mbus_pkg *wait_and_take(const Ring &ring, mbus_client &client, Attachment &own)
{
    if (!wait_packet(ring, client, own))
        return nullptr;
    return take(ring, load_index(ring.read), own, client, client.client_read);
}

ASIDE mbus_pkg *refuse_read(const mbus_client &client)
{
    (void)fail(client);
    return nullptr;
}

mbus_pkg *read_down(mbus_client &client, bool nowait)
{
    Attachment &own = state.own;
    char *const base = own.attached();
    if (base == nullptr)
        return refuse_read(client);
    const Ring ring = {down_slots(base), client.down_write, client.down_read};
    const uint32_t at = next_slot(ring, own);
    if (at != SLOTS)
        return take(ring, at, own, client, client.client_read);
    return nowait ? nullptr : wait_and_take(ring, client, own);
}

mbus_pkg *read_up(mbus_client &client, bool nowait)
{
    Attachment *attachment = find_attachment(&client);
    if (!nowait || attachment == nullptr || attachment->base == nullptr)
        return refuse_read(client);
    const Ring ring = {up_slots(attachment->base), client.up_write, client.up_read};
    const uint32_t at = next_slot(ring, *attachment);
    return at == SLOTS ? nullptr : take(ring, at, *attachment, client, client.server_read);
}

} // namespace
} // namespace qz::mbus

using namespace qz::mbus;

QZ_EXPORT int qzlib_mbus_write_pkg(mbus_client *client, const mbus_pkg *pkg)
{
    if (client == nullptr || pkg == nullptr)
        return -1;
    const Outgoing packet(*pkg);
    if (!packet.is_valid())
        return -1;
    return client == self() ? write_up(*client, packet) : write_down(*client, packet);
}

QZ_EXPORT int qzlib_mbus_write(mbus_client *client, int type, const char *name, const void *data, int len)
{
    const Presence presence(WRITING_RUN); // no disconnecting between two packets
    if (client == nullptr)
        client = self();
    if (client == nullptr)
        return -1;
    mbus_pkg pkg = {};
    pkg.type = type >= 0 && type < TYPES ? static_cast<uint8_t>(type) : TYPES; // which is refused below
    if (name != nullptr)
        memcpy(pkg.name, name, strnlen(name, sizeof pkg.name));
    pkg.data = const_cast<void *>(data);
    int written = 0;
    while (written < len) {
        pkg.length = static_cast<uint32_t>(std::min<int>(len - written, QZLIB_MBUS_PAYLOAD_MAX));
        if (qzlib_mbus_write_pkg(client, &pkg) != 0)
            break;
        written += static_cast<int>(pkg.length);
        pkg.data = static_cast<char *>(pkg.data) + pkg.length;
    }
    return written;
}

QZ_EXPORT int qzlib_mbus_write_data(const void *data, int len)
{
    return qzlib_mbus_write(nullptr, 0, nullptr, data, len);
}

QZ_EXPORT mbus_pkg *qzlib_mbus_read_pkg(mbus_client *client, int nowait)
{
    if (client != nullptr && client != __atomic_load_n(&state.self, __ATOMIC_RELAXED))
        return read_up(*client, nowait != 0);
    const Presence presence(READING);
    mbus_client *own = self();
    if (own == nullptr && client == nullptr)
        return nullptr;
    if (client != nullptr && client != own) // it was a moment ago
        return refuse_read(*client);
    return read_down(*own, nowait != 0);
}
