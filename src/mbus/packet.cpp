#include "base/export.h"
#include "base/text.h"
#include "mbus/bus.h"

#include <algorithm>
#include <cstring>
#include <ctime>
#include <sched.h>

namespace qz::mbus
{
namespace
{

constexpr uint8_t TYPES = 4;
constexpr uint32_t YIELD_PATIENCE_US = 1000;
constexpr unsigned DIRECT_SLEEPS = 500;
constexpr uint32_t POLL_US = 50; // about what a sleep and a wake-up cost
constexpr unsigned BACKOFF_MAX = 511;

// What every packet goes through is kept in one piece, and what few go through out of it.
#define PACKET_PATH [[gnu::always_inline]] inline
#define ASIDE [[gnu::noinline]]

// The end of a ring that this process works on. The indices lie in shared memory; one of
// them is moved by this process alone, both may hold anything.
struct Ring {
    Slot *slots;
    uint32_t &write;
    uint32_t &read;
};

// Acquires what the peer published with the index.
uint32_t load_index(const uint32_t &index)
{
    return __atomic_load_n(&index, __ATOMIC_ACQUIRE) % SLOTS;
}

template <typename Integer>
Integer load_relaxed(const Integer &field)
{
    return __atomic_load_n(&field, __ATOMIC_RELAXED);
}

uint32_t following(uint32_t slot)
{
    return (slot + 1) % SLOTS;
}

enum class Side { CLIENT, SERVER };

// Sequentially consistent against begin_wait(): either the sleeper sees the packet or the
// writer sees the sleeper. False when the server's index moved meanwhile: a client that connects
// anew has emptied the ring, and what lies before this packet is old.
template <Side SIDE>
bool publish(uint32_t &index, uint32_t before, uint32_t slot)
{
    if constexpr (SIDE == Side::SERVER)
        return __atomic_compare_exchange_n(&index, &before, slot, false, __ATOMIC_SEQ_CST, __ATOMIC_RELAXED);
    __atomic_store_n(&index, slot, __ATOMIC_SEQ_CST);
    return true;
}

bool is_empty(const Ring &ring)
{
    return __atomic_load_n(&ring.write, __ATOMIC_SEQ_CST) % SLOTS == load_index(ring.read);
}

uint32_t mark_of(const Slot &slot)
{
    return static_cast<uint32_t>(reinterpret_cast<uintptr_t>(slot.payload));
}

// The bounded copy of a name, in words: all of the packet path's own work is here. Zero
// bytes are found with the usual trick; the lowest one found is a true one.
void copy_name(char (&to)[QZLIB_MBUS_PKG_NAME_SIZE], const char (&from)[QZLIB_MBUS_PKG_NAME_SIZE])
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

ASIDE int drop(const mbus_client &client, pthread_cond_t &condition, uint64_t &dropped, uint32_t length)
{
    force_condition(condition);
    dropped += length;
    MBUS_LOG(QZLIB_LOG_DEBUG, "mbus write drop, name:%.32s, size:%d", client.name, static_cast<int>(length));
    return -1;
}

ASIDE int fail(const mbus_client &client)
{
    // The read text on writing, too, deliberately.
    MBUS_LOG(QZLIB_LOG_WARNING, "mbus read fail, name:%.32s",
             &client == self() ? state.own_name : client.name);
    return -1;
}

int write_up(mbus_client &client, const Outgoing &packet)
{
    const Presence presence(WRITING);
    if (self() != &client)
        return -1;
    mbus_share_segment *segment = share();
    Attachment &own = state.own;
    if (segment == nullptr || own.base == nullptr)
        return fail(client);
    client.client_offered += packet.length;
    if (!put<Side::CLIENT>({own.up_ring(), client.up_write, client.up_read}, packet))
        return drop(client, segment->up_cond, client.client_dropped, packet.length);
    signal_condition(segment->up_cond, own.signals);
    return 0;
}

int write_down(mbus_client &client, const Outgoing &packet)
{
    Attachment *attachment = find_attachment(&client);
    if (attachment == nullptr || attachment->base == nullptr)
        return fail(client);
    client.server_offered += packet.length;
    if (!put<Side::SERVER>({attachment->down_ring(), client.down_write, client.down_read}, packet))
        return drop(client, client.down_cond, client.server_dropped, packet.length);
    signal_condition(client.down_cond, attachment->signals);
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
        __atomic_store_n(&ring.read, at, __ATOMIC_RELEASE);
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
    __atomic_store_n(&read, following(at), __ATOMIC_RELEASE);
    return nullptr;
}

// Type and length are looked at once: what was checked is what counts. The slot behind is
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

uint32_t monotonic_us()
{
    timespec now;
    clock_gettime(CLOCK_MONOTONIC, &now);
    return static_cast<uint32_t>(now.tv_sec) * 1'000'000 + static_cast<uint32_t>(now.tv_nsec / 1000);
}

// Where the writer has a processor of its own its answer is often on the way, and waiting for
// it is cheaper for both than a sleep and a wake-up. Every time in vain makes the next rarer,
// so that a reader with little to do spends nothing.
void await_answer(const Ring &ring, Patience &patience)
{
    if (patience.waits_unpolled > 0) {
        --patience.waits_unpolled;
        return;
    }
    const uint32_t start = monotonic_us();
    do {
        sched_yield();
        if (!is_empty(ring)) {
            patience.backoff = 0;
            return;
        }
    } while (monotonic_us() - start < POLL_US);
    patience.backoff = std::min(patience.backoff * 2 + 1, BACKOFF_MAX);
    patience.waits_unpolled = patience.backoff;
}

// Gives the processor away before sleeping: on one core the writer then fills the ring, and
// nobody has to be woken. That is good only while the processor soon comes back. Where others
// compute, a sleeper that is woken gets it sooner than one who gave it away.
void let_writer_run(const Ring &ring, Patience &patience)
{
    if (patience.direct_sleeps > 0) {
        --patience.direct_sleeps;
        return;
    }
    const uint32_t start = monotonic_us();
    sched_yield();
    if (monotonic_us() - start > YIELD_PATIENCE_US)
        patience.direct_sleeps = DIRECT_SLEEPS;
    else if (is_empty(ring))
        await_answer(ring, patience);
}

// False when the process disconnects.
bool wait_packet(const Ring &ring, mbus_client &client, Attachment &own)
{
    let_writer_run(ring, state.patience);
    while (is_empty(ring)) {
        const uint32_t ticket = begin_wait(client.down_cond);
        bool woken = true;
        if (is_empty(ring) && self() == &client)
            woken = wait_condition(client.down_cond, ticket, own.wait_ms);
        end_wait(client.down_cond);
        if (self() != &client)
            return false;
        if (!woken)
            own.wait_ms = std::min(own.wait_ms * 2, WAIT_MAX_MS);
    }
    own.wait_ms = WAIT_MIN_MS;
    return true;
}

ASIDE mbus_pkg *wait_and_take(mbus_client &client, Attachment &own)
{
    const Ring ring = {own.down_ring(), client.down_write, client.down_read};
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
    if (own.base == nullptr)
        return refuse_read(client);
    const Ring ring = {own.down_ring(), client.down_write, client.down_read};
    const uint32_t at = next_slot(ring, own);
    if (at != SLOTS)
        return take(ring, at, own, client, client.client_read);
    return nowait ? nullptr : wait_and_take(client, own);
}

mbus_pkg *read_up(mbus_client &client, bool nowait)
{
    Attachment *attachment = find_attachment(&client);
    if (!nowait || attachment == nullptr || attachment->base == nullptr)
        return refuse_read(client);
    const Ring ring = {attachment->up_ring(), client.up_write, client.up_read};
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
    const Presence presence(WRITING_RUN);
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
    const Presence presence(READING);
    mbus_client *own = self();
    if (client == nullptr)
        client = own;
    if (client == nullptr)
        return nullptr;
    return client == own ? read_down(*client, nowait != 0) : read_up(*client, nowait != 0);
}
