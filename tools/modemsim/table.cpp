#include "table.h"

#include "text.h"

#include <cctype>
#include <fstream>

namespace modemsim
{

namespace
{

constexpr std::string_view ARROW = "=>";

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
    std::ifstream file(path);
    if (!file)
        return std::string(path) + ": cannot be read";
    std::string line;
    for (int number = 1; std::getline(file, line); ++number) {
        const std::string error = add_line(line);
        if (!error.empty())
            return std::string(path) + ":" + std::to_string(number) + ": " + error;
    }
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
    if (!is_frame) {
        (without_card ? answers_without_card_ : answers_)[to_upper(command)] = split(answer, '|');
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
    std::vector<std::string> answer;
    for (const std::string &line : *lines)
        answer.push_back(expand(line));
    return answer;
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

std::string Table::expand(std::string_view line) const
{
    std::string text;
    for (size_t dollar = line.find('$'); dollar != std::string_view::npos; dollar = line.find('$')) {
        text += line.substr(0, dollar);
        line.remove_prefix(dollar + 1);
        size_t end = 0;
        while (end < line.size() && (isalnum(static_cast<unsigned char>(line[end])) != 0 || line[end] == '_'))
            ++end;
        if (const auto found = values_.find(line.substr(0, end)); found != values_.end()) {
            const Value &value = found->second;
            const auto step = value.every == Clock::duration::zero()
                                  ? 0
                                  : static_cast<size_t>((Clock::now() - value.since) / value.every);
            text += value.steps[step % value.steps.size()];
        }
        line.remove_prefix(end);
    }
    return text.append(line);
}

} // namespace modemsim
