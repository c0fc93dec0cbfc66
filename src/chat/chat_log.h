// How the serial line and the AT exchanges log.
#pragma once

#include <array>
#include <csignal>
#include <qzlib.h>

namespace qz::chat
{

// Every signal that chat_signal_handler() may be installed for.
inline constexpr std::array SIGNALS = {SIGHUP, SIGALRM, SIGINT, SIGQUIT, SIGPIPE, SIGTERM};

// Holds those signals back. The handler logs, and a handler that interrupts this thread inside
// debug_msg() would wait for ever for the locks (time zone, syslog) that the thread holds.
class SignalsHeld
{
public:
    SignalsHeld()
    {
        sigset_t held;
        sigemptyset(&held);
        for (const int signal : SIGNALS)
            sigaddset(&held, signal);
        pthread_sigmask(SIG_BLOCK, &held, &before_);
    }
    ~SignalsHeld() { pthread_sigmask(SIG_SETMASK, &before_, nullptr); }
    SignalsHeld(const SignalsHeld &) = delete;
    SignalsHeld &operator=(const SignalsHeld &) = delete;

private:
    sigset_t before_{};
};

} // namespace qz::chat

// A macro for the line number and for the compiler's check of the format.
#define CHAT_LOG(level, ...)                                                                                 \
    do {                                                                                                     \
        const qz::chat::SignalsHeld held;                                                                    \
        debug_msg(level, "vq_chat", __LINE__, __VA_ARGS__);                                                  \
    } while (false)
