#include "support/case.h"
#include "support/syscall_trace.h"

#include <qzlib.h>

#include <sys/socket.h>
#include <sys/un.h>

namespace
{

using namespace support;
constexpr unsigned ADD = 7;
constexpr unsigned STATIC = 4;
const sockaddr_un ADDRESS = {AF_UNIX, "/tmp/.zserv"};

int open_socket(int flags = 0)
{
    return socket(AF_UNIX, SOCK_STREAM | SOCK_CLOEXEC | flags, 0);
}

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
    int daemon = open_socket(SOCK_NONBLOCK);
};

std::string bytes(std::initializer_list<int> values)
{
    std::string text;
    for (const int value : values)
        text += static_cast<char>(value);
    return text;
}

int add_route(const char *prefix, const char *hop)
{
    return qzlib_do_route(ADD, STATIC, prefix, hop, 2);
}

TEST_F(Request, is_sent_byte_for_byte)
{
    const std::string tail = bytes({2, 0, 0, 0, 0});
    const Table<unsigned, unsigned, const char *, const char *, std::string> cases = {
        {7, 4, "0.0.0.0/0", "10.64.0.1",
         bytes({0, 0x12, 7, 4, 0, 0x0D, 0, 1, 3, 0x0A, 0x40, 0, 1, 2, 0, 0, 0, 0})},
        {8, 4, "192.168.10.0/24", "rmnet0",
         bytes({0, 0x18, 8, 4, 0, 0x0D, 0x18, 0xC0, 0xA8, 0x0A, 1, 2, 6}) + "rmnet0" + tail},
        {7, 4, "10.0.0.0/9", "p", bytes({0, 18, 7, 4, 0, 0x0D, 9, 10, 0, 1, 2, 1}) + "p" + tail},
        {7, 4, "10.1.2.3/20", "p", bytes({0, 19, 7, 4, 0, 0x0D, 20, 10, 1, 2, 1, 2, 1}) + "p" + tail},
        {7, 4, "10.1.2.3/33", "p", bytes({0, 21, 7, 4, 0, 0x0D, 33, 10, 1, 2, 3, 0, 1, 2, 1}) + "p" + tail},
        {7, 4, "10.1.2.3/881", "p", // 881 modulo 256 in one byte; after the address zeros
         bytes({0, 127, 7, 4, 0, 0x0D, 0x71, 10, 1, 2, 3}) + std::string(107, '\0') + bytes({1, 2, 1}) + "p" +
             tail},
        {0x1FF, 0x102, "0.0.0.0/8", "p", bytes({0, 16, 255, 2, 0, 0x0D, 0, 1, 2, 1}) + "p" + tail},
        {7, 4, "10.0.0.0/8", "1a;reboot", // a digit in front: an address, and not a good one
         bytes({0, 19, 7, 4, 0, 0x0D, 8, 10, 1, 3, 0, 0, 0, 0}) + tail},
        {7, 4, "a;reboot/8", "$(x)\xff", bytes({0, 21, 7, 4, 0, 0x0D, 8, 0, 1, 2, 5}) + "$(x)\xff" + tail},
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
    for (const char *prefix : {none, "", "192.168.1.0", "a;reboot", far_slash.c_str()}) {
        EXPECT_EQ(add_route(prefix, "p"), -1);
        EXPECT_EQ(next(), "none");
    }
    const Table<const char *, size_t> too_long = {// lengths of the prefix and of the next hop's name
                                                  {"10.0.0.0/8", 128 - 16 + 1},
                                                  {"10.0.0.0/8", 4096},
                                                  {"10.0.0.0/889", 2},
                                                  {"10.0.0.0/-15", 1},
                                                  {"10.0.0.0/-99", 1}};
    for (const auto &[prefix, length] : too_long) {
        EXPECT_EQ(add_route(prefix, std::string(length, 'n').c_str()), -1) << prefix;
        EXPECT_EQ(next(), "");
    }
    EXPECT_EQ(add_route("10.0.0.0/8", std::string(128 - 16, 'n').c_str()), 0);
    EXPECT_EQ(next().size(), 128U);
    shutdown(daemon, SHUT_RD);
    EXPECT_EQ(add_route("10.0.0.0/8", "p"), -1) << "refused";
    unlink(ADDRESS.sun_path);
    EXPECT_EQ(add_route("10.0.0.0/8", "p"), -1) << "no daemon";
}

TEST_F(Request, without_bytes_to_copy_aborts_in_every_build)
{
    const Table<const char *, const char *> cases = {
        {"10.0.0.0/0", "p"}, {"10.0.0.0/", "p"}, {"10.0.0.0/-7", "10.0.0.1"}, {"10.0.0.0/8", ""}};
    for (const auto &[prefix, hop] : cases)
        EXPECT_EXIT(add_route(prefix, hop), testing::KilledBySignal(SIGABRT), "sroute:.*`size > 0' failed");
}

// A daemon that closes before or after it has read must not cost the caller its life.
TEST_F(Request, survives_a_daemon_that_closes)
{
    fcntl(daemon, F_SETFL, 0); // accept() waits
    std::thread closer([this] {
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
    closer.join();
}

TEST_F(Request, failing_write_is_printed_and_the_result_is_0)
{
    filter_calls(SYS_write, 2, 18, SECCOMP_RET_ERRNO | ENOSPC); // those of the request's size
    testing::internal::CaptureStdout();
    EXPECT_EQ(add_route("0.0.0.0/0", "10.64.0.1"), 0);
    EXPECT_EQ(testing::internal::GetCapturedStdout(), "write failed[No space left on device]\n");
}

} // namespace
