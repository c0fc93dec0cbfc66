// SPDX-License-Identifier: MIT
// What every part of qzbox needs: ways to stop with a message, owners of descriptors and
// directories, and a few path helpers.
#pragma once

#include <dirent.h>
#include <sys/types.h>
#include <unistd.h>

#include <string>
#include <utility>
#include <vector>

namespace qzbox
{

// Exit statuses as shells and command wrappers use them.
inline constexpr int STATUS_NO_BOX = 125; // the box could not be made; nothing was run
inline constexpr int STATUS_NOT_EXECUTABLE = 126;
inline constexpr int STATUS_NOT_FOUND = 127;
inline constexpr int STATUS_SIGNAL_BASE = 128; // + signal number

// Owner of one descriptor.
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
    [[nodiscard]] bool valid() const { return fd_ >= 0; }
    int release() { return std::exchange(fd_, -1); }
    void reset(int fd = -1)
    {
        if (fd_ >= 0)
            close(fd_);
        fd_ = fd;
    }

private:
    int fd_ = -1;
};

// Print "qzbox: TEXT" or "qzbox: TEXT: reason of errno" on standard error and end this process
// with STATUS_NO_BOX. In the init process that ends the whole box.
[[noreturn]] __attribute__((format(printf, 1, 2))) void fail(const char *format, ...);
[[noreturn]] __attribute__((format(printf, 1, 2))) void fail_errno(const char *format, ...);

// mount(2); a failure ends the box with a message.
void mount_or_fail(const char *source, const std::string &target, const char *type, unsigned long flags,
                   const char *options);

// Names in an open directory, without "." and ".."; the descriptor stays with the caller.
// Unreadable directories are an empty list with errno set.
std::vector<std::string> list_names(int directory_fd);

// "directory/name".
std::string join(const std::string &directory, const std::string &name);

// Directory `path` with all its parents; existing ones are kept.
void make_directories(const std::string &path);

// An empty file to mount over, with its parent directories.
void make_mount_file(const std::string &path);

// True when `path` equals `directory` or lies below it. Both without trailing slash.
bool is_within(const std::string &path, const std::string &directory);

bool is_directory(const std::string &path); // follows symbolic links

} // namespace qzbox
