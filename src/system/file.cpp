// SPDX-License-Identifier: MIT
#include "base/export.h"
#include "base/owners.h"
#include "base/text.h"

#include <array>
#include <cstring>
#include <elf.h>
#include <qzlib.h>

using qz::base::UniqueFd;

QZ_EXPORT int qzlib_get_file_size(const char *path)
{
    if (path == nullptr)
        return -1;
    const UniqueFd file = qz::base::open_to_read(path);
    if (!file)
        return 0;
    (void)lseek(file.get(), 0, SEEK_END); // the files of /proc have no end to go to: 0 then
    return static_cast<int>(lseek(file.get(), 0, SEEK_CUR));
}

QZ_EXPORT int qzlib_file_is_elf(const char *path)
{
    if (path == nullptr)
        return 0;
    std::array<char, sizeof(Elf32_Ehdr) + 1> header;
    (void)qz::base::read_start(path, header); // without the file: zeros
    return memcmp(header.data(), ELFMAG, SELFMAG) == 0;
}
