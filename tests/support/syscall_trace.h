// The system calls of interest that a piece of code makes, in order.
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
