// SPDX-License-Identifier: MIT
// mbusd: the reference server of the message bus. This file holds the arguments, the signals
// and the loop between work and sleep.
#include "../arguments.h"
#include "control.h"
#include "log.h"
#include "mbus/format.h"
#include "mbus/patience.h"
#include "server.h"

#include <algorithm>
#include <cerrno>
#include <csignal>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <fcntl.h>
#include <getopt.h>
#include <optional>
#include <sched.h>
#include <sys/prctl.h>
#include <sys/resource.h>
#include <sys/shm.h>
#include <unistd.h>

namespace mbusd
{
namespace
{

constexpr const char *USAGE =
    "Usage: mbusd [OPTION]...\n"
    "Serve the message bus on " QZLIB_MBUS_SOCKET " until SIGTERM or SIGINT.\n"
    "\n"
    "  --stats SECONDS  print a table of the clients on standard output every SECONDS\n"
    "  --trace[=NAME]   print a line for each packet on standard output; with NAME only for\n"
    "                   those from it, to it, or of that name\n"
    "  --log FILE       log to FILE instead of syslog\n"
    "  --quiet          nothing but errors on standard error\n"
    "  -h, --help       print this text\n"
    "  --version        print the version\n"
    "\n"
    "For example, who says what to the modem daemon:  mbusd --trace=modemd\n"
    "\n"
    "The exit status is 0 after a signal, 1 when the bus cannot be served (another server\n"
    "runs, no shared memory, no socket) or nobody reads what is printed any longer, and 2 for\n"
    "bad arguments.\n";

constexpr const char *TOOL = "mbusd";
constexpr int NICENESS = -4;

struct Options {
    unsigned stats_s = 0;
    bool trace = false;
    const char *traced = nullptr; // a name; null: everything
    const char *log_file = nullptr;
    bool quiet = false;
};

Options parse_arguments(int argc, char **argv)
{
    constexpr option OPTIONS[] = {{"stats", required_argument, nullptr, 's'},
                                  {"trace", optional_argument, nullptr, 't'},
                                  {"log", required_argument, nullptr, 'l'},
                                  {"quiet", no_argument, nullptr, 'q'},
                                  {"help", no_argument, nullptr, 'h'},
                                  {"version", no_argument, nullptr, 'V'},
                                  {nullptr, 0, nullptr, 0}};
    Options options;
    argv[0] = const_cast<char *>(TOOL); // for getopt_long's own messages
    int chosen = 0;
    while ((chosen = getopt_long(argc, argv, "h", OPTIONS, nullptr)) != -1) {
        switch (chosen) {
        case 's':
            options.stats_s = static_cast<unsigned>(arguments::number(TOOL, "--stats", optarg, 1, 86400));
            break;
        case 't':
            options.trace = true;
            options.traced = optarg;
            break;
        case 'l':
            options.log_file = optarg;
            break;
        case 'q':
            options.quiet = true;
            break;
        case 'h':
            arguments::print(TOOL, USAGE);
        case 'V':
            arguments::print(TOOL, "mbusd (qzlib) " QZLIB_VERSION "\n");
        default:
            exit(arguments::WRONG_USAGE); // getopt_long has said why
        }
    }
    if (optind < argc)
        arguments::fail(TOOL, std::string(argv[optind]) + ": there are options only");
    return options;
}

// What the signal handlers tell the loop. They end its sleep as well.
volatile sig_atomic_t stop_requested = 0;
volatile sig_atomic_t control_ready = 1;
mbus_share_segment *served = nullptr;

void request_stop(int /*signal*/)
{
    const int saved = errno;
    stop_requested = 1;
    qz::mbus::ring_anyway(qz::mbus::up_doorbell(*served));
    errno = saved;
}

void note_control(int /*signal*/)
{
    const int saved = errno;
    control_ready = 1;
    qz::mbus::ring_anyway(qz::mbus::up_doorbell(*served));
    errno = saved;
}

void handle_signal(int signal, void (*handler)(int))
{
    struct sigaction action {
    };
    action.sa_handler = handler;
    sigemptyset(&action.sa_mask);
    (void)sigaction(signal, &action, nullptr);
}

void change_signal_mask(int how)
{
    sigset_t signals;
    sigemptyset(&signals);
    for (const int signal : {SIGTERM, SIGINT, SIGIO})
        sigaddset(&signals, signal);
    (void)sigprocmask(how, &signals, nullptr);
}

// The share segment; also over one of another size that nobody uses.
mbus_share_segment *attach_share()
{
    if (qzlib_mbus_share_init() != 0) {
        shmid_ds status;
        const int stale = shmget(QZLIB_MBUS_SHARE_KEY, 0, 0);
        if (stale < 0 || shmctl(stale, IPC_STAT, &status) != 0 || status.shm_nattch != 0)
            return nullptr;
        (void)shmctl(stale, IPC_RMID, nullptr);
        if (qzlib_mbus_share_init() != 0)
            return nullptr;
    }
    return mbus_share == reinterpret_cast<void *>(-1) ? nullptr
                                                      : static_cast<mbus_share_segment *>(mbus_share);
}

// How the loop passes the time without work.
class Idle
{
public:
    Idle(qz::mbus::Doorbell bell, Server &server) : bell_(bell), server_(server) {}

    void worked() { bound_ms_ = 1; }

    // Until a client signals, a signal arrives or the time is up.
    void sleep(unsigned limit_ms)
    {
        const auto is_needed = [this] {
            return server_.has_work() || stop_requested != 0 || control_ready != 0;
        };
        qz::mbus::let_writers_run(patience_, is_needed);
        const bool plain = server_.has_plain_clients();
        qz::mbus::Wait wait(bell_, plain);
        if (!is_needed() &&
            !wait.sleep(std::min(plain ? bound_ms_ : bound_ms_ * qz::mbus::RUNG_WAIT_FACTOR, limit_ms)))
            bound_ms_ = std::min(bound_ms_ * 2, WAIT_MAX_MS);
    }

    // A ring is full: its reader gets the processor, but makes no sign when there is room.
    void await_room(unsigned times)
    {
        if (times < ROOM_YIELDS) {
            sched_yield();
        } else if (times < ROOM_NAPS) {
            const timespec nap = {0, ROOM_NAP_NS};
            (void)nanosleep(&nap, nullptr);
        } else {
            qz::mbus::Wait wait(bell_, server_.has_plain_clients());
            if (stop_requested == 0 && control_ready == 0)
                (void)wait.sleep(1);
        }
    }

private:
    static constexpr unsigned WAIT_MAX_MS = 1000;
    static constexpr unsigned ROOM_YIELDS = 20;
    static constexpr unsigned ROOM_NAPS = 40;
    static constexpr long ROOM_NAP_NS = 50'000;

    qz::mbus::Doorbell bell_;
    Server &server_;
    unsigned bound_ms_ = 1;
    qz::mbus::Patience patience_{};
};

class Loop
{
public:
    Loop(Server &server, ControlSocket &control, qz::mbus::Doorbell bell, const Options &options)
        : server_(server), control_(control), idle_(bell, server), stats_ms_(options.stats_s * 1000ULL),
          prints_(options.stats_s != 0 || options.trace)
    {
    }

    // Until it is asked to end. False when it cannot go on.
    bool run()
    {
        while (stop_requested == 0) {
            take_commands();
            if (!run_timers())
                return false;
            const Server::Progress progress = server_.route(control_ready);
            blocked_ = progress.blocked && !progress.moved ? blocked_ + 1 : 0;
            if (progress.moved)
                idle_.worked();
            else if (progress.blocked)
                idle_.await_room(blocked_);
            else
                idle_.sleep(next_timer());
        }
        return true;
    }

private:
    static constexpr uint64_t REAP_MS = 1000;
    static constexpr int COMMANDS_A_ROUND = 64; // so that packets are routed however many commands come

    void take_commands()
    {
        if (control_ready == 0 && !server_.has_hidden())
            return;
        control_ready = 0;
        std::optional<Command> command;
        for (int i = 0; control_.next(command); ++i) {
            if (command)
                server_.handle(*command);
            if (i == COMMANDS_A_ROUND) {
                control_ready = 1;
                return;
            }
        }
        server_.remove_hidden();
    }

    // False when it cannot go on.
    bool run_timers()
    {
        const uint64_t now = now_ms();
        if (now - reaped_ms_ >= REAP_MS) {
            if (!is_of_use())
                return false;
            server_.reap();
            reaped_ms_ = now;
        }
        if (stats_ms_ != 0 && now - printed_ms_ >= stats_ms_) {
            server_.print_stats();
            printed_ms_ = now;
        }
        return true;
    }

    // Nobody can find the share segment any longer when a client of a server that died removed it, as
    // the last one, while this server attached it. A socket file that was deleted is made again.
    bool is_of_use()
    {
        if (shmget(QZLIB_MBUS_SHARE_KEY, 0, 0) != mbus_share_memid) {
            log_line(QZLIB_LOG_ERROR, "the share segment was removed");
            return false;
        }
        if (prints_ && is_output_gone()) {
            log_line(QZLIB_LOG_ERROR, "nobody reads standard output any longer");
            return false;
        }
        if (control_.is_gone()) {
            take_commands();     // the last of the old one
            if (control_.open()) // or else it tries again in a second
                log_line(QZLIB_LOG_WARNING, "%s was deleted: made again", QZLIB_MBUS_SOCKET);
        }
        return true;
    }

    [[nodiscard]] unsigned next_timer() const
    {
        const uint64_t now = now_ms();
        uint64_t next = reaped_ms_ + REAP_MS;
        if (stats_ms_ != 0)
            next = std::min(next, printed_ms_ + stats_ms_);
        return next <= now ? 1 : static_cast<unsigned>(next - now);
    }

    Server &server_;
    ControlSocket &control_;
    Idle idle_;
    uint64_t stats_ms_;
    bool prints_;
    uint64_t reaped_ms_ = now_ms();
    uint64_t printed_ms_ = now_ms();
    unsigned blocked_ = 0;
};

int serve(const Options &options)
{
    ControlSocket control;
    if (!control.claim())
        return 1;
    change_signal_mask(SIG_BLOCK); // until they can be handled: the segment must not stay behind
    mbus_share_segment *share = attach_share();
    if (share == nullptr) {
        log_line(QZLIB_LOG_ERROR, "no share segment: %s", strerror(errno));
        return 1;
    }
    const int share_id = mbus_share_memid;
    served = share;
    const qz::mbus::Doorbell bell = qz::mbus::up_doorbell(*share);
    qz::mbus::init_condition(share->up_cond);
    qz::mbus::signal_condition(share->up_cond, nullptr); // what the handlers need is looked up here
    qz::mbus::serve(bell);
    handle_signal(SIGTERM, request_stop);
    handle_signal(SIGINT, request_stop);
    handle_signal(SIGIO, note_control);
    handle_signal(SIGPIPE, SIG_IGN);
    change_signal_mask(SIG_UNBLOCK); // also what was inherited

    // Every packet passes the server. With a little more of the processor than its clients it has its
    // turn between any two of theirs. Not where somebody chose otherwise, or it is not permitted.
    if (getpriority(PRIO_PROCESS, 0) == 0)
        (void)setpriority(PRIO_PROCESS, 0, NICENESS);
    // So that naps do not last longer than asked for.
    (void)prctl(PR_SET_TIMERSLACK, 1UL, 0UL, 0UL, 0UL);
    Trace trace;
    if (options.trace)
        trace.start(options.traced == nullptr ? "" : options.traced);
    Server server(*share, trace);
    server.adopt();
    int result = 1;
    if (control.open()) {
        log_line(QZLIB_LOG_INFO, "serving %s", QZLIB_MBUS_SOCKET);
        if (Loop(server, control, bell, options).run()) {
            log_line(QZLIB_LOG_INFO, "ending");
            result = 0;
        }
    }
    server.close();
    for (const int signal : {SIGTERM, SIGINT, SIGIO}) // the condition goes
        handle_signal(signal, SIG_IGN);
    qzlib_mbus_share_uninit();
    (void)shmctl(share_id, IPC_RMID, nullptr); // clients may be attached still
    return result;
}

// The library's log drops what it cannot write, without a word.
bool is_writable(const char *path)
{
    const int fd = open(path, O_WRONLY | O_APPEND | O_CREAT | O_NONBLOCK | O_CLOEXEC, 0666);
    if (fd < 0)
        (void)fprintf(stderr, "mbusd: cannot write the log %s: %s\n", path, strerror(errno));
    else
        close(fd);
    return fd >= 0;
}

} // namespace
} // namespace mbusd

int main(int argc, char **argv)
{
    const mbusd::Options options = mbusd::parse_arguments(argc, argv);
    if (!mbusd::prepare_streams() && (options.stats_s != 0 || options.trace)) {
        (void)fputs("mbusd: standard output is closed\n", stderr);
        return 1;
    }
    if (options.log_file != nullptr && !mbusd::is_writable(options.log_file))
        return 1;
    mbusd::set_quiet(options.quiet);
    openmsg_com(options.log_file, 0, "mbusd", 0);
    return mbusd::serve(options);
}
