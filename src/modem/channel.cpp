// SPDX-License-Identifier: MIT
// The local message channel: a broadcast between the router's daemons over the kernel's
// netlink user sockets. Every participant sends to the same groups; a process that wants to
// receive has a thread that picks out what is addressed to it.
//
// Two sockets where the process receives: the kernel never hands a multicast back to the
// socket that sent it, and a process does get its own messages.
#include "base/atomic.h"
#include "base/export.h"
#include "base/owners.h"
#include "base/text.h"
#include "base/thread.h"

#include <algorithm>
#include <array>
#include <cstddef>
#include <dlfcn.h>
#include <linux/netlink.h>
#include <pthread.h>
#include <qzlib.h>
#include <sys/socket.h>

#if __has_include(<gnu/lib-names.h>)
#include <gnu/lib-names.h>
#endif

namespace
{

using qz::base::CancellationHold;
using qz::base::UniqueFd;

constexpr uint32_t MESSAGE_MAGIC = 0x515A4D53; // "QZMS", the most significant byte first
constexpr uint32_t GROUPS = 5;                 // groups 1 and 3
constexpr uint32_t FIRST_FREE_TYPE = 16;       // netlink keeps the types below to itself
constexpr size_t BUFFER_SIZE = 4096;
constexpr size_t RECORD_SIZE = 144;
constexpr size_t HEAD_SIZE = sizeof(nlmsghdr) + RECORD_SIZE;
constexpr size_t READ_SIZE = 3936; // less than the largest message, deliberately: it arrives cut
constexpr int MAX_DATA_SIZE = QZLIB_MSG_MAX_DATA;

// On the wire: netlink header, the record's first 144 bytes, data; all in host byte order.
static_assert(sizeof(nlmsghdr) == 16 && offsetof(nlmsghdr, nlmsg_type) == 4 && HEAD_SIZE == 160);
static_assert(offsetof(local_msg, magic) == 0 && offsetof(local_msg, dst_pid) == 4);
static_assert(offsetof(local_msg, dst_name) == 8 && offsetof(local_msg, src_pid) == 72);
static_assert(offsetof(local_msg, src_name) == 76 && offsetof(local_msg, type) == 140);
static_assert(offsetof(local_msg, data_len) == RECORD_SIZE);
static_assert(HEAD_SIZE + MAX_DATA_SIZE == BUFFER_SIZE);

struct Identity {
    int pid;
    char name[64];
};

using MessageCallback = void (*)(local_msg *msg, void *ctx);

// What the receiver thread works with. It may outlive the channel: a callback that is under
// way when the channel is closed still has its message. So the thread and the channel share
// it, and the last one frees it.
struct Receiver {
    uint32_t references;
    uint32_t stopped;        // atomic; set once, by whoever closes the channel
    pthread_mutex_t reading; // held by the thread while it uses fd
    int fd;
    Identity self;
    MessageCallback callback;
    void *ctx;
    alignas(nlmsghdr) char buffer[BUFFER_SIZE]; // zero at first: nothing that could be delivered
};

struct Channel {
    int fd; // for sending
    Identity self;
    Receiver *receiver; // null in a channel for sending only
    pthread_t thread;
    alignas(nlmsghdr) char buffer[BUFFER_SIZE];
};

// One channel per process, null when closed. Unlocked: callers serialise.
Channel *channel = nullptr;

void drop_receiver(void *argument)
{
    auto *receiver = static_cast<Receiver *>(argument);
    if (qz::base::add(receiver->references, -1U) == 0)
        free(receiver);
}

bool is_stopped(const Receiver &receiver)
{
    return qz::base::load(receiver.stopped) != 0;
}

// One read under the lock; the thread is cancelled in it, and a closed descriptor is never
// read. Returns whether the thread goes on, and in count what read() gave.
bool read_datagram(Receiver &receiver, ssize_t &count)
{
    pthread_mutex_lock(&receiver.reading);
    pthread_cleanup_push(qz::base::unlock, &receiver.reading);
    if (!is_stopped(receiver))
        count = read(receiver.fd, receiver.buffer, READ_SIZE);
    pthread_cleanup_pop(1);
    return !is_stopped(receiver);
}

bool is_addressed_to(const local_msg &msg, const Identity &self)
{
    static constexpr char ANY[4] = {};
    if (msg.dst_pid > 0 && msg.dst_pid != self.pid)
        return false;
    return memcmp(msg.dst_name, ANY, sizeof ANY) == 0 ||
           strncmp(msg.dst_name, self.name, sizeof msg.dst_name) == 0;
}

// The message in the receive buffer, when it is one for this process. Its length is the
// sender's word: bounded, so that a lying one does not lead a callback out of the buffer.
bool parse_message(Receiver &receiver, local_msg &msg)
{
    nlmsghdr netlink;
    memcpy(&netlink, receiver.buffer, sizeof netlink);
    msg = {};
    memcpy(&msg, receiver.buffer + sizeof netlink, RECORD_SIZE);
    if (msg.magic != MESSAGE_MAGIC || !is_addressed_to(msg, receiver.self))
        return false;
    msg.data_len = std::clamp(static_cast<int>(netlink.nlmsg_len - HEAD_SIZE), 0, MAX_DATA_SIZE);
    if (msg.data_len > 0)
        msg.data = receiver.buffer + HEAD_SIZE;
    return true;
}

// A failed read counts as a long one, deliberately: the buffer still holds the message
// before, which is delivered once more.
void *msg_receiver(void *argument)
{
    auto *receiver = static_cast<Receiver *>(argument);
    pthread_cleanup_push(drop_receiver, receiver);
    ssize_t count = 0;
    local_msg msg;
    while (read_datagram(*receiver, count))
        if (static_cast<size_t>(count) >= HEAD_SIZE && parse_message(*receiver, msg))
            receiver->callback(&msg, receiver->ctx);
    pthread_cleanup_pop(1);
    return nullptr;
}

// The thread is cancelled, not joined: a callback may take its time, and may be the caller.
// A thread in its read gives up the lock by ending; after that nobody uses the descriptor.
void stop_receiver(Channel &closing)
{
    Receiver *receiver = closing.receiver;
    qz::base::store_release(receiver->stopped, 1);
    pthread_cancel(closing.thread);
    pthread_detach(closing.thread);
    pthread_mutex_lock(&receiver->reading);
    (void)close(receiver->fd);
    pthread_mutex_unlock(&receiver->reading);
    drop_receiver(receiver);
}

// In a child made by fork() there is no thread, and its lock stays taken for ever.
void abandon_receiver(Receiver *receiver)
{
    (void)close(receiver->fd);
    free(receiver);
}

void close_channel(Channel *closing)
{
    const qz::base::ErrnoKeeper keeper;
    if (closing->receiver != nullptr) {
        if (closing->self.pid == getpid())
            stop_receiver(*closing);
        else
            abandon_receiver(closing->receiver);
    }
    (void)close(closing->fd);
    free(closing);
}

using UniqueChannel = qz::base::UniqueHandle<Channel, close_channel>;

// A socket bound or connected to the groups; empty when a call failed.
UniqueFd open_socket(int (*attach)(int, const sockaddr *, socklen_t))
{
    UniqueFd fd(socket(AF_NETLINK, SOCK_RAW | SOCK_CLOEXEC, NETLINK_USERSOCK));
    if (!fd)
        return fd;
    sockaddr_nl address{};
    address.nl_family = AF_NETLINK;
    address.nl_groups = GROUPS;
    static_assert(sizeof address == 12);
    if (attach(fd.get(), reinterpret_cast<const sockaddr *>(&address), sizeof address) < 0)
        fd.reset();
    return fd;
}

// Where libc loads its unwinder at a process's first pthread_cancel(), it aborts the process when it
// cannot: no such file, or no descriptor left. Loaded here, and for good, the channel can be closed.
bool load_unwinder()
{
#ifdef LIBGCC_S_SO
    return dlopen(LIBGCC_S_SO, RTLD_NOW) != nullptr;
#else
    return true;
#endif
}

UniqueChannel make_channel(UniqueFd &sending, const Identity &self)
{
    auto *made = static_cast<Channel *>(calloc(1, sizeof(Channel)));
    if (made != nullptr) {
        made->fd = sending.release();
        made->self = self;
    }
    return UniqueChannel(made);
}

// A thread that cannot be started leaves a channel for sending only; that is no failure.
bool start_receiver(Channel &opening, UniqueFd &receiving, MessageCallback callback, void *ctx)
{
    auto *receiver = static_cast<Receiver *>(calloc(1, sizeof(Receiver)));
    if (receiver == nullptr)
        return false;
    pthread_mutex_init(&receiver->reading, nullptr);
    receiver->references = 2;
    receiver->fd = receiving.get();
    receiver->self = opening.self;
    receiver->callback = callback;
    receiver->ctx = ctx;
    if (!qz::base::start_thread(opening.thread, msg_receiver, receiver)) {
        free(receiver);
        return true;
    }
    opening.receiver = receiver;
    (void)receiving.release(); // the receiver's from here
    return true;
}

// Copies the data after the head; returns the length of both, nothing else being sent.
size_t put_data(Channel &open, const local_msg &msg)
{
    if (msg.data == nullptr || msg.data_len <= 0)
        return HEAD_SIZE;
    const auto size = static_cast<size_t>(msg.data_len);
    memcpy(open.buffer + HEAD_SIZE, msg.data, size);
    return HEAD_SIZE + size;
}

void put_head(Channel &open, const local_msg &msg, size_t length)
{
    nlmsghdr netlink{};
    netlink.nlmsg_len = static_cast<uint32_t>(length);
    netlink.nlmsg_type = static_cast<uint16_t>(msg.type + FIRST_FREE_TYPE);
    memcpy(open.buffer, &netlink, sizeof netlink);
    memcpy(open.buffer + sizeof netlink, &msg, RECORD_SIZE);
}

} // namespace

QZ_EXPORT int qzlib_msg_init(void (*callback)(local_msg *msg, void *ctx), void *ctx)
{
    const CancellationHold hold;
    Identity self{getpid(), {}};
    const int named = qzlib_get_process_name_by_pid(self.pid, self.name, sizeof self.name);
    if (named < 0)
        return named;
    UniqueFd sending = open_socket(connect);
    UniqueFd receiving = callback != nullptr ? open_socket(bind) : UniqueFd();
    if (!sending || (callback != nullptr && (!receiving || !load_unwinder())))
        return -1;
    UniqueChannel opening = make_channel(sending, self);
    if (!opening || (callback != nullptr && !start_receiver(*opening.get(), receiving, callback, ctx)))
        return QZLIB_ERR_NO_MEMORY;
    const UniqueChannel replaced(channel); // by a second call without exit: its thread ends here
    channel = opening.release();
    return 0;
}

QZ_EXPORT int qzlib_msg_send(local_msg *msg)
{
    if (msg == nullptr)
        return QZLIB_ERR_ARGUMENT;
    if (channel == nullptr)
        return QZLIB_ERR_FAILED;
    if (msg->data != nullptr && msg->data_len > MAX_DATA_SIZE)
        return QZLIB_ERR_ARGUMENT;
    msg->magic = MESSAGE_MAGIC;
    msg->src_pid = channel->self.pid;
    qz::base::fill_field(msg->src_name, channel->self.name);
    const size_t length = put_data(*channel, *msg);
    put_head(*channel, *msg, length);
    // The kernel reports a refused connection even where the message reached every
    // receiver: nobody listens at port 0. So the result says nothing.
    (void)!write(channel->fd, channel->buffer, NLMSG_ALIGN(length));
    return 0;
}

// It works through to its end even where the calling thread is being cancelled, which it is when
// a callback closes its own channel.
QZ_EXPORT void qzlib_msg_exit(void)
{
    const CancellationHold hold;
    const UniqueChannel closing(channel);
    channel = nullptr;
}
