#include "support/case.h"
#include "support/log.h"

#include <sys/prctl.h>

namespace
{

using namespace support;

// All actions and this thread's mask, as text to compare.
std::string signal_state()
{
    sigset_t mask;
    pthread_sigmask(SIG_SETMASK, nullptr, &mask);
    std::string state;
    for (int sig = 1; sig < _NSIG; ++sig) {
        struct sigaction action = {};
        sigaction(sig, nullptr, &action);
        for (const auto part :
             {reinterpret_cast<intptr_t>(action.sa_handler), intptr_t(action.sa_flags),
              intptr_t(sigismember(&action.sa_mask, SIGUSR2)), intptr_t(sigismember(&mask, sig))})
            state += std::to_string(part) + " ";
    }
    return state;
}

// A daemon with signal actions of its own, which must all be as before after the test.
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
        remains_before = remains();
    }
    ~Commands() override
    {
        closelog();
        EXPECT_EQ(signal_state(), before) << "an action or the mask was not put back";
        EXPECT_EQ(alarm(0), 0U);
    }
    std::string before;
};

TEST_F(Commands, result_is_the_exit_code_or_the_raw_status)
{
    const Table<const char *, int, int> cases = {
        {"exit 255", -1, 255},
        {nullptr, 5, QZLIB_ERR_ARGUMENT},
        // The shell has the daemon's actions: SIGQUIT ignored, the handler for SIGINT gone.
        {"kill -QUIT $$; exit 4", 0, 4},
        {"kill -INT $$; sleep 1; exit 4", 0, SIGINT},
        // The daemon itself ignores both meanwhile.
        {"kill -QUIT $PPID; kill -INT $PPID; exit 5", 0, 5},
    };
    for (const auto &[command, timeout_s, result] : cases)
        EXPECT_EQ(system_dumb(command, timeout_s), result) << (command ? command : "null");
    EXPECT_EQ(signals_seen, 0);
    const std::string start = "exec >/tmp/out; printf %s ";
    EXPECT_EQ(system_dumb((start + std::string(300, 'x')).c_str(), 0), 0);
    EXPECT_EQ(read_file("/tmp/out"), std::string(255 - start.size(), 'x')) << "cut to its buffer";

    signal(SIGCHLD, SIG_DFL); // the standard system() fails without
    EXPECT_EQ(qzlib_exe_cmd("%s%s", start.c_str(), std::string(2000, 'y').c_str()), 0);
    EXPECT_EQ(read_file("/tmp/out"), std::string(1023 - start.size(), 'y'));
    EXPECT_EQ(qzlib_exe_cmd("exit %d", 3), 3 << 8);
    EXPECT_EQ(qzlib_exe_cmd(nullptr), -1);
    signal(SIGCHLD, SIG_IGN);
    const FakeFile no_shell("/bin/sh", "");
    EXPECT_EQ(system_dumb("exit 3", 0), 127);
}

// In turn on the main thread and on another one that does not take SIGALRM.
TEST_F(Commands, command_that_outlives_its_limit_is_killed_and_logged)
{
    SyslogSink sink;
    const auto run = [&sink] {
        const Stopwatch watch;
        EXPECT_EQ(system_dumb("exec sleep 100", 1), QZLIB_ERR_TIME_LIMIT);
        EXPECT_GE(watch.seconds(), 1);
        const std::string line = sink.take();
        EXPECT_EQ(with_zeros(line), "<0>cannot wait the child process(0) die, force kill it{system_api\n");
        EXPECT_EQ(line.substr(0, 4), "<12>"); // LOG_USER, LOG_WARNING
    };
    run();
    std::thread([&run] {
        sigset_t all;
        sigfillset(&all);
        pthread_sigmask(SIG_BLOCK, &all, nullptr);
        const std::string state = signal_state();
        run();
        EXPECT_EQ(signal_state(), state);
    }).join();
    alarm(1000); // survives a run without limit only
    EXPECT_EQ(system_dumb("sleep 1.2; exit 6", 0), 6) << "the old limit is still in force";
    EXPECT_GT(alarm(1), 900U);
    EXPECT_EQ(system_dumb("sleep 1.2; exit 8", 60), 8) << "the caller's alarm cut the limit short";
    EXPECT_LT(signals_seen, 2) << "not its own alarm, which may have come first";
}

TEST_F(Commands, other_signals_do_not_end_the_wait_but_may_reap_the_child)
{
    (void)qzlib_sys_signal(SIGUSR1, [](int) { signals_seen = signals_seen + 1; });
    EXPECT_EQ(system_dumb("for i in 1 2 3; do kill -USR1 $PPID; sleep 0.1; done; exit 7", 60), 7);
    EXPECT_GT(signals_seen, 0); // signals of a loaded machine may fall together

    SyslogSink sink;
    signal(SIGUSR1, [](int) {
        close(creat("/tmp/taken", 0600)); // the command must not be dead before
        (void)waitpid(-1, nullptr, 0);
    });
    EXPECT_EQ(system_dumb("kill -USR1 $PPID; until test -e /tmp/taken; do sleep 0.01; done", 60),
              QZLIB_ERR_FAILED);
    EXPECT_EQ(with_zeros(sink.take()), "<0>cannot wait the child process(0) die{system_api\n");
    signal(SIGUSR1, SIG_DFL);
}

TEST(SysSignal, handler_interrupts_and_the_previous_one_is_returned)
{
    const auto handler = [](int) {};
    EXPECT_EQ(qzlib_sys_signal(SIGUSR1, handler), SIG_DFL);
    struct sigaction action;
    sigaction(SIGUSR1, nullptr, &action);
    EXPECT_EQ(action.sa_flags & (SA_RESTART | SA_SIGINFO | SA_NODEFER), 0);
    EXPECT_EQ(sigismember(&action.sa_mask, SIGUSR2), 0);
    EXPECT_EQ(qzlib_sys_signal(SIGUSR1, SIG_IGN), static_cast<void (*)(int)>(handler));
    EXPECT_EQ(qzlib_sys_signal(SIGKILL, SIG_IGN), SIG_ERR);
}

TEST(Descriptors, blocking_mode_is_switched)
{
    const int fd = open("/tmp", O_RDONLY), before = fcntl(fd, F_GETFL);
    for (const auto &[set, flag] : {std::pair(&qzlib_set_nonblock, O_NONBLOCK), {&qzlib_set_block, 0}}) {
        EXPECT_EQ(set(fd), 0);
        EXPECT_EQ(fcntl(fd, F_GETFL), before | flag);
        EXPECT_EQ(set(999), QZLIB_ERR_FAILED);
    }
}

TEST(Descriptors, closed_slots_behave_as_daemons_know_it)
{
    // Slots that are closed, whether to keep stderr; each slot after: n /dev/null, k kept, - closed.
    const Table<std::string, int, std::string> cases = {{"", 0, "knn"},   {"", 1, "knk"},  {"0", 0, "nnn"},
                                                        {"1", 1, "k-k"},  {"1", 0, "k-n"}, {"2", 0, "kn-"},
                                                        {"012", 0, "nnn"}};
    for (const auto &row : cases) {
        const Process looks([&row] {
            const auto &[closed, keep_stderr, after] = row;
            const int kept = open("/", O_PATH);
            for (const char slot : {'0', '1', '2'})
                closed.find(slot) == closed.npos ? dup2(kept, slot - '0') : close(slot - '0');
            close(kept);
            (void)qzlib_stdout_to_null(keep_stderr);
            std::string slots;
            for (const char slot : {'0', '1', '2'}) {
                char target[16] = "-";
                (void)!readlink((std::string("/proc/self/fd/") + slot).c_str(), target, 15);
                slots += strcmp(target, "/dev/null") == 0 ? 'n' : strcmp(target, "/") == 0 ? 'k' : '-';
            }
            return slots == after ? 0 : 1;
        });
    }
}

// A child with a name that sleeps until it is ended.
struct Sleeper : Process {
    explicit Sleeper(const char *name)
        : Process([name] {
              prctl(PR_SET_NAME, name);
              raise(SIGSTOP); // tells the parent that the name is set
              pause();
          })
    {
        EXPECT_EQ(waitpid(pid(), nullptr, WUNTRACED), pid());
    }
    ~Sleeper() { EXPECT_EQ(end(SIGKILL), -SIGKILL); }
};

using Processes = NothingLeft;

TEST_F(Processes, state_of_a_process)
{
    const auto state = qzlib_get_process_state_by_pid;
    EXPECT_EQ(state(getpid()), 1);
    EXPECT_EQ(state(-1), 0);
    // The first ")" ends the name, and one line is read.
    for (const auto &[name, letter] : {std::pair("sleeper", 4), {"x) Z", 5}, {"x)", 0}, {"a\nb", 0}})
        EXPECT_EQ(state(Sleeper(name).pid()), letter) << name;
    const Sleeper sleeper("sleeper");
    kill(sleeper.pid(), SIGCONT);
    EXPECT_TRUE(eventually([&] { return state(sleeper.pid()) == 2; }));
    kill(sleeper.pid(), SIGKILL);
    EXPECT_TRUE(eventually([&] { return state(sleeper.pid()) == 5; }));
}

TEST_F(Processes, have_a_name_and_a_path_and_are_found_by_them)
{
    const std::string own_path = std::filesystem::read_symlink("/proc/self/exe");
    const Sleeper sleeper("a b\r");
    const int pid = sleeper.pid();
    const Table<int (*)(int pid, char *out, int size), std::string> facts = {
        {qzlib_get_process_name_by_pid, "a b"}, {qzlib_get_process_path_by_pid, own_path}};
    for (const auto &[function, whole] : facts) {
        char buffer[512];
        for (const int size : {512, 3}) {
            EXPECT_EQ(function(pid, buffer, size), 0);
            EXPECT_EQ(buffer, whole.substr(0, static_cast<size_t>(size) - 1));
        }
        for (const auto &[who, size] : {std::pair(pid, 1), {pid, 0}, {-1, 512}, {0, 512}})
            EXPECT_EQ(function(who, buffer, size), -1);
        EXPECT_EQ(function(pid, nullptr, 512), -1);
    }
    const auto find = qzlib_get_pid_by_name_path;
    EXPECT_EQ(find("a b", nullptr), pid);
    EXPECT_EQ(find("a b", own_path.c_str()), pid);
    EXPECT_EQ(find("a b", "/sbin/other"), -1);
    EXPECT_EQ(find("a", nullptr), -1);
    EXPECT_EQ(find(nullptr, nullptr), -1);
}

TEST_F(Processes, second_copy_from_the_same_path_ends_itself)
{
    char name[64];
    ASSERT_EQ(qzlib_get_process_name_by_pid(getpid(), name, sizeof name), 0);
    const std::string elsewhere = std::string("/tmp/") + name;
    std::filesystem::copy_file(BINARY_DIR "/bin/zservsim", elsewhere);
    Process other([&] {
        setenv("LD_LIBRARY_PATH", BINARY_DIR "/lib", 1); // which it finds from its own place only
        return execl(elsewhere.c_str(), "", nullptr);
    });
    EXPECT_TRUE(
        eventually([&] { return qzlib_get_pid_by_name_path(name, elsewhere.c_str()) == other.pid(); }));
    EXPECT_EQ(qzlib_process_unique(), 1);
    testing::internal::CaptureStdout();
    EXPECT_EQ(run_child([] { return qzlib_process_is_unique() == 0 ? qzlib_process_unique() + 8 : 7; }), 0);
    EXPECT_EQ(testing::internal::GetCapturedStdout(), "The process is already running\n");
    EXPECT_EQ(other.end(SIGKILL), -SIGKILL);
}

} // namespace
