#include "support/case.h"
#include "support/log.h"
#include "support/syscall_trace.h"

#include <pty.h>
#include <sys/ioctl.h>

namespace
{

using namespace support;
constexpr int FLAGS = O_RDWR | O_NOCTTY | O_NONBLOCK | O_CLOEXEC;
constexpr int SIGNALS[] = {SIGHUP, SIGINT, SIGALRM, SIGQUIT, SIGPIPE, SIGTERM};

void own_handler(int) {}

// Whose handlers stand on the six signals: 'o' the test's, which restart calls, 'c' the library's.
std::string handlers()
{
    std::string who;
    for (const int signal : SIGNALS) {
        struct sigaction action = {};
        sigaction(signal, nullptr, &action);
        const bool restarts = (action.sa_flags & SA_RESTART) != 0;
        const auto expected = restarts ? own_handler : chat_signal_handler;
        who += action.sa_handler != expected ? '?' : restarts ? 'o' : 'c';
    }
    return who;
}

termios settings_of(int fd)
{
    termios settings{};
    EXPECT_EQ(tcgetattr(fd, &settings), 0);
    return settings;
}

std::string received(const std::vector<int> &signals)
{
    std::string log;
    for (const int signal : signals)
        log += "<ERROR>vq_chat receive the signal(" + std::to_string(signal) + ")\n";
    return log;
}

// A line on which every case leaves the signals as they were.
struct Serial : NothingLeft {
    Serial()
    {
        start_log();
        for (const int number : SIGNALS)
            signal(number, own_handler); // with SA_RESTART
        EXPECT_EQ(openpty(&master, &slave, nullptr, nullptr, nullptr), 0);
        path = ptsname(master);
        remains_before = remains();
    }
    ~Serial() override
    {
        EXPECT_EQ(alarm(0), 0U) << "an alarm is left";
        EXPECT_EQ(handlers(), "oooooo");
    }

    [[nodiscard]] std::string opened() const { return "<INFO>open the device(" + path + ") succeed\n"; }

    int master = -1, slave = -1; // a second descriptor of the device, to look at its settings
    std::string path;
};

// The settings of a line that the library changes, and one that it does not.
std::string shown(const termios &t)
{
    char text[128];
    snprintf(text, sizeof text, "in %x out %x control %x local %x min %d time %d intr %d", t.c_iflag,
             t.c_oflag, t.c_cflag, t.c_lflag, t.c_cc[VMIN], t.c_cc[VTIME], t.c_cc[VINTR]);
    return text;
}

TEST_F(Serial, opening_makes_the_line_raw_and_closing_puts_everything_back)
{
    termios odd = settings_of(slave);
    odd.c_iflag = ICRNL | IXON | BRKINT;
    odd.c_cflag |= CSTOPB | PARODD | HUPCL;
    odd.c_cflag &= ~static_cast<tcflag_t>(CLOCAL | CRTSCTS);
    odd.c_cc[VMIN] = 7;
    odd.c_cc[VTIME] = 9;
    cfsetspeed(&odd, B9600);
    ASSERT_EQ(tcsetattr(slave, TCSANOW, &odd), 0);
    odd = settings_of(slave);

    const Stopwatch watch;
    const int fd = dev_init(path.c_str(), FLAGS, 921600);
    ASSERT_GT(fd, 0);
    EXPECT_GE(watch.seconds(), 1.0) << "the pulse on DTR";
    EXPECT_EQ(take_log(), opened());
    termios raw = odd;
    raw.c_iflag = IGNBRK | IGNPAR;
    raw.c_oflag = raw.c_lflag = 0;
    raw.c_cflag = 0x1007 | CS8 | CREAD | CLOCAL | CRTSCTS | PARODD;
    raw.c_cc[VMIN] = 1;
    raw.c_cc[VTIME] = 0;
    EXPECT_EQ(shown(settings_of(slave)), shown(raw));
    EXPECT_EQ(handlers(), "cccooo");
    for (const auto *old : {&oldhup, &oldint, &oldalrm, &oldquit, &oldpipe, &oldterm}) {
        EXPECT_EQ(old->sa_handler, own_handler);
        EXPECT_EQ(old->sa_flags & SA_RESTART, SA_RESTART);
    }

    EXPECT_EQ(dev_close(-1), 0);
    EXPECT_EQ(handlers(), "cccooo") << "closing nothing touches nothing";
    EXPECT_EQ(dev_close(fd), 0);
    EXPECT_EQ(take_log(), "<INFO>close the device(" + std::to_string(fd) + ") succeed\n");
    EXPECT_EQ(shown(settings_of(slave)), shown(odd));
}

TEST_F(Serial, unknown_speed_is_logged_and_kept)
{
    termios before = settings_of(slave);
    cfsetspeed(&before, B19200);
    tcsetattr(slave, TCSANOW, &before);
    dev_close(dev_init(path.c_str(), FLAGS, 500000));
    EXPECT_EQ(take_log().find("<ERROR>speed 500000 not supported\n" + opened()), 0U);

    for (const auto &[baud, speed] : {std::pair(0, B19200), {500000, B500000}}) {
        speeds_list[0] = {500000, 0x1005}; // the table can be written to
        const int fd = dev_init(path.c_str(), FLAGS, baud);
        EXPECT_EQ(take_log(), opened());
        const termios now = settings_of(slave);
        EXPECT_EQ(cfgetospeed(&now), static_cast<speed_t>(speed));
        dev_close(fd);
        take_log();
    }
}

TEST_F(Serial, device_is_tried_four_times_and_need_not_be_a_terminal)
{
    const Stopwatch watch;
    EXPECT_EQ(dev_init("/dev/ttyNone", FLAGS, 115200), -1);
    EXPECT_EQ(errno, ENOENT);
    EXPECT_GE(watch.seconds(), 12.0);
    EXPECT_LT(watch.punctual_seconds(), 15.0) << "a fifth attempt or pause";
    const std::string error = "<ERROR>open the device(/dev/ttyNone) error", again = error + ", try again ";
    EXPECT_EQ(take_log(), again + "0 times\n" + again + "1 times\n" + again + "2 times\n" + again +
                              "3 times\n" + error + "\n");
    const int fd = dev_init("/dev/null", FLAGS, 115200);
    EXPECT_EQ(take_log(), "<ERROR>tcgetattr tty(" + std::to_string(fd) +
                              ") error\n<INFO>open the device(/dev/null) succeed\n");
    EXPECT_EQ(dev_close(fd), 0);
}

TEST_F(Serial, descriptor_zero_counts_as_a_failure_and_is_not_kept)
{
    const int out = dup(1);
    close(0);
    close(1); // moved up from there
    const int fd = dev_init(path.c_str(), FLAGS, 0);
    EXPECT_EQ(dup2(out, 1) + close(out), 1);
    EXPECT_GT(fd, 2);
    EXPECT_EQ(fcntl(fd, F_GETFD), FD_CLOEXEC);
    EXPECT_EQ(take_log(), "<ERROR>open the device(" + path + ") error, try again 0 times\n" + opened());
    dev_close(fd);
    EXPECT_EQ(open("/", O_PATH), 0) << "kept";
}

TEST_F(Serial, signals_during_the_set_up_are_logged_and_survived)
{
    for (int late = 1; late != 0;) { // the pulse, of a second, may be over when a busy machine gets there
        take_log();
        const Stopwatch watch;
        Process sender([this, &watch, daemon = getpid()] {
            // The line is raw as soon as the pulse begins.
            EXPECT_TRUE(eventually([this] { return settings_of(slave).c_lflag == 0; }));
            for (const int signal : {SIGTERM, SIGQUIT, SIGPIPE, SIGHUP}) { // one at a time
                const std::string text = "signal(" + std::to_string(signal);
                kill(daemon, signal);
                EXPECT_TRUE(eventually([&] { return logged(text) || watch.seconds() >= 1; }));
            }
            return watch.seconds() < 1 ? 0 : 1;
        });
        const int fd = dev_init(path.c_str(), FLAGS, 0);
        EXPECT_GE(watch.seconds(), 1.0) << "signals do not shorten the pulse";
        late = sender.wait();
        if (late == 0) {
            EXPECT_EQ(take_log(), received({15, 3, 13, 1}) + opened());
        }
        EXPECT_EQ(dev_close(fd), 0);
    }
}

// A handler that waits for libc's lock of the log under the thread that it interrupted hangs. Signals
// come as often as this machine can take them: at three times what one costs it here and now, the daemon
// has the rest of the time.
TEST(SerialLog, takes_signals_all_the_time_while_a_daemon_logs)
{
    const Process daemon([] { // waited for
        dev_init("/dev/null", FLAGS, 0);
        const Stopwatch fifty;
        for (int i = 0; i < 50; ++i)
            raise(SIGALRM);
        const auto interval_us = static_cast<suseconds_t>(fifty.seconds() / 50 * 3 * 1e6) + 100;
        const itimerval often = {{0, interval_us}, {0, interval_us}};
        setitimer(ITIMER_REAL, &often, nullptr);
        for (int i = 0; i < scaled(5000); ++i)
            debug_msg(QZLIB_LOG_ERROR, "daemon", i, "logs");
    });
}

TEST_F(Serial, device_that_hangs_is_given_up_after_five_seconds)
{
    const int fd = dev_init(path.c_str(), FLAGS, 115200);
    take_log();
    const int supervisor = dup(0); // the number that the filter's descriptor will have
    close(supervisor);
    filter_calls(SYS_ioctl, 1, TCSETSF, SECCOMP_RET_USER_NOTIF);
    const Stopwatch closing;
    EXPECT_EQ(dev_close(fd), -1);
    EXPECT_GE(closing.seconds(), 5.0);
    EXPECT_LT(closing.punctual_seconds(), 8.0);
    EXPECT_EQ(take_log(), received({14}) + "<ERROR>receive the alarm signal, device maybe die\n");
    const Stopwatch opening;
    EXPECT_EQ(dev_init(path.c_str(), FLAGS, 115200), -1);
    EXPECT_GE(opening.seconds(), 6.0); // the alarm, and the pulse on DTR
    EXPECT_LT(opening.punctual_seconds(), 9.0);
    EXPECT_EQ(take_log(), received({14}) + "<ERROR>device(" + path + ") maybe die\n");
    close(supervisor);
}

TEST_F(Serial, calls_reach_the_kernel_in_the_order_that_drivers_expect)
{
    const auto describe = [](const Call &call) -> std::string {
        if (call.number == SYS_rt_sigaction && call.args[1] != 0)
            return "signal " + std::to_string(call.args[0]);
#ifdef SYS_alarm
        if (call.number == SYS_alarm)
            return "alarm " + std::to_string(call.args[0]);
#else // ARM has a timer for it, whose seconds follow the two words of its interval
        if (call.number == SYS_setitimer)
            return "alarm " + std::to_string(call.word(call.args[1] + 2 * sizeof(long)));
#endif
        if (call.number != SYS_ioctl)
            return "";
        if ((call.args[1] == TIOCMBIS || call.args[1] == TIOCMBIC) && call.ioctl_value() == TIOCM_DTR)
            return call.args[1] == TIOCMBIS ? "raise DTR" : "drop DTR";
        return call.args[1] == TCSETSF ? "flush and set" : ""; // libc looks at the settings as it likes
    };
    const std::vector<std::string> expected = {
        "signal 1", "signal 14", "signal 2", "signal 3", "signal 13", "signal 15", "alarm 5", "raise DTR",
        "flush and set", "drop DTR", "raise DTR", "alarm 0", "signal 3", "signal 13", "signal 15",
        // closing
        "signal 3", "signal 13", "signal 15", "alarm 5", "flush and set", "alarm 0", "signal 1", "signal 2",
        "signal 14", "signal 3", "signal 13", "signal 15"};
    const auto open_and_close = [this] { dev_close(dev_init(path.c_str(), FLAGS, 115200)); };
    EXPECT_EQ(trace_calls(open_and_close, describe), expected);
}

TEST(Speeds, tables_hold_the_rates_of_the_line)
{
    // The rates from code 1 and from code 0x1001 on; there is none for 0x100b.
    const Table<int, std::vector<int>> rates = {
        {1, {50, 75, 110, 134, 150, 200, 300, 600, 1200, 1800, 2400, 4800, 9600, 19200, 38400}},
        {0x1001,
         {57600, 115200, 230400, 460800, 500000, 576000, 921600, 1000000, 1152000, 1500000, -1, 2500000,
          3000000, 3500000, 4000000}}};
    for (const auto &[first, bauds] : rates)
        for (size_t i = 0; i < bauds.size(); ++i) {
            const int code = first + static_cast<int>(i);
            EXPECT_EQ(qzlib_uart_flag_to_baud(code), bauds[i]);
            EXPECT_EQ(qzlib_uart_baud_to_flag(bauds[i]), bauds[i] < 0 ? -1 : code);
        }
    for (const int absent : {2000000, 51, 16, 0x1010}) {
        EXPECT_EQ(qzlib_uart_baud_to_flag(absent), -1) << absent;
        EXPECT_EQ(qzlib_uart_flag_to_baud(absent), -1) << absent;
    }
    for (const qzlib_speed &row : speeds_list)
        EXPECT_EQ(static_cast<int>(row.code), qzlib_uart_baud_to_flag(static_cast<int>(row.baud)))
            << row.baud;
    EXPECT_EQ(speeds_list[22].baud, 0U) << "the end";
    EXPECT_EQ(qzlib_set_uart_baud_rate(3, 115200), 0);
    EXPECT_EQ(qzlib_get_uart_baud_rate(-1), 0);
}

} // namespace
