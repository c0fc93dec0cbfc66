#include "support/box.h"
#include "support/case.h"
#include "support/process.h"

#include <linux/netlink.h>
#include <qzlib.h>

#include <condition_variable>
#include <malloc.h>
#include <mutex>
#include <sys/eventfd.h>
#include <sys/prctl.h>
#include <sys/socket.h>

namespace
{

using namespace support;
using namespace std::chrono_literals;
constexpr int MAX_DATA = 3936;

struct Message {
    local_msg head; // its data: no longer there
    std::string data;
};

// What the channel's callback was given, for other threads to wait for.
class Inbox
{
public:
    static void put(local_msg *msg, void *ctx)
    {
        auto &inbox = *static_cast<Inbox *>(ctx);
        const std::string data(static_cast<char *>(msg->data),
                               msg->data != nullptr ? static_cast<size_t>(msg->data_len) : 0);
        const std::lock_guard lock(inbox.mutex_);
        inbox.messages_.push_back({*msg, data});
        inbox.arrival_.notify_all();
    }

    // The next message; one of type 0 when none comes.
    Message next(std::chrono::milliseconds limit = 10s)
    {
        std::unique_lock lock(mutex_);
        if (!arrival_.wait_for(lock, limit, [&] { return taken_ < messages_.size(); }))
            return {};
        return messages_[taken_++];
    }

private:
    std::mutex mutex_;
    std::condition_variable arrival_;
    std::vector<Message> messages_;
    size_t taken_ = 0;
};

// A peer that knows nothing of the library: a netlink socket and its bytes.
class Peer
{
public:
    Peer()
    {
        const int large = 1 << 20;
        setsockopt(fd_, SOL_SOCKET, SO_RCVBUFFORCE, &large, sizeof large);
        if (bind(fd_, reinterpret_cast<const sockaddr *>(&GROUP), sizeof GROUP) != 0)
            ADD_FAILURE() << "netlink multicast: " << strerror(errno);
    }
    ~Peer() { close(fd_); }
    Peer(const Peer &) = delete;
    Peer &operator=(const Peer &) = delete;

    void send(const std::string &datagram) const
    {
        (void)sendto(fd_, datagram.data(), datagram.size(), 0, reinterpret_cast<const sockaddr *>(&GROUP),
                     sizeof GROUP);
    }

    // The next datagram of somebody else; empty when there is none.
    std::string receive() const
    {
        char buffer[8192];
        const ssize_t size = recv(fd_, buffer, sizeof buffer, MSG_DONTWAIT);
        return size > 0 ? std::string(buffer, static_cast<size_t>(size)) : "";
    }

private:
    static constexpr sockaddr_nl GROUP = {AF_NETLINK, 0, 0, 5};
    int fd_ = socket(AF_NETLINK, SOCK_RAW | SOCK_CLOEXEC, NETLINK_USERSOCK);
};

std::string word(uint32_t value)
{
    return {static_cast<char>(value), static_cast<char>(value >> 8), static_cast<char>(value >> 16),
            static_cast<char>(value >> 24)};
}

std::string field(std::string text)
{
    text.resize(64, '\0');
    return text;
}

// A message byte by byte, as the format has it.
std::string wire(uint32_t length, uint32_t type, int dst_pid, const std::string &dst_name, int src_pid,
                 const std::string &src_name, const std::string &data)
{
    return word(length) + word((type + 16) & 0xFFFF) + word(0) + word(0) + "SMZQ" +
           word(static_cast<uint32_t>(dst_pid)) + field(dst_name) + word(static_cast<uint32_t>(src_pid)) +
           field(src_name) + word(type) + data;
}

std::string from_peer(uint32_t type, const std::string &data = "", int dst_pid = 0,
                      const std::string &dst_name = "")
{
    return wire(160 + static_cast<uint32_t>(data.size()), type, dst_pid, dst_name, 4711, "peer", data);
}

int send_message(uint32_t type, const std::string &data = "", int dst_pid = 0,
                 const std::string &dst_name = "")
{
    local_msg msg{};
    msg.type = type;
    msg.dst_pid = dst_pid;
    memcpy(msg.dst_name, dst_name.data(), dst_name.size());
    msg.data_len = static_cast<int>(data.size());
    msg.data = data.empty() ? nullptr : const_cast<char *>(data.data());
    return qzlib_msg_send(&msg);
}

size_t threads()
{
    const std::filesystem::directory_iterator tasks("/proc/self/task");
    return static_cast<size_t>(std::distance(begin(tasks), end(tasks)));
}

// Waits until the process has so many threads: a cancelled one takes its time to go.
bool threads_become(size_t count)
{
    return eventually([count] { return threads() == count; });
}

size_t threads_after_the_first()
{
    std::thread([] {}).join();
    for (int i = 0; i < 20 && threads() != 1; ++i) // the kernel lists a joined one for a moment more
        usleep(5000);
    return threads();
}

struct Channel : NothingLeft {
    Channel() { prctl(PR_SET_NAME, "self"); }
    size_t threads_before = threads_after_the_first(); // sanitizers start one of their own then
    ~Channel() override
    {
        qzlib_msg_exit();
        EXPECT_TRUE(threads_become(threads_before));
    }
    Inbox inbox; // outlives the threads
    const Peer peer;
};

TEST_F(Channel, sent_bytes_are_the_format)
{
    EXPECT_EQ(send_message(1), -264) << "not open";
    EXPECT_EQ(qzlib_msg_send(nullptr), -257);
    ASSERT_EQ(qzlib_msg_init(nullptr, nullptr), 0);
    EXPECT_EQ(threads(), threads_before) << "a channel for sending only";
    EXPECT_EQ(qzlib_msg_send(nullptr), -257);

    const std::string most(MAX_DATA, 'm'), long_name(64, 'n'); // a name that fills its field
    EXPECT_EQ(send_message(7), 0);
    EXPECT_EQ(peer.receive(), wire(160, 7, 0, "", getpid(), "self", ""));
    EXPECT_EQ(send_message(0xFFFFFFFF, "12345", 99, "other"), 0);
    const std::string padded = peer.receive();
    EXPECT_EQ(padded.size(), 168U);
    EXPECT_EQ(padded.substr(0, 165), wire(165, 0xFFFFFFFF, 99, "other", getpid(), "self", "12345"));
    EXPECT_EQ(send_message(8, most), 0);
    EXPECT_EQ(peer.receive(), wire(4096, 8, 0, "", getpid(), "self", most));
    EXPECT_EQ(send_message(8, most + "m"), -257);
    EXPECT_EQ(send_message(9, "", -1, long_name), 0);
    EXPECT_EQ(peer.receive(), wire(160, 9, -1, long_name, getpid(), "self", ""));
    EXPECT_EQ(peer.receive(), "");

    local_msg msg{};
    msg.data_len = 100; // without data
    EXPECT_EQ(qzlib_msg_send(&msg), 0);
    EXPECT_EQ(peer.receive().size(), 160U);
    EXPECT_EQ(msg.magic, 0x515A4D53U);
    EXPECT_EQ(msg.src_pid, getpid());
    EXPECT_STREQ(msg.src_name, "self");
    msg.data = &msg;
    msg.data_len = -5;
    EXPECT_EQ(qzlib_msg_send(&msg), 0);
    EXPECT_EQ(peer.receive().size(), 160U);
    qzlib_msg_exit();
    EXPECT_EQ(send_message(1), -264);
}

TEST_F(Channel, received_is_what_is_addressed_here)
{
    ASSERT_EQ(qzlib_msg_init(Inbox::put, &inbox), 0);
    const Table<int, std::string, bool> cases = {
        {0, "", true},
        {-3, "", true},
        {getpid(), "", true},
        {getpid() + 1, "", false},
        {0, "self", true},
        {getpid(), "self", true},
        {getpid() + 1, "self", false},
        {getpid(), "other", false},
        {0, "sel", false},
        {0, "self2", false},
        {0, std::string("\0\0\0\0other", 9), true}, // four zeros: no name
        {0, std::string("\0elf", 4), false},
        {0, std::string(64, 's'), false},
    };
    uint32_t type = 100;
    for (const auto &[dst_pid, dst_name, delivered] : cases) {
        peer.send(from_peer(++type, "data", dst_pid, dst_name));
        peer.send(from_peer(1)); // ends the wait for what is not delivered
        EXPECT_EQ(inbox.next().head.type, delivered ? type : 1U) << dst_pid << " " << dst_name;
        if (delivered) {
            EXPECT_EQ(inbox.next().head.type, 1U);
        }
    }

    const std::string sent = from_peer(0x12345678, "12345", getpid(), "self");
    peer.send(sent);
    const Message message = inbox.next();
    EXPECT_EQ(std::string(reinterpret_cast<const char *>(&message.head), 144), sent.substr(16, 144));
    EXPECT_EQ(message.head.data_len, 5);
    EXPECT_EQ(message.data, "12345");
}

TEST_F(Channel, crooked_datagrams_are_dropped_or_bounded)
{
    ASSERT_EQ(qzlib_msg_init(Inbox::put, &inbox), 0);
    std::string wrong_magic = from_peer(2);
    wrong_magic[16] = 'X';
    peer.send(wrong_magic);
    peer.send(from_peer(3).substr(0, 159)); // one byte short
    peer.send("x");
    const Table<uint32_t, int> lengths = {
        {160, 0}, {0, 0}, {159, 0}, {161, 1}, {4096, MAX_DATA}, {4097, MAX_DATA}, {0x80000000, MAX_DATA}};
    uint32_t type = 10;
    for (const auto &[length, expected] : lengths) {
        peer.send(wire(length, ++type, 0, "", 1, "", "d"));
        const Message message = inbox.next();
        EXPECT_EQ(message.head.type, type);
        EXPECT_EQ(message.head.data_len, expected) << length;
    }
    std::string most(MAX_DATA, '\0');
    for (size_t i = 0; i < most.size(); ++i)
        most[i] = static_cast<char>(i / 7);
    peer.send(from_peer(5, most));
    const Message cut = inbox.next();
    EXPECT_EQ(cut.head.data_len, MAX_DATA);
    EXPECT_EQ(cut.data.substr(0, 3776), most.substr(0, 3776)) << "the read takes 3936 bytes of the datagram";
    EXPECT_NE(cut.data.substr(3776), most.substr(3776));
}

TEST_F(Channel, processes_reach_each_other_by_pid_by_name_and_all)
{
    // Each child tells the types that reach it until type 9, as bits of its exit status.
    const auto listen = [](const char *name, int ready) {
        prctl(PR_SET_NAME, name);
        Inbox own;
        if (qzlib_msg_init(Inbox::put, &own) != 0)
            return 255;
        eventfd_write(ready, 1);
        int seen = 0;
        for (Message message = own.next(); message.head.type != 9 && message.head.type != 0;
             message = own.next())
            seen |= 1 << message.head.type;
        qzlib_msg_exit();
        return seen;
    };
    const int ready = eventfd(0, EFD_SEMAPHORE);
    Process one([&] { return listen("one", ready); });
    Process two([&] { return listen("two", ready); });
    eventfd_t count;
    eventfd_read(ready, &count);
    eventfd_read(ready, &count);
    close(ready);
    ASSERT_EQ(qzlib_msg_init(Inbox::put, &inbox), 0);
    send_message(1);
    send_message(2, "x", one.pid());
    send_message(3, "x", 0, "two");
    send_message(4, "x", one.pid(), "two");
    send_message(5, "x", getpid());
    send_message(9);
    EXPECT_EQ(one.wait(), 1 << 1 | 1 << 2);
    EXPECT_EQ(two.wait(), 1 << 1 | 1 << 3);
    for (const uint32_t type : {1U, 5U, 9U})
        EXPECT_EQ(inbox.next().head.type, type) << "the sender receives, too";
}

// Holds up the callback at messages of type 1, not in a cancellation point, until it is let go.
struct Gate {
    Inbox inbox;
    std::mutex closed;
    std::atomic<bool> entered = false;
    static void pass(local_msg *msg, void *ctx)
    {
        auto &gate = *static_cast<Gate *>(ctx);
        if (msg->type == 1) {
            gate.entered = true;
            const std::lock_guard wait(gate.closed);
        }
        Inbox::put(msg, &gate.inbox);
    }
};

struct GatedChannel : Channel {
    GatedChannel()
    {
        gate.closed.lock();
        EXPECT_EQ(qzlib_msg_init(Gate::pass, &gate), 0);
        peer.send(from_peer(1, "first"));
        EXPECT_TRUE(eventually([this] { return gate.entered.load(); }));
    }
    ~GatedChannel() override
    {
        qzlib_msg_exit();
        EXPECT_TRUE(threads_become(threads_before)) << "the gate is still in use";
    }
    Gate gate;
};

TEST_F(GatedChannel, read_error_delivers_the_message_before_once_more)
{
    for (int i = 0; i < 2000; ++i) // more than the socket holds: its next read fails
        peer.send(from_peer(2, std::string(2000, 'x')));
    gate.closed.unlock();
    for (int i = 0; i < 2; ++i) {
        const Message message = gate.inbox.next();
        EXPECT_EQ(message.head.type, 1U);
        EXPECT_EQ(message.data, "first");
    }
    EXPECT_EQ(gate.inbox.next().head.type, 2U);
}

TEST_F(GatedChannel, exit_during_a_callback_neither_waits_nor_takes_its_message)
{
    qzlib_msg_exit();
    EXPECT_EQ(open_descriptors(), descriptors + 1) << "the peer's only";
    gate.closed.unlock();
    EXPECT_EQ(gate.inbox.next().data, "first");
}

TEST_F(Channel, exit_while_receiving_leaves_nothing_behind_a_thousand_times)
{
    const auto rounds = [this](int count) {
        for (; count > 0; --count) {
            ASSERT_EQ(qzlib_msg_init(Inbox::put, &inbox), 0);
            qzlib_msg_exit();
            ASSERT_EQ(open_descriptors(), descriptors + 1) << "the peer's only";
        }
        ASSERT_TRUE(threads_become(threads_before));
    };
    rounds(20);
    const auto before = mallinfo2();
    rounds(1000);
    const auto after = mallinfo2();
    EXPECT_LT(after.uordblks + after.hblkhd, before.uordblks + before.hblkhd + 64 * 1024)
        << "a thousand buffers are 4 MiB";
    qzlib_msg_exit(); // nothing open
}

TEST_F(Channel, exit_in_a_storm_of_messages_ends_the_deliveries)
{
    std::atomic<bool> stop = false;
    std::thread storm([&] {
        while (!stop)
            peer.send(from_peer(3, std::string(500, 's')));
    });
    std::atomic<long> calls = 0;
    const auto count = [](local_msg *msg, void *ctx) {
        EXPECT_EQ(static_cast<char *>(msg->data)[msg->data_len - 1], 's');
        sigset_t mask;
        pthread_sigmask(SIG_BLOCK, nullptr, &mask);
        EXPECT_EQ(sigismember(&mask, SIGALRM), 1) << "signals are for the daemon's own threads";
        ++*static_cast<std::atomic<long> *>(ctx);
    };
    for (int i = 0; i < 200; ++i) {
        const long before = calls;
        ASSERT_EQ(qzlib_msg_init(count, &calls), 0);
        while (calls == before)
            std::this_thread::yield();
        qzlib_msg_exit();
    }
    EXPECT_TRUE(threads_become(threads_before + 1)); // the storm's
    const long at_exit = calls;
    usleep(20'000);
    EXPECT_EQ(calls, at_exit);
    stop = true;
    storm.join();
}

TEST_F(Channel, callback_may_close_or_replace_its_own_channel)
{
    const auto close_it = [](local_msg *msg, void *ctx) {
        qzlib_msg_exit();
        Inbox::put(msg, ctx);
    };
    const auto replace_it = [](local_msg *msg, void *ctx) {
        EXPECT_EQ(qzlib_msg_init(Inbox::put, ctx), 0);
        Inbox::put(msg, ctx);
    };
    for (int i = 0; i < 20; ++i) {
        ASSERT_EQ(qzlib_msg_init(close_it, &inbox), 0);
        peer.send(from_peer(1));
        EXPECT_EQ(inbox.next().head.type, 1U);
        ASSERT_TRUE(threads_become(threads_before));
    }
    ASSERT_EQ(qzlib_msg_init(replace_it, &inbox), 0);
    peer.send(from_peer(1));
    EXPECT_EQ(inbox.next().head.type, 1U);
    peer.send(from_peer(2));
    EXPECT_EQ(inbox.next().head.type, 2U);
    EXPECT_TRUE(threads_become(threads_before + 1)) << "the first thread is gone";
}

TEST_F(Channel, forked_child_can_exit_without_the_thread_it_did_not_get)
{
    ASSERT_EQ(qzlib_msg_init(Inbox::put, &inbox), 0);
    send_message(3);
    EXPECT_EQ(inbox.next().head.type, 3U);
    usleep(50'000); // the thread is back in its read and holds its lock then
    EXPECT_EQ(run_child([] {
                  alarm(20);
                  qzlib_msg_exit();
                  return qzlib_msg_init(nullptr, nullptr);
              }),
              0);
    send_message(4);
    EXPECT_EQ(inbox.next().head.type, 4U) << "the parent's channel lives on";
}

TEST_F(Channel, failed_init_leaves_nothing)
{
    for (const rlim_t room : {0U, 1U}) { // for descriptors
        const int next = dup(0);
        close(next);
        EXPECT_EQ(
            run_child([=] {
                const rlimit limit = {static_cast<rlim_t>(next) + room, static_cast<rlim_t>(next) + room};
                setrlimit(RLIMIT_NOFILE, &limit);
                const bool refused = qzlib_msg_init(Inbox::put, nullptr) < 0 && send_message(1) == -264;
                return refused && dup(0) == (room == 0 ? -1 : next) ? 42 : 1;
            }),
            42);
    }
}

} // namespace
