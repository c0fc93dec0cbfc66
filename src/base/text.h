// Bounded copies and the line reading rule of the router's text files.
#pragma once

#include <cstddef>
#include <cstdio>
#include <cstring>
#include <span>
#include <string_view>

namespace qz::base
{

// Fill a fixed-width field: at most its width, zero-padded, NOT terminated when the text
// takes the whole field. Names in shared memory and on sockets are stored so.
inline void fill_field(std::span<char> field, const char *text)
{
    const size_t length = strnlen(text, field.size());
    memcpy(field.data(), text, length);
    memset(field.data() + length, 0, field.size() - length);
}

// Copy a text, cut to what the buffer holds, always terminated. The buffer is not empty.
inline void copy_text(std::span<char> out, std::string_view text)
{
    const size_t length = text.size() < out.size() ? text.size() : out.size() - 1;
    memcpy(out.data(), text.data(), length);
    out[length] = '\0';
}

// As std::string_view::starts_with(), which in builds without optimisation needs libstdc++.
inline bool starts_with(std::string_view text, std::string_view start)
{
    return text.size() >= start.size() && memcmp(text.data(), start.data(), start.size()) == 0;
}

// A fixed-width field as text, without reading past it.
inline std::string_view field_text(std::span<const char> field)
{
    return {field.data(), strnlen(field.data(), field.size())};
}

// Read one line into a buffer. False when nothing was read, and also when the end of the
// file was reached by this read: a last line without line feed is not taken, in all of the
// router's text files, since its writer may not be done with it.
inline bool read_full_line(FILE *stream, std::span<char> line)
{
    if (fgets(line.data(), static_cast<int>(line.size()), stream) == nullptr)
        return false;
    return feof(stream) == 0;
}

} // namespace qz::base
