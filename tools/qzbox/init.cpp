// SPDX-License-Identifier: MIT
// Process 1 of the box: makes the box around itself, starts the command and looks after it.
#include "box.h"

#include "overlay.h"
#include "proc_server.h"
#include "root.h"
#include "system_log.h"

#include <fcntl.h>
#include <net/if.h>
#include <poll.h>
#include <sys/ioctl.h>
#include <sys/mount.h>
#include <sys/prctl.h>
#include <sys/signalfd.h>
#include <sys/socket.h>
#include <sys/stat.h>
#include <sys/wait.h>

#include <cerrno>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <iterator>

namespace qzbox
{

namespace
{

constexpr const char *HOST_NAME = "router";

// ---- Building the box -----------------------------------------------------------------

void bring_loopback_up()
{
    const UniqueFd socket_fd(socket(AF_INET, SOCK_DGRAM | SOCK_CLOEXEC, 0));
    ifreq request = {};
    strcpy(request.ifr_name, "lo");
    request.ifr_flags = IFF_UP | IFF_RUNNING;
    if (ioctl(socket_fd.get(), SIOCSIFFLAGS, &request) != 0)
        fail_errno("cannot bring the loopback interface up");
}

void add_reaches(const BoxOptions &options, Reaches &reaches)
{
    if (!options.working_directory.empty())
        reaches.add_directory(options.working_directory);
    if (!options.program.empty())
        reaches.add_program(options.program);
    for (const char *bind : options.binds)
        reaches.add_bind(bind);
    const char *libraries = getenv("LD_LIBRARY_PATH");
    std::string rest = libraries != nullptr ? libraries : "";
    while (!rest.empty()) {
        const size_t end = rest.find_first_of(":;");
        reaches.add_directory(std::string(rest, 0, end));
        rest.erase(0, end == std::string::npos ? end : end + 1);
    }
}

UniqueFd open_tree_directory(const char *tree)
{
    UniqueFd directory;
    if (tree == nullptr)
        return directory;
    directory.reset(open(tree, O_RDONLY | O_DIRECTORY | O_CLOEXEC));
    if (!directory.valid())
        fail_errno("--root %s", tree);
    return directory;
}

ProcServer build_box(const BoxOptions &options)
{
    make_mounts_private();
    Reaches reaches;
    add_reaches(options, reaches);
    const UniqueFd tree = open_tree_directory(options.tree);
    enter_private_root(reaches, tree.valid());
    if (sethostname(HOST_NAME, strlen(HOST_NAME)) != 0)
        fail_errno("cannot set the host name");
    bring_loopback_up();
    const bool serve_proc = tree.valid() && lay_tree(tree);
    if (options.working_directory.empty() || chdir(options.working_directory.c_str()) != 0)
        (void)!chdir("/"); // always there
    return serve_proc ? ProcServer::start() : ProcServer();
}

// ---- The command ------------------------------------------------------------------------

// A directory of PATH that may not be searched makes execvp say EACCES for names that are nowhere.
[[noreturn]] void execute(char *const *command, bool exists)
{
    execvp(command[0], command);
    const int error = errno == EACCES && !exists ? ENOENT : errno;
    fprintf(stderr, "qzbox: %s: %s\n", command[0], strerror(error));
    _exit(error == ENOENT ? STATUS_NOT_FOUND : STATUS_NOT_EXECUTABLE);
}

// The command leads a process group of its own, so that what it sends to its group cannot reach
// the processes outside.
pid_t start_command(const BoxOptions &options, const Terminal &terminal, const sigset_t &mask)
{
    const pid_t pid = fork();
    if (pid < 0)
        fail_errno("cannot start the command");
    if (pid > 0)
        return pid;
    setpgid(0, 0);
    if (terminal.to_foreground)
        tcsetpgrp(terminal.fd.get(), getpid());
    sigprocmask(SIG_SETMASK, &mask, nullptr);
    execute(options.command, !options.program.empty());
}

int to_exit_status(int status)
{
    return WIFSIGNALED(status) ? STATUS_SIGNAL_BASE + WTERMSIG(status) : WEXITSTATUS(status);
}

// ---- Serving -------------------------------------------------------------------------------

class Init
{
public:
    Init(pid_t command, const Terminal &terminal, const Link &link, ProcServer &proc, SystemLog &log,
         const UniqueFd &signals)
        : command_(command), terminal_(terminal), link_(link), proc_(proc), log_(log), signals_(signals)
    {
    }

    // Until the command ends or the outer process is gone; the box's exit status.
    int serve()
    {
        while (status_ < 0) {
            pollfd events[] = {{signals_.get(), POLLIN, 0},
                               {link_.socket.get(), POLLIN, 0},
                               {log_.fd(), POLLIN, 0},
                               {proc_.fd(), POLLIN, 0}};
            if (poll(events, std::size(events), -1) < 0)
                continue;
            if (events[3].revents != 0)
                proc_.serve();
            if (events[2].revents != 0)
                log_.receive();
            if (events[0].revents != 0)
                take_signal();
            if (events[1].revents != 0)
                return STATUS_NO_BOX; // nobody is left to see it
        }
        return status_;
    }

private:
    void take_signal()
    {
        signalfd_siginfo info = {};
        if (read(signals_.get(), &info, sizeof(info)) != static_cast<ssize_t>(sizeof(info)))
            return;
        const int number = static_cast<int>(info.ssi_signo);
        if (number == SIGCHLD)
            return reap();
        if (info.ssi_pid != 0) // sent inside the box; init is deaf to its own processes
            return;
        if (number == SIGCONT && info.ssi_int == CONTINUE_IN_FOREGROUND)
            tcsetpgrp(terminal_.fd.get(), command_);
        kill(number == SIGCONT ? -command_ : command_, number);
    }

    void reap()
    {
        int status = 0;
        pid_t pid = 0;
        while ((pid = waitpid(-1, &status, WNOHANG | WUNTRACED)) > 0) {
            if (pid != command_)
                continue;
            if (WIFSTOPPED(status))
                (void)!write(link_.socket.get(), "", 1); // its end is noticed by poll
            else
                status_ = to_exit_status(status);
        }
    }

    const pid_t command_;
    const Terminal &terminal_;
    const Link &link_;
    ProcServer &proc_;
    SystemLog &log_;
    const UniqueFd &signals_;
    int status_ = -1;
};

UniqueFd open_signals()
{
    sigset_t set;
    sigemptyset(&set);
    for (const int number : FORWARDED_SIGNALS)
        sigaddset(&set, number);
    sigaddset(&set, SIGCONT);
    sigaddset(&set, SIGCHLD);
    return UniqueFd(signalfd(-1, &set, SFD_CLOEXEC | SFD_NONBLOCK));
}

} // namespace

void run_box(const BoxOptions &options, const Terminal &terminal, const Link &link)
{
    prctl(PR_SET_PDEATHSIG, SIGKILL);
    prctl(PR_SET_NAME, "init");
    setpgid(0, 0); // what is sent to the outer process's group arrives once, forwarded
    const mode_t callers_umask = umask(022); // the box's directories are for all its users
    const UniqueFd signals = open_signals();
    SystemLog log;
    ProcServer proc = build_box(options);
    log.open();
    umask(callers_umask);
    const pid_t command = start_command(options, terminal, link.original_mask);
    _exit(Init(command, terminal, link, proc, log, signals).serve());
}

} // namespace qzbox
