// SPDX-License-Identifier: MIT
// The modem: takes bytes, answers them as the table says and as badly as the faults demand.
#pragma once

#include "fault.h"
#include "pty.h"
#include "table.h"

#include <cstdio>
#include <deque>
#include <random>

namespace modemsim
{

// Times are seconds since the start. A line each: "<-" received, "->" sent, "--" anything else.
class Transcript
{
public:
    Transcript() = default;
    Transcript(const Transcript &) = delete;
    Transcript &operator=(const Transcript &) = delete;
    ~Transcript();

    bool open(const char *path);
    void note(std::string_view mark, std::string_view bytes) const;

private:
    FILE *file_ = nullptr;
    Clock::time_point start_ = Clock::now();
};

class Modem
{
public:
    Modem(Table &table, const Transcript &transcript, std::string link, bool echo, unsigned seed)
        : table_(table), transcript_(transcript), link_(std::move(link)), echo_at_start_(echo), echo_(echo),
          random_(seed)
    {
    }

    // Opens the line and prints its path. False, with errno, when it cannot be opened.
    bool bring_up();

    void add_fault(Fault fault);
    bool remove_fault(const Fault &like); // the newest of that kind for that command; false without one
    void clear_faults();                  // the card is put back, the line drains again

    void say(std::string_view line); // an unsolicited line, now

    void receive(); // the line has bytes
    void run_due(); // sends what is due; call it again at next_due()

    [[nodiscard]] int descriptor() const { return pty_.master(); } // below 0 while the tty is away
    [[nodiscard]] bool blocked() const { return blocked_; }        // waits until the line takes more
    [[nodiscard]] bool gone() const { return gone_; }              // the tty is away for good
    [[nodiscard]] const Clock::time_point *next_due() const
    {
        return events_.empty() ? nullptr : &events_.front().due;
    }

private:
    enum class Action { SEND, HANG_UP, VANISH, COME_BACK };
    struct Event {
        Clock::time_point due;
        Action action;
        std::string bytes;
        bool continues = false; // an answer that has begun: nothing comes between
    };

    void take_byte(char byte);
    void take_data(char byte);
    void take_command(std::string_view line);
    void exchange(std::string_view command, std::string body);
    void answer(std::string_view command, std::string body);
    void misbehave_after(std::string_view command);
    Fault *strike(FaultKind kind, std::string_view command);
    void end_strikes();
    [[nodiscard]] bool has(FaultKind kind) const;
    [[nodiscard]] std::string garble(std::string_view command, std::string body);
    void schedule(std::chrono::milliseconds pause, Action action, std::string bytes = {},
                  bool continues = false);
    void send_answer(std::string_view command, std::string body);
    bool send(Event &event);
    void stall(unsigned bytes);
    void drain();
    void disappear(bool for_good);
    void come_back();
    void reboot();
    bool remove_card();
    void insert_card();

    Table &table_;
    const Transcript &transcript_;
    Pty pty_;
    std::string link_;
    bool echo_at_start_;
    bool echo_;
    bool card_present_ = true;
    bool blocked_ = false;
    bool gone_ = false;
    std::mt19937 random_;
    std::string input_;
    struct {
        std::string command; // that waits for a text; empty: none does
        std::string answer;
    } text_;
    unsigned bytes_until_stall_ = 0; // 0: no stall is to come
    std::deque<Fault> faults_;
    std::deque<Event> events_; // in the order of sending
};

} // namespace modemsim
