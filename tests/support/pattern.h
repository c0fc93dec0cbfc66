// Extended regular expressions of libc: std::regex takes half a minute to compile.
#pragma once

#include <cstdlib>
#include <regex.h>
#include <string>

namespace support
{

class Pattern
{
public:
    explicit Pattern(const std::string &text)
    {
        if (regcomp(&compiled_, text.c_str(), REG_EXTENDED) != 0)
            abort();
    }
    ~Pattern() { regfree(&compiled_); }
    Pattern(const Pattern &) = delete;
    Pattern &operator=(const Pattern &) = delete;

    // How often the pattern occurs, one after the other.
    [[nodiscard]] size_t count_in(const std::string &text) const
    {
        size_t count = 0;
        regmatch_t match{};
        for (const char *at = text.c_str(); regexec(&compiled_, at, 1, &match, 0) == 0 && match.rm_eo > 0;
             ++count)
            at += match.rm_eo;
        return count;
    }

private:
    regex_t compiled_{};
};

inline bool matches(const std::string &text, const std::string &pattern)
{
    return Pattern("^(" + pattern + ")$").count_in(text) == 1;
}

} // namespace support
