// SPDX-License-Identifier: MIT
#include "text.h"

#include <algorithm>
#include <cctype>
#include <charconv>

namespace modemsim
{

std::string_view trim(std::string_view text)
{
    constexpr std::string_view BLANKS = " \t\r\n";
    const size_t first = text.find_first_not_of(BLANKS);
    if (first == std::string_view::npos)
        return {};
    return text.substr(first, text.find_last_not_of(BLANKS) - first + 1);
}

std::vector<std::string> split(std::string_view text, char separator)
{
    std::vector<std::string> pieces;
    for (size_t end = text.find(separator); end != std::string_view::npos; end = text.find(separator)) {
        pieces.emplace_back(trim(text.substr(0, end)));
        text.remove_prefix(end + 1);
    }
    pieces.emplace_back(trim(text));
    return pieces;
}

std::optional<unsigned> parse_number(std::string_view text)
{
    unsigned number = 0;
    const auto [end, error] = std::from_chars(text.data(), text.data() + text.size(), number);
    if (error != std::errc() || end != text.data() + text.size())
        return std::nullopt;
    return number;
}

std::optional<std::string> parse_hex(std::string_view text)
{
    std::string bytes;
    for (const std::string &group : split(text, ' ')) {
        unsigned byte = 0;
        const auto [end, error] = std::from_chars(group.data(), group.data() + group.size(), byte, 16);
        if (error != std::errc() || end != group.data() + group.size() || byte > 0xff)
            return std::nullopt;
        bytes += static_cast<char>(byte);
    }
    return bytes;
}

std::string to_upper(std::string_view text)
{
    std::string upper(text);
    std::ranges::transform(upper, upper.begin(),
                           [](unsigned char c) { return static_cast<char>(toupper(c)); });
    return upper;
}

std::string printable(std::string_view bytes)
{
    constexpr std::string_view DIGITS = "0123456789abcdef";
    std::string text;
    for (const char c : bytes) {
        const auto byte = static_cast<unsigned char>(c);
        if (c == '\r')
            text += "\\r";
        else if (c == '\n')
            text += "\\n";
        else if (c == '\\')
            text += "\\\\";
        else if (byte >= 0x20 && byte < 0x7f)
            text += c;
        else
            text += {'\\', 'x', DIGITS[byte >> 4], DIGITS[byte & 15]};
    }
    return text;
}

} // namespace modemsim
