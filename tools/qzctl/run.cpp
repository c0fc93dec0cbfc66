// SPDX-License-Identifier: MIT
// run: a command with a time limit.
#include "command.h"

#include <cstdio>
#include <cstring>

namespace qzctl
{
namespace
{

constexpr size_t LINE_SIZE = 256; // what the library takes, with its NUL

class Line
{
public:
    void add(char c)
    {
        if (size_ + 1 >= sizeof text_)
            refuse("run: the command has more than %zu characters, quotes included", sizeof text_ - 1);
        text_[size_++] = c;
    }
    void add(const char *text)
    {
        for (; *text != '\0'; ++text)
            add(*text);
    }
    void add_quoted(const char *word)
    {
        add('\'');
        for (; *word != '\0'; ++word)
            if (*word == '\'')
                add("'\\''");
            else
                add(*word);
        add('\'');
    }
    [[nodiscard]] const char *text() const { return text_; }

private:
    char text_[LINE_SIZE] = "";
    size_t size_ = 0;
};

} // namespace

// One word is a line for the shell. Several are a program and its arguments, which the shell becomes, so
// that the limit ends the program itself.
int run(const Arguments &arguments)
{
    const unsigned limit_s = arguments.number(TIMEOUT, 0, 1, 1'000'000);
    Line line;
    if (arguments.count == 1)
        line.add(check_length("the command", arguments.word(0), LINE_SIZE - 1));
    else
        line.add("exec");
    for (int i = 0; i < arguments.count && arguments.count > 1; ++i) {
        line.add(' ');
        line.add_quoted(arguments.words[i]);
    }
    const int status = system_dumb(line.text(), static_cast<int>(limit_s));
    if (status == 0)
        return DONE;
    if (status == QZLIB_ERR_TIME_LIMIT)
        return say(NOT_IN_TIME, "%.40s: killed after %u s", arguments.word(0), limit_s);
    if (status < 0)
        return say(NO, "%.40s: it cannot be run", arguments.word(0));
    return say(NO, "%.40s: it ended with %d", arguments.word(0), status);
}

} // namespace qzctl
