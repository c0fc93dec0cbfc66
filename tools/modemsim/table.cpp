// SPDX-License-Identifier: MIT
#include "table.h"

#include "text.h"

#include <cctype>
#include <cerrno>
#include <cstring>
#include <fstream>

namespace modemsim
{

namespace
{

constexpr std::string_view ARROW = "=>";
constexpr const char *BOOT = "boot"; // no command: these are kept in upper case

bool take_word(std::string_view &line, std::string_view word)
{
    if (!line.starts_with(word) || line.size() == word.size() || line[word.size()] != ' ')
        return false;
    line = trim(line.substr(word.size()));
    return true;
}

} // namespace

std::string Table::load(const char *path)
{
    errno = 0;
    std::ifstream file(path);
    std::string line;
    for (int number = 1; std::getline(file, line); ++number) {
        const std::string error = add_line(line);
        if (!error.empty())
            return std::string(path) + ":" + std::to_string(number) + ": " + error;
    }
    if (errno != 0) // it could not be opened, or not be read
        return std::string(path) + ": " + strerror(errno);
    if (answers_.empty() && frames_.empty())
        return std::string(path) + ": it holds no answer";
    return {};
}

std::string Table::add_line(std::string_view line)
{
    line = trim(line);
    if (line.empty() || line.front() == '#')
        return {};
    if (take_word(line, "value"))
        return set_value(line) ? "" : "not of the form \"value NAME = STEP | STEP every SECONDS\"";
    const bool is_frame = take_word(line, "hex");
    const bool without_card = !is_frame && take_word(line, "nosim");
    const size_t arrow = line.find(ARROW);
    if (arrow == std::string_view::npos)
        return "no \"=>\"";
    const std::string_view command = trim(line.substr(0, arrow));
    const std::string_view answer = trim(line.substr(arrow + ARROW.size()));
    if (command.empty())
        return "no command before \"=>\"";
    if (!is_frame) {
        std::string key = command == BOOT ? BOOT : to_upper(command);
        (without_card ? answers_without_card_ : answers_)[std::move(key)] = split(answer, '|');
        return {};
    }
    const auto frame = parse_hex(command);
    const auto reply = parse_hex(answer);
    if (!frame || !reply)
        return "not hexadecimal bytes";
    frames_[*frame] = *reply;
    return {};
}

bool Table::set_value(std::string_view text)
{
    const size_t equals = text.find('=');
    if (equals == std::string_view::npos)
        return false;
    const std::string_view name = trim(text.substr(0, equals));
    std::string_view steps = trim(text.substr(equals + 1));
    Value value{{}, {}, Clock::now()};
    if (const size_t every = steps.rfind(" every "); every != std::string_view::npos) {
        const auto seconds = parse_number(trim(steps.substr(every + 7)));
        if (!seconds || *seconds == 0)
            return false;
        value.every = std::chrono::seconds(*seconds);
        steps = steps.substr(0, every);
    }
    if (name.empty())
        return false;
    value.steps = split(steps, '|');
    values_.insert_or_assign(std::string(name), std::move(value));
    return true;
}

std::optional<std::vector<std::string>> Table::find(std::string_view command, bool card_present) const
{
    const std::string key = to_upper(command);
    const std::vector<std::string> *lines = card_present ? nullptr : find_in(answers_without_card_, key);
    if (lines == nullptr)
        lines = find_in(answers_, key);
    if (lines == nullptr)
        return std::nullopt;
    return expand(*lines);
}

std::vector<std::string> Table::boot_lines(bool card_present) const
{
    const auto without_card = answers_without_card_.find(BOOT);
    if (!card_present && without_card != answers_without_card_.end())
        return expand(without_card->second);
    const auto found = answers_.find(BOOT);
    return found != answers_.end() ? expand(found->second) : std::vector<std::string>{};
}

const std::string *Table::find_frame(std::string_view received) const
{
    for (const auto &[frame, reply] : frames_)
        if (received.ends_with(frame))
            return &reply;
    return nullptr;
}

// The command itself, or the longest entry ending in '*' that begins it.
const std::vector<std::string> *Table::find_in(const Answers &answers, std::string_view command)
{
    if (const auto exact = answers.find(command); exact != answers.end())
        return &exact->second;
    for (size_t length = command.size() + 1; length-- > 0;)
        if (const auto prefix = answers.find(std::string(command.substr(0, length)) + "*");
            prefix != answers.end())
            return &prefix->second;
    return nullptr;
}

std::vector<std::string> Table::expand(const std::vector<std::string> &lines) const
{
    std::vector<std::string> expanded;
    expanded.reserve(lines.size());
    for (const std::string &line : lines)
        expanded.push_back(expand(line));
    return expanded;
}

// "$$" is a dollar; one before anything but the name of a value stays, for commands have them, too.
std::string Table::expand(std::string_view line) const
{
    std::string text;
    for (size_t dollar = line.find('$'); dollar != std::string_view::npos; dollar = line.find('$')) {
        text += line.substr(0, dollar);
        line.remove_prefix(dollar + 1);
        size_t end = 0;
        while (end < line.size() && (isalnum(static_cast<unsigned char>(line[end])) != 0 || line[end] == '_'))
            ++end;
        if (line.starts_with('$'))
            text += line[end++];
        else
            text += step_of(line.substr(0, end));
        line.remove_prefix(end);
    }
    return text.append(line);
}

std::string Table::step_of(std::string_view name) const
{
    const auto found = values_.find(name);
    if (found == values_.end())
        return std::string("$").append(name);
    const Value &value = found->second;
    const auto step = value.every == Clock::duration::zero()
                          ? 0
                          : static_cast<size_t>((Clock::now() - value.since) / value.every);
    return value.steps[step % value.steps.size()];
}

} // namespace modemsim
