// SPDX-License-Identifier: MIT
#include "flash.h"

#include "replace.h"

#include <algorithm>
#include <cerrno>
#include <cstring>
#include <fcntl.h>
#include <linux/fs.h>
#include <sys/file.h>
#include <sys/ioctl.h>
#include <sys/stat.h>

namespace qzctl
{
namespace
{

// What docs/bootenv.md asks all programs to hold during a call: the library reads before it locks.
constexpr const char *GUARD = "/tmp/bootenv.lock";
constexpr int PARTITIONS = 32;
constexpr const char *PARTITION_NAME_START = "aboot";

bool read_attribute(int partition, const char *name, char (&text)[64])
{
    char path[64];
    (void)snprintf(path, sizeof path, "/sys/class/mtd/mtd%d/%s", partition, name);
    const Fd file(open(path, O_RDONLY | O_CLOEXEC));
    if (!file)
        return false;
    const ssize_t got = read(file.get(), text, sizeof text - 1);
    text[std::max<ssize_t>(got, 0)] = '\0';
    return true;
}

// All or nothing, but for the end of the file: what is missing there is zero, as for the library.
bool read_at(int fd, off_t place, Block &block)
{
    memset(&block, 0, sizeof block);
    size_t done = 0;
    while (done < sizeof block) {
        const ssize_t got = pread(fd, reinterpret_cast<char *>(&block) + done, sizeof block - done,
                                  place + static_cast<off_t>(done));
        if (got < 0 && errno == EINTR)
            continue;
        if (got <= 0)
            return got == 0;
        done += static_cast<size_t>(got);
    }
    return true;
}

bool write_at(int fd, off_t place, const Block &block)
{
    return lseek(fd, place, SEEK_SET) == place && write_all(fd, block.bytes()) && fsync(fd) == 0;
}

// So that reading asks the device. A file's pages go likewise, as far as they can.
void drop_buffers(int fd)
{
    (void)ioctl(fd, BLKFLSBUF, 0);
    (void)posix_fadvise(fd, 0, 0, POSIX_FADV_DONTNEED);
}

Block read_back; // large

} // namespace

uint32_t Block::right_sum() const
{
    return crc32(0, reinterpret_cast<const unsigned char *>(data), DATA_SIZE);
}

bool Block::is_cleared() const
{
    const std::string_view all = bytes();
    return std::all_of(all.begin(), all.end(), [](char c) { return c == '\0'; });
}

size_t Block::used() const
{
    size_t end = 0;
    for (Entry entry(*this); entry; entry.next())
        end = entry.place() + strlen(entry.text()) + 1;
    return end;
}

bool Block::has_end() const
{
    const size_t end = used();
    return end == DATA_SIZE || data[end] == '\0';
}

Entry::operator bool() const
{
    return place_ < Block::DATA_SIZE && block_.data[place_] != '\0' &&
           memchr(block_.data + place_, '\0', Block::DATA_SIZE - place_) != nullptr;
}

void Entry::next()
{
    place_ += strlen(text()) + 1;
}

std::string_view Entry::name() const
{
    return {text(), strcspn(text(), "=")};
}

const char *Entry::value() const
{
    const char *value = text() + name().size();
    return *value == '=' ? value + 1 : value;
}

// As the library finds it: the first partition of that name.
bool Flash::find_device()
{
    char text[64];
    for (int number = 0; number < PARTITIONS && read_attribute(number, "name", text); ++number) {
        if (strncmp(text, PARTITION_NAME_START, strlen(PARTITION_NAME_START)) != 0)
            continue;
        if (!read_attribute(number, "size", text))
            return false;
        (void)snprintf(path_, sizeof path_, "/dev/mtdblock%d", number);
        place_ = static_cast<off_t>(strtoll(text, nullptr, 10)) - static_cast<off_t>(Block::SIZE);
        return place_ >= 0;
    }
    return false;
}

int Flash::open(const Arguments &arguments, bool writes)
{
    if (arguments.has(IMAGE))
        (void)snprintf(path_, sizeof path_, "%s", arguments.options[IMAGE]);
    else if (!find_device())
        return say(NO, "no partition %s with room for an environment in /sys/class/mtd",
                   PARTITION_NAME_START);
    device_.reset(::open(path_, (writes ? O_RDWR | O_SYNC : O_RDONLY) | O_CLOEXEC));
    if (!device_)
        return say_errno(path_);
    if (!arguments.has(IMAGE)) {
        guard_.reset(open_lock(GUARD, 0600).release());
        if (const int status = guard_ ? lock_file(guard_.get(), LOCK_EX, GUARD) : say_errno(GUARD);
            status != DONE)
            return status;
    }
    if (const int status = lock_file(device_.get(), writes ? LOCK_EX : LOCK_SH, path_); status != DONE)
        return status;
    struct stat status;
    if (arguments.has(IMAGE) && fstat(device_.get(), &status) == 0) {
        place_ = status.st_size - static_cast<off_t>(Block::SIZE);
        if (place_ < 0)
            return say(NO, "%s: smaller than an environment, which has %zu bytes", path_, Block::SIZE);
    }
    return DONE;
}

int Flash::read(Block &block) const
{
    return read_at(device_.get(), place_, block) ? static_cast<int>(DONE) : say_errno(path_);
}

int Flash::write(const Block &block) const
{
    if (!write_at(device_.get(), place_, block)) {
        const int error = errno;
        return say(NO, "%s: it may be spoilt now: %s", path_, strerror(error));
    }
    drop_buffers(device_.get());
    if (!read_at(device_.get(), place_, read_back) || read_back.bytes() != block.bytes())
        return say(NO, "%s: it does not give back what was written", path_);
    return DONE;
}

} // namespace qzctl
