/* SPDX-License-Identifier: MIT */
/*
 * netd: the first half of a daemon's life on qzlib.
 *
 * Logs to a file of its own, loads and changes its parameters, reads a block of the CLI
 * configuration, runs commands, guards against running twice, and has two threads that wait
 * on event flags. It ends on SIGTERM or SIGINT.
 */
#include "arguments.h"

#include <qzlib.h>

#include <stdio.h>
#include <string.h>
#include <unistd.h>

#define MODULE "netd"
#define LOG_FILE "/tmp/netd.log"
#define LOG_CAP_BYTES (64 * 1024)

static const char USAGE[] =
    "Usage: netd [SERVICE]\n"
    "Live on the library: parameters in /tmp/config/SERVICE.conf (default: netd), log in\n" LOG_FILE
    ". Ends on SIGTERM or SIGINT.\n";

enum { SERVICE_NAME_MAX = 200 }; /* the store opens none with more characters */

enum { EV_LINK = 1 << 0, EV_STOP = 1 << 1 };

static qzlib_event *events;

/* Parameters: read, change, add, delete, save. */
static int load_and_change_parameters(const char *service)
{
    char path[256];
    char apn[256 + 1] = "";
    char mtu[256 + 1] = "(none)";
    service_info *info = qzlib_service_info_init(service);
    if (info == NULL)
        return -1;

    qzlib_service_get_param(info, "wan", "apn", apn);
    qzlib_service_get_param(info, "wan", "mtu", mtu);
    printf("netd: %d entries; wan apn=%s mtu=%s\n", qzlib_service_get_param_num(info), apn, mtu);

    qzlib_service_set_param(info, "wan", "mtu", "1428");
    qzlib_service_set_param_repeat(info, "wan", "dns", "10.64.0.53");
    qzlib_service_set_param(info, NULL, "started-by", "netd");
    if (qzlib_service_del_param(info, "wan", "obsolete", NULL) == 0)
        debug_msg(QZLIB_LOG_INFO, MODULE, __LINE__, "dropped the obsolete parameter");

    snprintf(path, sizeof path, "/tmp/config/%s.conf", service);
    if (qzlib_service_saveto_file(info, path) == 0)
        printf("netd: mtu changed, a DNS server added, %s saved\n", path);
    else
        debug_msg(QZLIB_LOG_ERROR, MODULE, __LINE__, "cannot save %s", path);
    qzlib_service_info_uninit(info);
    return 0;
}

/*
 * One block of the CLI configuration. The table is a run of entries: the address of a key,
 * then room for its value, each entry at a 4-byte boundary.
 */
static void read_interface_block(void)
{
    static const char *const keys[] = {"interface", "ip address", "description"};
    enum {
        VALUE_SIZE = 64,
        ENTRY_SIZE = sizeof(char *) + VALUE_SIZE,
        ENTRIES = sizeof keys / sizeof keys[0]
    };
    char table[ENTRIES * ENTRY_SIZE] __attribute__((aligned(sizeof(char *))));
    int i;

    memset(table, 0, sizeof table);
    for (i = 0; i < ENTRIES; i++)
        memcpy(table + i * ENTRY_SIZE, &keys[i], sizeof keys[i]);
    /* Every call gives the block after the one that the first value names; a block without a
     * name ends the enumeration. */
    while (cli_config_get(table, sizeof table, 0) != -1 && table[sizeof(char *)] != '\0') {
        printf("netd: CLI block:");
        for (i = 0; i < ENTRIES; i++)
            printf(" %s=\"%s\"", keys[i], table + i * ENTRY_SIZE + sizeof(char *));
        printf("\n");
    }
}

static void run_commands(void)
{
    printf("netd: \"exit 3\" with a limit of 5 s gave %d\n", system_dumb("exit 3", 5));
    printf("netd: \"sleep 30\" with a limit of 1 s gave %d (killed)\n", system_dumb("sleep 30", 1));
    /* A command that outlives the call is left to the shell. */
    printf("netd: a command in the background gave %d\n",
           qzlib_exe_cmd("(sleep %d; echo finished >/tmp/background.txt) >/dev/null 2>&1 &", 1));
}

static const char *service_argument(int argc, char **argv)
{
    const int at = take_operands(MODULE, USAGE, argc, argv, 1);
    const char *service = at < argc ? argv[at] : MODULE;

    if (*service == '\0' || strchr(service, '/') != NULL)
        wrong_usage(MODULE, service, "not a service's name");
    if (strlen(service) > SERVICE_NAME_MAX)
        wrong_usage(MODULE, service, "too long for a service's name");
    return service;
}

/* Waits for the link, then works until it is told to stop. */
static void *worker(void *unused)
{
    int round = 0;
    qzlib_event_wait_flag(events, EV_LINK, 0);
    debug_msg(QZLIB_LOG_INFO, MODULE, __LINE__, "link is up, working");
    while (qzlib_event_wait_flag(events, EV_STOP, 1) != 0)
        debug_msg(QZLIB_LOG_DEBUG, MODULE, __LINE__, "round %d: nothing to do", ++round);
    return unused;
}

/* Brings the "link" up, as a modem would. */
static void *link_watcher(void *unused)
{
    usleep(200 * 1000);
    qzlib_event_set_flag(events, EV_LINK);
    qzlib_event_wait_flag(events, EV_STOP, 0);
    return unused;
}

int main(int argc, char **argv)
{
    const char *service = service_argument(argc, argv);
    pthread_t threads[2];
    sigset_t ends;
    int sig = 0;

    setvbuf(stdout, NULL, _IOLBF, 0);
    qzlib_process_unique(); /* does not return when another netd runs */
    openmsg_com(LOG_FILE, LOG_CAP_BYTES, service, 0);
    debug_msg(QZLIB_LOG_INFO, MODULE, __LINE__, "started, pid %d", (int)getpid());

    if (load_and_change_parameters(service) != 0)
        return 1;
    read_interface_block();
    run_commands();

    /* The threads inherit the mask, so that the signals reach sigwait() alone. */
    sigemptyset(&ends);
    sigaddset(&ends, SIGTERM);
    sigaddset(&ends, SIGINT);
    pthread_sigmask(SIG_BLOCK, &ends, NULL);

    events = qzlib_event_init();
    if (events == NULL)
        return 1;
    pthread_create(&threads[0], NULL, worker, NULL);
    pthread_create(&threads[1], NULL, link_watcher, NULL);
    printf("netd: running, log in %s\n", LOG_FILE);

    sigwait(&ends, &sig);
    debug_msg(QZLIB_LOG_WARNING, MODULE, __LINE__, "signal %d, stopping", sig);
    /* Each change wakes one waiter, so one change per waiting thread. */
    qzlib_event_set_flag(events, EV_STOP);
    qzlib_event_set_flag(events, EV_STOP);
    pthread_join(threads[0], NULL);
    pthread_join(threads[1], NULL);
    qzlib_event_unint(events);
    closemsg();
    printf("netd: ended\n");
    return 0;
}
