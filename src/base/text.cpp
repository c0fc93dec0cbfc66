// SPDX-License-Identifier: MIT
#include "base/text.h"
#include "base/owners.h"

#include <algorithm>
#include <limits>

namespace qz::base
{

void fill_field(std::span<char> field, const char *text)
{
    const size_t length = strnlen(text, field.size());
    memcpy(field.data(), text, length);
    memset(field.data() + length, 0, field.size() - length);
}

void copy_text(std::span<char> out, std::string_view text)
{
    const size_t length = text.size() < out.size() ? text.size() : out.size() - 1;
    memcpy(out.data(), text.data(), length);
    out[length] = '\0';
}

const char *skip_prefix(const char *text, const char *start)
{
    const size_t length = strlen(start);
    return strncmp(text, start, length) == 0 ? text + length : nullptr;
}

bool read_start(const char *path, std::span<char> text)
{
    memset(text.data(), 0, text.size());
    const UniqueFd file = open_to_read(path);
    if (!file)
        return false;
    (void)!read(file.get(), text.data(), text.size() - 1);
    return true;
}

int read_number(const char *text)
{
    constexpr long MAXIMUM = std::numeric_limits<int>::max();
    return static_cast<int>(std::clamp(strtol(text, nullptr, 10), -MAXIMUM - 1, MAXIMUM));
}

bool read_line(FILE *stream, std::span<char> line)
{
    return fgets(line.data(), static_cast<int>(line.size()), stream) != nullptr;
}

bool read_full_line(FILE *stream, std::span<char> line)
{
    return read_line(stream, line) && feof(stream) == 0;
}

} // namespace qz::base
