// The router's syslog as a test sees it: a datagram socket in the place of /dev/log.
#pragma once

#include <cstring>
#include <string>
#include <sys/socket.h>
#include <sys/un.h>
#include <syslog.h>
#include <unistd.h>

namespace support
{

class SyslogSink
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
    SyslogSink(const SyslogSink &) = delete;
    SyslogSink &operator=(const SyslogSink &) = delete;

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
