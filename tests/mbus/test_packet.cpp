#include "mbus/bus_box.h"

#include <chrono>
#include <sched.h>
#include <sys/ptrace.h>
#include <sys/syscall.h>
#include <thread>

#include "support/case.h"

namespace
{

using namespace support;
using Clock = std::chrono::steady_clock;

// What is counted, not what is timed, shrinks on slow machines.
const int ROUNDS = scaled(20000);

// Looks hard for a moment, to meet the races, and then leaves the processor to others.
template <typename Condition>
void await(Condition condition)
{
    for (int i = 0; !condition(); ++i)
        if (i > 200)
            usleep(20);
}

TEST(Write, fills_in_names_and_payload_to_the_byte)
{
    ServerEnd server;
    server.add("demo");
    const RawSegment segment(qzlib_mbus_name_to_key("demo"));
    memset(segment.at(0), '#', 2 * SLOT);
    const Child client([] {
        connect_as("demo");
        mbus_client *own = qzlib_find_client_by_name("demo");
        mbus_pkg pkg = packet("payload", std::string(64, 't'));
        EXPECT_EQ(qzlib_mbus_write_pkg(own, &pkg), 0);
        memset(pkg.name, '!', sizeof pkg.name); // what lies after the terminator is not copied
        strcpy(pkg.name, "0123456789");
        EXPECT_EQ(qzlib_mbus_write_pkg(own, &pkg), 0);
    });
    ASSERT_EQ(const_cast<Child &>(client).wait(), 0);
    EXPECT_EQ(std::string(segment.at(1), 64), std::string(64, 't'));
    EXPECT_EQ(segment.word(72) & 1U, 1U) << "a writer's mark is no address of a payload";
    EXPECT_EQ(std::string(segment.at(76), 8), "payload#");
    EXPECT_EQ(std::string(segment.at(SLOT + 1), 64), "0123456789" + std::string(54, '\0'));
}

// The bytes of an unsigned number in the formats, whatever machine this is.
std::string number(uint64_t value, size_t size)
{
    std::string bytes;
    for (size_t i = 0; i < size; ++i)
        bytes += static_cast<char>(value >> (8 * i));
    return bytes;
}

std::string padded(std::string text, size_t size)
{
    text.resize(size, '\0');
    return text;
}

// One machine writes these bytes and another one reads them, so every machine is held to both.
// Left out are the fields that hold addresses, and libc's condition.
TEST(Format, of_record_and_ring_is_the_same_on_every_machine)
{
    const std::string slot = "\3" + padded("topic", 64) + padded("", 3) + number(5, 4);
    const std::string record_middle = number(1, 4) + number(0, 4) + number(1, 4) + number(0, 4) +
                                      number(5, 8) + number(3'000'000'000'000, 8) + number(5, 8) +
                                      number(5, 8) + padded("", 16);
    ServerEnd server;
    mbus_client *record = server.add("demo");
    const RawSegment share(SHARE_KEY);
    const RawSegment segment(qzlib_mbus_name_to_key("demo"));
    const auto put_foreign_packet = [&](size_t ring, size_t write_index) {
        const std::string foreign = slot + number(0x7715104D, 4) + "hello";
        memcpy(segment.at(ring), foreign.data(), foreign.size());
        memcpy(share.at(record_at(0) + write_index), number(1, 4).data(), 4);
    };
    const auto expect_packet = [](const mbus_pkg *pkg) {
        ASSERT_EQ(payload(pkg), "hello");
        EXPECT_EQ(pkg->type, 3);
        EXPECT_EQ(std::string(pkg->name, 64), padded("topic", 64));
    };
    Child client([&] {
        connect_as("demo");
        EXPECT_EQ(qzlib_mbus_write(nullptr, 3, "topic", "hello", 5), 5);
        put_foreign_packet(DOWN_RING, DOWN_WRITE);
        expect_packet(qzlib_mbus_read_pkg(nullptr, 1));
        EXPECT_EQ(qzlib_client_set_flag(0x80402000), 0);
    });
    ASSERT_EQ(client.wait(), 0);
    EXPECT_EQ(std::string(segment.at(0), 72), slot);
    EXPECT_EQ(std::string(segment.at(76), 5), "hello");
    put_foreign_packet(0, UP_WRITE);
    expect_packet(qzlib_mbus_read_pkg(record, 1));
    record->server_offered = 3'000'000'000'000;
    EXPECT_EQ(std::string(share.at(record_at(0)), 32), padded("demo", 32));
    EXPECT_EQ(std::string(share.at(record_at(0) + 48), 64), record_middle);
    EXPECT_EQ(std::string(share.at(record_at(0) + 160), 4), number(0x80402001, 4));
}

// The words of the handle, and where a packet is handed out: the two things in which machines differ.
TEST(Format, has_addresses_where_addresses_have_32_bits)
{
    ServerEnd server;
    mbus_client *record = server.add("demo");
    const Child client([] {
        connect_as("demo");
        EXPECT_EQ(qzlib_mbus_write_data("hello", 5), 5);
    });
    ASSERT_EQ(const_cast<Child &>(client).wait(), 0);
    const RawSegment segment(qzlib_mbus_name_to_key("demo"));
    const mbus_pkg *pkg = qzlib_mbus_read_pkg(record, 1);
    const auto *payload = static_cast<const char *>(pkg->data);
    const mbus_seg_handle &handle = record->server_handle;
    EXPECT_EQ(segment.word(72), static_cast<uint32_t>(reinterpret_cast<uintptr_t>(payload)));
    if constexpr (sizeof(void *) == sizeof(uint32_t)) {
        const auto *base = reinterpret_cast<const volatile char *>(uintptr_t{handle.address});
        EXPECT_EQ(reinterpret_cast<uintptr_t>(pkg), handle.up_ring);
        EXPECT_EQ(reinterpret_cast<uintptr_t>(payload), handle.up_ring + 76);
        EXPECT_EQ(handle.up_ring, handle.address);
        EXPECT_EQ(handle.down_ring, handle.address + DOWN_RING);
        *segment.at(DOWN_RING + 99) = '#';
        EXPECT_EQ(base[DOWN_RING + 99], '#') << "the same memory";
    } else {
        EXPECT_NE(handle.address, 0U);
        EXPECT_EQ(handle.up_ring + handle.down_ring, 0U);
    }
}

TEST(Write, refuses_bad_packets_uncounted)
{
    ServerEnd server;
    mbus_client *record = server.add("demo");
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

TEST(Write, of_a_buffer_is_a_run_of_packets_that_stops_at_a_full_ring)
{
    const LogFile log;
    ServerEnd server;
    mbus_client *record = server.add("demo");
    std::string text(10000, ' ');
    for (size_t i = 0; i < text.size(); ++i)
        text[i] = static_cast<char>(i * 7 >> 3);
    EXPECT_EQ(qzlib_mbus_write(record, 2, "topic", text.data(), 10000), 10000);
    const RawSegment segment(qzlib_mbus_name_to_key("demo"));
    std::string written;
    for (size_t i = 0; i < 3; ++i) {
        EXPECT_EQ(*segment.at(DOWN_RING + i * SLOT), 2);
        EXPECT_STREQ(segment.at(DOWN_RING + i * SLOT + 1), "topic");
        EXPECT_EQ(segment.word(DOWN_RING + i * SLOT + 68), i < 2 ? 4096U : 1808U);
        written.append(segment.at(DOWN_RING + i * SLOT + 76), segment.word(DOWN_RING + i * SLOT + 68));
    }
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
    EXPECT_TRUE(LogFile::has("<DEBUG>id:mbus write drop, name:demo, size:5"));
}

TEST(Read, gives_back_a_slot_with_the_next_read_of_that_ring)
{
    const LogFile log;
    ServerEnd server;
    mbus_client *a = server.add("a");
    mbus_client *b = server.add("b");
    for (const char *name : {"a", "b"}) {
        Child client([&] {
            connect_as(name);
            EXPECT_EQ(qzlib_mbus_write(nullptr, 1, "first", name, 1), 1);
            EXPECT_EQ(qzlib_mbus_write_data("second", 6), 6);
        });
    }
    const mbus_pkg *first = qzlib_mbus_read_pkg(a, 1);
    ASSERT_EQ(payload(first), "a");
    EXPECT_EQ(payload(qzlib_mbus_read_pkg(b, 1)), "b");
    EXPECT_EQ(payload(first), "a") << "valid while other rings are read";
    EXPECT_STREQ(first->name, "first");
    EXPECT_EQ(first->type, 1);
    EXPECT_EQ(a->up_read, 0U);
    EXPECT_EQ(payload(qzlib_mbus_read_pkg(a, 1)), "second");
    EXPECT_EQ(a->up_read, 1U);
    EXPECT_EQ(qzlib_mbus_read_pkg(a, 1), nullptr);
    EXPECT_EQ(a->up_read, 2U);
    EXPECT_EQ(a->server_read, 7U);
    EXPECT_EQ(qzlib_mbus_read_pkg(b, 0), nullptr) << "the server's side never waits";
    EXPECT_TRUE(LogFile::has("<WARNING>id:mbus read fail, name:b"));
}

TEST(Read, skips_corrupt_slots)
{
    const LogFile log;
    ServerEnd server;
    mbus_client *record = server.add("demo");
    const RawSegment segment(qzlib_mbus_name_to_key("demo"));
    const struct {
        char type;
        uint32_t length;
        bool accepted;
    } slots[] = {{0, 0, false}, {3, 1, true},       {0, 4176, true},         {0, 4177, false},
                 {4, 5, false}, {'\xff', 5, false}, {0, 0xffffffffU, false}, {2, 4096, true}};
    uint32_t index = 0;
    for (const auto &slot : slots) {
        *segment.at(index * SLOT) = slot.type;
        segment.word(index * SLOT + 68) = slot.length;
        segment.word(index * SLOT + 72) = 1;
        __atomic_store_n(&record->up_write, ++index, __ATOMIC_RELEASE);
        const mbus_pkg *pkg = qzlib_mbus_read_pkg(record, 1);
        EXPECT_EQ(pkg != nullptr, slot.accepted) << slot.length;
        EXPECT_EQ(record->up_read, slot.accepted ? index - 1 : index);
        if (!slot.accepted) {
            EXPECT_EQ(segment.word((index - 1) * SLOT + 72), 0U);
        }
    }
    EXPECT_TRUE(LogFile::has("<WARNING>id:mbus read fail, name:demo, type:4, len:5"));
    EXPECT_TRUE(LogFile::has("<WARNING>id:mbus read fail, name:demo, type:0, len:-1"));
}

TEST(Read, loses_nothing_to_a_writer_at_its_own_address)
{
    ServerEnd server;
    mbus_client *record = server.add("demo");
    const RawSegment segment(qzlib_mbus_name_to_key("demo"));
    uint32_t mark = 0; // what the reader leaves in slot 0, and a plain writer there would, too
    const auto put_and_read = [&](uint32_t slot, uint32_t value) {
        *segment.at(slot * SLOT) = 0;
        segment.word(slot * SLOT + 68) = 4;
        segment.word(slot * SLOT + 72) = mark + slot * SLOT;
        segment.word(slot * SLOT + 76) = value;
        __atomic_store_n(&record->up_write, (slot + 1) % 64, __ATOMIC_RELEASE);
        ASSERT_NE(qzlib_mbus_read_pkg(record, 1), nullptr) << value;
        ASSERT_EQ(segment.word(slot * SLOT + 76), value);
        mark = segment.word(slot * SLOT + 72) - slot * SLOT;
    };
    for (uint32_t i = 0; i < 1025; ++i)
        put_and_read(i % 64, i);
    EXPECT_EQ(qzlib_mbus_read_pkg(record, 1), nullptr) << "slot 0 was the last one";
    record->up_write = record->up_read = 0; // its client connects anew
    put_and_read(0, 1025);
}

// Threads read and write, another one disconnects: no access to memory that is gone.
TEST(Bus, is_left_while_other_threads_read_and_write)
{
    ServerEnd server;
    mbus_client *record = server.add("demo");
    Child client([] {
        for (int i = 0; i < scaled(300); ++i) {
            connect_as("demo");
            std::thread reader([] {
                while (qzlib_mbus_read_pkg(nullptr, 0) != nullptr) {
                }
            });
            std::thread writer([] {
                while (qzlib_mbus_write_data("x", 1) >= 0)
                    sched_yield();
            });
            usleep(static_cast<useconds_t>(i) * 5);
            EXPECT_EQ(qzlib_disconnect_mbus_server(), 0);
            reader.join();
            writer.join();
        }
        _exit(testing::Test::HasFailure() ? 1 : 0);
    });
    int status = 0;
    while (waitpid(client.pid(), &status, WNOHANG) == 0) {
        (void)qzlib_mbus_write(record, 0, nullptr, "x", 1);
        (void)qzlib_mbus_read_pkg(record, 1);
        (void)server.control();
    }
    EXPECT_EQ(status, 0);
    client.wait();
}

TEST(Bus, carries_everything_in_both_directions_at_once)
{
    ServerEnd server;
    mbus_client *record = server.add("demo");
    const Child client([] {
        connect_as("demo");
        mbus_client *own = qzlib_find_client_by_name("demo");
        std::thread writer([own] {
            Pattern up(1);
            for (int i = 0; i < ROUNDS; ++i) {
                const std::string text = up.packet();
                const mbus_pkg pkg = packet(text, "", static_cast<uint8_t>(i % 4));
                while (qzlib_mbus_write_pkg(own, &pkg) != 0)
                    sched_yield();
            }
        });
        usleep(50'000); // the reader starts late
        Pattern down(2);
        for (int i = 0; i < ROUNDS; ++i) {
            const mbus_pkg *pkg = qzlib_mbus_read_pkg(nullptr, 0);
            ASSERT_EQ(payload(pkg), down.packet()) << i;
            ASSERT_EQ(pkg->type, i % 4);
        }
        writer.join();
        EXPECT_EQ(qzlib_mbus_read_pkg(nullptr, 1), nullptr);
    });
    await_connected(record);
    Pattern up(1);
    Pattern down(2);
    uint64_t bytes_up = 0;
    uint64_t bytes_down = 0;
    std::string text = down.packet();
    for (int sent = 0, received = 0; sent < ROUNDS || received < ROUNDS;) {
        const mbus_pkg pkg = packet(text, "", static_cast<uint8_t>(sent % 4));
        const bool room =
            (record->down_write + 1) % 64 != __atomic_load_n(&record->down_read, __ATOMIC_ACQUIRE);
        if (sent < ROUNDS && room && qzlib_mbus_write_pkg(record, &pkg) == 0) {
            bytes_down += text.size();
            text = down.packet();
            ++sent;
        }
        const mbus_pkg *read = qzlib_mbus_read_pkg(record, 1);
        if (read != nullptr) {
            ASSERT_EQ(payload(read), up.packet()) << received;
            ASSERT_EQ(read->type, received++ % 4);
            bytes_up += read->length;
        } else {
            sched_yield();
        }
    }
    ASSERT_EQ(const_cast<Child &>(client).wait(), 0);
    EXPECT_EQ(record->server_read, bytes_up);
    EXPECT_EQ(record->client_offered - record->client_dropped, bytes_up);
    EXPECT_EQ(record->client_read, bytes_down);
    EXPECT_EQ(record->server_offered, bytes_down);
    EXPECT_EQ(record->server_dropped, 0U);
}

// A child that is traced from its first stop on.
void begin_trace(pid_t pid)
{
    waitpid(pid, nullptr, 0);
    ptrace(PTRACE_SETOPTIONS, pid, nullptr, PTRACE_O_TRACESYSGOOD | PTRACE_O_EXITKILL);
}

// Lets a stopped child go on until it stops itself or ends, and has a look at its system calls as
// they begin and end. Its status.
template <typename Look>
int follow(pid_t pid, Look look)
{
    int status = 0;
    do {
        ptrace(PTRACE_SYSCALL, pid, nullptr, nullptr);
        waitpid(pid, &status, 0);
        __ptrace_syscall_info call{};
        if (WIFSTOPPED(status) && WSTOPSIG(status) == (SIGTRAP | 0x80) &&
            ptrace(PTRACE_GET_SYSCALL_INFO, pid, sizeof call, &call) > 0)
            look(call);
    } while (WIFSTOPPED(status) && WSTOPSIG(status) != SIGSTOP);
    return status;
}

TEST(Bus, makes_no_system_call_while_nobody_waits)
{
    ServerEnd server;
    server.add("demo");
    const pid_t client = fork();
    if (client == 0) {
        connect_as("demo");
        mbus_client *own = qzlib_find_client_by_name("demo");
        const RawSegment segment(qzlib_mbus_name_to_key("demo"));
        for (uint32_t slot = 0; slot < 64; ++slot)
            segment.word(DOWN_RING + slot * SLOT + 68) = 100;
        const std::string text(100, 'x');
        const mbus_pkg pkg = packet(text);
        int done = 0;
        ptrace(PTRACE_TRACEME, 0, nullptr, nullptr);
        raise(SIGSTOP);
        for (; done < 10'000; ++done) {
            own->down_write = (own->down_write + 1) % 64;
            if (qzlib_mbus_write_pkg(own, &pkg) != 0 || qzlib_mbus_read_pkg(nullptr, 0) == nullptr)
                break;
            own->up_read = own->up_write;
        }
        _exit(done == 10'000 ? 0 : 1);
    }
    begin_trace(client);
    int calls = 0;
    EXPECT_EQ(follow(client, [&](auto &call) { calls += call.op == PTRACE_SYSCALL_INFO_ENTRY; }), 0);
    EXPECT_LT(calls, 10) << "its exit, and what a sanitizer wants";
}

// What a writer does before each packet that is to meet a reader on its way to sleep: a pause of
// up to 4 us. Every other time one so long that the reader does not learn to stay awake.
void pause_a_moment(Pattern &random)
{
    const uint32_t chance = random.next();
    const auto end = Clock::now() + (chance % 2 == 0 ? std::chrono::nanoseconds(chance / 2 % 4000)
                                                     : std::chrono::microseconds(70));
    while (Clock::now() < end) {
    }
}

void read_between_stops()
{
    connect_as("demo");
    ptrace(PTRACE_TRACEME, 0, nullptr, nullptr);
    do
        raise(SIGSTOP);
    while (qzlib_mbus_read_pkg(nullptr, 0) != nullptr);
}

#ifdef __x86_64__ // the others cannot stop a process at each instruction: kill_after() of test_mbusd
// A reader is stopped after every number of instructions on its way to sleep, and a packet comes.
// On one processor, where changing from one process to the other costs least.
TEST(Bus, misses_no_packet_on_the_way_to_sleep)
{
    cpu_set_t one;
    CPU_ZERO(&one);
    CPU_SET(static_cast<size_t>(sched_getcpu()), &one);
    ASSERT_EQ(sched_setaffinity(0, sizeof one, &one), 0);
    ServerEnd server;
    mbus_client *record = server.add("demo");
    Child client(read_between_stops);
    begin_trace(client.pid());
    int missed = 0;
    bool slept = false;
    for (int steps = 0; !slept; steps += slowness()) {
        for (int i = 0; i < steps; ++i) {
            const auto start = Clock::now();
            ASSERT_EQ(ptrace(PTRACE_SINGLESTEP, client.pid(), nullptr, nullptr), 0);
            waitpid(client.pid(), nullptr, 0);
            slept = slept || (i > 300 && Clock::now() - start > std::chrono::microseconds(900));
        }
        ASSERT_EQ(qzlib_mbus_write(record, 0, nullptr, "x", 1), 1);
        ASSERT_TRUE(WIFSTOPPED(follow(client.pid(), [&](auto &call) {
            missed += call.op == PTRACE_SYSCALL_INFO_EXIT && call.exit.rval == -ETIMEDOUT;
        })));
    }
    EXPECT_EQ(missed, 0);
    client.kill();
}
#endif

// It stays awake for a moment, and learns that this is in vain.
TEST(Bus, reader_with_little_to_do_goes_to_sleep_at_once)
{
    ServerEnd server;
    mbus_client *record = server.add("demo");
    Child client(read_between_stops);
    begin_trace(client.pid());
    int yields = 0;
    for (int i = 0; i < 300; ++i) {
        bool sent = false;
        ASSERT_TRUE(WIFSTOPPED(follow(client.pid(), [&](auto &call) {
            yields += call.op == PTRACE_SYSCALL_INFO_ENTRY && call.entry.nr == SYS_sched_yield;
            if (call.op == PTRACE_SYSCALL_INFO_ENTRY && call.entry.nr == SYS_futex && !sent)
                sent = qzlib_mbus_write(record, 0, nullptr, "x", 1) == 1;
        })));
    }
    EXPECT_LE(yields, 450) << "one a wait";
    client.kill();
}

// A peer that knows pthread_cond_wait() and nothing of ours: no limit on its wait, and its
// test for a packet outside any shared mutex.
void plain_wait(pthread_cond_t *condition, const volatile uint32_t &write, const volatile uint32_t &read)
{
    static pthread_mutex_t mutex = PTHREAD_MUTEX_INITIALIZER;
    while (write == read) {
        pthread_mutex_lock(&mutex);
        pthread_cond_wait(condition, &mutex);
        pthread_mutex_unlock(&mutex);
    }
}

TEST(Bus, wakes_a_plain_server_every_time)
{
    ServerEnd server;
    mbus_client *record = server.add("demo");
    const RawSegment share(SHARE_KEY);
    const Child client([record] {
        connect_as("demo");
        for (int i = 0; i < ROUNDS; ++i) {
            ASSERT_EQ(qzlib_mbus_write_data("x", 1), 1);
            await([&] { return __atomic_load_n(&record->up_read, __ATOMIC_ACQUIRE) == record->up_write; });
        }
    });
    await_connected(record);
    for (int i = 0; i < ROUNDS; ++i) {
        plain_wait(share.condition(0), share.word(record_at(0) + UP_WRITE),
                   share.word(record_at(0) + UP_READ));
        share.word(record_at(0) + UP_READ) = (share.word(record_at(0) + UP_READ) + 1) % 64;
    }
}

TEST(Bus, wakes_a_plain_client_every_time)
{
    ServerEnd server;
    mbus_client *record = server.add("demo");
    const RawSegment share(SHARE_KEY);
    pthread_condattr_t shared;
    pthread_condattr_init(&shared);
    pthread_condattr_setpshared(&shared, PTHREAD_PROCESS_SHARED);
    pthread_cond_init(&record->down_cond, &shared);
    const Child client([&] {
        for (int i = 0; i < ROUNDS; ++i) {
            plain_wait(share.condition(record_at(0) + DOWN_CONDITION), share.word(record_at(0) + DOWN_WRITE),
                       share.word(record_at(0) + DOWN_READ));
            share.word(record_at(0) + DOWN_READ) = (share.word(record_at(0) + DOWN_READ) + 1) % 64;
        }
    });
    for (int i = 0; i < ROUNDS; ++i) {
        ASSERT_EQ(qzlib_mbus_write(record, 0, nullptr, "x", 1), 1);
        await([&] { return __atomic_load_n(&record->down_read, __ATOMIC_ACQUIRE) == record->down_write; });
    }
}

// The other way round: pthread_cond_signal() wakes our reader. A plain writer has no fence
// between its packet and its look for waiters; what it misses is late by the bounded wait.
TEST(Bus, is_woken_by_a_plain_server)
{
    ServerEnd server;
    mbus_client *record = server.add("demo");
    const RawSegment share(SHARE_KEY);
    const RawSegment segment(qzlib_mbus_name_to_key("demo"));
    const Child client([] {
        connect_as("demo");
        for (int i = 0; i < ROUNDS; ++i) {
            ASSERT_NE(qzlib_mbus_read_pkg(nullptr, 0), nullptr);
            ASSERT_EQ(qzlib_mbus_read_pkg(nullptr, 1), nullptr) << "gives the slot back";
        }
    });
    await_connected(record);
    const auto start = Clock::now();
    Pattern random(6);
    for (uint32_t i = 0; i < static_cast<uint32_t>(ROUNDS); ++i) {
        pause_a_moment(random);
        const uint32_t slot = i % 64;
        *segment.at(DOWN_RING + slot * SLOT) = 0;
        segment.word(DOWN_RING + slot * SLOT + 68) = 1;
        segment.word(DOWN_RING + slot * SLOT + 72) = 0x1000;
        share.word(record_at(0) + DOWN_WRITE) = (slot + 1) % 64;
        pthread_cond_signal(share.condition(record_at(0) + DOWN_CONDITION));
        await([&] { return share.word(record_at(0) + DOWN_READ) == (slot + 1) % 64; });
    }
    EXPECT_LT(Clock::now() - start, patient(std::chrono::milliseconds(ROUNDS)))
        << "woken, not found by a timeout";
}

TEST(Bus, packet_without_any_signal_is_late_by_no_more_than_the_ring_was_idle)
{
    ServerEnd server;
    mbus_client *record = server.add("demo");
    const RawSegment segment(qzlib_mbus_name_to_key("demo"));
    const Child client([] {
        connect_as("demo");
        for (int i = 0; i < 3; ++i)
            ASSERT_NE(qzlib_mbus_read_pkg(nullptr, 0), nullptr);
    });
    await_connected(record);
    uint32_t slot = 0;
    for (const int idle_ms : {20, 150, 2500}) {
        usleep(static_cast<useconds_t>(idle_ms) * 1000);
        segment.word(DOWN_RING + slot * SLOT) = 0;
        segment.word(DOWN_RING + slot * SLOT + 68) = 1;
        const auto start = Clock::now();
        __atomic_store_n(&record->down_write, ++slot, __ATOMIC_RELEASE);
        await([&] { return segment.word(DOWN_RING + (slot - 1) * SLOT + 72) != 0; });
        EXPECT_LT(Clock::now() - start, std::chrono::milliseconds(std::min(idle_ms, 1000)) +
                                            patient(std::chrono::milliseconds(200)));
    }
}

// The state that a peer leaves that was killed inside pthread_cond_signal(), or while it
// waited, and garbage.
TEST(Bus, does_not_hang_on_a_spoilt_condition)
{
    ServerEnd server;
    mbus_client *record = server.add("demo");
    const Child client([] {
        connect_as("demo");
        for (int i = 0; i < 300; ++i) {
            ASSERT_NE(qzlib_mbus_read_pkg(nullptr, 0), nullptr);
            ASSERT_EQ(qzlib_mbus_write_data("x", 1), 1);
        }
    });
    await_connected(record);
    Pattern garbage(3);
    for (int i = 0; i < 300; ++i) {
        auto *words = reinterpret_cast<volatile uint32_t *>(
            i % 2 == 0 ? &record->down_cond : static_cast<pthread_cond_t *>(mbus_share));
        for (int word = 0; word < 12; ++word)
            words[word] = i % 3 == 0 ? 0xffffffffU : garbage.next();
        const auto start = Clock::now();
        ASSERT_EQ(qzlib_mbus_write(record, 0, nullptr, "x", 1), 1);
        await([&] { return qzlib_mbus_read_pkg(record, 1) != nullptr; });
        ASSERT_LT(Clock::now() - start, patient(std::chrono::milliseconds(1900)));
    }
}

TEST(Bus, survives_hostile_shared_memory)
{
    ServerEnd server;
    mbus_client *record = server.add("demo");
    const RawSegment share(SHARE_KEY);
    const RawSegment segment(qzlib_mbus_name_to_key("demo"));
    Child client([] {
        connect_as("demo");
        for (int i = 0;; ++i) {
            qzlib_mbus_write(nullptr, i % 4, "n", "payload", 7);
            const mbus_pkg *pkg = qzlib_mbus_read_pkg(nullptr, 1);
            if (pkg != nullptr && (pkg->length > 4176 || pkg->type > 3))
                _exit(7);
        }
    });
    await_connected(record);
    Pattern garbage(4);
    const std::string text(4096, 'x');
    for (int i = 0; i < ROUNDS; ++i) {
        for (const size_t offset : {UP_WRITE, UP_READ, DOWN_WRITE, DOWN_READ})
            if (garbage.next() % 4 == 0)
                share.word(record_at(0) + offset) = garbage.next();
        for (size_t word = 0; word < 8; ++word) // name and handle
            share.word(record_at(0) + 4 * (garbage.next() % 12)) = garbage.next();
        for (size_t slot = 0; slot < 128; slot += 1 + garbage.next() % 32) {
            const size_t at = slot < 64 ? slot * SLOT : DOWN_RING + (slot - 64) * SLOT;
            segment.word(at) = garbage.next();
            segment.word(at + 68) = garbage.next() % 5000;
            segment.word(at + 72) = garbage.next();
        }
        const mbus_pkg pkg = packet(text, "name");
        qzlib_mbus_write_pkg(record, &pkg);
        const mbus_pkg *read = qzlib_mbus_read_pkg(record, 1);
        if (read != nullptr) {
            ASSERT_LE(read->length, 4176U);
            ASSERT_LE(read->type, 3);
        }
        (void)qzlib_find_client_by_name("demo");
    }
    int drained = 0; // an index out of range is no endless stream of packets
    while (qzlib_mbus_read_pkg(record, 1) != nullptr && drained < 1'000'000)
        ++drained;
    client.kill();
    while (qzlib_mbus_read_pkg(record, 1) != nullptr && drained < 1'000'000)
        ++drained;
    EXPECT_LT(drained, 1'000'000);
}

} // namespace
