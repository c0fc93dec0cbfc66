// SPDX-License-Identifier: MIT
#include "base/export.h"
#include "base/owners.h"
#include "base/text.h"

#include <algorithm>
#include <array>
#include <cstddef>
#include <qzlib.h>

namespace
{

constexpr const char *STATUS_PATH = "/tmp/modem.info";
constexpr size_t ROWS = 64;
constexpr size_t LINE_SIZE = 256;

struct Row {
    char name[64];
    char value[128];
};
static_assert(sizeof(Row) == 192 && offsetof(Row, value) == 64);

// A value is copied over 256 bytes, on into the next row, which is written right after. So the
// value of the last row that was loaded is whole however long it is, and a longer one before it
// reads on into its neighbour. The last 128 bytes are there for row 63.
constexpr size_t VALUE_COPY_SIZE = 256;
constexpr size_t SPARE = VALUE_COPY_SIZE - sizeof(Row::value);

std::array<char, ROWS * sizeof(Row) + SPARE> table;

std::span<char> name_field(size_t row)
{
    return std::span(table).subspan(row * sizeof(Row), sizeof(Row::name));
}

std::span<char> value_area(size_t row)
{
    return std::span(table).subspan(row * sizeof(Row) + offsetof(Row, value), VALUE_COPY_SIZE);
}

// False for a line without a colon. Everything after the first colon belongs to the value.
bool store_line(size_t row, char *line)
{
    char *colon = strchr(line, ':');
    if (colon == nullptr)
        return false;
    *colon = '\0';
    const char *value = colon + 1;
    qz::base::fill_field(name_field(row), line);
    const std::span<char> area = value_area(row);
    std::ranges::fill(area, '\0');
    memcpy(area.data(), value, strcspn(value, "\n"));
    return true;
}

// Returns the number of rows loaded.
size_t load_rows(FILE *stream)
{
    std::array<char, LINE_SIZE> line;
    size_t row = 0;
    while (row < ROWS && qz::base::read_full_line(stream, line) && store_line(row, line.data()))
        ++row;
    return row;
}

} // namespace

QZ_EXPORT int qzlib_update_modem_status_info_tab(void)
{
    const qz::base::UniqueStream stream = qz::base::open_for_reading(STATUS_PATH);
    if (!stream)
        return QZLIB_ERR_NO_FILE;
    table.fill('\0');
    return load_rows(stream.get()) > 0 ? 0 : -1;
}

QZ_EXPORT const char *qzlib_get_modem_status_info(const char *name)
{
    if (name == nullptr)
        return nullptr;
    for (size_t row = 0; row < ROWS; ++row)
        if (qz::base::field_text(name_field(row)) == name)
            return value_area(row).data();
    return nullptr;
}
