// SPDX-License-Identifier: MIT
#include "root.h"

#include <fcntl.h>
#include <sched.h>
#include <sys/mount.h>
#include <sys/stat.h>
#include <sys/syscall.h>
#include <sys/sysmacros.h>

#include <algorithm>
#include <cerrno>
#include <climits>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <iterator>

namespace qzbox
{

namespace
{

constexpr unsigned long KERNEL_MOUNT_FLAGS = MS_NOSUID | MS_NODEV | MS_NOEXEC;
constexpr unsigned long BIND_FLAGS = MS_BIND | MS_REC;

std::string descriptor_path(const UniqueFd &fd)
{
    char path[32];
    snprintf(path, sizeof(path), "/proc/self/fd/%d", fd.get());
    return path;
}

// ---- The host's entries ------------------------------------------------------------

// Top-level names that the box makes itself.
bool is_made_by_box(const std::string &name)
{
    constexpr const char *NAMES[] = {"tmp", "data", "mnt", "run", "dev", "proc", "sys", ".kernel"};
    return std::any_of(std::begin(NAMES), std::end(NAMES), [&](const char *made) { return name == made; });
}

void copy_link(const std::string &source, const std::string &target)
{
    char text[PATH_MAX];
    const ssize_t length = readlink(source.c_str(), text, sizeof(text) - 1);
    if (length < 0)
        fail_errno("cannot read the link %s", source.c_str());
    text[length] = '\0';
    if (symlink(text, target.c_str()) != 0)
        fail_errno("cannot make the link %s", target.c_str());
}

void bind_over_new_target(const std::string &source, const std::string &target, mode_t mode)
{
    if (S_ISDIR(mode))
        make_directories(target);
    else
        make_mount_file(target);
    if (mount(source.c_str(), target.c_str(), nullptr, BIND_FLAGS, nullptr) != 0)
        fail_errno("cannot show %s in the box", source.c_str());
}

// Entries that cannot be looked at (a dead network mount) and special files are left out.
void show_host_entry(const std::string &name, const std::string &root)
{
    const std::string source = "/" + name;
    const std::string target = root + source;
    struct stat status = {};
    if (lstat(source.c_str(), &status) != 0)
        return;
    if (S_ISLNK(status.st_mode))
        copy_link(source, target);
    else if (S_ISDIR(status.st_mode) || S_ISREG(status.st_mode))
        bind_over_new_target(source, target, status.st_mode);
}

void show_host_entries(const std::string &root)
{
    const UniqueFd host_root(open("/", O_RDONLY | O_DIRECTORY | O_CLOEXEC));
    for (const std::string &name : list_names(host_root.get())) {
        if (!is_made_by_box(name))
            show_host_entry(name, root);
    }
}

// ---- /dev ---------------------------------------------------------------------------

// Nodes are bound from the host: a user namespace may not make any.
void show_device(const std::string &name, const std::string &root)
{
    const std::string source = "/dev/" + name;
    struct stat status = {};
    if (stat(source.c_str(), &status) != 0 || S_ISDIR(status.st_mode))
        return;
    bind_over_new_target(source, root + source, status.st_mode);
}

void show_loop_devices(const std::string &root)
{
    const UniqueFd directory(open("/dev", O_RDONLY | O_DIRECTORY | O_CLOEXEC));
    for (const std::string &name : list_names(directory.get())) {
        if (name.compare(0, 4, "loop") == 0)
            show_device(name, root);
    }
}

// Machines that never loaded the module may lack the node, whose number is fixed. Root makes it
// in the box's own /dev, and opening it loads the module.
void make_missing_fuse(const std::string &dev)
{
    constexpr unsigned MISC_MAJOR = 10;
    constexpr unsigned FUSE_MINOR = 229;
    (void)mknod((dev + "/fuse").c_str(), S_IFCHR | 0600, makedev(MISC_MAJOR, FUSE_MINOR));
}

void link_device(const char *text, const std::string &path)
{
    if (symlink(text, path.c_str()) != 0)
        fail_errno("cannot make the link %s", path.c_str());
}

// The terminal that qzbox was started on belongs to the host's devpts; as /dev/console it has a
// name in the box.
void show_console(const std::string &root)
{
    char terminal[PATH_MAX];
    if (ttyname_r(STDIN_FILENO, terminal, sizeof(terminal)) == 0)
        bind_over_new_target(terminal, root + "/dev/console", S_IFCHR);
}

void make_dev(const std::string &root)
{
    const std::string dev = root + "/dev";
    for (const char *name : {"null", "zero", "full", "random", "urandom", "tty", "net/tun", "fuse"})
        show_device(name, root);
    make_missing_fuse(dev);
    show_loop_devices(root);
    show_console(root);
    link_device("/proc/self/fd", dev + "/fd");
    link_device("fd/0", dev + "/stdin");
    link_device("fd/1", dev + "/stdout");
    link_device("fd/2", dev + "/stderr");
    link_device("pts/ptmx", dev + "/ptmx");
    make_directories(dev + "/pts");
    mount_or_fail("devpts", dev + "/pts", "devpts", MS_NOSUID | MS_NOEXEC,
                  "newinstance,ptmxmode=0666,mode=620");
    make_directories(dev + "/shm");
    mount_or_fail("tmpfs", dev + "/shm", "tmpfs", MS_NOSUID | MS_NODEV, "mode=1777");
    make_directories(dev + "/mqueue");
    // A kernel without message queues does without.
    (void)mount("mqueue", (dev + "/mqueue").c_str(), "mqueue", KERNEL_MOUNT_FLAGS, nullptr);
}

// ---- Private and kernel file systems --------------------------------------------------

void mount_private(const std::string &path, const char *options)
{
    make_directories(path);
    mount_or_fail("tmpfs", path, "tmpfs", MS_NOSUID, options);
}

void mount_proc(const std::string &path)
{
    make_directories(path);
    if (mount("proc", path.c_str(), "proc", KERNEL_MOUNT_FLAGS, nullptr) != 0)
        fail_errno("cannot mount a fresh /proc (inside a container that hides parts of its own "
                   "/proc the kernel refuses this to unprivileged users)");
}

// Containers may hold /sys read-only, or refuse a new one: then the host's is shown.
void mount_sys(const std::string &path)
{
    make_directories(path);
    if (mount("sysfs", path.c_str(), "sysfs", KERNEL_MOUNT_FLAGS, nullptr) == 0)
        return;
    if (mount("sysfs", path.c_str(), "sysfs", KERNEL_MOUNT_FLAGS | MS_RDONLY, nullptr) == 0)
        return;
    mount_or_fail("/sys", path, nullptr, BIND_FLAGS, nullptr);
}

void make_private_file_systems(const std::string &root, bool with_kernel_mounts)
{
    mount_private(root + "/tmp", "mode=1777");
    mount_private(root + "/data", "mode=755");
    mount_private(root + "/mnt", "mode=755");
    mount_private(root + "/run", "mode=755");
    make_directories(root + "/run/lock"); // where /var/lock leads on many systems
    chmod((root + "/run/lock").c_str(), 01777);
    mount_private(root + "/dev", "mode=755");
    make_dev(root);
    mount_proc(root + "/proc");
    mount_sys(root + "/sys");
    if (!with_kernel_mounts)
        return;
    mount_proc(root + KERNEL_DIRECTORY + "/proc");
    mount_sys(root + KERNEL_DIRECTORY + "/sys");
}

void show_reaches(Reaches &reaches, const std::string &root)
{
    std::vector<std::string> shown;
    for (const Reach &reach : reaches.sorted()) {
        const bool comes_with_parent = std::any_of(
            shown.begin(), shown.end(), [&](const std::string &path) { return is_within(reach.path, path); });
        struct stat status = {};
        if (comes_with_parent || fstat(reach.handle.get(), &status) != 0)
            continue;
        bind_over_new_target(descriptor_path(reach.handle), root + reach.path, status.st_mode);
        shown.push_back(reach.path);
    }
}

// ---- Privacy ------------------------------------------------------------------------------

bool make_private()
{
    return mount(nullptr, "/", nullptr, MS_REC | MS_PRIVATE, nullptr) == 0;
}

// Only a mount can be made private, and the directory of a chroot is in the middle of one. So out
// of the chroot, which entering one's own mount namespace does, and back through a mount of it.
bool make_private_in_chroot()
{
    const UniqueFd root(open("/", O_PATH | O_DIRECTORY | O_CLOEXEC));
    const UniqueFd self(static_cast<int>(syscall(SYS_pidfd_open, getpid(), 0)));
    if (setns(self.get(), CLONE_NEWNS) != 0 || !make_private())
        return false;
    const UniqueFd tree(static_cast<int>(syscall(
        SYS_open_tree, root.get(), "", OPEN_TREE_CLONE | OPEN_TREE_CLOEXEC | AT_EMPTY_PATH | AT_RECURSIVE)));
    return syscall(SYS_move_mount, tree.get(), "", root.get(), "",
                   MOVE_MOUNT_F_EMPTY_PATH | MOVE_MOUNT_T_EMPTY_PATH) == 0 &&
           fchdir(tree.get()) == 0 && chroot(".") == 0;
}

// ---- Entering ---------------------------------------------------------------------------

// The directory that carries the new root while it is built: one that the box replaces anyway,
// so that nothing of the host is hidden meanwhile (reaches hold their own handles).
std::string building_site()
{
    for (const char *path : {"/tmp", "/mnt", "/run", "/data"}) {
        struct stat status = {};
        if (lstat(path, &status) == 0 && S_ISDIR(status.st_mode))
            return path;
    }
    fail("the host has neither /tmp, /mnt, /run nor /data to build the box on");
}

// The initial RAM file system cannot be pivoted away; there the new root is moved over it.
void make_root(const std::string &root)
{
    if (chdir(root.c_str()) != 0)
        fail_errno("cannot enter %s", root.c_str());
    if (syscall(SYS_pivot_root, ".", ".") == 0) {
        if (umount2(".", MNT_DETACH) != 0)
            fail_errno("cannot leave the host's root");
    } else if (mount(".", "/", nullptr, MS_MOVE, nullptr) != 0 || chroot(".") != 0) {
        fail_errno("cannot change the root");
    }
    if (chdir("/") != 0)
        fail_errno("cannot enter the new root");
}

// /var belongs to the host: where it has no /var/log, none is made and the box keeps no messages.
void make_log_directory(const std::string &root)
{
    struct stat var = {};
    struct stat log = {};
    const std::string path = root + "/var/log";
    if (lstat((root + "/var").c_str(), &var) == 0 && S_ISDIR(var.st_mode) && lstat(path.c_str(), &log) == 0 &&
        S_ISDIR(log.st_mode))
        mount_or_fail("tmpfs", path, "tmpfs", MS_NOSUID, "mode=755");
}

// On small systems /var is a link into a directory that is private here. To be called inside.
void make_log_directory_behind_link()
{
    char var[PATH_MAX];
    if (realpath("/var", var) != nullptr && is_covered(var))
        make_directories("/var/log");
}

} // namespace

void make_mounts_private()
{
    if (make_private())
        return;
    if (errno != EINVAL)
        fail_errno("cannot make the mounts private (is a security module restricting user "
                   "namespaces? see kernel.apparmor_restrict_unprivileged_userns)");
    if (!make_private_in_chroot())
        fail_errno("cannot make a box in this chroot, whose root directory is no mount; make it one with "
                   "mount --bind, or change into it with pivot_root");
}

void enter_private_root(Reaches &reaches, bool with_kernel_mounts)
{
    const std::string root = building_site();
    mount_or_fail("tmpfs", root, "tmpfs", MS_NOSUID, "mode=755");
    show_host_entries(root);
    make_private_file_systems(root, with_kernel_mounts);
    make_log_directory(root);
    show_reaches(reaches, root);
    make_root(root);
    make_log_directory_behind_link();
}

} // namespace qzbox
