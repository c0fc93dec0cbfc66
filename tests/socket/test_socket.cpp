#include "support/files.h"
#include "support/syslog_sink.h"

#include <gtest/gtest.h>
#include <qzlib.h>

#include <arpa/inet.h>
#include <fcntl.h>
#include <netinet/in.h>
#include <poll.h>
#include <sys/resource.h>
#include <sys/socket.h>
#include <sys/stat.h>
#include <sys/un.h>
#include <unistd.h>

namespace
{

using support::open_descriptors;
using support::SyslogSink;

constexpr const char *PATH = "/tmp/test.sock";

// One socket of a test, closed at its end.
struct Socket {
    explicit Socket(int descriptor) : fd(descriptor) {}
    ~Socket()
    {
        if (fd >= 0)
            close(fd);
    }
    Socket(const Socket &) = delete;
    Socket &operator=(const Socket &) = delete;
    [[nodiscard]] bool nonblocking() const { return (fcntl(fd, F_GETFL) & O_NONBLOCK) != 0; }
    [[nodiscard]] bool close_on_exec() const { return (fcntl(fd, F_GETFD) & FD_CLOEXEC) != 0; }
    [[nodiscard]] std::string receive() const
    {
        char buffer[256];
        const ssize_t length = recv(fd, buffer, sizeof buffer, MSG_DONTWAIT);
        return length < 0 ? "nothing" : std::string(buffer, static_cast<size_t>(length));
    }
    [[nodiscard]] sockaddr_in peer() const
    {
        sockaddr_in address{};
        socklen_t size = sizeof address;
        getpeername(fd, reinterpret_cast<sockaddr *>(&address), &size);
        return address;
    }
    [[nodiscard]] sockaddr_in local() const
    {
        sockaddr_in address{};
        socklen_t size = sizeof address;
        getsockname(fd, reinterpret_cast<sockaddr *>(&address), &size);
        return address;
    }
    int fd;
};

// As if the process had all the descriptors that it may have.
struct NoDescriptors {
    NoDescriptors()
    {
        getrlimit(RLIMIT_NOFILE, &before);
        const rlimit none = {0, before.rlim_max};
        setrlimit(RLIMIT_NOFILE, &none);
    }
    ~NoDescriptors() { setrlimit(RLIMIT_NOFILE, &before); }
    NoDescriptors(const NoDescriptors &) = delete;
    NoDescriptors &operator=(const NoDescriptors &) = delete;
    rlimit before{};
};

TEST(LocalSocket, datagrams_reach_the_bound_path)
{
    const Socket listener(qzlib_create_listen_unixdomain(PATH));
    ASSERT_GE(listener.fd, 0);
    EXPECT_TRUE(listener.nonblocking());
    EXPECT_TRUE(listener.close_on_exec());
    const Socket sender(qzlib_create_connect_unixdomain(PATH));
    ASSERT_GE(sender.fd, 0);
    EXPECT_TRUE(sender.nonblocking());
    EXPECT_TRUE(sender.close_on_exec());
    ASSERT_EQ(write(sender.fd, "one", 3), 3);
    EXPECT_EQ(qzlib_send_to_unixdomain(PATH, "two", 3), 0);
    EXPECT_EQ(listener.receive(), "one");
    EXPECT_EQ(listener.receive(), "two");
    EXPECT_EQ(qzlib_send_to_unixdomain(PATH, "", 0), QZLIB_ERR_ARGUMENT);
    EXPECT_EQ(qzlib_send_to_unixdomain(PATH, "x", -1), QZLIB_ERR_ARGUMENT);
    EXPECT_EQ(qzlib_send_to_unixdomain(PATH, nullptr, 1), QZLIB_ERR_ARGUMENT);
    EXPECT_EQ(qzlib_send_to_unixdomain(nullptr, "x", 1), QZLIB_ERR_ARGUMENT);
    EXPECT_EQ(listener.receive(), "nothing");
    const std::string oversize(1 << 20, 'x');
    EXPECT_EQ(qzlib_send_to_unixdomain(PATH, oversize.data(), 1 << 20), 0) << "lost silently";
    EXPECT_EQ(listener.receive(), "nothing");
}

TEST(LocalSocket, address_is_the_whole_structure_with_the_path_cut)
{
    const std::string cut = "/tmp/" + std::string(102, 'p');
    const std::string path = cut + "tail";
    for (int i = 0; i < 2; ++i) { // the second time over the file of the first
        const Socket listener(qzlib_create_listen_unixdomain(path.c_str()));
        ASSERT_GE(listener.fd, 0);
        EXPECT_EQ(access(cut.c_str(), F_OK), 0);
        EXPECT_EQ(qzlib_send_to_unixdomain(path.c_str(), "x", 1), 0);
        EXPECT_EQ(listener.receive(), "x");
    }
    // Only the full size of 110 gives the empty path an (abstract) address of 107 zeros.
    const Socket abstract(qzlib_create_listen_unixdomain(""));
    sockaddr_un address{};
    socklen_t size = sizeof address;
    ASSERT_EQ(getsockname(abstract.fd, reinterpret_cast<sockaddr *>(&address), &size), 0);
    EXPECT_EQ(size, 110U);
}

TEST(LocalSocket, failures_have_their_codes_and_messages_and_leak_nothing)
{
    SyslogSink sink;
    debug_msg(3, nullptr, 0, "opens the log's own socket");
    (void)sink.next();
    const size_t descriptors = open_descriptors();
    EXPECT_EQ(qzlib_create_connect_unixdomain(nullptr), QZLIB_ERR_ARGUMENT);
    EXPECT_EQ(qzlib_create_connect_unixdomain("/tmp/nobody"), QZLIB_ERR_FAILED);
    EXPECT_EQ(qzlib_send_to_unixdomain("/tmp/nobody", "x", 1), QZLIB_ERR_FAILED);
    EXPECT_EQ(sink.next(), "");
    EXPECT_EQ(qzlib_create_listen_unixdomain(nullptr), QZLIB_ERR_ARGUMENT);
    EXPECT_NE(sink.next().find("bad argument for create UNIX domain function{socket_api->"),
              std::string::npos);
    EXPECT_EQ(qzlib_create_listen_unixdomain("/tmp/no/dir"), QZLIB_ERR_FAILED);
    EXPECT_NE(sink.next().find("cannot bind the addr(/tmp/no/dir) in create UNIX domain socket"),
              std::string::npos);
    EXPECT_EQ(open_descriptors(), descriptors);
    {
        const NoDescriptors none;
        EXPECT_EQ(qzlib_create_connect_unixdomain(PATH), QZLIB_ERR_FAILED);
        EXPECT_EQ(qzlib_create_listen_unixdomain(PATH), QZLIB_ERR_FAILED);
        EXPECT_EQ(qzlib_create_listen_tcp(nullptr, 8080), -1) << "deliberately not -264";
        EXPECT_EQ(qzlib_create_listen_udp(nullptr, 8080), QZLIB_ERR_FAILED);
        EXPECT_EQ(qzlib_create_connect_tcp("127.0.0.1", "80", 1), -1);
    }
    for (const char *expected :
         {"cannot create the UNIX domain for connect", "cannot create the UNIX domain for listen",
          "cannot create the TCP socket for listen", "cannot create the UDP socket for listen"}) {
        const std::string line = sink.next();
        EXPECT_NE(line.find(expected), std::string::npos) << line;
    }
}

TEST(InetSocket, flags_differ_between_tcp_and_udp)
{
    const Socket tcp(qzlib_create_listen_tcp("127.0.0.1", 53));
    const Socket udp(qzlib_create_listen_udp("127.0.0.1", 53));
    ASSERT_GE(tcp.fd, 0);
    ASSERT_GE(udp.fd, 0);
    const struct {
        const char *host;
        const char *port;
    } peers[] = {{"127.0.0.1", "53"}, {"localhost", "53"}, {"127.0.0.1", "domain"}};
    for (const auto &peer : peers) {
        for (const int flag : {0, 1, -1}) {
            const Socket stream(qzlib_create_connect_tcp(peer.host, peer.port, flag));
            ASSERT_GE(stream.fd, 0) << peer.host << ' ' << peer.port;
            EXPECT_EQ(stream.nonblocking(), flag == 1);
            EXPECT_TRUE(stream.close_on_exec());
            const Socket datagram(qzlib_create_connect_udp(peer.host, peer.port, flag));
            ASSERT_GE(datagram.fd, 0);
            EXPECT_FALSE(datagram.nonblocking());
            ASSERT_EQ(send(datagram.fd, "d", 1, 0), 1);
            pollfd arrival{udp.fd, POLLIN, 0};
            poll(&arrival, 1, 5000);
            EXPECT_EQ(udp.receive(), "d");
            const Socket any(qzlib_create_connect_addr(peer.host, peer.port, flag));
            EXPECT_GE(any.fd, 0);
        }
    }
}

TEST(InetSocket, failed_connects_have_their_codes)
{
    const struct {
        const char *host;
        const char *port;
        int flag;
        int tcp;
        int addr;
    } cases[] = {
        {nullptr, "1", 0, QZLIB_ERR_ARGUMENT, QZLIB_ERR_ARGUMENT},
        {"127.0.0.1", nullptr, 0, QZLIB_ERR_ARGUMENT, QZLIB_ERR_ARGUMENT},
        {"localhost", "no-such-service", 0, QZLIB_ERR_FAILED, QZLIB_ERR_FAILED},
        {"127.0.0.1", "8o", 0, QZLIB_ERR_FAILED, QZLIB_ERR_FAILED}, // not all digits: resolved
        {"no-such-host.invalid", "1", 0, QZLIB_ERR_FAILED, QZLIB_ERR_FAILED},
        {"::1", "1", 0, -1, 0}, // nobody listens; as any kind of socket UDP connects
        {"::1", "1", 1, QZLIB_ERR_FAILED, 0},
    };
    for (const auto &c : cases) {
        const size_t descriptors = open_descriptors();
        EXPECT_EQ(qzlib_create_connect_tcp(c.host, c.port, c.flag), c.tcp) << (c.host ? c.host : "null");
        EXPECT_EQ(open_descriptors(), descriptors);
        const Socket any(qzlib_create_connect_addr(c.host, c.port, c.flag));
        EXPECT_EQ(std::min(any.fd, 0), c.addr) << (c.host ? c.host : "null");
    }
    // The direct path leaves its socket open, deliberately.
    const size_t descriptors = open_descriptors();
    EXPECT_EQ(qzlib_create_connect_tcp("127.0.0.1", "1", 1), -1);
    EXPECT_EQ(open_descriptors(), descriptors + 1);
}

TEST(InetSocket, text_that_only_looks_like_an_address_is_0_0_0_0)
{
    const Socket udp(qzlib_create_connect_udp("300.1.1.1", "4242", 0));
    ASSERT_GE(udp.fd, 0);
    EXPECT_EQ(ntohl(udp.peer().sin_addr.s_addr), INADDR_LOOPBACK) << "where 0.0.0.0 leads";
    EXPECT_EQ(ntohs(udp.peer().sin_port), 4242);
    const Socket low_bits(qzlib_create_connect_udp("127.0.0.1", "65579", 0));
    EXPECT_EQ(ntohs(low_bits.peer().sin_port), 43);
}

TEST(InetSocket, listeners_bind_what_they_are_given)
{
    SyslogSink sink;
    {
        const Socket tcp(qzlib_create_listen_tcp(nullptr, 8080));
        const Socket udp(qzlib_create_listen_udp(nullptr, 65536 + 8081));
        EXPECT_EQ(tcp.local().sin_addr.s_addr, INADDR_ANY);
        EXPECT_EQ(ntohs(tcp.local().sin_port), 8080);
        EXPECT_EQ(ntohs(udp.local().sin_port), 8081);
        for (const Socket *socket : {&tcp, &udp}) {
            EXPECT_TRUE(socket->nonblocking());
            EXPECT_TRUE(socket->close_on_exec());
        }
        const Socket connected(qzlib_create_connect_tcp("127.0.0.1", "8080", 0));
        const Socket accepted(accept(tcp.fd, nullptr, nullptr));
        EXPECT_GE(accepted.fd, 0);
        EXPECT_EQ(qzlib_create_listen_tcp(nullptr, 8080), QZLIB_ERR_FAILED);
        EXPECT_NE(sink.next().find("cannot bind the addr((null)) in create TCP socket{"), std::string::npos);
    } // the accepted side closed first: only SO_REUSEADDR allows the next one
    const Socket again(qzlib_create_listen_tcp(nullptr, 8080));
    EXPECT_GE(again.fd, 0);

    const size_t descriptors = open_descriptors();
    EXPECT_EQ(qzlib_create_listen_tcp("1.2.3", 8080), QZLIB_ERR_ARGUMENT);
    EXPECT_EQ(qzlib_create_listen_udp("1.2.3", 8080), QZLIB_ERR_ARGUMENT);
    EXPECT_EQ(qzlib_create_listen_udp("192.0.2.1", 8080), QZLIB_ERR_FAILED);
    EXPECT_EQ(open_descriptors(), descriptors);
    EXPECT_NE(sink.next().find("inet_pton input error (1.2.3){"), std::string::npos);
    EXPECT_NE(sink.next().find("inet_pton format error (1.2.3){"), std::string::npos);
    const std::string line = sink.next();
    EXPECT_NE(line.find("cannot bind the addr(192.0.2.1) to  UDP socket("), std::string::npos) << line;
    EXPECT_NE(line.find(") {socket_api->"), std::string::npos) << line;
}

} // namespace
