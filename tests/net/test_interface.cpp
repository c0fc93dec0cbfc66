#include "support/case.h"
#include "support/log.h"

#include <net/if.h>
#include <qzlib.h>
#include <sys/ioctl.h>

namespace
{

using namespace support;
using Texts = std::vector<std::string>;
const std::string FAILED = std::to_string(QZLIB_ERR_FAILED);

// Result, address, peer's address (of the call for point-to-point links), mask and MAC address of an
// interface; the texts are "kept" where nothing was written.
Texts info(const char *name, bool has_peer = false)
{
    char ip[17] = "kept", peer[17] = "kept", mask[17] = "kept", mac[18] = "kept";
    const int result = has_peer ? qzlib_get_pppinterface_info(name, ip, 17, peer, 17, mask, 17, mac, 18)
                                : qzlib_get_interface_info(name, ip, 17, mask, 17, mac, 18);
    return {std::to_string(result), ip, peer, mask, mac};
}

TEST(InterfaceInfo, of_real_interfaces)
{
    sh("ip link add ppp0 type veth peer name far1; ip link set ppp0 address 02:00:00:00:00:02\n"
       "ip link add wan0 type veth peer name far0; ip link set wan0 address 02:0a:ff:00:10:9b\n"
       "ip addr add 10.64.0.2/30 dev wan0; ip link set ppp0 up\n"
       "ip addr add 10.64.0.2 peer 10.64.0.1/20 dev ppp0; ip link set far0 address 02:00:00:00:00:01\n");
    SyslogSink sink;
    // One failure neither stops nor hides the others.
    const Texts nothing = {FAILED, "kept", "kept", "kept", "kept"};
    EXPECT_EQ(info("wan0"), (Texts{"0", "10.64.0.2", "kept", "255.255.255.252", "02:0A:FF:00:10:9B"}));
    EXPECT_EQ(info("far0"), (Texts{FAILED, "kept", "kept", "kept", "02:00:00:00:00:01"}));
    EXPECT_EQ(info("nosuch0"), nothing);
    EXPECT_EQ(info(std::string(4096, 'l').c_str()), nothing);
    EXPECT_EQ(info(nullptr)[0], std::to_string(QZLIB_ERR_ARGUMENT));
    EXPECT_EQ(qzlib_get_interface_info("nosuch0", nullptr, 0, nullptr, 0, nullptr, 0), 0);
    EXPECT_EQ(sink.take(), "") << "the plain call does not log these";
    EXPECT_EQ(info("ppp0", true),
              (Texts{"0", "10.64.0.2", "10.64.0.1", "255.255.240.0", "02:00:00:00:00:02"}));
    EXPECT_EQ(info("far0", true), (Texts{FAILED, "kept", "kept", "kept", "02:00:00:00:00:01"}));
    char mac[18];
    EXPECT_EQ(qzlib_get_pppinterface_info("nosuch0", nullptr, 0, nullptr, 0, nullptr, 0, mac, 18),
              QZLIB_ERR_FAILED);
    EXPECT_EQ(sink.take(), "<11>Cannot get the interface(far0) address{net_api\n"
                           "<11>Cannot get the interface(far0) peer address{net_api\n"
                           "<11>Cannot get the interface(far0) netmask{net_api\n"
                           "<11>Cannot get the interface(nosuch0) mac address{net_api\n");
}

TEST(InterfaceInfo, texts_obey_the_size_of_their_buffer)
{
    const Table<unsigned, std::string, std::string> cases = {
        // '#': as it was
        {0, "127.0.0.1", "00:00:00:00:00:00"}, // no bound
        {1, "", ""},
        {10, "#########", "00:00:00"},
        {11, "127.0.0.1", "00:00:00:"},
        {18, "127.0.0.1", "00:00:00:00:00:00"},
    };
    for (const auto &[size, expected_ip, expected_mac] : cases) {
        std::string ip(40, '#'), mac(40, '#');
        EXPECT_EQ(qzlib_get_interface_info("lo", ip.data(), size, nullptr, 0, mac.data(), size), 0);
        EXPECT_EQ(ip.c_str(), expected_ip) << size;
        EXPECT_EQ(mac.c_str(), expected_mac) << size;
        if (size > 0) {
            EXPECT_EQ(mac[size - 1], '\0');
            EXPECT_EQ(mac.substr(size), std::string(40 - size, '#'));
            EXPECT_EQ(ip.substr(size), std::string(40 - size, '#'));
        }
    }
}

TEST(InterfaceInfo, ip_by_name_is_made_of_four_characters)
{
    uint32_t value = 7;
    EXPECT_EQ(qzlib_get_ip_by_name("lo", &value), 0);
    EXPECT_EQ(value, 0x3132372EU); // "127."
    EXPECT_EQ(qzlib_get_ip_by_name("nosuch0", &value), QZLIB_ERR_FAILED);
    EXPECT_EQ(qzlib_get_ip_by_name(nullptr, &value), QZLIB_ERR_ARGUMENT);
    EXPECT_EQ(qzlib_get_ip_by_name("lo", nullptr), QZLIB_ERR_ARGUMENT);
}

using InterfaceStatus = NothingLeft;
using Counters = std::array<long long, 8>;

int status(const char *name, Counters &c)
{
    return qzlib_get_interface_status(name, &c[0], &c[1], &c[2], &c[3], &c[4], &c[5], &c[6], &c[7]);
}

TEST_F(InterfaceStatus, is_that_of_the_first_line_that_has_the_name)
{
    EXPECT_EQ(qzlib_get_tcp_latency("127.0.0.1", "9", 5000), -1); // two packets
    Counters c{};
    ASSERT_EQ(status("lo", c), 0);
    std::string lines;
    for (const long long counter : c)
        lines += std::to_string(counter) + "\n";
    EXPECT_EQ(lines,
              sh("cd /sys/class/net/lo/statistics\n"
                 "cat rx_bytes rx_packets rx_errors rx_dropped tx_bytes tx_packets tx_errors tx_dropped"));
    long long *const none = nullptr;
    EXPECT_EQ(qzlib_get_interface_status("lo", none, none, none, none, none, none, none, none), 0);

    write_file("/tmp/net/dev",
               "Inter-| eth0: 1 2 3\n face | eth0: 9\n"
               " veth0: 1 2 3 4 5 6 7 8 9 10 11 12 13 14 15 16\n"
               "  eth0:9223372036854775807 4294967296 18446744073709551615 0 0 0 0 0 5000000000 1 2 3\n"
               "  wan0: 21 22 23\n" +
                   std::string(600, ' ') + "far0: 31 32 33 34 35 36 37 38 39 40 41 42\nbare0 1 2\n");
    // The directory: the kernel drops what is mounted on a file in it.
    ASSERT_EQ(mount("/tmp/net", "/proc/self/net", nullptr, MS_BIND, nullptr), 0);
    const Table<const char *, Counters> cases = {
        {"eth0", {1, 2, 3, 4, 9, 10, 11, 12}}, // veth0 comes first
        {" eth0", {INT64_MAX, 4294967296, INT64_MAX, 0, 5000000000, 1, 2, 3}},
        {"wan0", {21, 22, 23}},                     // a line that is too short
        {"far0", {31, 32, 33, 34, 39, 40, 41, 42}}, // more than 511 characters come in pieces
    };
    for (const auto &[name, counters] : cases) {
        c = {};
        EXPECT_EQ(status(name, c), 0) << name;
        EXPECT_EQ(c, counters) << name;
    }
    for (const char *name : {"bare0", "$(x)\xff", "Inter"}) // the heading does not count
        EXPECT_EQ(status(name, c), QZLIB_ERR_NOT_FOUND) << name;
    write_file("/tmp/net/dev", "one line");
    EXPECT_EQ(status("one", c), QZLIB_ERR_NOT_FOUND);
}

TEST(InterfaceFlags, are_tested_set_and_cleared)
{
    sh("ip link add eth0 type veth peer name far0");
    const auto get = qzlib_get_interface_flag;
    const auto set = qzlib_set_interface_flag, clear = qzlib_clear_interface_flag;
    EXPECT_EQ(get("lo", IFF_UP | IFF_LOOPBACK), 0);
    EXPECT_EQ(get("lo", 0), 0);
    EXPECT_EQ(get("lo", IFF_UP | 0x10000), -1); // IFF_LOWER_UP
    EXPECT_EQ(set("eth0", IFF_DYNAMIC), 0);
    EXPECT_EQ(get("eth0", IFF_DYNAMIC), -1) << "bit 15 never matches";
    EXPECT_EQ(get("eth0", IFF_UP), -1);
    EXPECT_EQ(clear("eth0", IFF_UP), QZLIB_ERR_NOT_FOUND);
    EXPECT_EQ(set("eth0", IFF_UP | IFF_PROMISC), 0);
    EXPECT_EQ(get("eth0", IFF_UP | IFF_PROMISC), 0);
    EXPECT_EQ(set("eth0", IFF_UP), QZLIB_ERR_NOT_FOUND);
    EXPECT_EQ(set("eth0", 0), QZLIB_ERR_NOT_FOUND);
    EXPECT_EQ(clear("eth0", 0), QZLIB_ERR_NOT_FOUND);
    EXPECT_EQ(clear("eth0", IFF_PROMISC), 0);
    EXPECT_EQ(get("eth0", IFF_UP), 0) << "others stay";
    EXPECT_EQ(get("eth0", IFF_PROMISC), -1);

    SyslogSink sink;
    const auto results = [&](const char *name) {
        return std::vector{get(name, IFF_UP), set(name, IFF_UP), clear(name, IFF_UP)};
    };
    EXPECT_EQ(results(nullptr), std::vector<int>(3, QZLIB_ERR_ARGUMENT));
    EXPECT_EQ(results("nosuch0"), std::vector<int>(3, QZLIB_ERR_FAILED));
    {
        const NoDescriptors none;
        char ip[17];
        Counters c;
        EXPECT_EQ(qzlib_get_interface_info("lo", ip, 17, nullptr, 0, nullptr, 0), QZLIB_ERR_FAILED);
        EXPECT_EQ(qzlib_get_pppinterface_info("lo", ip, 17, nullptr, 0, nullptr, 0, nullptr, 0),
                  QZLIB_ERR_FAILED);
        EXPECT_EQ(results("lo"), std::vector<int>(3, QZLIB_ERR_FAILED));
        EXPECT_EQ(status("lo", c), QZLIB_ERR_FAILED);
    }
    // No right to change flags from here on; an ordinary user's box knows no other user.
    ASSERT_TRUE(setuid(65534) == 0 || unshare(CLONE_NEWUSER) == 0);
    EXPECT_EQ(set("eth0", IFF_PROMISC), QZLIB_ERR_FAILED);
    EXPECT_EQ(clear("lo", IFF_UP), QZLIB_ERR_FAILED);
    EXPECT_EQ(sink.take(), "<11>Cannot get the interface(nosuch0) flags{net_api\n"
                           "<11>ioctl a socket(get interface(nosuch0) flags) error{net_api\n"
                           "<11>create a socket(get interface(lo) address) error{net_api\n"
                           "<11>Cannot create a socket for get the interface(lo) address{net_api\n"
                           "<11>create a socket(get interface(lo) flags) error{net_api\n"
                           "<11>Cannot create a socket for set the interface(lo) flags{net_api\n"
                           "<11>create a socket(clear the interface(lo) flags) error{net_api\n"
                           "<11>Cannot open the File(/proc/net/dev) for get the interface status{net_api\n"
                           "<11>Cannot set the interface(eth0) flags{net_api\n"
                           "<11>ioctl a socket(set interface(lo) flags) error {net_api\n");
}

} // namespace
