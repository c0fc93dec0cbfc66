// The system calls of a piece of code: failing or hanging, and in the order in which they are made.
#pragma once

#include <csignal>
#include <cstdlib>
#include <cstring>
#include <iterator>
#include <linux/filter.h>
#include <linux/seccomp.h>
#include <string>
#include <sys/prctl.h>
#include <sys/ptrace.h>
#include <sys/syscall.h>
#include <sys/uio.h>
#include <sys/wait.h>
#include <unistd.h>
#include <vector>

namespace support
{

// Makes chosen system calls of this process fail or hang, for the rest of its life.
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

// A system call that a traced process is about to make.
struct Call {
    pid_t pid;
    uint64_t number;
    uint64_t args[6];

    [[nodiscard]] std::string memory(uint64_t address, size_t size) const
    {
        std::string bytes(size, '\0');
        const iovec local{bytes.data(), size};
        const iovec remote{reinterpret_cast<void *>(address), size};
        if (process_vm_readv(pid, &local, 1, &remote, 1, 0) != static_cast<ssize_t>(size))
            return "?";
        return bytes;
    }
    [[nodiscard]] int word(uint64_t address) const
    {
        int value = 0;
        memcpy(&value, memory(address, sizeof value).data(), sizeof value);
        return value;
    }
    // What the third argument of an ioctl() points to.
    [[nodiscard]] int ioctl_value() const { return word(args[2]); }
};

// Runs the function in a traced child; what describe() says of its calls, empty texts left out.
template <typename Function, typename Describe>
std::vector<std::string> trace_calls(Function function, Describe describe)
{
    std::vector<std::string> calls;
    const pid_t pid = fork();
    if (pid == 0) {
        ptrace(PTRACE_TRACEME, 0, nullptr, nullptr);
        raise(SIGSTOP);
        function();
        _exit(0);
    }
    int status = 0;
    waitpid(pid, &status, 0);
    ptrace(PTRACE_SETOPTIONS, pid, nullptr, PTRACE_O_TRACESYSGOOD | PTRACE_O_EXITKILL);
    while (ptrace(PTRACE_SYSCALL, pid, nullptr, nullptr) == 0 && waitpid(pid, &status, 0) == pid &&
           WIFSTOPPED(status)) {
        __ptrace_syscall_info info{};
        if (WSTOPSIG(status) != (SIGTRAP | 0x80) ||
            ptrace(PTRACE_GET_SYSCALL_INFO, pid, sizeof info, &info) <= 0 ||
            info.op != PTRACE_SYSCALL_INFO_ENTRY)
            continue;
        Call call{pid, info.entry.nr, {}};
        memcpy(call.args, info.entry.args, sizeof call.args);
        if (std::string text = describe(call); !text.empty())
            calls.push_back(std::move(text));
    }
    return calls;
}

// Each write below the path gives "NAME=BYTES", each ioctl "NAME ioctl REQUEST ARGUMENT", the
// argument taken as a pointer to an int.
template <typename Function>
std::vector<std::string> trace_writes(const std::string &prefix, Function function)
{
    return trace_calls(function, [&prefix](const Call &call) -> std::string {
        char path[256] = {};
        const std::string link = "/proc/" + std::to_string(call.pid) + "/fd/" + std::to_string(call.args[0]);
        if (readlink(link.c_str(), path, sizeof path - 1) < 0 ||
            strncmp(path, prefix.c_str(), prefix.size()) != 0)
            return "";
        const std::string name = path + prefix.size();
        if (call.number == SYS_write)
            return name + "=" + call.memory(call.args[1], static_cast<size_t>(call.args[2]));
        if (call.number == SYS_ioctl)
            return name + " ioctl " + std::to_string(call.args[1]) + " " + std::to_string(call.ioctl_value());
        return "";
    });
}

} // namespace support
