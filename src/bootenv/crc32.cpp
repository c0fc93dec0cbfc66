// SPDX-License-Identifier: MIT
// The library's CRC-32: reflected, polynomial 0xEDB88320, as in Ethernet and in the
// bootloader's environment block.
//
// 64-bit machines move the register on by eight bytes per round with one table of 1 KiB for
// each of them ("slicing"; all eight are a fraction of their first-level cache) and work
// on long buffers in four parallel lanes: a round waits for its loads and one register is
// one chain of rounds, so a single lane leaves most of the processor idle.
//
// 32-bit machines have one table of 1 KiB and look up a word's four bytes one after the other.
// Eight tables would be 8 KiB in a library of 62, and in a cache of 16 to 32 KiB.
//
// The tables are made by the compiler: read-only pages shared by all daemons, no first call
// to get right between threads.
#include "base/export.h"

#include <array>
#include <bit>
#include <qzlib.h>

// Inlined by force: left to itself the compiler makes calls, at half the speed.
#define INLINE [[maybe_unused, gnu::always_inline]] inline

namespace
{

constexpr uint32_t POLYNOMIAL = 0xEDB88320U;

constexpr bool WIDE = sizeof(void *) == 8;
constexpr size_t WORD_SIZE = WIDE ? 8 : 4;

// A word's first byte must be its lowest: it meets the register's low end.
static_assert(std::endian::native == std::endian::little);

// tables[n][byte]: what this low byte leaves in the register when n zero bytes follow it.
using Tables = std::array<std::array<uint32_t, 256>, WIDE ? WORD_SIZE : 1>;

constexpr uint32_t shift_bit(uint32_t value)
{
    return (value >> 1) ^ ((value & 1U) != 0 ? POLYNOMIAL : 0);
}

constexpr Tables make_tables()
{
    Tables tables{};
    for (uint32_t byte = 0; byte < 256; ++byte) {
        uint32_t value = byte;
        for (unsigned bit = 0; bit < 8; ++bit)
            value = shift_bit(value);
        tables[0][byte] = value;
    }
    for (size_t n = 1; n < tables.size(); ++n)
        for (size_t byte = 0; byte < 256; ++byte) {
            const uint32_t before = tables[n - 1][byte];
            tables[n][byte] = tables[0][before & 0xFFU] ^ (before >> 8);
        }
    return tables;
}

constexpr Tables TABLES = make_tables();
static_assert(TABLES[0][1] == 0x77073096U);

// Moves the register, which has met a byte, on by that byte.
INLINE uint32_t shift_byte(uint32_t reg)
{
    return TABLES[0][reg & 0xFFU] ^ (reg >> 8);
}

// In memory, at any alignment. A memcpy() would be a call on processors that want words aligned.
struct [[gnu::packed, gnu::may_alias]] Word
{
    uint32_t value;
};

INLINE uint32_t load32(const unsigned char *data)
{
    return reinterpret_cast<const Word *>(data)->value;
}

// What four bytes leave in the register when `after` zero bytes follow them.
template <size_t AFTER>
uint32_t look_up(uint32_t bytes)
{
    return TABLES[AFTER + 3][bytes & 0xFFU] ^ TABLES[AFTER + 2][(bytes >> 8) & 0xFFU] ^
           TABLES[AFTER + 1][(bytes >> 16) & 0xFFU] ^ TABLES[AFTER][bytes >> 24];
}

INLINE uint32_t feed_word(uint32_t reg, const unsigned char *data)
{
    if constexpr (WIDE)
        return look_up<4>(reg ^ load32(data)) ^ look_up<0>(load32(data + 4));
    return shift_byte(shift_byte(shift_byte(shift_byte(reg ^ load32(data)))));
}

// Product of two polynomials modulo the CRC's, bits reflected as in the register.
constexpr uint32_t multiply(uint32_t a, uint32_t b)
{
    uint32_t product = 0;
    for (int bit = 0; bit < 32; ++bit) {
        product ^= b & (0U - (a >> 31));
        a <<= 1;
        b = shift_bit(b);
    }
    return product;
}

// The factor by which a register grows when so many zero bytes follow: x^(8 * bytes).
[[maybe_unused]] constexpr uint32_t zeros_factor(size_t bytes)
{
    uint32_t factor = 0x80000000U;                                // 1
    for (uint32_t power = 0x00800000U; bytes != 0; bytes >>= 1) { // x^8, squared for each bit of the count
        if ((bytes & 1U) != 0)
            factor = multiply(factor, power);
        power = multiply(power, power);
    }
    return factor;
}

// Four neighbouring lanes of LANE bytes each, fed in step, then put together: what a lane
// left counts as if the later lanes' bytes, all zero, had followed it.
template <size_t LANE>
uint32_t feed_four_lanes(uint32_t reg, const unsigned char *data)
{
    constexpr uint32_t BY_ONE = zeros_factor(LANE);
    constexpr uint32_t BY_TWO = zeros_factor(2 * LANE);
    constexpr uint32_t BY_THREE = zeros_factor(3 * LANE);
    uint32_t second = 0;
    uint32_t third = 0;
    uint32_t fourth = 0;
    for (size_t at = 0; at < LANE; at += WORD_SIZE) {
        reg = feed_word(reg, data + at);
        second = feed_word(second, data + at + LANE);
        third = feed_word(third, data + at + 2 * LANE);
        fourth = feed_word(fourth, data + at + 3 * LANE);
    }
    return multiply(BY_THREE, reg) ^ multiply(BY_TWO, second) ^ multiply(BY_ONE, third) ^ fourth;
}

constexpr size_t LONG_LANE = 8192;
constexpr size_t SHORT_LANE = 1024;

// The register after more bytes; inversion is the caller's.
uint32_t feed(uint32_t reg, const unsigned char *data, size_t size)
{
    if constexpr (WIDE) {
        // Putting lanes together costs about as much as 200 bytes: long lanes where they fit.
        for (; size >= 4 * LONG_LANE; data += 4 * LONG_LANE, size -= 4 * LONG_LANE)
            reg = feed_four_lanes<LONG_LANE>(reg, data);
        for (; size >= 4 * SHORT_LANE; data += 4 * SHORT_LANE, size -= 4 * SHORT_LANE)
            reg = feed_four_lanes<SHORT_LANE>(reg, data);
    }
    for (; size >= WORD_SIZE; data += WORD_SIZE, size -= WORD_SIZE)
        reg = feed_word(reg, data);
    for (; size != 0; ++data, --size)
        reg = shift_byte(reg ^ *data);
    return reg;
}

} // namespace

QZ_EXPORT unsigned int crc32(unsigned int crc, const unsigned char *buf, unsigned int len)
{
    return ~feed(~crc, buf, len);
}
