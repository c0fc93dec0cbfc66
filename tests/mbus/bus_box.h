// Both ends of the bus for tests: the server's end is this process, clients are its children.
// RawBus is a second look at the shared memory that knows nothing but keys and offsets.
#pragma once

#include "support/files.h"

#include <gtest/gtest.h>
#include <qzlib.h>

#include <cstring>
#include <functional>
#include <signal.h>
#include <sys/shm.h>
#include <sys/wait.h>
#include <unistd.h>
#include <utility>

namespace support
{

// Shared memory by key, seen as bytes.
class RawSegment
{
public:
    explicit RawSegment(int key) : base_(static_cast<char *>(shmat(shmget(key, 0, 0), nullptr, 0))) {}
    ~RawSegment() { shmdt(base_); }
    RawSegment(const RawSegment &) = delete;
    RawSegment &operator=(const RawSegment &) = delete;

    [[nodiscard]] char *at(size_t offset) const { return base_ + offset; }
    [[nodiscard]] volatile uint32_t &word(size_t offset) const
    {
        return *reinterpret_cast<volatile uint32_t *>(base_ + offset);
    }
    [[nodiscard]] uint64_t counter(size_t offset) const
    {
        uint64_t value;
        memcpy(&value, base_ + offset, sizeof value);
        return value;
    }
    [[nodiscard]] pthread_cond_t *condition(size_t offset) const
    {
        return reinterpret_cast<pthread_cond_t *>(base_ + offset);
    }

private:
    char *base_;
};

constexpr int SHARE_KEY = 20206372;
constexpr size_t UP_WRITE = 48;
constexpr size_t UP_READ = 52;
constexpr size_t DOWN_WRITE = 56;
constexpr size_t DOWN_READ = 60;
constexpr size_t DOWN_CONDITION = 112;
constexpr size_t DOWN_RING = 267392;
constexpr uint32_t SLOT = 4176;

constexpr size_t record_at(size_t index)
{
    return 48 + 168 * index;
}

// The bus server's end in this process: control socket, share segment, clients by name.
class ServerEnd
{
public:
    ServerEnd() : control_(qzlib_create_listen_unixdomain("/tmp/mbus.sock"))
    {
        qzlib_mbus_share_init();
        pthread_condattr_t shared;
        pthread_condattr_init(&shared);
        pthread_condattr_setpshared(&shared, PTHREAD_PROCESS_SHARED);
        pthread_cond_init(static_cast<pthread_cond_t *>(mbus_share), &shared);
    }
    ~ServerEnd()
    {
        close(control_);
        for (size_t i = 0; i < count_; ++i)
            qzlib_client_uninit(record(i));
        qzlib_mbus_share_uninit();
    }
    ServerEnd(const ServerEnd &) = delete;
    ServerEnd &operator=(const ServerEnd &) = delete;

    [[nodiscard]] static mbus_client *record(size_t index)
    {
        return &static_cast<mbus_share_segment *>(mbus_share)->clients[index];
    }
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
    int control_;
    size_t count_ = 0;
};

// A process of a test. Its end is waited for; a failed expectation in it fails the test.
class Child
{
public:
    explicit Child(const std::function<void()> &run) : pid_(fork())
    {
        if (pid_ != 0)
            return;
        run();
        fflush(nullptr);
        _exit(testing::Test::HasFailure() ? 1 : 0);
    }
    ~Child() { EXPECT_EQ(wait(), 0); }
    Child(const Child &) = delete;
    Child &operator=(const Child &) = delete;

    [[nodiscard]] pid_t pid() const { return pid_; }
    int wait()
    {
        if (pid_ < 0)
            return 0;
        int status = -1;
        waitpid(std::exchange(pid_, -1), &status, 0);
        return status;
    }
    void kill()
    {
        ::kill(pid_, SIGKILL);
        EXPECT_TRUE(WIFSIGNALED(wait()));
    }

private:
    pid_t pid_;
};

// A client's connecting empties its rings, so its peer waits until that is done: the client
// then sets a flag. On a loaded machine the server may need longer than the few milliseconds
// that connecting gives it.
inline void connect_as(const char *name)
{
    int result = qzlib_connect_mbus_server(name);
    for (int again = 0; result != 0 && again < 10; ++again)
        result = qzlib_connect_mbus_server(name);
    ASSERT_EQ(result, 0);
    ASSERT_EQ(qzlib_client_set_flag(1), 0);
}

inline void await_connected(const mbus_client *record)
{
    while (__atomic_load_n(&record->flags, __ATOMIC_ACQUIRE) == 0)
        usleep(100);
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

// What the library logs, at every level, in a file.
struct LogFile {
    LogFile()
    {
        write_file("/tmp/config/cli.conf", "log msg-level debug\n");
        openmsg_com("/tmp/test.log", 0, "id", 0);
    }
    [[nodiscard]] static bool has(const std::string &line)
    {
        return read_file("/tmp/test.log").find(line + "\n") != std::string::npos;
    }
};

// Deterministic contents, checked byte by byte on the other side.
struct Pattern {
    explicit Pattern(uint32_t seed) : state(seed * 2654435761U + 1) {}
    uint32_t next()
    {
        state ^= state << 13;
        state ^= state >> 17;
        state ^= state << 5;
        return state;
    }
    std::string packet()
    {
        const uint32_t first = next();
        std::string text(1 + first % ((first >> 20) % 16 == 0 ? 4096 : 300), '\0');
        for (char &c : text)
            c = static_cast<char>(next());
        return text;
    }
    uint32_t state;
};

} // namespace support
