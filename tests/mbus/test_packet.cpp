#include "mbus/bus_box.h"
#include "support/syscall_trace.h"

#include <linux/futex.h>
#include <sched.h>
#ifdef __x86_64__
#include <sys/user.h>
#endif

namespace
{

using namespace support;
using Clock = std::chrono::steady_clock;

// What is counted, not what is timed, shrinks on slow machines.
const int ROUNDS = scaled(20000);

uint32_t now(const uint32_t &index)
{
    return __atomic_load_n(&index, __ATOMIC_ACQUIRE);
}

// The bytes of an unsigned number in the formats, which are those of every little-endian machine.
std::string number(uint64_t value, size_t size)
{
    return {reinterpret_cast<const char *>(&value), size};
}

std::string padded(std::string text, size_t size)
{
    text.resize(size, '\0');
    return text;
}

// One machine writes these bytes and another one reads them, so every machine is held to both. Left
// out is libc's condition, and fields with addresses are compared with the addresses.
TEST_F(Bus, has_the_same_bytes_on_every_machine)
{
    constexpr size_t DOWN_RING = 267392, SLOT = 4176, RECORD = 48;
    const Segment share(20206372);
    const std::string slot = "\3" + padded("topic", 64) + padded("", 3) + number(5, 4);
    const std::string middle_of_record = number(2, 4) + number(0, 4) + number(1, 4) + number(0, 4) +
                                         number(6, 8) + number(3'000'000'000'000, 8) + number(6, 8) +
                                         number(5, 8) + padded("", 16);
    const auto put_foreign_packet = [&](size_t ring, size_t write_index, uint32_t index) {
        const std::string foreign = slot + number(0x7715104D, 4) + "hello";
        memcpy(segment.base + ring, foreign.data(), foreign.size());
        memcpy(share.base + RECORD + write_index, number(index, 4).data(), 4);
    };
    const auto expect_packet = [](const mbus_pkg *pkg) {
        ASSERT_EQ(payload(pkg), "hello");
        EXPECT_EQ(pkg->type, 3);
        EXPECT_EQ(std::string(pkg->name, 64), padded("topic", 64));
    };
    memset(segment.base + 76, '#', SLOT);
    Process([&] {
        connect_as("demo");
        mbus_pkg pkg = packet("hello", "topic" + padded("", 1) + std::string(58, '!'), 3);
        EXPECT_EQ(qzlib_mbus_write_pkg(qzlib_find_client_by_name("demo"), &pkg), 0);
        EXPECT_EQ(qzlib_mbus_write(nullptr, 0, std::string(70, 't').c_str(), "x", 1), 1);
        put_foreign_packet(DOWN_RING, 56, 1);
        expect_packet(qzlib_mbus_read_pkg(nullptr, 1));
        EXPECT_EQ(qzlib_client_set_flag(0x80402000), 0);
    });
    EXPECT_EQ(segment.bytes(0, 72), slot);
    EXPECT_EQ(segment.base[72] & 1, 1) << "a writer's mark is no address of a payload";
    EXPECT_EQ(segment.bytes(76, 6), "hello#");
    EXPECT_EQ(segment.bytes(SLOT + 1, 64), std::string(64, 't'));
    put_foreign_packet(0, 48, 2);
    const mbus_pkg *pkg = qzlib_mbus_read_pkg(record, 1);
    expect_packet(pkg);
    const auto address = reinterpret_cast<uintptr_t>(pkg->data);
    EXPECT_EQ(segment.bytes(72, 4), number(address, 4));
    ASSERT_EQ(payload(qzlib_mbus_read_pkg(record, 1)), "x");
    record->server_offered = 3'000'000'000'000;
    record->up_read = 0;
    EXPECT_EQ(share.bytes(RECORD, 32), padded("demo", 32));
    EXPECT_EQ(share.bytes(RECORD + 48, 64), middle_of_record);
    EXPECT_EQ(share.bytes(RECORD + 160, 4), number(0x80402001, 4));

    const mbus_seg_handle &handle = record->server_handle;
    const bool has_addresses = sizeof(void *) == sizeof(uint32_t);
    EXPECT_EQ(handle.up_ring, has_addresses ? address - 76 : 0);
    EXPECT_EQ(handle.down_ring, has_addresses ? handle.up_ring + DOWN_RING : 0);
    EXPECT_TRUE(has_addresses ? handle.address == handle.up_ring : handle.address != 0);
    EXPECT_EQ(has_addresses, reinterpret_cast<uintptr_t>(pkg) + 76 == address) << "handed out in the ring";
}

TEST_F(Bus, refuses_bad_packets_uncounted)
{
    const std::string text(4097, 'p');
    const mbus_pkg good = packet("x");
    mbus_pkg bad[] = {packet(""), packet(text), packet("x", "", 4), packet("x", "", 255), good};
    bad[4].data = nullptr;
    for (const mbus_pkg &pkg : bad)
        EXPECT_EQ(qzlib_mbus_write_pkg(record, &pkg), -1);
    EXPECT_EQ(qzlib_mbus_write_pkg(nullptr, &good), -1);
    EXPECT_EQ(qzlib_mbus_write_pkg(record, nullptr), -1);
    EXPECT_EQ(record->server_offered, 0U);
    EXPECT_EQ(qzlib_mbus_write(nullptr, 0, "", "x", 1), -1) << "not connected";
    EXPECT_EQ(qzlib_mbus_read_pkg(nullptr, 0), nullptr);
}

TEST_F(Bus, carries_a_buffer_as_a_run_of_packets_that_stops_at_a_full_ring)
{
    start_log("id");
    std::string text(10000, ' '), written;
    for (size_t i = 0; i < text.size(); ++i)
        text[i] = static_cast<char>(i * 7 >> 3);
    EXPECT_EQ(qzlib_mbus_write(record, 2, "topic", text.data(), 10000), 10000);
    for (const Slot &slot : std::initializer_list<Slot>{segment.down[0], segment.down[1], segment.down[2]}) {
        EXPECT_EQ(slot.type, 2);
        EXPECT_STREQ(slot.name, "topic");
        written.append(slot.payload, slot.length);
    }
    EXPECT_EQ(segment.down[0].length, 4096U);
    EXPECT_EQ(segment.down[1].length, 4096U);
    EXPECT_EQ(written, text);
    EXPECT_EQ(qzlib_mbus_write(record, 0, nullptr, text.data(), 0), 0);
    EXPECT_EQ(qzlib_mbus_write(record, 4, nullptr, text.data(), 10), 0);

    while (record->down_write != 62)
        ASSERT_EQ(qzlib_mbus_write(record, 0, nullptr, "x", 1), 1);
    const uint64_t offered = record->server_offered;
    EXPECT_EQ(qzlib_mbus_write(record, 0, nullptr, text.data(), 10000), 4096);
    EXPECT_EQ(record->down_write, 63U);
    EXPECT_EQ(qzlib_mbus_write(record, 0, nullptr, text.data(), 5), 0);
    EXPECT_EQ(record->server_offered, offered + 4096 + 4096 + 5) << "dropped ones included";
    EXPECT_EQ(record->server_dropped, 4096U + 5U);
    EXPECT_TRUE(logged("<DEBUG>id:mbus write drop, name:demo, size:5\n"));
}

TEST_F(Bus, gives_back_a_slot_with_the_next_read_of_that_ring)
{
    start_log("id");
    mbus_client *other = server.add("other");
    for (const char *name : {"demo", "other"})
        Process([name] {
            connect_as(name);
            EXPECT_EQ(qzlib_mbus_write(nullptr, 1, "", name, 4), 4);
            EXPECT_EQ(qzlib_mbus_write_data("second", 6), 6);
        });
    const mbus_pkg *first = qzlib_mbus_read_pkg(record, 1);
    ASSERT_EQ(payload(first), "demo");
    EXPECT_EQ(payload(qzlib_mbus_read_pkg(other, 1)), "othe");
    EXPECT_EQ(payload(first), "demo") << "valid while other rings are read";
    EXPECT_EQ(record->up_read, 0U);
    EXPECT_EQ(payload(qzlib_mbus_read_pkg(record, 1)), "second");
    EXPECT_EQ(record->up_read, 1U);
    EXPECT_EQ(qzlib_mbus_read_pkg(record, 1), nullptr);
    EXPECT_EQ(record->up_read, 2U);
    EXPECT_EQ(record->server_read, 10U);
    EXPECT_EQ(qzlib_mbus_read_pkg(other, 0), nullptr) << "the server's side never waits";
    EXPECT_TRUE(logged("<WARNING>id:mbus read fail, name:other\n"));
}

TEST_F(Bus, skips_corrupt_slots)
{
    start_log("id");
    const Table<int, uint32_t, bool> cases = {{0, 0, false},           {3, 1, true},   {0, 4176, true},
                                              {0, 4177, false},        {4, 5, false},  {255, 5, false},
                                              {0, 0xffffffffU, false}, {2, 4096, true}};
    uint32_t index = 0;
    for (const auto &[type, length, accepted] : cases) {
        Slot &slot = segment.up[index];
        slot.type = static_cast<uint8_t>(type);
        slot.length = length;
        slot.data_address = 1;
        __atomic_store_n(&record->up_write, ++index, __ATOMIC_RELEASE);
        EXPECT_EQ(qzlib_mbus_read_pkg(record, 1) != nullptr, accepted) << length;
        EXPECT_EQ(record->up_read, accepted ? index - 1 : index);
        EXPECT_EQ(slot.data_address != 0, accepted);
    }
    EXPECT_TRUE(logged("<WARNING>id:mbus read fail, name:demo, type:4, len:5\n"));
    EXPECT_TRUE(logged("<WARNING>id:mbus read fail, name:demo, type:0, len:-1\n"));
}

// What a plain peer does to make a packet of one byte. It has no fence between the packet and its look for
// waiters; what it misses is late by the bounded wait.
void put_plainly(Slot *ring, uint32_t &write, uint32_t data_address, char value)
{
    Slot &slot = ring[write];
    slot.type = 0;
    slot.length = 1;
    slot.data_address = data_address;
    slot.payload[0] = value;
    __atomic_store_n(&write, (write + 1) % 64, __ATOMIC_RELEASE);
}

TEST_F(Bus, loses_nothing_to_a_writer_at_the_readers_own_address)
{
    uint32_t mark = 0; // what the reader leaves in slot 0, and a plain writer there would, too
    const auto put_and_read = [&](char value) {
        const uint32_t at = record->up_write;
        put_plainly(segment.up, record->up_write, mark + at * QZLIB_MBUS_SLOT_SIZE, value);
        ASSERT_EQ(payload(qzlib_mbus_read_pkg(record, 1)), std::string(1, value)) << at;
        mark = segment.up[at].data_address - at * QZLIB_MBUS_SLOT_SIZE;
    };
    for (int i = 0; i < 1025; ++i)
        put_and_read(static_cast<char>(i % 251));
    EXPECT_EQ(qzlib_mbus_read_pkg(record, 1), nullptr) << "slot 0 was the last one";
    record->up_write = record->up_read = 0; // its client connects anew
    put_and_read('!');
}

// Threads read and write, another one leaves the bus, or first detaches the table: no access to memory that
// is gone, and nobody waits for who keeps trying.
TEST_F(Bus, is_left_while_other_threads_read_and_write)
{
    Process client([] {
        for (int i = 0; i < scaled(300); ++i) {
            connect_as("demo");
            const std::jthread reader([] {
                while (qzlib_mbus_read_pkg(nullptr, 0) != nullptr)
                    continue;
            });
            const std::jthread writer([] {
                while (qzlib_mbus_write_data("x", 1) >= 0)
                    sched_yield();
            });
            usleep(static_cast<useconds_t>(i) * 5);
            const Stopwatch watch;
            if (i % 3 == 0)
                qzlib_mbus_share_uninit();
            EXPECT_EQ(qzlib_disconnect_mbus_server(), 0);
            EXPECT_LT(watch.punctual_seconds(), patient(1.0));
        }
    });
    const std::jthread peer([this](const std::stop_token &stop) {
        while (!stop.stop_requested()) {
            (void)qzlib_mbus_write(record, 0, nullptr, "x", 1);
            (void)qzlib_mbus_read_pkg(record, 1);
            (void)server.control();
        }
    });
    EXPECT_EQ(client.wait(), 0);
}

void send_texts(mbus_client *record, unsigned seed)
{
    std::minstd_rand random(seed);
    for (int i = 0; i < ROUNDS; ++i) {
        const std::string text = next_text(random);
        const mbus_pkg pkg = packet(text, "", static_cast<uint8_t>(i % 4));
        while (qzlib_mbus_write_pkg(record, &pkg) != 0)
            sched_yield();
    }
}

void receive_texts(mbus_client *record, unsigned seed, int nowait)
{
    std::minstd_rand random(seed);
    for (int i = 0; i < ROUNDS; ++i) {
        const mbus_pkg *pkg = nullptr;
        while ((pkg = qzlib_mbus_read_pkg(record, nowait)) == nullptr)
            sched_yield();
        ASSERT_EQ(payload(pkg), next_text(random)) << i;
        ASSERT_EQ(pkg->type, i % 4);
    }
    EXPECT_EQ(qzlib_mbus_read_pkg(record, 1), nullptr);
}

TEST_F(Bus, carries_everything_in_both_directions_at_once)
{
    Process client([this] {
        connect_as("demo");
        const std::jthread writer([this] { send_texts(record, 1); });
        usleep(50'000); // the reader starts late
        receive_texts(record, 2, 0);
    });
    await_connected(record);
    {
        const std::jthread writer([this] { send_texts(record, 2); });
        receive_texts(record, 1, 1);
    }
    ASSERT_EQ(client.wait(), 0);
    EXPECT_EQ(record->client_offered - record->client_dropped, record->server_read);
    EXPECT_EQ(record->server_offered - record->server_dropped, record->client_read);
}

#ifndef __SANITIZE_THREAD__ // its own thread would outlive the one that is killed
TEST_F(Bus, makes_no_system_call_while_nobody_waits)
{
    Process([this] {
        connect_as("demo");
        for (uint32_t slot = 0; slot < 64; ++slot)
            segment.down[slot].length = 100;
        const std::string text(100, 'x');
        const mbus_pkg pkg = packet(text);
        EXPECT_EQ(qzlib_mbus_write_pkg(record, &pkg), 0); // finds out what libc's conditions are like
        prctl(PR_SET_SECCOMP, SECCOMP_MODE_STRICT);       // a system call ends the process
        for (int done = 0; done < 10'000; ++done) {
            record->down_write = (record->down_write + 1) % 64;
            if (qzlib_mbus_write_pkg(record, &pkg) != 0 || qzlib_mbus_read_pkg(nullptr, 0) == nullptr)
                syscall(SYS_exit, 1);
            record->up_read = record->up_write;
        }
        syscall(SYS_exit, 0);
    });
}
#endif

// A client that stops itself between its readings, traced from its first stop on.
struct TracedReader : Bus {
    TracedReader()
    {
        waitpid(pid, nullptr, 0);
        ptrace(PTRACE_SETOPTIONS, pid, nullptr, PTRACE_O_TRACESYSGOOD | PTRACE_O_EXITKILL);
    }
    ~TracedReader() override { EXPECT_EQ(client.end(SIGKILL), -SIGKILL); }

    // Lets it go on until it stops itself, and has a look at its system calls as they begin and end.
    template <typename Look>
    void follow(Look look)
    {
        int status = 0;
        do {
            ptrace(PTRACE_SYSCALL, pid, nullptr, nullptr);
            waitpid(pid, &status, 0);
            ASSERT_TRUE(WIFSTOPPED(status));
            __ptrace_syscall_info call{};
            if (WSTOPSIG(status) == (SIGTRAP | 0x80) &&
                ptrace(PTRACE_GET_SYSCALL_INFO, pid, sizeof call, &call) > 0)
                look(call);
        } while (WSTOPSIG(status) != SIGSTOP);
    }

    Process client{[] {
        connect_as("demo");
        ptrace(PTRACE_TRACEME, 0, nullptr, nullptr);
        do
            raise(SIGSTOP);
        while (qzlib_mbus_read_pkg(nullptr, 0) != nullptr);
    }};
    const pid_t pid = client.pid();
};

#ifdef __x86_64__ // the others cannot stop a process at each instruction: kill_after() of test_mbusd
// A reader is stopped after every number of instructions on its way to sleep, and a packet comes.
TEST_F(TracedReader, misses_no_packet_on_the_way_to_sleep)
{
    int missed = 0;
    bool slept = false;
    for (int steps = 0; !slept; steps += slowness()) {
        for (int i = 0; i < steps && !slept; ++i) {
            ASSERT_EQ(ptrace(PTRACE_SINGLESTEP, pid, nullptr, nullptr), 0);
            waitpid(pid, nullptr, 0);
            user_regs_struct registers{};
            ptrace(PTRACE_GETREGS, pid, nullptr, &registers);
            slept = static_cast<long>(registers.rax) == -ETIMEDOUT;
        }
        ASSERT_EQ(qzlib_mbus_write(record, 0, nullptr, "x", 1), 1);
        follow([&](auto &call) {
            missed += call.op == PTRACE_SYSCALL_INFO_EXIT && call.exit.rval == -ETIMEDOUT;
        });
    }
    EXPECT_EQ(missed, 0);
}
#endif

// It stays awake for a moment, and learns that this is in vain.
TEST_F(TracedReader, sleeps_at_once_with_little_to_do)
{
    int yields = 0;
    for (int i = 0; i < 300; ++i) {
        bool sent = false;
        follow([&](auto &call) {
            yields += call.op == PTRACE_SYSCALL_INFO_ENTRY && call.entry.nr == SYS_sched_yield;
            if (call.op == PTRACE_SYSCALL_INFO_ENTRY && call.entry.nr == SYS_futex && !sent)
                sent = qzlib_mbus_write(record, 0, nullptr, "x", 1) == 1;
        });
    }
    EXPECT_LE(yields, 450) << "one a wait";
}

// A peer that knows pthread_cond_wait() and nothing of ours: no limit on its wait, and its
// test for a packet outside any shared mutex.
void read_plainly(pthread_cond_t *condition, uint32_t &write, uint32_t &read)
{
    static pthread_mutex_t mutex = PTHREAD_MUTEX_INITIALIZER;
    for (int i = 0; i < ROUNDS; ++i) {
        while (now(write) == read) {
            pthread_mutex_lock(&mutex);
            pthread_cond_wait(condition, &mutex);
            pthread_mutex_unlock(&mutex);
        }
        __atomic_store_n(&read, (read + 1) % 64, __ATOMIC_RELEASE);
    }
}

void write_each_when_read(mbus_client *client, const uint32_t &write, const uint32_t &read)
{
    for (int i = 0; i < ROUNDS; ++i) {
        ASSERT_EQ(qzlib_mbus_write(client, 0, nullptr, "x", 1), 1);
        spin([&] { return now(read) == write; });
    }
}

TEST_F(Bus, wakes_a_plain_peer_every_time)
{
    server.init_condition(&record->down_cond);
    Process plain_client([this] { read_plainly(&record->down_cond, record->down_write, record->down_read); });
    write_each_when_read(record, record->down_write, record->down_read);
    EXPECT_EQ(plain_client.wait(), 0);
    const Process client([this] {
        connect_as("demo");
        write_each_when_read(nullptr, record->up_write, record->up_read);
    });
    await_connected(record);
    read_plainly(&server.share()->up_cond, record->up_write, record->up_read);
}

// The other way round: pthread_cond_signal() wakes our reader, as fast as our own writer does. Each
// packet meets it on its way to sleep, but for every other time, so that it does not learn to stay awake.
TEST_F(Bus, is_woken_by_a_plain_server)
{
    const Process client([] {
        connect_as("demo");
        for (int i = 0; i < ROUNDS; ++i) {
            ASSERT_NE(qzlib_mbus_read_pkg(nullptr, 0), nullptr);
            ASSERT_EQ(qzlib_mbus_read_pkg(nullptr, 1), nullptr) << "gives the slot back";
        }
    });
    await_connected(record);
    std::minstd_rand random(6);
    Clock::duration took[2] = {};
    for (int i = 0; i < ROUNDS; ++i) {
        const auto pause = std::chrono::nanoseconds(i % 2 == 0 ? random() % 4000 : 70'000);
        for (const auto begin = Clock::now(); Clock::now() - begin < pause;)
            continue;
        const bool plain = i % 4 < 2;
        const auto start = Clock::now();
        if (plain) {
            put_plainly(segment.down, record->down_write, 0x1000, 'x');
            pthread_cond_signal(&record->down_cond);
        } else {
            ASSERT_EQ(qzlib_mbus_write(record, 0, nullptr, "x", 1), 1);
        }
        spin([this] { return now(record->down_read) == record->down_write; });
        took[plain] += Clock::now() - start;
    }
    EXPECT_LT(took[true], 4 * took[false]) << "woken, not found by a timeout";
}

// The reader's waits are looked at, not the time that a loaded machine makes of them.
TEST_F(TracedReader, gets_a_packet_without_any_signal_no_later_than_the_ring_was_idle)
{
    long idle_ms = 0, longest_ms = 0;
    follow([&](auto &call) {
        if (call.op != PTRACE_SYSCALL_INFO_ENTRY || call.entry.nr != SYS_futex ||
            (static_cast<int>(call.entry.args[1]) & FUTEX_CMD_MASK) != FUTEX_WAIT)
            return;
        long timeout[2] = {}; // in seconds and nanoseconds, as the kernel has them for this call
        memcpy(timeout, Call{pid, 0, {}}.memory(call.entry.args[3], sizeof timeout).data(), sizeof timeout);
        const long wait_ms = timeout[0] * 1000 + timeout[1] / 1'000'000;
        EXPECT_LE(wait_ms, idle_ms + 1);
        idle_ms += wait_ms;
        longest_ms = std::max(longest_ms, wait_ms);
        if (idle_ms > 3000 && record->down_write == 0)
            put_plainly(segment.down, record->down_write, 0x1000, 'x');
    });
    EXPECT_EQ(longest_ms, 1000);
}

// The state that a peer leaves that was killed inside pthread_cond_signal(), or while it
// waited, and garbage.
TEST_F(Bus, does_not_hang_on_a_spoilt_condition)
{
    const Process client([] {
        connect_as("demo");
        for (int i = 0; i < 300; ++i) {
            ASSERT_NE(qzlib_mbus_read_pkg(nullptr, 0), nullptr);
            ASSERT_EQ(qzlib_mbus_write_data("x", 1), 1);
        }
    });
    await_connected(record);
    std::mt19937 garbage(3);
    for (int i = 0; i < 300; ++i) {
        auto *words =
            reinterpret_cast<uint32_t *>(i % 2 == 0 ? &record->down_cond : &server.share()->up_cond);
        std::generate_n(words, 12,
                        [&] { return i % 3 == 0 ? 0xffffffffU : static_cast<uint32_t>(garbage()); });
        ASSERT_EQ(qzlib_mbus_write(record, 0, nullptr, "x", 1), 1);
        ASSERT_TRUE(eventually([this] { return qzlib_mbus_read_pkg(record, 1) != nullptr; }));
    }
}

} // namespace
