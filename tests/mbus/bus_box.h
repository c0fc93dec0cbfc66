// Both ends of the bus for tests: the server's end is this process, clients are its children.
#pragma once

#include "mbus/format.h"
#include "support/case.h"
#include "support/log.h"

#include <numeric>
#include <random>
#include <sys/shm.h>

namespace support
{

using qz::mbus::Slot;

// A second look at shared memory, beside the library's own.
class Segment : NoCopy
{
public:
    explicit Segment(int key) : base(static_cast<char *>(shmat(shmget(key, 0, 0), nullptr, 0))) {}
    ~Segment() { shmdt(base); }

    [[nodiscard]] std::string bytes(size_t offset, size_t size) const { return {base + offset, size}; }

    char *const base;
    Slot *const up = qz::mbus::up_slots(base);
    Slot *const down = qz::mbus::down_slots(base);
};

// The bus server's end in this process: control socket, share segment, clients by name.
class ServerEnd : NoCopy
{
public:
    ServerEnd()
    {
        qzlib_mbus_share_init();
        init_condition(&share()->up_cond);
    }
    ~ServerEnd()
    {
        close(control_);
        for (size_t i = 0; i < count_; ++i)
            qzlib_client_uninit(record(i));
        qzlib_mbus_share_uninit();
    }

    static void init_condition(pthread_cond_t *condition)
    {
        pthread_condattr_t shared;
        pthread_condattr_init(&shared);
        pthread_condattr_setpshared(&shared, PTHREAD_PROCESS_SHARED);
        pthread_cond_init(condition, &shared);
    }
    [[nodiscard]] static mbus_share_segment *share() { return static_cast<mbus_share_segment *>(mbus_share); }
    [[nodiscard]] static mbus_client *record(size_t index) { return &share()->clients[index]; }
    mbus_client *add(std::string_view name)
    {
        mbus_client *added = record(count_++);
        name.copy(added->name, sizeof added->name);
        EXPECT_EQ(qzlib_client_init(added), 0);
        return added;
    }
    // The next control datagram, empty when there is none.
    [[nodiscard]] std::string control() const
    {
        char buffer[256];
        const ssize_t length = read(control_, buffer, sizeof buffer);
        return length < 0 ? "" : std::string(buffer, static_cast<size_t>(length));
    }

private:
    int control_ = qzlib_create_listen_unixdomain("/tmp/mbus.sock");
    size_t count_ = 0;
};

// A server with one client's record.
struct Bus : testing::Test {
    ServerEnd server;
    mbus_client *record = server.add("demo");
    const Segment segment{qzlib_mbus_name_to_key("demo")};
};

// A client's connecting empties its rings, so its peer waits until that is done: the client then sets a
// flag. On a loaded machine the server may need longer than the few milliseconds that connecting gives it.
inline void connect_as(const char *name)
{
    ASSERT_TRUE(eventually([name] { return qzlib_connect_mbus_server(name) == 0; }));
    ASSERT_EQ(qzlib_client_set_flag(1), 0);
}

template <typename Number>
void await(const std::atomic<Number> &count, std::type_identity_t<Number> least)
{
    ASSERT_TRUE(eventually([&] { return count >= least; }));
}

inline void await_connected(const mbus_client *record)
{
    ASSERT_TRUE(eventually([record] { return __atomic_load_n(&record->flags, __ATOMIC_ACQUIRE) != 0; }));
}

// Looks hard for a moment, to meet the races, and then leaves the processor to others.
template <typename Condition>
void spin(Condition condition)
{
    for (int i = 0; !condition(); ++i)
        if (i > 200)
            usleep(20);
}

inline size_t shared_segments()
{
    shm_info info{};
    EXPECT_GE(shmctl(0, SHM_INFO, reinterpret_cast<shmid_ds *>(&info)), 0);
    return static_cast<size_t>(info.used_ids);
}

inline mbus_pkg packet(std::string_view payload, std::string_view name = "", uint8_t type = 0)
{
    mbus_pkg pkg{};
    pkg.type = type;
    name.copy(pkg.name, sizeof pkg.name);
    pkg.length = static_cast<uint32_t>(payload.size());
    pkg.data = const_cast<char *>(payload.data());
    return pkg;
}

inline std::string payload(const mbus_pkg *pkg)
{
    return pkg == nullptr ? "none" : std::string(static_cast<const char *>(pkg->data), pkg->length);
}

// A control datagram.
inline std::string command(char code, std::string name)
{
    name.resize(32, '\0');
    return std::string{code, 0, 0, 0} + name;
}

// Contents that both sides make alike.
inline std::string next_text(std::minstd_rand &random)
{
    const auto number = random();
    std::string text(1 + number / 16 % (number % 16 == 0 ? 4096 : 300), '\0');
    std::iota(text.begin(), text.end(), static_cast<char>(number >> 8));
    return text;
}

} // namespace support
