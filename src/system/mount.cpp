// SPDX-License-Identifier: MIT
#include "base/export.h"
#include "base/owners.h"

#include <array>
#include <cstring>
#include <mntent.h>
#include <qzlib.h>
#include <sys/stat.h>
#include <sys/statfs.h>

namespace
{

constexpr const char *MOUNT_TABLE = "/proc/mounts";
constexpr size_t MOUNT_LINE_SIZE = 4096;
constexpr size_t PARENT_PATH_SIZE = 1024;

bool is_device_node(const struct stat &status)
{
    return S_ISBLK(status.st_mode) || S_ISCHR(status.st_mode);
}

// By name first. A device node is found by name only; any other path also by the number of the
// device that holds it.
bool is_mount_of(const mntent &entry, const char *path, const struct stat &status)
{
    if (strcmp(path, entry.mnt_dir) == 0 || strcmp(path, entry.mnt_fsname) == 0)
        return true;
    if (is_device_node(status))
        return false;
    struct stat other;
    return (stat(entry.mnt_fsname, &other) == 0 && other.st_rdev == status.st_dev) ||
           (stat(entry.mnt_dir, &other) == 0 && other.st_dev == status.st_dev);
}

} // namespace

QZ_EXPORT unsigned long long qzlib_get_dir_free_space(const char *path)
{
    struct statfs status;
    if (path == nullptr || statfs(path, &status) != 0)
        return 0;
    return static_cast<unsigned long long>(status.f_bfree) * static_cast<unsigned long long>(status.f_bsize);
}

QZ_EXPORT unsigned qzlib_get_filesystem_type(const char *path)
{
    struct statfs status;
    if (path == nullptr || statfs(path, &status) != 0)
        return 0;
    return static_cast<unsigned>(status.f_type);
}

QZ_EXPORT int qzlib_get_mount_dev(const char *path, char *dev_out)
{
    struct stat status;
    if (path == nullptr || stat(path, &status) != 0)
        return -1;
    const qz::base::UniqueStream table = qz::base::open_for_reading(MOUNT_TABLE);
    if (!table)
        return -1;
    mntent entry;
    std::array<char, MOUNT_LINE_SIZE> line;
    while (getmntent_r(table.get(), &entry, line.data(), static_cast<int>(line.size())) != nullptr) {
        if (!is_mount_of(entry, path, status))
            continue;
        if (dev_out != nullptr)
            strcpy(dev_out, entry.mnt_fsname); // the caller provides the room
        return 0;
    }
    return -1;
}

QZ_EXPORT int qzlib_path_is_mountpoint(const char *path)
{
    struct stat status;
    if (path == nullptr || lstat(path, &status) != 0 || !S_ISDIR(status.st_mode))
        return 0;
    // A path too long for "/.." after it is no mount point: cut, it would name another directory.
    std::array<char, PARENT_PATH_SIZE> parent_path;
    const int length = snprintf(parent_path.data(), parent_path.size(), "%s/..", path);
    struct stat parent;
    if (length >= static_cast<int>(parent_path.size()) || stat(parent_path.data(), &parent) != 0)
        return 0;
    return status.st_dev != parent.st_dev || status.st_ino == parent.st_ino;
}
