// SPDX-License-Identifier: MIT
// Bounded copies and the line reading rule of the router's text files.
#pragma once

#include <cstddef>
#include <cstdio>
#include <cstring>
#include <span>
#include <string_view>

#pragma GCC visibility push(hidden)

namespace qz::base
{

// Fill a fixed-width field: at most its width, zero-padded, NOT terminated when the text
// takes the whole field. Names in shared memory and on sockets are stored so.
void fill_field(std::span<char> field, const char *text);

// Copy a text, cut to what the buffer holds, always terminated. The buffer is not empty.
void copy_text(std::span<char> out, std::string_view text);

// The rest of a text after its prefix; null when it has another one.
const char *skip_prefix(const char *text, const char *start);

// A fixed-width field as text, without reading past it.
inline std::string_view field_text(std::span<const char> field)
{
    return {field.data(), strnlen(field.data(), field.size())};
}

// Reads the first bytes of a file as text; the rest of the buffer, and its last byte, are zero. False when
// the file cannot be opened; one that cannot be read gives an empty text.
bool read_start(const char *path, std::span<char> text);

// atoi() as on a 32-bit machine: a number that does not fit becomes the largest or the smallest one.
int read_number(const char *text);

// Read as fgets() does: up to and including the line feed, a longer line in pieces. False at the end.
bool read_line(FILE *stream, std::span<char> line);

// Read one line into a buffer. False when nothing was read, and also when the end of the
// file was reached by this read: a last line without line feed is not taken, in all of the
// router's text files, since its writer may not be done with it.
bool read_full_line(FILE *stream, std::span<char> line);

} // namespace qz::base

#pragma GCC visibility pop
