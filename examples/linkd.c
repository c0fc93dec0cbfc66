/* SPDX-License-Identifier: MIT */
/*
 * linkd: keeps the router's default route on the best link that works.
 *
 * Each round it looks at its links in the order of preference: flags, address, counters, and
 * the time that the gateway takes for a TCP connection. A link that works gets a default
 * route at a distance of its own, and one that failed twice in a row loses it. The routing
 * daemon does not answer, so the tables are looked at until the route is where it should be.
 *
 * It ends on SIGTERM or SIGINT.
 */
#include "arguments.h"

#include <qzlib.h>

#include <arpa/inet.h>
#include <net/if.h>
#include <stdio.h>
#include <string.h>
#include <sys/socket.h>
#include <unistd.h>

#define MODULE "linkd"
#define LOG_FILE "/tmp/linkd.log"
#define LOG_CAP_BYTES (64 * 1024)

enum {
    LINKS = 2,
    FAILURES_MAX = 2,
    PROBE_LIMIT_MS = 500,
    MOVE_LIMIT_MS = 3000,
    /* The routing daemon's numbers. */
    ROUTE_ADD = 7,
    ROUTE_DELETE = 8,
    ROUTE_STATIC = 4
};

static const char USAGE[] =
    "Usage: linkd [-p PORT] [-i INTERVAL_MS] [-n NAME] LINK=GATEWAY LINK=GATEWAY\n"
    "       linkd -a PORT\n"
    "Keep the default route on the first of two links whose gateway answers.\n"
    "\n"
    "  -p, --port PORT             TCP port of the gateways that is tried (default 7)\n"
    "  -i, --interval INTERVAL_MS  pause between two looks (default 500)\n"
    "  -n, --name NAME             host name that is looked up at the start (default localhost)\n"
    "  -a, --answer PORT           be the far end: take connections on PORT and close them\n"
    "  -h, --help                  print this text\n";

static const struct option OPTIONS[] = {
    {"answer", required_argument, NULL, 'a'}, {"interval", required_argument, NULL, 'i'},
    {"name", required_argument, NULL, 'n'},   {"port", required_argument, NULL, 'p'},
    {"help", no_argument, NULL, 'h'},         {NULL, 0, NULL, 0}};

/* Any address that only the default route leads to. */
static const char OUTSIDE[] = "192.0.2.1";

struct link {
    char name[IFNAMSIZ];
    char gateway[16];
    unsigned char distance;
    int failures;
    int has_route;
};

static volatile sig_atomic_t stopping;

static void stop(int sig)
{
    (void)sig;
    stopping = 1;
}

/* Flags, address, counters and latency; 0 when the link works. */
static int look_at(const struct link *link, const char *port)
{
    char ip[17] = "-";
    char noted[16] = "-";
    long long rx = 0, tx = 0, rest;
    int latency = -1;
    int running = qzlib_get_interface_flag(link->name, IFF_UP | IFF_RUNNING) == 0;

    if (qzlib_get_interface_info(link->name, ip, sizeof ip, NULL, 0, NULL, 0) == 0)
        srt_iip_save(link->name, ip); /* for the daemons that set up source routing */
    srt_iip_get(link->name, noted);
    qzlib_get_interface_status(link->name, &rx, &rest, &rest, &rest, &tx, &rest, &rest, &rest);
    if (running)
        latency = qzlib_get_tcp_latency(link->gateway, port, PROBE_LIMIT_MS);
    printf("linkd: %s %s, address %s (noted %s), %lld bytes in, %lld out, ", link->name,
           running ? "running" : "down", ip, noted, rx, tx);
    if (latency >= 0)
        printf("%s answers after %d\n", link->gateway, latency);
    else
        printf("%s does not answer\n", link->gateway);
    fflush(stdout); /* the next probe's child would print it again */
    return latency >= 0 ? 0 : -1;
}

static void request(struct link *link, int command)
{
    const char *verb = command == ROUTE_ADD ? "add" : "delete";
    int result = qzlib_do_route((unsigned)command, ROUTE_STATIC, "0.0.0.0/0", link->gateway, link->distance);
    printf("linkd: asked to %s the default route by %s: %s\n", verb, link->name,
           result == 0 ? "sent" : "the routing daemon is not there");
    debug_msg(QZLIB_LOG_INFO, MODULE, __LINE__, "%s default by %s: %d", verb, link->name, result);
    if (result == 0)
        link->has_route = command == ROUTE_ADD;
}

static void print_source_routes(void)
{
    srtinfo *list = qz_srtinfo_stat();
    const srtinfo *at;
    for (at = list; at != NULL; at = at->next)
        printf("linkd: rule %d, from %s: table %s, %s mask %s by %s on %s\n", (int)at->prio, at->source,
               at->table, at->dest, at->dest_mask, at->gateway, at->dev);
    qz_srtinfo_free(&list);
}

/* Waits until the kernel's table says what was asked for. */
static void wait_for_route(const char *wanted)
{
    char device[32];
    int waited_ms;
    for (waited_ms = 0; waited_ms < MOVE_LIMIT_MS; waited_ms += 50) {
        strcpy(device, "nothing");
        qzlib_get_route_interface(OUTSIDE, device);
        if (strcmp(device, wanted) == 0)
            break;
        usleep(50 * 1000);
    }
    printf("linkd: the default route is on %s%s\n", device,
           strcmp(device, wanted) == 0 ? "" : ", which is not what was asked for");
    print_source_routes();
}

/* One look at all links; routes are asked for where something changed. */
static void supervise(struct link *links, const char *port)
{
    const char *best = "nothing";
    int changed = 0;
    int i;
    for (i = 0; i < LINKS; i++) {
        struct link *link = &links[i];
        link->failures = look_at(link, port) == 0 ? 0 : link->failures + 1;
        if (link->failures == 0 && !link->has_route) {
            request(link, ROUTE_ADD);
            changed = 1;
        }
        if (link->failures == FAILURES_MAX && link->has_route) {
            request(link, ROUTE_DELETE);
            changed = 1;
        }
    }
    for (i = LINKS - 1; i >= 0; i--)
        if (links[i].has_route)
            best = links[i].name;
    if (changed)
        wait_for_route(best);
}

/* The far end of a link, for trying linkd out. */
static int answer(int port)
{
    struct sockaddr_in address;
    int on = 1;
    int fd = socket(AF_INET, SOCK_STREAM, 0);
    memset(&address, 0, sizeof address);
    address.sin_family = AF_INET;
    address.sin_port = htons((uint16_t)port);
    setsockopt(fd, SOL_SOCKET, SO_REUSEADDR, &on, sizeof on);
    if (bind(fd, (struct sockaddr *)&address, sizeof address) != 0 || listen(fd, 16) != 0) {
        fprintf(stderr, "linkd: port %d: %s\n", port, strerror(errno));
        return 1;
    }
    for (;;) {
        int client = accept(fd, NULL, NULL);
        if (client >= 0)
            close(client);
    }
}

/* "LINK=GATEWAY". */
static void parse_link(const char *text, struct link *link, unsigned char distance)
{
    struct in_addr address;
    int length = 0;

    memset(link, 0, sizeof *link);
    link->distance = distance;
    if (sscanf(text, "%15[^=/]=%15s%n", link->name, link->gateway, &length) != 2 || text[length] != '\0')
        wrong_usage(MODULE, text, "not LINK=GATEWAY");
    if (inet_pton(AF_INET, link->gateway, &address) != 1)
        wrong_usage(MODULE, text, "the gateway is not an IPv4 address");
}

int main(int argc, char **argv)
{
    struct link links[LINKS];
    struct sigaction action;
    const char *port = "7";
    const char *name = "localhost";
    char name_ip[16];
    int interval_ms = 500;
    int answer_port = 0;
    int option, i;

    begin_arguments(MODULE, argv);
    while ((option = getopt_long(argc, argv, "a:hi:n:p:", OPTIONS, NULL)) != -1) {
        switch (option) {
        case 'a':
            answer_port = number_argument(MODULE, optarg, 1, 65535);
            break;
        case 'h':
            print_usage(MODULE, USAGE);
            break;
        case 'i':
            interval_ms = number_argument(MODULE, optarg, 1, 60000);
            break;
        case 'n':
            name = optarg;
            break;
        case 'p':
            number_argument(MODULE, optarg, 1, 65535);
            port = optarg;
            break;
        default:
            return 2; /* getopt_long has said why */
        }
    }
    if (argc - optind > (answer_port == 0 ? LINKS : 0))
        wrong_usage(MODULE, argv[argc - 1], "one argument too many");
    if (answer_port != 0)
        return answer(answer_port);
    if (argc - optind < LINKS)
        wrong_usage(MODULE, "a link is missing", "two of them are supervised");
    for (i = 0; i < LINKS; i++)
        parse_link(argv[optind + i], &links[i], (unsigned char)(i + 1));

    memset(&action, 0, sizeof action);
    action.sa_handler = stop; /* without SA_RESTART: sleeps end */
    sigaction(SIGTERM, &action, NULL);
    sigaction(SIGINT, &action, NULL);

    setvbuf(stdout, NULL, _IOLBF, 0);
    openmsg_com(LOG_FILE, LOG_CAP_BYTES, "linkd", 0);
    printf("linkd: up for %u s, %d of %d kB of memory available (%d %%), processors %d %% busy\n",
           qzlib_get_system_uptime(), qzlib_get_free_mem_size(), qzlib_get_total_mem_size(),
           qzlib_get_mem_use_percent(), qzlib_get_cpu_use_percent());
    if (qzlib_get_domain_ip(name, name_ip) == 0)
        printf("linkd: %s is %s\n", name, name_ip);
    else
        printf("linkd: %s does not resolve\n", name);

    while (!stopping) {
        supervise(links, port);
        if (!stopping)
            usleep((useconds_t)interval_ms * 1000);
    }
    for (i = 0; i < LINKS; i++)
        if (links[i].has_route)
            request(&links[i], ROUTE_DELETE);
    printf("linkd: ended\n");
    return 0;
}
