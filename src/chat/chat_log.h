// How the serial line and the AT exchanges log.
#pragma once

#include <qzlib.h>

namespace qz::chat
{

// Logs with every signal held back that chat_signal_handler() may be installed for. The handler
// logs, and a handler that interrupts this thread inside debug_msg() would wait for ever for the
// locks (time zone, syslog) that the thread holds.
[[gnu::format(printf, 3, 4)]] void chat_log(int level, int line, const char *format, ...);

} // namespace qz::chat

#define CHAT_LOG(level, ...) qz::chat::chat_log(level, __LINE__, __VA_ARGS__)
