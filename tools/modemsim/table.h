// SPDX-License-Identifier: MIT
// The table of commands and answers, and the values in them that change over time.
#pragma once

#include <chrono>
#include <map>
#include <optional>
#include <string>
#include <string_view>
#include <vector>

namespace modemsim
{

using Clock = std::chrono::steady_clock;

class Table
{
public:
    // Adds what a file says. Empty on success, else "FILE: why" or "FILE:LINE: what is wrong".
    std::string load(const char *path);

    // Adds one line of such a file. Empty on success, else what is wrong.
    std::string add_line(std::string_view line);

    // NAME = STEP | STEP ... [every SECONDS]. False when it is not of that form.
    bool set_value(std::string_view text);

    // The lines of the answer with the values of this moment; nothing for an unknown command.
    // Without a card the lines marked "nosim" go first.
    [[nodiscard]] std::optional<std::vector<std::string>> find(std::string_view command,
                                                               bool card_present) const;

    // What a modem says when it has started.
    [[nodiscard]] std::vector<std::string> boot_lines(bool card_present) const;

    // The answer to a frame that ends the bytes received so far.
    [[nodiscard]] const std::string *find_frame(std::string_view received) const;

private:
    struct Value {
        std::vector<std::string> steps;
        Clock::duration every{}; // zero: the first step for good
        Clock::time_point since;
    };
    using Answers = std::map<std::string, std::vector<std::string>, std::less<>>;

    static const std::vector<std::string> *find_in(const Answers &answers, std::string_view command);
    [[nodiscard]] std::vector<std::string> expand(const std::vector<std::string> &lines) const;
    [[nodiscard]] std::string expand(std::string_view line) const;
    [[nodiscard]] std::string step_of(std::string_view name) const;

    std::map<std::string, Value, std::less<>> values_;
    Answers answers_;
    Answers answers_without_card_;
    std::map<std::string, std::string, std::less<>> frames_;
};

} // namespace modemsim
