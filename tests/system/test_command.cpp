#include "support/box.h"
#include "support/case.h"
#include "support/log.h"
#include "support/process.h"

#include <qzlib.h>

#include <sys/prctl.h>

namespace
{

using namespace support;

// All actions and this thread's mask, as bytes to compare.
std::string signal_state()
{
    constexpr size_t MASK_BYTES = _NSIG / 8; // libc leaves the rest of a sigset_t undefined
    sigset_t mask;
    pthread_sigmask(SIG_SETMASK, nullptr, &mask);
    std::string state(reinterpret_cast<const char *>(&mask), MASK_BYTES);
    for (int sig = 1; sig < _NSIG; ++sig) {
        struct sigaction action = {};
        sigaction(sig, nullptr, &action);
        state.append(reinterpret_cast<const char *>(&action.sa_handler), sizeof action.sa_handler)
            .append(reinterpret_cast<const char *>(&action.sa_mask), MASK_BYTES)
            .append(std::to_string(action.sa_flags));
    }
    return state;
}

// A daemon with signal actions of its own, which must all be as before after the test, with no
// descriptor and no child more than before.
volatile sig_atomic_t signals_seen = 0;
struct Commands : NothingLeft {
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
        before = signal_state();
    }
    ~Commands() override
    {
        closelog();
        EXPECT_TRUE(signal_state() == before) << "an action or the mask was not put back";
        EXPECT_EQ(alarm(0), 0U);
    }
    std::string before;
};

TEST_F(Commands, result_is_the_exit_code_or_the_raw_status)
{
    const Table<const char *, int, int> cases = {
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
    for (const auto &[command, timeout_s, result] : cases)
        EXPECT_EQ(system_dumb(command, timeout_s), result) << (command != nullptr ? command : "null");
    EXPECT_EQ(signals_seen, 0);
}

TEST_F(Commands, exe_cmd_gives_what_system_gives)
{
    const std::string start = "exec >/tmp/out; printf %s ";
    EXPECT_EQ(system_dumb((start + std::string(300, 'x')).c_str(), 0), 0);
    EXPECT_EQ(read_file("/tmp/out"), std::string(255 - start.size(), 'x')) << "cut to its buffer";
    signal(SIGCHLD, SIG_DFL); // the standard system() fails without
    EXPECT_EQ(qzlib_exe_cmd("%s%s", start.c_str(), std::string(2000, 'y').c_str()), 0);
    EXPECT_EQ(read_file("/tmp/out"), std::string(1023 - start.size(), 'y'));
    EXPECT_EQ(qzlib_exe_cmd("exit %d", 3), 3 << 8);
    EXPECT_EQ(qzlib_exe_cmd("kill -TERM $$"), SIGTERM);
    EXPECT_EQ(qzlib_exe_cmd(nullptr), -1);
    signal(SIGCHLD, SIG_IGN);
}

// In turn on the main thread and on another one that does not take SIGALRM.
TEST_F(Commands, command_that_outlives_its_limit_is_killed_and_logged)
{
    SyslogSink sink;
    const auto run = [&sink] {
        const Stopwatch watch;
        EXPECT_EQ(system_dumb("echo $$ >/tmp/pid; exec sleep 30", 1), QZLIB_ERR_TIME_LIMIT);
        EXPECT_GE(watch.seconds(), 1);
        EXPECT_LT(watch.seconds(), 20);
        const std::string pid = std::to_string(std::stoi(read_file("/tmp/pid")));
        EXPECT_EQ(sink.take(), // LOG_USER, LOG_WARNING
                  "<12>cannot wait the child process(" + pid + ") die, force kill it{system_api\n");
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
    EXPECT_EQ(system_dumb("sleep 1.2; exit 6", 0), 6) << "the old limit is still in force";
    EXPECT_EQ(signals_seen, 0);
}

TEST_F(Commands, other_signals_do_not_end_the_wait_but_may_reap_the_child)
{
    const auto previous = qzlib_sys_signal(SIGUSR1, [](int) { signals_seen = signals_seen + 1; });
    EXPECT_EQ(system_dumb("for i in 1 2 3; do kill -USR1 $PPID; sleep 0.1; done; exit 7", 5), 7);
    EXPECT_GT(signals_seen, 0); // signals of a loaded machine may fall together

    SyslogSink sink;
    signal(SIGUSR1, [](int) { (void)waitpid(-1, nullptr, 0); });
    // The command must not be dead before the handler runs.
    EXPECT_EQ(system_dumb("kill -USR1 $PPID; sleep 1; exit 3", 9), QZLIB_ERR_FAILED);
    EXPECT_EQ(with_zeros(sink.take()), "<0>cannot wait the child process(0) die{system_api\n");
    signal(SIGUSR1, previous);
}

TEST_F(Commands, callers_alarm_survives_only_a_run_without_limit)
{
    alarm(1000);
    EXPECT_EQ(system_dumb("true", 0), 0);
    EXPECT_GT(alarm(1), 900U);
    EXPECT_EQ(system_dumb("sleep 1.2; exit 8", 9), 8) << "it cut the limit short";
}

TEST_F(Commands, what_cannot_be_started)
{
    signal(SIGCHLD, SIG_DFL);
    EXPECT_EQ(run_child([] { // no process
                  const rlimit none = {0, 0};
                  const std::string state = signal_state();
                  (void)!setuid(65534); // the limit does not bind the superuser
                  if (setrlimit(RLIMIT_NPROC, &none) != 0)
                      return 1;
                  return system_dumb("exit 3", 5) == QZLIB_ERR_FAILED && signal_state() == state ? 42 : 2;
              }),
              42);
    ASSERT_EQ(mount("/dev/null", "/bin/sh", nullptr, MS_BIND, nullptr), 0); // no shell
    EXPECT_EQ(system_dumb("exit 3", 0), 127);
    umount("/bin/sh");
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
    sigaction(SIGUSR1, &action, nullptr);
    EXPECT_EQ(qzlib_sys_signal(SIGUSR1, SIG_IGN), static_cast<void (*)(int)>(handler));
    EXPECT_EQ(qzlib_sys_signal(SIGUSR1, handler), SIG_IGN);
    sigaction(SIGUSR1, nullptr, &action);
    EXPECT_EQ(action.sa_flags & (SA_RESTART | SA_SIGINFO | SA_NODEFER), 0);
    EXPECT_EQ(sigismember(&action.sa_mask, SIGUSR2), 0);
    EXPECT_EQ(qzlib_sys_signal(SIGKILL, SIG_IGN), SIG_ERR);
}

TEST(Descriptors, blocking_mode_is_switched)
{
    const int fd = open("/tmp", O_RDONLY);
    const int before = fcntl(fd, F_GETFL);
    EXPECT_EQ(qzlib_set_nonblock(fd), 0);
    EXPECT_EQ(fcntl(fd, F_GETFL), before | O_NONBLOCK);
    EXPECT_EQ(qzlib_set_block(fd), 0);
    EXPECT_EQ(fcntl(fd, F_GETFL), before);
    EXPECT_EQ(qzlib_set_nonblock(999), QZLIB_ERR_FAILED);
    EXPECT_EQ(qzlib_set_block(-1), QZLIB_ERR_FAILED);
}

TEST(Descriptors, closed_slots_behave_as_daemons_know_it)
{
    // Slots that are closed, whether to keep stderr; each slot after: n /dev/null, k kept, - closed.
    const Table<std::string, int, std::string> cases = {{"", 0, "knn"},   {"", 1, "knk"},  {"0", 0, "nnn"},
                                                        {"1", 1, "k-k"},  {"1", 0, "k-n"}, {"2", 0, "kn-"},
                                                        {"012", 0, "nnn"}};
    const auto slots_after = [](const std::string &closed, int keep_stderr) {
        const int kept = open("/", O_PATH);
        for (int fd = 0; fd < 3; ++fd)
            dup2(kept, fd);
        close(kept);
        for (const char slot : closed)
            close(slot - '0');
        (void)qzlib_stdout_to_null(keep_stderr);
        std::string after;
        for (const char *slot : {"/proc/self/fd/0", "/proc/self/fd/1", "/proc/self/fd/2"}) {
            char target[16] = {};
            const bool is_open = readlink(slot, target, 15) > 0;
            after += !is_open ? '-' : strcmp(target, "/dev/null") == 0 ? 'n' : 'k';
        }
        return after;
    };
    for (const auto &row : cases)
        EXPECT_EQ(run_child([&] {
                      return slots_after(std::get<0>(row), std::get<1>(row)) == std::get<2>(row) ? 42 : 1;
                  }),
                  42)
            << std::get<0>(row) << " " << std::get<2>(row);
}

// A child with a name that sleeps until it is ended.
struct Sleeper {
    explicit Sleeper(const char *name) : pid(fork())
    {
        if (pid == 0) {
            prctl(PR_SET_PDEATHSIG, SIGKILL);
            prctl(PR_SET_NAME, name);
            kill(getpid(), SIGSTOP); // tells the parent that the name is set
            pause();
        }
        EXPECT_EQ(waitpid(pid, nullptr, WUNTRACED), pid);
    }
    ~Sleeper()
    {
        kill(pid, SIGKILL);
        waitpid(pid, nullptr, 0);
    }
    Sleeper(const Sleeper &) = delete;
    Sleeper &operator=(const Sleeper &) = delete;

    const pid_t pid;
};

TEST(Processes, state_of_a_process)
{
    const auto state = qzlib_get_process_state_by_pid;
    EXPECT_EQ(state(getpid()), 1);
    pid_t pid = 0;
    {
        const Sleeper sleeper("sleeper");
        pid = sleeper.pid;
        EXPECT_EQ(state(pid), 4);
        kill(pid, SIGCONT);
        EXPECT_TRUE(eventually([=] { return state(pid) == 2; }));
        kill(pid, SIGKILL);
        EXPECT_TRUE(eventually([=] { return state(pid) == 5; }));
    }
    EXPECT_EQ(state(pid), 0);
    EXPECT_EQ(state(-1), 0);
    EXPECT_EQ(state(Sleeper("x) Z").pid), 5) << "the first ')' counts";
    EXPECT_EQ(state(Sleeper("x)").pid), 0);   // the second ')' is the letter
    EXPECT_EQ(state(Sleeper("a\nb").pid), 0); // one line is read
}

TEST(Processes, name_and_path_fit_their_buffers)
{
    const Sleeper sleeper("a b\r");
    const std::string own_path = std::filesystem::read_symlink("/proc/self/exe");
    const Table<int (*)(int pid, char *out, int size), std::string> cases = {
        {qzlib_get_process_name_by_pid, "a b"}, {qzlib_get_process_path_by_pid, own_path}};
    for (const auto &[function, whole] : cases) {
        char buffer[512];
        EXPECT_EQ(function(sleeper.pid, buffer, 512), 0);
        EXPECT_EQ(buffer, whole);
        EXPECT_EQ(function(sleeper.pid, buffer, 3), 0);
        EXPECT_EQ(buffer, whole.substr(0, 2));
        for (const auto &[pid, size] : {std::pair(sleeper.pid, 1), {sleeper.pid, 0}, {-1, 512}, {0, 512}})
            EXPECT_EQ(function(pid, buffer, size), -1);
        EXPECT_EQ(function(sleeper.pid, nullptr, 512), -1);
    }
}

TEST(Processes, are_found_by_name_and_path)
{
    const size_t descriptors = open_descriptors();
    const Sleeper sleeper("qz sleeper");
    const std::string path = std::filesystem::read_symlink("/proc/self/exe");
    EXPECT_EQ(qzlib_get_pid_by_name_path("qz sleeper", nullptr), sleeper.pid);
    EXPECT_EQ(qzlib_get_pid_by_name_path("qz sleeper", path.c_str()), sleeper.pid);
    EXPECT_EQ(qzlib_get_pid_by_name_path("qz sleeper", "/sbin/other"), -1);
    EXPECT_EQ(qzlib_get_pid_by_name_path("qz sleepe", nullptr), -1);
    EXPECT_EQ(qzlib_get_pid_by_name_path(nullptr, nullptr), -1);
    EXPECT_EQ(qzlib_process_is_unique(), 1);
    char own_name[64];
    ASSERT_EQ(qzlib_get_process_name_by_pid(getpid(), own_name, 64), 0);
    const Sleeper twin(own_name);
    EXPECT_EQ(qzlib_process_is_unique(), 0);
    EXPECT_EQ(open_descriptors(), descriptors);
}

TEST(Processes, second_copy_from_the_same_path_ends_itself)
{
    for (const char *directory : {"/tmp/a", "/tmp/b"}) {
        std::filesystem::create_directories(directory);
        std::filesystem::copy_file(UNIQUE_HELPER, std::string(directory) + "/unique_helper");
    }
    FILE *first = popen("exec /tmp/a/unique_helper >/tmp/a/out", "w"); // runs until pclose()
    EXPECT_TRUE(eventually([] { return read_file("/tmp/a/out") == "result 1\n"; }));
    EXPECT_EQ(sh("/tmp/a/unique_helper </dev/null"), "The process is already running\n");
    EXPECT_EQ(sh("/tmp/b/unique_helper </dev/null"), "result 1\n");
    pclose(first);
    EXPECT_EQ(sh("/tmp/a/unique_helper </dev/null"), "result 1\n");
}

} // namespace
