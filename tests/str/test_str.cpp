#include "support/case.h"

#include <qzlib.h>

namespace
{

using namespace support;
using namespace std::string_literals;

// The text after an in-place routine, in a block of its size, whose ends the address sanitizer watches.
std::string applied(void (*routine)(char *), const std::string &text)
{
    std::vector<char> buffer(text.c_str(), text.c_str() + text.size() + 1);
    routine(buffer.data());
    return buffer.data();
}

TEST(InPlace, blanks_and_line_ends_are_removed)
{
    const std::string blanks(1022, ' '), longer(5000, 'x');
    // Without blanks at both ends (and of 1023 characters); without line ends; without blanks at the end.
    const Table<std::string, std::string, std::string, std::string> cases = {
        {" \t a b \r\n\r\n", "a b", " \t a b ", " \t a b"},
        {"\r\n", "", "\r", "\r"}, // the first character is kept
        {"", "", "", ""},
        {"\va\f", "\va\f", "\va\f", "\va\f"},
        {longer, longer.substr(0, 1023), longer, longer},
        {blanks + "ab", "a", blanks + "ab", blanks + "ab"},
    };
    for (const auto &[input, trimmed, without_end, without_blanks] : cases) {
        EXPECT_EQ(applied([](char *text) { EXPECT_EQ(qzlib_str_trim(text), text); }, input), trimmed);
        EXPECT_EQ(applied(qzlib_str_del_end_crlf, input), without_end) << input;
        EXPECT_EQ(applied(qzlib_str_del_crlf, input), without_blanks) << input;
    }
    qzlib_str_del_end_crlf(nullptr);
    qzlib_str_del_crlf(nullptr);
    EXPECT_EQ(applied(qzlib_str_toupper, "aZ09-\xe4"), "AZ09-\xe4");
    EXPECT_EQ(applied(qzlib_str_tolowr, "aZ09-\xc4"), "az09-\xc4");
    for (const auto &[path, name] : {std::pair("/usr/sbin/foo", "foo"), {"foo", "foo"}, {"/a/b/", ""}})
        EXPECT_STREQ(qzlib_path_notdir(std::string(path).data()), name);
}

TEST(Validators, accept_exactly_the_loose_forms)
{
    const Table<unsigned (*)(const char *), std::vector<const char *>, std::vector<const char *>> cases = {
        {qzlib_ip_is_valid,
         {"192.168.1.1", "999.1.1.1", ".1.2.3", "1.2.3.", "1.2.3.00000000000000000000000000000000000000004"},
         {"1..2.3", "1.2.3", "1.2.3.4.5", "1.2.3.a", " 1.2.3.4", "", nullptr}},
        // Only 32 bytes are looked at: the slash at index 31 counts, the digits after it do not.
        {qzlib_ip_mask_is_valid,
         {"1.2.3.4/24", "1.2.3.4/", "1.2.3.4/24abc", "1.2.3.4/ +32", "1.2.3.4444444444444444444444444/99"},
         {"1.2.3.4/33", "1.2.3.4/-1", "1.2.3.4/4294967320", "1.2.3.4", "/24", nullptr,
          "1.2.3.44444444444444444444444444/24"}},
        {qzlib_mac_is_valid,
         {"00:1A:2b:3C:4d:5E", "00-1A:2B-3C:4D-5E", "a:b:c:d:e:f", "1:2:3:4:5:abcdef0"},
         {"1:2:3:4:5:abcdef01", "0:1:2:3:4:5:", ":0:1:2:3:4:5", "0::1:2:3:4:5", "000:1:2:3:4:5",
          "0g:1a:2b:3c:4d:5e", "0:1:2:3:4:5:6", "a:b:c:d:e", ""}},
        {qzlib_str_is_digit, {"0123", ""}, {"-1", "12a", "1.2", nullptr}},
    };
    for (const auto &[is_valid, accepted, refused] : cases) {
        for (const char *text : accepted)
            EXPECT_EQ(is_valid(text), 1U) << text;
        for (const char *text : refused)
            EXPECT_EQ(is_valid(text), 0U) << (text ? text : "null");
    }
}

TEST(GetIpMask, splits_within_the_bounds_of_both_outputs)
{
    const std::string kept(17 + 4, '#'); // address, prefix length
    const Table<const char *, int, std::string> cases = {
        {"10.1.2.0/24", 0, "10.1.2.0\0\0\0\0\0\0\0\0#24\0#"s},
        {"192.168.100.2000/128", 0, "192.168.100.2000#128#"}, // both parts fill their buffer
        {"10.1.2.0", -1, kept},
        {"10.1.2.0000000000000000000000000/24", -1, kept}, // the slash is the 33rd byte
        {nullptr, -1, kept},
    };
    for (const auto &[text, result, expected] : cases) {
        std::string out = kept;
        EXPECT_EQ(qzlib_get_ip_mask(text, out.data(), out.data() + 17), result);
        EXPECT_EQ(out, expected);
    }
    EXPECT_EQ(qzlib_get_ip_mask("a/b", nullptr, nullptr), 0);
}

} // namespace
