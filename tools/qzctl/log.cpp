// SPDX-License-Identifier: MIT
// log and cli: the router-wide log level, a message of one's own, the command-line configuration.
#include "command.h"
#include "replace.h"
#include "text.h"

#include <cerrno>
#include <cstring>
#include <fcntl.h>

namespace qzctl
{
namespace
{

constexpr const char *CLI_FILE = "/tmp/config/cli.conf";
constexpr std::string_view LEVEL_START = "log msg-level ";
constexpr const char *LEVELS[] = {"debug", "info", "warn", "error", "emerg"}; // by their numbers
constexpr size_t MESSAGE_MAX = 900;
constexpr size_t WORD_MAX = 255;

// Where the line with the level begins, and where the last one of several does, which counts.
size_t find_level(std::string_view text)
{
    size_t found = std::string_view::npos;
    for (size_t line = 0; line < text.size(); ++line) {
        std::string_view rest = text;
        rest.remove_prefix(line);
        if (begins_with(rest, LEVEL_START))
            found = line;
        line = text.find('\n', line);
        if (line == std::string_view::npos)
            break;
    }
    return found;
}

// As the library reads it: a line that has no line feed does not count, and an unknown word neither.
unsigned level_of(std::string_view text)
{
    unsigned level = QZLIB_LOG_INFO;
    while (!text.empty()) {
        const size_t end = text.find('\n');
        if (end == std::string_view::npos)
            return level;
        std::string_view word = text;
        word.remove_suffix(text.size() - end);
        if (begins_with(word, LEVEL_START)) {
            word.remove_prefix(LEVEL_START.size());
            for (unsigned i = 0; i < std::size(LEVELS); ++i)
                if (begins_with(word, LEVELS[i])) {
                    level = i;
                    break;
                }
        }
        text.remove_prefix(end + 1);
    }
    return level;
}

int set_level(const char *word)
{
    Replacement file;
    if (const int status = file.open(CLI_FILE); status != DONE)
        return status;
    Content content;
    if (const int status = file.read(content); status != DONE)
        return status;
    const std::string_view text = content.view();
    const size_t place = find_level(text);
    const size_t before = place == std::string_view::npos ? 0 : place;
    const size_t line_end = place == std::string_view::npos ? std::string_view::npos : text.find('\n', place);
    const size_t after = place == std::string_view::npos      ? 0
                         : line_end == std::string_view::npos ? text.size()
                                                              : line_end + 1;
    const size_t size = text.size() + LEVEL_START.size() + 16;
    const Memory changed(static_cast<char *>(malloc(size)));
    if (!changed)
        out_of_memory();
    const int length = snprintf(changed.get(), size, "%.*s%s%s\n%s", static_cast<int>(before), text.data(),
                                LEVEL_START.data(), word, text.data() + after);
    const std::string_view result(changed.get(), static_cast<size_t>(length));
    return result == text ? static_cast<int>(DONE) : file.write(result);
}

unsigned read_level()
{
    const Fd file(open(CLI_FILE, O_RDONLY | O_CLOEXEC));
    Content content;
    return file && read_all(file.get(), content) ? level_of(content.view()) : level_of({});
}

} // namespace

int log_level(const Arguments &arguments)
{
    if (arguments.count == 1)
        return set_level(LEVELS[check_word("the level", arguments.word(0), LEVELS)]);
    (void)puts(LEVELS[read_level()]);
    return DONE;
}

// The library does not tell whether a message was logged, so what can keep it from that is looked at first.
int log_send(const Arguments &arguments)
{
    const unsigned level = check_word("the level", arguments.word(0), LEVELS);
    const char *text = check_length("the text", arguments.word(1), MESSAGE_MAX);
    if (strchr(text, '\n') != nullptr)
        refuse("the text has more than one line");
    const char *ident =
        arguments.has(IDENT) ? check_length("--ident", arguments.options[IDENT], 32) : "qzctl";
    const char *path =
        arguments.has(PATH) ? check_length("--file", arguments.options[PATH], WORD_MAX) : nullptr;
    const unsigned router_level = read_level();
    if (level < router_level)
        return say(NO, "it is not logged: the router's level is %s", LEVELS[router_level]);
    if (path == nullptr && access("/dev/log", W_OK) != 0)
        return say_errno("/dev/log");
    if (path != nullptr && !Fd(open(path, O_WRONLY | O_APPEND | O_CREAT | O_NONBLOCK | O_CLOEXEC, 0644)))
        return say_errno(path);
    openmsg_com(path, 0, ident, 0);
    debug_msg(static_cast<int>(level), nullptr, 0, "%s", text);
    return DONE;
}

namespace
{

// The lookup table of cli_config_get() with two entries: the header's word, and the key.
struct Lookup {
    static constexpr size_t VALUE_SIZE = 384;

    const char *header;
    char argument[VALUE_SIZE];
    const char *key;
    char value[VALUE_SIZE];
};

bool is_last_round(const Lookup &table, const char *previous, unsigned round)
{
    constexpr unsigned ROUNDS = 1000; // the blocks of a file that repeats itself never end
    return round == ROUNDS || *table.argument == '\0' || strcmp(table.argument, previous) == 0;
}

} // namespace

int cli_get(const Arguments &arguments)
{
    const char *wanted =
        arguments.count == 3 ? check_length("the argument", arguments.word(1), WORD_MAX) : nullptr;
    Lookup table{};
    table.header = check_length("the header", arguments.word(0), WORD_MAX);
    table.key = check_length("the key", arguments.word(arguments.count - 1), WORD_MAX);
    char previous[Lookup::VALUE_SIZE] = "";
    for (unsigned round = 0; cli_config_get(&table, sizeof table, 0) >= 0; ++round) {
        if (wanted == nullptr || strcmp(table.argument, wanted) == 0) {
            if (*table.value == '\0')
                break;
            (void)puts(table.value);
            return DONE;
        }
        if (is_last_round(table, previous, round))
            break;
        memcpy(previous, table.argument, sizeof previous);
    }
    return say(NO, "%s: no %s in %s%s%s", CLI_FILE, table.key, table.header, wanted == nullptr ? "" : " ",
               wanted == nullptr ? "" : wanted);
}

} // namespace qzctl
