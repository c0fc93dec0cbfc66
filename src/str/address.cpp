// SPDX-License-Identifier: MIT
#include "base/export.h"
#include "base/text.h"

#include <array>
#include <cstdlib>
#include <qzlib.h>
#include <string_view>

namespace
{

// How much of an "address/length" text is looked at.
constexpr size_t PREFIX_TEXT_SIZE = 32;
constexpr size_t IP_TEXT_SIZE = 16;
constexpr size_t LENGTH_TEXT_SIZE = 3;
constexpr size_t MAC_LENGTH_MIN = 11;
constexpr size_t MAC_LENGTH_MAX = 17;

constexpr bool is_digit(char c)
{
    return c >= '0' && c <= '9';
}

constexpr bool is_hex_digit(char c)
{
    return is_digit(c) || (c >= 'a' && c <= 'f') || (c >= 'A' && c <= 'F');
}

constexpr bool is_mac_separator(char c)
{
    return c == ':' || c == '-';
}

// A private copy of "address/length", cut in two at the first slash.
class PrefixText
{
public:
    explicit PrefixText(const char *text)
    {
        memcpy(text_.data(), text, strnlen(text, PREFIX_TEXT_SIZE));
        char *slash = strchr(text_.data(), '/');
        if (slash == nullptr)
            return;
        *slash = '\0';
        length_ = slash + 1;
    }

    [[nodiscard]] bool is_split() const { return length_ != nullptr; }
    [[nodiscard]] const char *address() const { return text_.data(); }
    [[nodiscard]] const char *length() const { return length_; }

private:
    std::array<char, PREFIX_TEXT_SIZE + 1> text_{};
    const char *length_ = nullptr;
};

} // namespace

QZ_EXPORT unsigned int qzlib_ip_is_valid(const char *ip)
{
    if (ip == nullptr || *ip == '\0')
        return 0;
    int dots = 0;
    for (const char *at = ip; *at != '\0'; ++at) {
        if (*at != '.' && !is_digit(*at))
            return 0;
        if (*at == '.' && at[1] == '.')
            return 0;
        dots += *at == '.';
    }
    return dots == 3; // the values of the groups are not looked at: daemons rely on that
}

QZ_EXPORT unsigned int qzlib_ip_mask_is_valid(const char *ip_slash_len)
{
    if (ip_slash_len == nullptr)
        return 0;
    const PrefixText prefix(ip_slash_len);
    if (!prefix.is_split() || !qzlib_ip_is_valid(prefix.address()))
        return 0;
    return static_cast<unsigned>(qz::base::read_number(prefix.length())) <= 32;
}

QZ_EXPORT unsigned int qzlib_mac_is_valid(const char *mac)
{
    const std::string_view text(mac);
    if (text.size() < MAC_LENGTH_MIN || text.size() > MAC_LENGTH_MAX)
        return 0;
    int separators = 0;
    int group_digits = 0;
    for (const char *at = mac; *at != '\0'; ++at) {
        if (is_hex_digit(*at)) {
            ++group_digits;
            continue;
        }
        if (!is_mac_separator(*at) || !is_hex_digit(at[1]) || group_digits < 1 || group_digits > 2)
            return 0;
        ++separators;
        group_digits = 0;
    }
    return separators == 5; // the last group is bounded by the total length only, deliberately
}

QZ_EXPORT int qzlib_get_ip_mask(const char *src, char *ip_out, char *len_out)
{
    if (src == nullptr)
        return -1;
    const PrefixText prefix(src);
    if (!prefix.is_split())
        return -1;
    if (ip_out != nullptr)
        qz::base::fill_field({ip_out, IP_TEXT_SIZE}, prefix.address());
    if (len_out != nullptr)
        qz::base::fill_field({len_out, LENGTH_TEXT_SIZE}, prefix.length());
    return 0;
}
