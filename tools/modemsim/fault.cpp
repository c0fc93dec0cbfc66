// SPDX-License-Identifier: MIT
#include "fault.h"

#include "text.h"

#include <algorithm>

namespace modemsim
{

namespace
{

using std::chrono::milliseconds;

constexpr unsigned BYTES_MAX = 1U << 20;
constexpr unsigned PAUSE_MAX_MS = 86'400'000; // a day
constexpr unsigned COMMANDS_MAX = 1'000'000;

enum class Argument { NONE, NUMBER, PAUSE, NUMBER_AND_PAUSE, TEXT, OPTIONAL_RETURN };

struct Profile {
    std::string_view name;
    FaultKind kind;
    Argument argument;
    unsigned number;
    milliseconds pause;
};

constexpr Profile PROFILES[] = {
    {"late", FaultKind::LATE, Argument::PAUSE, 0, milliseconds(500)},
    {"pieces", FaultKind::PIECES, Argument::NUMBER_AND_PAUSE, 8, milliseconds(20)},
    {"bytes", FaultKind::PIECES, Argument::PAUSE, 1, milliseconds(5)},
    {"before", FaultKind::BEFORE, Argument::TEXT, 0, {}},
    {"inside", FaultKind::INSIDE, Argument::TEXT, 0, {}},
    {"after", FaultKind::AFTER, Argument::TEXT, 0, {}},
    {"silence", FaultKind::SILENCE, Argument::NONE, 0, {}},
    {"garbage", FaultKind::GARBAGE, Argument::NUMBER, 64, {}},
    {"length", FaultKind::LENGTH, Argument::NUMBER, 600, {}},
    {"change", FaultKind::CHANGE, Argument::NUMBER, 1, {}},
    {"drop", FaultKind::DROP, Argument::NUMBER, 1, {}},
    {"half", FaultKind::HALF, Argument::NUMBER, 0, {}},
    {"stall", FaultKind::STALL, Argument::NUMBER, 0, {}},
    {"hangup", FaultKind::HANGUP, Argument::NONE, 0, {}},
    {"vanish", FaultKind::VANISH, Argument::OPTIONAL_RETURN, 0, {}},
    {"usim", FaultKind::USIM, Argument::NONE, 0, {}},
};

std::string take_number(std::string_view text, unsigned min, unsigned max, unsigned &number)
{
    const auto parsed = parse_number(text);
    number = parsed.value_or(0);
    if (parsed && number >= min && number <= max)
        return {};
    return "not a number from " + std::to_string(min) + " to " + std::to_string(max) + ": " +
           std::string(text);
}

std::string take_pause(Fault &fault, std::string_view text)
{
    unsigned ms = 0;
    std::string error = take_number(text, 0, PAUSE_MAX_MS, ms);
    fault.pause = milliseconds(ms);
    return error;
}

std::string take_argument(Fault &fault, Argument kind, std::string_view text)
{
    switch (kind) {
    case Argument::NONE:
        return "it takes no argument";
    case Argument::NUMBER:
        return take_number(text, 1, BYTES_MAX, fault.number);
    case Argument::PAUSE:
        return take_pause(fault, text);
    case Argument::NUMBER_AND_PAUSE: {
        const size_t comma = text.find(',');
        std::string error = take_number(text.substr(0, comma), 1, BYTES_MAX, fault.number);
        if (error.empty() && comma != std::string_view::npos)
            error = take_pause(fault, text.substr(comma + 1));
        return error;
    }
    case Argument::TEXT:
        fault.text = text;
        return {};
    case Argument::OPTIONAL_RETURN:
        fault.returns = true;
        return take_pause(fault, text);
    }
    return {};
}

// Cuts "@AT..." off the end.
std::string take_command(std::string_view &text)
{
    const size_t at = to_upper(text).rfind("@AT");
    if (at == std::string::npos)
        return {};
    std::string command = to_upper(trim(text.substr(at + 1)));
    text = trim(text.substr(0, at));
    return command;
}

// Cuts "N:" off the front; no name begins with a digit.
std::string take_count(std::string_view &text, unsigned &count)
{
    const size_t colon = text.find_first_not_of("0123456789");
    if (colon == 0 || colon == std::string_view::npos || text[colon] != ':')
        return {};
    const std::string_view digits = text.substr(0, colon);
    text = trim(text.substr(colon + 1));
    return take_number(digits, 1, COMMANDS_MAX, count);
}

const Profile *find_profile(std::string_view name)
{
    const auto *profile = std::ranges::find(PROFILES, name, &Profile::name);
    return profile == std::end(PROFILES) ? nullptr : profile;
}

} // namespace

bool Fault::concerns(std::string_view given) const
{
    if (command.ends_with('*'))
        return given.starts_with(std::string_view(command).substr(0, command.size() - 1));
    return command.empty() || command == given;
}

size_t Fault::specificity() const
{
    return command.ends_with('*') ? command.size() - 1 : command.size() + 1;
}

std::string parse_fault(std::string_view text, Fault &fault)
{
    text = trim(text);
    unsigned count = 0;
    if (std::string error = take_count(text, count); !error.empty())
        return error;
    const std::string command = take_command(text);
    const size_t equals = text.find('=');
    const Profile *profile = find_profile(text.substr(0, equals));
    if (profile == nullptr)
        return "no such fault";
    const bool lasts = profile->kind == FaultKind::STALL || profile->kind == FaultKind::USIM;
    if (count != 0 && lasts)
        return "it lasts until it is taken back";
    if (profile->kind == FaultKind::HANGUP || profile->kind == FaultKind::VANISH)
        count = std::max(count, 1U);
    fault = {profile->kind, profile->number, profile->pause, false, {}, command, count};
    if (equals == std::string_view::npos)
        return profile->argument == Argument::TEXT ? "it needs a line" : "";
    return take_argument(fault, profile->argument, text.substr(equals + 1));
}

std::string parse_fault_name(std::string_view text, Fault &fault)
{
    const std::string command = take_command(text);
    const Profile *profile = find_profile(text);
    if (profile == nullptr)
        return "no such fault";
    fault = {profile->kind, 0, {}, false, {}, command};
    return {};
}

} // namespace modemsim
