// SPDX-License-Identifier: MIT
#include "util.h"

#include <fcntl.h>
#include <sys/mount.h>
#include <sys/stat.h>

#include <cerrno>
#include <cstdarg>
#include <cstdio>
#include <cstdlib>
#include <cstring>

namespace qzbox
{

namespace
{

struct CloseDirectory {
    DIR *directory;
    ~CloseDirectory()
    {
        if (directory != nullptr)
            closedir(directory);
    }
};

bool is_dot_name(const char *name)
{
    return strcmp(name, ".") == 0 || strcmp(name, "..") == 0;
}

} // namespace

void fail(const char *format, ...)
{
    va_list arguments;
    va_start(arguments, format);
    fputs("qzbox: ", stderr);
    vfprintf(stderr, format, arguments);
    fputs("\n", stderr);
    va_end(arguments);
    _exit(STATUS_NO_BOX);
}

void fail_errno(const char *format, ...)
{
    const int error = errno;
    char text[1024];
    va_list arguments;
    va_start(arguments, format);
    vsnprintf(text, sizeof(text), format, arguments);
    va_end(arguments);
    fail("%s: %s", text, strerror(error));
}

void mount_or_fail(const char *source, const std::string &target, const char *type, unsigned long flags,
                   const char *options)
{
    if (mount(source, target.c_str(), type, flags, options) != 0)
        fail_errno("cannot mount %s on %s", type != nullptr ? type : source, target.c_str());
}

std::vector<std::string> list_names(int directory_fd)
{
    std::vector<std::string> names;
    // A fresh open file: the caller's read position is neither used nor moved.
    UniqueFd fresh(openat(directory_fd, ".", O_RDONLY | O_DIRECTORY | O_CLOEXEC));
    const CloseDirectory owner{fresh.valid() ? fdopendir(fresh.get()) : nullptr};
    if (owner.directory == nullptr)
        return names;
    fresh.release();
    while (const dirent *entry = readdir(owner.directory)) {
        if (!is_dot_name(entry->d_name))
            names.emplace_back(entry->d_name);
    }
    return names;
}

std::string join(const std::string &directory, const std::string &name)
{
    std::string path = directory;
    return path.append("/").append(name);
}

void make_directories(const std::string &path)
{
    for (size_t slash = path.find('/', 1);; slash = path.find('/', slash + 1)) {
        const std::string part(path, 0, slash);
        if (mkdir(part.c_str(), 0755) != 0 && errno != EEXIST)
            fail_errno("cannot make directory %s", part.c_str());
        if (slash == std::string::npos)
            return;
    }
}

void make_mount_file(const std::string &path)
{
    make_directories(std::string(path, 0, path.rfind('/')));
    const UniqueFd file(open(path.c_str(), O_WRONLY | O_CREAT | O_CLOEXEC | O_NOFOLLOW, 0644));
    if (!file.valid())
        fail_errno("cannot make %s", path.c_str());
}

bool is_within(const std::string &path, const std::string &directory)
{
    if (path.compare(0, directory.size(), directory) != 0)
        return false;
    return path.size() == directory.size() || path[directory.size()] == '/';
}

bool is_directory(const std::string &path)
{
    struct stat status = {};
    return stat(path.c_str(), &status) == 0 && S_ISDIR(status.st_mode);
}

} // namespace qzbox
