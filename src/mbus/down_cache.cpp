#include "base/export.h"
#include "base/text.h"
#include "mbus/bus.h"

#include <csignal>
#include <cstdlib>
#include <cstring>
#include <unistd.h>

namespace
{

using namespace qz::mbus;

// What a packet must fit into the cap with, what it is charged, and what is asked of the
// heap for it: 83 and 87 are the same on 32 and 64 bits, and daemons size their caps by them.
constexpr uint32_t ADMISSION_EXTRA = 87;
constexpr uint32_t CHARGE_EXTRA = 83;
constexpr uint32_t DEFAULT_CAP = 8388608;
constexpr int SMALLEST_CAP = 4097;

// A cached packet. It lies behind its payload, which thus starts where the heap block does,
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

class Lock
{
public:
    explicit Lock(pthread_mutex_t &mutex) : mutex_(mutex) { pthread_mutex_lock(&mutex_); }
    ~Lock() { pthread_mutex_unlock(&mutex_); }
    Lock(const Lock &) = delete;
    Lock &operator=(const Lock &) = delete;

private:
    pthread_mutex_t &mutex_;
};

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

Node *make_node(const mbus_pkg &pkg, uint32_t length)
{
    auto *block = static_cast<char *>(malloc(length + ADMISSION_EXTRA));
    if (block == nullptr) {
        MBUS_LOG(QZLIB_LOG_ERROR, "no memory, malloc size:%d", static_cast<int>(length + ADMISSION_EXTRA));
        return nullptr;
    }
    memcpy(block, payload_of(pkg), length);
    auto *node = reinterpret_cast<Node *>(block + length);
    node->length = length;
    node->type = pkg.type;
    qz::base::fill_field(node->name, pkg.name);
    return node;
}

void cache(const mbus_pkg &pkg)
{
    const uint32_t length = __atomic_load_n(&pkg.length, __ATOMIC_RELAXED);
    if (length > READ_LENGTH_MAX)
        return; // changed in the ring after it was checked
    if (!is_admitted(length)) {
        MBUS_LOG(QZLIB_LOG_WARNING, "%s down_cache is full, drop %dbytes", state.own_name,
                 static_cast<int>(length));
        return;
    }
    Node *node = make_node(pkg, length);
    if (node == nullptr)
        return;
    append(node);
    __atomic_fetch_add(&used_bytes, CHARGE_EXTRA + length, __ATOMIC_RELAXED);
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
    return self() == nullptr || state.own.base != nullptr;
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
        __atomic_fetch_sub(&used_bytes, CHARGE_EXTRA + length, __ATOMIC_RELAXED);
    }
    return nullptr;
}

// A thread that is never joined.
void start(void *(*run)(void *), void *argument)
{
    pthread_t thread;
    (void)pthread_create(&thread, nullptr, run, argument);
}

// The process's signals stay with its own threads.
void start_reader()
{
    sigset_t all;
    sigset_t before;
    sigfillset(&all);
    pthread_sigmask(SIG_SETMASK, &all, &before);
    start(down_cache_reader, nullptr);
    pthread_sigmask(SIG_SETMASK, &before, nullptr);
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
    start_reader();
    // With the caller's signal mask: the callback may start programs, which inherit it.
    start(down_cache_deliver, reinterpret_cast<void *>(callback));
    return 0;
}
