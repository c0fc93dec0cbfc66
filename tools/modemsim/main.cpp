// SPDX-License-Identifier: MIT
// modemsim: a modem on a pseudo terminal that behaves as badly as real ones do. This file holds
// the arguments, the control pipe and the loop.
#include "../arguments.h"
#include "modem.h"
#include "text.h"

#include <algorithm>
#include <csignal>
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

constexpr const char *TOOL = "modemsim";
constexpr size_t CONTROL_LINE_MAX = 4096;

constexpr const char *USAGE =
    "Usage: modemsim [OPTION]... TABLE\n"
    "Answer AT commands on a pseudo terminal as TABLE says; the path of the terminal is\n"
    "printed on standard output.\n"
    "\n"
    "  --link PATH        symbolic link to keep on the terminal\n"
    "  --echo on|off      echo commands until ATE0 or ATE1 says otherwise; default on\n"
    "  --fault FAULT      misbehave; may be repeated\n"
    "  --control FIFO     take instructions from this named pipe, made when missing:\n"
    "                     fault FAULT, nofault NAME[@COMMAND], clear, say LINE,\n"
    "                     answer COMMAND => LINE | LINE, value NAME = STEP | STEP\n"
    "  --transcript FILE  write down what goes over the line\n"
    "  --seed NUMBER      for what is random; default 1\n"
    "  -h, --help         print this text\n"
    "  --version          print the version\n"
    "\n"
    "FAULT is [N:]NAME[=ARGUMENT][@COMMAND], N for the next N commands only. NAME is one of\n"
    "late=MS, pieces=BYTES,MS, bytes=MS, before=LINE, inside=LINE, after=LINE, silence,\n"
    "garbage=BYTES, length=BYTES, change=BYTES, drop=BYTES, half=BYTES, stall=BYTES, hangup,\n"
    "vanish=MS, usim. See modemsim(1).\n"
    "\n"
    "Try it, with a carriage return after each command:\n"
    "  modemsim --link /tmp/modem examples/modem.at &\n"
    "  cat /tmp/modem & printf 'ATI\\r' >/tmp/modem\n";

struct Options {
    const char *table = nullptr;
    const char *control = nullptr;
    const char *transcript = nullptr;
    const char *link = nullptr;
    bool echo = true;
    unsigned seed = 1;
    std::vector<modemsim::Fault> faults;
};

[[noreturn]] void fail(const std::string &text)
{
    arguments::fail(TOOL, text, EXIT_FAILURE);
}

modemsim::Fault fault_argument()
{
    modemsim::Fault fault;
    if (const std::string error = modemsim::parse_fault(optarg, fault); !error.empty())
        arguments::fail(TOOL, std::string("--fault ") + optarg + ": " + error);
    return fault;
}

bool echo_argument()
{
    if (strcmp(optarg, "on") != 0 && strcmp(optarg, "off") != 0)
        arguments::fail(TOOL, std::string("--echo ") + optarg + ": neither on nor off");
    return strcmp(optarg, "on") == 0;
}

void take_option(Options &options, int chosen)
{
    switch (chosen) {
    case 'l':
        options.link = optarg;
        break;
    case 'e':
        options.echo = echo_argument();
        break;
    case 'f':
        options.faults.push_back(fault_argument());
        break;
    case 'c':
        options.control = optarg;
        break;
    case 't':
        options.transcript = optarg;
        break;
    case 's':
        options.seed = static_cast<unsigned>(arguments::number(TOOL, "--seed", optarg, 0, UINT32_MAX));
        break;
    case 'h':
        arguments::print(TOOL, USAGE);
    case 'V':
        arguments::print(TOOL, "modemsim (qzlib) " QZLIB_VERSION "\n");
    default:
        exit(arguments::WRONG_USAGE); // getopt_long has said why
    }
}

// A transcript must not be written over the table, nor into the pipe that is then read.
void check_distinct(const char *one, const char *other)
{
    struct stat first {
    };
    struct stat second {
    };
    if (one == nullptr || other == nullptr)
        return;
    const bool same = stat(one, &first) == 0 && stat(other, &second) == 0 && !S_ISCHR(first.st_mode) &&
                      first.st_dev == second.st_dev && first.st_ino == second.st_ino;
    if (same || strcmp(one, other) == 0)
        arguments::fail(TOOL, std::string(one) + ": one file cannot be both");
}

// Each file must be of the kind that its option is for.
void check_paths(const Options &options)
{
    struct stat found {
    };
    if (options.link != nullptr && !modemsim::Pty::may_link(options.link))
        arguments::fail(TOOL, std::string("--link ") + options.link + ": " + strerror(errno));
    for (const char *path : {options.table, options.link, options.control})
        check_distinct(path, options.transcript);
    check_distinct(options.link, options.control);
    if (options.control == nullptr)
        return;
    const bool there = stat(options.control, &found) == 0;
    if (there && !S_ISFIFO(found.st_mode))
        arguments::fail(TOOL, std::string("--control ") + options.control + ": not a named pipe");
    if (!there && !modemsim::Pty::may_link(options.control)) // nor anything else
        arguments::fail(TOOL, std::string("--control ") + options.control + ": " + strerror(errno));
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
    argv[0] = const_cast<char *>(TOOL); // for getopt_long's own messages
    int chosen = 0;
    while ((chosen = getopt_long(argc, argv, "h", OPTIONS, nullptr)) != -1)
        take_option(options, chosen);
    if (optind == argc)
        arguments::fail(TOOL, "no table is given; see modemsim --help");
    if (optind + 1 < argc)
        arguments::fail(TOOL, std::string(argv[optind + 1]) + ": one table is enough");
    options.table = argv[optind];
    check_paths(options);
    return options;
}

// ---- Control --------------------------------------------------------------------------

// The named pipe; removed at the end when it was made here.
class Control
{
public:
    explicit Control(const char *path) : path_(path)
    {
        if (path == nullptr)
            return;
        made_ = mkfifo(path, 0600) == 0;
        if (!made_ && errno != EEXIST)
            fail(std::string(path) + ": " + strerror(errno));
        fd_ = open(path, O_RDWR | O_NONBLOCK | O_CLOEXEC); // for writing, too: no end between two writers
        if (fd_ < 0)
            fail(std::string(path) + ": " + strerror(errno));
    }
    ~Control()
    {
        if (made_)
            unlink(path_);
    }
    Control(const Control &) = delete;
    Control &operator=(const Control &) = delete;

    [[nodiscard]] int descriptor() const { return fd_; }

private:
    const char *path_;
    bool made_ = false;
    int fd_ = -1;
};

std::string take_fault_back(Modem &modem, std::string_view text)
{
    modemsim::Fault like;
    std::string error = modemsim::parse_fault_name(text, like);
    if (error.empty() && !modem.remove_fault(like))
        error = "it is not set";
    return error;
}

// Empty on success, else what is wrong.
std::string obey(Modem &modem, Table &table, std::string_view line)
{
    const std::string_view word = line.substr(0, line.find(' '));
    const std::string_view rest = modemsim::trim(line.substr(word.size()));
    if (word == "clear" && rest.empty()) {
        modem.clear_faults();
        return {};
    }
    if (word == "value")
        return table.add_line(line);
    if (word == "answer" && !rest.empty() && !rest.starts_with('#'))
        return table.add_line(rest);
    if (word == "nofault")
        return take_fault_back(modem, rest);
    if (word == "say" && !rest.empty()) {
        modem.say(rest);
        return {};
    }
    if (word != "fault")
        return "no such instruction";
    modemsim::Fault fault;
    std::string error = modemsim::parse_fault(rest, fault);
    if (error.empty())
        modem.add_fault(std::move(fault));
    return error;
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
        if (line.empty())
            continue;
        const std::string error =
            line.size() < CONTROL_LINE_MAX ? obey(modem, table, line) : std::string("it is too long");
        if (!error.empty())
            fprintf(stderr, "%s: %.80s: %s\n", TOOL, line.c_str(), error.c_str());
    }
    pending.resize(std::min(pending.size(), CONTROL_LINE_MAX));
}

// ---- The loop -------------------------------------------------------------------------

int stop_signals()
{
    sigset_t signals;
    sigemptyset(&signals);
    sigaddset(&signals, SIGTERM);
    sigaddset(&signals, SIGINT);
    sigaddset(&signals, SIGHUP);
    signal(SIGPIPE, SIG_IGN); // whoever reads the output may go
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
    arguments::hold_standard_streams();
    const Options options = parse_arguments(argc, argv);
    Table table;
    if (const std::string error = table.load(options.table); !error.empty())
        arguments::fail(TOOL, error);
    modemsim::Transcript transcript;
    if (options.transcript != nullptr && !transcript.open(options.transcript))
        arguments::fail(TOOL, std::string("--transcript ") + options.transcript + ": " + strerror(errno));
    const int signals = stop_signals();
    const Control control(options.control);

    const std::string link = options.link != nullptr ? options.link : "";
    Modem modem(table, transcript, link, options.echo, options.seed);
    if (!modem.bring_up()) {
        fprintf(stderr, "%s: no pseudo terminal%s: %s\n", TOOL, link.empty() ? "" : ", or no link to it",
                strerror(errno));
        return EXIT_FAILURE;
    }
    for (const modemsim::Fault &fault : options.faults)
        modem.add_fault(fault);
    serve(modem, table, transcript, control.descriptor(), signals);
    return EXIT_SUCCESS;
}
