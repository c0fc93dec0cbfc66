// SPDX-License-Identifier: MIT
#include "base/atomic.h"
#include "base/export.h"
#include "base/owners.h"
#include "base/text.h"
#include "log/cli_file.h"
#include "log/signals.h"
#include "log/time_text.h"

#include <algorithm>
#include <array>
#include <csignal>
#include <cstdarg>
#include <qzlib.h>
#include <sys/stat.h>
#include <syslog.h>

qz::log::HeldSignals qz::log::held_signals;

namespace
{

using qz::base::ErrnoKeeper;
using qz::base::UniqueFd;
using qz::base::UniqueStream;
using qz::log::CLI_CONFIG_PATH;
using qz::log::held_signals;

constexpr char LEVEL_LINE_START[] = "log msg-level ";
constexpr size_t CLI_LINE_SIZE = 384;
constexpr int DEFAULT_MAX_SIZE = 204800;
constexpr size_t MESSAGE_BUFFER_SIZE = 1023;
constexpr int TIMESTAMP_SIZE = 50;

struct Level {
    char word[6]; // in the CLI configuration, matched by prefix
    char file_prefix[10];
    int syslog_priority;
};

// Debug goes out as LOG_INFO and fatal as LOG_EMERG: the router's syslog rules expect that.
constexpr std::array<Level, 5> LEVELS = {{
    {"debug", "<DEBUG>", LOG_INFO},
    {"info", "<INFO>", LOG_INFO},
    {"warn", "<WARNING>", LOG_WARNING},
    {"error", "<ERROR>", LOG_ERR},
    {"emerg", "<FATAL>", LOG_EMERG},
}};

// Where messages go. Written by openmsg_com() before threads start, read by all of them.
// Each text is one byte larger than its field so that a full field is terminated too.
struct Destination {
    char path[256 + 1]; // empty: syslog
    int max_size;
    char ident[32 + 1]; // openlog() keeps the pointer
    int flags;
};
Destination msg_log_state;

// Read and written by any thread, with relaxed atomics: two threads that refresh at once
// read the same file. The time is kept modulo 2^32, as 64-bit atomics need a library on
// 32-bit machines.
int threshold = QZLIB_LOG_INFO;
uint32_t level_file_mtime = 0;

void take_level_line(const char *line)
{
    const char *word = qz::base::skip_prefix(line, LEVEL_LINE_START);
    for (size_t level = 0; word != nullptr && level < LEVELS.size(); ++level)
        if (qz::base::skip_prefix(word, LEVELS[level].word) != nullptr)
            return __atomic_store_n(&threshold, static_cast<int>(level), __ATOMIC_RELAXED);
}

void read_level_file()
{
    const UniqueStream stream = qz::base::open_for_reading(CLI_CONFIG_PATH);
    if (!stream)
        return;
    std::array<char, CLI_LINE_SIZE> line;
    while (qz::base::read_full_line(stream.get(), line))
        take_level_line(line.data());
}

// Runs at every message: one stat() when nothing changed. The time is remembered before the
// file is opened, so that an unreadable file is not tried again until it changes.
void msg_level_refresh()
{
    struct stat status;
    if (stat(CLI_CONFIG_PATH, &status) != 0)
        return;
    const auto mtime = static_cast<uint32_t>(status.st_mtime);
    if (mtime == __atomic_load_n(&level_file_mtime, __ATOMIC_RELAXED))
        return;
    __atomic_store_n(&level_file_mtime, mtime, __ATOMIC_RELAXED);
    read_level_file();
}

const Level &level_row(int level)
{
    return LEVELS[static_cast<size_t>(std::min<int>(level, QZLIB_LOG_FATAL))];
}

// A caller's message, with the errno it was logged at (for "%m").
struct Message {
    const char *format;
    va_list arguments;
    int caller_errno;
};

// Formats the message; returns the length of what was stored, not of what was asked for.
size_t format_message(std::span<char> out, Message &message)
{
    errno = message.caller_errno;
    const int length = vsnprintf(out.data(), out.size(), message.format, message.arguments);
    if (length < 0)
        out[0] = '\0';
    return strnlen(out.data(), out.size());
}

// The text of the current second, which most lines of a busy daemon share: making it anew
// costs more than all the rest of a line's formatting. A thread that finds it in use by
// another one makes its own.
struct SecondText {
    uint32_t busy;
    time_t second;
    char text[TIMESTAMP_SIZE];
};
SecondText second_text = {};

size_t append_timestamp(char *out)
{
    const time_t now = time(nullptr);
    if (!qz::base::exchange_if(second_text.busy, 0, 1)) {
        qz::log::format_time(now, {out, TIMESTAMP_SIZE});
        return strlen(out);
    }
    if (second_text.second != now || second_text.text[0] == '\0') { // a clock may stand at 0
        second_text.second = now;
        qz::log::format_time(now, second_text.text);
    }
    const size_t length = strlen(second_text.text);
    memcpy(out, second_text.text, length);
    qz::base::store_release(second_text.busy, 0);
    return length;
}

// One line, one write: lines of several threads and processes do not mix. The module and the
// line number are not written to files.
void emit_to_file(const Level &level, Message &message)
{
    (void)reset_file_size(msg_log_state.path, msg_log_state.max_size);
    const UniqueFd file(open(msg_log_state.path, O_WRONLY | O_APPEND | O_CREAT | O_CLOEXEC, 0644));
    if (!file) {
        syslog(LOG_ERR, "Error open message file(%s) for record", msg_log_state.path);
        return;
    }
    char line[MESSAGE_BUFFER_SIZE];
    char *end = line;
    *end++ = '[';
    end += append_timestamp(end);
    *end++ = ']';
    end = stpcpy(end, level.file_prefix);
    end = stpcpy(end, msg_log_state.ident);
    *end++ = ':';
    end += format_message({end, line + sizeof line - 1}, message);
    *end++ = '\n';
    // A full disk costs the message, not the daemon.
    (void)!write(file.get(), line, static_cast<size_t>(end - line));
}

void emit_to_syslog(const Level &level, const char *module, int line, Message &message)
{
    std::array<char, MESSAGE_BUFFER_SIZE> text;
    (void)format_message(text, message);
    if (module != nullptr)
        syslog(level.syslog_priority, "%s{%s->%d}", text.data(), module, line);
    else
        syslog(level.syslog_priority, "%s", text.data());
}

} // namespace

void qz::log::format_time(int64_t seconds, std::span<char> out)
{
    const auto when = static_cast<time_t>(seconds == 0 ? time(nullptr) : seconds);
    struct tm local {
    };
    tzset();                    // localtime_r() alone may keep the zone that the process started with
    localtime_r(&when, &local); // not localtime(): any thread may log
    std::array<char, 64> text;
    const size_t length = strftime(text.data(), text.size(), "%Y-%m-%d %X", &local);
    qz::base::copy_text(out, {text.data(), length});
}

QZ_EXPORT void openmsg_com(const char *path, int max_size, const char *ident, int flags)
{
    msg_log_state = {};
    if (path != nullptr)
        qz::base::fill_field({msg_log_state.path, sizeof msg_log_state.path - 1}, path);
    msg_log_state.max_size = max_size < 1 ? DEFAULT_MAX_SIZE : max_size;
    if (ident != nullptr)
        qz::base::fill_field({msg_log_state.ident, sizeof msg_log_state.ident - 1}, ident);
    msg_log_state.flags = flags;
    if ((flags & QZLIB_LOG_QUIET_STDIO) != 0)
        (void)qzlib_stdout_to_null(0);
    if (path == nullptr)
        openlog(msg_log_state.ident[0] != '\0' ? msg_log_state.ident : nullptr, LOG_PID, LOG_DAEMON);
}

QZ_EXPORT void openmsg(const char *ident)
{
    openmsg_com(nullptr, 0, ident, 0);
}

QZ_EXPORT void closemsg(void)
{
    if (msg_log_state.path[0] == '\0')
        closelog();
}

QZ_EXPORT void debug_msg(int level, const char *module, int line, const char *format, ...)
{
    const ErrnoKeeper keeper; // callers look at errno after they logged
    Message message{format, {}, errno};
    msg_level_refresh();
    if (__atomic_load_n(&threshold, __ATOMIC_RELAXED) > level)
        return;
    sigset_t before;
    const bool hold = __atomic_load_n(&held_signals.any, __ATOMIC_ACQUIRE);
    if (hold)
        pthread_sigmask(SIG_BLOCK, &held_signals.set, &before);
    va_start(message.arguments, format);
    if (msg_log_state.path[0] != '\0')
        emit_to_file(level_row(level), message);
    else
        emit_to_syslog(level_row(level), module, line, message);
    va_end(message.arguments);
    if (hold)
        pthread_sigmask(SIG_SETMASK, &before, nullptr);
}

QZ_EXPORT int reset_file_size(const char *path, int max_size)
{
    struct stat status;
    const int result = stat(path, &status);
    if (result != 0)
        return result;
    if (status.st_size >= max_size)
        return unlink(path);
    return static_cast<int>(status.st_size);
}
