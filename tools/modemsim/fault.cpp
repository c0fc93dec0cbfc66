#include "fault.h"

#include "text.h"

#include <algorithm>

namespace modemsim
{

namespace
{

using std::chrono::milliseconds;

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
    {"stall", FaultKind::STALL, Argument::NONE, 0, {}},
    {"hangup", FaultKind::HANGUP, Argument::NONE, 0, {}},
    {"vanish", FaultKind::VANISH, Argument::OPTIONAL_RETURN, 0, {}},
    {"usim", FaultKind::USIM, Argument::NONE, 0, {}},
};

bool set_pause(Fault &fault, std::string_view text)
{
    const auto number = parse_number(text);
    fault.pause = milliseconds(number.value_or(0));
    return number.has_value();
}

bool set_number(Fault &fault, std::string_view text)
{
    const auto number = parse_number(text);
    fault.number = number.value_or(0);
    return number.has_value() && *number > 0;
}

bool set_argument(Fault &fault, Argument kind, std::string_view text)
{
    switch (kind) {
    case Argument::NONE:
        return false;
    case Argument::NUMBER:
        return set_number(fault, text);
    case Argument::PAUSE:
        return set_pause(fault, text);
    case Argument::NUMBER_AND_PAUSE: {
        const auto parts = split(text, ',');
        return parts.size() <= 2 && set_number(fault, parts[0]) &&
               (parts.size() < 2 || set_pause(fault, parts[1]));
    }
    case Argument::TEXT:
        fault.text = text;
        return true;
    case Argument::OPTIONAL_RETURN:
        fault.returns = true;
        return set_pause(fault, text);
    }
    return false;
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

} // namespace

std::optional<Fault> parse_fault(std::string_view text)
{
    text = trim(text);
    const std::string command = take_command(text);
    const size_t equals = text.find('=');
    const std::string_view name = text.substr(0, equals);
    const auto *profile = std::ranges::find(PROFILES, name, &Profile::name);
    if (profile == std::end(PROFILES))
        return std::nullopt;
    Fault fault{profile->kind, profile->number, profile->pause, false, {}, command};
    const bool has_argument = equals != std::string_view::npos;
    if (!has_argument && profile->argument == Argument::TEXT)
        return std::nullopt;
    if (has_argument && !set_argument(fault, profile->argument, text.substr(equals + 1)))
        return std::nullopt;
    return fault;
}

} // namespace modemsim
