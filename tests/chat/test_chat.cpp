#include "support/case.h"
#include "support/log.h"

#include <climits>
#include <list>
#include <poll.h>
#include <pty.h>
#include <regex>

namespace
{

using namespace support;

// How much longer than it waits a call may take. A pass too many of four seconds does not hide in it, but
// where everything is slow.
const double GRACE_S = slowness() > 1 ? 12.0 : 3.0;

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

enum Call { SEND, EXPECT, READ, SEND_EXPECT, SEND_READ, SEND_ASCII, SEND_HEX };

struct Arguments {
    int fd;
    char *buffer;
    int timeout_s = 0, size = 16, log = 0;
    const char *command = "AT", *expected = "OK";
    int length = 2; // of the raw calls
};

// In the order of Call.
const std::function<int(const Arguments &)> CALLS[] = {
    [](auto &a) { return chat_send(a.fd, a.command, a.log); },
    [](auto &a) { return chat_expect(a.fd, a.expected, a.timeout_s, a.log); },
    [](auto &a) { return chat_read(a.fd, a.buffer, a.size, a.timeout_s, a.log); },
    [](auto &a) { return chat_send_expect(a.fd, a.command, a.expected, a.timeout_s, a.log); },
    [](auto &a) { return chat_send_read(a.fd, a.command, a.buffer, a.size, a.timeout_s, a.log); },
    [](auto &a) { return chat_send_ASCII_read(a.fd, a.command, a.buffer, a.length, a.timeout_s, a.log); },
    [](auto &a) { return chat_send_hex_read(a.fd, a.command, a.buffer, a.length, a.timeout_s, a.log); },
};

Results call_all(const Arguments &arguments)
{
    Results results;
    for (const auto &call : CALLS)
        results.push_back(call(arguments));
    return results;
}

std::string repeated(int count, const std::string &line)
{
    return count == 0 ? "" : line + repeated(count - 1, line);
}

// A raw pty pair whose other end the test is.
struct Line : NothingLeft {
    Line()
    {
        start_log();
        const rlimit limit{4096, 4096};
        setrlimit(RLIMIT_NOFILE, &limit);
        termios raw{};
        cfmakeraw(&raw);
        EXPECT_EQ(openpty(&peer, &fd, name, &raw, nullptr), 0);
        fd = dup2(fd, 3000); // above the size of an fd_set
        signal(SIGALRM, SIG_IGN);
        remains_before = remains();
    }
    ~Line() override { EXPECT_EQ(alarm(0), 0U) << "an alarm is left"; }

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

    int peer = -1, fd = -1;
    char name[64] = {};
};

TEST_F(Line, commands_and_frames_go_out_whole)
{
    for (const std::string &command : {std::string(), letters(509)}) {
        EXPECT_EQ(chat_send(fd, command.c_str(), 1), static_cast<int>(command.size()) + 1);
        EXPECT_EQ(sent(), command + "\r");
        EXPECT_EQ(take_log(), "<DEBUG>3000 <<< (" + command + "\r)\n");
    }
    const std::string frame = std::string("\0\r\n\x80", 4) + letters(508);
    char b[512];
    b[511] = 'x';
    EXPECT_EQ(chat_send_hex_read(fd, frame.data(), b, 512, 0, 0), 0);
    EXPECT_EQ(sent(), frame);
    EXPECT_EQ(b[511], '\0');
    EXPECT_EQ(chat_send_ASCII_read(fd, frame.data(), b, 0, 0, 0), 0); // b[-1] is not touched
    EXPECT_EQ(sent(), "");
}

struct Exchange {
    Call call;
    int size, timeout_s;
    std::vector<std::string> pieces; // of the answer
    int result;
    std::string buffer;   // of '#' at first, as far as it is looked at
    std::string received; // as it is logged
    double waits_s = 0;
};

TEST_F(Line, answers_are_taken_as_far_as_there_is_room_and_time)
{
    const std::string nul(1, '\0');
    std::vector<Exchange> exchanges = {
        // The expected text ends the wait at once, even in pieces, after a NUL, as bytes 510 and 511.
        {SEND_EXPECT, 0, 10, {"\r\nO", "K\r\n"}, 1, "#", "\r\nOK\r\n", 1},
        {EXPECT, 0, 10, {"g" + nul + "OK"}, 1, "#", "g"},
        {EXPECT, 0, 10, {letters(509) + "OK"}, 1, "#", letters(509) + "OK"},
        // Expecting ends at silence and at 511 bytes.
        {SEND_EXPECT, 0, 4, {}, 0, "#", "", 4},
        {EXPECT, 0, 0, {"ERROR"}, 0, "#", "ERROR"},
        {EXPECT, 0, 10, {letters(510) + "OKrest"}, 0, "#", letters(510) + "O"},
        {READ, 8, 0, {}, 5, "Krest" + nul + "#" + nul + "#", "Krest"},
        // Reading fills the buffer and no more.
        {READ, 1, 0, {}, 0, nul + "#", ""},
        {READ, 0, 0, {}, 0, "#", ""},
        {READ, -7, 0, {}, 0, "#", ""},
        {READ, 8, 0, {}, 0, "#######" + nul + "#", ""}, // only the last byte is set
        {READ, 8, 10, {"0123456789"}, 7, "0123456" + nul + "#", "0123456"},
        {READ, 8, 0, {}, 3, "789" + nul + "###" + nul + "#", "789"},
        // An answer ends after a whole timeout of silence. Without room for one the command goes out.
        {SEND_READ, 512, 4, {"\r\n", "OK", "\r\n"}, 6, "\r\nOK\r\n" + nul, "\r\nOK\r\n", 6},
        {SEND_READ, 512, 10, {letters(600)}, 511, letters(511) + nul + "#", letters(511)},
        {SEND_READ, 1, 10, {}, 0, nul + "#", ""},
    };
    // The raw calls want one byte more than they have room for.
    for (const auto &[call, most] : {std::pair(SEND_ASCII, 8), {SEND_HEX, 12}}) {
        const std::string all = letters(static_cast<size_t>(most));
        exchanges.push_back({call, 0, 10, {letters(20)}, most, all + nul, all});
        exchanges.push_back({call, 0, 4, {all}, most, all + nul, all, 4});
        exchanges.push_back({call, 0, 4, {"12345"}, 5, "12345" + nul, "12345", 4});
    }
    for (const auto &[call, size, timeout_s, pieces, result, buffer, received, waits_s] : exchanges) {
        SCOPED_TRACE("'" + buffer + "' '" + received + "'");
        tcflush(peer, TCIFLUSH);
        std::jthread answering;
        std::string log;
        if (call >= SEND_EXPECT) {
            say("RING stale"); // is thrown away
            log = "<DEBUG>3000 <<< (" + std::string(call >= SEND_ASCII ? "AT" : "AT\r") + ")\n";
            if (!pieces.empty())
                answering = answer(pieces);
        } else if (!pieces.empty())
            say(pieces[0]);
        if (!received.empty())
            log += "<DEBUG>3000 >>> (" + received + ")\n";
        std::string b(600, '#');
        const Stopwatch watch;
        EXPECT_EQ(CALLS[call]({fd, b.data(), timeout_s, size, 1}), result);
        EXPECT_GE(watch.seconds(), waits_s);
        EXPECT_LT(watch.punctual_seconds(), waits_s + GRACE_S);
        EXPECT_EQ(b.substr(0, buffer.size()), buffer);
        EXPECT_EQ(take_log(), log);
        EXPECT_TRUE(is_nonblocking(fd));
    }
    EXPECT_EQ(at_modem_error, 0);
}

TEST_F(Line, removed_card_is_reported_whatever_log_says)
{
    char b[16];
    for (const auto &[text, logged] :
         {std::pair("^SIMST:255\r\n", "<ERROR>..........USIM Remove........\n"), {"^SIMST:25\r\n\n", ""}}) {
        const std::jthread answering = answer({text});
        EXPECT_EQ(chat_send_hex_read(fd, "\x01", b, 1, 1, 0), 12);
        EXPECT_EQ(take_log(), logged);
    }
}

// The log with the addresses made equal, since they differ from call to call.
std::string masked(const std::string &log)
{
    return std::regex_replace(log, std::regex("0x[0-9a-f]+"), "ADDRESS");
}

std::string cannot_select(int fd)
{
    return "<ERROR>cannot select( " + std::to_string(fd + 1) + ", ADDRESS, NULL, NULL, ADDRESS )\n";
}

TEST_F(Line, failures_are_logged_counted_and_returned)
{
    char b[16] = "stale";
    const std::string refusal = "<ERROR>argument error\n", text = letters(510);
    const char *too_long = text.c_str();
    const int reader = open(name, O_RDONLY | O_NOCTTY | O_CLOEXEC);
    const std::string failed = "annot write( " + std::to_string(reader) + ", AT";
    // A file opened for writing counts as readable, and reading it fails.
    const int writer = open("/tmp/file", O_WRONLY | O_CREAT | O_CLOEXEC, 0600);
    std::string unreadable;
    for (const char *room : {"511", "15", "511", "15", "1", "1"})
        unreadable += "<ERROR>cannot read( " + std::to_string(writer) + ", , " + room + " )\n";
    const Results sending_fails = {-1, 0, 0, -1, -1, -1, -1},
                  only_sending_works = {3, -1, -1, -1, -1, -1, -1};
    const Table<Arguments, Results, int, std::string> cases = {
        {{-1, b}, Results(7, -1), 0, repeated(7, refusal)},
        {{.fd = fd, .buffer = b, .command = nullptr}, sending_fails, 0, repeated(5, refusal)},
        {{.fd = fd, .buffer = b, .command = too_long, .length = 513}, sending_fails, 0, repeated(5, refusal)},
        {{.fd = fd, .buffer = nullptr, .expected = nullptr}, only_sending_works, 0, repeated(6, refusal)},
        {{reader, b},
         sending_fails,
         3,
         "<ERROR>C" + failed + "\r, 3 )\n" + repeated(2, "<ERROR>c" + failed + "\r, 3 )\n") +
             repeated(2, "<ERROR>c" + failed + ", 2 )\n")},
        {{fd, b, -1}, only_sending_works, 3, repeated(6, cannot_select(fd))}, // no such time to wait
        {{writer, b, 1}, {3, -1, 0, -1, -1, -1, -1}, 3, unreadable},          // a plain read only ends
    };
    for (const auto &[arguments, results, errors, log] : cases) {
        at_modem_error = 0;
        EXPECT_EQ(call_all(arguments), results);
        EXPECT_EQ(masked(take_log()), log);
        EXPECT_EQ(at_modem_error, errors);
        if (errors == 0) {
            EXPECT_EQ(sent(), results[0] == 3 ? "AT\r" : "") << "refused and sent";
        }
    }
    EXPECT_EQ(read_file("/tmp/file"), "AT\rAT\rAT\rATAT");
    close(reader);
    close(writer);
    for (const int length : {-1, INT_MAX, INT_MIN})
        EXPECT_EQ(CALLS[SEND_HEX]({.fd = fd, .buffer = b, .length = length}), -1) << length;
    take_log();
    EXPECT_EQ(chat_expect(9999, "x", 1, 0), -1) << "not open";
    signal(SIGALRM, chat_signal_handler);
    alarm(1);
    EXPECT_EQ(chat_read(fd, b, sizeof b, 10, 0), -1) << "a signal ends the wait";
    EXPECT_EQ(masked(take_log()),
              cannot_select(9999) + "<ERROR>vq_chat receive the signal(14)\n" + cannot_select(fd));
    close(peer);
    remains_before = remains();
    EXPECT_EQ(call_all({fd, b, 1}), sending_fails) << "hung up";
}

// A line that never drains: the alarm breaks the write off, the process lives.
TEST(LineThatNeverDrains, is_given_up_at_the_limit_and_of_use_again)
{
    const Table<double, int, Call> cases = {
        {10, 0, SEND}, {10, 0, SEND_EXPECT}, {5, 1, SEND_READ}, {5, 1, SEND_HEX}};
    std::list<Process> processes; // side by side
    for (const auto &row : cases)
        processes.emplace_back([row] {
            const auto [limit_s, errors, call] = row;
            start_log();
            int peer, slave;
            char name[64], b[16];
            openpty(&peer, &slave, name, nullptr, nullptr);
            const int fd = dev_init(name, FLAGS, 0);
            tcflow(fd, TCOOFF);
            const Stopwatch watch;
            EXPECT_EQ(CALLS[call]({fd, b, 1}), -1);
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

// Told what to do through its control pipe.
TEST(SimulatedModem, does_what_it_is_told)
{
    const Process program({"modemsim", "--link", "/tmp/tty", "--control", "/tmp/control", "--transcript",
                           "/tmp/transcript", SOURCE_DIR "/examples/modem.at"});
    const auto is_there = [](const char *path) { return access(path, F_OK) == 0; };
    EXPECT_TRUE(eventually([&] { return is_there("/tmp/tty") && is_there("/tmp/control"); }));
    const auto control = [](const std::string &line) {
        std::ofstream("/tmp/control") << line << std::endl;
        EXPECT_TRUE(eventually([&] { return logged("-- " + line + "\n", "/tmp/transcript"); }));
    };
    const std::string x = "\r\n$ Home\r\n", ok = "\r\nOK\r\n";
    const Table<const char *, const char *, std::string> cases = {
        {"", "ATE0", "ATE0\r\r\nOK\r\n"},
        {"", "AT$QCRMCALL=1,1", "\r\n$QCRMCALL: 1, V4\r\n\r\nOK\r\n"},
        {"answer AT+X => $$ $operator", "at+x", "\r\n$ \"Example Mobile\"\r\n"},
        {"value operator = Home", "AT+X", x},
        {"fault before=ALL", "AT+X", "\r\nALL\r\n" + x},
        {"fault before=SOME@AT+*", "AT+X", "\r\nSOME\r\n" + x},
        {"nofault before@AT+*", "AT+X", "\r\nALL\r\n" + x},
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
        const auto is_whole = [&, wanted = expected.size()] {
            char b[512];
            answer.append(b, static_cast<size_t>(chat_read(fd, b, sizeof b, wanted == 0 ? 1 : 0, 0)));
            return answer.size() >= wanted;
        };
        EXPECT_TRUE(eventually(is_whole)) << instruction;
        if (expected[0] == '?') // drops what it likes; garbage is whatever it is
            EXPECT_EQ(answer.size(), expected.size());
        else
            EXPECT_EQ(answer, expected) << instruction;
    }
    control("fault stall=3");
    EXPECT_EQ(chat_send_expect(fd, "AT", "OK", 10, 0), 1) << "so many bytes are taken";
    EXPECT_EQ(chat_send(fd, "AT", 0), -1);
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
