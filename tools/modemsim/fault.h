// SPDX-License-Identifier: MIT
// The ways in which the modem misbehaves.
#pragma once

#include <chrono>
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
    CHANGE,  // some bytes of the answer are others
    DROP,    // ... are missing
    HALF,    // the answer breaks off
    STALL,   // the line stops draining: writers block
    HANGUP,  // half an answer, then the line hangs up and a new one appears
    VANISH,  // the tty disappears
    USIM,    // the USIM card is removed
};

struct Fault {
    FaultKind kind{};
    unsigned number = 0;               // bytes, where the kind has them
    std::chrono::milliseconds pause{}; // where the kind has one
    bool returns = false;              // VANISH: a new tty appears after the pause
    std::string text;                  // the unsolicited line
    std::string command; // only for this one, or those that begin so before a '*'; empty: for all
    unsigned left = 0;   // commands that it strikes yet; 0: no limit
    bool used = false;   // it has struck the present one

    [[nodiscard]] bool concerns(std::string_view given) const;
    [[nodiscard]] size_t specificity() const; // of two that apply to a command the higher one strikes
};

// "[N:]NAME[=ARGUMENT][@COMMAND]", as the manual page has it. Empty on success, else what is wrong.
std::string parse_fault(std::string_view text, Fault &fault);

// "NAME[@COMMAND]", of a fault to be taken back.
std::string parse_fault_name(std::string_view text, Fault &fault);

} // namespace modemsim
