#include "support/log.h"
#include "support/modem.h"

#include <climits>
#include <poll.h>
#include <pty.h>
#include <termios.h>

namespace
{

using namespace support;

// Some milliseconds on a quiet machine; the rest is for one that runs six tests at once. A pass
// too many waits a second at least and does not hide in it.
const double GRACE_S = support::slowness() > 1 ? 3.0 : 1.0;

using Results = std::vector<int>;

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

// The results of all seven calls, in the order of the header.
Results call_all(int fd, int timeout, char *buffer, const char *command = "AT", const char *expected = "x",
                 int length = 2)
{
    return {chat_send(fd, command, 0),
            chat_expect(fd, expected, timeout, 1),
            chat_read(fd, buffer, 16, timeout, 1),
            chat_send_expect(fd, command, expected, timeout, 0),
            chat_send_read(fd, command, buffer, 16, timeout, 0),
            chat_send_ASCII_read(fd, command, buffer, length, timeout, 0),
            chat_send_hex_read(fd, command, buffer, length, timeout, 0)};
}

// "<LEVEL>text" as often as there are arguments, with "%" for them.
std::string lines(const std::string &text, const std::vector<std::string> &arguments)
{
    std::string all;
    for (const std::string &argument : arguments)
        all += std::string(text).replace(text.find('%'), 1, argument) + "\n";
    return all;
}

// A raw pty pair whose other end the test is. Checks after every case that nothing is left.
struct Line : testing::Test {
    Line()
    {
        start_log();
        EXPECT_EQ(openpty(&peer, &fd, name, nullptr, nullptr), 0);
        termios raw{};
        tcgetattr(fd, &raw);
        cfmakeraw(&raw);
        tcsetattr(fd, TCSANOW, &raw);
        signal(SIGALRM, SIG_IGN);
        descriptors = open_descriptors();
    }
    ~Line() override
    {
        if (answering.joinable())
            answering.join();
        EXPECT_EQ(open_descriptors(), descriptors);
        EXPECT_EQ(alarm(0), 0U) << "an alarm is left";
    }

    // Has bytes ready for reading.
    void say(std::string_view bytes) const
    {
        EXPECT_EQ(write(peer, bytes.data(), bytes.size()), static_cast<ssize_t>(bytes.size()));
        pollfd waiting{fd, POLLIN, 0};
        EXPECT_EQ(poll(&waiting, 1, 5000), 1);
    }

    // What was sent, as far as it has arrived.
    [[nodiscard]] std::string sent() const
    {
        std::string bytes;
        char buffer[1024];
        pollfd waiting{peer, POLLIN, 0};
        while (poll(&waiting, 1, 50) > 0)
            bytes.append(buffer, static_cast<size_t>(read(peer, buffer, sizeof buffer)));
        return bytes;
    }

    // Waits for the first byte of a command, then sends the pieces with pauses between them.
    void answer(std::vector<std::string> pieces, unsigned pause_ms = 0)
    {
        if (answering.joinable())
            answering.join();
        answering = std::thread([this, pieces = std::move(pieces), pause_ms] {
            char buffer[1024];
            EXPECT_GT(read(peer, buffer, sizeof buffer), 0);
            for (const std::string &piece : pieces) {
                EXPECT_GT(write(peer, piece.data(), piece.size()), 0);
                usleep(pause_ms * 1000);
            }
        });
    }

    // "<DEBUG>FD text" with the descriptor filled in.
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

TEST_F(Line, commands_and_frames_go_out_whole)
{
    EXPECT_EQ(chat_send(fd, "AT+CSQ", 1), 7);
    EXPECT_EQ(sent(), "AT+CSQ\r");
    EXPECT_EQ(take_log(), traffic("<<< (AT+CSQ\r)"));
    EXPECT_TRUE(is_nonblocking(fd));
    EXPECT_EQ(chat_send(fd, "", 0), 1);
    EXPECT_EQ(sent(), "\r");
    EXPECT_EQ(chat_send(fd, letters(509).c_str(), 0), 510);
    EXPECT_EQ(sent(), letters(509) + "\r");
    EXPECT_EQ(take_log(), "");

    const std::string frame = std::string("\0\r\n\x80", 4) + letters(508);
    char b[512];
    b[511] = 'x';
    EXPECT_EQ(chat_send_hex_read(fd, frame.data(), b, 512, 0, 0), 0);
    EXPECT_EQ(sent(), frame);
    EXPECT_EQ(b[511], '\0');
    EXPECT_EQ(chat_send_ASCII_read(fd, frame.data(), b, 0, 0, 0), 0); // b[-1] is not touched
    EXPECT_EQ(sent(), "");
}

TEST_F(Line, bad_arguments_are_refused_with_nothing_sent)
{
    const std::string too_long = letters(510);
    char b[600] = "untouched";
    EXPECT_EQ(call_all(-1, 0, b), Results(7, -1));
    const Results without_command = {-1, 0, 0, -1, -1, -1, -1};
    EXPECT_EQ(call_all(fd, 0, b, nullptr), without_command);
    EXPECT_EQ(call_all(fd, 0, b, too_long.c_str(), "x", 513), without_command);
    for (const int length : {-1, INT_MAX, INT_MIN}) {
        EXPECT_EQ(chat_send_ASCII_read(fd, b, b, length, 0, 0), -1) << length;
        EXPECT_EQ(chat_send_hex_read(fd, b, b, length, 0, 0), -1) << length;
    }
    EXPECT_EQ(chat_send_expect(fd, "AT", nullptr, 0, 0), -1);
    EXPECT_EQ(chat_send_read(fd, "AT", nullptr, 16, 0, 0), -1);
    EXPECT_EQ(sent(), "");
    EXPECT_STREQ(b, "untouched");
    EXPECT_EQ(call_all(fd, 0, nullptr, "AT", nullptr), (Results{3, -1, -1, -1, -1, -1, -1}));
    EXPECT_EQ(sent(), "AT\r");
    EXPECT_EQ(take_log(), lines("<ERROR>argument error%", std::vector<std::string>(31, "")));
    EXPECT_EQ(at_modem_error, 0);
}

TEST_F(Line, expected_text_ends_the_wait_at_once_even_in_pieces)
{
    answer({"\r\nO", "K\r\n"}, 100);
    const Stopwatch watch;
    EXPECT_EQ(chat_send_expect(fd, "AT", "OK", 10, 1), 1);
    EXPECT_EQ(take_log(), traffic("<<< (AT\r)") + traffic(">>> (\r\nOK\r\n)"));
    say(std::string("\0garbage\0OK", 11)); // the search does not end at a NUL
    EXPECT_EQ(chat_expect(fd, "OK", 10, 0), 1);
    EXPECT_EQ(take_log(), "");
    say(letters(509) + "OK");
    EXPECT_EQ(chat_expect(fd, "OK", 10, 0), 1) << "bytes 510 and 511";
    EXPECT_LT(watch.seconds(), 8.0);
}

TEST_F(Line, expecting_ends_at_silence_and_at_511_bytes)
{
    const Stopwatch watch;
    EXPECT_EQ(chat_send_expect(fd, "AT", "OK", 1, 1), 0);
    EXPECT_GE(watch.seconds(), 1.0);
    EXPECT_LT(watch.seconds(), 1 + GRACE_S);
    EXPECT_EQ(take_log(), traffic("<<< (AT\r)"));
    say("ERROR");
    EXPECT_EQ(chat_expect(fd, "OK", 0, 1), 0);
    EXPECT_EQ(take_log(), traffic(">>> (ERROR)"));
    say(letters(510) + "OKrest");
    EXPECT_EQ(chat_expect(fd, "OK", 5, 1), 0) << "bytes 511 and 512";
    EXPECT_LT(watch.seconds(), 5.0);
    EXPECT_EQ(take_log(), traffic(">>> (" + letters(510) + "O)"));
    EXPECT_TRUE(is_nonblocking(fd));
}

TEST_F(Line, reading_fills_the_buffer_and_no_more)
{
    // Size, what is said, result, the whole buffer of 9 bytes, logged.
    const Table<int, std::string, int, std::string, std::string> cases = {
        {1, "", 0, std::string("\0########", 9), ""},
        {0, "", 0, "#########", ""},
        {-7, "", 0, "#########", ""},
        {8, "", 0, std::string("#######\0#", 9), ""}, // silence: only the last byte is set
        {8, "0123456789", 7, std::string("0123456\0#", 9), traffic(">>> (0123456)")},
        {8, "", 3, std::string("789\0###\0#", 9), traffic(">>> (789)")}, // the rest
    };
    for (const auto &[size, said, result, buffer, logged] : cases) {
        std::string b(9, '#');
        if (!said.empty())
            say(said);
        EXPECT_EQ(chat_read(fd, b.data(), size, said.empty() ? 0 : 5, 1), result) << size;
        EXPECT_EQ(b, buffer) << size;
        EXPECT_EQ(take_log(), logged);
    }
    EXPECT_TRUE(is_nonblocking(fd));
}

TEST_F(Line, answer_ends_after_a_whole_timeout_of_silence)
{
    char b[512];
    say("RING stale");
    answer({"\r\n", "OK", "\r\n"}, 600); // longer than the timeout in all, but not in one piece
    const Stopwatch watch;
    EXPECT_EQ(chat_send_read(fd, "AT", b, sizeof b, 1, 1), 6);
    EXPECT_GE(watch.seconds(), 2.2);
    EXPECT_LT(watch.seconds(), 2.2 + GRACE_S);
    EXPECT_STREQ(b, "\r\nOK\r\n") << "what was pending before is gone";
    EXPECT_EQ(take_log(), traffic("<<< (AT\r)") + traffic(">>> (\r\nOK\r\n)"));

    answer({letters(600)});
    EXPECT_EQ(chat_send_read(fd, "AT", b, sizeof b, 5, 0), 511);
    EXPECT_EQ(b, letters(511));
    char one[2] = {'#', '#'};
    EXPECT_EQ(chat_send_read(fd, "AT", one, 1, 5, 0), 0);
    EXPECT_EQ(sent(), "AT\r") << "the command goes out although there is no room for an answer";
    EXPECT_EQ(std::string(one, 2), std::string("\0#", 2));
    EXPECT_EQ(take_log(), "");
    EXPECT_TRUE(is_nonblocking(fd));
}

TEST_F(Line, removed_card_is_reported_whatever_log_says)
{
    const std::string removal = "<ERROR>..........USIM Remove........\n";
    char b[64];
    answer({"\r\n^SIMST", ":255\r\n"}, 100);
    EXPECT_EQ(chat_send_read(fd, "AT", b, sizeof b, 1, 1), 14);
    EXPECT_EQ(take_log(), traffic("<<< (AT\r)") + traffic(">>> (\r\n^SIMST:255\r\n)") + removal);
    answer({"^SIMST:255\r\n"});
    EXPECT_EQ(chat_send_hex_read(fd, "\x01", b, 1, 1, 0), 12);
    EXPECT_EQ(take_log(), removal);
    answer({"^SIMST:25\r\n"});
    EXPECT_EQ(chat_send_read(fd, "AT", b, sizeof b, 1, 0), 11);
    EXPECT_EQ(take_log(), "");
}

TEST_F(Line, raw_answers_are_eight_and_twelve_bytes)
{
    const Table<decltype(&chat_send_hex_read), size_t> cases = {{chat_send_ASCII_read, 8},
                                                                {chat_send_hex_read, 12}};
    for (const auto &[call, most] : cases) {
        const std::string frame("A\0\xff", 3);
        std::string b(16, '#');
        answer({letters(20)});
        const Stopwatch pending;
        EXPECT_EQ(call(fd, frame.data(), b.data(), 3, 5, 1), static_cast<int>(most));
        EXPECT_LT(pending.seconds(), 4.0) << "more is there: the last pass does not wait";
        EXPECT_EQ(b, letters(most) + '\0' + std::string(15 - most, '#'));
        EXPECT_EQ(take_log(), traffic("<<< (A)") + traffic(">>> (" + letters(most) + ")"));

        answer({letters(most)});
        const Stopwatch exact;
        EXPECT_EQ(call(fd, frame.data(), b.data(), 3, 1, 0), static_cast<int>(most)) << "the rest is gone";
        EXPECT_GE(exact.seconds(), 1.0) << "nothing more is there: the last pass waits";
        EXPECT_LT(exact.seconds(), 1 + GRACE_S);
        answer({"12345"});
        EXPECT_EQ(call(fd, frame.data(), b.data(), 3, 1, 0), 5);
        EXPECT_STREQ(b.c_str(), "12345");
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

// The line of a wait that failed, with the addresses masked.
std::string cannot_select(int fd)
{
    return "<ERROR>cannot select( " + std::to_string(fd + 1) + ", ADDRESS, NULL, NULL, ADDRESS )\n";
}

TEST_F(Line, failures_are_logged_counted_and_returned)
{
    char b[16] = "stale";
    const int reader = open(name, O_RDONLY | O_NOCTTY | O_CLOEXEC);
    EXPECT_EQ(call_all(reader, 0, b), (Results{-1, 0, 0, -1, -1, -1, -1}));
    const std::string number = std::to_string(reader);
    EXPECT_EQ(take_log(), lines("<ERROR>Cannot write( " + number + ", % )", {"AT\r, 3"}) +
                              lines("<ERROR>cannot write( " + number + ", % )",
                                    {"AT\r, 3", "AT\r, 3", "AT, 2", "AT, 2"}));
    EXPECT_EQ(at_modem_error, 3);
    EXPECT_TRUE(is_nonblocking(reader));
    close(reader);

    EXPECT_EQ(call_all(fd, -1, b), (Results{3, -1, -1, -1, -1, -1, -1})) << "no such time to wait";
    std::string expected;
    for (int i = 0; i < 6; ++i)
        expected += cannot_select(fd);
    EXPECT_EQ(masked(take_log()), expected);
    EXPECT_EQ(at_modem_error, 6);
    EXPECT_EQ(chat_expect(9999, "x", 1, 0), -1) << "not open";
    EXPECT_EQ(masked(take_log()), cannot_select(9999));

    signal(SIGALRM, chat_signal_handler);
    alarm(1);
    EXPECT_EQ(chat_read(fd, b, sizeof b, 10, 0), -1) << "a signal ends the wait";
    EXPECT_EQ(masked(take_log()), "<ERROR>vq_chat receive the signal(14)\n" + cannot_select(fd));

    // A file opened for writing counts as readable, and reading it fails.
    const int writer = open("/tmp/file", O_WRONLY | O_CREAT | O_CLOEXEC, 0600);
    EXPECT_EQ(call_all(writer, 1, b), (Results{3, -1, 0, -1, -1, -1, -1})) << "a plain read only ends";
    EXPECT_EQ(take_log(), lines("<ERROR>cannot read( " + std::to_string(writer) + ", , % )",
                                {"511", "15", "511", "15", "1", "1"}));
    EXPECT_EQ(at_modem_error, 9);
    EXPECT_EQ(read_file("/tmp/file"), "AT\rAT\rAT\rATAT");
    close(writer);
}

TEST_F(Line, descriptors_above_the_size_of_an_fd_set_work)
{
    const rlimit limit{4096, 4096};
    ASSERT_EQ(setrlimit(RLIMIT_NOFILE, &limit), 0);
    const int high = dup2(fd, 3000);
    char b[16];
    answer({"OK"});
    EXPECT_EQ(chat_send_read(high, "AT", b, sizeof b, 1, 0), 2);
    close(high);
}

// ---- Against the simulated modem ------------------------------------------------------

// Name, fault, answer to AT+CREG?, seconds until its last byte is there, errors of the three
// exchanges that are counted.
using Profile = std::tuple<const char *, const char *, std::string, double, int>;
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

class BadModem : public testing::TestWithParam<size_t>
{
};

TEST_P(BadModem, every_call_ends_in_time_with_what_arrived)
{
    const auto &[name, fault, answer, arrives_s, errors] = PROFILES[GetParam()];
    const double limit_s = arrives_s + 1 + GRACE_S;
    const size_t descriptors = open_descriptors();
    start_log();
    Modem modem({"--fault", fault});
    const int fd = dev_init(Modem::TTY, FLAGS, 115200);
    ASSERT_GT(fd, 0);

    char b[512] = "";
    const Stopwatch send_read;
    const int length = chat_send_read(fd, "AT+CREG?", b, sizeof b, 1, 1);
    EXPECT_LT(send_read.seconds(), limit_s);
    const bool hung_up_first = errors > 0 && length < 0; // the kernel drops what is unread then
    if (std::string(name) == "garbage") {
        EXPECT_EQ(length, 300); // whatever they are
    } else if (!hung_up_first) {
        EXPECT_EQ(std::string(b, static_cast<size_t>(std::max(length, 0))), answer);
    }

    const std::function<int()> calls[] = {[&] { return chat_send_expect(fd, "AT+CREG?", "OK", 1, 0); },
                                          [&] { return chat_send(fd, "AT+CREG?", 0); },
                                          [&] { return chat_read(fd, b, sizeof b, 1, 0); },
                                          [&] { return chat_send_ASCII_read(fd, "\xa5\x02", b, 3, 1, 0); },
                                          [&] { return chat_send_hex_read(fd, "\xa5\x02", b, 3, 1, 0); }};
    for (const auto &call : calls) {
        const Stopwatch watch;
        EXPECT_GE(call(), -1);
        EXPECT_LT(watch.seconds(), limit_s);
    }
    EXPECT_GE(at_modem_error, errors);
    EXPECT_LE(at_modem_error, errors + (hung_up_first ? 1 : 0));
    EXPECT_EQ(dev_close(fd), 0);
    EXPECT_EQ(open_descriptors(), descriptors);
}

INSTANTIATE_TEST_SUITE_P(Profiles, BadModem, testing::Range<size_t>(0, std::size(PROFILES)),
                         [](const auto &row) { return std::get<0>(PROFILES[row.param]); });

TEST(SimulatedModem, does_what_it_is_told)
{
    const std::string x = "\r\n$ Home\r\n";
    const Table<const char *, const char *, std::string> cases = {
        {"", "ATE0", "ATE0\r\r\nOK\r\n"},
        {"", "AT$QCRMCALL=1,1", "\r\n$QCRMCALL: 1, V4\r\n\r\nOK\r\n"},
        {"answer AT+X => $$ $operator", "at+x", "\r\n$ \"Example Mobile\"\r\n"},
        {"value operator = Home", "AT+X", x},
        {"fault before=ALL", "AT+X", "\r\nALL\r\n" + x},
        {"fault before=SOME@AT+*", "AT+X", "\r\nSOME\r\n" + x},
        {"fault before=NEW", "AT+X", "\r\nSOME\r\n" + x},
        {"nofault before@AT+*", "AT+X", "\r\nNEW\r\n" + x},
        {"nofault before", "AT+X", "\r\nALL\r\n" + x},
        {"clear", "AT+X", x},
        {"fault 1:half=4", "AT+X", "\r\n$ "},
        {"", "AT+X", x},
        {"", "AT+CMGS=1", "\r\n> "},
        {"", "some text\x1a", "\r\n+CMGS: 17\r\n\r\nOK\r\n"},
    };
    start_log();
    Modem modem({"--echo", "on"});
    int fd = dev_init(Modem::TTY, FLAGS, 115200);
    char b[512];
    for (const auto &[instruction, command, expected] : cases) {
        if (*instruction != '\0')
            modem.control(instruction);
        EXPECT_EQ(chat_send_read(fd, command, b, sizeof b, 1, 0), expected.size()) << command;
        EXPECT_EQ(b, expected) << instruction;
    }
    modem.control("fault drop=2");
    EXPECT_EQ(chat_send_read(fd, "AT+X", b, sizeof b, 1, 0), x.size() - 2);
    modem.control("fault vanish=0");
    chat_send(fd, "AT", 0);
    dev_close(fd);
    EXPECT_TRUE(
        eventually([] { return Modem::transcript().find("-> \\r\\nRDY\\r\\n") != std::string::npos; }));
    modem.control("clear");
    fd = dev_init(Modem::TTY, FLAGS, 115200);
    EXPECT_EQ(chat_send_expect(fd, "AT", "AT\r\r\nOK", 5, 0), 1) << "the echo is on again";
    modem.control("fault late=60000");
    chat_send(fd, "AT", 0);
    modem.control("say RING");
    EXPECT_EQ(chat_expect(fd, "\r\nRING\r\n", 5, 0), 1) << "before the answer";
    EXPECT_EQ(dev_close(fd), 0);
}

// A line that never drains: the alarm breaks the write off, the process lives.
using Stalled = std::tuple<const char *, double, const char *, int, int (*)(int fd, char *buffer)>;
const Stalled STALLED[] = {
    {"send", 10, "Cannot write", 0, [](int fd, char *) { return chat_send(fd, "AT", 0); }},
    {"expect", 10, "cannot write", 0, [](int fd, char *) { return chat_send_expect(fd, "AT", "OK", 1, 0); }},
    {"read", 5, "cannot write", 1, [](int fd, char *b) { return chat_send_read(fd, "AT", b, 16, 1, 0); }},
    {"hex", 5, "cannot write", 1, [](int fd, char *b) { return chat_send_hex_read(fd, "AT\r", b, 3, 1, 0); }},
};

class LineThatNeverDrains : public testing::TestWithParam<size_t>
{
};

TEST_P(LineThatNeverDrains, is_given_up_at_the_limit_and_of_use_again)
{
    const auto &[name, limit_s, message, errors, call] = STALLED[GetParam()];
    start_log();
    Modem modem({"--fault", "stall=3"});
    const int fd = dev_init(Modem::TTY, FLAGS, 115200);
    EXPECT_EQ(chat_send_expect(fd, "AT", "OK", 5, 0), 1) << "so many bytes are taken";
    take_log();
    char b[16];
    const Stopwatch watch;
    EXPECT_EQ(call(fd, b), -1);
    EXPECT_EQ(errno, EINTR);
    EXPECT_GE(watch.seconds(), limit_s);
    EXPECT_LT(watch.seconds(), limit_s + GRACE_S);
    EXPECT_EQ(take_log(), std::string("<ERROR>vq_chat receive the signal(14)\n<ERROR>") + message + "( " +
                              std::to_string(fd) + ", AT\r, 3 )\n");
    EXPECT_EQ(at_modem_error, errors);
    EXPECT_TRUE(is_nonblocking(fd));
    modem.control("clear");
    EXPECT_EQ(chat_send_expect(fd, "AT", "OK", 5, 0), 1);
    EXPECT_EQ(dev_close(fd), 0);
}

INSTANTIATE_TEST_SUITE_P(Calls, LineThatNeverDrains, testing::Range<size_t>(0, std::size(STALLED)),
                         [](const auto &row) { return std::get<0>(STALLED[row.param]); });

} // namespace
