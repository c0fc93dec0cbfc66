// modemsim: a modem on a pseudo terminal that behaves as badly as real ones do. This file holds
// the arguments, the control pipe and the loop.
#include "modem.h"
#include "text.h"

#include <algorithm>
#include <cerrno>
#include <csignal>
#include <cstdlib>
#include <cstring>
#include <fcntl.h>
#include <getopt.h>
#include <poll.h>
#include <sys/signalfd.h>
#include <sys/stat.h>
#include <unistd.h>

namespace
{

using modemsim::Clock;
using modemsim::Modem;
using modemsim::Table;

constexpr const char *USAGE =
    "Usage: modemsim [OPTION]... TABLE\n"
    "Answer AT commands on a pseudo terminal as TABLE says; the path of the terminal is\n"
    "printed on standard output.\n"
    "\n"
    "  --link PATH        symbolic link to keep on the terminal\n"
    "  --echo on|off      echo commands until ATE0 or ATE1 says otherwise; default on\n"
    "  --fault FAULT      misbehave; may be repeated\n"
    "  --control FIFO     take instructions from this named pipe, made when missing:\n"
    "                     fault FAULT, clear, value NAME = STEPS, say LINE\n"
    "  --transcript FILE  write down what goes over the line\n"
    "  --seed NUMBER      for the garbage; default 1\n"
    "  --help             print this text\n"
    "  --version          print the version\n"
    "\n"
    "FAULT is NAME[=ARGUMENT][@COMMAND], one of late=MS, pieces=BYTES,MS, bytes=MS,\n"
    "before=LINE, inside=LINE, after=LINE, silence, garbage=BYTES, length=BYTES, stall,\n"
    "hangup, vanish=MS, usim. See modemsim(1).\n"
    "\n"
    "Try it, with a carriage return behind each command:\n"
    "  modemsim --link /tmp/modem examples/modem.at &\n"
    "  cat /tmp/modem & printf 'ATI\\r' >/tmp/modem\n";

struct Options {
    const char *table = nullptr;
    const char *control = nullptr;
    const char *transcript = nullptr;
    std::string link;
    bool echo = true;
    unsigned seed = 1;
    std::vector<modemsim::Fault> faults;
};

[[noreturn]] void fail(const std::string &text)
{
    fprintf(stderr, "modemsim: %s\n", text.c_str());
    exit(EXIT_FAILURE);
}

void take_fault(Options &options, const char *text)
{
    auto fault = modemsim::parse_fault(text);
    if (!fault)
        fail(std::string("no such fault: ") + text);
    options.faults.push_back(std::move(*fault));
}

void take_option(Options &options, int chosen)
{
    if (chosen == 'l')
        options.link = optarg;
    else if (chosen == 'e' && (strcmp(optarg, "on") == 0 || strcmp(optarg, "off") == 0))
        options.echo = strcmp(optarg, "on") == 0;
    else if (chosen == 'f')
        take_fault(options, optarg);
    else if (chosen == 'c')
        options.control = optarg;
    else if (chosen == 't')
        options.transcript = optarg;
    else if (chosen == 's' && modemsim::parse_number(optarg))
        options.seed = *modemsim::parse_number(optarg);
    else if (chosen == 'h')
        exit(fputs(USAGE, stdout) < 0);
    else if (chosen == 'V')
        exit(puts("modemsim 3.2.0") < 0);
    else
        fail("wrong arguments; see modemsim --help");
}

Options parse_arguments(int argc, char **argv)
{
    constexpr option OPTIONS[] = {{"link", required_argument, nullptr, 'l'},
                                  {"echo", required_argument, nullptr, 'e'},
                                  {"fault", required_argument, nullptr, 'f'},
                                  {"control", required_argument, nullptr, 'c'},
                                  {"transcript", required_argument, nullptr, 't'},
                                  {"seed", required_argument, nullptr, 's'},
                                  {"help", no_argument, nullptr, 'h'},
                                  {"version", no_argument, nullptr, 'V'},
                                  {nullptr, 0, nullptr, 0}};
    Options options;
    int chosen = 0;
    while ((chosen = getopt_long(argc, argv, "", OPTIONS, nullptr)) != -1)
        take_option(options, chosen);
    if (optind + 1 != argc)
        fail("exactly one table is needed; see modemsim --help");
    options.table = argv[optind];
    return options;
}

// ---- Control --------------------------------------------------------------------------

// Opened for writing too, so that it has no end between two writers.
int open_control(const char *path)
{
    if (mkfifo(path, 0600) != 0 && errno != EEXIST)
        fail(std::string(path) + ": " + strerror(errno));
    const int fd = open(path, O_RDWR | O_NONBLOCK | O_CLOEXEC);
    if (fd < 0)
        fail(std::string(path) + ": " + strerror(errno));
    struct stat found {
    };
    if (fstat(fd, &found) != 0 || !S_ISFIFO(found.st_mode))
        fail(std::string(path) + ": not a named pipe");
    return fd;
}

bool obey(Modem &modem, Table &table, std::string_view line)
{
    const std::string_view word = line.substr(0, line.find(' '));
    const std::string_view rest = modemsim::trim(line.substr(word.size()));
    if (word == "clear" && rest.empty()) {
        modem.clear_faults();
        return true;
    }
    if (word == "value")
        return table.set_value(rest);
    if (word == "say") {
        modem.say(rest);
        return true;
    }
    auto fault = word == "fault" ? modemsim::parse_fault(rest) : std::nullopt;
    if (fault)
        modem.add_fault(std::move(*fault));
    return fault.has_value();
}

// Obeys the full lines received so far.
void read_control(int fd, std::string &pending, Modem &modem, Table &table,
                  const modemsim::Transcript &transcript)
{
    char bytes[512];
    const ssize_t got = read(fd, bytes, sizeof bytes);
    if (got > 0)
        pending.append(bytes, static_cast<size_t>(got));
    for (size_t end = pending.find('\n'); end != std::string::npos; end = pending.find('\n')) {
        const std::string line(modemsim::trim(pending.substr(0, end)));
        pending.erase(0, end + 1);
        transcript.note("--", line);
        if (!line.empty() && !obey(modem, table, line))
            fprintf(stderr, "modemsim: not understood: %s\n", line.c_str());
    }
}

// ---- The loop -------------------------------------------------------------------------

int stop_signals()
{
    sigset_t signals;
    sigemptyset(&signals);
    sigaddset(&signals, SIGTERM);
    sigaddset(&signals, SIGINT);
    sigprocmask(SIG_BLOCK, &signals, nullptr);
    return signalfd(-1, &signals, SFD_CLOEXEC);
}

// Milliseconds until something is due, rounded up; -1: nothing is.
int time_to_wait(const Modem &modem)
{
    if (modem.next_due() == nullptr || modem.blocked())
        return -1;
    const auto left = std::chrono::ceil<std::chrono::milliseconds>(*modem.next_due() - Clock::now());
    return static_cast<int>(std::clamp<long long>(left.count(), 0, 60'000));
}

void serve(Modem &modem, Table &table, const modemsim::Transcript &transcript, int control, int signals)
{
    std::string pending;
    while (!modem.gone()) {
        const auto line_events = static_cast<short>(modem.blocked() ? POLLIN | POLLOUT : POLLIN);
        pollfd set[] = {{modem.descriptor(), line_events, 0}, {control, POLLIN, 0}, {signals, POLLIN, 0}};
        if (poll(set, std::size(set), time_to_wait(modem)) < 0 && errno != EINTR)
            fail(std::string("poll: ") + strerror(errno));
        if (set[2].revents != 0)
            return;
        if (set[1].revents != 0)
            read_control(control, pending, modem, table, transcript);
        if ((set[0].revents & POLLIN) != 0)
            modem.receive();
        modem.run_due();
    }
}

} // namespace

int main(int argc, char **argv)
{
    const Options options = parse_arguments(argc, argv);
    Table table;
    if (const std::string error = table.load(options.table); !error.empty())
        fail(error);
    modemsim::Transcript transcript;
    if (options.transcript != nullptr && !transcript.open(options.transcript))
        fail(std::string(options.transcript) + ": " + strerror(errno));
    const int control = options.control != nullptr ? open_control(options.control) : -1;
    const int signals = stop_signals();

    Modem modem(table, transcript, options.link, options.echo, options.seed);
    if (!modem.bring_up())
        fail((options.link.empty() ? "no pseudo terminal: " : "no pseudo terminal, or no link to it: ") +
             std::string(strerror(errno)));
    for (const modemsim::Fault &fault : options.faults)
        modem.add_fault(fault);
    serve(modem, table, transcript, control, signals);
    return EXIT_SUCCESS;
}
