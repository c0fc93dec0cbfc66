#include "support/case.h"
#include "support/log.h"

#include <qzlib.h>

#include <arpa/inet.h>
#include <poll.h>

namespace
{

using namespace support;
constexpr const char *PATH = "/tmp/test.sock";

// One socket of a test, closed at its end.
struct Socket : NoCopy {
    explicit Socket(int descriptor) : fd(descriptor) {}
    ~Socket() { close(fd); }

    [[nodiscard]] bool waits() const
    {
        EXPECT_EQ(fcntl(fd, F_GETFD), FD_CLOEXEC);
        return (fcntl(fd, F_GETFL) & O_NONBLOCK) == 0;
    }
    // The next datagram; "nothing" when none is there soon.
    [[nodiscard]] std::string receive() const
    {
        char buffer[256];
        pollfd arrival{fd, POLLIN, 0};
        const bool arrived = poll(&arrival, 1, 1000) > 0;
        return arrived ? std::string(buffer, static_cast<size_t>(read(fd, buffer, sizeof buffer)))
                       : "nothing";
    }
    // "ADDRESS:PORT" by getsockname() or getpeername().
    [[nodiscard]] std::string name(decltype(&getsockname) get) const
    {
        sockaddr_in address{};
        socklen_t size = sizeof address;
        get(fd, reinterpret_cast<sockaddr *>(&address), &size);
        return std::string(inet_ntoa(address.sin_addr)) + ":" + std::to_string(ntohs(address.sin_port));
    }
    int fd;
};

TEST(LocalSocket, datagrams_reach_the_bound_path_which_is_cut)
{
    const std::string cut = "/tmp/" + std::string(102, 'p'), longer = cut + "tail";
    const char *path = longer.c_str();
    const Socket listener(qzlib_create_listen_unixdomain(path));
    const Socket sender(qzlib_create_connect_unixdomain(path));
    EXPECT_EQ(qzlib_create_listen_unixdomain(path), QZLIB_ERR_FAILED) << "what lies there stays";
    EXPECT_EQ(access(cut.c_str(), F_OK), 0);
    EXPECT_FALSE(listener.waits() || sender.waits());
    ASSERT_EQ(write(sender.fd, "one", 3), 3);
    EXPECT_EQ(qzlib_send_to_unixdomain(path, "two", 3), 0);
    EXPECT_EQ(listener.receive(), "one");
    EXPECT_EQ(listener.receive(), "two");
    const std::string oversize(1 << 20, 'x');
    EXPECT_EQ(qzlib_send_to_unixdomain(path, oversize.data(), 1 << 20), 0) << "lost silently";
    EXPECT_EQ(listener.receive(), "nothing");

    // Only the full size of 110 gives the empty path an (abstract) address of 107 zeros.
    const Socket abstract(qzlib_create_listen_unixdomain(""));
    sockaddr_un address{};
    socklen_t size = sizeof address;
    ASSERT_EQ(getsockname(abstract.fd, reinterpret_cast<sockaddr *>(&address), &size), 0);
    EXPECT_EQ(size, 110U);
}

TEST(Sockets, failures_have_their_codes_and_messages_and_leak_nothing)
{
    SyslogSink sink;
    debug_msg(3, nullptr, 0, "opens the log's own socket");
    (void)sink.next();
    const Socket taken(qzlib_create_listen_tcp(nullptr, 8080));
    const size_t descriptors = open_descriptors();
    const std::vector<int> refused = {
        qzlib_create_connect_unixdomain(nullptr),   qzlib_create_listen_unixdomain(nullptr),
        qzlib_create_listen_tcp("1.2.3", 8080),     qzlib_create_listen_udp("1.2.3", 8080),
        qzlib_send_to_unixdomain(PATH, "", 0),      qzlib_send_to_unixdomain(PATH, "x", -1),
        qzlib_send_to_unixdomain(PATH, nullptr, 1), qzlib_send_to_unixdomain(nullptr, "x", 1)};
    EXPECT_EQ(refused, std::vector<int>(refused.size(), QZLIB_ERR_ARGUMENT));
    std::vector<int> failed = {
        qzlib_create_connect_unixdomain("/tmp/nobody"), qzlib_send_to_unixdomain("/tmp/nobody", "x", 1),
        qzlib_create_listen_unixdomain("/tmp/no/dir"), qzlib_create_listen_tcp(nullptr, 8080),
        qzlib_create_listen_udp("192.0.2.1", 8080)};
    EXPECT_EQ(open_descriptors(), descriptors);
    {
        const NoDescriptors none;
        failed.push_back(qzlib_create_connect_unixdomain(PATH));
        failed.push_back(qzlib_create_listen_unixdomain(PATH));
        failed.push_back(qzlib_create_listen_udp(nullptr, 8080));
        EXPECT_EQ(qzlib_create_listen_tcp(nullptr, 8080), -1) << "deliberately not -264";
        EXPECT_EQ(qzlib_create_connect_tcp("127.0.0.1", "80", 1), -1);
    }
    EXPECT_EQ(failed, std::vector<int>(failed.size(), QZLIB_ERR_FAILED));
    EXPECT_EQ(with_zeros(sink.take()),
              "<0>bad argument for create UNIX domain function{socket_api\n"
              "<0>inet_pton input error (0.0.0){socket_api\n"
              "<0>inet_pton format error (0.0.0){socket_api\n"
              "<0>cannot bind the addr(/tmp/no/dir) in create UNIX domain socket{socket_api\n"
              "<0>cannot bind the addr((null)) in create TCP socket{socket_api\n"
              "<0>cannot bind the addr(0.0.0.0) to  UDP socket(0) {socket_api\n"
              "<0>cannot create the UNIX domain for connect\n{socket_api\n"
              "<0>cannot create the UNIX domain for listen{socket_api\n"
              "<0>cannot create the UDP socket for listen{socket_api\n"
              "<0>cannot create the TCP socket for listen{socket_api\n");
}

TEST(InetSocket, flags_differ_between_tcp_and_udp)
{
    const Socket tcp(qzlib_create_listen_tcp("127.0.0.1", 53));
    const Socket udp(qzlib_create_listen_udp("127.0.0.1", 53));
    for (const auto &[host, port] :
         {std::pair("127.0.0.1", "53"), {"localhost", "53"}, {"127.0.0.1", "domain"}})
        for (const int flag : {0, 1, -1}) {
            const Socket stream(qzlib_create_connect_tcp(host, port, flag));
            EXPECT_EQ(stream.waits(), flag != 1) << host << ' ' << port;
            const Socket datagram(qzlib_create_connect_udp(host, port, flag));
            EXPECT_TRUE(datagram.waits());
            ASSERT_EQ(send(datagram.fd, "d", 1, 0), 1);
            EXPECT_EQ(udp.receive(), "d");
            const Socket any(qzlib_create_connect_addr(host, port, flag));
            EXPECT_GE(any.fd, 0);
        }
}

TEST(InetSocket, failed_connects_have_their_codes)
{
    const Table<const char *, const char *, int, int, int> cases = {
        {nullptr, "1", 0, QZLIB_ERR_ARGUMENT, QZLIB_ERR_ARGUMENT},
        {"127.0.0.1", nullptr, 0, QZLIB_ERR_ARGUMENT, QZLIB_ERR_ARGUMENT},
        {"127.0.0.1", "8o", 0, QZLIB_ERR_FAILED, QZLIB_ERR_FAILED}, // not all digits: resolved
        {"::1", "1", 0, -1, 0}, // nobody listens; as any kind of socket UDP connects
        {"::1", "1", 1, QZLIB_ERR_FAILED, 0},
    };
    const size_t descriptors = open_descriptors();
    for (const auto &[host, port, flag, tcp, addr] : cases) {
        EXPECT_EQ(qzlib_create_connect_tcp(host, port, flag), tcp) << (host ? host : "null");
        EXPECT_EQ(open_descriptors(), descriptors);
        const Socket any(qzlib_create_connect_addr(host, port, flag));
        EXPECT_EQ(std::min(any.fd, 0), addr) << (host ? host : "null");
    }
    // The direct path leaves its socket open, deliberately.
    EXPECT_EQ(qzlib_create_connect_tcp("127.0.0.1", "1", 1), -1);
    EXPECT_EQ(open_descriptors(), descriptors + 1);
}

TEST(InetSocket, odd_addresses_and_ports_lead_where_they_always_did)
{
    const Table<int, decltype(&getsockname), const char *, bool> cases = {
        {qzlib_create_connect_udp("300.1.1.1", "4242", 0), getpeername, "127.0.0.1:4242", true},
        {qzlib_create_connect_udp("127.0.0.1", "65579", 0), getpeername, "127.0.0.1:43", true},
        {qzlib_create_listen_udp(nullptr, 65536 + 8081), getsockname, "0.0.0.0:8081", false},
        {qzlib_create_listen_tcp(nullptr, 8081), getsockname, "0.0.0.0:8081", false}};
    for (const auto &[fd, get, name, waits] : cases) {
        const Socket socket(fd);
        EXPECT_EQ(socket.name(get), name);
        EXPECT_EQ(socket.waits(), waits) << name;
    }
    {
        const Socket tcp(qzlib_create_listen_tcp(nullptr, 8080));
        const Socket connected(qzlib_create_connect_tcp("127.0.0.1", "8080", 0));
        const Socket accepted(accept(tcp.fd, nullptr, nullptr));
        EXPECT_GE(accepted.fd, 0);
    } // the accepted side closed first: only SO_REUSEADDR allows the next one
    const Socket again(qzlib_create_listen_tcp(nullptr, 8080));
    EXPECT_GE(again.fd, 0);
}

} // namespace
