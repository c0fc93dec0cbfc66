// mbusd: the reference server of the message bus. This file holds the arguments, the signals
// and the loop between work and sleep.
#include "control.h"
#include "log.h"
#include "patience.h"
#include "server.h"
#include "up_condition.h"

#include <algorithm>
#include <cerrno>
#include <csignal>
#include <cstdio>
#include <cstdlib>
#include <getopt.h>
#include <optional>
#include <sched.h>
#include <sys/shm.h>

namespace mbusd
{
namespace
{

constexpr const char *USAGE =
    "Usage: mbusd [--stats SECONDS] [--log FILE] [--quiet]\n"
    "Serve the message bus on " QZLIB_MBUS_SOCKET " until SIGTERM or SIGINT.\n"
    "\n"
    "  --stats SECONDS  print a table of the clients on standard output every SECONDS\n"
    "  --log FILE       log to FILE instead of syslog\n"
    "  --quiet          nothing on standard error\n"
    "  --help           print this text\n"
    "  --version        print the version\n"
    "\n"
    "The exit status is 0 after a signal, 1 when the bus cannot be served (another server\n"
    "runs, no shared memory, no socket) and 2 for bad arguments.\n";

struct Options {
    unsigned stats_s = 0;
    const char *log_file = nullptr;
    bool quiet = false;
};

[[noreturn]] void bad_arguments()
{
    (void)fputs(USAGE, stderr);
    exit(2);
}

Options parse_arguments(int argc, char **argv)
{
    constexpr option OPTIONS[] = {
        {"stats", required_argument, nullptr, 's'}, {"log", required_argument, nullptr, 'l'},
        {"quiet", no_argument, nullptr, 'q'},       {"help", no_argument, nullptr, 'h'},
        {"version", no_argument, nullptr, 'V'},     {nullptr, 0, nullptr, 0}};
    Options options;
    int chosen = 0;
    while ((chosen = getopt_long(argc, argv, "", OPTIONS, nullptr)) != -1) {
        char *end = nullptr;
        if (chosen == 's') {
            const long seconds = strtol(optarg, &end, 10);
            if (*optarg == '\0' || *end != '\0' || seconds < 1 || seconds > 86400)
                bad_arguments();
            options.stats_s = static_cast<unsigned>(seconds);
        } else if (chosen == 'l') {
            options.log_file = optarg;
        } else if (chosen == 'q') {
            options.quiet = true;
        } else if (chosen == 'h') {
            exit(fputs(USAGE, stdout) < 0);
        } else if (chosen == 'V') {
            exit(puts("mbusd (qzlib) " QZLIB_VERSION) < 0);
        } else {
            bad_arguments();
        }
    }
    if (optind != argc)
        bad_arguments();
    return options;
}

// What the signal handlers tell the loop. They end its sleep as well.
volatile sig_atomic_t stop_requested = 0;
volatile sig_atomic_t control_ready = 1;
UpCondition *sleeper = nullptr;

void request_stop(int /*signal*/)
{
    const int saved = errno;
    stop_requested = 1;
    sleeper->wake();
    errno = saved;
}

void note_control(int /*signal*/)
{
    const int saved = errno;
    control_ready = 1;
    sleeper->wake();
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

// How the loop spends the time without work.
class Idle
{
public:
    Idle(UpCondition &condition, const Server &server) : condition_(condition), server_(server) {}

    void worked() { bound_ms_ = 1; }

    // Until a client signals, a signal arrives or the time is up.
    void sleep(unsigned limit_ms)
    {
        const auto is_needed = [this] {
            return server_.has_work() || stop_requested != 0 || control_ready != 0;
        };
        patience_.spend(is_needed);
        condition_.begin();
        bool woken = true;
        if (!is_needed())
            woken = condition_.sleep(std::min(bound_ms_, limit_ms));
        condition_.end();
        if (!woken)
            bound_ms_ = std::min(bound_ms_ * 2, WAIT_MAX_MS);
    }

    // A ring is full: its reader gets the processor, but makes no sign when there is room.
    void await_room(unsigned times)
    {
        if (times < ROOM_YIELDS) {
            sched_yield();
            return;
        }
        condition_.begin();
        if (stop_requested == 0 && control_ready == 0)
            (void)condition_.sleep(1);
        condition_.end();
    }

private:
    static constexpr unsigned WAIT_MAX_MS = 1000;
    static constexpr unsigned ROOM_YIELDS = 50;

    UpCondition &condition_;
    const Server &server_;
    unsigned bound_ms_ = 1;
    Patience patience_;
};

class Loop
{
public:
    Loop(Server &server, ControlSocket &control, UpCondition &condition, unsigned stats_s)
        : server_(server), control_(control), idle_(condition, server), stats_ms_(stats_s * 1000ULL)
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
    static constexpr int COMMANDS_A_ROUND = 64; // packets go on, however many come

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

    // False when nobody can find the share segment any longer: a client of a server that died
    // removed it, as the last one, while this server attached it.
    bool run_timers()
    {
        const uint64_t now = now_ms();
        if (now - reaped_ms_ >= REAP_MS) {
            if (shmget(QZLIB_MBUS_SHARE_KEY, 0, 0) != mbus_share_memid) {
                log_line(QZLIB_LOG_ERROR, "the share segment was removed");
                return false;
            }
            server_.reap();
            reaped_ms_ = now;
        }
        if (stats_ms_ != 0 && now - printed_ms_ >= stats_ms_) {
            server_.print_stats();
            printed_ms_ = now;
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
        log_line(QZLIB_LOG_ERROR, "no share segment");
        return 1;
    }
    const int share_id = mbus_share_memid;
    UpCondition condition(share->up_cond);
    sleeper = &condition;
    handle_signal(SIGTERM, request_stop);
    handle_signal(SIGINT, request_stop);
    handle_signal(SIGIO, note_control);
    handle_signal(SIGPIPE, SIG_IGN);
    change_signal_mask(SIG_UNBLOCK); // also what was inherited

    Server server(*share);
    server.adopt();
    int result = 1;
    if (control.open()) {
        log_line(QZLIB_LOG_INFO, "serving %s", QZLIB_MBUS_SOCKET);
        if (Loop(server, control, condition, options.stats_s).run()) {
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

} // namespace
} // namespace mbusd

int main(int argc, char **argv)
{
    const mbusd::Options options = mbusd::parse_arguments(argc, argv);
    mbusd::set_quiet(options.quiet);
    openmsg_com(options.log_file, 0, "mbusd", 0);
    return mbusd::serve(options);
}
