// SPDX-License-Identifier: MIT
#include "base/export.h"
#include "base/lookup.h"
#include "base/owners.h"
#include "base/text.h"

#include <arpa/inet.h>
#include <cstdlib>
#include <netinet/in.h>
#include <optional>
#include <qzlib.h>
#include <sys/socket.h>
#include <sys/un.h>

#define SOCKET_LOG(level, ...) debug_msg(level, "socket_api", __LINE__, __VA_ARGS__)

namespace
{

using qz::base::UniqueFd;

constexpr int LISTEN_BACKLOG = 1024;

UniqueFd open_socket(int family, int type, int protocol = 0)
{
    return UniqueFd(socket(family, type | SOCK_CLOEXEC, protocol));
}

template <typename Address>
const sockaddr *generic(const Address &address)
{
    return reinterpret_cast<const sockaddr *>(&address);
}

// Always used with the size of the whole structure, not with that of the path: the bus
// server's address has to match.
sockaddr_un local_address(const char *path)
{
    sockaddr_un address{};
    address.sun_family = AF_UNIX;
    qz::base::copy_text(address.sun_path, {path, strnlen(path, sizeof address.sun_path)});
    return address;
}

sockaddr_in ipv4_address(unsigned port)
{
    sockaddr_in address{};
    address.sin_family = AF_INET;
    address.sin_port = htons(static_cast<uint16_t>(port));
    return address; // of no host yet: INADDR_ANY
}

const char *printable(const char *text)
{
    return text != nullptr ? text : "(null)";
}

void warn_unless_nonblock(int fd)
{
    if (qzlib_set_nonblock(fd) != 0)
        SOCKET_LOG(QZLIB_LOG_WARNING, "cannot set the UNIX domain fd nonblock");
}

// No resolver is asked. Text that passes the validator but is no address leaves the address
// zero; and a socket that does not connect stays open. Callers know both, both are kept.
int connect_directly(const char *host, const char *port, int type)
{
    UniqueFd fd = open_socket(AF_INET, type);
    if (!fd)
        return -1;
    sockaddr_in address = ipv4_address(static_cast<unsigned>(qz::base::read_number(port)));
    int result = inet_pton(AF_INET, host, &address.sin_addr);
    if (result == 0)
        address.sin_addr = {}; // some C libraries leave the first bytes of a bad address behind
    if (result >= 0)
        result = connect(fd.get(), generic(address), sizeof address);
    const int descriptor = fd.release();
    return result < 0 ? result : descriptor;
}

// The first address that connects; -1 when none does. A type of 0 takes every entry.
int connect_first(const addrinfo *list, int type)
{
    for (const addrinfo *entry = list; entry != nullptr; entry = entry->ai_next) {
        if (type != 0 && entry->ai_socktype != type)
            continue;
        UniqueFd fd = open_socket(entry->ai_family, entry->ai_socktype, entry->ai_protocol);
        if (fd && connect(fd.get(), entry->ai_addr, entry->ai_addrlen) == 0)
            return fd.release();
    }
    return -1;
}

std::optional<int> connect_resolved(const char *host, const char *port, int type)
{
    const qz::base::AddressList addresses(host, port, nullptr);
    if (!addresses.resolved())
        return std::nullopt;
    return connect_first(addresses.head(), type);
}

// Also applied to the -1 of a walk that found nothing, which thereby becomes -264.
int switch_mode(int fd, int (*set_mode)(int))
{
    if (set_mode(fd) == 0)
        return fd;
    const UniqueFd closed(fd);
    return QZLIB_ERR_FAILED;
}

int connect_to(const char *host, const char *port, int type, int flag, int (*set_mode)(int))
{
    if (host == nullptr || port == nullptr)
        return QZLIB_ERR_ARGUMENT;
    int fd;
    if (qzlib_ip_is_valid(host) != 0 && qzlib_str_is_digit(port) != 0) {
        fd = connect_directly(host, port, type);
        if (fd < 0)
            return fd;
    } else {
        const std::optional<int> resolved = connect_resolved(host, port, type);
        if (!resolved)
            return QZLIB_ERR_FAILED;
        fd = *resolved;
    }
    return flag > 0 ? switch_mode(fd, set_mode) : fd;
}

// Fills the address; 0, or the code for the caller. The two listeners say it differently.
int take_listen_ip(const char *ip, sockaddr_in &address, const char *format_error)
{
    if (ip == nullptr)
        return 0;
    const int result = inet_pton(AF_INET, ip, &address.sin_addr);
    if (result == 0) {
        SOCKET_LOG(QZLIB_LOG_ERROR, "inet_pton %s error (%s)", format_error, ip);
        return QZLIB_ERR_ARGUMENT;
    }
    if (result < 0) {
        SOCKET_LOG(QZLIB_LOG_ERROR, "inet_pton error for (%s)", ip);
        return QZLIB_ERR_FAILED;
    }
    return 0;
}

bool set_reuse(int fd)
{
    const int on = 1;
    return setsockopt(fd, SOL_SOCKET, SO_REUSEADDR, &on, sizeof on) == 0;
}

bool bind_to(int fd, const sockaddr_in &address)
{
    return bind(fd, generic(address), sizeof address) == 0;
}

} // namespace

QZ_EXPORT int qzlib_create_connect_unixdomain(const char *path)
{
    if (path == nullptr)
        return QZLIB_ERR_ARGUMENT;
    UniqueFd fd = open_socket(AF_UNIX, SOCK_DGRAM);
    if (!fd) {
        SOCKET_LOG(QZLIB_LOG_ERROR, "cannot create the UNIX domain for connect\n");
        return QZLIB_ERR_FAILED;
    }
    const sockaddr_un address = local_address(path);
    if (connect(fd.get(), generic(address), sizeof address) != 0)
        return QZLIB_ERR_FAILED;
    warn_unless_nonblock(fd.get());
    return fd.release();
}

QZ_EXPORT int qzlib_send_to_unixdomain(const char *path, const void *buf, int len)
{
    if (path == nullptr || buf == nullptr || len <= 0)
        return QZLIB_ERR_ARGUMENT;
    const int fd = qzlib_create_connect_unixdomain(path);
    if (fd < 0)
        return fd;
    const UniqueFd owner(fd);
    // A datagram that cannot be delivered is lost. MSG_NOSIGNAL: nor does it end the process.
    (void)send(fd, buf, static_cast<size_t>(len), MSG_NOSIGNAL);
    return 0;
}

QZ_EXPORT int qzlib_create_listen_unixdomain(const char *path)
{
    if (path == nullptr) {
        SOCKET_LOG(QZLIB_LOG_ERROR, "bad argument for create UNIX domain function");
        return QZLIB_ERR_ARGUMENT;
    }
    UniqueFd fd = open_socket(AF_UNIX, SOCK_DGRAM);
    if (!fd) {
        SOCKET_LOG(QZLIB_LOG_ERROR, "cannot create the UNIX domain for listen");
        return QZLIB_ERR_FAILED;
    }
    const sockaddr_un address = local_address(path);
    (void)unlink(path); // a stale file of an earlier run; there may be none
    if (bind(fd.get(), generic(address), sizeof address) != 0) {
        fd.reset();
        SOCKET_LOG(QZLIB_LOG_ERROR, "cannot bind the addr(%s) in create UNIX domain socket", path);
        return QZLIB_ERR_FAILED;
    }
    warn_unless_nonblock(fd.get());
    return fd.release();
}

QZ_EXPORT int qzlib_create_connect_udp(const char *host, const char *port, int force_block)
{
    return connect_to(host, port, SOCK_DGRAM, force_block, qzlib_set_block);
}

QZ_EXPORT int qzlib_create_connect_tcp(const char *host, const char *port, int nonblock)
{
    return connect_to(host, port, SOCK_STREAM, nonblock, qzlib_set_nonblock);
}

QZ_EXPORT int qzlib_create_connect_addr(const char *node, const char *service, int force_block)
{
    if (node == nullptr || service == nullptr)
        return QZLIB_ERR_ARGUMENT;
    const std::optional<int> fd = connect_resolved(node, service, 0);
    if (!fd)
        return QZLIB_ERR_FAILED;
    return force_block > 0 ? switch_mode(*fd, qzlib_set_block) : *fd;
}

QZ_EXPORT int qzlib_create_listen_tcp(const char *ip, unsigned port)
{
    sockaddr_in address = ipv4_address(port);
    const int result = take_listen_ip(ip, address, "input");
    if (result != 0)
        return result;
    UniqueFd fd = open_socket(AF_INET, SOCK_STREAM);
    if (!fd) {
        SOCKET_LOG(QZLIB_LOG_ERROR, "cannot create the TCP socket for listen");
        return -1; // not -264, deliberately
    }
    if (!set_reuse(fd.get()))
        SOCKET_LOG(QZLIB_LOG_ERROR, "cannot set TCP socket(%d) options to SO_REUSEADDR", fd.get());
    if (!bind_to(fd.get(), address)) {
        SOCKET_LOG(QZLIB_LOG_ERROR, "cannot bind the addr(%s) in create TCP socket", printable(ip));
        return QZLIB_ERR_FAILED;
    }
    if (qzlib_set_nonblock(fd.get()) != 0)
        SOCKET_LOG(QZLIB_LOG_WARNING, "cannot set the TCP socket(%d) nonblock", fd.get());
    if (listen(fd.get(), LISTEN_BACKLOG) != 0) {
        const int closed = fd.get();
        fd.reset();
        SOCKET_LOG(QZLIB_LOG_ERROR, "cannot listen to TCP socket(%d)", closed);
        return QZLIB_ERR_FAILED;
    }
    return fd.release();
}

QZ_EXPORT int qzlib_create_listen_udp(const char *ip, unsigned port)
{
    sockaddr_in address = ipv4_address(port);
    const int result = take_listen_ip(ip, address, "format");
    if (result != 0)
        return result;
    UniqueFd fd = open_socket(AF_INET, SOCK_DGRAM);
    if (!fd) {
        SOCKET_LOG(QZLIB_LOG_ERROR, "cannot create the UDP socket for listen");
        return QZLIB_ERR_FAILED;
    }
    if (qzlib_set_nonblock(fd.get()) != 0)
        SOCKET_LOG(QZLIB_LOG_WARNING, "cannot set the UDP socket(%d) nonblock", fd.get());
    if (!set_reuse(fd.get()))
        SOCKET_LOG(QZLIB_LOG_ERROR, "cannot set UDP socket(%d) options to SO_REUSEADDR", fd.get());
    if (!bind_to(fd.get(), address)) {
        const int closed = fd.get();
        fd.reset();
        SOCKET_LOG(QZLIB_LOG_ERROR, "cannot bind the addr(%s) to  UDP socket(%d) ", printable(ip), closed);
        return QZLIB_ERR_FAILED;
    }
    return fd.release();
}
