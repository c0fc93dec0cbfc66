// SPDX-License-Identifier: MIT
#include "base/export.h"
#include "base/owners.h"
#include "base/text.h"

#include <arpa/inet.h>
#include <array>
#include <csignal>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <ctime>
#include <qzlib.h>
#include <sys/socket.h>
#include <sys/un.h>

namespace
{

using qz::base::ErrnoKeeper;
using qz::base::UniqueFd;

constexpr char DAEMON_SOCKET[] = "/tmp/.zserv";
constexpr size_t MESSAGE_SIZE = 128;
constexpr size_t ADDRESS_SIZE = 4;

// Bits of the message flags: what follows the prefix.
constexpr unsigned HAS_NEXT_HOP = 0x01;
constexpr unsigned HAS_DISTANCE = 0x04;
constexpr unsigned HAS_METRIC = 0x08;

constexpr unsigned NEXT_HOP_INTERFACE = 2;
constexpr unsigned NEXT_HOP_ADDRESS = 3;

// Sizes of the parts of a message: length, command, type, flags, message flags and prefix
// length; next-hop count and kind; distance and metric.
constexpr size_t HEAD_SIZE = 7;
constexpr size_t NEXT_HOP_HEAD_SIZE = 2;
constexpr size_t TAIL_SIZE = 5;
static_assert(HEAD_SIZE + NEXT_HOP_HEAD_SIZE + ADDRESS_SIZE + TAIL_SIZE == 18);

// Assertions that hold in every build type: daemons rely on a request without prefix bytes or
// with an empty name never reaching the routing daemon.
[[noreturn]] void assertion_failed(const char *expression, const char *function, int line)
{
    (void)fprintf(stderr, "%s: sroute:%d: %s: Assertion `%s' failed.\n", program_invocation_short_name, line,
                  function, expression);
    abort();
}
#define ROUTE_ASSERT(expression) ((expression) ? void() : assertion_failed(#expression, __func__, __LINE__))

// The writers put one field at buf and return where the next one begins.
uint8_t *_route_putc(uint8_t *buf, unsigned value)
{
    ROUTE_ASSERT(buf);
    *buf = static_cast<uint8_t>(value);
    return buf + 1;
}

uint8_t *_route_putl(uint8_t *buf, uint32_t value)
{
    ROUTE_ASSERT(buf);
    const uint32_t network_order = htonl(value);
    memcpy(buf, &network_order, sizeof network_order);
    return buf + sizeof network_order;
}

uint8_t *_route_puts(uint8_t *buf, const void *s, size_t size)
{
    ROUTE_ASSERT(buf);
    ROUTE_ASSERT(s);
    ROUTE_ASSERT(size > 0);
    memcpy(buf, s, size);
    return buf + size;
}

// In network byte order; zero for a text that is no address.
in_addr to_address(const char *text)
{
    in_addr address{};
    if (inet_pton(AF_INET, text, &address) < 1)
        address = {}; // some C libraries leave the first bytes of a bad address behind
    return address;
}

// The prefix as it goes into a message.
struct Prefix {
    int length = 0;
    bool is_default = false;
    size_t byte_count = 0;                     // taken from the length, modulo 256
    std::array<uint8_t, MESSAGE_SIZE> bytes{}; // zero after the address, for lengths above 32
};

// False when the text has no length part.
bool parse_prefix(const char *text, Prefix &prefix)
{
    std::array<char, 16 + 1> address{};
    std::array<char, 3 + 1> length{};
    if (qzlib_get_ip_mask(text, address.data(), length.data()) != 0)
        return false;
    prefix.is_default = strcmp(address.data(), "0.0.0.0") == 0;
    if (prefix.is_default)
        return true; // whatever the length says
    prefix.length = qz::base::read_number(length.data());
    prefix.byte_count = static_cast<uint8_t>((prefix.length + 7) / 8);
    const in_addr bytes = to_address(address.data());
    memcpy(prefix.bytes.data(), &bytes, sizeof bytes);
    return true;
}

struct NextHop {
    explicit NextHop(const char *hop) : text(hop), is_address(*hop >= '0' && *hop <= '9') {}

    [[nodiscard]] size_t size() const { return is_address ? ADDRESS_SIZE : 1 + strlen(text); }

    uint8_t *put(uint8_t *at) const
    {
        at = _route_putc(at, is_address ? NEXT_HOP_ADDRESS : NEXT_HOP_INTERFACE);
        if (is_address)
            return _route_putl(at, ntohl(to_address(text).s_addr));
        at = _route_putc(at, static_cast<unsigned>(strlen(text)));
        return _route_puts(at, text, strlen(text));
    }

    const char *text;
    bool is_address;
};

struct Route {
    unsigned command;
    unsigned type;
    Prefix prefix;
    unsigned char distance;
};

using Message = std::array<uint8_t, MESSAGE_SIZE>;

// The size of the message, or 0 when it does not fit.
size_t build_message(Message &message, const Route &route, const NextHop &hop)
{
    const size_t size = HEAD_SIZE + route.prefix.byte_count + NEXT_HOP_HEAD_SIZE + hop.size() + TAIL_SIZE;
    if (size > message.size())
        return 0;
    uint8_t *at = _route_putc(message.data(), static_cast<unsigned>(size >> 8));
    at = _route_putc(at, static_cast<unsigned>(size));
    at = _route_putc(at, route.command);
    at = _route_putc(at, route.type);
    at = _route_putc(at, 0);
    at = _route_putc(at, HAS_NEXT_HOP | HAS_DISTANCE | HAS_METRIC);
    at = _route_putc(at, static_cast<unsigned>(route.prefix.length));
    if (!route.prefix.is_default)
        at = _route_puts(at, route.prefix.bytes.data(), route.prefix.byte_count);
    at = _route_putc(at, 1); // next hops
    at = hop.put(at);
    at = _route_putc(at, route.distance);
    (void)_route_putl(at, 0); // metric
    return size;
}

UniqueFd connect_daemon()
{
    UniqueFd fd(socket(AF_UNIX, SOCK_STREAM | SOCK_CLOEXEC, 0));
    sockaddr_un address{};
    address.sun_family = AF_UNIX;
    memcpy(address.sun_path, DAEMON_SOCKET, sizeof DAEMON_SOCKET);
    constexpr socklen_t SIZE = sizeof DAEMON_SOCKET - 1 + 2; // the family and the path without its terminator
    if (!fd || connect(fd.get(), reinterpret_cast<const sockaddr *>(&address), SIZE) != 0)
        return {};
    return fd;
}

// Holds SIGPIPE back from this thread. A routing daemon that closes early costs the request,
// not the caller's life; it may close as soon as it has the message, and qzlib_fd_write()
// still makes its write of 0 bytes then.
class SigpipeGuard
{
public:
    SigpipeGuard()
    {
        sigset_t pending;
        sigpending(&pending);
        was_pending_ = sigismember(&pending, SIGPIPE) == 1;
        sigemptyset(&sigpipe_);
        sigaddset(&sigpipe_, SIGPIPE);
        pthread_sigmask(SIG_BLOCK, &sigpipe_, &saved_);
    }
    ~SigpipeGuard()
    {
        const ErrnoKeeper keeper;
        const timespec at_once{};
        while (!was_pending_ && sigtimedwait(&sigpipe_, nullptr, &at_once) < 0 && errno == EINTR) {
        }
        pthread_sigmask(SIG_SETMASK, &saved_, nullptr);
    }
    SigpipeGuard(const SigpipeGuard &) = delete;
    SigpipeGuard &operator=(const SigpipeGuard &) = delete;

private:
    sigset_t sigpipe_;
    sigset_t saved_;
    bool was_pending_ = false;
};

void send_message(int fd, const Message &message, size_t size)
{
    const SigpipeGuard guard;
    if (qzlib_fd_write(fd, message.data(), static_cast<unsigned>(size), 0) != static_cast<int>(size))
        (void)printf("write failed[%m]\n");
}

} // namespace

QZ_EXPORT int qzlib_do_route(unsigned int command, unsigned int type, const char *prefix, const char *nexthop,
                             unsigned char distance)
{
    Route route{command, type, {}, distance};
    if (!parse_prefix(prefix, route.prefix))
        return -1;
    const UniqueFd fd = connect_daemon();
    if (!fd)
        return -1;
    Message message{};
    size_t size = 0;
    if (command != 0 && nexthop != nullptr) {
        size = build_message(message, route, NextHop(nexthop));
        if (size == 0)
            return -1;
    }
    send_message(fd.get(), message, size); // nothing to say: a write of 0 bytes
    return 0;
}
