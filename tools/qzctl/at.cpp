// SPDX-License-Identifier: MIT
// at and modem: AT commands over the modem's line, and the table of its status.
#include "print.h"
#include "replace.h"
#include "text.h"

#include <cerrno>
#include <climits>
#include <csignal>
#include <cstring>
#include <ctime>
#include <fcntl.h>
#include <poll.h>
#include <sys/file.h>
#include <sys/ioctl.h>
#include <utility>

namespace qzctl
{
namespace
{

// Whoever holds it may open the modem's line; daemons take it, too.
constexpr const char *LINE_LOCK = "/tmp/modem.lock";
constexpr const char *DEFAULT_DEVICE = "/dev/ttyUSB2";
constexpr size_t COMMAND_MAX = 509;
constexpr unsigned SILENCE_S = 10;
constexpr size_t ANSWER_SIZE = 16384;
constexpr char ESCAPE = '\033';

volatile sig_atomic_t interrupted = 0;

void note_interrupt(int /*signal*/)
{
    interrupted = 1;
}

enum class Result { NONE, GOOD, BAD, PROMPT };

// What a line of an answer says about the command.
Result judge(std::string_view line)
{
    for (const char *good : {"OK", "CONNECT"})
        if (line == good)
            return Result::GOOD;
    for (const char *bad : {"ERROR", "NO CARRIER", "NO DIALTONE", "NO ANSWER", "BUSY"})
        if (line == bad)
            return Result::BAD;
    for (const char *start : {"+CME ERROR:", "+CMS ERROR:"})
        if (begins_with(line, start))
            return Result::BAD;
    return begins_with(line, "CONNECT ") ? Result::GOOD : Result::NONE;
}

// What goes over the line, a line for each of its lines.
class Transcript
{
public:
    bool open(const char *path)
    {
        if (path != nullptr)
            file_.reset(fopen(path, "ae"));
        return path == nullptr || file_;
    }
    void add(const char *arrow, std::string_view line) const
    {
        char time[32];
        if (file_)
            (void)fprintf(file_.get(), "%s %s %.*s\n", str_timestamp(0, time, sizeof time), arrow,
                          static_cast<int>(line.size()), line.data());
    }

private:
    Stream file_;
};

// The modem's line, which nobody else gets meanwhile.
class Modem
{
public:
    Modem() = default;
    Modem(const Modem &) = delete;
    Modem &operator=(const Modem &) = delete;
    ~Modem()
    {
        if (fd_ < 0)
            return;
        (void)ioctl(fd_, TIOCNXCL);
        (void)dev_close(fd_);
    }

    // @return DONE, or NO after saying why
    int open(const char *device, unsigned baud)
    {
        // Looked at first: dev_init() tries for 12 s, and who may not use the line makes no lock.
        probe_.reset(::open(device, O_RDWR | O_NOCTTY | O_NONBLOCK | O_CLOEXEC));
        if (!probe_)
            return say_errno(device);
        if (isatty(probe_.get()) != 1)
            return say(NO, "%s: not a tty", device);
        lock_.reset(open_lock(LINE_LOCK, 0644).release());
        if (!lock_)
            return say_errno(LINE_LOCK);
        if (flock(lock_.get(), LOCK_EX | LOCK_NB) != 0)
            return say(NO, "%s: another program holds the modem's line", LINE_LOCK);
        if (flock(probe_.get(), LOCK_EX | LOCK_NB) != 0)
            return say(NO, "%s: another program has locked it", device);
        const int fd = dev_init(device, O_RDWR | O_NOCTTY | O_NONBLOCK | O_CLOEXEC, static_cast<int>(baud));
        if (fd <= 0)
            return say(NO, "%s: it cannot be opened as a modem's line: %s", device, strerror(errno));
        fd_ = fd;
        (void)ioctl(fd_, TIOCEXCL);
        for (const int signal : {SIGINT, SIGTERM, SIGHUP})
            (void)qzlib_sys_signal(signal, note_interrupt);
        return DONE;
    }

    [[nodiscard]] int fd() const { return fd_; }

private:
    Fd lock_;
    Fd probe_;
    int fd_ = -1;
};

// One command and what came for it.
class Exchange
{
public:
    Exchange(const Modem &modem, const Transcript &transcript, unsigned silence_s)
        : modem_(modem), transcript_(transcript), silence_ms_(static_cast<int>(silence_s) * 1000)
    {
    }

    // @return DONE: good; NO: an error, said unless it is the modem's; NOT_IN_TIME: silence, said
    int run(const char *command, cJSON *lines)
    {
        transcript_.add(">", command);
        if (chat_send(modem_.fd(), command, 0) < 0)
            return say(NO, "%s: cannot be sent: %s", command, strerror(errno));
        for (;;) {
            const Result result = take_lines(command, lines);
            if (result == Result::PROMPT)
                return DONE;
            if (result != Result::NONE)
                return result == Result::GOOD ? DONE : NO;
            pollfd wait = {modem_.fd(), POLLIN, 0};
            const int ready = poll(&wait, 1, silence_ms_);
            if (interrupted != 0)
                return say(NO, "%s: interrupted", command);
            if (ready == 0)
                return say(NOT_IN_TIME, "%s: the modem is silent", command);
            if (ready < 0 || !fill())
                return say(NO, "%s: the line is gone: %s", command, strerror(errno));
        }
    }
    // The modem waits for the text of a message.
    [[nodiscard]] bool is_prompted() const { return is_prompted_; }

private:
    bool fill()
    {
        if (size_ == sizeof answer_)
            size_ = 0; // a line that never ends
        const ssize_t got = read(modem_.fd(), answer_ + size_, sizeof answer_ - size_);
        if (got < 0 && (errno == EAGAIN || errno == EINTR))
            return true;
        if (got <= 0) {
            errno = got == 0 ? EIO : errno;
            return false;
        }
        size_ += static_cast<size_t>(got);
        return true;
    }

    // Takes whole lines off what has arrived, up to the final one.
    Result take_lines(const char *command, cJSON *lines)
    {
        for (;;) {
            const auto *end = static_cast<const char *>(memchr(answer_, '\n', size_));
            if (end == nullptr) {
                is_prompted_ = size_ == 2 && memcmp(answer_, "> ", 2) == 0;
                return is_prompted_ ? Result::PROMPT : Result::NONE;
            }
            const auto length = static_cast<size_t>(end - answer_);
            std::string_view line(answer_, length);
            while (!line.empty() && line.back() == '\r')
                line.remove_suffix(1);
            while (!line.empty() && line.front() == '\r')
                line.remove_prefix(1);
            const Result result = take_line(line, command, lines);
            size_ -= length + 1;
            memmove(answer_, end + 1, size_);
            if (result != Result::NONE)
                return result;
        }
    }

    Result take_line(std::string_view line, const char *command, cJSON *lines)
    {
        if (line.empty())
            return Result::NONE;
        transcript_.add("<", line);
        while (!line.empty() && line.back() == '\r') // the echo has one more
            line.remove_suffix(1);
        if (line == command)
            return Result::NONE;
        if (lines == nullptr) {
            print_text(line);
            (void)putchar('\n');
            (void)fflush(stdout);
        } else {
            Json text = new_record();
            put_bytes(text, "text", line);
            cJSON_AddItemToArray(lines, cJSON_DetachItemFromObject(text.get(), "text"));
        }
        return judge(line);
    }

    const Modem &modem_;
    const Transcript &transcript_;
    int silence_ms_;
    char answer_[ANSWER_SIZE];
    size_t size_ = 0;
    bool is_prompted_ = false;
};

void check_command(const char *command)
{
    (void)check_length("the command", command, COMMAND_MAX);
    for (const char *c = command; *c != '\0'; ++c)
        if (static_cast<unsigned char>(*c) < ' ' && *c != '\032' && *c != ESCAPE)
            refuse("the command %.40s: it holds a control character", command);
}

unsigned check_baud(const Arguments &arguments)
{
    const unsigned baud = arguments.number(BAUD, 115200, 0, 4'000'000);
    for (const qzlib_speed *speed = speeds_list; speed->baud != 0; ++speed)
        if (speed->baud == baud)
            return baud;
    if (baud != 0)
        refuse("--baud %u: no line has that rate", baud);
    return 0;
}

int run_commands(const Arguments &arguments, const Modem &modem, const Transcript &transcript,
                 unsigned silence_s)
{
    const Json list = new_list();
    int status = DONE;
    bool is_prompted = false;
    for (int i = 0; i < arguments.count && status == DONE; ++i) {
        Exchange exchange(modem, transcript, silence_s);
        Json record = new_record();
        put(record, "command", arguments.words[i]);
        cJSON *lines = cJSON_AddArrayToObject(record.get(), "lines");
        status = exchange.run(arguments.words[i], arguments.has(JSON) ? lines : nullptr);
        is_prompted = exchange.is_prompted();
        put_flag(record, "ok", status == DONE);
        append(list, std::move(record));
    }
    if (arguments.has(JSON))
        (void)print_list(arguments, list);
    if (!is_prompted)
        return status;
    (void)!write(modem.fd(), &ESCAPE, 1);
    return say(NO, "the modem waits for a text, which the next argument would be, ended by Ctrl-Z");
}

} // namespace

int at(const Arguments &arguments)
{
    for (int i = 0; i < arguments.count; ++i)
        check_command(arguments.words[i]);
    const char *device = arguments.has(DEVICE) ? arguments.options[DEVICE] : getenv("QZCTL_MODEM");
    device = check_length("--device", device == nullptr ? DEFAULT_DEVICE : device, PATH_MAX - 1);
    const unsigned baud = check_baud(arguments);
    const unsigned silence_s = arguments.number(TIMEOUT, SILENCE_S, 1, 3600);
    Transcript transcript;
    if (!transcript.open(arguments.options[TRANSCRIPT]))
        return say_errno(arguments.options[TRANSCRIPT]);
    Modem modem;
    if (const int status = modem.open(device, baud); status != DONE)
        return status;
    return run_commands(arguments, modem, transcript, silence_s);
}

// The library looks values up and has no list of the names, which come from the file.
int modem(const Arguments &arguments)
{
    constexpr const char *TABLE = "/tmp/modem.info";
    const char *wanted =
        arguments.word(0) == nullptr ? nullptr : check_length("the name", arguments.word(0), 63);
    const int status = qzlib_update_modem_status_info_tab();
    const Fd file(open(TABLE, O_RDONLY | O_CLOEXEC));
    Content content;
    if (status == QZLIB_ERR_NO_FILE || !file || !read_all(file.get(), content))
        return say_errno(TABLE);
    if (wanted != nullptr) {
        const char *value = qzlib_get_modem_status_info(wanted);
        if (value == nullptr)
            return say(NO, "%s: no %s", TABLE, wanted);
        if (!arguments.has(JSON)) {
            (void)puts(value);
            return DONE;
        }
    }
    const Json record = new_record();
    char *rest = content.memory.get();
    while (char *line = strsep(&rest, "\n")) {
        line[strcspn(line, ":")] = '\0';
        const char *value = *line == '\0' || rest == nullptr ? nullptr : qzlib_get_modem_status_info(line);
        if (value != nullptr && (wanted == nullptr || strcmp(wanted, line) == 0) &&
            cJSON_GetObjectItemCaseSensitive(record.get(), line) == nullptr)
            put(record, line, value);
    }
    return print_record(arguments, record);
}

} // namespace qzctl
