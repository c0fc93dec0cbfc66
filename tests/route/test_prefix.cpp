#include "support/case.h"

#include <qzlib.h>

namespace
{

using namespace support;

const std::string LONG(4096, '1');

TEST(Prefix, mask_length_is_the_leading_run_of_ones)
{
    const Table<const char *, int> cases = {
        {"0.0.0.0", 0},     {"255.255.255.255", 32}, {"255.255.128.0", 17},   {"255.255.255.254", 31},
        {"255.0.255.0", 8}, {"255.253.0.0", 14},     {"255.255.255.0 x", -1}, {"1.2.3", -1},
        {"", -1},           {"256.0.0.0", -1},       {LONG.c_str(), -1},
    };
    char out[32];
    for (const auto &[mask, length] : cases) {
        EXPECT_EQ(string2masklen(mask), length) << mask;
        EXPECT_EQ(qz_obsolete2ccid(out, "any text as ip", mask), 0);
        EXPECT_EQ(out, "any text as ip/" + std::to_string(length));
    }
    EXPECT_EQ(string2masklen(nullptr), -1);
    EXPECT_EQ(qz_obsolete2ccid(out, nullptr, "0.0.0.0"), -1);
    EXPECT_EQ(qz_obsolete2ccid(out, "1.2.3.4", nullptr), -1);
    EXPECT_EQ(qz_obsolete2ccid(nullptr, "1.2.3.4", "0.0.0.0"), -1);
}

TEST(Prefix, splits_into_address_mask_and_network)
{
    const std::string long_address = LONG + "/24";
    const Table<const char *, const char *, const char *, const char *> cases = {
        {"192.168.1.77/24", "192.168.1.77", "255.255.255.0", "192.168.1.0"},
        {"10.1.2.3/0", "10.1.2.3", "0.0.0.0", "0.0.0.0"},
        {"10.255.255.255/9", "10.255.255.255", "255.128.0.0", "10.128.0.0"},
        {"10.1.2.3", "10.1.2.3", "255.255.255.255", "0.0.0.0"},    // a host: its network beside its mask
        {"10.1.2.3/32", "10.1.2.3", "255.255.255.255", "0.0.0.0"}, // the same
        {"10.1.2.3/40", "10.1.2.3", "", "10.1.2.3"},
        {"10.1.2.3/-1", "10.1.2.3", "", "10.1.2.3"},
        {"10.1.2.3/abc", "10.1.2.3", "0.0.0.0", "0.0.0.0"},
        {"bad/24", "0.0.0.0", "255.255.255.0", "0.0.0.0"},
        {long_address.c_str(), "0.0.0.0", "255.255.255.0", "0.0.0.0"},
    };
    for (const auto &[cidr, ip, mask, net] : cases) {
        char out[3][16];
        EXPECT_EQ(qz_ccid2obsolete(cidr, out[0], out[1], out[2]), 0) << cidr;
        EXPECT_STREQ(out[0], ip) << cidr;
        EXPECT_STREQ(out[1], mask) << cidr;
        EXPECT_STREQ(out[2], net) << cidr;
    }
    char net[16];
    EXPECT_EQ(qz_ccid2obsolete("10.1.2.3/32", nullptr, nullptr, net), 0);
    EXPECT_STREQ(net, "10.1.2.3") << "without the mask a host is its own network";
    EXPECT_EQ(qz_ccid2obsolete(nullptr, net, net, net), -1);
}

TEST(Prefix, judges_whether_an_address_is_in_a_network)
{
    const std::string long_address = LONG + ".2.3.4";
    const Table<const char *, const char *, const char *, int> cases = {
        {"192.168.1.9", "255.255.255.0", "192.168.1.200", 0}, // the network's own bits do not count
        {"192.168.1.0", "255.255.255.0", "192.168.2.1", -1},
        {"10.128.0.0", "255.128.0.0", "10.127.0.0", -1},
        {"1.2.3.4", "0.0.0.0", "250.0.0.1", 0},
        {"1.2.3.4", "255.255.255.255", "1.2.3.5", -1},
        {"10.9.0.0", "255.0.255.0", "10.1.2.3", 0}, // a mask with a hole counts as /8
        {"10.0.0.0", "999.0.0.0", "10.0.0.1", -1},  // passes the validator, converts to nothing
        {"10.0.0.0", "255.0.0.0", "10.0.0.999", -1},
        {long_address.c_str(), "0.0.0.0", "10.0.0.1", -1},
        {nullptr, "0.0.0.0", "10.0.0.1", -1},
        {"10.0.0.0", nullptr, "10.0.0.1", -1},
        {"10.0.0.0", "0.0.0.0", nullptr, -1},
    };
    for (const auto &[ip, mask, probe, result] : cases)
        EXPECT_EQ(srt_ipinnet_judge(ip, mask, probe), result)
            << (ip ? ip : "null") << " " << (mask ? mask : "null") << " " << (probe ? probe : "null");
}

} // namespace
