// SPDX-License-Identifier: MIT
// The time_t of this call is that of its callers: on a 32-bit machine it has 32 bits with glibc
// unless a program asks for more, and daemons do not.
#undef _TIME_BITS

#include "base/export.h"
#include "log/time_text.h"

#include <qzlib.h>

QZ_EXPORT char *str_timestamp(time_t t, char *buf, int size)
{
    if (size < 1)
        return buf;
    qz::log::format_time(t, {buf, static_cast<size_t>(size)});
    buf[size - 1] = '\0';
    return buf;
}
