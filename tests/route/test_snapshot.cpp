#include "support/case.h"

#include <qzlib.h>

namespace
{

using namespace support;
using Lines = std::vector<std::string>;

// The records of a snapshot as text, one line each. Every field must end inside its width, with
// nothing but zeros after its text.
Lines snapshot()
{
    const auto text = [](const char *field, size_t size) {
        const size_t length = strnlen(field, size);
        EXPECT_LT(length, size);
        EXPECT_EQ(std::string(field + length, size - length), std::string(size - length, '\0'));
        return std::string(field, length);
    };
    Lines lines;
    srtinfo *list = qz_srtinfo_stat();
    for (const srtinfo *at = list; at != nullptr; at = at->next)
        lines.push_back(text(at->table, 8) + "|" + std::to_string(at->prio) + "|" + text(at->source, 32) +
                        "|" + text(at->dest, 24) + "|" + text(at->dest_ip, 16) + "|" +
                        text(at->dest_mask, 16) + "|" + text(at->gateway, 16) + "|" + text(at->dev, 32));
    qz_srtinfo_free(&list);
    EXPECT_EQ(list, nullptr);
    return lines;
}

using Snapshot = NothingLeft;

TEST_F(Snapshot, of_real_rules_and_tables)
{
    char ifname[32];
    EXPECT_EQ(qz_srtinfo_stat(), nullptr) << "the three standard rules have no source";
    sh("ip link add wan0 type veth peer name far0; ip link set wan0 up; ip addr add 10.64.0.2/30 dev wan0\n"
       "ip route add 10.64.0.0/30 dev wan0 proto kernel scope link src 10.64.0.2 table 100\n"
       "ip route add default via 10.64.0.1 dev wan0 table 100\n"
       "ip route add default via 10.64.0.1; ip route add unreachable 172.17.0.0/16\n"
       "ip route add 8.8.8.8 via 10.64.0.1 dev wan0 metric 7 table 100\n"
       "ip route add blackhole 10.9.0.0/16 table 102\n"
       "ip route add unreachable default table 102\n"
       "ip route add 172.16.0.0/12 table 102 nexthop via 10.64.0.1 dev wan0 nexthop dev wan0 weight 2\n"
       "ip rule add from 192.168.10.0/24 lookup 100 prio 32000\n"
       "ip rule add from 192.168.11.5 lookup 101 prio 31000\n" // an empty table
       "ip rule add from 192.168.12.0/24 lookup 102 prio 30000\n"
       "ip rule add from 192.168.13.0/24 blackhole prio 29000\n"
       "ip rule add not from 192.168.14.0/24 fwmark 1 lookup 100 prio 28000\n"
       "ip rule add to 192.168.16.0/24 lookup 100 prio 26000\n");
    EXPECT_EQ(snapshot(), (Lines{
                              "102|30000|192.168.12.0/24|unreachable|0.0.0.0|255.255.255.255|0.0.0.0|",
                              "102|30000|192.168.12.0/24|blackhole|0.0.0.0|255.255.255.255|0.0.0.0|",
                              "102|30000|192.168.12.0/24|172.16.0.0/12|172.16.0.0|255.240.0.0|0.0.0.0|",
                              "102|30000|192.168.12.0/24|nexthop|0.0.0.0|255.255.255.255|10.64.0.1|wan0",
                              "102|30000|192.168.12.0/24|nexthop|0.0.0.0|255.255.255.255|0.0.0.0|wan0",
                              "100|32000|192.168.10.0/24|0.0.0.0/0|0.0.0.0|0.0.0.0|10.64.0.1|wan0",
                              "100|32000|192.168.10.0/24|8.8.8.8|8.8.8.8|255.255.255.255|10.64.0.1|wan0",
                              "100|32000|192.168.10.0/24|10.64.0.0/30|10.64.0.0|255.255.255.252|0.0.0.0|wan0",
                          }));
    for (const auto &[ip, device] :
         {std::pair("1.1.1.1", "wan0"), {"10.64.0.1", "wan0"}, {"172.17.3.4", "-"}}) {
        EXPECT_EQ(qzlib_get_route_interface(ip, ifname), 0) << ip;
        EXPECT_STREQ(ifname, device) << ip;
    }
}

TEST_F(Snapshot, of_scripted_lines_splits_them_by_position)
{
    // A rule; the front of its records; the command that asks for its routes, none for one left out.
    const Table<std::string, std::string, std::string> rules = {
        {"0:\tfrom all lookup local", "", ""},
        {"32765: from 192.168.10.0/24 lookup 100", "100|32765|192.168.10.0/24|", "4:route ls table 100"},
        {"-5: from 10.0.0.1 lookup 100", "", ""},     // a negative priority
        {"7: from 10.0.0.2 lookup abcdefgh", "", ""}, // a table name of 8 characters
        {"4294967295: from 10.0.0.3 lookup a", "a|2147483647|10.0.0.3|", "4:route ls table a"},
        {"x: from 10.0.0.3 lookup abcdefg ", "abcdefg|0|10.0.0.3|", "4:route ls table abcdefg"},
        {"1: from 10.0.0.1 lookup ;id>/x", ";id>/x|1|10.0.0.1|", "4:route ls table ;id>/x"},
        {"3: from $(>/x) lookup $(>/x)", "$(>/x)|3|$(>/x)|", "4:route ls table $(>/x)"},
        {"4: from 10.0.0.4 lookup *", "*|4|10.0.0.4|", "4:route ls table *"},
        {"5: from 10.0.0.5 blackhole", "|5|10.0.0.5|", "3:route ls table"},
        {"", "|0||", "3:route ls table"},
    };
    const std::string long_route = "10.7.0.0/16 dev eth7 " + std::string(107, 'a') + " tail1 tail2 tail3";
    ASSERT_EQ(long_route.find(" tail1"), 128U) << "the second piece begins with the last a";
    const Table<std::string, Lines> routes = {
        {"default via 10.64.0.1 dev rmnet0 ", {"0.0.0.0/0|0.0.0.0|0.0.0.0|10.64.0.1|rmnet0"}},
        {"10.64.0.0/30 dev rmnet0 proto kernel scope link src 10.64.0.2",
         {"10.64.0.0/30|10.64.0.0|255.255.255.252|0.0.0.0|rmnet0"}},
        {"10.1.0.0/16 dev via0 proto kernel", // a device that is named so
         {"10.1.0.0/16|10.1.0.0|255.255.0.0|via0|kernel"}},
        {"10.2.0.0/16 via inet6 fe80::1 dev eth0", {"10.2.0.0/16|10.2.0.0|255.255.0.0|inet6|dev"}},
        {"10.4.0.0/16 via", {"10.4.0.0/16|10.4.0.0|255.255.0.0|0.0.0.0|"}}, // no word for the gateway
        {long_route, // read in pieces of 127 characters
         {"10.7.0.0/16|10.7.0.0|255.255.0.0|0.0.0.0|eth7", "a|0.0.0.0|255.255.255.255|0.0.0.0|tail2"}},
        {"123456789012345678901234567890 via 1234567890123456789 dev 123456789012345678901234567890123456789",
         {"12345678901234567890123|0.0.0.0|255.255.255.255|123456789012345|1234567890123456789012345678901"}},
        {"10.3.0.0/16 dev eth3", {"10.3.0.0/16|10.3.0.0|255.255.0.0|0.0.0.0|eth3"}},
    };
    std::string rule_text, route_text, calls = "2:rule ls\n";
    for (const auto &[line, records] : routes)
        route_text += line + "\n";
    route_text.pop_back(); // no line feed at the end
    Lines expected;
    for (const auto &[rule, front, call] : rules) {
        rule_text += rule + "\n";
        calls += call.empty() ? "" : call + "\n";
        for (const auto &[line, records] : routes)
            for (const std::string &record : call.empty() ? Lines{} : records)
                expected.push_back(front + record);
    }
    write_file("/tmp/rule", rule_text);
    write_file("/tmp/route", route_text);
    fake_command("ip", "#!/bin/sh\nprintf '%s\\n' \"$#:$*\" >>/tmp/calls; cat /tmp/$1\n");
    EXPECT_EQ(snapshot(), expected);
    EXPECT_EQ(read_file("/tmp/calls"), calls);
    EXPECT_NE(access("/x", F_OK), 0) << "a name was run";
}

TEST_F(Snapshot, finds_commands_as_a_shell_does_and_survives_signals)
{
    fake_command("ip", // no "#!"
                 "sleep 0.2; test $1 = rule && echo 1: from 10.0.0.1 lookup 5 || echo default dev script\n");
    {
        const SignalStorm storm;
        EXPECT_EQ(snapshot(), Lines{"5|1|10.0.0.1|0.0.0.0/0|0.0.0.0|0.0.0.0|0.0.0.0|script"});
    }
    sh("ip() { /sbin/ip \"$@\"; }; ip rule add from 10.0.0.1 lookup 6; ip link set lo up\n"
       "ip route add 10.1.0.0/16 dev lo table 6");
    unsetenv("PATH"); // a daemon that init started
    EXPECT_EQ(snapshot(), Lines{"6|32765|10.0.0.1|10.1.0.0/16|10.1.0.0|255.255.0.0|0.0.0.0|lo"});
    setenv("PATH", "/nowhere", 1);
    char ifname[32] = "kept";
    EXPECT_EQ(qz_srtinfo_stat(), nullptr);
    EXPECT_EQ(qzlib_get_route_interface("10.0.0.1", ifname), -1);
    EXPECT_STREQ(ifname, "kept");
}

TEST_F(Snapshot, route_interface_needs_length_and_metric_together)
{
    const std::string any = "0.0.0.0 10.9.9.9 0.0.0.0 UG 0 0 0 eth1\n";
    const std::string eight = "10.0.0.0 0.0.0.0 255.0.0.0 U 5 0 0 eth2\n";
    const std::string names = std::string(31, 'n') + std::string(400, 'm');
    const Table<std::string, std::string> cases = {
        {any + eight, "eth1"}, // the longer prefix loses on its metric
        {eight + any, "eth2"},
        {any + "0.0.0.0 10.9.9.8 0.0.0.0 UG 0 0 0 eth4\n", "eth4"}, // of equals the later
        {"0.0.0.0 10.9.9.9 0.0.0.0 UG 10000 0 0 eth5", "eth5"},     // no line feed
        {"0.0.0.0 10.9.9.9 0.0.0.0 UG 10001 0 0 eth5\n", "kept"},
        {"10.1.0.0 - 255.255.0.0 !H 0 - 0 -\n", "-"},
        {"10.0.0.0 0.0.0.0 255.0.0.0 U - 0 0 eth7\n" + any, "eth1"},
        {"10.0.0.0 0.0.0.0 255.0.0.0 U 0 0\n\n" + std::string(4096, 'x') + "\n" + any, "eth1"},
        {"10.0.0.0 0.0.0.0 255.0.0.0 U 0 0 0 " + names + "\n", names.substr(0, 31)},
        {"", "kept"},
    };
    fake_command("route", "#!/bin/sh\ntest \"$*\" = -n && cat /tmp/route-n\n");
    char ifname[32];
    for (const auto &[lines, device] : cases) {
        strcpy(ifname, "kept");
        write_file("/tmp/route-n", "Kernel IP routing table\nDestination ...\n" + lines);
        EXPECT_EQ(qzlib_get_route_interface("10.1.1.1", ifname), device == "kept" ? -1 : 0) << lines;
        EXPECT_EQ(ifname, device) << lines;
    }
    write_file("/tmp/route-n", any);
    for (const char *ip : {static_cast<const char *>(nullptr), "", "10.1.1", "$(>/x)", names.c_str()})
        EXPECT_EQ(qzlib_get_route_interface(ip, ifname), -1);
    EXPECT_EQ(qzlib_get_route_interface("10.1.1.1", nullptr), -1);
}

TEST(Note, is_kept_under_its_name)
{
    const std::string longest(127 - strlen("/tmp/source_route/.ip"), 'n'), too_long = longest + "n";
    const std::string nines(4096, '9');
    const Table<std::string, std::string, std::string> cases = {
        {"wan1", "10.0.0.2", "10.0.0.2"},  {"wan1", "10.3", "10.3"}, // an earlier note is replaced whole
        {longest, "10.0.0.1", "10.0.0.1"}, {"a;reboot", "1", "1"},   {"long", nines, nines.substr(0, 15)},
        {"two words", "1.1.1.1", "words"}, // the text is read by position
    };
    for (const auto &[name, ip, noted] : cases) {
        char read[17] = "";
        srt_iip_save(name.c_str(), ip.c_str());
        EXPECT_EQ(read_file("/tmp/source_route/" + name + ".ip"), name + " " + ip + "\n");
        EXPECT_EQ(srt_iip_get(name.c_str(), read), 0) << name;
        EXPECT_EQ(read, noted) << name;
    }
    srt_iip_save("empty", "");
    srt_iip_save(nullptr, "1");
    srt_iip_save("wan1", nullptr); // leaves it as it was
    testing::internal::CaptureStderr();
    for (const char *name : {too_long.c_str(), "no/such"})
        srt_iip_save(name, "1");
    EXPECT_EQ(testing::internal::GetCapturedStderr(),
              "fopen failed: File name too long\nfopen failed: No such file or directory\n");
    const char *const none = nullptr;
    char ip[17] = "kept";
    for (const char *name : {none, "wan2", "empty", too_long.c_str(), "no/such"})
        EXPECT_EQ(srt_iip_get(name, ip), -1) << (name ? name : "null");
    EXPECT_STREQ(ip, "kept");
    EXPECT_EQ(srt_iip_get("wan1", nullptr), -1);
    EXPECT_EQ(srt_iip_get("wan1", ip), 0);
}

} // namespace
