// SPDX-License-Identifier: MIT
#include "base/export.h"

#include <array>
#include <cerrno>
#include <csignal>
#include <cstdarg>
#include <cstdio>
#include <cstdlib>
#include <ctime>
#include <qzlib.h>
#include <sys/syscall.h>
#include <sys/wait.h>
#include <unistd.h>

#ifndef sigev_notify_thread_id // glibc has the field without the name
#define sigev_notify_thread_id _sigev_un._tid
#endif

namespace
{

constexpr const char *LOG_MODULE = "system_api";
constexpr size_t LIMITED_COMMAND_SIZE = 256;
constexpr size_t COMMAND_SIZE = 1024;
constexpr int SHELL_NOT_STARTED = 127;
constexpr time_t REPEAT_S = 1;

// Set by the alarm handler of the one system_dumb() that may run in a process.
volatile sig_atomic_t time_limit_reached = 0;

void on_time_limit(int /*sig*/)
{
    time_limit_reached = 1;
}

// Another handler for a signal, as long as this lives. The whole action is put back: a daemon's
// mask and flags are not lost.
class ReplacedAction
{
public:
    ReplacedAction(int sig, void (*handler)(int)) : sig_(sig)
    {
        sigaction(sig, nullptr, &previous_);
        (void)qzlib_sys_signal(sig, handler);
    }
    ~ReplacedAction() { restore(); }
    ReplacedAction(const ReplacedAction &) = delete;
    ReplacedAction &operator=(const ReplacedAction &) = delete;

    void restore() const { sigaction(sig_, &previous_, nullptr); }

private:
    int sig_;
    struct sigaction previous_;
};

// As the standard system(): the keyboard's signals are the command's, and the child can be
// waited for even where the daemon ignores SIGCHLD.
struct CommandSignals {
    ReplacedAction quit{SIGQUIT, SIG_IGN};
    ReplacedAction interrupt{SIGINT, SIG_IGN};
    ReplacedAction child{SIGCHLD, SIG_DFL};

    void restore() const
    {
        quit.restore();
        interrupt.restore();
        child.restore();
    }
};

// The child's side of vfork(). It runs in the parent's memory until the shell replaces it, so it
// only makes system calls and never returns.
[[noreturn]] void become_shell(const CommandSignals &signals, char *const *arguments)
{
    signals.restore();
    execv(arguments[0], arguments);
    _exit(SHELL_NOT_STARTED);
}

pid_t start_shell(const char *command, const CommandSignals &signals)
{
    std::array<char, LIMITED_COMMAND_SIZE> text;
    (void)snprintf(text.data(), text.size(), "%s", command); // longer commands are cut, deliberately
    std::array<char, 8> shell{"/bin/sh"};
    std::array<char, 3> option{"-c"};
    const std::array<char *, 4> arguments{shell.data(), option.data(), text.data(), nullptr};
    const pid_t pid = vfork();
    if (pid == 0)
        become_shell(signals, arguments.data()); // NOLINT(clang-analyzer-unix.Vfork): never returns
    return pid;
}

// SIGALRM after a time, for as long as this lives. The signal goes to this thread, which must be
// the one to leave waitpid(), and it comes again and again: one that arrives just before
// waitpid() would otherwise be lost and the limit with it.
class TimeLimit
{
public:
    explicit TimeLimit(int limit_s)
    {
        sigset_t alarm_only;
        sigemptyset(&alarm_only);
        sigaddset(&alarm_only, SIGALRM);
        pthread_sigmask(SIG_UNBLOCK, &alarm_only, &previous_mask_);
        time_limit_reached = 0; // an old alarm may have been waiting behind the mask
        start(limit_s);
    }
    ~TimeLimit()
    {
        if (has_timer_)
            timer_delete(timer_);
        alarm(0);
        pthread_sigmask(SIG_SETMASK, &previous_mask_, nullptr);
    }
    TimeLimit(const TimeLimit &) = delete;
    TimeLimit &operator=(const TimeLimit &) = delete;

private:
    void start(int limit_s)
    {
        sigevent event{};
        event.sigev_notify = SIGEV_THREAD_ID;
        event.sigev_signo = SIGALRM;
        event.sigev_notify_thread_id = static_cast<pid_t>(syscall(SYS_gettid));
        itimerspec times{};
        times.it_value.tv_sec = limit_s;
        times.it_interval.tv_sec = REPEAT_S;
        has_timer_ = timer_create(CLOCK_MONOTONIC, &event, &timer_) == 0;
        if (has_timer_)
            timer_settime(timer_, 0, &times, nullptr);
        else
            alarm(static_cast<unsigned>(limit_s)); // better than no limit
    }

    ReplacedAction action_{SIGALRM, on_time_limit};
    sigset_t previous_mask_;
    timer_t timer_;
    bool has_timer_;
};

int command_result(int status)
{
    return WIFEXITED(status) ? WEXITSTATUS(status) : status;
}

int wait_for_command(pid_t pid)
{
    bool killed = false;
    int status = 0;
    while (waitpid(pid, &status, 0) < 0) {
        if (errno != EINTR) {
            debug_msg(QZLIB_LOG_WARNING, LOG_MODULE, __LINE__, "cannot wait the child process(%d) die", pid);
            return QZLIB_ERR_FAILED;
        }
        if (time_limit_reached == 1 && !killed) {
            debug_msg(QZLIB_LOG_WARNING, LOG_MODULE, __LINE__,
                      "cannot wait the child process(%d) die, force kill it", pid);
            kill(pid, SIGKILL);
            killed = true;
        }
    }
    return killed ? QZLIB_ERR_TIME_LIMIT : command_result(status);
}

} // namespace

QZ_EXPORT int system_dumb(const char *cmd, int timeout_s)
{
    if (cmd == nullptr)
        return QZLIB_ERR_ARGUMENT;
    const CommandSignals signals;
    const pid_t pid = start_shell(cmd, signals);
    if (pid < 0)
        return QZLIB_ERR_FAILED;
    // Again: where vfork() shares the actions, the child has just put the old ones back.
    (void)qzlib_sys_signal(SIGQUIT, SIG_IGN);
    (void)qzlib_sys_signal(SIGINT, SIG_IGN);
    time_limit_reached = 0;
    if (timeout_s <= 0)
        return wait_for_command(pid);
    (void)alarm(0); // an alarm of the caller's is replaced, not put back
    const TimeLimit limit(timeout_s);
    return wait_for_command(pid);
}

QZ_EXPORT int qzlib_exe_cmd(const char *format, ...)
{
    if (format == nullptr)
        return -1;
    std::array<char, COMMAND_SIZE> command{};
    va_list arguments;
    va_start(arguments, format);
    (void)vsnprintf(command.data(), command.size(), format, arguments); // longer commands are cut
    va_end(arguments);
    return system(command.data()); // NOLINT: running the caller's shell command is the purpose
}
