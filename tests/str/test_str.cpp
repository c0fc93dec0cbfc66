#include <gtest/gtest.h>
#include <qzlib.h>

#include <cstring>
#include <string>
#include <utility>
#include <vector>

namespace
{

// Applies an in-place routine to a copy in a heap block of exactly the text's size, so that
// the address sanitizer sees a write or a read outside it.
template <typename Routine>
std::string applied(Routine routine, const std::string &text)
{
    std::vector<char> buffer(text.c_str(), text.c_str() + text.size() + 1);
    routine(buffer.data());
    return buffer.data();
}

TEST(Trim, removes_the_four_blanks_at_both_ends_only)
{
    const std::vector<std::pair<std::string, std::string>> cases = {
        {" \t a b \r\n", "a b"}, {"abc", "abc"}, {"", ""}, {" \t\r\n", ""}, {"\va\f", "\va\f"}, {"a", "a"}};
    for (const auto &[input, expected] : cases)
        EXPECT_EQ(applied(qzlib_str_trim, input), expected) << input;
}

TEST(Trim, returns_its_argument)
{
    char text[] = "  x ";
    EXPECT_EQ(qzlib_str_trim(text), text);
}

TEST(Trim, cuts_at_1023_characters_before_it_trims)
{
    const std::string letters(5000, 'x');
    EXPECT_EQ(applied(qzlib_str_trim, letters), std::string(1023, 'x'));
    EXPECT_EQ(applied(qzlib_str_trim, std::string(1022, ' ') + "ab"), "a");
    EXPECT_EQ(applied(qzlib_str_trim, "a" + std::string(1022, ' ') + "b"), "a");
}

TEST(LineEnds, the_first_character_is_never_removed)
{
    const std::vector<std::pair<std::string, std::string>> line_ends = {
        {"x\r\n\r\n", "x"}, {"x \n", "x "}, {"\n", "\n"}, {"\r\n", "\r"}, {"ab\r\n", "ab"}, {"", ""}};
    for (const auto &[input, expected] : line_ends)
        EXPECT_EQ(applied(qzlib_str_del_end_crlf, input), expected) << input;
    const std::vector<std::pair<std::string, std::string>> blanks = {
        {"x \t\r\n", "x"}, {" ", " "}, {"   ", " "}, {"ab \t\n", "ab"}, {" a", " a"}};
    for (const auto &[input, expected] : blanks)
        EXPECT_EQ(applied(qzlib_str_del_crlf, input), expected) << input;
    qzlib_str_del_end_crlf(nullptr);
    qzlib_str_del_crlf(nullptr);
}

TEST(CaseFolding, folds_ascii_and_leaves_the_rest)
{
    EXPECT_EQ(applied(qzlib_str_toupper, "aZ09-\xe4"), "AZ09-\xe4");
    EXPECT_EQ(applied(qzlib_str_tolowr, "aZ09-\xc4"), "az09-\xc4");
}

TEST(PathNotdir, points_behind_the_last_slash)
{
    char path[] = "/usr/sbin/foo";
    EXPECT_EQ(qzlib_path_notdir(path), path + 10);
    char bare[] = "foo";
    EXPECT_EQ(qzlib_path_notdir(bare), bare);
    char folder[] = "/a/b/";
    EXPECT_STREQ(qzlib_path_notdir(folder), "");
}

TEST(Validators, accept_exactly_the_loose_forms)
{
    struct Case {
        unsigned (*check)(const char *);
        const char *text;
        unsigned expected;
    };
    const Case cases[] = {
        {qzlib_ip_is_valid, "192.168.1.1", 1},
        {qzlib_ip_is_valid, "999.1.1.1", 1},
        {qzlib_ip_is_valid, ".1.2.3", 1},
        {qzlib_ip_is_valid, "1.2.3.", 1},
        {qzlib_ip_is_valid, "1.2.3.00000000000000000000000000000000000000004", 1},
        {qzlib_ip_is_valid, "1..2.3", 0},
        {qzlib_ip_is_valid, "1.2.3", 0},
        {qzlib_ip_is_valid, "1.2.3.4.5", 0},
        {qzlib_ip_is_valid, "1.2.3.a", 0},
        {qzlib_ip_is_valid, " 1.2.3.4", 0},
        {qzlib_ip_is_valid, "", 0},
        {qzlib_ip_is_valid, nullptr, 0},
        {qzlib_ip_mask_is_valid, "192.168.1.0/24", 1},
        {qzlib_ip_mask_is_valid, "10.0.0.1/", 1},
        {qzlib_ip_mask_is_valid, "10.0.0.1/24abc", 1},
        {qzlib_ip_mask_is_valid, "10.0.0.1/ +32", 1},
        {qzlib_ip_mask_is_valid, "10.0.0.1/24/99", 1},
        {qzlib_ip_mask_is_valid, "192.168.1.0/33", 0},
        {qzlib_ip_mask_is_valid, "192.168.1.0/-1", 0},
        {qzlib_ip_mask_is_valid, "192.168.1.0", 0},
        {qzlib_ip_mask_is_valid, "/24", 0},
        {qzlib_ip_mask_is_valid, nullptr, 0},
        // Only 32 bytes are looked at: the slash at index 31 counts, the digits behind it do not.
        {qzlib_ip_mask_is_valid, "1.2.3.4444444444444444444444444/99", 1},
        {qzlib_ip_mask_is_valid, "1.2.3.44444444444444444444444444/24", 0},
        {qzlib_mac_is_valid, "00:1A:2b:3C:4d:5E", 1},
        {qzlib_mac_is_valid, "00-1A:2B-3C:4D-5E", 1},
        {qzlib_mac_is_valid, "a:b:c:d:e:f", 1},
        {qzlib_mac_is_valid, "1:2:3:4:5:abcdef0", 1},
        {qzlib_mac_is_valid, "1:2:3:4:5:abcdef01", 0},
        {qzlib_mac_is_valid, "001A2B3C4D5E", 0},
        {qzlib_mac_is_valid, "00:1A:2B:3C:4D:5E:", 0},
        {qzlib_mac_is_valid, "0:1:2:3:4:5:", 0},
        {qzlib_mac_is_valid, ":0:1:2:3:4:5", 0},
        {qzlib_mac_is_valid, "0::1:2:3:4:5", 0},
        {qzlib_mac_is_valid, "000:1:2:3:4:5", 0},
        {qzlib_mac_is_valid, "0g:1a:2b:3c:4d:5e", 0},
        {qzlib_mac_is_valid, "0:1:2:3:4:5:6", 0},
        {qzlib_mac_is_valid, "a:b:c:d:e", 0},
        {qzlib_mac_is_valid, "", 0},
        {qzlib_str_is_digit, "0123", 1},
        {qzlib_str_is_digit, "", 1},
        {qzlib_str_is_digit, "-1", 0},
        {qzlib_str_is_digit, "12a", 0},
        {qzlib_str_is_digit, "1.2", 0},
        {qzlib_str_is_digit, nullptr, 0},
    };
    for (const Case &c : cases)
        EXPECT_EQ(c.check(c.text), c.expected) << (c.text != nullptr ? c.text : "null");
}

TEST(GetIpMask, splits_within_the_bounds_of_both_outputs)
{
    char ip[17];
    char length[4];
    const auto split = [&](const char *text) {
        memset(ip, '#', sizeof ip);
        memset(length, '#', sizeof length);
        return qzlib_get_ip_mask(text, ip, length);
    };
    EXPECT_EQ(split("10.1.2.0/24"), 0);
    EXPECT_STREQ(ip, "10.1.2.0");
    EXPECT_STREQ(length, "24");

    EXPECT_EQ(split("192.168.100.2000/128"), 0); // both parts fill their buffer
    EXPECT_EQ(std::string(ip, 17), "192.168.100.2000#");
    EXPECT_EQ(std::string(length, 4), "128#");

    EXPECT_EQ(split("10.1.2.0"), -1);
    EXPECT_EQ(ip[0], '#');
    EXPECT_EQ(length[0], '#');
    EXPECT_EQ(split(nullptr), -1);
    EXPECT_EQ(split("10.1.2.0000000000000000000000000/24"), -1); // the slash is the 33rd byte
    EXPECT_EQ(qzlib_get_ip_mask("a/b", nullptr, nullptr), 0);
}

} // namespace
