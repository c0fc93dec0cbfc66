// SPDX-License-Identifier: MIT
// route, if, probe: the network.
#include "print.h"

#include <arpa/inet.h>
#include <cerrno>
#include <csignal>
#include <cstring>
#include <net/if.h>
#include <utility>

namespace qzctl
{
namespace
{

// The routing daemon's numbers.
constexpr unsigned ROUTE_ADD = 7;
constexpr unsigned ROUTE_DELETE = 8;
constexpr unsigned ROUTE_STATIC = 4;

constexpr unsigned PROBE_LIMIT_S = 5;
constexpr size_t HOST_MAX = 253;

const char *check_address(const char *what, const char *text)
{
    in_addr address;
    if (inet_pton(AF_INET, text, &address) != 1)
        refuse("%s %.40s: not an IPv4 address", what, text);
    return text;
}

// The library takes more than that, and ends the process on a length of 0.
const char *check_prefix(const char *text)
{
    char address[INET_ADDRSTRLEN] = "";
    const char *slash = strchr(text, '/');
    if (slash == nullptr || slash - text >= INET_ADDRSTRLEN)
        refuse("the prefix %.40s: it is ADDRESS/LENGTH", text);
    memcpy(address, text, static_cast<size_t>(slash - text));
    check_address("the prefix", address);
    if (check_number("the prefix length", slash + 1, 0, 32) == 0 && strcmp(text, "0.0.0.0/0") != 0)
        refuse("the prefix %s: the default route is 0.0.0.0/0", text);
    return text;
}

const char *check_next_hop(const char *text)
{
    check_length("the next hop", text, IF_NAMESIZE - 1);
    return *text >= '0' && *text <= '9' ? check_address("the next hop", text)
                                        : check_file_name("the next hop", text, IF_NAMESIZE - 1);
}

int request(const Arguments &arguments, unsigned command)
{
    const char *prefix = check_prefix(arguments.word(0));
    const char *next_hop = check_next_hop(arguments.word(1));
    const auto distance = static_cast<unsigned char>(arguments.number(DISTANCE, 1, 1, 255));
    if (qzlib_do_route(command, ROUTE_STATIC, prefix, next_hop, distance) != 0)
        return say(NO, "the routing daemon is not there: nobody serves /tmp/.zserv");
    return DONE;
}

} // namespace

int route_list(const Arguments &arguments)
{
    const Json list = new_list();
    srtinfo *routes = qz_srtinfo_stat();
    for (const srtinfo *route = routes; route != nullptr; route = route->next) {
        Json record = new_record();
        put_number(record, "priority", route->prio);
        put(record, "source", route->source);
        put(record, "table", route->table);
        put(record, "destination", route->dest);
        put(record, "gateway", route->gateway);
        put(record, "device", route->dev);
        append(list, std::move(record));
    }
    qz_srtinfo_free(&routes);
    return print_list(arguments, list);
}

int route_via(const Arguments &arguments)
{
    const char *address = check_address("the address", arguments.word(0));
    char device[33] = "";
    if (qzlib_get_route_interface(address, device) != 0)
        return say(NO, "no route to %s in the main table", address);
    (void)puts(device);
    return DONE;
}

int route_add(const Arguments &arguments)
{
    return request(arguments, ROUTE_ADD);
}

int route_del(const Arguments &arguments)
{
    return request(arguments, ROUTE_DELETE);
}

// ---- if
namespace
{

constexpr size_t ADDRESS_SIZE = 18;

void put_read(const Json &record, const char *key, const char *text)
{
    put(record, key, *text == '\0' ? nullptr : text);
}

// The first line of the counters that holds the text counts, so that it has what stands around a name
// there: blanks before a short one, a colon after it.
void put_counters(const Json &record, const char *name, bool all)
{
    char text[IF_NAMESIZE + 2];
    (void)snprintf(text, sizeof text, "%s%s:", strlen(name) < 6 ? " " : "", name);
    long long received[4] = {};
    long long sent[4] = {};
    const bool is_read =
        qzlib_get_interface_status(text, &received[0], &received[1], &received[2], &received[3], &sent[0],
                                   &sent[1], &sent[2], &sent[3]) == 0;
    static const char *const KEYS[2][4] = {{"rx_bytes", "rx_packets", "rx_errors", "rx_dropped"},
                                           {"tx_bytes", "tx_packets", "tx_errors", "tx_dropped"}};
    for (unsigned direction = 0; direction < 2 && is_read; ++direction)
        for (unsigned i = 0; i < (all ? 4U : 1U); ++i)
            put_number(record, KEYS[direction][i],
                       static_cast<double>(direction == 0 ? received[i] : sent[i]));
}

Json describe(const char *name, bool all)
{
    char address[ADDRESS_SIZE] = "";
    char peer[ADDRESS_SIZE] = "";
    char mask[ADDRESS_SIZE] = "";
    char mac[ADDRESS_SIZE] = "";
    const bool is_point_to_point = qzlib_get_interface_flag(name, IFF_POINTOPOINT) == 0;
    (void)qzlib_get_interface_info(name, address, sizeof address, mask, sizeof mask, mac, sizeof mac);
    if (is_point_to_point)
        (void)qzlib_get_pppinterface_info(name, nullptr, 0, peer, sizeof peer, nullptr, 0, nullptr, 0);
    Json record = new_record();
    put(record, "name", name);
    put_flag(record, "up", qzlib_get_interface_flag(name, IFF_UP) == 0);
    put_flag(record, "running", qzlib_get_interface_flag(name, IFF_RUNNING) == 0);
    put_read(record, "address", address);
    put_read(record, "netmask", mask);
    if (all)
        put_read(record, "peer", peer);
    put_read(record, "mac", mac);
    put_counters(record, name, all);
    return record;
}

} // namespace

int interfaces(const Arguments &arguments)
{
    const char *wanted = arguments.word(0);
    if (wanted != nullptr) {
        check_file_name("the interface", wanted, IF_NAMESIZE - 1);
        if (if_nametoindex(wanted) == 0)
            return say_errno(wanted);
        return print_record(arguments, describe(wanted, true));
    }
    const Owned<struct if_nameindex, if_freenameindex> names(if_nameindex());
    if (!names)
        return say_errno("the interfaces");
    const Json list = new_list();
    for (const struct if_nameindex *name = names.get(); name->if_index != 0; ++name)
        append(list, describe(name->if_name, false));
    return print_list(arguments, list);
}

// ---- probe
namespace
{

// The library's scale has 1 for 10 ms within a second and 1000 for a second.
int to_milliseconds(int scale)
{
    const int seconds = (scale + 500) / 1000;
    return seconds * 1000 + (scale - seconds * 1000) * 10;
}

const char *host_at_limit = nullptr;

void say_at_limit(int /*signal*/)
{
    const char *const parts[] = {"qzctl: ", host_at_limit, ": no answer in time\n"};
    for (const char *part : parts)
        (void)!write(2, part, strlen(part));
    _exit(NOT_IN_TIME);
}

} // namespace

int probe_tcp(const Arguments &arguments)
{
    const char *host = check_length("the host", arguments.word(0), HOST_MAX);
    (void)check_number("the port", arguments.word(1), 1, 65535);
    const unsigned limit_s = arguments.number(TIMEOUT, PROBE_LIMIT_S, 1, 3600);
    const unsigned long long begin = qzlib_get_system_uptime_ms();
    const int result = qzlib_get_tcp_latency(host, arguments.word(1), static_cast<int>(limit_s) * 1000);
    if (result >= 0) {
        (void)printf("%d ms\n", to_milliseconds(result));
        return DONE;
    }
    if (result == QZLIB_ERR_FAILED)
        return say(NO, "%s: the name is not resolved", host);
    if (to_milliseconds(static_cast<int>(qzlib_get_system_uptime_ms() - begin)) >=
        static_cast<int>(limit_s) * 1000 - 20)
        return say(NOT_IN_TIME, "%s port %s: no answer in %u s", host, arguments.word(1), limit_s);
    return say(NO, "%s port %s: it takes no connection", host, arguments.word(1));
}

int probe_dns(const Arguments &arguments)
{
    host_at_limit = check_length("the name", arguments.word(0), HOST_MAX);
    const unsigned limit_s = arguments.number(TIMEOUT, PROBE_LIMIT_S, 1, 3600);
    (void)qzlib_sys_signal(SIGALRM, say_at_limit);
    (void)alarm(limit_s);
    char address[17] = "";
    if (qzlib_get_domain_ip(host_at_limit, address) != 0)
        return say(NO, "%s: the name is not resolved", host_at_limit);
    (void)alarm(0);
    (void)puts(address);
    return DONE;
}

} // namespace qzctl
