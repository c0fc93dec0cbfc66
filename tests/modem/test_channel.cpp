#include "support/case.h"

#include <linux/netlink.h>
#include <qzlib.h>

#include <malloc.h>
#include <mutex>
#include <queue>
#include <sys/prctl.h>
#include <sys/socket.h>

namespace
{

using namespace support;

struct Message {
    local_msg head; // its data: no longer there
    std::string data;
};

// What the channel's callback was given, for other threads to wait for. Whoever holds the mutex holds up
// the callback, not in a cancellation point.
struct Inbox {
    static void put(local_msg *msg, void *ctx)
    {
        auto &inbox = *static_cast<Inbox *>(ctx);
        const auto size = msg->data != nullptr ? static_cast<size_t>(msg->data_len) : 0;
        inbox.is_called = true;
        const std::lock_guard lock(inbox.mutex);
        inbox.messages.push({*msg, std::string(static_cast<char *>(msg->data), size)});
    }

    // The next message; one of type 0 when none comes.
    Message next()
    {
        Message message{};
        (void)eventually([&] {
            const std::lock_guard lock(mutex);
            if (messages.empty())
                return false;
            message = messages.front();
            messages.pop();
            return true;
        });
        return message;
    }

    std::mutex mutex;
    std::queue<Message> messages;
    std::atomic<bool> is_called = false;
};

// A peer that knows nothing of the library: a netlink socket and its bytes.
class Peer : NoCopy
{
public:
    Peer()
    {
        const int large = 1 << 20;
        setsockopt(fd_, SOL_SOCKET, SO_RCVBUFFORCE, &large, sizeof large);
        EXPECT_EQ(bind(fd_, reinterpret_cast<const sockaddr *>(&GROUP), sizeof GROUP), 0);
    }
    ~Peer() { close(fd_); }

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
    return {reinterpret_cast<const char *>(&value), sizeof value};
}

// A message as the format has it, in the machine's byte order.
std::string wire(uint32_t length, uint32_t type, int dst_pid, std::string dst_name, int src_pid,
                 std::string src_name, const std::string &data)
{
    dst_name.resize(64);
    src_name.resize(64);
    return word(length) + word((type + 16) & 0xFFFF) + word(0) + word(0) + "SMZQ" +
           word(static_cast<uint32_t>(dst_pid)) + dst_name + word(static_cast<uint32_t>(src_pid)) + src_name +
           word(type) + data;
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
    return entries_in("/proc/self/task");
}

// Waits until the process has so many threads: a cancelled one takes its time to go.
bool threads_become(size_t count)
{
    return eventually([count] { return threads() == count; });
}

struct Channel : NothingLeft {
    Channel()
    {
        prctl(PR_SET_NAME, "self");
        std::thread([] {}).join(); // sanitizers start one of their own then
        for (int i = 0; i < 20 && threads() != 1; ++i)
            usleep(5000); // the kernel lists a joined one for a moment more
        threads_before = threads();
    }
    ~Channel() override
    {
        qzlib_msg_exit();
        EXPECT_TRUE(threads_become(threads_before));
    }
    size_t threads_before = 0;
    Inbox inbox; // outlives the threads
    const Peer peer;
};

TEST_F(Channel, sent_bytes_are_the_format)
{
    EXPECT_EQ(send_message(1), QZLIB_ERR_FAILED) << "not open";
    EXPECT_EQ(qzlib_msg_send(nullptr), QZLIB_ERR_ARGUMENT);
    ASSERT_EQ(qzlib_msg_init(nullptr, nullptr), 0);
    EXPECT_EQ(threads(), threads_before) << "a channel for sending only";

    const std::string most(QZLIB_MSG_MAX_DATA, 'm'), long_name(64, 'n'); // a name that fills its field
    EXPECT_EQ(send_message(8, most + "m"), QZLIB_ERR_ARGUMENT);
    const Table<uint32_t, std::string, int, std::string> cases = {
        {7, "", 0, ""}, {0xFFFFFFFF, "12345", 99, "other"}, {8, most, 0, ""}, {9, "", -1, long_name}};
    for (const auto &[type, data, dst_pid, dst_name] : cases) {
        EXPECT_EQ(send_message(type, data, dst_pid, dst_name), 0);
        const std::string sent = peer.receive();
        const size_t length = 160 + data.size();
        EXPECT_EQ(sent.size(), (length + 3) / 4 * 4);
        EXPECT_EQ(sent.substr(0, length),
                  wire(static_cast<uint32_t>(length), type, dst_pid, dst_name, getpid(), "self", data));
    }

    local_msg msg{};
    for (const auto &[data, length] : {std::pair<void *, int>(nullptr, 100), {&msg, -5}}) {
        msg.data = data;
        msg.data_len = length;
        EXPECT_EQ(qzlib_msg_send(&msg), 0);
        EXPECT_EQ(peer.receive().size(), 160U);
    }
    EXPECT_EQ(msg.magic, 0x515A4D53U);
    EXPECT_EQ(msg.src_pid, getpid());
    EXPECT_STREQ(msg.src_name, "self");
    qzlib_msg_exit();
    EXPECT_EQ(send_message(1), QZLIB_ERR_FAILED);
    EXPECT_EQ(peer.receive(), "");
}

TEST_F(Channel, received_is_what_is_addressed_here_with_bounded_data)
{
    ASSERT_EQ(qzlib_msg_init(Inbox::put, &inbox), 0);
    constexpr int MOST = QZLIB_MSG_MAX_DATA;
    const auto to = [](int pid, const std::string &name) { return from_peer(2, "data", pid, name); };
    std::string wrong_magic = from_peer(2);
    wrong_magic[16] = 'X';
    for (const std::string &datagram :
         {to(0, ""), to(-3, ""), to(getpid(), ""), to(0, "self"), to(getpid(), "self"),
          to(0, std::string("\0\0\0\0other", 9))}) { // four zeros: no name
        peer.send(datagram);
        EXPECT_EQ(inbox.next().data, "data") << testing::PrintToString(datagram);
    }
    for (const std::string &datagram :
         {to(getpid() + 1, ""), to(getpid() + 1, "self"), to(getpid(), "other"), to(0, "sel"), to(0, "self2"),
          to(0, std::string("\0elf", 4)), to(0, std::string(64, 's')), wrong_magic,
          from_peer(2).substr(0, 159), std::string("x")}) {
        peer.send(datagram);
        peer.send(from_peer(1));
        EXPECT_EQ(inbox.next().head.type, 1U) << testing::PrintToString(datagram);
    }
    const Table<uint32_t, int> lengths = {{160, 0},     {0, 0},       {159, 0},          {161, 1},
                                          {4096, MOST}, {4097, MOST}, {0x80000000, MOST}};
    for (const auto &[length, delivered] : lengths) {
        peer.send(wire(length, 2, 0, "", 1, "", "d"));
        EXPECT_EQ(inbox.next().head.data_len, delivered) << length;
    }

    const std::string sent = from_peer(0x12345678, "12345", getpid(), "self");
    peer.send(sent);
    const Message message = inbox.next();
    EXPECT_EQ(std::string(reinterpret_cast<const char *>(&message.head), 144), sent.substr(16, 144));
    EXPECT_EQ(message.data, "12345");

    const std::string most = std::string(3776, 'm') + std::string(MOST - 3776, 'n');
    peer.send(from_peer(5, most));
    const Message cut = inbox.next();
    EXPECT_EQ(cut.head.data_len, MOST);
    EXPECT_EQ(cut.data.rfind('m'), 3775U) << "the read takes 3936 bytes of the datagram";
    EXPECT_EQ(cut.data.find('n'), std::string::npos);
}

// A channel whose callback is held up with its first message.
struct GatedChannel : Channel {
    GatedChannel()
    {
        inbox.mutex.lock();
        EXPECT_EQ(qzlib_msg_init(Inbox::put, &inbox), 0);
        peer.send(from_peer(1, "first"));
        EXPECT_TRUE(eventually([this] { return inbox.is_called.load(); }));
    }
};

TEST_F(GatedChannel, read_error_delivers_the_message_before_once_more)
{
    for (int i = 0; i < 2000; ++i) // more than the socket holds: its next read fails
        peer.send(from_peer(2, std::string(2000, 'x')));
    inbox.mutex.unlock();
    for (int i = 0; i < 2; ++i) {
        const Message message = inbox.next();
        EXPECT_EQ(message.head.type, 1U);
        EXPECT_EQ(message.data, "first");
    }
    EXPECT_EQ(inbox.next().head.type, 2U);
}

TEST_F(GatedChannel, exit_during_a_callback_neither_waits_nor_takes_its_message)
{
    qzlib_msg_exit();
    EXPECT_EQ(open_descriptors(), descriptors + 1) << "the peer's only";
    inbox.mutex.unlock();
    EXPECT_EQ(inbox.next().data, "first");
}

TEST_F(Channel, exit_in_a_storm_of_messages_ends_the_deliveries_and_leaves_nothing)
{
    std::jthread storm([this](const std::stop_token &stop) {
        while (!stop.stop_requested())
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
    const auto rounds = [&](int left) {
        for (; left > 0; --left) {
            ASSERT_EQ(qzlib_msg_init(count, &calls), 0);
            for (const long before = calls; left % 2 == 0 && calls == before;)
                std::this_thread::yield();
            qzlib_msg_exit();
            ASSERT_EQ(open_descriptors(), descriptors + 1) << "the peer's only";
        }
        ASSERT_TRUE(threads_become(threads_before + 1)); // the storm's
    };
    rounds(20);
    const auto before = mallinfo2();
    rounds(400);
    const auto after = mallinfo2();
    EXPECT_LT(after.uordblks + after.hblkhd, before.uordblks + before.hblkhd + 64 * 1024)
        << "four hundred buffers are 1.6 MiB";
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
    const auto send_and_receive = [this](uint32_t type) {
        peer.send(from_peer(type));
        EXPECT_EQ(inbox.next().head.type, type);
    };
    for (int i = 0; i < 20; ++i) {
        ASSERT_EQ(qzlib_msg_init(close_it, &inbox), 0);
        send_and_receive(1);
        ASSERT_TRUE(threads_become(threads_before));
    }
    ASSERT_EQ(qzlib_msg_init(replace_it, &inbox), 0);
    send_and_receive(1);
    send_and_receive(2);
    EXPECT_TRUE(threads_become(threads_before + 1)) << "the first thread is gone";
}

TEST_F(Channel, forked_child_can_exit_without_the_thread_it_did_not_get)
{
    ASSERT_EQ(qzlib_msg_init(Inbox::put, &inbox), 0);
    send_message(3);
    EXPECT_EQ(inbox.next().head.type, 3U);
    usleep(50'000); // the thread is back in its read and holds its lock then
    Process([] {
        alarm(20);
        qzlib_msg_exit();
        return qzlib_msg_init(nullptr, nullptr);
    });
    send_message(4);
    EXPECT_EQ(inbox.next().head.type, 4U) << "the parent's channel lives on";
}

} // namespace
