// SPDX-License-Identifier: MIT
// Small text helpers: trimming, splitting, and bytes as a transcript shows them.
#pragma once

#include <optional>
#include <string>
#include <string_view>
#include <vector>

namespace modemsim
{

std::string_view trim(std::string_view text);

// Pieces between separators, each trimmed; one piece for a text without any.
std::vector<std::string> split(std::string_view text, char separator);

// A number of 0 or more; nothing else may stand in the text.
std::optional<unsigned> parse_number(std::string_view text);

// "A5 01 0D" as bytes.
std::optional<std::string> parse_hex(std::string_view text);

std::string to_upper(std::string_view text);

// Control characters as \r, \n and \xHH, so that a line of a transcript is one line.
std::string printable(std::string_view bytes);

} // namespace modemsim
