#include "support/files.h"
#include "support/pattern.h"
#include "support/syslog_sink.h"

#include <gtest/gtest.h>
#include <qzlib.h>

#include <array>
#include <cerrno>
#include <chrono>
#include <csignal>
#include <cstring>
#include <fcntl.h>
#include <functional>
#include <sched.h>
#include <sys/mount.h>
#include <sys/prctl.h>
#include <sys/resource.h>
#include <sys/wait.h>
#include <thread>
#include <unistd.h>

namespace
{

using support::read_file;
using support::SyslogSink;

// All actions and this thread's mask.
struct SignalState {
    SignalState()
    {
        for (int sig = 1; sig < 65; ++sig)
            sigaction(sig, nullptr, &actions[sig]);
        pthread_sigmask(SIG_SETMASK, nullptr, &mask);
    }
    bool operator==(const SignalState &other) const
    {
        bool same = memcmp(&mask, &other.mask, MASK_BYTES) == 0;
        for (int sig = 1; sig < 65; ++sig) {
            const struct sigaction &a = actions[sig], &b = other.actions[sig];
            same = same && a.sa_handler == b.sa_handler && a.sa_flags == b.sa_flags &&
                   memcmp(&a.sa_mask, &b.sa_mask, MASK_BYTES) == 0;
        }
        return same;
    }
    static constexpr size_t MASK_BYTES = _NSIG / 8; // libc leaves the rest of a sigset_t undefined
    struct sigaction actions[65] = {};
    sigset_t mask = {};
};

// A daemon with signal actions of its own, which must all be as before after the test, with no
// descriptor and no child more than before.
volatile sig_atomic_t signals_seen = 0;
struct Commands : testing::Test {
    Commands()
    {
        signal(SIGCHLD, SIG_IGN);
        signal(SIGQUIT, SIG_IGN);
        signal(SIGUSR1, SIG_DFL);
        struct sigaction action {
        };
        action.sa_sigaction = [](int, siginfo_t *, void *) { signals_seen = signals_seen + 1; };
        action.sa_flags = SA_SIGINFO | SA_RESTART;
        sigaddset(&action.sa_mask, SIGUSR2);
        sigaction(SIGINT, &action, nullptr);
        sigaction(SIGALRM, &action, nullptr);
        before = SignalState();
    }
    ~Commands() override
    {
        closelog();
        EXPECT_TRUE(SignalState() == before) << "an action or the mask was not put back";
        EXPECT_EQ(support::open_descriptors(), descriptors);
        EXPECT_EQ(waitpid(-1, nullptr, WNOHANG), -1);
        EXPECT_EQ(errno, ECHILD);
        EXPECT_EQ(alarm(0), 0U);
    }
    size_t descriptors = support::open_descriptors();
    SignalState before;
};

// Runs a function in a child; its result as exit status.
int in_child(const std::function<int()> &function)
{
    signal(SIGCHLD, SIG_DFL);
    const pid_t pid = fork();
    if (pid == 0)
        _exit(function());
    int status = 0;
    EXPECT_EQ(waitpid(pid, &status, 0), pid);
    EXPECT_TRUE(WIFEXITED(status));
    return WEXITSTATUS(status);
}

TEST_F(Commands, result_is_the_exit_code_or_the_raw_status)
{
    const struct {
        const char *command;
        int timeout_s;
        int result;
    } cases[] = {
        {"exit 3", 0, 3},
        {"true", 5, 0},
        {"exit 255", -1, 255},
        {"no-such-command 2>/dev/null", 5, 127},
        {"kill -TERM $$", 0, SIGTERM},
        {"kill -KILL $$", 5, SIGKILL},
        {nullptr, 5, QZLIB_ERR_ARGUMENT},
        // The shell has the daemon's actions: SIGQUIT ignored, the handler for SIGINT gone.
        {"kill -QUIT $$; exit 4", 0, 4},
        {"kill -INT $$; sleep 1; exit 4", 0, SIGINT},
        // The daemon itself ignores both meanwhile.
        {"kill -QUIT $PPID; kill -INT $PPID; exit 5", 0, 5},
    };
    for (const auto &c : cases)
        EXPECT_EQ(system_dumb(c.command, c.timeout_s), c.result)
            << (c.command != nullptr ? c.command : "null");
    EXPECT_EQ(signals_seen, 0);
}

TEST_F(Commands, command_is_cut_to_its_buffer)
{
    const std::string start = "exec >/tmp/out; printf %s ";
    EXPECT_EQ(system_dumb((start + std::string(300, 'x')).c_str(), 0), 0);
    EXPECT_EQ(read_file("/tmp/out"), std::string(255 - start.size(), 'x'));
    signal(SIGCHLD, SIG_DFL); // the standard system() fails without
    EXPECT_EQ(qzlib_exe_cmd("%s%s", start.c_str(), std::string(2000, 'y').c_str()), 0);
    EXPECT_EQ(read_file("/tmp/out"), std::string(1023 - start.size(), 'y'));
    signal(SIGCHLD, SIG_IGN);
}

// In turn on the main thread and on another one that does not take SIGALRM.
TEST_F(Commands, command_that_outlives_its_limit_is_killed_and_logged)
{
    SyslogSink sink;
    const auto run = [&sink] {
        const auto start = std::chrono::steady_clock::now();
        EXPECT_EQ(system_dumb("echo $$ >/tmp/pid; exec sleep 30", 1), QZLIB_ERR_TIME_LIMIT);
        const auto elapsed = std::chrono::steady_clock::now() - start;
        EXPECT_GE(elapsed, std::chrono::seconds(1));
        EXPECT_LT(elapsed, std::chrono::seconds(10));
        const std::string line = sink.next();
        std::string pid = read_file("/tmp/pid");
        pid.pop_back();
        EXPECT_EQ(line.substr(0, 4), "<12>"); // LOG_USER, LOG_WARNING
        EXPECT_TRUE(support::matches(line, ".*: cannot wait the child process\\(" + pid +
                                               "\\) die, force kill it\\{system_api->[0-9]+}"))
            << line;
        EXPECT_EQ(sink.next(), "");
    };
    run();
    std::thread([&run] {
        sigset_t alarm_only;
        sigemptyset(&alarm_only);
        sigaddset(&alarm_only, SIGALRM);
        pthread_sigmask(SIG_BLOCK, &alarm_only, nullptr);
        run();
        sigset_t mask;
        pthread_sigmask(SIG_SETMASK, nullptr, &mask);
        EXPECT_EQ(sigismember(&mask, SIGALRM), 1);
    }).join();
    EXPECT_EQ(signals_seen, 0);
    EXPECT_EQ(system_dumb("sleep 0.3; exit 6", 0), 6) << "the old limit is still in force";
}

TEST_F(Commands, other_signals_do_not_end_the_wait)
{
    const auto previous = qzlib_sys_signal(SIGUSR1, [](int) { signals_seen = signals_seen + 1; });
    EXPECT_EQ(system_dumb("for i in 1 2 3; do kill -USR1 $PPID; sleep 0.1; done; exit 7", 5), 7);
    EXPECT_EQ(signals_seen, 3);
    signal(SIGUSR1, previous);
}

TEST_F(Commands, callers_alarm_survives_only_a_run_without_limit)
{
    alarm(1000);
    EXPECT_EQ(system_dumb("true", 0), 0);
    EXPECT_GT(alarm(1000), 900U);
    EXPECT_EQ(system_dumb("true", 5), 0);
    EXPECT_EQ(alarm(0), 0U);
}

TEST_F(Commands, child_that_somebody_else_reaped_is_a_failure)
{
    SyslogSink sink;
    const auto previous = qzlib_sys_signal(SIGUSR1, [](int) { (void)waitpid(-1, nullptr, 0); });
    EXPECT_EQ(system_dumb("kill -USR1 $PPID; exit 3", 5), QZLIB_ERR_FAILED);
    EXPECT_TRUE(support::matches(sink.next(),
                                 ".*: cannot wait the child process\\([0-9]+\\) die\\{system_api->[0-9]+}"));
    signal(SIGUSR1, previous);
}

TEST_F(Commands, what_cannot_be_started)
{
    EXPECT_EQ(in_child([] { // no shell
                  return unshare(CLONE_NEWNS) == 0 &&
                                 mount(nullptr, "/", nullptr, MS_REC | MS_PRIVATE, nullptr) == 0 &&
                                 mount("/dev/null", "/bin/sh", nullptr, MS_BIND, nullptr) == 0
                             ? system_dumb("exit 3", 0)
                             : 1;
              }),
              127);
    EXPECT_EQ(in_child([] { // no process
                  const rlimit none = {0, 0};
                  const SignalState state;
                  (void)!setuid(65534); // the limit does not bind the superuser
                  if (setrlimit(RLIMIT_NPROC, &none) != 0)
                      return 1;
                  return system_dumb("exit 3", 5) == QZLIB_ERR_FAILED && SignalState() == state ? 42 : 2;
              }),
              42);
    signal(SIGCHLD, SIG_IGN);
}

TEST_F(Commands, exe_cmd_gives_what_system_gives)
{
    signal(SIGCHLD, SIG_DFL);
    EXPECT_EQ(qzlib_exe_cmd("exit %d", 3), 3 << 8);
    EXPECT_EQ(qzlib_exe_cmd("kill -TERM $$"), SIGTERM);
    EXPECT_EQ(qzlib_exe_cmd(nullptr), -1);
    signal(SIGCHLD, SIG_IGN);
}

TEST(SysSignal, handler_interrupts_and_the_previous_one_is_returned)
{
    const auto handler = [](int) {};
    struct sigaction action {
    };
    action.sa_handler = handler;
    action.sa_flags = SA_RESTART;
    sigfillset(&action.sa_mask);
    ASSERT_EQ(sigaction(SIGUSR1, &action, nullptr), 0);
    EXPECT_EQ(qzlib_sys_signal(SIGUSR1, SIG_IGN), static_cast<void (*)(int)>(handler));
    EXPECT_EQ(qzlib_sys_signal(SIGUSR1, handler), SIG_IGN);
    ASSERT_EQ(sigaction(SIGUSR1, nullptr, &action), 0);
    EXPECT_EQ(static_cast<unsigned>(action.sa_flags) & (SA_RESTART | SA_SIGINFO | SA_RESETHAND | SA_NODEFER),
              0U);
    EXPECT_EQ(sigismember(&action.sa_mask, SIGUSR2), 0);
    EXPECT_EQ(qzlib_sys_signal(SIGKILL, SIG_IGN), SIG_ERR);
    EXPECT_EQ(qzlib_sys_signal(0, SIG_IGN), SIG_ERR);
}

TEST(Descriptors, blocking_mode_is_switched)
{
    int fds[2];
    ASSERT_EQ(pipe(fds), 0);
    EXPECT_EQ(qzlib_set_nonblock(fds[0]), 0);
    EXPECT_EQ(fcntl(fds[0], F_GETFL), O_RDONLY | O_NONBLOCK);
    EXPECT_EQ(qzlib_set_block(fds[0]), 0);
    EXPECT_EQ(fcntl(fds[0], F_GETFL), O_RDONLY);
    close(fds[0]);
    close(fds[1]);
    EXPECT_EQ(qzlib_set_nonblock(fds[0]), QZLIB_ERR_FAILED);
    EXPECT_EQ(qzlib_set_block(-1), QZLIB_ERR_FAILED);
}

// What the standard slots are after the call, one letter each: n /dev/null, k kept, - closed.
std::string slots_after(const std::string &closed, int keep_stderr)
{
    int report[2];
    EXPECT_EQ(pipe2(report, O_CLOEXEC), 0);
    fcntl(report[0], F_DUPFD_CLOEXEC, 10);
    (void)in_child([&] {
        const int out = fcntl(report[1], F_DUPFD_CLOEXEC, 20);
        const int kept = open("/", O_PATH);
        for (int fd = 0; fd < 3; ++fd)
            dup2(kept, fd);
        close(kept);
        for (const char slot : closed)
            close(slot - '0');
        (void)qzlib_stdout_to_null(keep_stderr);
        char result[4] = "---";
        for (int fd = 0; fd < 3; ++fd) {
            char target[16] = {};
            if (readlink(("/proc/self/fd/" + std::to_string(fd)).c_str(), target, 15) > 0)
                result[fd] = strcmp(target, "/dev/null") == 0 ? 'n' : 'k';
        }
        return write(out, result, 3) == 3 ? 0 : 1;
    });
    char result[4] = {};
    EXPECT_EQ(read(report[0], result, 3), 3);
    close(report[0]);
    close(report[1]);
    return result;
}

TEST(StdoutToNull, closed_slots_behave_as_daemons_know_it)
{
    EXPECT_EQ(slots_after("", 0), "knn");
    EXPECT_EQ(slots_after("", 1), "knk");
    EXPECT_EQ(slots_after("0", 0), "nnn");
    EXPECT_EQ(slots_after("1", 1), "k-k");
    EXPECT_EQ(slots_after("1", 0), "k-n");
    EXPECT_EQ(slots_after("2", 0), "kn-");
    EXPECT_EQ(slots_after("012", 0), "nnn");
}

// A child with a name that sleeps until it is ended.
class Sleeper
{
public:
    explicit Sleeper(const char *name) : pid_(fork())
    {
        if (pid_ == 0) {
            prctl(PR_SET_PDEATHSIG, SIGKILL);
            prctl(PR_SET_NAME, name);
            kill(getpid(), SIGSTOP); // tells the parent that the name is set
            for (;;)
                pause();
        }
        EXPECT_EQ(waitpid(pid_, nullptr, WUNTRACED), pid_);
    }
    ~Sleeper()
    {
        kill(pid_, SIGKILL);
        waitpid(pid_, nullptr, 0);
    }
    Sleeper(const Sleeper &) = delete;
    Sleeper &operator=(const Sleeper &) = delete;
    [[nodiscard]] pid_t pid() const { return pid_; }

private:
    pid_t pid_;
};

TEST(Processes, state_of_a_process)
{
    EXPECT_EQ(qzlib_get_process_state_by_pid(getpid()), 1);
    pid_t pid = 0;
    {
        const Sleeper sleeper("sleeper");
        pid = sleeper.pid();
        EXPECT_EQ(qzlib_get_process_state_by_pid(pid), 4);
        kill(pid, SIGCONT);
        for (int i = 0; i < 1000 && qzlib_get_process_state_by_pid(pid) != 2; ++i)
            usleep(5000);
        EXPECT_EQ(qzlib_get_process_state_by_pid(pid), 2);
        kill(pid, SIGKILL);
        siginfo_t info;
        ASSERT_EQ(waitid(P_PID, static_cast<id_t>(pid), &info, WEXITED | WNOWAIT), 0);
        EXPECT_EQ(qzlib_get_process_state_by_pid(pid), 5);
    }
    EXPECT_EQ(qzlib_get_process_state_by_pid(pid), 0);
    EXPECT_EQ(qzlib_get_process_state_by_pid(-1), 0);
    EXPECT_EQ(qzlib_get_process_state_by_pid(Sleeper("x) Z").pid()), 5) << "the first ')' counts";
    EXPECT_EQ(qzlib_get_process_state_by_pid(Sleeper("x)").pid()), 0);   // the second ')' is the letter
    EXPECT_EQ(qzlib_get_process_state_by_pid(Sleeper("a\nb").pid()), 0); // one line is read
}

TEST(Processes, name_and_path_fit_their_buffers)
{
    const Sleeper sleeper("a b\r");
    const std::string own_path = std::filesystem::read_symlink("/proc/self/exe");
    std::array<char, 512> buffer;
    const int size = static_cast<int>(buffer.size());
    EXPECT_EQ(qzlib_get_process_name_by_pid(sleeper.pid(), buffer.data(), size), 0);
    EXPECT_STREQ(buffer.data(), "a b");
    EXPECT_EQ(qzlib_get_process_name_by_pid(sleeper.pid(), buffer.data(), 3), 0);
    EXPECT_STREQ(buffer.data(), "a ");
    EXPECT_EQ(qzlib_get_process_path_by_pid(sleeper.pid(), buffer.data(), size), 0);
    EXPECT_EQ(buffer.data(), own_path);
    EXPECT_EQ(qzlib_get_process_path_by_pid(sleeper.pid(), buffer.data(), 4), 0);
    EXPECT_EQ(buffer.data(), own_path.substr(0, 3));
    buffer[0] = '#';
    for (const auto function : {qzlib_get_process_name_by_pid, qzlib_get_process_path_by_pid}) {
        EXPECT_EQ(function(sleeper.pid(), buffer.data(), 1), -1);
        EXPECT_EQ(function(sleeper.pid(), buffer.data(), 0), -1);
        EXPECT_EQ(function(sleeper.pid(), nullptr, size), -1);
        EXPECT_EQ(function(-1, buffer.data(), size), -1);
        EXPECT_EQ(function(0, buffer.data(), size), -1); // no such process
    }
    EXPECT_EQ(buffer[0], '#');
}

TEST(Processes, are_found_by_name_and_path)
{
    const size_t descriptors = support::open_descriptors();
    const Sleeper sleeper("qz sleeper");
    const std::string path = std::filesystem::read_symlink("/proc/self/exe");
    EXPECT_EQ(qzlib_get_pid_by_name_path("qz sleeper", nullptr), sleeper.pid());
    EXPECT_EQ(qzlib_get_pid_by_name_path("qz sleeper", path.c_str()), sleeper.pid());
    EXPECT_EQ(qzlib_get_pid_by_name_path("qz sleeper", "/sbin/other"), -1);
    EXPECT_EQ(qzlib_get_pid_by_name_path("qz sleepe", nullptr), -1);
    EXPECT_EQ(qzlib_get_pid_by_name_path(nullptr, nullptr), -1);
    EXPECT_EQ(qzlib_process_is_unique(), 1);
    EXPECT_EQ(qzlib_process_unique(), 1);
    std::array<char, 64> own_name;
    ASSERT_EQ(qzlib_get_process_name_by_pid(getpid(), own_name.data(), 64), 0);
    {
        const Sleeper twin(own_name.data());
        EXPECT_EQ(qzlib_process_is_unique(), 0);
    }
    EXPECT_EQ(qzlib_process_is_unique(), 1);
    EXPECT_EQ(support::open_descriptors(), descriptors);
}

std::string output_of(const std::string &command)
{
    FILE *stream = popen(command.c_str(), "r");
    std::string output;
    for (int c = getc(stream); c != EOF; c = getc(stream))
        output += static_cast<char>(c);
    pclose(stream);
    return output;
}

TEST(Processes, second_copy_from_the_same_path_ends_itself)
{
    for (const char *directory : {"/tmp/a", "/tmp/b"}) {
        std::filesystem::create_directories(directory);
        std::filesystem::copy_file(UNIQUE_HELPER, std::string(directory) + "/unique_helper");
    }
    FILE *first = popen("exec /tmp/a/unique_helper >/tmp/a/out", "w"); // runs until pclose()
    while (read_file("/tmp/a/out").empty())
        usleep(5000);
    EXPECT_EQ(read_file("/tmp/a/out"), "result 1\n");
    EXPECT_EQ(output_of("/tmp/a/unique_helper </dev/null; echo $?"), "The process is already running\n0\n");
    EXPECT_EQ(output_of("/tmp/b/unique_helper </dev/null; echo $?"), "result 1\n0\n");
    pclose(first);
    EXPECT_EQ(output_of("/tmp/a/unique_helper </dev/null; echo $?"), "result 1\n0\n");
}

} // namespace
