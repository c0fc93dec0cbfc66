// SPDX-License-Identifier: MIT
#include "print.h"

#include <algorithm>
#include <cstring>

namespace qzctl
{
namespace
{

constexpr int COLUMNS_MAX = 16;
constexpr const char *BOLD = "\033[1m";
constexpr const char *PLAIN = "\033[0m";

cJSON *have(cJSON *item)
{
    if (item == nullptr)
        out_of_memory();
    return item;
}

bool is_continuation(char c)
{
    return (static_cast<unsigned char>(c) & 0xC0) == 0x80;
}

// Bytes of the well-formed UTF-8 character that the text begins with; 0: it begins with none.
size_t character_length(std::string_view text)
{
    const auto first = static_cast<unsigned char>(text.front());
    const size_t length = first < 0x80   ? 1
                          : first < 0xC2 ? 0
                          : first < 0xE0 ? 2
                          : first < 0xF0 ? 3
                          : first < 0xF5 ? 4
                                         : 0;
    if (length > text.size())
        return 0;
    for (size_t i = 1; i < length; ++i)
        if (!is_continuation(text[i]))
            return 0;
    const auto second = length > 1 ? static_cast<unsigned char>(text[1]) : 0;
    const bool is_surrogate_or_odd = (first == 0xE0 && second < 0xA0) || (first == 0xED && second > 0x9F) ||
                                     (first == 0xF0 && second < 0x90) || (first == 0xF4 && second > 0x8F);
    return is_surrogate_or_odd ? 0 : length;
}

// JSON is UTF-8: a byte that belongs to no character becomes U+FFFD, a NUL a blank.
char *to_utf8(std::string_view bytes)
{
    auto *text = static_cast<char *>(malloc(bytes.size() * 3 + 1));
    if (text == nullptr)
        out_of_memory();
    char *end = text;
    while (!bytes.empty()) {
        const size_t length = character_length(bytes);
        if (length == 0)
            end = static_cast<char *>(mempcpy(end, "\xEF\xBF\xBD", 3));
        else if (bytes.front() == '\0')
            *end++ = ' ';
        else
            end = static_cast<char *>(mempcpy(end, bytes.data(), length));
        bytes.remove_prefix(std::max<size_t>(length, 1));
    }
    *end = '\0';
    return text;
}

// What stands in a cell. Valid until the next call.
std::string_view cell_text(const cJSON *cell)
{
    static char number[32];
    if (cJSON_IsString(cell))
        return cell->valuestring;
    if (cJSON_IsBool(cell))
        return cJSON_IsTrue(cell) ? "yes" : "no";
    if (!cJSON_IsNumber(cell))
        return "-";
    (void)snprintf(number, sizeof number, "%.0f", cell->valuedouble);
    return number;
}

// Columns that the text takes on a terminal, as print_text() shows it.
int width_of(std::string_view text)
{
    int width = 0;
    while (!text.empty()) {
        const size_t length = character_length(text);
        const bool is_control = length == 0 || (length == 1 && (text.front() < ' ' || text.front() == 0x7F));
        width += is_control ? 4 : 1;
        text.remove_prefix(std::max<size_t>(length, 1));
    }
    return width;
}

void print_cell(std::string_view text, int width, bool is_right, bool is_last)
{
    const int blanks = width - width_of(text);
    if (is_right)
        (void)printf("%*s", blanks, "");
    print_text(text);
    if (!is_last)
        (void)printf("%*s", is_right ? 2 : blanks + 2, "");
}

void print_headings(const cJSON *record, const int *widths)
{
    const bool is_bold = has_colours();
    int column = 0;
    for (const cJSON *cell = record->child; cell != nullptr; cell = cell->next, ++column) {
        char heading[32];
        size_t length = 0;
        for (const char *c = cell->string; *c != '\0' && length + 1 < sizeof heading; ++c)
            heading[length++] =
                *c == '_' ? ' ' : static_cast<char>(*c >= 'a' && *c <= 'z' ? *c - 'a' + 'A' : *c);
        (void)fputs(is_bold ? BOLD : "", stdout);
        print_cell({heading, length}, widths[column], cJSON_IsNumber(cell), cell->next == nullptr);
        (void)fputs(is_bold ? PLAIN : "", stdout);
    }
    (void)putchar('\n');
}

void print_table(const cJSON *list)
{
    if (list->child == nullptr)
        return;
    int widths[COLUMNS_MAX] = {};
    for (const cJSON *row = list->child; row != nullptr; row = row->next) {
        int *width = widths;
        for (const cJSON *cell = row->child; cell != nullptr; cell = cell->next, ++width)
            *width = std::max({*width, width_of(cell_text(cell)), static_cast<int>(strlen(cell->string))});
    }
    print_headings(list->child, widths);
    for (const cJSON *row = list->child; row != nullptr; row = row->next) {
        const int *width = widths;
        for (const cJSON *cell = row->child; cell != nullptr; cell = cell->next, ++width)
            print_cell(cell_text(cell), *width, cJSON_IsNumber(cell), cell->next == nullptr);
        (void)putchar('\n');
    }
}

void print_lines(const cJSON *record)
{
    int width = 0;
    for (const cJSON *cell = record->child; cell != nullptr; cell = cell->next)
        width = std::max(width, static_cast<int>(strlen(cell->string)));
    for (const cJSON *cell = record->child; cell != nullptr; cell = cell->next) {
        for (const char *c = cell->string; *c != '\0'; ++c)
            (void)putchar(*c == '_' ? ' ' : *c);
        (void)printf("%*s", width - static_cast<int>(strlen(cell->string)) + 2, "");
        print_text(cell_text(cell));
        (void)putchar('\n');
    }
}

void print_json(const cJSON *item, bool is_on_one_line)
{
    const Memory text(is_on_one_line ? cJSON_PrintUnformatted(item) : cJSON_Print(item));
    if (!text)
        out_of_memory();
    (void)puts(text.get());
}

} // namespace

Json new_list()
{
    return Json(have(cJSON_CreateArray()));
}

Json new_record()
{
    return Json(have(cJSON_CreateObject()));
}

void append(const Json &list, Json record)
{
    cJSON_AddItemToArray(list.get(), record.release());
}

void put(const Json &record, const char *key, const char *text)
{
    if (text != nullptr)
        put_bytes(record, key, text);
    else
        have(cJSON_AddNullToObject(record.get(), key));
}

void put_bytes(const Json &record, const char *key, std::string_view bytes)
{
    const Memory text(to_utf8(bytes));
    have(cJSON_AddStringToObject(record.get(), key, text.get()));
}

void put_data(const Json &record, std::string_view bytes)
{
    const Memory hex(static_cast<char *>(calloc(bytes.size() * 2 + 1, 1)));
    if (!hex)
        out_of_memory();
    for (size_t i = 0; i < bytes.size(); ++i)
        (void)snprintf(hex.get() + i * 2, 3, "%02x", static_cast<unsigned char>(bytes[i]));
    put_number(record, "length", static_cast<double>(bytes.size()));
    put_bytes(record, "data", bytes);
    put(record, "hex", hex.get());
}

void put_number(const Json &record, const char *key, double number)
{
    have(cJSON_AddNumberToObject(record.get(), key, number));
}

void put_flag(const Json &record, const char *key, bool flag)
{
    have(cJSON_AddBoolToObject(record.get(), key, flag));
}

int print_list(const Arguments &arguments, const Json &list)
{
    if (arguments.has(JSON))
        print_json(list.get(), false);
    else
        print_table(list.get());
    return DONE;
}

int print_record(const Arguments &arguments, const Json &record)
{
    if (arguments.has(JSON))
        print_json(record.get(), false);
    else
        print_lines(record.get());
    return DONE;
}

void print_json_line(const Json &record)
{
    print_json(record.get(), true);
}

void print_text(std::string_view text)
{
    while (!text.empty()) {
        const size_t length = std::max<size_t>(character_length(text), 1);
        const auto first = static_cast<unsigned char>(text.front());
        if (character_length(text) == 0 || first < ' ' || first == 0x7F)
            (void)printf("\\x%02x", first);
        else
            (void)fwrite(text.data(), 1, length, stdout);
        text.remove_prefix(length);
    }
}

bool has_colours()
{
    const char *terminal = getenv("TERM");
    return isatty(1) == 1 && getenv("NO_COLOR") == nullptr && terminal != nullptr &&
           strcmp(terminal, "dumb") != 0;
}

} // namespace qzctl
