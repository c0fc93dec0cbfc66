// What a piece of code writes into files and asks of devices, in order, as the kernel sees it.
#pragma once

#include <csignal>
#include <cstring>
#include <string>
#include <sys/ptrace.h>
#include <sys/syscall.h>
#include <sys/uio.h>
#include <sys/wait.h>
#include <unistd.h>
#include <vector>

namespace support
{

namespace trace_detail
{

inline std::string read_memory(pid_t pid, uint64_t address, size_t size)
{
    std::string bytes(size, '\0');
    const iovec local{bytes.data(), size};
    const iovec remote{reinterpret_cast<void *>(address), size};
    if (process_vm_readv(pid, &local, 1, &remote, 1, 0) != static_cast<ssize_t>(size))
        return "?";
    return bytes;
}

inline std::string path_of(pid_t pid, uint64_t fd)
{
    char path[256] = {};
    const std::string link = "/proc/" + std::to_string(pid) + "/fd/" + std::to_string(fd);
    return readlink(link.c_str(), path, sizeof path - 1) > 0 ? path : "";
}

inline std::string describe(pid_t pid, const __ptrace_syscall_info &info, const std::string &prefix)
{
    const std::string path = path_of(pid, info.entry.args[0]);
    if (path.compare(0, prefix.size(), prefix) != 0)
        return "";
    const std::string name = path.substr(prefix.size());
    if (info.entry.nr == SYS_write)
        return name + "=" + read_memory(pid, info.entry.args[1], static_cast<size_t>(info.entry.args[2]));
    if (info.entry.nr != SYS_ioctl)
        return "";
    int option = 0;
    memcpy(&option, read_memory(pid, info.entry.args[2], sizeof option).data(), sizeof option);
    return name + " ioctl " + std::to_string(info.entry.args[1]) + " " + std::to_string(option);
}

} // namespace trace_detail

// Runs the function in a traced child. Each write below the prefix gives "NAME=BYTES", each
// ioctl "NAME ioctl REQUEST ARGUMENT", the argument taken as a pointer to an int.
template <typename Function>
std::vector<std::string> trace_writes(const std::string &prefix, Function function)
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
    while (!WIFEXITED(status) && !WIFSIGNALED(status)) {
        __ptrace_syscall_info info{};
        if (WIFSTOPPED(status) && WSTOPSIG(status) == (SIGTRAP | 0x80) &&
            ptrace(PTRACE_GET_SYSCALL_INFO, pid, sizeof info, &info) > 0 &&
            info.op == PTRACE_SYSCALL_INFO_ENTRY) {
            const std::string call = trace_detail::describe(pid, info, prefix);
            if (!call.empty())
                calls.push_back(call);
        }
        ptrace(PTRACE_SYSCALL, pid, nullptr, nullptr);
        if (waitpid(pid, &status, 0) != pid)
            break;
    }
    return calls;
}

} // namespace support
