/*
 * bus_watch: prints what comes over the bus and asks for what it wants to know.
 *
 * Prints every packet, asks the daemon named on the command line for its parameter at start,
 * and confirms every change of it with "seen NAME=VALUE", addressed to that daemon. It ends
 * with SIGTERM.
 *
 * Usage: bus_watch [CLIENT-NAME [PEER [PARAMETER]]]
 */
#include <qzlib.h>

#include <pthread.h>
#include <signal.h>
#include <stdio.h>
#include <string.h>

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

int main(int argc, char **argv)
{
    const char *name = argc > 1 ? argv[1] : "bus_watch";
    char request[64];
    sigset_t stop;
    int sig;

    if (argc > 2)
        peer = argv[2];
    snprintf(request, sizeof request, "get %s", argc > 3 ? argv[3] : "mtu");
    sigemptyset(&stop);
    sigaddset(&stop, SIGTERM);
    sigaddset(&stop, SIGINT);
    sigprocmask(SIG_BLOCK, &stop, NULL); /* waited for below */

    openmsg(name);
    if (qzlib_connect_mbus_server(name) != 0) {
        fprintf(stderr, "bus_watch: no bus\n");
        return 1;
    }
    printf("bus_watch: connected as %s\n", name);
    fflush(stdout);
    if (qzlib_mbus_down_cache_process(0, on_packet) != 0)
        return 1;
    send_text(TYPE_REQUEST, request);
    sigwait(&stop, &sig);
    pthread_mutex_lock(&lock);
    qzlib_disconnect_mbus_server();
    pthread_mutex_unlock(&lock);
    printf("bus_watch: done\n");
    closemsg();
    return 0;
}
