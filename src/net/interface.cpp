// SPDX-License-Identifier: MIT
#include "base/export.h"
#include "base/owners.h"
#include "base/text.h"

#include <algorithm>
#include <arpa/inet.h>
#include <array>
#include <cstdlib>
#include <net/if.h>
#include <qzlib.h>
#include <sys/ioctl.h>
#include <sys/socket.h>

namespace
{

using qz::base::read_line;
using qz::base::UniqueFd;
using qz::base::UniqueStream;

constexpr const char *MODULE = "net_api";
constexpr size_t IP_TEXT_SIZE = 16;
constexpr size_t HARDWARE_TEXT_SIZE = 18;
constexpr size_t STATUS_LINE_SIZE = 512;

// Requests about one interface, on a socket that lives as long as this object.
class Interface
{
public:
    explicit Interface(const char *name) : socket_(socket(AF_INET, SOCK_DGRAM | SOCK_CLOEXEC, 0))
    {
        if (name != nullptr)
            qz::base::fill_field(request_.ifr_name, name); // the kernel terminates a full field
        request_.ifr_addr.sa_family = AF_INET;
    }

    [[nodiscard]] bool is_open() const { return static_cast<bool>(socket_); }
    [[nodiscard]] bool ask(unsigned code, ifreq &answer) const
    {
        answer = request_;
        return ioctl(socket_.get(), code, &answer) >= 0;
    }
    [[nodiscard]] bool read_flags(uint16_t &flags) const
    {
        ifreq answer;
        const bool answered = ask(SIOCGIFFLAGS, answer);
        flags = static_cast<uint16_t>(answer.ifr_flags);
        return answered;
    }
    [[nodiscard]] bool write_flags(unsigned flags) const
    {
        ifreq request = request_;
        request.ifr_flags = static_cast<short>(flags);
        return ioctl(socket_.get(), SIOCSIFFLAGS, &request) >= 0;
    }

private:
    UniqueFd socket_;
    ifreq request_{};
};

// The last byte of a buffer; a size of 0 has none.
void terminate(char *out, unsigned size)
{
    if (size > 0)
        out[size - 1] = '\0';
}

// An address must fit into size - 1 bytes with its terminator, else the buffer keeps what it
// held but for its last byte. A size of 0 is no bound.
void write_address(const ifreq &answer, char *out, unsigned size)
{
    sockaddr_in address;
    memcpy(&address, &answer.ifr_addr, sizeof address);
    std::array<char, IP_TEXT_SIZE> text;
    (void)inet_ntop(AF_INET, &address.sin_addr, text.data(), text.size());
    const size_t length = strlen(text.data());
    if (length + 1 <= size - 1)
        memcpy(out, text.data(), length + 1);
    terminate(out, size);
}

// A hardware address that the buffer does not hold whole is cut to size - 2 characters.
void write_hardware_address(const ifreq &answer, char *out, unsigned size)
{
    std::array<unsigned char, 6> bytes;
    memcpy(bytes.data(), answer.ifr_hwaddr.sa_data, bytes.size());
    std::array<char, HARDWARE_TEXT_SIZE> text;
    (void)snprintf(text.data(), text.size(), "%2.2X:%2.2X:%2.2X:%2.2X:%2.2X:%2.2X", bytes[0], bytes[1],
                   bytes[2], bytes[3], bytes[4], bytes[5]);
    const size_t bound = size == 0 || size >= text.size() ? text.size() : size - 1;
    if (bound > 0)
        qz::base::copy_text({out, bound}, text.data());
    terminate(out, size);
}

struct Item {
    unsigned code;
    unsigned size;
    char *out;             // null: not asked for
    const char *logged_as; // null: a failure is not logged
};

// One item's failure does not stop the others, and none clears an earlier failure.
int read_items(const Interface &interface, const char *ifname, std::span<const Item> items)
{
    int result = 0;
    for (const Item &item : items) {
        ifreq answer;
        if (item.out == nullptr)
            continue;
        if (interface.ask(item.code, answer)) {
            const auto write = item.code == SIOCGIFHWADDR ? write_hardware_address : write_address;
            write(answer, item.out, item.size);
            continue;
        }
        if (item.logged_as != nullptr)
            debug_msg(QZLIB_LOG_ERROR, MODULE, __LINE__, "Cannot get the interface(%s) %s", ifname,
                      item.logged_as);
        result = QZLIB_ERR_FAILED;
    }
    return result;
}

constexpr int COUNTER_COLUMNS = 12;

// Where the columns of an interface's line go; null: read and thrown away.
using Counters = std::array<long long *, COUNTER_COLUMNS>;

void read_counters(const char *text, const Counters &counters)
{
    for (long long *counter : counters) {
        char *end = nullptr;
        const long long value = strtoll(text, &end, 10);
        if (end == text)
            return;
        if (counter != nullptr)
            *counter = value;
        text = end;
    }
}

// Finds the first line that has the name anywhere in it: "eth0" also finds veth0, deliberately.
// Returns the text after its first ':', or null.
const char *find_counters(FILE *stream, const char *ifname, std::span<char> line)
{
    if (!read_line(stream, line) || !read_line(stream, line)) // the two heading lines
        return nullptr;
    while (read_line(stream, line)) {
        if (strstr(line.data(), ifname) == nullptr)
            continue;
        const char *colon = strchr(line.data(), ':');
        return colon == nullptr ? nullptr : colon + 1;
    }
    return nullptr;
}

// The formats of the messages about a change's three steps. Setting and clearing word them
// differently; both are part of the interface.
struct ChangeMessages {
    const char *no_socket;
    const char *not_read;
    const char *not_written;
};

int change_failed(const char *message, const char *ifname)
{
    debug_msg(QZLIB_LOG_ERROR, MODULE, __LINE__, message, ifname);
    return QZLIB_ERR_FAILED;
}

// Nothing is written when no flag would change.
int change_flags(const char *ifname, unsigned clear, unsigned set, const ChangeMessages &messages)
{
    if (ifname == nullptr)
        return QZLIB_ERR_ARGUMENT;
    const Interface interface(ifname);
    if (!interface.is_open())
        return change_failed(messages.no_socket, ifname);
    uint16_t flags = 0;
    if (!interface.read_flags(flags))
        return change_failed(messages.not_read, ifname);
    const unsigned wanted = (flags & ~clear) | set;
    if (wanted == flags)
        return QZLIB_ERR_NOT_FOUND;
    return interface.write_flags(wanted) ? 0 : change_failed(messages.not_written, ifname);
}

} // namespace

QZ_EXPORT int qzlib_get_interface_info(const char *ifname, char *ip, unsigned ip_size, char *mask,
                                       unsigned mask_size, char *mac, unsigned mac_size)
{
    if (ifname == nullptr)
        return QZLIB_ERR_ARGUMENT;
    const Interface interface(ifname);
    if (!interface.is_open()) {
        debug_msg(QZLIB_LOG_ERROR, MODULE, __LINE__, "create a socket(get interface(%s) address) error",
                  ifname);
        return QZLIB_ERR_FAILED;
    }
    const Item items[] = {
        {SIOCGIFADDR, ip_size, ip, nullptr},
        {SIOCGIFNETMASK, mask_size, mask, nullptr},
        {SIOCGIFHWADDR, mac_size, mac, nullptr},
    };
    return read_items(interface, ifname, items);
}

// The number is made of the first four characters of the text, not of the address: kept for the
// daemons that store it.
QZ_EXPORT int qzlib_get_ip_by_name(const char *ifname, uint32_t *out)
{
    if (ifname == nullptr || out == nullptr)
        return QZLIB_ERR_ARGUMENT;
    std::array<char, IP_TEXT_SIZE> text{};
    const int result = qzlib_get_interface_info(ifname, text.data(), 0, nullptr, 0, nullptr, 0);
    uint32_t word = 0;
    memcpy(&word, text.data(), sizeof word);
    *out = ntohl(word);
    return result;
}

QZ_EXPORT int qzlib_get_pppinterface_info(const char *ifname, char *ip, unsigned ip_size, char *peer,
                                          unsigned peer_size, char *mask, unsigned mask_size, char *mac,
                                          unsigned mac_size)
{
    const char *name = ifname != nullptr ? ifname : ""; // fails like a name that does not exist
    const Interface interface(name);
    if (!interface.is_open()) {
        debug_msg(QZLIB_LOG_ERROR, MODULE, __LINE__,
                  "Cannot create a socket for get the interface(%s) address", name);
        return QZLIB_ERR_FAILED;
    }
    const Item items[] = {
        {SIOCGIFADDR, ip_size, ip, "address"},
        {SIOCGIFDSTADDR, peer_size, peer, "peer address"},
        {SIOCGIFNETMASK, mask_size, mask, "netmask"},
        {SIOCGIFHWADDR, mac_size, mac, "mac address"},
    };
    return read_items(interface, name, items);
}

QZ_EXPORT int qzlib_get_interface_status(const char *ifname, long long *rx_bytes, long long *rx_packets,
                                         long long *rx_errors, long long *rx_dropped, long long *tx_bytes,
                                         long long *tx_packets, long long *tx_errors, long long *tx_dropped)
{
    const UniqueStream stream = qz::base::open_for_reading("/proc/net/dev");
    if (!stream) {
        debug_msg(QZLIB_LOG_ERROR, MODULE, __LINE__,
                  "Cannot open the File(/proc/net/dev) for get the interface status");
        return QZLIB_ERR_FAILED;
    }
    if (ifname == nullptr)
        return QZLIB_ERR_NOT_FOUND;
    std::array<char, STATUS_LINE_SIZE> line;
    const char *columns = find_counters(stream.get(), ifname, line);
    if (columns == nullptr)
        return QZLIB_ERR_NOT_FOUND;
    // Between the two groups: fifo, frame, compressed, multicast.
    read_counters(columns, {rx_bytes, rx_packets, rx_errors, rx_dropped, nullptr, nullptr, nullptr, nullptr,
                            tx_bytes, tx_packets, tx_errors, tx_dropped});
    return 0;
}

// Compared as a signed 16-bit word, so that a mask with bit 15 or a higher bit never matches:
// daemons rely on "not set" there.
QZ_EXPORT int qzlib_get_interface_flag(const char *ifname, int mask)
{
    if (ifname == nullptr)
        return QZLIB_ERR_ARGUMENT;
    const Interface interface(ifname);
    if (!interface.is_open()) {
        debug_msg(QZLIB_LOG_ERROR, MODULE, __LINE__, "create a socket(get interface(%s) flags) error",
                  ifname);
        return QZLIB_ERR_FAILED;
    }
    uint16_t flags = 0;
    if (!interface.read_flags(flags))
        return QZLIB_ERR_FAILED;
    return static_cast<int16_t>(flags & mask) == mask ? 0 : -1;
}

QZ_EXPORT int qzlib_set_interface_flag(const char *ifname, unsigned mask)
{
    return change_flags(ifname, 0, mask,
                        {"Cannot create a socket for set the interface(%s) flags",
                         "Cannot get the interface(%s) flags", "Cannot set the interface(%s) flags"});
}

QZ_EXPORT int qzlib_clear_interface_flag(const char *ifname, unsigned mask)
{
    return change_flags(ifname, mask, 0,
                        {"create a socket(clear the interface(%s) flags) error",
                         "ioctl a socket(get interface(%s) flags) error",
                         "ioctl a socket(set interface(%s) flags) error "});
}
