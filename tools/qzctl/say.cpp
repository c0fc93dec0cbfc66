// SPDX-License-Identifier: MIT
#include "command.h"

#include <cerrno>
#include <cstdarg>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <strings.h>

namespace qzctl
{
namespace
{

// One write, so that the lines of several processes do not mix.
void say_list(const char *format, va_list list)
{
    char text[1024];
    const int length = vsnprintf(text, sizeof text, format, list);
    (void)fflush(stdout);
    (void)fprintf(stderr, "qzctl: %s%s\n", text, length < static_cast<int>(sizeof text) ? "" : "...");
}

} // namespace

int say(Status status, const char *format, ...)
{
    va_list list;
    va_start(list, format);
    say_list(format, list);
    va_end(list);
    return status;
}

int say_errno(const char *what)
{
    return say(NO, "%s: %s", what, strerror(errno));
}

void refuse(const char *format, ...)
{
    va_list list;
    va_start(list, format);
    say_list(format, list);
    va_end(list);
    exit(WRONG_USAGE);
}

void out_of_memory()
{
    exit(say(NO, "out of memory"));
}

unsigned check_number(const char *what, const char *text, unsigned min, unsigned max)
{
    char *end = nullptr;
    errno = 0;
    const unsigned long long value = strtoull(text, &end, 10);
    if (*text < '0' || *text > '9' || *end != '\0' || errno != 0 || value < min || value > max)
        refuse("%s %.40s: not a number from %u to %u", what, text, min, max);
    return static_cast<unsigned>(value);
}

const char *check_length(const char *what, const char *text, size_t max)
{
    if (*text == '\0')
        refuse("%s is empty", what);
    if (strlen(text) > max)
        refuse("%s %.40s...: more than %zu characters", what, text, max);
    return text;
}

const char *check_file_name(const char *what, const char *text, size_t max)
{
    check_length(what, text, max);
    if (strchr(text, '/') != nullptr || strcmp(text, ".") == 0 || strcmp(text, "..") == 0)
        refuse("%s %s: it is a name, not a path", what, text);
    return text;
}

unsigned check_word(const char *what, const char *text, const char *const *words, size_t size)
{
    char list[256] = "";
    for (size_t i = 0; i < size; ++i) {
        if (strcmp(text, words[i]) == 0)
            return static_cast<unsigned>(i);
        (void)snprintf(list + strlen(list), sizeof list - strlen(list), "%s%s",
                       i == 0 ? "" : (i + 1 == size ? " or " : ", "), words[i]);
    }
    refuse("%s %.40s: it is %s", what, text, list);
}

unsigned Arguments::number(Option option, unsigned fallback, unsigned min, unsigned max) const
{
    return has(option) ? check_number(option_name(option), options[option], min, max) : fallback;
}

} // namespace qzctl
