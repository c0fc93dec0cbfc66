// SPDX-License-Identifier: MIT
#include "base/text.h"
#include "base/export.h"

#include <array>
#include <cctype>
#include <qzlib.h>

namespace
{

constexpr size_t TRIM_BUFFER_SIZE = 1024;

constexpr bool is_blank(char c)
{
    return c == '\t' || c == '\n' || c == '\r' || c == ' ';
}

constexpr bool is_line_end(char c)
{
    return c == '\n' || c == '\r';
}

// Clears trailing characters of a kind, but never the first one: the walk must not look in
// front of the string, and daemons rely on "\n" staying as it is.
template <typename Predicate>
void strip_end(char *str, Predicate strip)
{
    if (str == nullptr)
        return;
    for (size_t length = strlen(str); length > 1 && strip(str[length - 1]); --length)
        str[length - 1] = '\0';
}

template <typename Fold>
void fold_case(char *str, Fold fold)
{
    for (; *str != '\0'; ++str)
        *str = static_cast<char>(fold(static_cast<unsigned char>(*str)));
}

} // namespace

QZ_EXPORT void qzlib_str_toupper(char *str)
{
    fold_case(str, toupper);
}

QZ_EXPORT void qzlib_str_tolowr(char *str)
{
    fold_case(str, tolower);
}

QZ_EXPORT char *qzlib_str_trim(char *str)
{
    size_t end = strnlen(str, TRIM_BUFFER_SIZE - 1);
    while (end > 0 && is_blank(str[end - 1]))
        --end;
    size_t start = 0;
    while (start < end && is_blank(str[start]))
        ++start;
    memmove(str, str + start, end - start);
    str[end - start] = '\0';
    return str;
}

QZ_EXPORT void qzlib_str_del_end_crlf(char *str)
{
    strip_end(str, is_line_end);
}

QZ_EXPORT void qzlib_str_del_crlf(char *str)
{
    strip_end(str, is_blank);
}

QZ_EXPORT char *qzlib_path_notdir(char *path)
{
    char *slash = strrchr(path, '/');
    return slash != nullptr ? slash + 1 : path;
}

QZ_EXPORT unsigned int qzlib_str_is_digit(const char *str)
{
    return str != nullptr && str[strspn(str, "0123456789")] == '\0';
}
