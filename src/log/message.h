// Logging for what is variadic itself.
#pragma once

#include <cstdarg>

namespace qz::log
{

// debug_msg() with the arguments as a list, which it leaves to its caller to end.
void log_message(int level, const char *module, int line, const char *format, va_list arguments);

} // namespace qz::log
