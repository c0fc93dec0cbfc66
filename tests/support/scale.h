// Counts for machines that are slower than the host: QZ_TEST_SCALE says how many times.
#pragma once

#include <algorithm>
#include <cstdlib>

namespace support
{

inline int slowness()
{
    const char *scale = getenv("QZ_TEST_SCALE");
    return scale != nullptr ? std::max(atoi(scale), 1) : 1;
}

// That many rounds here, accordingly fewer on a slow machine.
template <typename Count>
Count scaled(Count rounds)
{
    return std::max<Count>(rounds / static_cast<Count>(slowness()), 1);
}

// A limit that tells a hang from waiting: longer on a slow machine.
template <typename Duration>
Duration patient(Duration limit)
{
    return limit * slowness();
}

} // namespace support
