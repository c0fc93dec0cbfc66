// The ways in which the modem misbehaves.
#pragma once

#include <chrono>
#include <optional>
#include <string>
#include <string_view>

namespace modemsim
{

enum class FaultKind {
    LATE,    // the answer begins late
    PIECES,  // the answer comes in pieces with pauses
    BEFORE,  // an unsolicited line before the answer
    INSIDE,  // ... in the middle of it
    AFTER,   // ... after it
    SILENCE, // no answer and no echo
    GARBAGE, // random bytes instead of an answer
    LENGTH,  // letters instead of an answer
    STALL,   // the line stops draining: writers block
    HANGUP,  // half an answer, then the line hangs up and a new one appears
    VANISH,  // the tty disappears
    USIM,    // the USIM card is removed
};

struct Fault {
    FaultKind kind;
    unsigned number = 0;               // bytes, where the kind has them
    std::chrono::milliseconds pause{}; // where the kind has one
    bool returns = false;              // VANISH: a new tty appears after the pause
    std::string text;                  // the unsolicited line
    std::string command;               // only for this command; empty: for all
};

// "NAME[=ARGUMENT][@COMMAND]", as the manual page has it. Nothing when it is not of that form.
std::optional<Fault> parse_fault(std::string_view text);

} // namespace modemsim
