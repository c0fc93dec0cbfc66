// SPDX-License-Identifier: MIT
#include "system_log.h"

#include <fcntl.h>
#include <sys/socket.h>
#include <sys/stat.h>
#include <sys/un.h>

#include <algorithm>
#include <array>
#include <cstring>

namespace qzbox
{

namespace
{

constexpr const char *LOG_SOCKET = "/dev/log";
constexpr const char *LOG_FILE = "/var/log/messages";
constexpr size_t MESSAGE_BYTES = 65536;

bool is_line_end(char byte)
{
    return byte == '\n' || byte == '\0';
}

UniqueFd open_log_file()
{
    return UniqueFd(open(LOG_FILE, O_WRONLY | O_APPEND | O_CREAT | O_CLOEXEC | O_NOFOLLOW, 0644));
}

// One line in place; `text` has room for one more byte. Returns its length.
size_t to_line(char *text, size_t length)
{
    while (length > 0 && is_line_end(text[length - 1]))
        --length;
    std::replace_if(text, text + length, is_line_end, ' ');
    text[length] = '\n';
    return length + 1;
}

} // namespace

void SystemLog::open()
{
    sockaddr_un address = {};
    address.sun_family = AF_UNIX;
    strcpy(address.sun_path, LOG_SOCKET);
    unlink(LOG_SOCKET); // a tree may bring a placeholder
    UniqueFd fd(socket(AF_UNIX, SOCK_DGRAM | SOCK_CLOEXEC | SOCK_NONBLOCK, 0));
    if (bind(fd.get(), reinterpret_cast<const sockaddr *>(&address), sizeof(address)) != 0)
        return;
    chmod(LOG_SOCKET, 0666);
    socket_ = std::move(fd);
    const UniqueFd empty = open_log_file(); // there from the start, for those who follow it
}

void SystemLog::receive()
{
    static std::array<char, MESSAGE_BYTES + 1> buffer;
    const UniqueFd file = open_log_file();
    ssize_t length = 0;
    while ((length = recv(socket_.get(), buffer.data(), MESSAGE_BYTES, 0)) >= 0) {
        const size_t size = to_line(buffer.data(), static_cast<size_t>(length));
        (void)!write(file.get(), buffer.data(), size); // a full disk loses messages
    }
}

} // namespace qzbox
