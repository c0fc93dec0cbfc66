/* SPDX-License-Identifier: MIT */
/*
 * bus_watch: prints what comes over the bus and asks for what it wants to know.
 *
 * Prints every packet, asks the daemon named on the command line for its parameter at start,
 * and confirms every change of it with "seen NAME=VALUE", addressed to that daemon. It ends
 * with SIGTERM.
 */
#include "arguments.h"
#include "bus.h"

#include <qzlib.h>

#include <pthread.h>
#include <signal.h>
#include <stdio.h>
#include <string.h>

#define MODULE "bus_watch"

static const char USAGE[] =
    "Usage: bus_watch [CLIENT-NAME [PEER [PARAMETER]]]\n"
    "Print what comes over the message bus; ask PEER (default: bus_param) for PARAMETER\n"
    "(default: mtu) and confirm its changes. Ends on SIGTERM or SIGINT.\n";

enum { TYPE_EVENT = 0, TYPE_REQUEST = 1, TYPE_ANSWER = 2, TYPE_CONFIRM = 3 };

static const char *peer = "bus_param";
/* One thread at a time writes, and none while the process leaves the bus. */
static pthread_mutex_t lock = PTHREAD_MUTEX_INITIALIZER;

static void send_text(int type, const char *text)
{
    pthread_mutex_lock(&lock);
    qzlib_mbus_write(NULL, type, peer, text, (int)strlen(text));
    pthread_mutex_unlock(&lock);
}

/* Runs on the down cache's delivery thread. */
static int on_packet(unsigned type, const char *name, const void *data, unsigned len)
{
    char text[256];
    int used;

    printf("bus_watch: got type %u, name %.64s, \"%.*s\"\n", type, name, (int)len, (const char *)data);
    fflush(stdout);
    if (type == TYPE_EVENT && strncmp(name, "param", QZLIB_MBUS_PKG_NAME_SIZE) == 0) {
        used = snprintf(text, sizeof text, "seen %.*s", (int)len, (const char *)data);
        if (used > 0 && (size_t)used < sizeof text)
            send_text(TYPE_CONFIRM, text);
    }
    return 0;
}

/* The argument at that place, or what it is without one. */
static const char *text_argument(int argc, char **argv, int at, const char *otherwise, size_t size)
{
    const char *text = at < argc ? argv[at] : otherwise;

    if (*text == '\0' || strlen(text) > size)
        wrong_usage(MODULE, text, "no name, or a longer one than the bus takes");
    return text;
}

int main(int argc, char **argv)
{
    const int at = take_operands(MODULE, USAGE, argc, argv, 3);
    const char *name = text_argument(argc, argv, at, MODULE, QZLIB_MBUS_NAME_SIZE);
    char request[sizeof "get " + QZLIB_MBUS_PKG_NAME_SIZE];
    const struct timespec look_every = {1, 0};
    sigset_t stop;

    peer = text_argument(argc, argv, at + 1, peer, QZLIB_MBUS_NAME_SIZE);
    snprintf(request, sizeof request, "get %s",
             text_argument(argc, argv, at + 2, "mtu", QZLIB_MBUS_PKG_NAME_SIZE));
    sigemptyset(&stop);
    sigaddset(&stop, SIGTERM);
    sigaddset(&stop, SIGINT);
    sigprocmask(SIG_BLOCK, &stop, NULL); /* waited for below */

    openmsg(name);
    if (qzlib_connect_mbus_server(name) != 0) {
        fprintf(stderr, "bus_watch: cannot join the bus as %s: no server, or it refused the name\n", name);
        return 1;
    }
    printf("bus_watch: connected as %s\n", name);
    fflush(stdout);
    if (qzlib_mbus_down_cache_process(0, on_packet) != 0)
        return 1;
    send_text(TYPE_REQUEST, request);
    while (sigtimedwait(&stop, NULL, &look_every) < 0) {
        pthread_mutex_lock(&lock);
        (void)on_bus(name); /* again, if the server was replaced */
        pthread_mutex_unlock(&lock);
    }
    pthread_mutex_lock(&lock);
    qzlib_disconnect_mbus_server();
    pthread_mutex_unlock(&lock);
    printf("bus_watch: done\n");
    closemsg();
    return 0;
}
