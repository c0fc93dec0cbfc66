// SPDX-License-Identifier: MIT
// The CRC-32 of a file. In a file of its own, as it is not compiled for speed as crc32() is.
#include "base/export.h"
#include "base/owners.h"

#include <array>
#include <qzlib.h>

QZ_EXPORT unsigned int crc32file(const char *path)
{
    const qz::base::UniqueStream stream(path != nullptr ? fopen(path, "re") : nullptr);
    if (!stream)
        return 0;
    unsigned int crc = 0;
    std::array<unsigned char, 4096> piece;
    size_t size;
    do { // a short piece is the last: reading does not go on after an error that passes
        size = fread(piece.data(), 1, piece.size(), stream.get());
        crc = crc32(crc, piece.data(), static_cast<unsigned int>(size));
    } while (size == piece.size());
    if (ferror(stream.get()) != 0)
        perror(path); // what was read before the error still counts
    return crc;
}
