// SPDX-License-Identifier: MIT
// What the commands have in common: how they are described, what they are given, what they result in.
#pragma once

#include <cstddef>
#include <qzlib.h>

namespace qzctl
{

// The exit statuses, of every command.
enum Status : int {
    DONE = 0,
    NO = 1, // the answer is no, or it failed
    WRONG_USAGE = 2,
    NOT_IN_TIME = 3 // nothing came in time
};

// The options, in the order of their table in main.cpp.
enum Option : unsigned {
    BACKUP,
    BAUD,
    COUNT,
    DEVICE,
    DISTANCE,
    FORCE,
    GROUP,
    IDENT,
    IMAGE,
    INTERVAL,
    JSON,
    PATH, // --file
    PID,
    TIMEOUT,
    TO,
    TOPIC,
    TRACE,
    TRANSCRIPT,
    TYPE,
    OPTIONS
};

// What the command line holds after the command's name.
struct Arguments {
    const char *command;          // its name, as "env set"
    const char *service;          // of conf; null with --file
    char **words;                 // what is neither name nor option
    int count;                    // of words
    const char *options[OPTIONS]; // values; "" of an option without one; null where it is not given

    [[nodiscard]] bool has(Option option) const { return options[option] != nullptr; }
    [[nodiscard]] const char *word(int index) const { return index < count ? words[index] : nullptr; }
    [[nodiscard]] unsigned number(Option option, unsigned fallback, unsigned min, unsigned max) const;
};

// ---- main.cpp

// With its hyphens, "--timeout".
const char *option_name(Option option);

// ---- say.cpp: sentences on standard error, and checks of arguments.

// "qzctl: " and the text. @return status
int say(Status status, const char *format, ...) QZLIB_PRINTF(2, 3);
// Of a file or device: "qzctl: WHAT: " and errno's text. @return NO
int say_errno(const char *what);
// Wrong usage, found before anything was started or written.
[[noreturn]] void refuse(const char *format, ...) QZLIB_PRINTF(1, 2);
// There is no memory for what was read or is to be written.
[[noreturn]] void out_of_memory();

// These refuse what does not fit; what: "the name", for the sentence.
unsigned check_number(const char *what, const char *text, unsigned min, unsigned max);
const char *check_length(const char *what, const char *text, size_t max);
// A name that becomes part of a path.
const char *check_file_name(const char *what, const char *text, size_t max);
// The index of a word among some.
unsigned check_word(const char *what, const char *text, const char *const *words, size_t size);
template <size_t SIZE>
unsigned check_word(const char *what, const char *text, const char *const (&words)[SIZE])
{
    return check_word(what, text, words, SIZE);
}

// ---- The commands. Each checks its arguments and ends with refuse() before it does anything.

int conf_list(const Arguments &arguments);
int conf_get(const Arguments &arguments);
int conf_set(const Arguments &arguments);
int conf_unset(const Arguments &arguments);

int env_list(const Arguments &arguments);
int env_get(const Arguments &arguments);
int env_set(const Arguments &arguments);
int env_unset(const Arguments &arguments);
int env_clear(const Arguments &arguments);
int env_verify(const Arguments &arguments);
int env_backup(const Arguments &arguments);
int env_restore(const Arguments &arguments);

int log_level(const Arguments &arguments);
int log_send(const Arguments &arguments);
int cli_get(const Arguments &arguments);

int bus_list(const Arguments &arguments);
int bus_top(const Arguments &arguments);
int bus_send(const Arguments &arguments);
int bus_listen(const Arguments &arguments);
int bus_wait(const Arguments &arguments);

int at(const Arguments &arguments);
int modem(const Arguments &arguments);

int msg_send(const Arguments &arguments);
int msg_listen(const Arguments &arguments);

int led(const Arguments &arguments);
int gpio(const Arguments &arguments);
int watchdog_feed(const Arguments &arguments);
int watchdog_stop(const Arguments &arguments);
int sys(const Arguments &arguments);

int route_list(const Arguments &arguments);
int route_via(const Arguments &arguments);
int route_add(const Arguments &arguments);
int route_del(const Arguments &arguments);
int interfaces(const Arguments &arguments);
int probe_tcp(const Arguments &arguments);
int probe_dns(const Arguments &arguments);

int run(const Arguments &arguments);

} // namespace qzctl
