#include "support/case.h"

#include <qzlib.h>

namespace
{

using namespace support;

// Applies an in-place routine to a copy in a heap block of exactly the text's size, so that
// the address sanitizer sees a write or a read outside it.
template <typename Routine>
std::string applied(Routine routine, const std::string &text)
{
    std::vector<char> buffer(text.c_str(), text.c_str() + text.size() + 1);
    routine(buffer.data());
    return buffer.data();
}

TEST(Trim, removes_the_four_blanks_at_both_ends_of_1023_characters)
{
    const Table<std::string, std::string> cases = {
        {" \t a b \r\n", "a b"},
        {"abc", "abc"},
        {"", ""},
        {" \t\r\n", ""},
        {"\va\f", "\va\f"},
        {std::string(5000, 'x'), std::string(1023, 'x')},
        {std::string(1022, ' ') + "ab", "a"},
        {"a" + std::string(1022, ' ') + "b", "a"},
    };
    for (const auto &[input, expected] : cases)
        EXPECT_EQ(applied(qzlib_str_trim, input), expected) << input;
    char text[] = "  x ";
    EXPECT_EQ(qzlib_str_trim(text), text);
}

TEST(LineEnds, the_first_character_is_never_removed)
{
    const Table<std::string, std::string, std::string> cases = {
        {"x\r\n\r\n", "x", "x"},      {"x \n", "x ", "x"}, {"\n", "\n", "\n"},
        {"\r\n", "\r", "\r"},         {"", "", ""},        {"   ", "   ", " "},
        {"ab \t\r\n", "ab \t", "ab"}, {" a", " a", " a"}};
    for (const auto &[input, without_end, without_blanks] : cases) {
        EXPECT_EQ(applied(qzlib_str_del_end_crlf, input), without_end) << input;
        EXPECT_EQ(applied(qzlib_str_del_crlf, input), without_blanks) << input;
    }
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
    for (const auto &[path, name] : {std::pair("/usr/sbin/foo", "foo"), {"foo", "foo"}, {"/a/b/", ""}})
        EXPECT_STREQ(qzlib_path_notdir(std::string(path).data()), name);
}

TEST(Validators, accept_exactly_the_loose_forms)
{
    using Texts = std::vector<const char *>;
    const Table<unsigned (*)(const char *), Texts, Texts> cases = {
        {qzlib_ip_is_valid,
         {"192.168.1.1", "999.1.1.1", ".1.2.3", "1.2.3.", "1.2.3.00000000000000000000000000000000000000004"},
         {"1..2.3", "1.2.3", "1.2.3.4.5", "1.2.3.a", " 1.2.3.4", "", nullptr}},
        // Only 32 bytes are looked at: the slash at index 31 counts, the digits after it do not.
        {qzlib_ip_mask_is_valid,
         {"192.168.1.0/24", "10.0.0.1/", "10.0.0.1/24abc", "10.0.0.1/ +32", "10.0.0.1/24/99",
          "1.2.3.4444444444444444444444444/99"},
         {"192.168.1.0/33", "192.168.1.0/-1", "10.0.0.1/4294967320", "10.0.0.1/-4294967272", "192.168.1.0",
          "/24", nullptr, "1.2.3.44444444444444444444444444/24"}},
        {qzlib_mac_is_valid,
         {"00:1A:2b:3C:4d:5E", "00-1A:2B-3C:4D-5E", "a:b:c:d:e:f", "1:2:3:4:5:abcdef0"},
         {"1:2:3:4:5:abcdef01", "001A2B3C4D5E", "00:1A:2B:3C:4D:5E:", "0:1:2:3:4:5:", ":0:1:2:3:4:5",
          "0::1:2:3:4:5", "000:1:2:3:4:5", "0g:1a:2b:3c:4d:5e", "0:1:2:3:4:5:6", "a:b:c:d:e", ""}},
        {qzlib_str_is_digit, {"0123", ""}, {"-1", "12a", "1.2", nullptr}},
    };
    for (const auto &[is_valid, accepted, refused] : cases) {
        for (const char *text : accepted)
            EXPECT_EQ(is_valid(text), 1U) << text;
        for (const char *text : refused)
            EXPECT_EQ(is_valid(text), 0U) << (text != nullptr ? text : "null");
    }
}

TEST(GetIpMask, splits_within_the_bounds_of_both_outputs)
{
    const Table<const char *, std::string, std::string> cases = {
        {"10.1.2.0/24", "10.1.2.0" + std::string(8, '\0') + "#", std::string("24\0#", 4)},
        {"192.168.100.2000/128", "192.168.100.2000#", "128#"}, // both parts fill their buffer
        {"10.1.2.0", "", ""},
        {nullptr, "", ""},
        {"10.1.2.0000000000000000000000000/24", "", ""}, // the slash is the 33rd byte
    };
    for (const auto &[text, ip, length] : cases) {
        std::string out_ip(17, '#'), out_length(4, '#');
        EXPECT_EQ(qzlib_get_ip_mask(text, out_ip.data(), out_length.data()), ip.empty() ? -1 : 0);
        EXPECT_EQ(out_ip, ip.empty() ? std::string(17, '#') : ip);
        EXPECT_EQ(out_length, ip.empty() ? "####" : length);
    }
    EXPECT_EQ(qzlib_get_ip_mask("a/b", nullptr, nullptr), 0);
}

} // namespace
