// SPDX-License-Identifier: MIT
#include "trace.h"

#include "log.h"

#include <algorithm>
#include <cstring>
#include <ctime>
#include <strings.h>

namespace mbusd
{
namespace
{

constexpr size_t SHOWN_BYTES = 48;

bool same_name(std::string_view a, std::string_view b)
{
    return a.size() == b.size() && strncasecmp(a.data(), b.data(), a.size()) == 0;
}

bool is_text(std::string_view bytes)
{
    return std::all_of(bytes.begin(), bytes.end(), [](char c) { return c >= ' ' && c <= '~'; });
}

// The first bytes in quotes, or as hexadecimal digits where they are no text. A terminator, or the
// end of a line, at the very end is left out of a text.
std::string excerpt(const mbus_pkg &pkg)
{
    const std::string_view bytes(static_cast<const char *>(pkg.data), pkg.length);
    std::string_view text = bytes;
    while (!text.empty() && (text.back() == '\0' || text.back() == '\n'))
        text.remove_suffix(1);
    const bool shows_text = !text.empty() && is_text(text.substr(0, SHOWN_BYTES));
    const size_t shown = shows_text ? SHOWN_BYTES : SHOWN_BYTES / 2;
    std::string result;
    if (shows_text) {
        result.append(1, '"').append(text.substr(0, shown)).append(1, '"');
    } else {
        for (const char c : bytes.substr(0, shown)) {
            char digits[3];
            (void)snprintf(digits, sizeof digits, "%02x", static_cast<unsigned char>(c));
            result += digits;
        }
    }
    if (bytes.size() > shown)
        result += "...";
    return result;
}

std::string time_of_day()
{
    timespec now{};
    clock_gettime(CLOCK_REALTIME, &now);
    tm parts{};
    localtime_r(&now.tv_sec, &parts);
    char text[32];
    const size_t length = strftime(text, sizeof text, "%H:%M:%S", &parts);
    (void)snprintf(text + length, sizeof text - length, ".%06ld", now.tv_nsec / 1000);
    return text;
}

} // namespace

void Trace::start(std::string_view name)
{
    on_ = true;
    name_ = name;
    (void)print_line(stdout, "%-15s %-16s %-16s %-16s %4s %6s  %s", "time", "from", "to", "name", "type",
                     "bytes", "data");
}

void Trace::print(std::string_view from, std::string_view to, const mbus_pkg &pkg, bool dropped)
{
    const std::string_view name(pkg.name, strnlen(pkg.name, sizeof pkg.name));
    if (!name_.empty() && !same_name(from, name_) && !same_name(to, name_) && !same_name(name, name_))
        return;
    if (left_out_ > 0 && print_line(stdout, "%s %llu packets were not shown: the reader is behind",
                                    time_of_day().c_str(), left_out_))
        left_out_ = 0;
    if (!print_line(stdout, "%s %-16s %-16s %-16s %4u %6u  %s%s", time_of_day().c_str(),
                    printable(from).c_str(), printable(to).c_str(), printable(name).c_str(), pkg.type,
                    pkg.length, excerpt(pkg).c_str(), dropped ? " (dropped: its ring is full)" : ""))
        ++left_out_;
}

} // namespace mbusd
