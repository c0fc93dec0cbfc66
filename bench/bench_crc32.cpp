// SPDX-License-Identifier: MIT
// crc32() beside zlib's and beside a table loop that takes one byte at a time: the ratios of
// one run, so that a loaded or throttled machine slows all three alike.
#include "ratio_reporter.h"

#include <array>
#include <cstdint>
#include <vector>

#include <qzlib.h>

// zlib's CRC-32 under its second name: <zlib.h> declares the name crc32 too.
extern "C" unsigned long crc32_z(unsigned long crc, const unsigned char *buf, size_t len);

namespace
{

std::array<uint32_t, 256> make_table()
{
    std::array<uint32_t, 256> table{};
    for (uint32_t byte = 0; byte < table.size(); ++byte) {
        uint32_t value = byte;
        for (int bit = 0; bit < 8; ++bit)
            value = (value >> 1) ^ ((value & 1U) != 0 ? 0xEDB88320U : 0);
        table[byte] = value;
    }
    return table;
}

uint32_t crc32_bytewise(uint32_t crc, const unsigned char *buf, size_t len)
{
    static const std::array<uint32_t, 256> table = make_table();
    crc = ~crc;
    for (size_t i = 0; i < len; ++i)
        crc = table[(crc ^ buf[i]) & 0xFFU] ^ (crc >> 8);
    return ~crc;
}

template <typename Crc>
void run(benchmark::State &state, Crc crc)
{
    std::vector<unsigned char> data(static_cast<size_t>(state.range(0)));
    for (size_t i = 0; i < data.size(); ++i)
        data[i] = static_cast<unsigned char>(i * 31 + (i >> 8));
    if (crc(data) != crc32_bytewise(0, data.data(), data.size()))
        state.SkipWithError("wrong checksum");
    for ([[maybe_unused]] auto _ : state) {
        benchmark::DoNotOptimize(data.data());
        benchmark::DoNotOptimize(crc(data));
    }
    state.SetBytesProcessed(state.iterations() * state.range(0));
}

using Bytes = std::vector<unsigned char>;

void qzlib(benchmark::State &state)
{
    run(state, [](const Bytes &d) { return crc32(0, d.data(), static_cast<unsigned>(d.size())); });
}

void zlib(benchmark::State &state)
{
    run(state, [](const Bytes &d) { return static_cast<uint32_t>(crc32_z(0, d.data(), d.size())); });
}

void bytewise(benchmark::State &state)
{
    run(state, [](const Bytes &d) { return crc32_bytewise(0, d.data(), d.size()); });
}

BENCHMARK(qzlib)->Arg(64)->Arg(4096)->Arg(131072);
BENCHMARK(zlib)->Arg(64)->Arg(4096)->Arg(131072);
BENCHMARK(bytewise)->Arg(64)->Arg(4096)->Arg(131072);

} // namespace

int main()
{
    return bench::run_comparisons({{"qzlib/64", "zlib/64", 1.0},
                                   {"qzlib/64", "bytewise/64", 0},
                                   {"qzlib/4096", "zlib/4096", 1.0},
                                   {"qzlib/4096", "bytewise/4096", 0.25},
                                   {"qzlib/131072", "zlib/131072", 1.0},
                                   {"qzlib/131072", "bytewise/131072", 0.25}},
                                  15, 0.03);
}
