// SPDX-License-Identifier: MIT
#include "base/export.h"
#include "base/text.h"

#include <algorithm>
#include <arpa/inet.h>
#include <array>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <qzlib.h>

namespace
{

constexpr size_t IP_TEXT_SIZE = 16;
constexpr int ADDRESS_BYTES = 4;
constexpr int ADDRESS_BITS = 32;

// Masks of a partly covered byte, by its count of leading one bits.
constexpr std::array<uint8_t, 9> mask_byte_table = {0x00, 0x80, 0xC0, 0xE0, 0xF0, 0xF8, 0xFC, 0xFE, 0xFF};

using Address = std::array<uint8_t, ADDRESS_BYTES>; // network byte order

struct ParsedPrefix {
    int32_t length; // as written, not checked
    Address address;
};
static_assert(sizeof(ParsedPrefix) == 8);

// The length is stored even when the address cannot be converted; the address then stays.
int cidr_parse(const char *text, ParsedPrefix &out)
{
    if (text == nullptr)
        return -1;
    const char *slash = strchr(text, '/');
    out.length = slash == nullptr ? ADDRESS_BITS : qz::base::read_number(slash + 1);
    const size_t address_length = slash == nullptr ? strlen(text) : static_cast<size_t>(slash - text);
    std::array<char, IP_TEXT_SIZE + 1> address_text;
    qz::base::copy_text(address_text, {text, address_length});
    Address address;
    if (inet_pton(AF_INET, address_text.data(), address.data()) < 1)
        return -1;
    out.address = address;
    return 0;
}

void write_address(char *out, const Address &address)
{
    (void)inet_ntop(AF_INET, address.data(), out, IP_TEXT_SIZE); // an IPv4 address always fits
}

// Clears the bits after the length. Where there are none, and with a negative length, the address stays
// as it is.
void keep_network(Address &address, int length)
{
    if (length < 0 || length >= ADDRESS_BITS)
        return;
    const auto partial = static_cast<size_t>(length / 8);
    address[partial] &= mask_byte_table[static_cast<size_t>(length % 8)];
    std::fill(address.begin() + partial + 1, address.end(), uint8_t{0});
}

void write_mask(char *out, int length)
{
    if (length < 0 || length > ADDRESS_BITS) {
        *out = '\0';
        return;
    }
    Address mask = {0xFF, 0xFF, 0xFF, 0xFF};
    keep_network(mask, length);
    write_address(out, mask);
}

} // namespace

// Only the leading run of ones counts: masks with holes are accepted, deliberately.
QZ_EXPORT int string2masklen(const char *mask)
{
    Address bytes;
    if (mask == nullptr || inet_pton(AF_INET, mask, bytes.data()) < 1)
        return -1;
    int length = 0;
    for (const uint8_t byte : bytes) {
        if (byte != 0xFF)
            return length + __builtin_clz(~(static_cast<unsigned>(byte) << 24));
        length += 8;
    }
    return length;
}

// A text that cannot be parsed is no failure here: daemons take 0.0.0.0 for it.
QZ_EXPORT int qz_ccid2obsolete(const char *cidr, char *ip, char *mask, char *net)
{
    if (cidr == nullptr)
        return -1;
    ParsedPrefix prefix{};
    (void)cidr_parse(cidr, prefix);
    if (ip != nullptr)
        write_address(ip, prefix.address);
    if (mask != nullptr) {
        write_mask(mask, prefix.length);
        // Deliberate, and daemons are built on it: asking for the mask of a host prefix resets the
        // length, so that the network of a /32 is 0.0.0.0 beside its mask and the address without.
        if (prefix.length == ADDRESS_BITS)
            prefix.length = 0;
    }
    if (net != nullptr) {
        keep_network(prefix.address, prefix.length);
        write_address(net, prefix.address);
    }
    return 0;
}

QZ_EXPORT int qz_obsolete2ccid(char *out, const char *ip, const char *mask)
{
    if (out == nullptr || ip == nullptr || mask == nullptr)
        return -1;
    (void)snprintf(out, strlen(ip) + sizeof "/32", "%s/%d", ip, string2masklen(mask)); // "/-1" at worst
    return 0;
}

QZ_EXPORT int srt_ipinnet_judge(const char *ip, const char *mask, const char *probe)
{
    if (!qzlib_ip_is_valid(ip) || !qzlib_ip_is_valid(mask) || !qzlib_ip_is_valid(probe))
        return -1;
    const int length = string2masklen(mask);
    ParsedPrefix network;
    ParsedPrefix host;
    if (length < 0 || cidr_parse(ip, network) != 0 || cidr_parse(probe, host) != 0)
        return -1;
    keep_network(network.address, length);
    keep_network(host.address, length);
    return network.address == host.address ? 0 : -1;
}
