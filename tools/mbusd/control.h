// SPDX-License-Identifier: MIT
// The control socket: datagrams in, each with the process that sent it.
#pragma once

#include <optional>
#include <qzlib.h>
#include <string>
#include <sys/types.h>

namespace mbusd
{

struct Command {
    int32_t code;
    std::string name; // not empty
    pid_t sender;     // 0 when the kernel cannot tell
};

class ControlSocket
{
public:
    ControlSocket() = default;
    ~ControlSocket();
    ControlSocket(const ControlSocket &) = delete;
    ControlSocket &operator=(const ControlSocket &) = delete;

    // Takes the place of the one bus server; false (logged) when another one runs.
    bool claim();
    // Binds the socket, over the file of a dead server, or anew. SIGIO comes with every datagram.
    bool open();
    // Whether the file that clients find is no longer this socket's.
    [[nodiscard]] bool is_gone() const;
    // Takes a datagram; false when there is none. One that is malformed is logged and gives no
    // command. Never waits.
    bool next(std::optional<Command> &command);

private:
    std::optional<Command> parse(const char *datagram, size_t length, pid_t sender);

    int lock_ = -1;
    int fd_ = -1;
    bool reported_ = false; // that it cannot be bound
    dev_t device_ = 0;      // of the file
    ino_t inode_ = 0;
};

} // namespace mbusd
