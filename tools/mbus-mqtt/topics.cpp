// SPDX-License-Identifier: MIT
#include "topics.h"

#include <algorithm>
#include <fnmatch.h>
#include <qzlib.h>

namespace mqtt
{
namespace
{

constexpr int HIGHEST_TYPE = 3;
constexpr size_t SHOWN_BYTES = 80;

bool is_printable(char c)
{
    return c >= ' ' && c <= '~';
}

} // namespace

const char *fault_of_name(std::string_view name, size_t max)
{
    if (name.empty())
        return "the name is empty";
    if (name.size() > max)
        return "the name is too long";
    if (!std::all_of(name.begin(), name.end(), is_printable))
        return "the name is not printable";
    if (name.find_first_of("+#") != std::string_view::npos)
        return "the name holds + or #";
    return nullptr;
}

bool matches(const Patterns &patterns, const std::string &name)
{
    return std::any_of(patterns.begin(), patterns.end(), [&name](const std::string &pattern) {
        return fnmatch(pattern.c_str(), name.c_str(), 0) == 0;
    });
}

std::optional<Address> Topics::address(std::string_view topic, const char *&why) const
{
    const std::string sends = base_ + "send/";
    why = "the topic is another's";
    if (!topic.starts_with(sends))
        return std::nullopt;
    topic.remove_prefix(sends.size());
    const size_t slash = topic.rfind('/');
    const std::string_view type = slash == std::string_view::npos ? "" : topic.substr(slash + 1);
    why = "the topic does not end in a type from 0 to 3";
    if (type.size() != 1 || type[0] < '0' || type[0] > '0' + HIGHEST_TYPE)
        return std::nullopt;
    const std::string_view name = topic.substr(0, slash);
    why = fault_of_name(name, QZLIB_MBUS_PKG_NAME_SIZE);
    if (why != nullptr)
        return std::nullopt;
    return Address{std::string(name), type[0] - '0'};
}

std::string printable(std::string_view text)
{
    std::string shown(text.substr(0, SHOWN_BYTES));
    std::replace_if(
        shown.begin(), shown.end(), [](char c) { return !is_printable(c); }, '?');
    if (shown.size() < text.size())
        shown += "...";
    return shown;
}

} // namespace mqtt
