#include "chat/chat_log.h"
#include "log/message.h"

#include <csignal>

namespace
{

constexpr int SIGNALS[] = {SIGHUP, SIGALRM, SIGINT, SIGQUIT, SIGPIPE, SIGTERM};

} // namespace

void qz::chat::chat_log(int level, int line, const char *format, ...)
{
    sigset_t held;
    sigset_t before;
    sigemptyset(&held);
    for (const int signal : SIGNALS)
        sigaddset(&held, signal);
    pthread_sigmask(SIG_BLOCK, &held, &before);
    va_list arguments;
    va_start(arguments, format);
    qz::log::log_message(level, "vq_chat", line, format, arguments);
    va_end(arguments);
    pthread_sigmask(SIG_SETMASK, &before, nullptr);
}
