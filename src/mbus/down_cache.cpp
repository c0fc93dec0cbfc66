// SPDX-License-Identifier: MIT
#include "base/export.h"
#include "base/lock.h"
#include "base/text.h"
#include "base/thread.h"
#include "mbus/bus.h"
#include "mbus/ring.h"

#include <cstdlib>
#include <cstring>
#include <unistd.h>

namespace
{

using qz::base::Lock;
using namespace qz::mbus;

// What a packet needs to fit under the cap, what it is charged, and what it takes from the heap: 83 and 87
// are the same on 32 and 64 bits, and daemons choose their caps by them.
constexpr uint32_t ADMISSION_EXTRA = 87;
constexpr uint32_t CHARGE_EXTRA = 83;
constexpr uint32_t DEFAULT_CAP = 8388608;
constexpr int SMALLEST_CAP = 4097;

// A cached packet. It lies after its payload, which thus starts where the heap block does,
// aligned for whatever the callback takes it for; hence packed.
struct [[gnu::packed]] Node {
    Node *next;
    Node *previous;
    uint32_t length;
    uint8_t type;
    char name[QZLIB_MBUS_PKG_NAME_SIZE];

    [[nodiscard]] char *payload() { return reinterpret_cast<char *>(this) - length; }
};
static_assert(sizeof(Node) <= ADMISSION_EXTRA);

// The list is changed and waited for under its mutex, so that no wake-up is lost. The count
// is changed by the reader and by the delivery thread without it.
pthread_mutex_t list_mutex = PTHREAD_MUTEX_INITIALIZER;
pthread_cond_t delivery = PTHREAD_COND_INITIALIZER;
Node head = {&head, &head, 0, 0, {}}; // of a circular list; empty when it points to itself
uint32_t cap_bytes = 0;
uint32_t used_bytes = 0;

// One reader of the ring at a time, should the cache be started twice.
pthread_mutex_t reader_mutex = PTHREAD_MUTEX_INITIALIZER;

void append(Node *node)
{
    const Lock lock(list_mutex);
    node->next = &head;
    node->previous = head.previous;
    head.previous->next = node;
    head.previous = node;
}

Node *take_first()
{
    const Lock lock(list_mutex);
    while (head.next == &head)
        pthread_cond_wait(&delivery, &list_mutex);
    Node *node = head.next;
    head.next = node->next;
    node->next->previous = &head;
    return node;
}

bool is_admitted(uint32_t length)
{
    return __atomic_load_n(&cap_bytes, __ATOMIC_RELAXED) >=
           __atomic_load_n(&used_bytes, __ATOMIC_RELAXED) + ADMISSION_EXTRA + length;
}

Node *make_node(const mbus_pkg &pkg, uint8_t type, uint32_t length)
{
    auto *block = static_cast<char *>(malloc(length + ADMISSION_EXTRA));
    if (block == nullptr) {
        MBUS_LOG(QZLIB_LOG_ERROR, "no memory, malloc size:%d", static_cast<int>(length + ADMISSION_EXTRA));
        return nullptr;
    }
    memcpy(block, payload_of(pkg), length);
    auto *node = reinterpret_cast<Node *>(block + length);
    node->length = length;
    node->type = type;
    qz::base::fill_field(node->name, pkg.name);
    return node;
}

void cache(const mbus_pkg &pkg)
{
    const uint8_t type = load_relaxed(pkg.type);
    const uint32_t length = load_relaxed(pkg.length);
    if (type >= TYPES || length > READ_LENGTH_MAX)
        return; // changed in the ring after it was checked
    if (!is_admitted(length)) {
        MBUS_LOG(QZLIB_LOG_WARNING, "%s down_cache is full, drop %dbytes", state.own_name,
                 static_cast<int>(length));
        return;
    }
    Node *node = make_node(pkg, type, length);
    if (node == nullptr)
        return;
    append(node);
    qz::base::add(used_bytes, CHARGE_EXTRA + length);
    pthread_cond_signal(&delivery);
}

// Waits for a packet. False when there is no ring to wait on: the process is connected, but
// the system refused it the segment.
bool read_once()
{
    const Lock lock(reader_mutex);
    const Presence presence(CACHING);
    const mbus_pkg *pkg = qzlib_mbus_read_pkg(nullptr, 0);
    if (pkg != nullptr)
        cache(*pkg);
    return self() == nullptr || state.own.attached() != nullptr;
}

void *down_cache_reader(void * /*unused*/)
{
    for (;;) {
        wait_connected();
        if (!read_once())
            sleep(1);
    }
    return nullptr;
}

void *down_cache_deliver(void *argument)
{
    const auto callback = reinterpret_cast<mbus_pkg_callback>(argument);
    for (;;) {
        Node *node = take_first();
        const uint32_t length = node->length;
        if (callback != nullptr)
            (void)callback(node->type, node->name, node->payload(), length);
        free(node->payload());
        qz::base::add(used_bytes, -(CHARGE_EXTRA + length));
    }
    return nullptr;
}

} // namespace

void qz::mbus::renew_down_cache()
{
    list_mutex = PTHREAD_MUTEX_INITIALIZER;
    delivery = PTHREAD_COND_INITIALIZER;
    reader_mutex = PTHREAD_MUTEX_INITIALIZER;
    head.next = head.previous = &head;
    used_bytes = 0;
}

QZ_EXPORT int qzlib_mbus_down_cache_process(int max_bytes, mbus_pkg_callback callback)
{
    if (self() == nullptr)
        return -1;
    (void)is_new_process();
    const uint32_t cap = max_bytes < SMALLEST_CAP ? DEFAULT_CAP : static_cast<uint32_t>(max_bytes);
    __atomic_store_n(&cap_bytes, cap, __ATOMIC_RELAXED);
    pthread_t thread; // neither is joined
    (void)qz::base::start_thread(thread, down_cache_reader, nullptr);
    // With the caller's signal mask: the callback may start programs, which inherit it.
    (void)pthread_create(&thread, nullptr, down_cache_deliver, reinterpret_cast<void *>(callback));
    return 0;
}
