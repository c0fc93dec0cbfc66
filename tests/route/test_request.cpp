#include "support/case.h"
#include "support/syscall_trace.h"

#include <qzlib.h>

#include <sys/socket.h>
#include <sys/un.h>

namespace
{

using namespace support;
using namespace std::string_literals;
const sockaddr_un ADDRESS = {AF_UNIX, "/tmp/.zserv"};

// The routing daemon's socket. Requests fit its buffer, so that they are read after the call.
struct Request : NothingLeft {
    Request()
    {
        EXPECT_EQ(bind(daemon, reinterpret_cast<const sockaddr *>(&ADDRESS), sizeof ADDRESS), 0);
        EXPECT_EQ(listen(daemon, 8), 0);
    }
    ~Request() override { close(daemon); }

    // All bytes of the next connection; "none" when nobody connected.
    std::string next() const
    {
        const int fd = accept4(daemon, nullptr, nullptr, SOCK_CLOEXEC);
        if (fd < 0)
            return "none";
        char buffer[256];
        const ssize_t count = read(fd, buffer, sizeof buffer);
        close(fd);
        return {buffer, static_cast<size_t>(std::max<ssize_t>(count, 0))};
    }
    int daemon = socket(AF_UNIX, SOCK_STREAM | SOCK_CLOEXEC | SOCK_NONBLOCK, 0);
};

int add_route(const char *prefix, const char *hop)
{
    return qzlib_do_route(7, 4, prefix, hop, 2);
}

TEST_F(Request, is_sent_byte_for_byte)
{
    const std::string tail = "\2\0\0\0\0"s;
    const Table<unsigned, unsigned, const char *, const char *, std::string> cases = {
        {7, 4, "0.0.0.0/0", "10.64.0.1", "\0\x12\7\4\0\x0D\0\1\3\x0A\x40\0\1"s + tail},
        {8, 4, "192.168.10.0/24", "rmnet0", "\0\x18\x08\4\0\x0D\x18\xC0\xA8\x0A\1\2\6rmnet0"s + tail},
        {7, 4, "10.0.0.0/9", "p", "\0\x12\7\4\0\x0D\x09\x0A\0\1\2\1p"s + tail},
        {7, 4, "10.1.2.3/20", "p", "\0\x13\7\4\0\x0D\x14\x0A\1\2\1\2\1p"s + tail},
        {7, 4, "10.1.2.3/33", "p", "\0\x15\7\4\0\x0D\x21\x0A\1\2\3\0\1\2\1p"s + tail},
        {7, 4, "10.1.2.3/881", "p", // 881 modulo 256 in one byte; after the address zeros
         "\0\x7F\7\4\0\x0D\x71\x0A\1\2\3"s + std::string(107, '\0') + "\1\2\1p" + tail},
        {0x1FF, 0x102, "0.0.0.0/8", "p", "\0\x10\xFF\2\0\x0D\0\1\2\1p"s + tail},
        // A digit in front: an address, and not a good one.
        {7, 4, "10.0.0.0/8", "1a;reboot", "\0\x13\7\4\0\x0D\x08\x0A\1\3\0\0\0\0"s + tail},
        {7, 4, "a;reboot/8", "$(x)\xff", "\0\x15\7\4\0\x0D\x08\0\1\2\5$(x)\xff"s + tail},
        {0, 4, "10.0.0.0/8", "p", ""},
        {7, 4, "10.0.0.0/8", nullptr, ""},
    };
    for (const auto &[command, type, prefix, hop, message] : cases) {
        EXPECT_EQ(qzlib_do_route(command, type, prefix, hop, 2), 0) << prefix;
        EXPECT_EQ(next(), message) << prefix;
    }
}

TEST_F(Request, that_cannot_be_made_is_refused)
{
    const std::string far_slash = std::string(4096, '1') + "/8"; // after what is looked at
    const char *const none = nullptr;
    const size_t room = 128 - 16;
    // Prefix, length of the next hop's name, what the daemon gets: not even a connection, or nothing.
    const Table<const char *, size_t, const char *> cases = {
        {none, 1, "none"},          {"", 1, "none"},
        {"192.168.1.0", 1, "none"}, {far_slash.c_str(), 1, "none"},
        {"10.0.0.0/8", 4096, ""},   {"10.0.0.0/8", room + 1, ""},
        {"10.0.0.0/889", 2, ""},    {"10.0.0.0/-15", 1, ""},
        {"10.0.0.0/-99", 1, ""},
    };
    for (const auto &[prefix, length, received] : cases) {
        EXPECT_EQ(add_route(prefix, std::string(length, 'n').c_str()), -1);
        EXPECT_EQ(next(), received) << length;
    }
    EXPECT_EQ(add_route("10.0.0.0/8", std::string(room, 'n').c_str()), 0);
    EXPECT_EQ(next().size(), 128U);
    for (const auto &[prefix, hop] :
         {std::pair("10.0.0.0/", "p"), {"10.0.0.0/-7", "1.2.3.4"}, {"10.0.0.0/8", ""}})
        EXPECT_EXIT(add_route(prefix, hop), testing::KilledBySignal(SIGABRT), "sroute:.*`size > 0' failed");
    unlink(ADDRESS.sun_path);
    EXPECT_EQ(add_route("10.0.0.0/8", "p"), -1) << "no daemon";
}

// A daemon that closes before or after it has read must not cost the caller its life.
TEST_F(Request, survives_a_daemon_that_closes)
{
    fcntl(daemon, F_SETFL, 0); // accept() waits
    const std::jthread closer([this] {
        char buffer[128];
        for (int i = 0; i < 300; ++i) {
            const int fd = accept(daemon, nullptr, nullptr);
            (void)!read(fd, buffer, i % 2 == 1 ? sizeof buffer : 0);
            close(fd);
        }
    });
    for (int i = 0; i < 300; ++i)
        EXPECT_EQ(add_route("10.0.0.0/8", "10.0.0.1"), 0);
    sigset_t pending;
    sigpending(&pending);
    EXPECT_EQ(sigismember(&pending, SIGPIPE), 0);
}

TEST_F(Request, failing_write_is_printed_and_the_result_is_0)
{
    filter_calls(SYS_write, 2, 18, SECCOMP_RET_ERRNO | ENOSPC); // those of the request's size
    testing::internal::CaptureStdout();
    EXPECT_EQ(add_route("0.0.0.0/0", "10.64.0.1"), 0);
    EXPECT_EQ(testing::internal::GetCapturedStdout(), "write failed[No space left on device]\n");
}

} // namespace
