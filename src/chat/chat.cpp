// SPDX-License-Identifier: MIT
#include "base/export.h"
#include "base/owners.h"
#include "base/wait.h"

#include <array>
#include <csignal>
#include <cstdio>
#include <cstring>
#include <qzlib.h>
#include <termios.h>

#define CHAT_LOG(level, ...) debug_msg(level, "vq_chat", __LINE__, __VA_ARGS__)

QZ_EXPORT int at_modem_error = 0;

namespace
{

using qz::base::ErrnoKeeper;

constexpr int MAX_COMMAND = 509; // characters, without the carriage return
constexpr int MAX_RAW = 512;     // bytes
constexpr int EXPECT_SIZE = 512; // answer buffer of the expecting calls
constexpr int ASCII_ANSWER = 8;  // bytes
constexpr int HEX_ANSWER = 12;   // bytes
constexpr unsigned SEND_LIMIT_S = 10;
constexpr unsigned SEND_READ_LIMIT_S = 5;
constexpr char USIM_REMOVED[] = "^SIMST:255";

// What one write sends: a command with its carriage return, or raw bytes. Always terminated, for the log.
struct Line {
    std::array<char, MAX_RAW + 1> bytes;
    size_t length;

    void take(const void *data, size_t size)
    {
        memcpy(bytes.data(), data, size);
        bytes[size] = '\0';
        length = size;
    }
};

int refuse()
{
    CHAT_LOG(QZLIB_LOG_ERROR, "argument error");
    return -1;
}

bool format_command(Line &line, const char *command)
{
    const size_t length = strnlen(command, MAX_COMMAND + 1);
    if (length > MAX_COMMAND)
        return false;
    line.take(command, length);
    line.bytes[line.length++] = '\r';
    line.bytes[line.length] = '\0';
    return true;
}

// What arrived earlier is thrown away first, unsolicited lines included. The write is the one
// thing that may block; the alarm breaks it off, provided that chat_signal_handler() is in place.
// The result is write()'s; cannot is the word that opens the message about a failure.
int send_line(int fd, const Line &line, unsigned limit_s, int log, const char *cannot)
{
    (void)tcflush(fd, TCIOFLUSH);
    (void)qzlib_set_block(fd);
    if (log != 0)
        CHAT_LOG(QZLIB_LOG_DEBUG, "%d <<< (%s)", fd, line.bytes.data());
    alarm(limit_s);
    const ssize_t written = write(fd, line.bytes.data(), line.length);
    const ErrnoKeeper keeper;
    alarm(0);
    if (written < 0)
        CHAT_LOG(QZLIB_LOG_ERROR, "%s write( %d, %s, %d )", cannot, fd, line.bytes.data(),
                 static_cast<int>(line.length));
    (void)qzlib_set_nonblock(fd);
    return static_cast<int>(written);
}

// An answer that is being collected, in a buffer of at least room + 1 bytes.
struct Answer {
    char *text;
    int room;          // bytes to collect at most
    int pass_limit;    // passes go on while fewer bytes than this are there
    int reported_size; // what the log of a failed read counts down from
    int collected = 0;

    [[nodiscard]] bool holds(const char *part) const
    {
        return memmem(text, static_cast<size_t>(collected), part, strlen(part)) != nullptr;
    }
};

enum class End { NORMAL, FOUND, WAIT_FAILED, READ_FAILED };

struct Collection {
    End end;
    int failure = 0; // the negative result, for the two failures
};

// The message keeps its form, with the address of what stands for the descriptor set here.
int wait_readable(int fd, int timeout_s)
{
    const timespec timeout{timeout_s, 0};
    const int ready = qz::base::wait_ready(fd, POLLIN, &timeout);
    if (ready < 0)
        CHAT_LOG(QZLIB_LOG_ERROR, "cannot select( %d, %p, NULL, NULL, %p )",
                 static_cast<int>(static_cast<unsigned>(fd) + 1U), static_cast<const void *>(&fd),
                 static_cast<const void *>(&timeout));
    return ready;
}

ssize_t read_piece(int fd, Answer &answer)
{
    const ssize_t got =
        read(fd, answer.text + answer.collected, static_cast<size_t>(answer.room - answer.collected));
    if (got > 0)
        answer.collected += static_cast<int>(got);
    answer.text[answer.collected] = '\0';
    if (got < 0)
        CHAT_LOG(QZLIB_LOG_ERROR, "cannot read( %d, %s, %d )", fd, answer.text,
                 answer.reported_size - answer.collected - 1);
    return got;
}

// Ends early at an expected text, if there is one. The timeout is for the next piece, not for
// the whole: an answer that trickles in keeps the collection going.
Collection collect(int fd, Answer &answer, int timeout_s, const char *expected = nullptr)
{
    while (answer.collected < answer.pass_limit) {
        const int ready = wait_readable(fd, timeout_s);
        if (ready < 0)
            return {End::WAIT_FAILED, ready};
        if (ready == 0)
            break;
        const ssize_t got = read_piece(fd, answer);
        if (got < 0)
            return {End::READ_FAILED, static_cast<int>(got)};
        if (got == 0)
            break;
        if (expected != nullptr && answer.holds(expected))
            return {End::FOUND};
    }
    return {End::NORMAL};
}

void log_answer(int fd, const Answer &answer, int log)
{
    if (log != 0 && answer.collected > 0)
        CHAT_LOG(QZLIB_LOG_DEBUG, "%d >>> (%s)", fd, answer.text);
}

int expect(int fd, const char *expected, int timeout_s, int log)
{
    std::array<char, EXPECT_SIZE> text;
    Answer answer{text.data(), EXPECT_SIZE - 1, EXPECT_SIZE - 1, EXPECT_SIZE};
    const Collection collection = collect(fd, answer, timeout_s, expected);
    if (collection.end == End::WAIT_FAILED)
        return collection.failure;
    log_answer(fd, answer, log);
    if (collection.end == End::READ_FAILED)
        return collection.failure;
    return collection.end == End::FOUND ? 1 : 0;
}

// What the three send-and-read calls do last.
int collect_answer(int fd, Answer answer, int timeout_s, int log)
{
    const Collection collection = collect(fd, answer, timeout_s);
    if (collection.end != End::NORMAL) {
        ++at_modem_error;
        return collection.failure;
    }
    log_answer(fd, answer, log);
    if (answer.holds(USIM_REMOVED))
        CHAT_LOG(QZLIB_LOG_ERROR, "..........USIM Remove........");
    return answer.collected;
}

int send_counted(int fd, const Line &line, int log)
{
    const int written = send_line(fd, line, SEND_READ_LIMIT_S, log, "cannot");
    if (written < 0)
        ++at_modem_error;
    return written;
}

// One pass more than the answer has room for, deliberately: it waits once more and reads
// nothing. The length is that of the data and places the NUL in the answer as well.
int send_raw_read(int fd, const void *data, char *text, int length, int most, int timeout_s, int log)
{
    if (fd < 0 || data == nullptr || text == nullptr || length < 0 || length > MAX_RAW)
        return refuse();
    if (length > 0)
        text[length - 1] = '\0';
    Line line;
    line.take(data, static_cast<size_t>(length));
    const int written = send_counted(fd, line, log);
    if (written < 0)
        return written;
    return collect_answer(fd, {text, most, most + 1, length}, timeout_s, log);
}

// Prepares a caller's buffer; false when it has no room for an answer.
bool prepare_buffer(char *buffer, int size)
{
    if (size > 0)
        buffer[size - 1] = '\0';
    return size >= 2;
}

Answer answer_in(char *buffer, int size)
{
    return {buffer, size - 1, size - 1, size};
}

} // namespace

QZ_EXPORT int chat_send(int fd, const char *command, int log)
{
    Line line;
    if (fd < 0 || command == nullptr || !format_command(line, command))
        return refuse();
    return send_line(fd, line, SEND_LIMIT_S, log, "Cannot");
}

QZ_EXPORT int chat_expect(int fd, const char *expected, int timeout, int log)
{
    if (fd < 0 || expected == nullptr)
        return refuse();
    (void)qzlib_set_nonblock(fd);
    return expect(fd, expected, timeout, log);
}

QZ_EXPORT int chat_read(int fd, char *buffer, int size, int timeout, int log)
{
    if (fd < 0 || buffer == nullptr)
        return refuse();
    (void)qzlib_set_nonblock(fd);
    if (!prepare_buffer(buffer, size))
        return 0;
    Answer answer = answer_in(buffer, size);
    const Collection collection = collect(fd, answer, timeout);
    if (collection.end == End::WAIT_FAILED)
        return collection.failure;
    log_answer(fd, answer, log); // a failed read only ends the collection, deliberately
    return answer.collected;
}

QZ_EXPORT int chat_send_expect(int fd, const char *command, const char *expected, int timeout, int log)
{
    Line line;
    if (fd < 0 || command == nullptr || expected == nullptr || !format_command(line, command))
        return refuse();
    const int written = send_line(fd, line, SEND_LIMIT_S, log, "cannot");
    return written < 0 ? written : expect(fd, expected, timeout, log);
}

QZ_EXPORT int chat_send_read(int fd, const char *command, char *buffer, int size, int timeout, int log)
{
    Line line;
    if (fd < 0 || command == nullptr || buffer == nullptr || !format_command(line, command))
        return refuse();
    const bool has_room = prepare_buffer(buffer, size);
    const int written = send_counted(fd, line, log);
    if (written < 0)
        return written;
    return has_room ? collect_answer(fd, answer_in(buffer, size), timeout, log) : 0;
}

QZ_EXPORT int chat_send_ASCII_read(int fd, const void *data, char *answer, int length, int timeout, int log)
{
    return send_raw_read(fd, data, answer, length, ASCII_ANSWER, timeout, log);
}

QZ_EXPORT int chat_send_hex_read(int fd, const void *data, char *answer, int length, int timeout, int log)
{
    return send_raw_read(fd, data, answer, length, HEX_ANSWER, timeout, log);
}
