// SPDX-License-Identifier: MIT
// Owners of descriptors, streams and directories. Move-only; an owner may be empty, its
// destructor keeps errno and never logs, and release() hands the resource to the caller.
#pragma once

#include <cerrno>
#include <cstdio>
#include <cstdlib>
#include <dirent.h>
#include <fcntl.h>
#include <sys/types.h>
#include <unistd.h>

#pragma GCC visibility push(hidden)

namespace qz::base
{

// What the owners' destructors do, errno kept. Out of line, because every return of a function that has
// an owner calls one.
void close_descriptor(int fd);
void end_stream(FILE *stream);
void end_directory(DIR *directory);

// Keeps errno over clean-up work.
class ErrnoKeeper
{
public:
    ErrnoKeeper() : saved_(errno) {}
    ~ErrnoKeeper() { errno = saved_; }
    ErrnoKeeper(const ErrnoKeeper &) = delete;
    ErrnoKeeper &operator=(const ErrnoKeeper &) = delete;

private:
    int saved_;
};

class UniqueFd
{
public:
    UniqueFd() = default;
    explicit UniqueFd(int fd) : fd_(fd) {}
    UniqueFd(UniqueFd &&other) noexcept : fd_(other.release()) {}
    UniqueFd &operator=(UniqueFd &&other) noexcept
    {
        reset(other.release());
        return *this;
    }
    UniqueFd(const UniqueFd &) = delete;
    UniqueFd &operator=(const UniqueFd &) = delete;
    ~UniqueFd() { reset(); }

    [[nodiscard]] int get() const { return fd_; }
    explicit operator bool() const { return fd_ >= 0; }
    [[nodiscard]] int release()
    {
        const int fd = fd_;
        fd_ = -1;
        return fd;
    }
    void reset(int fd = -1)
    {
        if (fd_ >= 0)
            close_descriptor(fd_);
        fd_ = fd;
    }

private:
    int fd_ = -1;
};

// What UniqueStream and UniqueDir share: a pointer and the call that closes it, errno kept.
template <typename Resource, void (*CLOSE)(Resource *)>
class UniqueHandle
{
public:
    UniqueHandle() = default;
    explicit UniqueHandle(Resource *resource) : resource_(resource) {}
    UniqueHandle(UniqueHandle &&other) noexcept : resource_(other.release()) {}
    UniqueHandle &operator=(UniqueHandle &&other) noexcept
    {
        reset(other.release());
        return *this;
    }
    UniqueHandle(const UniqueHandle &) = delete;
    UniqueHandle &operator=(const UniqueHandle &) = delete;
    ~UniqueHandle() { reset(); }

    [[nodiscard]] Resource *get() const { return resource_; }
    explicit operator bool() const { return resource_ != nullptr; }
    [[nodiscard]] Resource *release()
    {
        Resource *resource = resource_;
        resource_ = nullptr;
        return resource;
    }
    void reset(Resource *resource = nullptr)
    {
        if (resource_ != nullptr)
            CLOSE(resource_);
        resource_ = resource;
    }

private:
    Resource *resource_ = nullptr;
};

using UniqueStream = UniqueHandle<FILE, end_stream>;
using UniqueDir = UniqueHandle<DIR, end_directory>;

// Close-on-exec from the start: a daemon's children must not inherit what a call holds open.
UniqueStream open_for_reading(const char *path);
UniqueFd open_to_read(const char *path);

// A device's descriptor, moved up when it is 0, 1 or 2, so that what a daemon without standard streams
// prints does not reach a device. -1 when there is no other; a negative one is returned as it is.
int move_up(int fd, int duplicate = F_DUPFD_CLOEXEC);

// A heap block obtained with malloc() or calloc().
class UniqueMemory
{
public:
    explicit UniqueMemory(void *block) : block_(block) {}
    ~UniqueMemory() { free(block_); }
    UniqueMemory(const UniqueMemory &) = delete;
    UniqueMemory &operator=(const UniqueMemory &) = delete;

    [[nodiscard]] char *get() const { return static_cast<char *>(block_); }
    explicit operator bool() const { return block_ != nullptr; }

private:
    void *block_;
};

} // namespace qz::base

#pragma GCC visibility pop
