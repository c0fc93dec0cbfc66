#include "support/case.h"
#include "support/log.h"

#include <climits>
#include <list>
#include <poll.h>
#include <pty.h>
#include <termios.h>

namespace
{

using namespace support;

// A pass too many waits a second at least and does not hide in it, but where everything is slow.
const double GRACE_S = slowness() > 1 ? 3.0 : 1.0;

using Results = std::vector<int>;

constexpr int FLAGS = O_RDWR | O_NOCTTY | O_NONBLOCK | O_CLOEXEC;

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
        const rlimit limit{4096, 4096};
        setrlimit(RLIMIT_NOFILE, &limit);
        EXPECT_EQ(openpty(&peer, &fd, name, nullptr, nullptr), 0);
        fd = dup2(fd, 3000); // above the size of an fd_set
        termios raw{};
        tcgetattr(fd, &raw);
        cfmakeraw(&raw);
        tcsetattr(fd, TCSANOW, &raw);
        signal(SIGALRM, SIG_IGN);
        descriptors = open_descriptors();
    }
    ~Line() override
    {
        EXPECT_EQ(open_descriptors(), descriptors);
        EXPECT_EQ(alarm(0), 0U) << "an alarm is left";
    }

    // Has bytes ready for reading.
    void say(std::string_view bytes) const
    {
        EXPECT_EQ(write(peer, bytes.data(), bytes.size()), static_cast<ssize_t>(bytes.size()));
        pollfd waiting{fd, POLLIN, 0};
        EXPECT_EQ(poll(&waiting, 1, -1), 1);
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

    // Waits for the first byte of a command, then sends the pieces with a second between them.
    [[nodiscard]] std::jthread answer(std::vector<std::string> pieces) const
    {
        return std::jthread([this, pieces = std::move(pieces)] {
            char buffer[1024];
            EXPECT_GT(read(peer, buffer, sizeof buffer), 0);
            for (const std::string &piece : pieces) {
                if (&piece != &pieces.front())
                    sleep(1);
                EXPECT_GT(write(peer, piece.data(), piece.size()), 0);
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

using Call = std::function<int(int fd, char *b)>;
Call expects(int timeout_s)
{
    return [=](int fd, char *) { return chat_expect(fd, "OK", timeout_s, 1); };
}
Call reads(int size, int timeout_s)
{
    return [=](int fd, char *b) { return chat_read(fd, b, size, timeout_s, 1); };
}
Call sends_and_expects(int timeout_s)
{
    return [=](int fd, char *) { return chat_send_expect(fd, "AT", "OK", timeout_s, 1); };
}
Call sends_and_reads(int size, int timeout_s)
{
    return [=](int fd, char *b) { return chat_send_read(fd, "AT", b, size, timeout_s, 1); };
}
Call sends_frame(decltype(&chat_send_hex_read) call, int timeout_s)
{
    return [=](int fd, char *b) { return call(fd, "A\0\xff", b, 3, timeout_s, 1); };
}

struct Exchange {
    Call call;
    const char *sent;                // as it is logged; null for a call that only listens
    std::vector<std::string> pieces; // of the answer
    int result;
    std::string buffer;   // of '#' at first, as far as it is looked at
    std::string received; // as it is logged
    double from_s, to_s;
};

TEST_F(Line, answers_are_taken_as_far_as_there_is_room_and_time)
{
    const std::string nul(1, '\0');
    std::vector<Exchange> exchanges = {
        // The expected text ends the wait at once, even in pieces, after a NUL, as bytes 510 and 511.
        {sends_and_expects(10), "AT\r", {"\r\nO", "K\r\n"}, 1, "#", "\r\nOK\r\n", 0, 8},
        {expects(10), nullptr, {"g" + nul + "OK"}, 1, "#", "g", 0, 8},
        {expects(10), nullptr, {letters(509) + "OK"}, 1, "#", letters(509) + "OK", 0, 8},
        // Expecting ends at silence and at 511 bytes.
        {sends_and_expects(1), "AT\r", {}, 0, "#", "", 1, 1 + GRACE_S},
        {expects(0), nullptr, {"ERROR"}, 0, "#", "ERROR", 0, GRACE_S},
        {expects(10), nullptr, {letters(510) + "OKrest"}, 0, "#", letters(510) + "O", 0, 8},
        {reads(8, 0), nullptr, {}, 5, "Krest" + nul + "#" + nul + "#", "Krest", 0, GRACE_S},
        // Reading fills the buffer and no more.
        {reads(1, 0), nullptr, {}, 0, nul + "#", "", 0, GRACE_S},
        {reads(0, 0), nullptr, {}, 0, "#", "", 0, GRACE_S},
        {reads(-7, 0), nullptr, {}, 0, "#", "", 0, GRACE_S},
        {reads(8, 0), nullptr, {}, 0, "#######" + nul + "#", "", 0, GRACE_S}, // only the last byte is set
        {reads(8, 10), nullptr, {"0123456789"}, 7, "0123456" + nul + "#", "0123456", 0, 8},
        {reads(8, 0), nullptr, {}, 3, "789" + nul + "###" + nul + "#", "789", 0, GRACE_S},
        // An answer ends after a whole timeout of silence. Without room for one the command goes out.
        {sends_and_reads(512, 4), "AT\r", {"\r\n", "OK", "\r\n"}, 6, "\r\nOK\r\n" + nul, "\r\nOK\r\n", 6, 9},
        {sends_and_reads(512, 10), "AT\r", {letters(600)}, 511, letters(511) + nul + "#", letters(511), 0, 8},
        {sends_and_reads(1, 10), "AT\r", {}, 0, nul + "#", "", 0, 8},
    };
    // The raw calls want one byte more than they have room for.
    for (const auto &[call, most] :
         {std::pair(&chat_send_ASCII_read, size_t{8}), {&chat_send_hex_read, size_t{12}}}) {
        const std::string all = letters(most);
        exchanges.push_back(
            {sends_frame(call, 10), "A", {letters(20)}, static_cast<int>(most), all + nul, all, 0, 8});
        exchanges.push_back(
            {sends_frame(call, 4), "A", {all}, static_cast<int>(most), all + nul, all, 4, 4 + 2 * GRACE_S});
        exchanges.push_back(
            {sends_frame(call, 4), "A", {"12345"}, 5, "12345" + nul, "12345", 4, 4 + 2 * GRACE_S});
    }
    for (const auto &[call, command, pieces, result, buffer, received, from_s, to_s] : exchanges) {
        SCOPED_TRACE("'" + buffer + "' '" + received + "'");
        tcflush(peer, TCIFLUSH);
        std::jthread answering;
        if (command != nullptr)
            say("RING stale"); // is thrown away
        if (command == nullptr && !pieces.empty())
            say(pieces[0]);
        else if (!pieces.empty())
            answering = answer(pieces);
        std::string b(600, '#');
        const Stopwatch watch;
        EXPECT_EQ(call(fd, b.data()), result);
        EXPECT_GE(watch.seconds(), from_s);
        EXPECT_LT(watch.punctual_seconds(), to_s);
        EXPECT_EQ(b.substr(0, buffer.size()), buffer);
        EXPECT_EQ(take_log(), (command != nullptr ? traffic(std::string("<<< (") + command + ")") : "") +
                                  (!received.empty() ? traffic(">>> (" + received + ")") : ""));
        EXPECT_TRUE(is_nonblocking(fd));
    }
    EXPECT_EQ(at_modem_error, 0);
}

TEST_F(Line, removed_card_is_reported_whatever_log_says)
{
    const std::string removal = "<ERROR>..........USIM Remove........\n";
    char b[64];
    for (const auto &[text, length, logged] :
         {std::tuple("\r\n^SIMST:255\r\n", 14, removal), {"^SIMST:25\r\n", 11, ""}}) {
        const std::jthread answering = answer({text});
        EXPECT_EQ(chat_send_read(fd, "AT", b, sizeof b, 4, 0), length);
        EXPECT_EQ(take_log(), logged);
    }
    const std::jthread answering = answer({"^SIMST:255\r\n"});
    EXPECT_EQ(chat_send_hex_read(fd, "\x01", b, 1, 4, 0), 12);
    EXPECT_EQ(take_log(), removal);
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

    close(peer);
    descriptors = open_descriptors();
    at_modem_error = 0;
    EXPECT_EQ(call_all(fd, 1, b), (Results{-1, 0, 0, -1, -1, -1, -1})) << "hung up";
    EXPECT_EQ(at_modem_error, 3);
}

// A line that never drains: the alarm breaks the write off, the process lives.
TEST(LineThatNeverDrains, is_given_up_at_the_limit_and_of_use_again)
{
    const Table<double, int, Call> cases = {
        {10, 0, [](int fd, char *) { return chat_send(fd, "AT", 0); }},
        {10, 0, sends_and_expects(1)},
        {5, 1, sends_and_reads(16, 1)},
        {5, 1, sends_frame(chat_send_hex_read, 1)},
    };
    std::list<Process> processes; // side by side
    for (const auto &[limit_s, errors, call] : cases)
        processes.emplace_back([limit_s = limit_s, errors = errors, call = call] {
            start_log();
            int peer, slave;
            char name[64], b[16];
            openpty(&peer, &slave, name, nullptr, nullptr);
            const int fd = dev_init(name, FLAGS, 0);
            tcflow(fd, TCOOFF);
            const Stopwatch watch;
            EXPECT_EQ(call(fd, b), -1);
            EXPECT_EQ(errno, EINTR);
            EXPECT_GE(watch.seconds(), limit_s);
            EXPECT_LT(watch.punctual_seconds(), limit_s + GRACE_S);
            EXPECT_EQ(at_modem_error, errors);
            EXPECT_TRUE(is_nonblocking(fd));
            tcflow(fd, TCOON);
            EXPECT_EQ(chat_send(fd, "AT", 0), 3);
            EXPECT_EQ(dev_close(fd), 0);
        });
}

// The simulator on /tmp/tty, told what to do through its control pipe.
struct SimulatedModem : testing::Test {
    SimulatedModem()
    {
        start_log();
        EXPECT_TRUE(
            eventually([] { return access("/tmp/tty", F_OK) == 0 && access("/tmp/control", F_OK) == 0; }));
    }
    // Gives an instruction and waits until it was taken.
    static void control(const std::string &line)
    {
        std::ofstream("/tmp/control") << line << std::endl;
        EXPECT_TRUE(eventually([&] { return logged("-- " + line + "\n", "/tmp/transcript"); }));
    }
    Process program{{"modemsim", "--link", "/tmp/tty", "--control", "/tmp/control", "--transcript",
                     "/tmp/transcript", SOURCE_DIR "/examples/modem.at"}};
};

TEST_F(SimulatedModem, does_what_it_is_told)
{
    const std::string x = "\r\n$ Home\r\n", ok = "\r\nOK\r\n";
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
        {"fault 1:drop=2", "AT+X", std::string(8, '?')},
        {"fault 1:late=300", "AT+X", x},
        {"fault 1:pieces=5,300", "AT+X", x},
        {"fault 1:bytes=3", "AT+X", x},
        {"fault 1:inside=RING", "AT+CREG?", "\r\n+CREG: 0\r\nRING\r\n,1\r\n" + ok},
        {"fault 1:after=RING", "AT+X", x + "\r\nRING\r\n"},
        {"fault 1:silence", "AT+X", ""},
        {"fault 1:garbage=300", "AT+X", std::string(300, '?')},
        {"fault 1:length=5000", "AT+X", letters(5000)},
        {"", "AT+X", x},
        {"", "AT+CMGS=1", "\r\n> "},
        {"", "some text\x1a", "\r\n+CMGS: 17\r\n" + ok},
    };
    int fd = dev_init("/tmp/tty", FLAGS, 115200);
    for (const auto &[instruction, command, expected] : cases) {
        if (*instruction != '\0')
            control(instruction);
        chat_send(fd, command, 0);
        std::string answer;
        const auto is_there = [&, wanted = expected.size()] {
            char b[512];
            answer.append(b, static_cast<size_t>(chat_read(fd, b, sizeof b, wanted == 0 ? 1 : 0, 0)));
            return answer.size() >= wanted;
        };
        EXPECT_TRUE(eventually(is_there)) << instruction;
        if (expected[0] == '?') // drops what it likes; garbage is whatever it is
            EXPECT_EQ(answer.size(), expected.size());
        else
            EXPECT_EQ(answer, expected) << instruction;
    }
    control("fault stall=3");
    EXPECT_EQ(chat_send_expect(fd, "AT", "OK", 10, 0), 1) << "so many bytes are taken";
    EXPECT_EQ(chat_send(fd, "AT", 0), -1);
    EXPECT_EQ(errno, EINTR);
    control("clear");
    control("fault vanish=0");
    chat_send(fd, "AT", 0);
    dev_close(fd);
    EXPECT_TRUE(eventually([] { return logged("-> \\r\\nRDY\\r\\n", "/tmp/transcript"); }));
    control("clear");
    fd = dev_init("/tmp/tty", FLAGS, 115200);
    EXPECT_EQ(chat_send_expect(fd, "AT", "AT\r\r\nOK", 10, 0), 1) << "the echo is on again";
    control("fault late=600000");
    chat_send(fd, "AT", 0);
    control("say RING");
    EXPECT_EQ(chat_expect(fd, "\r\nRING\r\n", 10, 0), 1) << "before the answer";
    EXPECT_EQ(dev_close(fd), 0);
}

} // namespace
