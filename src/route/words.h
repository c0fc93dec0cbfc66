// SPDX-License-Identifier: MIT
// The words of a line of command output.
#pragma once

#include <array>
#include <cstddef>
#include <span>
#include <string_view>

#pragma GCC visibility push(hidden)

namespace qz::route
{

// The first words of a text, of any length each. Missing ones are empty and still point into
// the text, so that every word ends at white space or at the text's terminator.
void split_words(const char *text, std::span<std::string_view> words);

template <size_t COUNT>
std::array<std::string_view, COUNT> split_words(const char *text)
{
    std::array<std::string_view, COUNT> words;
    split_words(text, words);
    return words;
}

} // namespace qz::route

#pragma GCC visibility pop
