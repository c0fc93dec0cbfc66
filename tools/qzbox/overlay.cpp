// SPDX-License-Identifier: MIT
#include "overlay.h"

#include "root.h"
#include "tree.h"

#include <fcntl.h>
#include <sys/mount.h>
#include <sys/stat.h>

#include <algorithm>
#include <cerrno>
#include <climits>
#include <cstdio>
#include <cstdlib>

namespace qzbox
{

namespace
{

constexpr const char *BOUND_COPIES = "/.kernel/tree/files";
constexpr const char *COVERED_DIRECTORIES = "/.kernel/host";

std::string resolved_directory(const std::string &path)
{
    char buffer[PATH_MAX];
    if (realpath(path.c_str(), buffer) == nullptr)
        fail_errno("--root: cannot resolve %s", path.c_str());
    return buffer;
}

// A copy over an existing file of a file system that is not the box's own.
void bind_copy(const Entry &entry, const std::string &target)
{
    static unsigned count;
    const std::string copy = join(BOUND_COPIES, std::to_string(count++));
    make_directories(BOUND_COPIES);
    copy_file(entry, copy);
    mount_or_fail(copy.c_str(), target, nullptr, MS_BIND, nullptr);
}

// ---- Merged directories -------------------------------------------------------------

// Fill the empty private directory `target`: the tree's entries, and a link into `hidden`, the
// real directory, for every other name there. Directories in both are merged in turn; the links
// stay live because they are resolved by whoever follows them.
void fill_merged(const UniqueFd &tree, const std::string &hidden, const std::string &target)
{
    for (const Entry &entry : entries_of(tree)) {
        const std::string inner_hidden = join(hidden, entry.name);
        const std::string inner_target = join(target, entry.name);
        if (!S_ISDIR(entry.mode) || !is_directory(inner_hidden)) {
            copy_entry(entry, inner_target);
            continue;
        }
        make_directory(entry, inner_target);
        fill_merged(open_directory(entry), inner_hidden, inner_target);
    }
    const UniqueFd real(open(hidden.c_str(), O_RDONLY | O_DIRECTORY | O_CLOEXEC));
    for (const std::string &name : list_names(real.get())) {
        const std::string path = join(target, name);
        // What is there already is the tree's own.
        if (symlink(join(hidden, name).c_str(), path.c_str()) != 0 && errno != EEXIST)
            fail_errno("--root: cannot make %s", path.c_str());
    }
}

// Another path to the directory that stays valid once it is covered.
std::string hidden_path(const std::string &path)
{
    if (is_within(path, "/sys"))
        return KERNEL_DIRECTORY + path;
    std::string hidden = COVERED_DIRECTORIES + path;
    make_directories(hidden);
    mount_or_fail(path.c_str(), hidden, nullptr, MS_BIND | MS_REC, nullptr);
    return hidden;
}

void merge_over(const UniqueFd &tree, const std::string &path)
{
    const std::string hidden = hidden_path(path);
    mount_or_fail("tmpfs", path, "tmpfs", MS_NOSUID, "mode=755");
    fill_merged(tree, hidden, path);
}

// Binding copies over existing files suffices unless a name is missing or of another kind.
bool needs_merge(const UniqueFd &tree, const std::string &path)
{
    const std::vector<Entry> entries = entries_of(tree);
    return std::any_of(entries.begin(), entries.end(), [&](const Entry &entry) {
        struct stat status = {};
        if (S_ISLNK(entry.mode) || stat(join(path, entry.name).c_str(), &status) != 0)
            return true;
        return S_ISDIR(entry.mode) != S_ISDIR(status.st_mode);
    });
}

// ---- Laying the tree ------------------------------------------------------------------

// Directories on the box's own tmpfs file systems, which may be written to.
class PrivateStorage
{
public:
    PrivateStorage()
    {
        add("/");
        add("/dev/shm");
        for (const char *path : PRIVATE_DIRECTORIES)
            add(path);
    }
    [[nodiscard]] bool holds(const std::string &path) const
    {
        struct stat status = {};
        return stat(path.c_str(), &status) == 0 &&
               std::find(devices_.begin(), devices_.end(), status.st_dev) != devices_.end();
    }

private:
    // /var/log may have stayed the host's; it is the box's only as a mount of its own.
    void add(const char *path)
    {
        struct stat status = {};
        struct stat parent = {};
        if (lstat(path, &status) != 0 || !S_ISDIR(status.st_mode) ||
            stat((std::string(path) + "/..").c_str(), &parent) != 0)
            return;
        if (status.st_dev != parent.st_dev || status.st_ino == parent.st_ino)
            devices_.push_back(status.st_dev);
    }
    std::vector<dev_t> devices_;
};

void lay_directory(const UniqueFd &tree, const std::string &path, const PrivateStorage &storage);

void lay_private_entry(const Entry &entry, const std::string &target, const PrivateStorage &storage)
{
    if (S_ISDIR(entry.mode) && is_directory(target))
        return lay_directory(open_directory(entry), target, storage);
    if (unlink(target.c_str()) == 0 || errno == ENOENT)
        return copy_entry(entry, target);
    if (errno != EBUSY || !S_ISREG(entry.mode)) // EBUSY: something is mounted there
        fail_errno("--root: cannot replace %s", target.c_str());
    bind_copy(entry, target);
}

void lay_host_entry(const Entry &entry, const std::string &target, const PrivateStorage &storage)
{
    if (S_ISDIR(entry.mode))
        lay_directory(open_directory(entry), target, storage);
    else
        bind_copy(entry, target);
}

void lay_directory(const UniqueFd &tree, const std::string &path, const PrivateStorage &storage)
{
    const std::string real = resolved_directory(path);
    const bool is_private = storage.holds(real);
    if (!is_private && needs_merge(tree, real))
        return merge_over(tree, real);
    for (const Entry &entry : entries_of(tree)) {
        const std::string target = join(real, entry.name);
        if (is_private)
            lay_private_entry(entry, target, storage);
        else
            lay_host_entry(entry, target, storage);
    }
}

// Only plain files can be bound over procfs: it has no room for new names, and its directories
// differ per process.
bool fits_procfs(const UniqueFd &tree)
{
    const std::vector<Entry> entries = entries_of(tree);
    return std::all_of(entries.begin(), entries.end(), [](const Entry &entry) {
        struct stat status = {};
        return S_ISREG(entry.mode) && stat(("/proc/" + entry.name).c_str(), &status) == 0 &&
               S_ISREG(status.st_mode);
    });
}

bool lay_proc(const UniqueFd &tree)
{
    if (fits_procfs(tree)) {
        for (const Entry &entry : entries_of(tree))
            bind_copy(entry, "/proc/" + entry.name);
        return false;
    }
    make_directories(PROC_ADDITIONS);
    for (const Entry &entry : entries_of(tree)) {
        const std::string hidden = std::string(KERNEL_DIRECTORY) + "/proc/" + entry.name;
        const std::string target = join(PROC_ADDITIONS, entry.name);
        if (!S_ISDIR(entry.mode) || !is_directory(hidden)) {
            copy_entry(entry, target);
            continue;
        }
        make_directory(entry, target);
        fill_merged(open_directory(entry), hidden, target);
    }
    return true;
}

} // namespace

bool lay_tree(const UniqueFd &tree)
{
    const PrivateStorage storage;
    bool serve_proc = false;
    for (const Entry &entry : entries_of(tree)) {
        const std::string target = "/" + entry.name;
        if (entry.name == "proc" && S_ISDIR(entry.mode))
            serve_proc = lay_proc(open_directory(entry));
        else
            lay_private_entry(entry, target, storage);
    }
    return serve_proc;
}

} // namespace qzbox
