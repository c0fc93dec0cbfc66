// SPDX-License-Identifier: MIT
#include "tree.h"

#include <fcntl.h>
#include <sys/stat.h>

#include <climits>

namespace qzbox
{

namespace
{

void copy_bytes(int source, int target, const char *name)
{
    char buffer[16384];
    ssize_t length = 0;
    while ((length = read(source, buffer, sizeof(buffer))) > 0) {
        if (write(target, buffer, static_cast<size_t>(length)) != length)
            fail_errno("--root: cannot write the copy of %s", name);
    }
    if (length < 0)
        fail_errno("--root: cannot read %s", name);
}

void copy_link(const Entry &entry, const std::string &target)
{
    char text[PATH_MAX];
    const ssize_t length = readlinkat(entry.directory, entry.name.c_str(), text, sizeof(text) - 1);
    if (length < 0)
        fail_errno("--root: cannot read the link %s", entry.name.c_str());
    text[length] = '\0';
    if (symlink(text, target.c_str()) != 0)
        fail_errno("--root: cannot make %s", target.c_str());
}

} // namespace

std::vector<Entry> entries_of(const UniqueFd &tree)
{
    std::vector<Entry> entries;
    for (std::string &name : list_names(tree.get())) {
        struct stat status = {};
        if (fstatat(tree.get(), name.c_str(), &status, AT_SYMLINK_NOFOLLOW) != 0)
            fail_errno("--root: cannot examine %s", name.c_str());
        if (!S_ISREG(status.st_mode) && !S_ISDIR(status.st_mode) && !S_ISLNK(status.st_mode))
            fail("--root: %s is neither file, directory nor symbolic link", name.c_str());
        entries.push_back(Entry{tree.get(), std::move(name), status.st_mode});
    }
    return entries;
}

UniqueFd open_directory(const Entry &entry)
{
    UniqueFd directory(
        openat(entry.directory, entry.name.c_str(), O_RDONLY | O_DIRECTORY | O_NOFOLLOW | O_CLOEXEC));
    if (!directory.valid())
        fail_errno("--root: cannot open %s", entry.name.c_str());
    return directory;
}

void copy_file(const Entry &entry, const std::string &target)
{
    const char *name = entry.name.c_str();
    const UniqueFd source(openat(entry.directory, name, O_RDONLY | O_NOFOLLOW | O_CLOEXEC));
    if (!source.valid())
        fail_errno("--root: cannot open %s", name);
    const UniqueFd copy(open(target.c_str(), O_WRONLY | O_CREAT | O_EXCL | O_CLOEXEC, 0600));
    if (!copy.valid())
        fail_errno("--root: cannot make %s", target.c_str());
    copy_bytes(source.get(), copy.get(), name);
    if (fchmod(copy.get(), entry.mode & 07777) != 0)
        fail_errno("--root: cannot set the mode of %s", target.c_str());
}

void make_directory(const Entry &entry, const std::string &target)
{
    if (mkdir(target.c_str(), 0755) != 0 || chmod(target.c_str(), entry.mode & 07777) != 0)
        fail_errno("--root: cannot make %s", target.c_str());
}

void copy_entry(const Entry &entry, const std::string &target)
{
    if (S_ISLNK(entry.mode))
        return copy_link(entry, target);
    if (S_ISREG(entry.mode))
        return copy_file(entry, target);
    make_directory(entry, target);
    const UniqueFd directory = open_directory(entry);
    for (const Entry &inner : entries_of(directory))
        copy_entry(inner, join(target, inner.name));
}

} // namespace qzbox
