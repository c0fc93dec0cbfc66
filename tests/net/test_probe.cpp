#include "support/network.h"

#include <gtest/gtest.h>
#include <qzlib.h>

#include <arpa/inet.h>
#include <chrono>
#include <csignal>
#include <sys/socket.h>

namespace
{

using support::has_no_child;
using support::open_descriptors;
using support::sh;

int64_t elapsed_ms(std::chrono::steady_clock::time_point start)
{
    return std::chrono::duration_cast<std::chrono::milliseconds>(std::chrono::steady_clock::now() - start)
        .count();
}

// A listener on 127.0.0.1; with a full queue it does not answer SYNs, like a host that is gone.
class Listener
{
public:
    explicit Listener(uint16_t port, bool silent = false)
    {
        sockaddr_in address{};
        address.sin_family = AF_INET;
        address.sin_port = htons(port);
        address.sin_addr.s_addr = htonl(INADDR_LOOPBACK);
        const auto *generic = reinterpret_cast<const sockaddr *>(&address);
        if (bind(fd_, generic, sizeof address) != 0 || listen(fd_, silent ? 0 : 128) != 0)
            abort();
        for (int &client : clients_) {
            if (!silent)
                continue;
            client = socket(AF_INET, SOCK_STREAM | SOCK_NONBLOCK | SOCK_CLOEXEC, 0);
            (void)connect(client, generic, sizeof address);
        }
    }
    ~Listener()
    {
        close(fd_);
        for (const int client : clients_)
            close(client);
    }

private:
    int fd_ = socket(AF_INET, SOCK_STREAM | SOCK_CLOEXEC, 0);
    int clients_[3] = {-1, -1, -1};
};

struct TcpLatency : testing::Test {
    ~TcpLatency() override
    {
        EXPECT_EQ(open_descriptors(), descriptors_);
        EXPECT_TRUE(has_no_child());
    }
    size_t descriptors_ = open_descriptors();
};

TEST_F(TcpLatency, of_a_listener_and_of_none)
{
    const support::FakeFile hosts("/etc/hosts", "127.0.0.9 server\n127.0.0.1 server\n");
    const Listener listener(22);
    descriptors_ = open_descriptors() - 1;
    const int latency = qzlib_get_tcp_latency("127.0.0.1", "22", 20000);
    EXPECT_GE(latency, 0);
    EXPECT_LE(latency, 6000) << "the scale of the uptime";
    EXPECT_EQ(qzlib_get_tcp_latency("127.0.0.1", "23", 20000), -1);
    EXPECT_GE(qzlib_get_tcp_latency("127.0.0.1", "22", 0), 0); // no limit
    EXPECT_GE(qzlib_get_tcp_latency("server", "22", 20000), 0) << "every address of a name is tried";
    EXPECT_EQ(qzlib_get_tcp_latency("127.0.0.1", "ssh", 20000), -264);
    for (const std::string &host : {std::string("a;reboot"), std::string("$(>/x)"), std::string(4096, 'h')})
        EXPECT_EQ(qzlib_get_tcp_latency(host.c_str(), "22", 20000), -264);
    EXPECT_NE(access("/x", F_OK), 0);
    {
        const support::NoDescriptors none;
        EXPECT_EQ(qzlib_get_tcp_latency("127.0.0.1", "22", 100), -1);
    }
    EXPECT_EQ(qzlib_get_tcp_latency(nullptr, "22", 20000), -257);
    EXPECT_EQ(qzlib_get_tcp_latency("127.0.0.1", nullptr, 20000), -257);
    EXPECT_EQ(qzlib_get_tcp_latency("127.0.0.1", "22", -1), -257);
}

TEST_F(TcpLatency, of_a_silent_host_ends_at_the_limit_200_times)
{
    const Listener silent(22, true);
    descriptors_ = open_descriptors() - 4;
    signal(SIGTERM, [](int) {}); // a daemon's handler must not keep the child alive
    int late = 0;                // another load of the machine may hold a few up
    for (int i = 0; i < 200; ++i) {
        const int limit = 1 + i % 20;
        const auto start = std::chrono::steady_clock::now();
        EXPECT_EQ(qzlib_get_tcp_latency("127.0.0.1", "22", limit), -1);
        EXPECT_GE(elapsed_ms(start), limit);
        late += elapsed_ms(start) > limit + 200;
        ASSERT_LE(elapsed_ms(start), limit + 10000);
        ASSERT_TRUE(has_no_child());
    }
    EXPECT_LE(late, 20);
}

TEST_F(TcpLatency, ends_on_time_with_sigterm_blocked_and_signals_coming)
{
    const Listener silent(22, true);
    descriptors_ = open_descriptors() - 4;
    sigset_t sigterm;
    sigemptyset(&sigterm);
    sigaddset(&sigterm, SIGTERM);
    sigprocmask(SIG_BLOCK, &sigterm, nullptr);
    struct sigaction interrupt {
    };
    interrupt.sa_handler = [](int) {}; // without SA_RESTART
    sigaction(SIGALRM, &interrupt, nullptr);
    const itimerval every_5_ms = {{0, 5000}, {0, 5000}};
    setitimer(ITIMER_REAL, &every_5_ms, nullptr);
    const auto start = std::chrono::steady_clock::now();
    EXPECT_EQ(qzlib_get_tcp_latency("127.0.0.1", "22", 100), -1);
    EXPECT_GE(elapsed_ms(start), 100);
    EXPECT_LE(elapsed_ms(start), 5000);
    const itimerval never{};
    setitimer(ITIMER_REAL, &never, nullptr);
    sigset_t now;
    sigprocmask(SIG_SETMASK, nullptr, &now);
    EXPECT_EQ(sigismember(&now, SIGTERM), 1) << "the caller's mask is as it was";
}

TEST(DomainIp, of_addresses_and_names)
{
    const support::FakeFile hosts("/etc/hosts", "127.0.0.1 localhost\n10.1.2.3 modem.router\nfd00::1 six\n");
    const struct {
        std::string name;
        int result;
        const char *ip;
    } cases[] = {
        {"8.8.8.8", 0, "8.8.8.8"},
        {"999.1.1.1", 0, "999.1.1.1"}, // passes the validator: copied unchanged
        {"localhost", 0, "127.0.0.1"},
        {"six", 0, "0.0.0.0"}, // the flow information of an IPv6 address
        {"no-such-name.invalid", -1, "kept"},
        {"$(>/x)", -1, "kept"},
        {"\xff\xfe", -1, "kept"},
        {"", -1, "kept"},
        {std::string(4096, 'n'), -1, "kept"},
        {std::string(4096, '1') + ".1.1.1", -1, "kept"}, // passes the validator, fits nowhere
    };
    for (const auto &c : cases) {
        char ip[16] = "kept";
        EXPECT_EQ(qzlib_get_domain_ip(c.name.c_str(), ip), c.result) << c.name;
        EXPECT_STREQ(ip, c.ip) << c.name;
    }
    char ip[16];
    EXPECT_EQ(qzlib_get_domain_ip(nullptr, ip), -257);
    EXPECT_EQ(qzlib_get_domain_ip("localhost", nullptr), -257);
    EXPECT_NE(access("/x", F_OK), 0);
}

} // namespace
