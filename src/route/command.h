// SPDX-License-Identifier: MIT
// The output of a command, line by line.
#pragma once

#include "base/owners.h"

#include <array>
#include <span>
#include <sys/types.h>

#pragma GCC visibility push(hidden)

namespace qz::route
{

// Starts a command with its standard output in a pipe. The destructor closes the pipe and waits for
// the command, so that no descriptor and no child is left on any path. A command that cannot
// be started gives no lines.
class CommandOutput
{
public:
    // The words of the command line, the last one followed by null. No shell looks at them: a
    // word that came out of another command's output stays one word whatever is in it.
    explicit CommandOutput(const char *const *words);
    ~CommandOutput();
    CommandOutput(const CommandOutput &) = delete;
    CommandOutput &operator=(const CommandOutput &) = delete;

    [[nodiscard]] bool started() const { return pid_ > 0; }

    // Reads as fgets() does: up to and with the line feed, a longer line in pieces, always
    // terminated. False at the end. A signal does not end the reading.
    bool read_line(std::span<char> line);

private:
    bool fill();

    qz::base::UniqueFd pipe_;
    pid_t pid_ = -1;
    std::array<char, 1024> buffer_;
    size_t next_ = 0;
    size_t end_ = 0;
};

} // namespace qz::route

#pragma GCC visibility pop
