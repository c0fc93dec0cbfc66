#include "support/network.h"

#include <gtest/gtest.h>
#include <qzlib.h>

#include <algorithm>
#include <csignal>
#include <fcntl.h>
#include <linux/filter.h>
#include <linux/seccomp.h>
#include <sys/prctl.h>
#include <sys/socket.h>
#include <sys/syscall.h>
#include <sys/un.h>
#include <thread>

namespace
{

using support::sh;

constexpr int ADD = 7;
constexpr int STATIC = 4;

// The routing daemon's socket. Requests fit its buffer, so that they are read after the call.
class Daemon
{
public:
    Daemon()
    {
        sockaddr_un address{};
        address.sun_family = AF_UNIX;
        strcpy(address.sun_path, "/tmp/.zserv");
        if (bind(fd_, reinterpret_cast<sockaddr *>(&address), sizeof address) != 0 || listen(fd_, 8) != 0)
            abort();
    }
    ~Daemon()
    {
        close(fd_);
        unlink("/tmp/.zserv");
    }

    // All bytes of the next connection; "none" when nobody connected.
    std::string next() const
    {
        const int fd = accept4(fd_, nullptr, nullptr, SOCK_CLOEXEC);
        if (fd < 0)
            return "none";
        std::string bytes;
        char buffer[4096];
        for (ssize_t count = 0; (count = read(fd, buffer, sizeof buffer)) > 0;)
            bytes.append(buffer, static_cast<size_t>(count));
        close(fd);
        return bytes;
    }
    int fd_ = socket(AF_UNIX, SOCK_STREAM | SOCK_CLOEXEC | SOCK_NONBLOCK, 0);
};

std::string bytes(std::initializer_list<int> values)
{
    std::string text;
    for (const int value : values)
        text += static_cast<char>(value);
    return text;
}

TEST(Request, is_sent_byte_for_byte)
{
    const Daemon daemon;
    const size_t descriptors = support::open_descriptors();
    const std::string tail_2 = bytes({2, 0, 0, 0, 0});
    const struct {
        unsigned command, type;
        const char *prefix;
        std::string hop;
        unsigned char distance;
        std::string message;
    } cases[] = {
        {7, 4, "0.0.0.0/0", "10.64.0.1", 1,
         bytes({0, 0x12, 7, 4, 0, 0x0D, 0, 1, 3, 0x0A, 0x40, 0, 1, 1, 0, 0, 0, 0})},
        {8, 4, "192.168.10.0/24", "rmnet0", 2,
         bytes({0, 0x18, 8, 4, 0, 0x0D, 0x18, 0xC0, 0xA8, 0x0A, 1, 2, 6}) + "rmnet0" + tail_2},
        {7, 4, "10.0.0.0/9", "p", 2, bytes({0, 18, 7, 4, 0, 0x0D, 9, 10, 0, 1, 2, 1}) + "p" + tail_2},
        {7, 4, "10.1.2.3/20", "p", 2, bytes({0, 19, 7, 4, 0, 0x0D, 20, 10, 1, 2, 1, 2, 1}) + "p" + tail_2},
        {0x1FF, 0x102, "0.0.0.0/8", "p", 2, bytes({0, 16, 255, 2, 0, 0x0D, 0, 1, 2, 1}) + "p" + tail_2},
        {7, 4, "10.0.0.0/8", "1a;reboot", 2, // a digit in front: an address, and not a good one
         bytes({0, 19, 7, 4, 0, 0x0D, 8, 10, 1, 3, 0, 0, 0, 0}) + tail_2},
        {7, 4, "a;reboot/8", "$(x)\xff", 2,
         bytes({0, 21, 7, 4, 0, 0x0D, 8, 0, 1, 2, 5}) + "$(x)\xff" + tail_2},
        {0, 4, "10.0.0.0/8", "p", 2, ""},
    };
    for (const auto &c : cases) {
        EXPECT_EQ(qzlib_do_route(c.command, c.type, c.prefix, c.hop.c_str(), c.distance), 0) << c.prefix;
        EXPECT_EQ(daemon.next(), c.message) << c.prefix << " " << c.hop;
    }
    EXPECT_EQ(qzlib_do_route(7, 4, "10.0.0.0/8", nullptr, 1), 0);
    EXPECT_EQ(daemon.next(), "");
    EXPECT_EQ(support::open_descriptors(), descriptors);
}

TEST(Request, that_cannot_be_made_is_refused)
{
    EXPECT_EQ(qzlib_do_route(7, 4, "10.0.0.0/8", "p", 1), -1) << "no daemon";
    const size_t descriptors = support::open_descriptors() + 1;
    const Daemon daemon;
    const std::string far_slash = std::string(4096, '1') + "/8"; // behind what is looked at
    for (const char *prefix :
         {static_cast<const char *>(nullptr), "", "192.168.1.0", "a;reboot", far_slash.c_str()}) {
        EXPECT_EQ(qzlib_do_route(7, 4, prefix, "p", 1), -1);
        EXPECT_EQ(daemon.next(), "none");
    }
    for (const size_t length : {128U - 16 + 1, 300U, 4096U}) { // a message of 129 bytes and more
        EXPECT_EQ(qzlib_do_route(7, 4, "10.0.0.0/8", std::string(length, 'n').c_str(), 1), -1);
        EXPECT_EQ(daemon.next(), "");
    }
    EXPECT_EQ(qzlib_do_route(7, 4, "10.0.0.0/8", std::string(128 - 16, 'n').c_str(), 1), 0);
    EXPECT_EQ(daemon.next().size(), 128U);
    close(daemon.fd_);
    EXPECT_EQ(qzlib_do_route(7, 4, "10.0.0.0/8", "p", 1), -1) << "refused";
    EXPECT_EQ(support::open_descriptors(), descriptors - 1);
}

TEST(Request, of_any_prefix_length_stays_inside_its_message)
{
    const Daemon daemon;
    for (int length = -99; length <= 999; ++length) {
        const int count = (length + 7) / 8; // of prefix bytes; none ends the process, see below
        const bool fits = count > 0 && 18 + count <= 128;
        if (count == 0)
            continue;
        const std::string prefix = "170.187.204.221/" + std::to_string(length);
        EXPECT_EQ(qzlib_do_route(ADD, STATIC, prefix.c_str(), "10.0.0.1", 1), fits ? 0 : -1) << prefix;
        const std::string message = daemon.next();
        ASSERT_EQ(message.size(), fits ? 18U + static_cast<size_t>(count) : 0U) << prefix;
        const std::string bytes = "\xAA\xBB\xCC\xDD" + std::string(128, '\0'); // none of the process's memory
        EXPECT_TRUE(!fits || message.substr(6, static_cast<size_t>(count) + 1) ==
                                 static_cast<char>(length) + bytes.substr(0, static_cast<size_t>(count)))
            << prefix;
    }
}

TEST(RequestDeathTest, without_bytes_to_copy_aborts_in_every_build)
{
    const Daemon daemon;
    const struct {
        const char *prefix, *hop;
    } cases[] = {{"10.0.0.0/0", "p"}, {"10.0.0.0/", "p"}, {"10.0.0.0/-7", "10.0.0.1"}, {"10.0.0.0/8", ""}};
    for (const auto &c : cases)
        EXPECT_EXIT(qzlib_do_route(ADD, STATIC, c.prefix, c.hop, 1), testing::KilledBySignal(SIGABRT),
                    "sroute:.*`size > 0' failed");
}

// A daemon that closes before or after it has read must not cost the caller its life.
TEST(Request, survives_a_daemon_that_closes)
{
    const Daemon daemon;
    fcntl(daemon.fd_, F_SETFL, 0); // accept() waits
    std::thread closer([&] {
        char buffer[128];
        for (int i = 0; i < 300; ++i) {
            const int fd = accept(daemon.fd_, nullptr, nullptr);
            (void)!read(fd, buffer, i % 3 == 1 ? sizeof buffer : 0);
            close(fd);
        }
    });
    testing::internal::CaptureStdout();
    for (int i = 0; i < 300; ++i)
        EXPECT_EQ(qzlib_do_route(ADD, STATIC, "10.0.0.0/8", "10.0.0.1", 1), 0);
    const std::string output = testing::internal::GetCapturedStdout();
    for (size_t at = 0; at < output.size(); at = output.find('\n', at) + 1)
        EXPECT_EQ(output.compare(at, 14, "write failed[B"), 0) << output; // roken pipe
    sigset_t pending;
    sigpending(&pending);
    EXPECT_EQ(sigismember(&pending, SIGPIPE), 0);
    closer.join();
}

TEST(Request, failing_write_is_printed_and_the_result_is_0)
{
    const Daemon daemon;
    sock_filter filter[] = {
        BPF_STMT(BPF_LD | BPF_W | BPF_ABS, offsetof(seccomp_data, nr)),
        BPF_JUMP(BPF_JMP | BPF_JEQ | BPF_K, __NR_write, 0, 3),
        BPF_STMT(BPF_LD | BPF_W | BPF_ABS, offsetof(seccomp_data, args[2])),
        BPF_JUMP(BPF_JMP | BPF_JEQ | BPF_K, 18, 0, 1), // the size of the request
        BPF_STMT(BPF_RET | BPF_K, SECCOMP_RET_ERRNO | ENOSPC),
        BPF_STMT(BPF_RET | BPF_K, SECCOMP_RET_ALLOW),
    };
    const sock_fprog program = {std::size(filter), filter};
    ASSERT_EQ(prctl(PR_SET_NO_NEW_PRIVS, 1, 0, 0, 0), 0);
    ASSERT_EQ(prctl(PR_SET_SECCOMP, SECCOMP_MODE_FILTER, &program), 0);
    testing::internal::CaptureStdout();
    EXPECT_EQ(qzlib_do_route(ADD, STATIC, "0.0.0.0/0", "10.64.0.1", 1), 0);
    EXPECT_EQ(testing::internal::GetCapturedStdout(), "write failed[No space left on device]\n");
}

// zservsim, run until it goes out of scope; what it printed.
class Simulator
{
public:
    explicit Simulator(const char *arguments)
    {
        pid_ = fork();
        if (pid_ == 0) {
            execl("/bin/sh", "sh", "-c",
                  (std::string("exec ") + ZSERVSIM + " " + arguments + " >/tmp/sim 2>&1").c_str(), nullptr);
            _exit(127);
        }
        while (support::read_file("/tmp/sim").find("listening on") == std::string::npos)
            usleep(1000);
    }
    // Ends it with SIGTERM; its exit status.
    int end() const
    {
        int status = 0;
        kill(pid_, SIGTERM);
        waitpid(pid_, &status, 0);
        return WIFEXITED(status) ? WEXITSTATUS(status) : -1;
    }
    static std::string output() { return support::read_file("/tmp/sim"); }
    // Waits until it has printed so many lines besides the first.
    static void wait_for_lines(int count)
    {
        for (std::string text; std::count(text.begin(), text.end(), '\n') <= count; text = output())
            usleep(1000);
    }

private:
    pid_t pid_ = -1;
};

TEST(Simulator, puts_requested_routes_into_the_kernel)
{
    sh("ip link add wan0 type veth peer name far0; ip link set wan0 up; ip link set far0 up\n"
       "ip addr add 10.64.0.2/30 dev wan0");
    const Simulator simulator("--apply");
    EXPECT_EQ(qzlib_do_route(7, 4, "0.0.0.0/0", "10.64.0.1", 5), 0);
    EXPECT_EQ(qzlib_do_route(7, 4, "192.168.77.9/20", "wan0", 2), 0);
    EXPECT_EQ(qzlib_do_route(7, 4, "192.168.99.0/24", "10.99.0.1", 2), 0); // no way to there
    EXPECT_EQ(qzlib_do_route(9, 4, "0.0.0.0/0", "wan0", 1), 0);            // not a route command
    Simulator::wait_for_lines(8);                                          // ip's own error line among them
    EXPECT_EQ(sh("ip route | grep -v kernel"), "default via 10.64.0.1 dev wan0 metric 5 \n"
                                               "192.168.64.0/20 dev wan0 scope link metric 2 \n");
    EXPECT_EQ(qzlib_do_route(8, 4, "0.0.0.0/0", "10.64.0.1", 5), 0);
    Simulator::wait_for_lines(10);
    EXPECT_EQ(sh("ip route | grep -c default || true"), "0\n");
    EXPECT_EQ(simulator.end(), 0);
    const std::string output = Simulator::output();
    EXPECT_NE(output.find("add 192.168.77.0/20 dev wan0 distance 2 type 4\napplied\n"), std::string::npos)
        << output;
    EXPECT_NE(output.find("\nnot applied\n"), std::string::npos);
    EXPECT_NE(output.find("command 9 0.0.0.0/0 dev wan0 distance 1 type 4\n"), std::string::npos);
    EXPECT_NE(access("/tmp/.zserv", F_OK), 0);
}

TEST(Simulator, takes_no_byte_that_the_format_does_not_allow)
{
    const Simulator simulator("");
    const std::string surplus =
        bytes({0, 20, 7, 4, 0, 0x0D, 8, 10, 1, 2, 3}) + "eth" + bytes({2, 0, 0, 0, 0, 0});
    const std::string exact = bytes({0, 19, 7, 4, 0, 0x0D, 8, 10, 1, 2, 3}) + "eth" + bytes({2, 0, 0, 0, 0});
    int expected = 0;
    const auto send = [&](const std::string &message) {
        const int fd = socket(AF_UNIX, SOCK_STREAM | SOCK_CLOEXEC, 0);
        sockaddr_un address{AF_UNIX, "/tmp/.zserv"};
        ASSERT_EQ(connect(fd, reinterpret_cast<sockaddr *>(&address), sizeof address), 0);
        ASSERT_EQ(write(fd, message.data(), message.size()), static_cast<ssize_t>(message.size()));
        close(fd);
        Simulator::wait_for_lines(++expected);
    };
    send(exact);
    send(surplus);                            // a byte too many
    for (size_t i = 1; i < exact.size(); ++i) // cut at every byte
        send(exact.substr(0, i));
    for (const size_t fixed : {0U, 1U, 4U, 5U, 6U, 8U, 9U, 10U, 15U, 18U}) {
        std::string spoilt = exact;
        spoilt[fixed] = static_cast<char>(spoilt[fixed] + 64);
        send(spoilt);
    }
    const std::string output = Simulator::output();
    EXPECT_NE(output.find("\nadd 10.0.0.0/8 dev eth distance 2 type 4\n"), std::string::npos);
    EXPECT_EQ(sh("grep -c '^malformed: ' /tmp/sim"), std::to_string(expected - 1) + "\n") << output;
    EXPECT_EQ(simulator.end(), 1);
}

} // namespace
