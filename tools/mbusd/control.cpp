// SPDX-License-Identifier: MIT
#include "control.h"

#include "log.h"

#include <cerrno>
#include <cstddef>
#include <cstring>
#include <fcntl.h>
#include <sys/socket.h>
#include <sys/stat.h>
#include <sys/un.h>
#include <unistd.h>

namespace mbusd
{
namespace
{

// An abstract address: it goes with the process that holds it and leaves no file.
constexpr char LOCK_NAME[] = "\0" QZLIB_MBUS_SOCKET ".lock";

int open_lock()
{
    sockaddr_un address{};
    address.sun_family = AF_UNIX;
    memcpy(address.sun_path, LOCK_NAME, sizeof LOCK_NAME - 1);
    const int fd = socket(AF_UNIX, SOCK_DGRAM | SOCK_CLOEXEC, 0);
    const auto size = static_cast<socklen_t>(offsetof(sockaddr_un, sun_path) + sizeof LOCK_NAME - 1);
    if (fd >= 0 && bind(fd, reinterpret_cast<sockaddr *>(&address), size) == 0)
        return fd;
    if (fd >= 0)
        close(fd);
    return -1;
}

// Finds a server that does not know the lock, or runs in another network namespace.
bool somebody_listens()
{
    const int fd = qzlib_create_connect_unixdomain(QZLIB_MBUS_SOCKET);
    if (fd < 0)
        return false;
    close(fd);
    return true;
}

pid_t sender_of(msghdr &message)
{
    for (cmsghdr *part = CMSG_FIRSTHDR(&message); part != nullptr; part = CMSG_NXTHDR(&message, part)) {
        if (part->cmsg_level != SOL_SOCKET || part->cmsg_type != SCM_CREDENTIALS)
            continue;
        ucred credentials;
        memcpy(&credentials, CMSG_DATA(part), sizeof credentials);
        return credentials.pid;
    }
    return 0;
}

} // namespace

ControlSocket::~ControlSocket()
{
    if (fd_ >= 0) {
        close(fd_);
        if (!is_gone())
            unlink(QZLIB_MBUS_SOCKET);
    }
    if (lock_ >= 0)
        close(lock_);
}

bool ControlSocket::claim()
{
    lock_ = open_lock();
    if (lock_ >= 0 && !somebody_listens())
        return true;
    log_line(QZLIB_LOG_ERROR, "another bus server is running");
    return false;
}

bool ControlSocket::is_gone() const
{
    struct stat status;
    return stat(QZLIB_MBUS_SOCKET, &status) != 0 || status.st_dev != device_ || status.st_ino != inode_;
}

bool ControlSocket::open()
{
    if (fd_ >= 0)
        close(fd_);
    fd_ = qzlib_create_listen_unixdomain(QZLIB_MBUS_SOCKET);
    if (fd_ < 0) {
        if (!reported_)
            log_line(QZLIB_LOG_ERROR, "cannot bind %s: %s", QZLIB_MBUS_SOCKET, strerror(errno));
        reported_ = true;
        return false;
    }
    reported_ = false;
    const int on = 1;
    struct stat status;
    (void)chmod(QZLIB_MBUS_SOCKET, 0666); // as the shared memory
    if (stat(QZLIB_MBUS_SOCKET, &status) == 0) {
        device_ = status.st_dev;
        inode_ = status.st_ino;
    }
    if (setsockopt(fd_, SOL_SOCKET, SO_PASSCRED, &on, sizeof on) != 0 ||
        fcntl(fd_, F_SETOWN, getpid()) != 0 || fcntl(fd_, F_SETFL, O_NONBLOCK | O_ASYNC) != 0) {
        log_line(QZLIB_LOG_ERROR, "cannot set up %s: %s", QZLIB_MBUS_SOCKET, strerror(errno));
        return false;
    }
    return true;
}

std::optional<Command> ControlSocket::parse(const char *datagram, size_t length, pid_t sender)
{
    mbus_ctl_msg message;
    if (length != sizeof message) {
        log_line(QZLIB_LOG_WARNING, "refused a datagram of %zu bytes from process %d", length, sender);
        return std::nullopt;
    }
    memcpy(&message, datagram, sizeof message);
    const bool known = message.command == MBUS_CTL_REGISTER || message.command == MBUS_CTL_UNREGISTER;
    if (!known || message.name[0] == '\0') {
        log_line(QZLIB_LOG_WARNING, "refused command %d for \"%s\" from process %d", message.command,
                 printable({message.name, strnlen(message.name, sizeof message.name)}).c_str(), sender);
        return std::nullopt;
    }
    return Command{message.command, {message.name, strnlen(message.name, sizeof message.name)}, sender};
}

bool ControlSocket::next(std::optional<Command> &command)
{
    char datagram[sizeof(mbus_ctl_msg)];
    alignas(cmsghdr) char ancillary[CMSG_SPACE(sizeof(ucred))];
    iovec part = {datagram, sizeof datagram};
    msghdr message{};
    message.msg_iov = &part;
    message.msg_iovlen = 1;
    message.msg_control = ancillary;
    message.msg_controllen = sizeof ancillary;
    const ssize_t length = recvmsg(fd_, &message, MSG_CMSG_CLOEXEC | MSG_TRUNC); // the whole length
    if (length < 0)
        return false;
    command = parse(datagram, static_cast<size_t>(length), sender_of(message));
    return true;
}

} // namespace mbusd
