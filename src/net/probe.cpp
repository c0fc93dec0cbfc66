// SPDX-License-Identifier: MIT
#include "base/export.h"
#include "base/lookup.h"
#include "base/owners.h"
#include "base/text.h"
#include "base/thread.h"

#include <arpa/inet.h>
#include <array>
#include <csignal>
#include <cstdlib>
#include <poll.h>
#include <qzlib.h>
#include <sys/socket.h>
#include <sys/wait.h>
#include <utility>

namespace
{

using qz::base::AddressList;
using qz::base::change;
using qz::base::lookup_breaks;
using qz::base::lookups;
using qz::base::UniqueFd;

constexpr size_t IP_TEXT_SIZE = 16;

// Both look for any family of stream sockets.
constexpr addrinfo hints_with(int flags)
{
    addrinfo hints{};
    hints.ai_flags = flags;
    hints.ai_family = AF_UNSPEC;
    hints.ai_socktype = SOCK_STREAM;
    return hints;
}
constexpr addrinfo NUMERIC_PORT = hints_with(AI_NUMERICSERV);
constexpr addrinfo OWN_FAMILIES = hints_with(AI_ADDRCONFIG);

// ---- The child of the latency probe: the resolver, sockets and exit(), nothing else ----

enum class Attempt { CONNECTED, REFUSED, NO_REUSE, NO_SOCKET };

Attempt try_connect(const addrinfo &entry)
{
    const UniqueFd fd(socket(entry.ai_family, entry.ai_socktype, entry.ai_protocol));
    if (!fd)
        return Attempt::NO_SOCKET;
    const int on = 1;
    if (setsockopt(fd.get(), SOL_SOCKET, SO_REUSEADDR, &on, sizeof on) != 0)
        return Attempt::NO_REUSE;
    return connect(fd.get(), entry.ai_addr, entry.ai_addrlen) == 0 ? Attempt::CONNECTED : Attempt::REFUSED;
}

// The time until one of the addresses took a connection, -1 when none did. A list that ends on
// an address whose socket refused SO_REUSEADDR counts as connected: kept as callers know it.
int32_t measure_latency(const char *host, const char *port)
{
    const AddressList addresses(host, port, &NUMERIC_PORT);
    if (!addresses.resolved())
        return QZLIB_ERR_FAILED;
    const unsigned long long start = qzlib_get_system_uptime_ms();
    Attempt last = Attempt::REFUSED;
    for (const addrinfo *entry = addresses.head(); entry != nullptr; entry = entry->ai_next) {
        last = try_connect(*entry);
        if (last == Attempt::CONNECTED)
            break;
    }
    if (last != Attempt::CONNECTED && last != Attempt::NO_REUSE)
        return -1;
    return static_cast<int32_t>(qzlib_get_system_uptime_ms() - start);
}

// The daemon's handlers are not the child's: SIGTERM has to end it even inside the resolver.
// SIGTERM came in blocked and goes through from here on.
void take_default_signals(const sigset_t &sigterm)
{
    for (const int number : {SIGTERM, SIGKILL, SIGHUP, SIGINT})
        (void)qzlib_sys_signal(number, SIG_DFL); // SIGKILL has no other: that refusal does not matter
    pthread_sigmask(SIG_UNBLOCK, &sigterm, nullptr);
}

[[noreturn]] void run_child(const char *host, const char *port, UniqueFd answer)
{
    const int32_t value = measure_latency(host, port);
    (void)!write(answer.get(), &value, sizeof value); // nobody is left to be told
    answer.reset();
    exit(0); // which also flushes the daemon's unwritten output, deliberately
}

// ---- The parent -----------------------------------------------------------------------

// The resolver then takes no locks.
bool is_address(const char *host)
{
    in6_addr address; // or a shorter one
    return inet_pton(AF_INET, host, &address) == 1 || inet_pton(AF_INET6, host, &address) == 1;
}

// Subtracts the wait from the limit (0: none); false when nothing is left.
bool wait_for_lookups(int &limit_ms)
{
    while (change(lookups) != 0) {
        (void)poll(nullptr, 0, qz::base::TURN_MS);
        if (limit_ms > 0 && (limit_ms -= qz::base::TURN_MS) <= 0)
            return false;
    }
    return true;
}

// fork() while none of the library's look-ups runs; waiting for that counts towards the limit, and no
// child is made when it takes all of it. SIGTERM is blocked in both processes, as the parent's signal can
// come before the child has dropped the daemon's handler.
class ProbeChild
{
public:
    ProbeChild(const char *host, const char *port, UniqueFd &read_end, UniqueFd &write_end, int &limit_ms)
    {
        change(lookup_breaks, 1);
        if (is_address(host) || wait_for_lookups(limit_ms))
            start(host, port, read_end, write_end);
        change(lookup_breaks, -1);
    }
    ~ProbeChild()
    {
        while (pid_ > 0 && waitpid(pid_, nullptr, 0) < 0 && errno == EINTR) {
        }
    }
    ProbeChild(const ProbeChild &) = delete;
    ProbeChild &operator=(const ProbeChild &) = delete;

    [[nodiscard]] pid_t pid() const { return pid_; }
    void terminate() const { (void)kill(pid_, SIGTERM); } // it may just have ended

private:
    void start(const char *host, const char *port, UniqueFd &read_end, UniqueFd &write_end)
    {
        sigset_t sigterm;
        sigset_t saved;
        sigemptyset(&sigterm);
        sigaddset(&sigterm, SIGTERM);
        pthread_sigmask(SIG_BLOCK, &sigterm, &saved);
        pid_ = fork();
        if (pid_ == 0) {
            take_default_signals(sigterm);
            read_end.reset();
            run_child(host, port, std::move(write_end));
        }
        pthread_sigmask(SIG_SETMASK, &saved, nullptr);
    }

    pid_t pid_ = -1;
};

// ---- The name probe -------------------------------------------------------------------

// The four bytes after the port, whatever the family of the address: of an IPv6 address that
// is its flow information, normally 0.0.0.0. Kept as callers know it.
bool format_address(const addrinfo &entry, std::array<char, IP_TEXT_SIZE> &text)
{
    constexpr size_t ADDRESS_OFFSET = offsetof(sockaddr_in, sin_addr);
    in_addr address{};
    memcpy(&address, reinterpret_cast<const char *>(entry.ai_addr) + ADDRESS_OFFSET, sizeof address);
    return inet_ntop(AF_INET, &address, text.data(), IP_TEXT_SIZE) != nullptr &&
           qzlib_ip_is_valid(text.data()) != 0;
}

} // namespace

QZ_EXPORT int qzlib_get_tcp_latency(const char *host, const char *port, int timeout_ms)
{
    if (host == nullptr || port == nullptr || timeout_ms < 0)
        return QZLIB_ERR_ARGUMENT;
    const qz::base::CancellationHold hold; // or the pipe and the child would be left
    std::array<int, 2> ends;
    const int result = pipe2(ends.data(), O_CLOEXEC);
    if (result < 0)
        return result;
    UniqueFd read_end(ends[0]);
    UniqueFd write_end(ends[1]);
    const ProbeChild child(host, port, read_end, write_end, timeout_ms);
    if (child.pid() < 0)
        return child.pid();
    write_end.reset(); // a child that ends without an answer ends the wait
    int32_t latency = -1;
    if (qzlib_fd_read(read_end.get(), &latency, sizeof latency, timeout_ms) > 0)
        return latency;
    child.terminate();
    return -1;
}

QZ_EXPORT int qzlib_get_domain_ip(const char *name, char *ip_out)
{
    if (name == nullptr || ip_out == nullptr)
        return QZLIB_ERR_ARGUMENT;
    if (qzlib_ip_is_valid(name)) {
        const size_t size = strlen(name) + 1;
        if (size > IP_TEXT_SIZE)
            return -1; // digits without end: nothing that the caller's buffer holds
        memmove(ip_out, name, size);
        return 0;
    }
    const AddressList addresses(name, nullptr, &OWN_FAMILIES);
    std::array<char, IP_TEXT_SIZE> text{};
    for (const addrinfo *entry = addresses.head(); entry != nullptr; entry = entry->ai_next) {
        if (!format_address(*entry, text))
            continue;
        strcpy(ip_out, text.data());
        return 0;
    }
    return -1;
}
