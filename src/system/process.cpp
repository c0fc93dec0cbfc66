// SPDX-License-Identifier: MIT
#include "base/export.h"
#include "base/owners.h"
#include "base/text.h"

#include <array>
#include <climits>
#include <cstring>
#include <qzlib.h>

namespace
{

using qz::base::UniqueDir;
using qz::base::UniqueFd;

constexpr size_t NAME_SIZE = 128;
constexpr size_t EXECUTABLE_SIZE = 256;
constexpr size_t STAT_LINE_SIZE = 1023;
constexpr char STATE_LETTERS[] = "RSDTZX"; // results 1 to 6

using ProcessPath = std::array<char, sizeof "/proc/-2147483648/comm" + 8>;

ProcessPath process_path(int pid, const char *leaf)
{
    ProcessPath path;
    (void)snprintf(path.data(), path.size(), "/proc/%d/%s", pid, leaf);
    return path;
}

struct ProcessIdentity {
    std::array<char, NAME_SIZE> name;
    std::array<char, EXECUTABLE_SIZE> executable;

    // One file after the other, so that a walk opens no more than it has to.
    bool read_name(int pid) { return qzlib_get_process_name_by_pid(pid, name.data(), NAME_SIZE) == 0; }
    bool read_executable(int pid)
    {
        return qzlib_get_process_path_by_pid(pid, executable.data(), EXECUTABLE_SIZE) == 0;
    }
    bool matches(int pid, const char *wanted_name, const char *wanted_executable)
    {
        if (!read_name(pid) || strcmp(name.data(), wanted_name) != 0)
            return false;
        return wanted_executable == nullptr ||
               (read_executable(pid) && strcmp(executable.data(), wanted_executable) == 0);
    }
};

// -1 for a number that is too large, and no process has it.
int to_pid(const char *digits)
{
    const long long pid = strtoll(digits, nullptr, 10);
    return pid <= INT_MAX ? static_cast<int>(pid) : -1;
}

// The first process in directory order, other than one, that has the name and, unless that is
// null, the executable path; -1 without one.
int find_process(const char *name, const char *executable, int except_pid)
{
    const UniqueDir processes(opendir("/proc"));
    if (!processes)
        return -1;
    ProcessIdentity identity;
    while (const dirent *entry = readdir(processes.get())) {
        if (qzlib_str_is_digit(entry->d_name) == 0)
            continue;
        const int pid = to_pid(entry->d_name);
        if (pid != except_pid && identity.matches(pid, name, executable))
            return pid;
    }
    return -1;
}

} // namespace

// The first ')' ends the name, also one that belongs to the name itself, deliberately.
QZ_EXPORT int qzlib_get_process_state_by_pid(int pid)
{
    std::array<char, STAT_LINE_SIZE> line;
    (void)qz::base::read_start(process_path(pid, "stat").data(), line); // without it: no letter
    line[strcspn(line.data(), "\n")] = '\0';
    char letter = '\0';
    if (sscanf(line.data(), "%*[^)]) %c", &letter) != 1)
        return 0;
    const char *state = strchr(STATE_LETTERS, letter);
    return state == nullptr ? 0 : static_cast<int>(state - STATE_LETTERS) + 1;
}

QZ_EXPORT int qzlib_get_process_name_by_pid(int pid, char *buf, int size)
{
    if (pid < 0 || buf == nullptr || size < 1)
        return -1;
    const UniqueFd file = qz::base::open_to_read(process_path(pid, "comm").data());
    if (!file)
        return file.get();
    const ssize_t length = read(file.get(), buf, static_cast<size_t>(size) - 1);
    if (length < 1)
        return -1;
    buf[length] = '\0';
    qzlib_str_del_end_crlf(buf);
    return 0;
}

QZ_EXPORT int qzlib_get_process_path_by_pid(int pid, char *buf, int size)
{
    if (pid < 0 || buf == nullptr || size < 1)
        return -1;
    const ssize_t length = readlink(process_path(pid, "exe").data(), buf, static_cast<size_t>(size) - 1);
    if (length < 1)
        return -1;
    buf[length] = '\0';
    return 0;
}

QZ_EXPORT int qzlib_get_pid_by_name_path(const char *name, const char *path)
{
    return name == nullptr ? -1 : find_process(name, path, -1);
}

QZ_EXPORT int qzlib_process_is_unique(void)
{
    const int own_pid = getpid();
    ProcessIdentity own;
    if (!own.read_name(own_pid) || !own.read_executable(own_pid))
        return 1;
    return find_process(own.name.data(), own.executable.data(), own_pid) < 0;
}

QZ_EXPORT int qzlib_process_unique(void)
{
    const int unique = qzlib_process_is_unique();
    if (unique == 0) {
        (void)puts("The process is already running");
        exit(0); // NOLINT: ending the second copy is the purpose
    }
    return unique;
}
