#include "base/export.h"
#include "base/owners.h"
#include "base/text.h"

#include <algorithm>
#include <array>
#include <cctype>
#include <charconv>
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

UniqueFd open_process_file(int pid, const char *leaf)
{
    return qz::base::open_to_read(process_path(pid, leaf).data());
}

// The character that the scan format "%*[^)]) %c" takes; NUL when there is none. The first ')'
// ends the name, also one that belongs to the name itself, deliberately.
char state_letter(std::string_view line)
{
    const size_t name_end = line.find(')');
    if (name_end == std::string_view::npos || name_end == 0)
        return '\0';
    line.remove_prefix(name_end + 1);
    while (!line.empty() && isspace(static_cast<unsigned char>(line.front())) != 0)
        line.remove_prefix(1);
    return line.empty() ? '\0' : line.front();
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

int to_pid(std::string_view digits)
{
    int pid = -1; // stays for a number that is too large, and no process has it
    (void)std::from_chars(digits.data(), digits.data() + digits.size(), pid);
    return pid;
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

QZ_EXPORT int qzlib_get_process_state_by_pid(int pid)
{
    const UniqueFd file = open_process_file(pid, "stat");
    if (!file)
        return 0;
    std::array<char, STAT_LINE_SIZE> text;
    const ssize_t length = read(file.get(), text.data(), text.size() - 1);
    if (length < 1)
        return 0;
    const std::string_view line(text.data(), static_cast<size_t>(length));
    const char letter = state_letter({line.data(), std::min(line.size(), line.find('\n'))});
    const char *state = letter != '\0' ? strchr(STATE_LETTERS, letter) : nullptr;
    return state == nullptr ? 0 : static_cast<int>(state - STATE_LETTERS) + 1;
}

QZ_EXPORT int qzlib_get_process_name_by_pid(int pid, char *buf, int size)
{
    if (pid < 0 || buf == nullptr || size < 1)
        return -1;
    const UniqueFd file = open_process_file(pid, "comm");
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
