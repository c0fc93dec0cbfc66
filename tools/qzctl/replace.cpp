// SPDX-License-Identifier: MIT
#include "replace.h"

#include "command.h"

#include <cerrno>
#include <cstring>
#include <ctime>
#include <fcntl.h>
#include <sys/file.h>
#include <sys/stat.h>

namespace qzctl
{
namespace
{

constexpr int LOCK_TRIES = 200;
constexpr timespec LOCK_PAUSE = {0, 50'000'000};

// The real path; of a file that is not there that of its folder, and its name.
bool resolve(const char *path, char (&resolved)[PATH_MAX])
{
    if (realpath(path, resolved) != nullptr)
        return true;
    const char *slash = strrchr(path, '/');
    const char *name = slash == nullptr ? path : slash + 1;
    char folder[PATH_MAX];
    const int length = snprintf(folder, sizeof folder, "%.*s", static_cast<int>(name - path), path);
    struct stat status;
    if (errno != ENOENT || *name == '\0' || length >= PATH_MAX || lstat(path, &status) == 0 ||
        realpath(length == 0 ? "." : folder, resolved) == nullptr)
        return false;
    const size_t size = strlen(resolved);
    return static_cast<size_t>(snprintf(resolved + size, PATH_MAX - size, "/%s", name)) < PATH_MAX - size;
}

// What the old file's owner and mode and a later time need.
bool take_attributes(int fd, const struct stat &old)
{
    struct stat now;
    if (fstat(fd, &now) != 0)
        return false;
    if ((now.st_uid != old.st_uid || now.st_gid != old.st_gid) && fchown(fd, old.st_uid, old.st_gid) != 0)
        return false;
    if (fchmod(fd, old.st_mode & 07777) != 0)
        return false;
    const timespec times[2] = {{0, UTIME_OMIT}, {old.st_mtime + 1, 0}};
    return now.st_mtime > old.st_mtime || futimens(fd, times) == 0;
}

} // namespace

bool read_all(int fd, Content &content)
{
    size_t room = 0;
    content.size = 0;
    for (;;) {
        if (room - content.size < 2) {
            room = room * 2 + 8192;
            content.memory.reset(static_cast<char *>(realloc(content.memory.release(), room)));
            if (!content.memory)
                out_of_memory();
        }
        const ssize_t got = read(fd, content.memory.get() + content.size, room - content.size - 1);
        if (got < 0 && errno == EINTR)
            continue;
        if (got <= 0) {
            content.memory.get()[content.size] = '\0';
            return got == 0;
        }
        content.size += static_cast<size_t>(got);
    }
}

bool write_all(int fd, std::string_view bytes)
{
    while (!bytes.empty()) {
        const ssize_t put = write(fd, bytes.data(), bytes.size());
        if (put < 0 && errno == EINTR)
            continue;
        if (put <= 0) {
            errno = put == 0 ? ENOSPC : errno;
            return false;
        }
        bytes.remove_prefix(static_cast<size_t>(put));
    }
    return true;
}

Fd open_lock(const char *path, mode_t mode)
{
    Fd file(open(path, O_RDWR | O_NOFOLLOW | O_CLOEXEC));
    if (!file && errno == ENOENT)
        file.reset(open(path, O_RDWR | O_CREAT | O_NOFOLLOW | O_CLOEXEC, mode));
    return file;
}

int lock_file(int fd, int operation, const char *name)
{
    for (int tries = 0; flock(fd, operation | LOCK_NB) != 0; ++tries) {
        if (errno != EWOULDBLOCK && errno != EINTR)
            return say_errno(name);
        if (tries == LOCK_TRIES)
            return say(NOT_IN_TIME, "%s: another process holds its lock", name);
        (void)nanosleep(&LOCK_PAUSE, nullptr);
    }
    return DONE;
}

int Replacement::open(const char *path)
{
    if (!resolve(path, path_))
        return say_errno(path);
    struct stat status;
    if (stat(path_, &status) == 0 && !S_ISREG(status.st_mode))
        return say(NO, "%s: not a file", path);
    const char *slash = strrchr(path_, '/');
    folder_length_ = static_cast<size_t>(slash - path_);
    char folder[PATH_MAX];
    (void)snprintf(folder, sizeof folder, "%.*s/", static_cast<int>(folder_length_), path_);
    folder_.reset(::open(folder, O_RDONLY | O_DIRECTORY | O_CLOEXEC));
    return folder_ ? lock_file(folder_.get(), LOCK_EX, folder) : say_errno(folder);
}

int Replacement::read(Content &content) const
{
    const Fd file(::open(path_, O_RDONLY | O_CLOEXEC));
    if (!file && errno == ENOENT) {
        content.memory.reset(static_cast<char *>(calloc(1, 1)));
        return content.memory ? DONE : NO;
    }
    return file && read_all(file.get(), content) ? static_cast<int>(DONE) : say_errno(path_);
}

bool Replacement::write_temporary(const char *path, std::string_view content) const
{
    struct stat old;
    const bool exists = stat(path_, &old) == 0;
    const Fd file(::open(path, O_WRONLY | O_CREAT | O_EXCL | O_NOFOLLOW | O_CLOEXEC, exists ? 0600 : 0644));
    return file && write_all(file.get(), content) && (!exists || take_attributes(file.get(), old)) &&
           fsync(file.get()) == 0;
}

// The temporary file has one name, which the lock makes this process's: one that was killed leaves no
// more than one file, and the next removes it.
int Replacement::write(std::string_view content) const
{
    char temporary[PATH_MAX];
    const auto folder_length = static_cast<int>(folder_length_);
    if (snprintf(temporary, sizeof temporary, "%.*s/.%s.qzctl", folder_length, path_,
                 path_ + folder_length_ + 1) >= static_cast<int>(sizeof temporary)) {
        errno = ENAMETOOLONG;
        return say_errno(path_);
    }
    (void)unlink(temporary);
    if (!write_temporary(temporary, content) || rename(temporary, path_) != 0) {
        const int error = errno;
        (void)unlink(temporary);
        return say(NO, "%s: %s; it is as it was", path_, strerror(error));
    }
    if (fsync(folder_.get()) != 0 && errno != EINVAL && errno != EROFS)
        return say(NO, "%s is new, but may be the old one after a power cut: %s", path_, strerror(errno));
    return DONE;
}

} // namespace qzctl
