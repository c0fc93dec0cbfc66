/* SPDX-License-Identifier: MIT */
/*
 * bus_param: owns a parameter and tells the bus about it.
 *
 * Sends "NAME=VALUE" to every daemon on the bus (topic "param") whenever the value changes, and
 * answers "get NAME" with it. Lines "NAME=VALUE" on standard input change the parameter; the
 * program ends with its input, or with SIGTERM.
 */
#include "arguments.h"
#include "bus.h"

#include <qzlib.h>

#include <poll.h>
#include <pthread.h>
#include <signal.h>
#include <stdio.h>
#include <string.h>

#define MODULE "bus_param"

static const char USAGE[] =
    "Usage: bus_param [CLIENT-NAME]\n"
    "Own a parameter on the message bus; lines NAME=VALUE on standard input change it.\n"
    "Ends with its input or on SIGTERM.\n";

enum { TYPE_EVENT = 0, TYPE_REQUEST = 1, TYPE_ANSWER = 2 };

static char parameter[256] = "mtu=1500";
/* Guards the parameter and the up ring: both threads write packets, and none may write while
 * the process leaves the bus. */
static pthread_mutex_t lock = PTHREAD_MUTEX_INITIALIZER;

/* Runs on the down cache's delivery thread. The name may fill its field without terminator. */
static int on_packet(unsigned type, const char *name, const void *data, unsigned len)
{
    size_t key;

    printf("bus_param: got type %u, name %.64s, \"%.*s\"\n", type, name, (int)len, (const char *)data);
    fflush(stdout);
    pthread_mutex_lock(&lock);
    key = strcspn(parameter, "=");
    if (type == TYPE_REQUEST && len == key + 4 && memcmp(data, "get ", 4) == 0 &&
        memcmp((const char *)data + 4, parameter, key) == 0)
        qzlib_mbus_write(NULL, TYPE_ANSWER, "param", parameter, (int)strlen(parameter));
    pthread_mutex_unlock(&lock);
    return 0;
}

static void change_parameter(const char *line)
{
    int sent;

    pthread_mutex_lock(&lock);
    snprintf(parameter, sizeof parameter, "%s", line);
    sent = qzlib_mbus_write(NULL, TYPE_EVENT, "param", parameter, (int)strlen(parameter));
    pthread_mutex_unlock(&lock);
    if (sent <= 0)
        debug_msg(QZLIB_LOG_ERROR, MODULE, __LINE__, "the bus did not take %s", line);
    printf("bus_param: changed to %s\n", line);
    fflush(stdout);
}

static const char *name_argument(int argc, char **argv)
{
    const int at = take_operands(MODULE, USAGE, argc, argv, 1);
    const char *name = at < argc ? argv[at] : MODULE;

    if (*name == '\0' || strlen(name) > QZLIB_MBUS_NAME_SIZE)
        wrong_usage(MODULE, name, "a client's name has 1 to 32 characters");
    return name;
}

static volatile sig_atomic_t stop;

static void on_stop(int sig)
{
    (void)sig;
    stop = 1;
}

int main(int argc, char **argv)
{
    const char *name = name_argument(argc, argv);
    struct pollfd input = {STDIN_FILENO, POLLIN, 0};
    struct sigaction action;
    char line[256];

    openmsg(name);
    memset(&action, 0, sizeof action);
    action.sa_handler = on_stop; /* without SA_RESTART: it ends the read below */
    sigaction(SIGTERM, &action, NULL);
    if (qzlib_connect_mbus_server(name) != 0) {
        fprintf(stderr, "bus_param: cannot join the bus as %s: no server, or it refused the name\n", name);
        return 1;
    }
    if (qzlib_mbus_down_cache_process(64 * 1024, on_packet) != 0)
        return 1;
    printf("bus_param: connected as %s\n", name);
    fflush(stdout);
    setvbuf(stdin, NULL, _IONBF, 0); /* nothing waits where poll() does not see it */
    while (!stop) {
        pthread_mutex_lock(&lock);
        (void)on_bus(name); /* again, if the server was replaced */
        pthread_mutex_unlock(&lock);
        if (poll(&input, 1, 1000) <= 0)
            continue;
        if (fgets(line, sizeof line, stdin) == NULL)
            break;
        line[strcspn(line, "\n")] = '\0';
        if (strchr(line, '=') != NULL)
            change_parameter(line);
    }
    pthread_mutex_lock(&lock);
    qzlib_disconnect_mbus_server();
    pthread_mutex_unlock(&lock);
    printf("bus_param: done\n");
    closemsg();
    return 0;
}
