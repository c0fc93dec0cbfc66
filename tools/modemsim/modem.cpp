#include "modem.h"

#include "text.h"

#include <algorithm>
#include <cerrno>
#include <unistd.h>
#include <utility>

namespace modemsim
{

namespace
{

using std::chrono::milliseconds;

constexpr std::string_view CARD_REMOVED = "^SIMST:255";
constexpr std::string_view CARD_INSERTED = "^SIMST:1";
constexpr size_t INPUT_LIMIT = 4096;       // without an end of command the oldest bytes go
constexpr milliseconds HANG_UP_DELAY{200}; // for the client to read the half answer

std::string framed(std::string_view line)
{
    return "\r\n" + std::string(line) + "\r\n";
}

std::string framed(const std::vector<std::string> &lines)
{
    std::string body;
    for (const std::string &line : lines)
        if (!line.empty())
            body += framed(line);
    return body;
}

std::string letters(size_t length)
{
    std::string text(length, '\0');
    for (size_t i = 0; i < length; ++i)
        text[i] = static_cast<char>('a' + i % 26);
    return text;
}

} // namespace

Transcript::~Transcript()
{
    if (file_ != nullptr)
        fclose(file_);
}

bool Transcript::open(const char *path)
{
    file_ = fopen(path, "we");
    return file_ != nullptr && setvbuf(file_, nullptr, _IOLBF, BUFSIZ) == 0;
}

void Transcript::note(std::string_view mark, std::string_view bytes) const
{
    if (file_ == nullptr)
        return;
    const std::chrono::duration<double> since = Clock::now() - start_;
    fprintf(file_, "%10.3f %.*s %s\n", since.count(), static_cast<int>(mark.size()), mark.data(),
            printable(bytes).c_str());
}

bool Modem::bring_up()
{
    if (!pty_.open(link_))
        return false;
    input_.clear();
    blocked_ = false;
    if (active(FaultKind::STALL, {}) != nullptr)
        pty_.set_draining(false);
    transcript_.note("--", "line is " + pty_.path());
    printf("%s\n", pty_.path().c_str());
    return fflush(stdout) == 0;
}

void Modem::add_fault(Fault fault)
{
    const bool at_once = fault.command.empty();
    if (at_once && fault.kind == FaultKind::USIM)
        remove_card();
    if (at_once && fault.kind == FaultKind::STALL)
        pty_.set_draining(false);
    faults_.push_back(std::move(fault));
}

void Modem::clear_faults()
{
    faults_.clear();
    pty_.set_draining(true);
    if (!std::exchange(card_present_, true))
        say(CARD_INSERTED);
}

void Modem::say(std::string_view line)
{
    schedule({}, Action::SEND, framed(line));
}

void Modem::receive()
{
    char bytes[512];
    ssize_t got = 0;
    while ((got = read(pty_.master(), bytes, sizeof bytes)) > 0)
        for (const char byte : std::string_view(bytes, static_cast<size_t>(got)))
            take_byte(byte);
}

void Modem::take_byte(char byte)
{
    input_ += byte;
    if (const std::string *reply = table_.find_frame(input_)) {
        transcript_.note("<-", std::exchange(input_, {}));
        answer({}, *reply);
    } else if (byte == '\r') {
        const std::string line = std::exchange(input_, {});
        transcript_.note("<-", line);
        take_command(line);
    } else if (input_.size() > INPUT_LIMIT) {
        input_.erase(0, 1);
    }
}

void Modem::take_command(std::string_view line)
{
    const std::string command = to_upper(trim(line));
    if (active(FaultKind::SILENCE, command) != nullptr)
        return;
    if (echo_)
        schedule({}, Action::SEND, std::string(line));
    if (command == "ATE0" || command == "ATE1")
        echo_ = command.back() == '1';
    if (command.empty())
        return;
    answer(command, framed(table_.find(command, card_present_).value_or(std::vector<std::string>{"ERROR"})));
    misbehave_after(command);
}

void Modem::answer(std::string_view command, std::string body)
{
    if (active(FaultKind::SILENCE, command) != nullptr)
        return;
    body = garble(command, std::move(body));
    if (const Fault *late = active(FaultKind::LATE, command))
        schedule(late->pause, Action::SEND);
    // These two strike once.
    const auto strikes = [command](const Fault &fault) {
        return (fault.kind == FaultKind::HANGUP || fault.kind == FaultKind::VANISH) &&
               (fault.command.empty() || fault.command == command);
    };
    const auto strike = std::ranges::find_if(faults_, strikes);
    if (strike == faults_.end()) {
        send_answer(command, std::move(body));
        return;
    }
    const Fault fault = *strike;
    faults_.erase(strike);
    if (fault.kind == FaultKind::HANGUP) {
        send_answer(command, body.substr(0, body.size() / 2));
        schedule(HANG_UP_DELAY, Action::HANG_UP);
        return;
    }
    schedule({}, Action::VANISH, fault.returns ? "returns" : "");
    if (fault.returns)
        schedule(fault.pause, Action::COME_BACK);
}

void Modem::misbehave_after(std::string_view command)
{
    if (active(FaultKind::USIM, command) != nullptr && card_present_)
        remove_card();
    if (active(FaultKind::STALL, command) != nullptr)
        pty_.set_draining(false);
}

const Fault *Modem::active(FaultKind kind, std::string_view command) const
{
    for (const Fault &fault : faults_)
        if (fault.kind == kind && (fault.command.empty() || fault.command == command))
            return &fault;
    return nullptr;
}

std::string Modem::garble(std::string_view command, std::string body)
{
    if (const Fault *garbage = active(FaultKind::GARBAGE, command)) {
        body.assign(garbage->number, '\0');
        std::ranges::generate(body, [this] { return static_cast<char>(random_()); });
    }
    if (const Fault *length = active(FaultKind::LENGTH, command))
        body = letters(length->number);
    if (const Fault *inside = active(FaultKind::INSIDE, command))
        body.insert(body.size() / 2, framed(inside->text));
    if (const Fault *before = active(FaultKind::BEFORE, command))
        body.insert(0, framed(before->text));
    if (const Fault *after = active(FaultKind::AFTER, command))
        body += framed(after->text);
    return body;
}

void Modem::schedule(milliseconds pause, Action action, std::string bytes)
{
    const Clock::time_point now = Clock::now();
    const Clock::time_point start = events_.empty() ? now : std::max(now, events_.back().due);
    events_.push_back({start + pause, action, std::move(bytes)});
}

void Modem::send_answer(std::string_view command, std::string body)
{
    const Fault *pieces = active(FaultKind::PIECES, command);
    if (pieces == nullptr) {
        schedule({}, Action::SEND, std::move(body));
        return;
    }
    for (size_t sent = 0; sent < body.size(); sent += pieces->number)
        schedule(sent == 0 ? milliseconds{} : pieces->pause, Action::SEND, body.substr(sent, pieces->number));
}

void Modem::run_due()
{
    blocked_ = false;
    while (!events_.empty() && events_.front().due <= Clock::now()) {
        Event &event = events_.front();
        if (event.action == Action::SEND && !send(event))
            return;
        const Event done = std::move(event);
        events_.pop_front();
        if (done.action == Action::VANISH)
            go_away(done.bytes.empty());
        if (done.action == Action::HANG_UP)
            transcript_.note("--", "line hangs up");
        if (done.action == Action::HANG_UP || done.action == Action::COME_BACK)
            come_back();
    }
}

// False while the line takes no more.
bool Modem::send(Event &event)
{
    while (!event.bytes.empty() && pty_.master() >= 0) {
        const ssize_t sent = write(pty_.master(), event.bytes.data(), event.bytes.size());
        if (sent < 0 && errno != EINTR) {
            blocked_ = errno == EAGAIN;
            return !blocked_; // any other failure: the rest is lost
        }
        if (sent > 0) {
            transcript_.note("->", std::string_view(event.bytes).substr(0, static_cast<size_t>(sent)));
            event.bytes.erase(0, static_cast<size_t>(sent));
        }
    }
    return true;
}

void Modem::go_away(bool for_good)
{
    transcript_.note("--", "tty disappears");
    pty_.hang_up();
    gone_ = for_good;
}

void Modem::come_back()
{
    gone_ = !bring_up();
    if (gone_)
        perror("modemsim: no pseudo terminal");
}

void Modem::remove_card()
{
    transcript_.note("--", "USIM removed");
    card_present_ = false;
    say(CARD_REMOVED);
}

} // namespace modemsim
