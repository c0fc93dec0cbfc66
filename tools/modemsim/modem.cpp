// SPDX-License-Identifier: MIT
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
constexpr std::string_view PROMPT = "\r\n> ";
constexpr char END_OF_TEXT = 0x1A;
constexpr char NO_TEXT = 0x1B;             // escape: the text is given up
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
    text_ = {};
    blocked_ = false;
    for (const Fault &fault : faults_)
        if (fault.kind == FaultKind::STALL && fault.command.empty())
            stall(fault.number);
    transcript_.note("--", "line is " + pty_.path());
    printf("%s\n", pty_.path().c_str());
    (void)fflush(stdout); // whoever read the path may be gone
    return true;
}

void Modem::add_fault(Fault fault)
{
    const bool at_once = fault.command.empty();
    if (at_once && fault.kind == FaultKind::USIM && remove_card())
        say(CARD_REMOVED);
    if (at_once && fault.kind == FaultKind::STALL)
        stall(fault.number);
    faults_.push_back(std::move(fault));
}

bool Modem::remove_fault(const Fault &like)
{
    const auto newest = std::ranges::find_if(faults_.rbegin(), faults_.rend(), [&](const Fault &fault) {
        return fault.kind == like.kind && fault.command == like.command;
    });
    if (newest == faults_.rend())
        return false;
    faults_.erase(std::next(newest).base());
    if (!has(FaultKind::STALL))
        drain();
    if (!has(FaultKind::USIM))
        insert_card();
    return true;
}

void Modem::clear_faults()
{
    faults_.clear();
    drain();
    insert_card();
}

// Before the next answer that has not begun, however long that one takes.
void Modem::say(std::string_view line)
{
    const Clock::time_point now = Clock::now();
    const auto later = std::ranges::find_if(
        events_, [now](const Event &event) { return !event.continues && event.due > now; });
    const Clock::time_point due = later == events_.begin() ? now : std::max(now, std::prev(later)->due);
    events_.insert(later, {due, Action::SEND, framed(line)});
}

void Modem::receive()
{
    char bytes[512];
    ssize_t got = 0;
    while ((got = read(pty_.master(), bytes, sizeof bytes)) > 0) {
        const auto count = static_cast<unsigned>(got);
        if (bytes_until_stall_ > 0 && count >= bytes_until_stall_)
            stall(0);
        else if (bytes_until_stall_ > 0)
            bytes_until_stall_ -= count;
        for (const char byte : std::string_view(bytes, count))
            take_byte(byte);
    }
}

void Modem::take_byte(char byte)
{
    input_ += byte;
    if (!text_.command.empty()) {
        take_data(byte);
    } else if (const std::string *reply = table_.find_frame(input_)) {
        transcript_.note("<-", std::exchange(input_, {}));
        exchange({}, *reply);
    } else if (byte == '\r') {
        const std::string line = std::exchange(input_, {});
        transcript_.note("<-", line);
        take_command(line);
    } else if (input_.size() > INPUT_LIMIT) {
        input_.erase(0, 1);
    }
}

// The text of a message: every line of it gets a prompt, its end the answer.
void Modem::take_data(char byte)
{
    if (byte != '\r' && byte != END_OF_TEXT && byte != NO_TEXT) {
        if (input_.size() > INPUT_LIMIT)
            input_.erase(0, 1);
        return;
    }
    transcript_.note("<-", input_);
    if (echo_)
        schedule({}, Action::SEND, input_.substr(0, input_.size() - (byte == '\r' ? 0 : 1)));
    input_.clear();
    if (byte == '\r') {
        schedule({}, Action::SEND, std::string(PROMPT));
        return;
    }
    const auto [command, answer] = std::exchange(text_, {});
    exchange(command, byte == END_OF_TEXT ? answer : framed("OK"));
}

void Modem::take_command(std::string_view line)
{
    const std::string command = to_upper(trim(line));
    if (strike(FaultKind::SILENCE, command) != nullptr) {
        end_strikes();
        return;
    }
    if (echo_)
        schedule({}, Action::SEND, std::string(line));
    if (command == "ATE0" || command == "ATE1")
        echo_ = command.back() == '1';
    if (command.empty())
        return;
    std::vector<std::string> lines =
        table_.find(command, card_present_).value_or(std::vector<std::string>{"ERROR"});
    const auto prompt = std::ranges::find(lines, ">");
    if (prompt == lines.end()) {
        exchange(command, framed(lines));
        return;
    }
    schedule({}, Action::SEND, framed({lines.begin(), prompt}) + std::string(PROMPT));
    text_ = {command, framed({prompt + 1, lines.end()})};
}

// One command, frame or text that is complete.
void Modem::exchange(std::string_view command, std::string body)
{
    if (strike(FaultKind::SILENCE, command) == nullptr) {
        answer(command, std::move(body));
        misbehave_after(command);
    }
    end_strikes();
}

void Modem::answer(std::string_view command, std::string body)
{
    body = garble(command, std::move(body));
    if (const Fault *late = strike(FaultKind::LATE, command))
        schedule(late->pause, Action::SEND);
    if (strike(FaultKind::HANGUP, command) != nullptr) {
        send_answer(command, body.substr(0, body.size() / 2));
        schedule(HANG_UP_DELAY, Action::HANG_UP);
    } else if (const Fault *vanish = strike(FaultKind::VANISH, command)) {
        schedule({}, Action::VANISH, vanish->returns ? "returns" : "");
        if (vanish->returns)
            schedule(vanish->pause, Action::COME_BACK);
    } else {
        send_answer(command, std::move(body));
    }
}

// Faults without a command of these kinds struck when they came.
void Modem::misbehave_after(std::string_view command)
{
    if (strike(FaultKind::USIM, command) != nullptr && remove_card())
        schedule({}, Action::SEND, framed(CARD_REMOVED));
    if (const Fault *fault = strike(FaultKind::STALL, command); fault != nullptr && !fault->command.empty())
        stall(fault->number);
}

// The fault of that kind that applies to the command: the most specific one, the newest of equals.
Fault *Modem::strike(FaultKind kind, std::string_view command)
{
    Fault *found = nullptr;
    for (Fault &fault : faults_)
        if (fault.kind == kind && fault.concerns(command) &&
            (found == nullptr || fault.specificity() >= found->specificity()))
            found = &fault;
    if (found != nullptr)
        found->used = true;
    return found;
}

// Counts the command for the faults that struck it.
void Modem::end_strikes()
{
    std::erase_if(faults_, [](Fault &fault) {
        return std::exchange(fault.used, false) && fault.left > 0 && --fault.left == 0;
    });
}

bool Modem::has(FaultKind kind) const
{
    return std::ranges::any_of(faults_, [kind](const Fault &fault) { return fault.kind == kind; });
}

std::string Modem::garble(std::string_view command, std::string body)
{
    if (const Fault *garbage = strike(FaultKind::GARBAGE, command)) {
        body.assign(garbage->number, '\0');
        std::ranges::generate(body, [this] { return static_cast<char>(random_()); });
    }
    if (const Fault *length = strike(FaultKind::LENGTH, command))
        body = letters(length->number);
    if (const Fault *change = strike(FaultKind::CHANGE, command))
        for (unsigned i = 0; i < change->number && !body.empty(); ++i)
            body[random_() % body.size()] ^= static_cast<char>(1 + random_() % 255);
    if (const Fault *drop = strike(FaultKind::DROP, command))
        for (unsigned i = 0; i < drop->number && !body.empty(); ++i)
            body.erase(random_() % body.size(), 1);
    if (const Fault *half = strike(FaultKind::HALF, command))
        body.resize(half->number > 0 ? std::min<size_t>(half->number, body.size()) : body.size() / 2);
    if (const Fault *inside = strike(FaultKind::INSIDE, command))
        body.insert(body.size() / 2, framed(inside->text));
    if (const Fault *before = strike(FaultKind::BEFORE, command))
        body.insert(0, framed(before->text));
    if (const Fault *after = strike(FaultKind::AFTER, command))
        body += framed(after->text);
    return body;
}

void Modem::schedule(milliseconds pause, Action action, std::string bytes, bool continues)
{
    const Clock::time_point now = Clock::now();
    const Clock::time_point start = events_.empty() ? now : std::max(now, events_.back().due);
    events_.push_back({start + pause, action, std::move(bytes), continues});
}

void Modem::send_answer(std::string_view command, std::string body)
{
    const Fault *pieces = strike(FaultKind::PIECES, command);
    if (pieces == nullptr) {
        schedule({}, Action::SEND, std::move(body));
        return;
    }
    for (size_t sent = 0; sent < body.size(); sent += pieces->number)
        schedule(sent == 0 ? milliseconds{} : pieces->pause, Action::SEND, body.substr(sent, pieces->number),
                 sent > 0);
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
            disappear(done.bytes.empty());
        if (done.action == Action::HANG_UP)
            transcript_.note("--", "line hangs up");
        if (done.action == Action::HANG_UP || done.action == Action::COME_BACK)
            come_back();
        if (done.action == Action::COME_BACK)
            reboot();
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

// The line takes that many bytes more.
void Modem::stall(unsigned bytes)
{
    bytes_until_stall_ = bytes;
    if (bytes == 0)
        pty_.set_draining(false);
}

void Modem::drain()
{
    bytes_until_stall_ = 0;
    pty_.set_draining(true);
}

// Forgets what was still to be answered.
void Modem::disappear(bool for_good)
{
    transcript_.note("--", "tty disappears");
    pty_.hang_up();
    std::erase_if(events_, [](const Event &event) { return event.action != Action::COME_BACK; });
    gone_ = for_good;
}

void Modem::come_back()
{
    gone_ = !bring_up();
    if (gone_)
        perror("modemsim: no pseudo terminal");
}

void Modem::reboot()
{
    echo_ = echo_at_start_;
    schedule({}, Action::SEND, framed(table_.boot_lines(card_present_)));
}

// False when there was none.
bool Modem::remove_card()
{
    if (card_present_)
        transcript_.note("--", "USIM removed");
    return std::exchange(card_present_, false);
}

void Modem::insert_card()
{
    if (!std::exchange(card_present_, true))
        say(CARD_INSERTED);
}

} // namespace modemsim
