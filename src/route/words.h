// The words of a line of command output.
#pragma once

#include <array>
#include <cctype>
#include <cstddef>
#include <string_view>

namespace qz::route
{

// The first COUNT words of a text, of any length each. Missing ones are empty and still point
// into the text, so that every word ends at white space or at the text's terminator.
template <size_t COUNT>
std::array<std::string_view, COUNT> split_words(const char *text)
{
    const auto is_space = [](char c) { return isspace(static_cast<unsigned char>(c)) != 0; };
    std::array<std::string_view, COUNT> words;
    for (std::string_view &word : words) {
        while (is_space(*text))
            ++text;
        const char *start = text;
        while (*text != '\0' && !is_space(*text))
            ++text;
        word = {start, static_cast<size_t>(text - start)};
    }
    return words;
}

} // namespace qz::route
