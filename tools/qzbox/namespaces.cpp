// SPDX-License-Identifier: MIT
#include "namespaces.h"

#include "util.h"

#include <fcntl.h>
#include <sched.h>
#include <sys/syscall.h>
#include <sys/wait.h>

#include <cerrno>
#include <csignal>
#include <cstdio>
#include <cstring>

namespace qzbox
{

namespace
{

struct Namespace {
    int flag;
    const char *name;
};
constexpr Namespace NAMESPACES[] = {{CLONE_NEWNS, "mount"},
                                    {CLONE_NEWNET, "network"},
                                    {CLONE_NEWIPC, "IPC"},
                                    {CLONE_NEWUTS, "host name"},
                                    {CLONE_NEWPID, "process"}};

int all_namespaces()
{
    int flags = 0;
    for (const Namespace &space : NAMESPACES)
        flags |= space.flag;
    return flags;
}

// fork(2) into new namespaces: the caller itself stays in the host's.
pid_t fork_into(int flags)
{
    return static_cast<pid_t>(syscall(SYS_clone, static_cast<unsigned long>(flags | SIGCHLD), 0, 0, 0, 0));
}

bool write_text(const char *path, const char *text)
{
    const UniqueFd file(open(path, O_WRONLY | O_CLOEXEC));
    return write(file.get(), text, strlen(text)) == static_cast<ssize_t>(strlen(text));
}

// Become root of a user namespace just entered. `user` and `group` are the ids outside.
void map_to_root(uid_t user, gid_t group)
{
    char users[32];
    char groups[32];
    snprintf(users, sizeof(users), "0 %u 1\n", user);
    snprintf(groups, sizeof(groups), "0 %u 1\n", group);
    (void)write_text("/proc/self/setgroups", "deny"); // absent before Linux 3.19
    if (!write_text("/proc/self/uid_map", users) || !write_text("/proc/self/gid_map", groups))
        fail_errno("cannot map the user to root of the user namespace");
}

// The names of those namespaces that the kernel refuses, each tried in a child of its own.
std::string refused_namespaces(int with_user)
{
    std::string names;
    for (const Namespace &space : NAMESPACES) {
        const pid_t pid = fork();
        if (pid == 0)
            _exit(unshare(space.flag | with_user) != 0);
        int status = 0;
        if (pid > 0 && waitpid(pid, &status, 0) == pid && status != 0)
            names += (names.empty() ? "" : ", ") + std::string(space.name);
    }
    return names.empty() ? "all of them at once" : names; // each alone is permitted
}

[[noreturn]] void fail_refused(int direct_error, int user_error)
{
    const bool is_root = geteuid() == 0;
    if (is_root)
        fprintf(stderr, "qzbox: refused to root: namespaces for %s: %s\n", refused_namespaces(0).c_str(),
                strerror(direct_error));
    fprintf(stderr, "qzbox: refused through a user namespace: namespaces for %s: %s\n",
            refused_namespaces(CLONE_NEWUSER).c_str(), strerror(user_error));
    fail("nothing was run. To permit it: %s. Or allow user namespaces: sysctl "
         "user.max_user_namespaces=10000, and where they exist "
         "kernel.unprivileged_userns_clone=1 and kernel.apparmor_restrict_unprivileged_userns=0",
         is_root ? "inside a container give it the capability SYS_ADMIN and a seccomp profile "
                   "that allows clone and mount"
                 : "run qzbox as root, and inside a chroot only so");
}

} // namespace

pid_t fork_init()
{
    const uid_t user = geteuid();
    const gid_t group = getegid();
    pid_t pid = user == 0 ? fork_into(all_namespaces()) : -1;
    const int direct_error = errno;
    if (pid >= 0)
        return pid;
    pid = fork_into(all_namespaces() | CLONE_NEWUSER);
    if (pid < 0)
        fail_refused(direct_error, errno);
    if (pid == 0)
        map_to_root(user, group);
    return pid;
}

} // namespace qzbox
