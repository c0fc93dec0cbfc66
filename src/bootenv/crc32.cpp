// The library's CRC-32: reflected, polynomial 0xEDB88320, as in Ethernet and in the
// bootloader's environment block.
//
// 64-bit machines move the register on by eight bytes per round with one table of 1 KiB for
// each of them ("slicing"; all eight are a fraction of their first-level cache) and work
// on long buffers in four parallel lanes: a round waits for its loads and one register is
// one chain of rounds, so a single lane leaves most of the processor idle.
//
// 32-bit machines go by half bytes with one table of 64 bytes. A table for whole bytes would be
// 1 KiB in a library of 64, and in a cache of 16 to 32 KiB. What is summed there is the boot
// environment before it is written to flash, beside which 128 KiB of it do not count.
//
// The tables are made by the compiler: read-only pages shared by all daemons, no first call
// to get right between threads. Words are loaded with memcpy(), so any alignment will do.
#include "base/export.h"
#include "base/owners.h"

#include <array>
#include <bit>
#include <cstring>
#include <qzlib.h>

namespace
{

constexpr uint32_t POLYNOMIAL = 0xEDB88320U;
constexpr uint32_t REGISTER_START = 0xFFFFFFFFU;

constexpr size_t WORD_SIZE = sizeof(void *) == 8 ? 8 : 1;
constexpr unsigned TABLE_BITS = sizeof(void *) == 8 ? 8 : 4; // looked up at once

// A word's first byte must be its lowest: it meets the register's low end.
static_assert(std::endian::native == std::endian::little);

// tables[n][bits]: what these low bits leave in the register when n zero bytes follow them.
using Tables = std::array<std::array<uint32_t, 1U << TABLE_BITS>, WORD_SIZE>;

constexpr uint32_t shift_bit(uint32_t value)
{
    return (value >> 1) ^ ((value & 1U) != 0 ? POLYNOMIAL : 0);
}

constexpr Tables make_tables()
{
    Tables tables{};
    for (uint32_t bits = 0; bits < tables[0].size(); ++bits) {
        uint32_t value = bits;
        for (unsigned bit = 0; bit < TABLE_BITS; ++bit)
            value = shift_bit(value);
        tables[0][bits] = value;
    }
    for (size_t n = 1; n < tables.size(); ++n)
        for (size_t byte = 0; byte < 256; ++byte) {
            const uint32_t before = tables[n - 1][byte];
            tables[n][byte] = tables[0][before & 0xFFU] ^ (before >> 8);
        }
    return tables;
}

constexpr Tables TABLES = make_tables();
static_assert(TABLES[0][1] == (TABLE_BITS == 8 ? 0x77073096U : 0x1DB71064U));

uint32_t feed_byte(uint32_t reg, unsigned char byte)
{
    reg ^= byte;
    for (unsigned bits = 0; bits < 8; bits += TABLE_BITS)
        reg = TABLES[0][reg % TABLES[0].size()] ^ (reg >> TABLE_BITS);
    return reg;
}

uint32_t load32(const unsigned char *data)
{
    uint32_t value;
    memcpy(&value, data, sizeof value);
    return value;
}

// What four bytes leave in the register when `after` zero bytes follow them.
template <size_t AFTER>
uint32_t look_up(uint32_t bytes)
{
    return TABLES[AFTER + 3][bytes & 0xFFU] ^ TABLES[AFTER + 2][(bytes >> 8) & 0xFFU] ^
           TABLES[AFTER + 1][(bytes >> 16) & 0xFFU] ^ TABLES[AFTER][bytes >> 24];
}

// Inlined by force: left to itself the compiler makes it a call, at half the speed.
[[maybe_unused, gnu::always_inline]] inline uint32_t feed_word(uint32_t reg, const unsigned char *data)
{
    return look_up<4>(reg ^ load32(data)) ^ look_up<0>(load32(data + 4));
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
    if constexpr (WORD_SIZE == 8) {
        // Putting lanes together costs about as much as 200 bytes: long lanes where they fit.
        for (; size >= 4 * LONG_LANE; data += 4 * LONG_LANE, size -= 4 * LONG_LANE)
            reg = feed_four_lanes<LONG_LANE>(reg, data);
        for (; size >= 4 * SHORT_LANE; data += 4 * SHORT_LANE, size -= 4 * SHORT_LANE)
            reg = feed_four_lanes<SHORT_LANE>(reg, data);
        for (; size >= WORD_SIZE; data += WORD_SIZE, size -= WORD_SIZE)
            reg = feed_word(reg, data);
    }
    for (; size != 0; ++data, --size)
        reg = feed_byte(reg, *data);
    return reg;
}

} // namespace

QZ_EXPORT unsigned int crc32(unsigned int crc, const unsigned char *buf, unsigned int len)
{
    return ~feed(~crc, buf, len);
}

QZ_EXPORT unsigned int crc32file(const char *path)
{
    const qz::base::UniqueStream stream(path != nullptr ? fopen(path, "re") : nullptr);
    if (!stream)
        return 0;
    uint32_t reg = REGISTER_START;
    std::array<unsigned char, 4096> piece;
    size_t size;
    do { // a short piece is the last: reading does not go on behind an error that passes
        size = fread(piece.data(), 1, piece.size(), stream.get());
        reg = feed(reg, piece.data(), size);
    } while (size == piece.size());
    if (ferror(stream.get()) != 0)
        perror(path); // what was read before the error still counts
    return ~reg;
}
