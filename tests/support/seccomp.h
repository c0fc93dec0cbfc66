// Makes chosen system calls of this process fail or hang, for the rest of its life.
#pragma once

#include <cstddef>
#include <cstdlib>
#include <iterator>
#include <linux/filter.h>
#include <linux/seccomp.h>
#include <sys/prctl.h>
#include <sys/syscall.h>
#include <unistd.h>

namespace support
{

// The action (SECCOMP_RET_...) is for calls of that number whose argument has that value.
// SECCOMP_RET_USER_NOTIF hands them to a supervisor who never answers: they hang until a signal.
inline void filter_calls(unsigned number, unsigned argument, unsigned value, unsigned action)
{
    const auto place = static_cast<unsigned>(offsetof(seccomp_data, args) + argument * sizeof(__u64));
    sock_filter steps[] = {
        BPF_STMT(BPF_LD | BPF_W | BPF_ABS, offsetof(seccomp_data, nr)),
        BPF_JUMP(BPF_JMP | BPF_JEQ | BPF_K, number, 0, 3),
        BPF_STMT(BPF_LD | BPF_W | BPF_ABS, place),
        BPF_JUMP(BPF_JMP | BPF_JEQ | BPF_K, value, 0, 1),
        BPF_STMT(BPF_RET | BPF_K, action),
        BPF_STMT(BPF_RET | BPF_K, SECCOMP_RET_ALLOW),
    };
    const sock_fprog program{static_cast<unsigned short>(std::size(steps)), steps};
    const unsigned flags = action == SECCOMP_RET_USER_NOTIF ? SECCOMP_FILTER_FLAG_NEW_LISTENER : 0;
    if (prctl(PR_SET_NO_NEW_PRIVS, 1, 0, 0, 0) != 0 ||
        syscall(SYS_seccomp, SECCOMP_SET_MODE_FILTER, flags, &program) < 0)
        abort();
}

} // namespace support
