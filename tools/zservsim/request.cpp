// SPDX-License-Identifier: MIT
#include "request.h"

#include <algorithm>
#include <arpa/inet.h>
#include <cctype>
#include <net/if.h>

namespace zservsim
{

namespace
{

// Next hop, distance and metric follow the prefix.
constexpr unsigned MESSAGE_FLAGS = 0x01 | 0x04 | 0x08;
constexpr unsigned NEXT_HOP_INTERFACE = 2;
constexpr unsigned NEXT_HOP_ADDRESS = 3;

// Takes fields off the front. The first thing that is wrong stays the error; what is read
// after the end is zero.
class Reader
{
public:
    explicit Reader(std::span<const uint8_t> bytes) : bytes_(bytes) {}

    unsigned number(size_t width)
    {
        unsigned value = 0;
        for (const uint8_t byte : take(width))
            value = value << 8 | byte;
        return value;
    }
    unsigned expect(const char *field, unsigned expected, size_t width = 1)
    {
        const unsigned value = number(width);
        require(value == expected,
                std::string(field) + " is " + std::to_string(value) + ", not " + std::to_string(expected));
        return value;
    }
    std::span<const uint8_t> take(size_t count)
    {
        require(count <= bytes_.size(), "it is too short");
        const auto taken = bytes_.first(std::min(count, bytes_.size()));
        bytes_ = bytes_.subspan(taken.size());
        return taken;
    }
    void require(bool condition, const std::string &error)
    {
        if (!condition && error_.empty())
            error_ = error;
    }
    std::string finish()
    {
        require(bytes_.empty(), std::to_string(bytes_.size()) + " bytes are left over");
        return error_;
    }

private:
    std::span<const uint8_t> bytes_;
    std::string error_;
};

std::string address_text(std::span<const uint8_t> bytes)
{
    char text[INET_ADDRSTRLEN] = "";
    std::array<uint8_t, 4> address{};
    std::ranges::copy(bytes.first(std::min(bytes.size(), address.size())), address.begin());
    inet_ntop(AF_INET, address.data(), text, sizeof text);
    return text;
}

void decode_prefix(Reader &reader, Request &request)
{
    request.prefix_length = reader.number(1);
    reader.require(request.prefix_length <= 32, "prefix length is " + std::to_string(request.prefix_length));
    const auto bytes = reader.take(std::min((request.prefix_length + 7) / 8, 4U));
    std::ranges::copy(bytes, request.prefix.begin());
}

void decode_next_hop(Reader &reader, Request &request)
{
    reader.expect("next-hop count", 1);
    const unsigned kind = reader.number(1);
    reader.require(kind == NEXT_HOP_ADDRESS || kind == NEXT_HOP_INTERFACE,
                   "next-hop kind is " + std::to_string(kind));
    request.next_hop_is_interface = kind == NEXT_HOP_INTERFACE;
    if (!request.next_hop_is_interface) {
        request.next_hop = address_text(reader.take(4));
        return;
    }
    const auto name = reader.take(reader.number(1));
    request.next_hop.assign(name.begin(), name.end());
    reader.require(!name.empty() && name.size() < IFNAMSIZ,
                   "an interface name of " + std::to_string(name.size()) + " characters");
    reader.require(std::ranges::all_of(name, [](uint8_t c) { return isgraph(c) && c != '/'; }),
                   "characters that no interface name has");
}

} // namespace

size_t stated_length(std::span<const uint8_t> bytes)
{
    return bytes.size() < 2 ? 0 : static_cast<size_t>(bytes[0] << 8 | bytes[1]);
}

std::string decode(std::span<const uint8_t> message, Request &request)
{
    Reader reader(message);
    reader.expect("length", static_cast<unsigned>(message.size()), 2);
    request.command = reader.number(1);
    reader.require(request.command != 0, "command is 0");
    request.type = reader.number(1);
    reader.expect("flags", 0);
    reader.expect("message flags", MESSAGE_FLAGS);
    decode_prefix(reader, request);
    decode_next_hop(reader, request);
    request.distance = reader.number(1);
    reader.expect("metric", 0, 4);
    return reader.finish();
}

std::string prefix_text(const Request &request)
{
    return address_text(request.prefix) + "/" + std::to_string(request.prefix_length);
}

std::string network_text(const Request &request)
{
    Request network = request;
    for (unsigned bit = request.prefix_length; bit < 32; ++bit)
        network.prefix[bit / 8] &= static_cast<uint8_t>(~(0x80U >> bit % 8));
    return prefix_text(network);
}

} // namespace zservsim
