#include "support/case.h"

#include <qzlib.h>

#include <sys/socket.h>

namespace
{

using namespace support;
using Latency = NothingLeft;

// The second address that is tried of a name that has 127.0.0.1, too.
struct Listener : NoCopy {
    ~Listener() { close(fd); }
    const int fd = qzlib_create_listen_tcp("127.0.0.9", 22);
};

TEST_F(Latency, of_a_listener_and_of_none)
{
    const Listener listener;
    const auto latency = qzlib_get_tcp_latency;
    EXPECT_GE(latency("127.0.0.9", "22", 20000), 0);
    EXPECT_LE(latency("127.0.0.9", "22", 20000), 6000) << "the scale of the uptime";
    EXPECT_EQ(latency("127.0.0.9", "23", 20000), -1);
    EXPECT_GE(latency("127.0.0.9", "22", 0), 0); // no limit
    EXPECT_EQ(latency("127.0.0.9", "ssh", 20000), QZLIB_ERR_FAILED);
    EXPECT_EQ(latency(std::string(4096, 'h').c_str(), "22", 20000), QZLIB_ERR_FAILED);
    {
        const NoDescriptors none;
        EXPECT_EQ(latency("127.0.0.9", "22", 100), -1);
    }
    EXPECT_EQ(latency(nullptr, "22", 20000), QZLIB_ERR_ARGUMENT);
    EXPECT_EQ(latency("127.0.0.9", nullptr, 20000), QZLIB_ERR_ARGUMENT);
    EXPECT_EQ(latency("127.0.0.9", "22", -1), QZLIB_ERR_ARGUMENT);
}

// Every address of a name is tried.
TEST_F(Latency, by_name_beside_a_thread_that_looks_names_up)
{
    // Two addresses are sorted, under a lock that a look-up holds for most of its time.
    const FakeFile hosts("/etc/hosts", "127.0.0.9 server\n127.0.0.1 server\n");
    const Listener listener;
    const std::jthread other([](const std::stop_token &stop) {
        char ip[16];
        while (!stop.stop_requested())
            qzlib_get_domain_ip("server", ip);
    });
    for (int i = 0; i < scaled(50); ++i)
        EXPECT_GE(qzlib_get_tcp_latency("server", "22", 20000), 0) << i;
}

TEST_F(Latency, of_a_silent_host_ends_at_the_limit_with_signals_coming)
{
    const Listener silent;
    listen(silent.fd, 0); // with a full queue it does not answer SYNs, like a host that is gone
    EXPECT_GE(qzlib_get_tcp_latency("127.0.0.9", "22", 20000), 0); // fills it
    signal(SIGTERM, [](int) {}); // a daemon's handler must not keep the child alive
    sigset_t sigterm, now;
    sigemptyset(&sigterm);
    sigaddset(&sigterm, SIGTERM);
    const SignalStorm storm;
    for (const int change : {SIG_UNBLOCK, SIG_BLOCK}) {
        sigprocmask(change, &sigterm, nullptr);
        const Stopwatch watch;
        EXPECT_EQ(qzlib_get_tcp_latency("127.0.0.9", "22", 100), -1);
        EXPECT_GE(watch.seconds(), 0.1);
        EXPECT_LT(watch.punctual_seconds(), 20);
        sigprocmask(SIG_SETMASK, nullptr, &now);
        EXPECT_EQ(sigismember(&now, SIGTERM), change == SIG_BLOCK) << "the caller's mask is as it was";
    }
    sigprocmask(SIG_UNBLOCK, &sigterm, nullptr);
    signal(SIGTERM, SIG_DFL);
}

TEST(DomainIp, of_addresses_and_names)
{
    const FakeFile hosts("/etc/hosts", "127.0.0.1 localhost\n10.1.2.3 modem.router\nfd00::1 six\n");
    const Table<std::string, const char *> cases = {
        {"8.8.8.8", "8.8.8.8"},
        {"999.1.1.1", "999.1.1.1"}, // passes the validator: copied unchanged
        {"localhost", "127.0.0.1"},
        {"six", "0.0.0.0"}, // the flow information of an IPv6 address
        {"$(>/x)", "kept"},
        {"", "kept"},
        {std::string(4096, 'n'), "kept"},
        {std::string(4096, '1') + ".1.1.1", "kept"}, // passes the validator, fits nowhere
    };
    char ip[16];
    for (const auto &[name, expected] : cases) {
        strcpy(ip, "kept");
        EXPECT_EQ(qzlib_get_domain_ip(name.c_str(), ip), strcmp(expected, "kept") == 0 ? -1 : 0) << name;
        EXPECT_STREQ(ip, expected) << name;
    }
    EXPECT_EQ(qzlib_get_domain_ip(nullptr, ip), QZLIB_ERR_ARGUMENT);
    EXPECT_EQ(qzlib_get_domain_ip("localhost", nullptr), QZLIB_ERR_ARGUMENT);
    EXPECT_NE(access("/x", F_OK), 0);
}

} // namespace
