#include "support/network.h"
#include "support/syslog_sink.h"

#include <fcntl.h>
#include <gtest/gtest.h>
#include <linux/if_tun.h>
#include <net/if.h>
#include <qzlib.h>
#include <sys/ioctl.h>

namespace
{

using support::sh;
using support::SyslogSink;

struct Info {
    char ip[18] = "kept", mask[18] = "kept", mac[19] = "kept";
    int result;
    explicit Info(const char *name) : result(qzlib_get_interface_info(name, ip, 17, mask, 17, mac, 18)) {}
};

// The next message of the log, as "text{module->"; every family message here is at level 3.
std::string next_error(SyslogSink &sink)
{
    const std::string line = sink.next();
    const size_t text = line.find(": ");
    if (line.compare(0, 4, "<11>") != 0 || text == std::string::npos)
        return line;
    return line.substr(text + 2, line.rfind("->") - text - 2);
}

TEST(InterfaceInfo, of_real_interfaces)
{
    sh("ip link add wan0 type veth peer name far0; ip link set wan0 address 02:0a:ff:00:10:9b\n"
       "ip addr add 10.64.0.2/30 dev wan0");
    const Info lo("lo");
    EXPECT_EQ(lo.result, 0);
    EXPECT_STREQ(lo.ip, "127.0.0.1");
    EXPECT_STREQ(lo.mask, "255.0.0.0");
    EXPECT_STREQ(lo.mac, "00:00:00:00:00:00");
    const Info wan("wan0");
    EXPECT_STREQ(wan.ip, "10.64.0.2");
    EXPECT_STREQ(wan.mask, "255.255.255.252");
    EXPECT_STREQ(wan.mac, "02:0A:FF:00:10:9B");
}

TEST(InterfaceInfo, of_a_point_to_point_device)
{
    const int tun = open("/dev/net/tun", O_RDWR | O_CLOEXEC);
    ASSERT_GE(tun, 0);
    ifreq request{};
    strcpy(request.ifr_name, "ppp0");
    request.ifr_flags = IFF_TUN | IFF_NO_PI;
    ASSERT_EQ(ioctl(tun, TUNSETIFF, &request), 0);
    sh("ip addr add 10.64.0.2 peer 10.64.0.1/20 dev ppp0; ip link set ppp0 up");
    char ip[17], peer[17], mask[17], mac[18];
    EXPECT_EQ(qzlib_get_pppinterface_info("ppp0", ip, 17, peer, 17, mask, 17, mac, 18), 0);
    EXPECT_STREQ(ip, "10.64.0.2");
    EXPECT_STREQ(peer, "10.64.0.1");
    EXPECT_STREQ(mask, "255.255.240.0");
    EXPECT_STREQ(mac, "00:00:00:00:00:00");
    EXPECT_EQ(qzlib_get_interface_flag("ppp0", IFF_POINTOPOINT | IFF_UP), 0);
    close(tun);
}

TEST(InterfaceInfo, one_failure_neither_stops_nor_hides_the_others)
{
    sh("ip link add wan0 type veth peer name far0"); // no address
    SyslogSink sink;
    const Info wan("wan0");
    EXPECT_EQ(wan.result, -264);
    EXPECT_STREQ(wan.ip, "kept");
    EXPECT_NE(std::string(wan.mac), "kept");
    const Info missing("nosuch0");
    EXPECT_EQ(missing.result, -264);
    EXPECT_STREQ(missing.mask, "kept");
    EXPECT_STREQ(missing.mac, "kept");
    EXPECT_EQ(Info(nullptr).result, -257);
    EXPECT_EQ(Info(std::string(4096, 'l').c_str()).result, -264);
    EXPECT_EQ(sink.next(), "") << "the plain call does not log these";
    EXPECT_EQ(qzlib_get_interface_info("nosuch0", nullptr, 0, nullptr, 0, nullptr, 0), 0);

    char ip[17] = "kept", peer[17] = "kept", mask[17] = "kept", mac[18] = "kept";
    EXPECT_EQ(qzlib_get_pppinterface_info("wan0", ip, 17, peer, 17, mask, 17, mac, 18), -264);
    EXPECT_STREQ(peer, "kept");
    EXPECT_NE(std::string(mac), "kept");
    EXPECT_EQ(next_error(sink), "Cannot get the interface(wan0) address{net_api");
    EXPECT_EQ(next_error(sink), "Cannot get the interface(wan0) peer address{net_api");
    EXPECT_EQ(next_error(sink), "Cannot get the interface(wan0) netmask{net_api");
    EXPECT_EQ(sink.next(), "");
    EXPECT_EQ(qzlib_get_pppinterface_info("nosuch0", nullptr, 0, nullptr, 0, nullptr, 0, mac, 18), -264);
    EXPECT_EQ(next_error(sink), "Cannot get the interface(nosuch0) mac address{net_api");
}

TEST(InterfaceInfo, texts_obey_the_size_of_their_buffer)
{
    const struct {
        unsigned size;
        std::string ip, mac; // '#': as it was
    } cases[] = {
        {0, "127.0.0.1", "00:00:00:00:00:00"}, // no bound
        {1, "", ""},
        {2, "#", ""},
        {10, "#########", "00:00:00"},
        {11, "127.0.0.1", "00:00:00:"},
        {18, "127.0.0.1", "00:00:00:00:00:00"},
    };
    for (const auto &c : cases) {
        char ip[40], mac[40];
        memset(ip, '#', sizeof ip);
        memset(mac, '#', sizeof mac);
        EXPECT_EQ(qzlib_get_interface_info("lo", ip, c.size, nullptr, 0, mac, c.size), 0);
        EXPECT_EQ(ip, c.ip) << c.size;
        EXPECT_EQ(mac, c.mac) << c.size;
        if (c.size > 0) {
            EXPECT_EQ(mac[c.size - 1], '\0');
            EXPECT_EQ(mac[c.size], '#');
            EXPECT_EQ(ip[c.size], '#');
        }
    }
}

TEST(InterfaceInfo, ip_by_name_is_made_of_four_characters)
{
    uint32_t value = 7;
    EXPECT_EQ(qzlib_get_ip_by_name("lo", &value), 0);
    EXPECT_EQ(value, 0x3132372EU); // "127."
    EXPECT_EQ(qzlib_get_ip_by_name("nosuch0", &value), -264);
    EXPECT_EQ(qzlib_get_ip_by_name(nullptr, &value), -257);
    EXPECT_EQ(qzlib_get_ip_by_name("lo", nullptr), -257);
}

int status(const char *name, long long (&c)[8])
{
    return qzlib_get_interface_status(name, &c[0], &c[1], &c[2], &c[3], &c[4], &c[5], &c[6], &c[7]);
}

TEST(InterfaceStatus, of_real_interfaces)
{
    const size_t descriptors = support::open_descriptors();
    sh("ip link add wan0 type veth peer name far0");
    EXPECT_EQ(qzlib_get_tcp_latency("127.0.0.1", "9", 5000), -1); // two packets
    long long c[8] = {-1, -1, -1, -1, -1, -1, -1, -1};
    ASSERT_EQ(status("lo", c), 0);
    const char *files[8] = {"rx_bytes", "rx_packets", "rx_errors", "rx_dropped",
                            "tx_bytes", "tx_packets", "tx_errors", "tx_dropped"};
    for (int i = 0; i < 8; ++i)
        EXPECT_EQ(support::read_file(std::string("/sys/class/net/lo/statistics/") + files[i]),
                  std::to_string(c[i]) + "\n");
    EXPECT_EQ(status("wan0", c), 0);
    EXPECT_EQ(status("nosuch0", c), -272);
    EXPECT_EQ(qzlib_get_interface_status("lo", nullptr, nullptr, nullptr, nullptr, nullptr, nullptr, nullptr,
                                         nullptr),
              0);
    EXPECT_EQ(support::open_descriptors(), descriptors);
}

TEST(InterfaceStatus, of_the_first_line_that_has_the_name)
{
    const std::string head = "Inter-| eth0: 1 2 3\n face | eth0: 9\n";
    support::write_file(
        "/tmp/net/dev",
        head +
            " veth0: 1 2 3 4 5 6 7 8 9 10 11 12 13 14 15 16\n"
            "  eth0:9223372036854775807 4294967296 18446744073709551615 0 0 0 0 0 5000000000 1 2 3\n"
            "  wan0: 21 22 23\n" +
            std::string(600, ' ') + "far0: 31 32 33 34 35 36 37 38 39 40 41 42\n" + "bare0 1 2\n");
    // The directory: the kernel drops what is mounted on a file in it.
    ASSERT_EQ(mount("/tmp/net", "/proc/self/net", nullptr, MS_BIND, nullptr), 0);
    long long c[8];
    ASSERT_EQ(status("eth0", c), 0); // veth0 comes first
    EXPECT_EQ(std::vector<long long>(c, c + 8), (std::vector<long long>{1, 2, 3, 4, 9, 10, 11, 12}));
    ASSERT_EQ(status(" eth0", c), 0);
    EXPECT_EQ(std::vector<long long>(c, c + 8),
              (std::vector<long long>{INT64_MAX, 4294967296, INT64_MAX, 0, 5000000000, 1, 2, 3}));
    memset(c, 0, sizeof c);
    ASSERT_EQ(status("wan0", c), 0); // a line that is too short
    EXPECT_EQ(std::vector<long long>(c, c + 8), (std::vector<long long>{21, 22, 23, 0, 0, 0, 0, 0}));
    ASSERT_EQ(status("far0", c), 0); // a line of more than 511 characters comes in pieces
    EXPECT_EQ(c[0], 31);
    EXPECT_EQ(status("bare0", c), -272);
    EXPECT_EQ(status("Inter", c), -272) << "the heading does not count";
    EXPECT_EQ(status("$(x)\xff", c), -272);
    support::write_file("/tmp/net/dev", "one line");
    EXPECT_EQ(status("one", c), -272);
}

TEST(InterfaceFlags, are_tested_set_and_cleared)
{
    sh("ip link add eth0 type veth peer name far0");
    EXPECT_EQ(qzlib_get_interface_flag("lo", IFF_UP | IFF_LOOPBACK), 0);
    EXPECT_EQ(qzlib_get_interface_flag("lo", 0), 0);
    EXPECT_EQ(qzlib_get_interface_flag("lo", IFF_UP | 0x10000), -1); // IFF_LOWER_UP
    EXPECT_EQ(qzlib_set_interface_flag("eth0", IFF_DYNAMIC), 0);
    EXPECT_EQ(qzlib_get_interface_flag("eth0", IFF_DYNAMIC), -1) << "bit 15 never matches";
    EXPECT_EQ(qzlib_get_interface_flag("eth0", IFF_UP), -1);
    EXPECT_EQ(qzlib_clear_interface_flag("eth0", IFF_UP), -272);
    EXPECT_EQ(qzlib_set_interface_flag("eth0", IFF_UP | IFF_PROMISC), 0);
    EXPECT_EQ(qzlib_get_interface_flag("eth0", IFF_UP | IFF_PROMISC), 0);
    EXPECT_EQ(qzlib_set_interface_flag("eth0", IFF_UP), -272);
    EXPECT_EQ(qzlib_set_interface_flag("eth0", 0), -272);
    EXPECT_EQ(qzlib_clear_interface_flag("eth0", 0), -272);
    EXPECT_EQ(qzlib_clear_interface_flag("eth0", IFF_PROMISC), 0);
    EXPECT_EQ(qzlib_get_interface_flag("eth0", IFF_UP), 0) << "others stay";
    EXPECT_EQ(qzlib_get_interface_flag("eth0", IFF_PROMISC), -1);
    EXPECT_EQ(qzlib_get_interface_flag(nullptr, IFF_UP), -257);
    EXPECT_EQ(qzlib_set_interface_flag(nullptr, IFF_UP), -257);
    EXPECT_EQ(qzlib_clear_interface_flag(nullptr, IFF_UP), -257);
}

TEST(InterfaceMessages, are_worded_as_they_always_were)
{
    sh("ip link add eth0 type veth peer name far0");
    SyslogSink sink;
    syslog(LOG_ERR, "connects");
    EXPECT_NE(sink.next(), "");
    EXPECT_EQ(qzlib_get_interface_flag("nosuch0", IFF_UP), -264);
    EXPECT_EQ(qzlib_set_interface_flag("nosuch0", IFF_UP), -264);
    EXPECT_EQ(qzlib_clear_interface_flag("nosuch0", IFF_UP), -264);
    EXPECT_EQ(next_error(sink), "Cannot get the interface(nosuch0) flags{net_api");
    EXPECT_EQ(next_error(sink), "ioctl a socket(get interface(nosuch0) flags) error{net_api");
    {
        const support::NoDescriptors none;
        char ip[17];
        long long c[8];
        EXPECT_EQ(qzlib_get_interface_info("lo", ip, 17, nullptr, 0, nullptr, 0), -264);
        EXPECT_EQ(qzlib_get_pppinterface_info("lo", ip, 17, nullptr, 0, nullptr, 0, nullptr, 0), -264);
        EXPECT_EQ(qzlib_get_interface_flag("lo", IFF_UP), -264);
        EXPECT_EQ(qzlib_set_interface_flag("lo", IFF_UP), -264);
        EXPECT_EQ(qzlib_clear_interface_flag("lo", IFF_UP), -264);
        EXPECT_EQ(status("lo", c), -264);
    }
    for (const char *text : {"create a socket(get interface(lo) address) error",
                             "Cannot create a socket for get the interface(lo) address",
                             "create a socket(get interface(lo) flags) error",
                             "Cannot create a socket for set the interface(lo) flags",
                             "create a socket(clear the interface(lo) flags) error",
                             "Cannot open the File(/proc/net/dev) for get the interface status"})
        EXPECT_EQ(next_error(sink), std::string(text) + "{net_api");

    ASSERT_EQ(setuid(65534), 0); // no right to change flags
    EXPECT_EQ(qzlib_set_interface_flag("eth0", IFF_UP), -264);
    EXPECT_EQ(qzlib_clear_interface_flag("lo", IFF_UP), -264);
    EXPECT_EQ(next_error(sink), "Cannot set the interface(eth0) flags{net_api");
    EXPECT_EQ(next_error(sink), "ioctl a socket(set interface(lo) flags) error {net_api");
}

} // namespace
