// What the library logs: the log file and the router's syslog.
#pragma once

#include "support/box.h"

#include <qzlib.h>

#include <algorithm>
#include <cstring>
#include <string>
#include <sys/socket.h>
#include <sys/un.h>
#include <syslog.h>
#include <unistd.h>

namespace support
{

constexpr const char *LOG_FILE = "/tmp/test.log";

// From here on every level goes to the log file.
inline void start_log(const char *ident = "")
{
    write_file("/tmp/config/cli.conf", "log msg-level debug\n");
    openmsg_com(LOG_FILE, 0, ident, 0);
}

inline bool logged(const std::string &text, const char *file = LOG_FILE)
{
    return read_file(file).find(text) != std::string::npos;
}

// What was logged since the last look, as "<LEVEL>ident:text" lines; without an ident "<LEVEL>text".
inline std::string take_log()
{
    constexpr size_t TIMESTAMP_LENGTH = sizeof "[2026-01-31 23:59:59]" - 1;
    std::string log = read_file(LOG_FILE);
    unlink(LOG_FILE);
    for (size_t line = 0; line < log.size(); line = log.find('\n', line) + 1) {
        if (log[line] != '[' || log.compare(line + TIMESTAMP_LENGTH - 1, 2, "]<") != 0)
            continue; // of a text with line feeds
        log.erase(line, TIMESTAMP_LENGTH);
        if (const size_t text = log.find('>', line) + 1; log[text] == ':')
            log.erase(text, 1);
    }
    return log;
}

// The text with 0 for every number: times and process numbers differ from run to run.
inline std::string with_zeros(const std::string &text)
{
    std::string zeros = text;
    std::ranges::replace_if(
        zeros, [](char c) { return c >= '0' && c <= '9'; }, '0');
    const auto both_zero = [](char a, char b) { return a == '0' && b == '0'; };
    zeros.erase(std::unique(zeros.begin(), zeros.end(), both_zero), zeros.end());
    return zeros;
}

// The router's syslog as a test sees it: a datagram socket in the place of /dev/log.
class SyslogSink : NoCopy
{
public:
    SyslogSink()
    {
        closelog(); // libc may still be connected to the box's own sink
        unlink("/dev/log");
        sockaddr_un address{};
        address.sun_family = AF_UNIX;
        strcpy(address.sun_path, "/dev/log");
        if (bind(fd_, reinterpret_cast<sockaddr *>(&address), sizeof address) != 0)
            abort();
    }
    ~SyslogSink() { close(fd_); }

    // The next line as it was sent ("<PRI>Mon dd hh:mm:ss tag: text"); empty when there is none.
    std::string next()
    {
        char buffer[4096];
        const ssize_t length = recv(fd_, buffer, sizeof buffer, MSG_DONTWAIT);
        return length < 0 ? "" : std::string(buffer, strnlen(buffer, static_cast<size_t>(length)));
    }

    // All lines that are there, each as "<PRI>text{module\n": without date, tag and line number.
    std::string take()
    {
        std::string all;
        for (std::string line = next(); !line.empty(); line = next()) {
            const size_t text = line.find(": ") + 2;
            all += line.substr(0, line.find('>') + 1) + line.substr(text, line.rfind("->") - text) + "\n";
        }
        return all;
    }

private:
    int fd_ = socket(AF_UNIX, SOCK_DGRAM | SOCK_CLOEXEC, 0);
};

} // namespace support
