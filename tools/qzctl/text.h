// SPDX-License-Identifier: MIT
// Views of texts. The standard functions that check a position need the C++ library.
#pragma once

#include <cstring>
#include <string_view>

namespace qzctl
{

inline bool begins_with(std::string_view text, std::string_view start)
{
    return text.size() >= start.size() && memcmp(text.data(), start.data(), start.size()) == 0;
}

// The first characters, no more than there are.
inline std::string_view head(std::string_view text, size_t length)
{
    return {text.data(), length};
}

} // namespace qzctl
