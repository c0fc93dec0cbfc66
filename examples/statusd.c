/* SPDX-License-Identifier: MIT */
/*
 * statusd: a daemon that wants to know how the modem is. Reads the table that modemd keeps in
 * /tmp/modem.info whenever it has been replaced, and hears of changes at once on the message
 * bus when a bus server runs. Prints both. Ends on SIGTERM or SIGINT.
 */
#include "arguments.h"
#include "bus.h"

#include <qzlib.h>

#include <signal.h>
#include <stdio.h>
#include <string.h>
#include <sys/stat.h>
#include <unistd.h>

#define STATUS_FILE "/tmp/modem.info"

enum { MAX_WATCHED = 16, NAME_SIZE = 64, VALUE_SIZE = 128, LOOK_EVERY_MS = 200 };

static const char USAGE[] = "Usage: statusd [NAME]...\n"
                            "Print the named values (at most 16; default: rssi sim) of " STATUS_FILE "\n"
                            "and of the message bus whenever they change. Ends on SIGTERM or SIGINT.\n";

struct watched {
    const char *name;
    char value[VALUE_SIZE];
};

static struct watched watched[MAX_WATCHED] = {{"rssi", ""}, {"sim", ""}};
static int watched_count = 2;

/* The writer renames a new file over the old one. An inode number alone may come again. */
static int file_is_new(void)
{
    static struct stat seen;
    struct stat now;
    if (stat(STATUS_FILE, &now) != 0)
        return 0;
    if (now.st_ino == seen.st_ino && now.st_mtim.tv_sec == seen.st_mtim.tv_sec &&
        now.st_mtim.tv_nsec == seen.st_mtim.tv_nsec)
        return 0;
    seen = now;
    return 1;
}

static void show_changes(void)
{
    int i;
    for (i = 0; i < watched_count; i++) {
        const char *value = qzlib_get_modem_status_info(watched[i].name);
        if (value == NULL || strncmp(value, watched[i].value, VALUE_SIZE - 1) == 0)
            continue;
        snprintf(watched[i].value, VALUE_SIZE, "%s", value);
        printf("statusd: table: %s is %s\n", watched[i].name, watched[i].value);
    }
}

/* Runs on the thread that delivers the bus's packets. Neither text is terminated when full. */
static int show_packet(unsigned int type, const char *name, const void *data, unsigned int length)
{
    (void)type;
    printf("statusd: bus: %.64s is %.*s\n", name, (int)length, (const char *)data);
    return 0;
}

/* Hears of changes from now on, while a bus server runs. */
static void listen_on_bus(void)
{
    static int listening;

    if (on_bus("statusd") && !listening)
        listening = qzlib_mbus_down_cache_process(0, show_packet) == 0;
}

static void take_names(int argc, char **argv)
{
    const int first = take_operands("statusd", USAGE, argc, argv, MAX_WATCHED);
    int i;

    for (i = first; i < argc; i++) {
        if (*argv[i] == '\0' || strlen(argv[i]) >= NAME_SIZE)
            wrong_usage("statusd", argv[i], "a value's name has 1 to 63 characters");
        watched[i - first].name = argv[i];
        watched_count = i - first + 1;
    }
}

int main(int argc, char **argv)
{
    const struct timespec pause = {0, LOOK_EVERY_MS * 1000000L};
    sigset_t ends;

    take_names(argc, argv);
    setvbuf(stdout, NULL, _IOLBF, 0);
    openmsg_com("/tmp/statusd.log", 0, "statusd", 0);
    /* Before the bus starts its threads, so that they inherit the mask. */
    sigemptyset(&ends);
    sigaddset(&ends, SIGTERM);
    sigaddset(&ends, SIGINT);
    pthread_sigmask(SIG_BLOCK, &ends, NULL);

    listen_on_bus();
    printf("statusd: running\n");
    do {
        listen_on_bus();
        if (file_is_new() && qzlib_update_modem_status_info_tab() == 0)
            show_changes();
    } while (sigtimedwait(&ends, NULL, &pause) < 0);
    printf("statusd: ended\n");
    closemsg();
    return 0;
}
