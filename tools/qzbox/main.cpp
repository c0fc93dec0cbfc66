// SPDX-License-Identifier: MIT
// qzbox: run a command as on a router, in namespaces of its own. This file holds the process
// that stays outside: arguments, signals and the exit status.
#include "../arguments.h"
#include "box.h"
#include "namespaces.h"

#include <fcntl.h>
#include <getopt.h>
#include <poll.h>
#include <sys/signalfd.h>
#include <sys/socket.h>
#include <sys/wait.h>

#include <cerrno>
#include <climits>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <iterator>

namespace qzbox
{

namespace
{

constexpr const char *USAGE =
    "Usage: qzbox [--root TREE] [--bind PATH]... [--] COMMAND [ARG...]\n"
    "Run COMMAND as on a router: own /tmp, /data, /mnt, /run, /dev, /var/log, /proc and /sys,\n"
    "own loopback network, IPC and process numbers. Nothing is left behind.\n"
    "\n"
    "  --root TREE  lay the files of TREE over the box, also over /proc and /sys;\n"
    "               TREE itself is never written to\n"
    "  --bind PATH  keep PATH visible although it lies below a private directory;\n"
    "               this holds anyway for the current directory, the directory of\n"
    "               COMMAND and those in LD_LIBRARY_PATH\n"
    "  -h, --help   print this text\n"
    "  --version    print the version\n"
    "\n"
    "The exit status is COMMAND's, 128+N when signal N killed it, 127 when it is not found,\n"
    "126 when it cannot be executed, and 125 when the box cannot be made.\n";

// ---- Arguments ------------------------------------------------------------------------

BoxOptions parse_arguments(int argc, char **argv)
{
    constexpr option OPTIONS[] = {{"root", required_argument, nullptr, 'r'},
                                  {"bind", required_argument, nullptr, 'b'},
                                  {"help", no_argument, nullptr, 'h'},
                                  {"version", no_argument, nullptr, 'V'},
                                  {nullptr, 0, nullptr, 0}};
    BoxOptions options;
    argv[0] = const_cast<char *>("qzbox"); // for getopt_long's own messages
    int chosen = 0;
    while ((chosen = getopt_long(argc, argv, "+h", OPTIONS, nullptr)) != -1) {
        if (chosen == 'r')
            options.tree = optarg;
        else if (chosen == 'b')
            options.binds.push_back(optarg);
        else if (chosen == 'h')
            arguments::print("qzbox", USAGE, STATUS_NO_BOX);
        else if (chosen == 'V')
            arguments::print("qzbox", "qzbox (qzlib) " QZLIB_VERSION "\n", STATUS_NO_BOX);
        else
            exit(STATUS_NO_BOX); // getopt_long has said why
    }
    if (optind >= argc)
        fail("no command given; see qzbox --help");
    options.command = argv + optind;
    return options;
}

std::string current_directory()
{
    char buffer[PATH_MAX];
    return getcwd(buffer, sizeof(buffer)) != nullptr ? buffer : "";
}

std::string absolute(const std::string &path, const std::string &directory)
{
    return path[0] == '/' ? path : join(directory, path);
}

// Where execvp will find the command: the first executable one in PATH, else the first that exists;
// empty when there is none.
std::string find_program(const std::string &name, const std::string &directory)
{
    if (name.find('/') != std::string::npos)
        return absolute(name, directory);
    const char *path = getenv("PATH");
    std::string rest = path != nullptr ? path : "/bin:/usr/bin";
    std::string found;
    while (!rest.empty() && !name.empty()) {
        const size_t end = rest.find(':');
        std::string file = join(absolute(std::string(rest, 0, end), directory), name);
        if (access(file.c_str(), X_OK) == 0)
            return file;
        if (found.empty() && access(file.c_str(), F_OK) == 0)
            found = file;
        rest.erase(0, end == std::string::npos ? end : end + 1);
    }
    return found;
}

// ---- Outside while the box runs -------------------------------------------------------------

// The command gets the terminal when it is used interactively. In a pipeline the other commands
// need it, and Ctrl-C arrives here and is forwarded.
Terminal open_terminal()
{
    Terminal terminal;
    terminal.fd.reset(open("/dev/tty", O_RDWR | O_CLOEXEC | O_NOCTTY));
    terminal.to_foreground =
        isatty(STDIN_FILENO) != 0 && isatty(STDOUT_FILENO) != 0 && tcgetpgrp(terminal.fd.get()) == getpgrp();
    return terminal;
}

class Supervisor
{
public:
    Supervisor(pid_t init, const Terminal &terminal, const UniqueFd &socket, const UniqueFd &signals)
        : init_(init), terminal_(terminal), socket_(socket), signals_(signals)
    {
    }

    // Until the box has ended; its status.
    int wait()
    {
        int status = 0;
        pollfd events[] = {{signals_.get(), POLLIN, 0}, {socket_.get(), POLLIN, 0}};
        while (waitpid(init_, &status, WNOHANG) != init_) {
            if (poll(events, std::size(events), -1) < 0)
                continue;
            if ((events[1].revents & POLLIN) != 0)
                stop_with_command();
            else if (events[1].revents != 0)
                events[1].fd = -1; // init is on its way out; SIGCHLD follows
            if (events[0].revents != 0)
                pass_signal_on();
        }
        take_terminal_back();
        return WIFSIGNALED(status) ? STATUS_SIGNAL_BASE + WTERMSIG(status) : WEXITSTATUS(status);
    }

private:
    void take_terminal_back() const
    {
        if (terminal_.to_foreground)
            tcsetpgrp(terminal_.fd.get(), getpgrp()); // SIGTTOU is blocked
    }

    // The command has stopped (Ctrl-Z): stop as well, so that the shell takes over.
    void stop_with_command() const
    {
        char byte = 0;
        if (read(socket_.get(), &byte, 1) != 1)
            return;
        take_terminal_back();
        raise(SIGSTOP);
    }

    void pass_signal_on() const
    {
        signalfd_siginfo info = {};
        if (read(signals_.get(), &info, sizeof(info)) != static_cast<ssize_t>(sizeof(info)))
            return;
        const int number = static_cast<int>(info.ssi_signo);
        sigval value = {};
        if (terminal_.to_foreground && tcgetpgrp(terminal_.fd.get()) == getpgrp())
            value.sival_int = CONTINUE_IN_FOREGROUND;
        if (number == SIGCONT)
            sigqueue(init_, SIGCONT, value);
        else if (number != SIGCHLD)
            kill(init_, number);
    }

    const pid_t init_;
    const Terminal &terminal_;
    const UniqueFd &socket_;
    const UniqueFd &signals_;
};

// Block what is taken through the descriptor returned; SIGTTOU too, for tcsetpgrp.
UniqueFd block_signals(sigset_t &original)
{
    sigset_t set;
    sigemptyset(&set);
    for (const int number : FORWARDED_SIGNALS)
        sigaddset(&set, number);
    sigaddset(&set, SIGCONT);
    sigaddset(&set, SIGCHLD);
    const sigset_t taken = set;
    sigaddset(&set, SIGTTOU);
    sigprocmask(SIG_BLOCK, &set, &original);
    signal(SIGCHLD, SIG_DFL); // a caller that ignores it would take the status away
    return UniqueFd(signalfd(-1, &taken, SFD_CLOEXEC | SFD_NONBLOCK));
}

int run(const BoxOptions &options)
{
    Link link;
    UniqueFd signals = block_signals(link.original_mask);
    int sockets[2] = {-1, -1};
    if (!signals.valid() || socketpair(AF_UNIX, SOCK_STREAM | SOCK_CLOEXEC, 0, sockets) != 0)
        fail_errno("cannot prepare the box");
    UniqueFd outer(sockets[0]);
    link.socket.reset(sockets[1]);
    const Terminal terminal = open_terminal();
    const pid_t init = fork_init();
    if (init == 0) {
        outer.reset();
        signals.reset();
        run_box(options, terminal, link);
    }
    link.socket.reset();
    return Supervisor(init, terminal, outer, signals).wait();
}

} // namespace

} // namespace qzbox

int main(int argc, char **argv)
{
    qzbox::BoxOptions options = qzbox::parse_arguments(argc, argv);
    options.working_directory = qzbox::current_directory();
    options.program = qzbox::find_program(options.command[0], options.working_directory);
    return qzbox::run(options);
}
