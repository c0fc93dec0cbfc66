// SPDX-License-Identifier: MIT
#include "base/owners.h"

namespace qz::base
{

// A close that fails leaves nothing to be done.
void close_descriptor(int fd)
{
    const ErrnoKeeper keeper;
    (void)close(fd);
}

void end_stream(FILE *stream)
{
    const ErrnoKeeper keeper;
    (void)fclose(stream);
}

void end_directory(DIR *directory)
{
    const ErrnoKeeper keeper;
    (void)closedir(directory);
}

UniqueStream open_for_reading(const char *path)
{
    return UniqueStream(fopen(path, "re"));
}

UniqueFd open_to_read(const char *path)
{
    return UniqueFd(open(path, O_RDONLY | O_CLOEXEC));
}

int move_up(int fd, int duplicate)
{
    if (static_cast<unsigned>(fd) > STDERR_FILENO)
        return fd;
    const UniqueFd low(fd);
    return fcntl(fd, duplicate, STDERR_FILENO + 1);
}

} // namespace qz::base
