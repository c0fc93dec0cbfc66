#include "support/modem.h"
#include "support/scale.h"

#include <climits>
#include <cstring>
#include <functional>
#include <poll.h>
#include <pty.h>
#include <sys/resource.h>
#include <termios.h>

namespace
{

// Some milliseconds on a quiet machine; the rest is for one that runs six tests at once. A pass
// too many waits a second at least and does not hide in it.
const double GRACE_S = support::slowness() > 1 ? 3.0 : 1.0;

using support::Stopwatch;
using support::take_log;

constexpr int FLAGS = O_RDWR | O_NOCTTY | O_NONBLOCK | O_CLOEXEC;
constexpr const char *ANSWER = "\r\n+CREG: 0,1\r\n\r\nOK\r\n"; // of the simulated modem, to AT+CREG?

std::string letters(size_t count)
{
    std::string text;
    for (size_t i = 0; i < count; ++i)
        text += static_cast<char>('a' + i % 26);
    return text;
}

bool is_nonblocking(int fd)
{
    return (fcntl(fd, F_GETFL) & O_NONBLOCK) != 0;
}

// A raw pty pair whose other end the test is. Checks after every case that nothing is left.
struct Line : testing::Test {
    Line()
    {
        support::start_log();
        EXPECT_EQ(openpty(&peer, &fd, name, nullptr, nullptr), 0);
        termios raw{};
        tcgetattr(fd, &raw);
        cfmakeraw(&raw);
        tcsetattr(fd, TCSANOW, &raw);
        signal(SIGALRM, SIG_IGN);
        descriptors = support::open_descriptors();
    }
    ~Line() override
    {
        if (answering.joinable())
            answering.join();
        EXPECT_EQ(support::open_descriptors(), descriptors);
        EXPECT_EQ(alarm(0), 0U) << "an alarm is left";
    }

    void say(std::string_view bytes) const
    {
        EXPECT_EQ(write(peer, bytes.data(), bytes.size()), static_cast<ssize_t>(bytes.size()));
    }

    // Has it ready for reading.
    void leave(std::string_view bytes) const
    {
        say(bytes);
        pollfd waiting{fd, POLLIN, 0};
        EXPECT_EQ(poll(&waiting, 1, 5000), 1);
    }

    // What was sent, as far as it has arrived.
    [[nodiscard]] std::string sent() const
    {
        std::string bytes;
        char buffer[1024];
        pollfd waiting{peer, POLLIN, 0};
        while (poll(&waiting, 1, 50) > 0) {
            const ssize_t got = read(peer, buffer, sizeof buffer);
            if (got <= 0)
                break;
            bytes.append(buffer, static_cast<size_t>(got));
        }
        return bytes;
    }

    // Waits for the first byte of a command, then sends the pieces with pauses between them.
    void answer(std::vector<std::string> pieces, int pause_ms = 0)
    {
        if (answering.joinable())
            answering.join();
        answering = std::thread([this, pieces = std::move(pieces), pause_ms] {
            char buffer[1024];
            EXPECT_GT(read(peer, buffer, sizeof buffer), 0);
            for (const std::string &piece : pieces) {
                say(piece);
                usleep(static_cast<unsigned>(pause_ms) * 1000);
            }
        });
    }

    // "<LEVEL>FD text" with the descriptor filled in.
    [[nodiscard]] std::string traffic(const std::string &text) const
    {
        return "<DEBUG>" + std::to_string(fd) + " " + text + "\n";
    }

    int peer = -1;
    int fd = -1;
    char name[64] = {};
    size_t descriptors = 0;
    std::thread answering;
};

TEST_F(Line, command_goes_out_with_one_carriage_return)
{
    EXPECT_EQ(chat_send(fd, "AT+CSQ", 1), 7);
    EXPECT_EQ(sent(), "AT+CSQ\r");
    EXPECT_EQ(take_log(), traffic("<<< (AT+CSQ\r)"));
    EXPECT_TRUE(is_nonblocking(fd));
    EXPECT_EQ(chat_send(fd, "", 0), 1);
    EXPECT_EQ(sent(), "\r");
    EXPECT_EQ(take_log(), "");
}

TEST_F(Line, longest_command_and_longest_frame_go_out_whole)
{
    const std::string command = letters(509);
    EXPECT_EQ(chat_send(fd, command.c_str(), 0), 510);
    EXPECT_EQ(sent(), command + "\r");
    const std::string frame = std::string("\0\r\n\x80", 4) + letters(508);
    char answer[512];
    answer[511] = 'x';
    EXPECT_EQ(chat_send_hex_read(fd, frame.data(), answer, 512, 0, 0), 0);
    EXPECT_EQ(sent(), frame);
    EXPECT_EQ(answer[511], '\0');
    EXPECT_EQ(chat_send_ASCII_read(fd, frame.data(), answer, 0, 0, 0), 0); // answer[-1] is not touched
    EXPECT_EQ(sent(), "");
}

TEST_F(Line, bad_arguments_are_refused_with_nothing_sent)
{
    const std::string long_command = letters(510);
    const char *too_long = long_command.c_str();
    char b[600] = "untouched";
    const std::vector<std::function<int()>> calls = {
        [&] { return chat_send(-1, "AT", 1); },
        [&] { return chat_send(fd, nullptr, 1); },
        [&] { return chat_send(fd, too_long, 1); },
        [&] { return chat_expect(-1, "OK", 1, 1); },
        [&] { return chat_expect(fd, nullptr, 1, 1); },
        [&] { return chat_read(-1, b, 10, 1, 1); },
        [&] { return chat_read(fd, nullptr, 10, 1, 1); },
        [&] { return chat_send_expect(-1, "AT", "OK", 1, 1); },
        [&] { return chat_send_expect(fd, nullptr, "OK", 1, 1); },
        [&] { return chat_send_expect(fd, "AT", nullptr, 1, 1); },
        [&] { return chat_send_expect(fd, too_long, "OK", 1, 1); },
        [&] { return chat_send_read(-1, "AT", b, 10, 1, 1); },
        [&] { return chat_send_read(fd, nullptr, b, 10, 1, 1); },
        [&] { return chat_send_read(fd, "AT", nullptr, 10, 1, 1); },
        [&] { return chat_send_read(fd, too_long, b, 10, 1, 1); },
    };
    for (size_t i = 0; i < calls.size(); ++i) {
        EXPECT_EQ(calls[i](), -1) << i;
        EXPECT_EQ(take_log(), "<ERROR>argument error\n") << i;
    }
    for (auto *raw : {chat_send_ASCII_read, chat_send_hex_read})
        for (const int length : {-1, 513, INT_MAX, INT_MIN}) {
            EXPECT_EQ(raw(fd, b, b, length, 1, 1), -1) << length;
            EXPECT_EQ(raw(-1, b, b, 4, 1, 1), -1);
            EXPECT_EQ(raw(fd, nullptr, b, 4, 1, 1), -1);
            EXPECT_EQ(raw(fd, b, nullptr, 4, 1, 1), -1);
            EXPECT_EQ(take_log().size(), 4 * strlen("<ERROR>argument error\n"));
        }
    EXPECT_EQ(sent(), "");
    EXPECT_STREQ(b, "untouched");
    EXPECT_EQ(at_modem_error, 0);
}

TEST_F(Line, expected_text_ends_the_wait_at_once_even_in_pieces)
{
    answer({"\r\nO", "K\r\n"}, 100);
    const Stopwatch watch;
    EXPECT_EQ(chat_send_expect(fd, "AT", "OK", 10, 1), 1);
    EXPECT_LT(watch.seconds(), 5.0);
    EXPECT_EQ(take_log(), traffic("<<< (AT\r)") + traffic(">>> (\r\nOK\r\n)"));
    EXPECT_TRUE(is_nonblocking(fd));

    qzlib_set_block(fd);
    say(std::string("\0garbage\0OK", 11)); // the search does not end at a NUL
    EXPECT_EQ(chat_expect(fd, "OK", 10, 0), 1);
    EXPECT_EQ(take_log(), "");
    EXPECT_TRUE(is_nonblocking(fd));
}

TEST_F(Line, expecting_ends_at_silence_and_at_511_bytes)
{
    const Stopwatch watch;
    EXPECT_EQ(chat_send_expect(fd, "AT", "OK", 1, 1), 0);
    EXPECT_GE(watch.seconds(), 1.0);
    EXPECT_LT(watch.seconds(), 1 + GRACE_S);
    EXPECT_EQ(take_log(), traffic("<<< (AT\r)"));
    leave("ERROR");
    EXPECT_EQ(chat_expect(fd, "OK", 0, 1), 0);
    EXPECT_EQ(take_log(), traffic(">>> (ERROR)"));

    leave(letters(600));
    EXPECT_EQ(chat_expect(fd, "OK", 5, 1), 0);
    EXPECT_LT(watch.seconds(), 5.0);
    EXPECT_EQ(take_log(), traffic(">>> (" + letters(511) + ")"));
    char rest[90];
    EXPECT_EQ(chat_read(fd, rest, sizeof rest, 0, 0), 89);
    say(letters(509) + "OK");
    EXPECT_EQ(chat_expect(fd, "OK", 5, 0), 1) << "bytes 510 and 511";
    say(letters(510) + "OK");
    EXPECT_EQ(chat_expect(fd, "OK", 5, 0), 0) << "bytes 511 and 512";
}

TEST_F(Line, reading_fills_the_buffer_and_no_more)
{
    char b[16];
    memset(b, '#', sizeof b);
    EXPECT_EQ(chat_read(fd, b, 1, 5, 1), 0);
    EXPECT_EQ(std::string(b, 2), std::string("\0#", 2));
    EXPECT_EQ(chat_read(fd, b + 4, 0, 5, 1), 0); // touches nothing
    EXPECT_EQ(chat_read(fd, b + 4, -7, 5, 1), 0);
    EXPECT_EQ(chat_read(fd, b, 8, 0, 1), 0) << "silence";
    EXPECT_EQ(std::string(b, 9), std::string("\0######\0#", 9)) << "only the last byte is set";
    EXPECT_EQ(take_log(), "");

    say("0123456789");
    EXPECT_EQ(chat_read(fd, b, 8, 5, 1), 7); // at once: the buffer is full
    EXPECT_STREQ(b, "0123456");
    EXPECT_EQ(b[8], '#');
    EXPECT_EQ(take_log(), traffic(">>> (0123456)"));
    EXPECT_EQ(chat_read(fd, b, 8, 0, 0), 3);
    EXPECT_STREQ(b, "789");
    EXPECT_EQ(take_log(), "");
    EXPECT_TRUE(is_nonblocking(fd));
}

TEST_F(Line, answer_ends_after_a_whole_timeout_of_silence)
{
    char b[512];
    leave("RING stale");
    answer({"\r\n", "OK", "\r\n"}, 1000); // as long as the timeout in all, but not in one piece
    const Stopwatch watch;
    EXPECT_EQ(chat_send_read(fd, "AT", b, sizeof b, 2, 1), 6);
    EXPECT_GE(watch.seconds(), 4.0);
    EXPECT_LT(watch.seconds(), 4 + GRACE_S);
    EXPECT_STREQ(b, "\r\nOK\r\n") << "what was pending before is gone";
    EXPECT_EQ(take_log(), traffic("<<< (AT\r)") + traffic(">>> (\r\nOK\r\n)"));

    answer({letters(600)});
    EXPECT_EQ(chat_send_read(fd, "AT", b, sizeof b, 5, 0), 511);
    EXPECT_EQ(b, letters(511));
    char one[2] = {'#', '#'};
    EXPECT_EQ(chat_send_read(fd, "AT", one, 1, 5, 0), 0);
    EXPECT_EQ(sent(), "AT\r") << "the command goes out although there is no room for an answer";
    EXPECT_EQ(std::string(one, 2), std::string("\0#", 2));
    EXPECT_EQ(chat_send_read(fd, "AT", b, sizeof b, 0, 1), 0);
    EXPECT_EQ(take_log(), traffic("<<< (AT\r)"));
    EXPECT_EQ(at_modem_error, 0);
    EXPECT_TRUE(is_nonblocking(fd));
}

TEST_F(Line, removed_card_is_reported_whatever_log_says)
{
    char b[64];
    for (const int log : {0, 1}) {
        answer({"\r\n^SIMST", ":255\r\n"}, 100);
        EXPECT_EQ(chat_send_read(fd, "AT", b, sizeof b, 1, log), 14);
        EXPECT_EQ(take_log(), (log != 0 ? traffic("<<< (AT\r)") + traffic(">>> (\r\n^SIMST:255\r\n)") : "") +
                                  "<ERROR>..........USIM Remove........\n");
    }
    answer({"^SIMST:255\r\n"});
    EXPECT_EQ(chat_send_hex_read(fd, "\x01", b, 1, 1, 0), 12);
    EXPECT_EQ(take_log(), "<ERROR>..........USIM Remove........\n");
    answer({"^SIMST:25\r\n"});
    EXPECT_EQ(chat_send_read(fd, "AT", b, sizeof b, 1, 0), 11);
    EXPECT_EQ(take_log(), "");
}

TEST_F(Line, raw_answers_are_eight_and_twelve_bytes)
{
    const struct {
        decltype(&chat_send_hex_read) call;
        int most;
    } cases[] = {{chat_send_ASCII_read, 8}, {chat_send_hex_read, 12}};
    for (const auto &[call, most] : cases) {
        char b[16];
        memset(b, '#', sizeof b);
        const std::string frame = std::string("A\0\xff", 3);
        answer({letters(20)});
        Stopwatch pending;
        EXPECT_EQ(call(fd, frame.data(), b, 3, 5, 1), most);
        EXPECT_LT(pending.seconds(), 4.0) << "more is there: the last pass does not wait";
        EXPECT_EQ(std::string(b, 16), letters(static_cast<size_t>(most)) + '\0' +
                                          std::string(15 - static_cast<size_t>(most), '#'));
        EXPECT_EQ(take_log(), traffic("<<< (A)") + traffic(">>> (" + std::string(b) + ")"));
        EXPECT_EQ(chat_read(fd, b, sizeof b, 0, 0), std::min(20 - most, 15));

        answer({letters(static_cast<size_t>(most))});
        const Stopwatch exact;
        EXPECT_EQ(call(fd, frame.data(), b, 3, 1, 0), most);
        EXPECT_GE(exact.seconds(), 1.0) << "nothing more is there: the last pass waits";
        EXPECT_LT(exact.seconds(), 1 + GRACE_S);

        answer({"12345"});
        EXPECT_EQ(call(fd, frame.data(), b, 3, 1, 0), 5);
        EXPECT_STREQ(b, "12345");
        EXPECT_TRUE(is_nonblocking(fd));
    }
    EXPECT_EQ(at_modem_error, 0);
}

// ---- Failures -------------------------------------------------------------------------

// The log with the addresses made equal, since they differ from call to call.
std::string masked(std::string log)
{
    for (size_t at = log.find("0x"); at != std::string::npos; at = log.find("0x", at))
        log.replace(at, log.find_first_not_of("0123456789abcdef", at + 2) - at, "ADDRESS");
    return log;
}

// The results of all seven calls, in the order of the header.
std::vector<int> call_all(int fd, int timeout)
{
    char b[16] = "stale";
    return {chat_send(fd, "AT", 0),
            chat_expect(fd, "x", timeout, 1),
            chat_read(fd, b, sizeof b, timeout, 1),
            chat_send_expect(fd, "AT", "x", timeout, 0),
            chat_send_read(fd, "AT", b, sizeof b, timeout, 0),
            chat_send_ASCII_read(fd, "12", b, 2, timeout, 0),
            chat_send_hex_read(fd, "123", b, 3, timeout, 0)};
}

TEST_F(Line, failed_writes_are_logged_counted_and_returned)
{
    const int reader = open(name, O_RDONLY | O_NOCTTY | O_CLOEXEC);
    EXPECT_EQ(call_all(reader, 0), (std::vector{-1, 0, 0, -1, -1, -1, -1}));
    const std::string number = std::to_string(reader);
    EXPECT_EQ(take_log(), "<ERROR>Cannot write( " + number + ", AT\r, 3 )\n" + "<ERROR>cannot write( " +
                              number + ", AT\r, 3 )\n" + "<ERROR>cannot write( " + number + ", AT\r, 3 )\n" +
                              "<ERROR>cannot write( " + number + ", 12, 2 )\n" + "<ERROR>cannot write( " +
                              number + ", 123, 3 )\n");
    EXPECT_EQ(at_modem_error, 3);
    EXPECT_TRUE(is_nonblocking(reader));
    close(reader);
}

TEST_F(Line, failed_waits_are_logged_counted_and_returned)
{
    EXPECT_EQ(call_all(fd, -1), (std::vector{3, -1, -1, -1, -1, -1, -1}));
    std::string expected;
    for (int i = 0; i < 6; ++i)
        expected += "<ERROR>cannot select( " + std::to_string(fd + 1) + ", ADDRESS, NULL, NULL, ADDRESS )\n";
    EXPECT_EQ(masked(take_log()), expected);
    EXPECT_EQ(at_modem_error, 3);
    EXPECT_EQ(chat_expect(9999, "x", 1, 0), -1) << "not open";
}

// A file opened for writing counts as readable, and reading it fails.
TEST_F(Line, failed_reads_end_a_plain_read_only)
{
    const int writer = open("/tmp/file", O_WRONLY | O_CREAT | O_CLOEXEC, 0600);
    EXPECT_EQ(call_all(writer, 1), (std::vector{3, -1, 0, -1, -1, -1, -1}));
    std::string expected;
    for (const char *size : {"511", "15", "511", "15", "1", "2"})
        expected += "<ERROR>cannot read( " + std::to_string(writer) + ", , " + size + " )\n";
    EXPECT_EQ(take_log(), expected);
    EXPECT_EQ(at_modem_error, 3);
    EXPECT_EQ(support::read_file("/tmp/file"), "AT\rAT\rAT\r12123");
    close(writer);
}

TEST_F(Line, signal_ends_the_wait_and_is_logged)
{
    struct sigaction action = {};
    action.sa_handler = chat_signal_handler;
    sigaction(SIGHUP, &action, nullptr);
    const pthread_t self = pthread_self();
    answering = std::thread([self] {
        usleep(200'000);
        pthread_kill(self, SIGHUP);
    });
    char b[16];
    EXPECT_EQ(chat_read(fd, b, sizeof b, 10, 0), -1);
    EXPECT_EQ(masked(take_log()), "<ERROR>vq_chat receive the signal(1)\n<ERROR>cannot select( " +
                                      std::to_string(fd + 1) + ", ADDRESS, NULL, NULL, ADDRESS )\n");
}

TEST_F(Line, descriptors_above_the_size_of_an_fd_set_work)
{
    const rlimit limit{4096, 4096};
    ASSERT_EQ(setrlimit(RLIMIT_NOFILE, &limit), 0);
    const int high = dup2(fd, 3000);
    ASSERT_EQ(high, 3000);
    char b[16];
    answer({"OK"});
    EXPECT_EQ(chat_send_read(high, "AT", b, sizeof b, 1, 0), 2);
    EXPECT_EQ(chat_read(high, b, sizeof b, 0, 0), 0);
    close(high);
}

// ---- Against the simulated modem ------------------------------------------------------

struct Profile {
    const char *name;
    const char *fault;
    std::string answer; // to AT+CREG?
    double arrives_s;   // until the last byte is there
    int errors;         // of the three exchanges that are counted
};

void PrintTo(const Profile &profile, std::ostream *out)
{
    *out << profile.fault;
}

class BadModem : public testing::TestWithParam<Profile>
{
};

TEST_P(BadModem, every_call_ends_in_time_with_what_arrived)
{
    const Profile &profile = GetParam();
    const size_t descriptors = support::open_descriptors();
    support::start_log();
    support::Modem modem({"--fault", profile.fault});
    const int fd = dev_init(support::Modem::TTY, FLAGS, 115200);
    ASSERT_GT(fd, 0);

    char b[512];
    const Stopwatch send_read;
    const int length = chat_send_read(fd, "AT+CREG?", b, sizeof b, 1, 1);
    EXPECT_LT(send_read.seconds(), profile.arrives_s + 1 + GRACE_S);
    const std::string text(b, static_cast<size_t>(std::max(length, 0)));
    const bool hung_up_first = profile.errors > 0 && length < 0; // the kernel drops what is unread then
    if (strcmp(profile.name, "garbage") == 0) {
        EXPECT_EQ(text.size(), 300U); // whatever they are
    } else if (!hung_up_first) {
        EXPECT_EQ(text, profile.answer);
    }

    const Stopwatch send_expect;
    EXPECT_GE(chat_send_expect(fd, "AT+CREG?", "OK", 1, 0), -1);
    EXPECT_LT(send_expect.seconds(), profile.arrives_s + 1 + GRACE_S);
    const Stopwatch send;
    EXPECT_GE(chat_send(fd, "AT+CREG?", 0), -1);
    EXPECT_LT(send.seconds(), GRACE_S);
    const Stopwatch read;
    EXPECT_GE(chat_read(fd, b, sizeof b, 1, 0), 0);
    EXPECT_LT(read.seconds(), profile.arrives_s + 1 + GRACE_S);
    for (auto *raw : {chat_send_ASCII_read, chat_send_hex_read}) {
        const Stopwatch frame;
        EXPECT_GE(raw(fd, "\xa5\x02", b, 3, 1, 0), -1);
        EXPECT_LT(frame.seconds(), profile.arrives_s + 1 + GRACE_S);
    }
    EXPECT_GE(at_modem_error, profile.errors);
    EXPECT_LE(at_modem_error, profile.errors + (hung_up_first ? 1 : 0));
    EXPECT_TRUE(profile.errors > 0 || is_nonblocking(fd));
    EXPECT_EQ(dev_close(fd), 0);
    EXPECT_EQ(support::open_descriptors(), descriptors);
}

const Profile PROFILES[] = {
    {"no_fault", "late=0", ANSWER, 0, 0},
    {"late", "late=300", ANSWER, 0.3, 0},
    {"too_late", "late=1500", "", 0, 0},
    {"in_pieces", "pieces=5,300", ANSWER, 1.2, 0},
    {"byte_by_byte", "bytes=3", ANSWER, 0.2, 0},
    {"line_before", "before=RING", std::string("\r\nRING\r\n") + ANSWER, 0, 0},
    {"line_inside", "inside=RING", "\r\n+CREG: 0\r\nRING\r\n,1\r\n\r\nOK\r\n", 0, 0},
    {"line_after", "after=RING", std::string(ANSWER) + "\r\nRING\r\n", 0, 0},
    {"silence", "silence", "", 0, 0},
    {"garbage", "garbage=300", "", 0, 0},
    {"too_long", "length=5000", letters(511), 0, 0},
    {"hang_up", "hangup", "\r\n+CREG: 0", 0.2, 2},
    {"tty_gone", "vanish", "", 0, 2},
};
INSTANTIATE_TEST_SUITE_P(Profiles, BadModem, testing::ValuesIn(PROFILES),
                         [](const auto &parameter) { return parameter.param.name; });

TEST(SimulatedModem, removal_of_the_card_is_seen_in_the_answer)
{
    support::start_log();
    support::Modem modem({"--fault", "usim@AT+CREG?"});
    const int fd = dev_init(support::Modem::TTY, FLAGS, 115200);
    char b[512];
    EXPECT_GT(chat_send_read(fd, "AT+CREG?", b, sizeof b, 1, 0), 0);
    EXPECT_EQ(b, std::string(ANSWER) + "\r\n^SIMST:255\r\n");
    EXPECT_NE(take_log().find("<ERROR>..........USIM Remove........\n"), std::string::npos);
    EXPECT_EQ(chat_send_expect(fd, "AT+CPIN?", "+CME ERROR: 10", 5, 0), 1);
    modem.control("clear");
    EXPECT_EQ(chat_send_expect(fd, "at+cpin?", "+CPIN: READY", 5, 0), 1);
    modem.control("value operator = \"Roaming\"");
    EXPECT_EQ(chat_send_expect(fd, "AT+COPS?", "\"Roaming\"", 5, 0), 1);
    EXPECT_EQ(chat_send_expect(fd, "AT+NONE", "ERROR", 5, 0), 1);
    EXPECT_EQ(chat_send_hex_read(fd, "\xa5\x01\0", b, 3, 1, 0), 4);
    EXPECT_EQ(std::string(b, 4), std::string("\xa5\x01\0\x06", 4));
    EXPECT_EQ(dev_close(fd), 0);
    EXPECT_NE(modem.transcript().find(" <- AT+CPIN?\\r\n"), std::string::npos);
    EXPECT_NE(modem.transcript().find(" -> \\r\\n+CME ERROR: 10\\r\\n\n"), std::string::npos);
}

// A line that never drains: the alarm breaks the write off, the process lives.
void expect_write_broken_off(double limit_s, const std::string &message, const std::function<int(int)> &call)
{
    support::start_log();
    support::Modem modem({"--fault", "stall"});
    const int fd = dev_init(support::Modem::TTY, FLAGS, 115200);
    take_log();
    const Stopwatch watch;
    EXPECT_EQ(call(fd), -1);
    EXPECT_EQ(errno, EINTR);
    EXPECT_GE(watch.seconds(), limit_s);
    EXPECT_LT(watch.seconds(), limit_s + GRACE_S);
    EXPECT_EQ(take_log(), "<ERROR>vq_chat receive the signal(14)\n<ERROR>" + message + "( " +
                              std::to_string(fd) + ", AT\r, 3 )\n");
    EXPECT_TRUE(is_nonblocking(fd));
    modem.control("clear");
    EXPECT_EQ(chat_send_expect(fd, "AT", "OK", 5, 0), 1) << "the line is of use again";
    EXPECT_EQ(dev_close(fd), 0);
}

TEST(LineThatNeverDrains, send_ends_after_ten_seconds)
{
    expect_write_broken_off(10, "Cannot write", [](int fd) { return chat_send(fd, "AT", 0); });
    EXPECT_EQ(at_modem_error, 0);
}

TEST(LineThatNeverDrains, send_and_expect_ends_after_ten_seconds)
{
    expect_write_broken_off(10, "cannot write",
                            [](int fd) { return chat_send_expect(fd, "AT", "OK", 1, 0); });
    EXPECT_EQ(at_modem_error, 0);
}

TEST(LineThatNeverDrains, send_and_read_ends_after_five_seconds)
{
    char b[16];
    expect_write_broken_off(5, "cannot write",
                            [&b](int fd) { return chat_send_read(fd, "AT", b, 16, 1, 0); });
    expect_write_broken_off(5, "cannot write",
                            [&b](int fd) { return chat_send_hex_read(fd, "AT\r", b, 3, 1, 0); });
    EXPECT_EQ(at_modem_error, 2);
}

} // namespace
