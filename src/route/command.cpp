// SPDX-License-Identifier: MIT
#include "route/command.h"

#include <poll.h>
#include <spawn.h>
#include <sys/wait.h>

namespace qz::route
{

namespace
{

constexpr size_t WORDS_MAX = 8;
constexpr int END_WAIT_MS = 5;

// posix_spawn() asks for words that it does not change without saying so in its type.
char *const *spawn_words(const char *const *words)
{
    return const_cast<char *const *>(words);
}

// What only a shell finds, it finds here too: a script without "#!", and the system's own
// directories when the daemon runs without PATH. The words are its parameters, not its text.
int spawn_by_shell(pid_t *pid, const posix_spawn_file_actions_t *actions, const char *const *words)
{
    std::array<const char *, WORDS_MAX + 4> line = {"sh", "-c", "exec \"$0\" \"$@\""};
    for (size_t i = 0; i < WORDS_MAX && words[i] != nullptr; ++i)
        line[i + 3] = words[i];
    return posix_spawnp(pid, "/bin/sh", actions, nullptr, spawn_words(line.data()), environ);
}

// The process id, or -1.
pid_t spawn(const char *const *words, int standard_output)
{
    posix_spawn_file_actions_t actions;
    if (posix_spawn_file_actions_init(&actions) != 0)
        return -1;
    pid_t pid = -1;
    int error = posix_spawn_file_actions_adddup2(&actions, standard_output, STDOUT_FILENO);
    if (error == 0) {
        error = posix_spawnp(&pid, words[0], &actions, nullptr, spawn_words(words), environ);
        if (error != 0)
            error = spawn_by_shell(&pid, &actions, words);
    }
    (void)posix_spawn_file_actions_destroy(&actions);
    return error == 0 ? pid : -1;
}

// Sleeps until the command has ended, without waking at what it writes: a short command whose
// output fits the pipe then costs one wake-up instead of two or three, which a snapshot of a
// hundred tables feels. Larger output or a slow command: read on as usual.
void wait_for_end(int pipe)
{
    pollfd hang_up = {pipe, 0, 0};
    (void)poll(&hang_up, 1, END_WAIT_MS);
}

} // namespace

CommandOutput::CommandOutput(const char *const *words)
{
    std::array<int, 2> ends;
    if (pipe2(ends.data(), O_CLOEXEC) != 0)
        return;
    pipe_.reset(ends[0]);
    base::UniqueFd write_end(ends[1]);
    pid_ = spawn(words, write_end.get());
    write_end.reset();
    if (pid_ < 0)
        pipe_.reset();
    else
        wait_for_end(pipe_.get());
}

CommandOutput::~CommandOutput()
{
    const base::ErrnoKeeper keeper;
    pipe_.reset(); // first: a command that still writes must not keep us waiting
    while (pid_ > 0 && waitpid(pid_, nullptr, 0) < 0 && errno == EINTR) {
    }
}

bool CommandOutput::fill()
{
    if (!pipe_)
        return false;
    ssize_t count = 0;
    do {
        count = read(pipe_.get(), buffer_.data(), buffer_.size());
    } while (count < 0 && errno == EINTR);
    next_ = 0;
    end_ = count > 0 ? static_cast<size_t>(count) : 0;
    return end_ > 0;
}

bool CommandOutput::read_line(std::span<char> line)
{
    size_t length = 0;
    while (length + 1 < line.size() && (next_ < end_ || fill())) {
        line[length++] = buffer_[next_++];
        if (line[length - 1] == '\n')
            break;
    }
    line[length] = '\0';
    return length > 0;
}

} // namespace qz::route
