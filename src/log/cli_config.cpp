// SPDX-License-Identifier: MIT
#include "base/export.h"
#include "base/owners.h"
#include "base/text.h"
#include "log/cli_file.h"

#include <algorithm>
#include <array>
#include <cstring>
#include <optional>
#include <qzlib.h>

namespace
{

using qz::base::UniqueStream;
using qz::log::CLI_CONFIG_PATH;

constexpr size_t FIND_LINE_SIZE = 256;
constexpr size_t GET_LINE_SIZE = 384;
constexpr size_t ENTRY_ALIGNMENT = 4;
constexpr char SHUTDOWN_LINE_START[] = " shutdown";
constexpr char ARGUMENT_START[] = " \r\n";

// "!" anywhere in a line makes it a block end, also inside a quoted text.
bool is_block_end(const char *line)
{
    return strchr(line, '!') != nullptr;
}

bool is_line_end(char c)
{
    return c == '\r' || c == '\n';
}

std::string_view without_line_end(std::string_view text)
{
    for (int i = 0; i < 2 && !text.empty() && is_line_end(text.back()); ++i)
        text.remove_suffix(1);
    return text;
}

// One entry of the caller's lookup table; after the last one comes an entry without key. The area reaches to
// the next entry: text, then zeros.
struct Entry {
    const char *key;
    std::span<char> area;
    size_t next; // offset of the entry after this one

    [[nodiscard]] std::string_view value() const { return qz::base::field_text(area); }

    void clear() const { std::ranges::fill(area, '\0'); }

    // A value that is too long is cut, so that it cannot reach the next entry's key.
    void set_value(std::string_view text) const
    {
        clear();
        if (!area.empty())
            qz::base::copy_text(area, text);
    }
};

// Keys are machine words at 4-byte boundaries of the table, so a 64-bit one may be misaligned.
class LookupTable
{
public:
    LookupTable(void *table, size_t size) : bytes_(static_cast<char *>(table), size) {}

    [[nodiscard]] Entry first() const { return entry_at(0); }
    [[nodiscard]] Entry after(const Entry &entry) const { return entry_at(entry.next); }

private:
    [[nodiscard]] Entry entry_at(size_t offset) const
    {
        Entry entry{};
        if (offset + sizeof(const char *) > bytes_.size())
            return entry;
        memcpy(&entry.key, &bytes_[offset], sizeof entry.key);
        if (entry.key == nullptr)
            return entry;
        const std::span<char> rest = bytes_.subspan(offset + sizeof entry.key);
        entry.area = rest.first(area_size(rest));
        entry.next = offset + sizeof entry.key + entry.area.size();
        return entry;
    }

    // The first byte of a key may be zero: hence back to the boundary.
    static size_t area_size(std::span<const char> rest)
    {
        size_t size = qz::base::field_text(rest).size();
        while (size < rest.size() && rest[size] == '\0')
            ++size;
        return size == rest.size() ? size : size / ENTRY_ALIGNMENT * ENTRY_ALIGNMENT;
    }

    std::span<char> bytes_;
};

// The value after a key in a parameter line; empty when there is none. Only the key's first occurrence
// counts, and the character after it is skipped whatever it is.
const char *value_in_line(const char *line, const char *key)
{
    const char *at = strstr(line, key);
    if (at == nullptr || at == line || at[-1] != ' ')
        return "";
    at += strlen(key);
    if (*at != '\0')
        ++at;
    return at + strspn(at, " ");
}

// One call's pass through the file.
class BlockReader
{
public:
    BlockReader(FILE *stream, const LookupTable &table, const Entry &header, int mode)
        : stream_(stream), table_(table), header_(header), by_word_(mode == QZLIB_CLI_WORDS)
    {
    }

    int run()
    {
        std::array<char, GET_LINE_SIZE> line;
        while (qz::base::read_full_line(stream_, line)) {
            const char *argument = header_argument(line.data());
            if (argument == nullptr)
                continue;
            const std::optional<int> result = *argument == '\0' ? nameless() : named(argument);
            if (result)
                return *result;
        }
        return -1;
    }

private:
    // The argument of a header line, its line end included; null for any other line.
    [[nodiscard]] const char *header_argument(const char *line) const
    {
        if (*line == '\0' || is_block_end(line))
            return nullptr;
        const char *argument = qz::base::skip_prefix(line, header_.key);
        if (argument == nullptr || strchr(ARGUMENT_START, *argument) == nullptr) // the line's NUL is found
            return nullptr;
        return argument + strspn(argument, ARGUMENT_START);
    }

    // A header without argument: its block counts on a first call only, and only when it holds
    // a parameter.
    std::optional<int> nameless()
    {
        if (header_.value().empty() && read_block())
            return 0;
        return std::nullopt;
    }

    std::optional<int> named(const char *argument)
    {
        const bool iterating = !header_.value().empty();
        if (iterating) {
            const bool is_preset = without_line_end(argument) == header_.value();
            if (is_preset && preset_seen_)
                return -1;
            if (!preset_seen_) {
                preset_seen_ = is_preset;
                return std::nullopt;
            }
        }
        header_.set_value(argument);
        // Not taken, and yet it stays as the preset value, line end and all: on a first call no
        // header can equal it any more, deliberately.
        if (by_word_ && strchr(argument, ' ') != nullptr)
            return std::nullopt;
        header_.set_value(without_line_end(argument));
        if (iterating)
            clear_parameters();
        return read_block() ? 0 : QZLIB_CLI_EMPTY_BLOCK;
    }

    void clear_parameters() const
    {
        for (Entry entry = table_.after(header_); entry.key != nullptr; entry = table_.after(entry))
            entry.clear();
    }

    // Reads to the end of the block; whether it held a parameter.
    bool read_block()
    {
        bool found = false;
        std::array<char, GET_LINE_SIZE> line;
        while (qz::base::read_full_line(stream_, line) && !is_block_end(line.data())) {
            if (qz::base::skip_prefix(line.data(), SHUTDOWN_LINE_START) != nullptr || parse_line(line.data()))
                found = true;
        }
        return found;
    }

    // Offers a line to the parameter entries. A value that is the rest of the line ends the
    // line; after a single word the next entries may find theirs.
    bool parse_line(const char *line) const
    {
        bool found = false;
        for (Entry entry = table_.after(header_); entry.key != nullptr; entry = table_.after(entry)) {
            const char *rest = value_in_line(line, entry.key);
            if (*rest == '\0' || (!by_word_ && !entry.value().empty()))
                continue;
            const size_t length = strcspn(rest, by_word_ ? " " : "");
            entry.set_value(without_line_end({rest, length}));
            found = true;
            if (rest[length] == '\0')
                break;
        }
        return found;
    }

    FILE *stream_;
    const LookupTable &table_;
    Entry header_;
    bool by_word_;
    bool preset_seen_ = false;
};

bool is_block_header(const char *line, const char *block)
{
    const char *end = qz::base::skip_prefix(line, block);
    return end != nullptr && is_line_end(*end);
}

} // namespace

QZ_EXPORT int cli_find_paremeter(const char *block, const char *text)
{
    if (block == nullptr || text == nullptr)
        return -1;
    const UniqueStream stream = qz::base::open_for_reading(CLI_CONFIG_PATH);
    if (!stream)
        return -1;
    bool in_block = false;
    std::array<char, FIND_LINE_SIZE> line;
    while (qz::base::read_full_line(stream.get(), line)) {
        if (is_block_end(line.data())) {
            if (in_block)
                return -1;
        } else if (!in_block) {
            in_block = is_block_header(line.data(), block);
        } else if (strstr(line.data(), text) != nullptr) {
            return 0;
        }
    }
    return -1;
}

QZ_EXPORT int cli_config_get(void *table, int size, int mode)
{
    if (table == nullptr || size < 0)
        return -1;
    const LookupTable lookup(table, static_cast<size_t>(size));
    const Entry header = lookup.first();
    if (header.key == nullptr)
        return -1;
    const UniqueStream stream = qz::base::open_for_reading(CLI_CONFIG_PATH);
    if (!stream)
        return -1;
    return BlockReader(stream.get(), lookup, header, mode).run();
}
