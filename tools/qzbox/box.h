// SPDX-License-Identifier: MIT
// The way into the box: what main hands to the init process, and what the two say to each other.
#pragma once

#include "util.h"

#include <csignal>

namespace qzbox
{

struct BoxOptions {
    const char *tree = nullptr; // --root; null: none
    std::vector<const char *> binds;
    char *const *command = nullptr; // null-terminated
    std::string program;            // path of the command's executable; empty when not found
    std::string working_directory;  // empty when it has been removed
};

// The caller's terminal, as far as the command may own it.
struct Terminal {
    UniqueFd fd;                // the controlling terminal; invalid when there is none
    bool to_foreground = false; // the command's process group becomes the foreground one
};

// What init shares with the outer process, which stays in the host's namespaces.
struct Link {
    // Init writes one byte each time the command has stopped. Its end of file is the end of
    // the outer process.
    UniqueFd socket;
    sigset_t original_mask = {}; // the caller's; restored for the command
};

// Signals that the outer process passes on to the command, through init.
inline constexpr int FORWARDED_SIGNALS[] = {SIGTERM, SIGINT, SIGHUP, SIGQUIT, SIGTSTP};

// SIGCONT from the outer process carries this value when the command is to be in the foreground.
inline constexpr int CONTINUE_IN_FOREGROUND = 1;

// Init, process 1 of the box: build the box, run the command, serve until it ends. Does not
// return; the status is the command's.
[[noreturn]] void run_box(const BoxOptions &options, const Terminal &terminal, const Link &link);

} // namespace qzbox
