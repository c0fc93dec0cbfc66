/* SPDX-License-Identifier: MIT */
/*
 * modemd: the modem's daemon. Opens the modem's tty, asks for signal quality, card and network
 * in turn, and publishes what it learnt: the table in /tmp/modem.info, and each change on the
 * message bus when a bus server runs. Ends on SIGTERM or SIGINT.
 */
#include "arguments.h"
#include "bus.h"

#include <qzlib.h>

#include <fcntl.h>
#include <stdio.h>
#include <stdlib.h>
#include <string.h>
#include <sys/file.h>
#include <sys/stat.h>
#include <unistd.h>

#define MODULE "modemd"
#define LOG_FILE "/tmp/modemd.log"
#define LOG_CAP_BYTES (64 * 1024)
#define LOCK_FILE "/tmp/modem.lock"
#define STATUS_FILE "/tmp/modem.info"
#define STATUS_FILE_NEW "/tmp/modem.info.new"

static const char USAGE[] =
    "Usage: modemd [DEVICE]\n"
    "Ask the modem on DEVICE (default: /dev/ttyUSB2) how it is, and publish it in\n" STATUS_FILE
    " and on the message bus. Ends on SIGTERM or SIGINT.\n";

enum {
    BAUD = 115200,
    ANSWER_TIMEOUT_S = 1, /* of silence; every exchange takes at least that long */
    SILENCES_ALLOWED = 3, /* then the line is opened anew */
    VALUE_SIZE = 64,
};

struct item {
    const char *name; /* in the table and on the bus */
    const char *command;
    const char *prefix; /* of the answer's line */
    int every;          /* rounds */
    char value[VALUE_SIZE];
};

static struct item items[] = {
    {"rssi", "AT+CSQ", "+CSQ: ", 1, "unknown"},
    {"sim", "AT+CPIN?", "+CPIN: ", 1, "unknown"},
    {"registration", "AT+CREG?", "+CREG: ", 5, "unknown"},
    {"operator", "AT+COPS?", "+COPS: ", 15, "unknown"},
    {"temperature", "AT+CPMUTEMP", "+CPMUTEMP: ", 15, "unknown"},
};
#define ITEMS (sizeof items / sizeof items[0])
enum { SIM = 1 }; /* its row */

static int line = -1;
static int silences;
static sigset_t ends;

/* Waits; 1 when the daemon is to end. */
static int told_to_end(int seconds)
{
    const struct timespec limit = {seconds, 0};
    return sigtimedwait(&ends, NULL, &limit) > 0;
}

/* Readers never see half a table: it is written beside the old one and put in its place. */
static void write_status(void)
{
    size_t i;
    int failed;
    FILE *file = fopen(STATUS_FILE_NEW, "we");
    if (file == NULL)
        return;
    for (i = 0; i < ITEMS; i++)
        fprintf(file, "%s:%s\n", items[i].name, items[i].value);
    failed = ferror(file);
    failed |= fclose(file);
    if (failed || rename(STATUS_FILE_NEW, STATUS_FILE) != 0)
        debug_msg(QZLIB_LOG_ERROR, MODULE, __LINE__, "cannot write %s", STATUS_FILE);
}

/* Tells the other daemons of a change, when a bus server runs. The topic is the value's name. */
static void publish(const struct item *item)
{
    const int length = (int)strlen(item->value);
    if (on_bus(MODULE) && qzlib_mbus_write(NULL, 0, item->name, item->value, length) != length)
        debug_msg(QZLIB_LOG_WARNING, MODULE, __LINE__, "%s was lost on the bus", item->name);
}

static void set_value(struct item *item, const char *value)
{
    if (strcmp(item->value, value) == 0)
        return;
    snprintf(item->value, sizeof item->value, "%s", value);
    debug_msg(QZLIB_LOG_INFO, MODULE, __LINE__, "%s is %s", item->name, item->value);
    write_status();
    publish(item);
}

/* The text after a prefix up to the line's end; 0 when there is no such line. */
static int find_line(const char *answer, const char *prefix, char *text, size_t size)
{
    const char *found = strstr(answer, prefix);
    if (found == NULL)
        return 0;
    found += strlen(prefix);
    snprintf(text, size, "%.*s", (int)strcspn(found, "\r\n"), found);
    return 1;
}

/* +CSQ counts steps of 2 dB from -113 dBm; 99 is unknown. */
static void convert_signal_quality(char *text, size_t size)
{
    const int steps = atoi(text);
    if (steps >= 0 && steps <= 31)
        snprintf(text, size, "%d", -113 + 2 * steps);
    else
        snprintf(text, size, "unknown");
}

static void take_answer(struct item *item, const char *answer)
{
    char text[VALUE_SIZE] = "unknown";
    char code[VALUE_SIZE];

    if (find_line(answer, item->prefix, text, sizeof text)) {
        if (strcmp(item->name, "rssi") == 0)
            convert_signal_quality(text, sizeof text);
    } else if (find_line(answer, "+CME ERROR: ", code, sizeof code) && strcmp(code, "10") == 0) {
        snprintf(text, sizeof text, "absent");
    }
    set_value(item, text);
}

static void forget_everything(void)
{
    size_t i;
    for (i = 0; i < ITEMS; i++)
        set_value(&items[i], "unknown");
}

static void close_line(void)
{
    dev_close(line);
    line = -1;
    silences = 0;
    forget_everything();
}

/* O_NONBLOCK: the open must not wait for a carrier. */
static int open_line(const char *device)
{
    line = dev_init(device, O_RDWR | O_NOCTTY | O_NONBLOCK | O_CLOEXEC, BAUD);
    if (line <= 0) {
        line = -1; /* a result of 0 is no descriptor either */
        return -1;
    }
    if (chat_send_expect(line, "ATE0", "OK", ANSWER_TIMEOUT_S, 1) != 1)
        debug_msg(QZLIB_LOG_WARNING, MODULE, __LINE__, "%s: no answer yet", device);
    return 0;
}

/* One exchange; the line is closed when it turned out to be of no use. */
static void ask(struct item *item)
{
    char answer[512];
    const int length = chat_send_read(line, item->command, answer, sizeof answer, ANSWER_TIMEOUT_S, 1);
    if (length > 0) {
        silences = 0;
        take_answer(item, answer);
        if (strstr(answer, "^SIMST:255") != NULL)
            set_value(&items[SIM], "absent"); /* the report came along with the answer */
        return;
    }
    if (length == 0 && ++silences < SILENCES_ALLOWED)
        return;
    debug_msg(QZLIB_LOG_WARNING, MODULE, __LINE__, "the line is dead (%d errors so far), opening it anew",
              at_modem_error);
    close_line();
}

static void poll_modem(int round)
{
    size_t i;
    for (i = 0; i < ITEMS && line > 0; i++)
        if (round % items[i].every == 0)
            ask(&items[i]);
}

/* The device may come and go, but nothing else may be in its place: commands are written to it. */
static const char *device_argument(int argc, char **argv)
{
    const int at = take_operands(MODULE, USAGE, argc, argv, 1);
    const char *device = at < argc ? argv[at] : "/dev/ttyUSB2";
    struct stat found;

    if (*device == '\0' || (stat(device, &found) != 0 ? errno != ENOENT : !S_ISCHR(found.st_mode)))
        wrong_usage(MODULE, device, "not a tty");
    return device;
}

/* One program per line: whoever holds the lock may open the device. */
static int take_lock(void)
{
    const int lock = open(LOCK_FILE, O_RDWR | O_CREAT | O_CLOEXEC, 0644);
    return lock >= 0 && flock(lock, LOCK_EX | LOCK_NB) == 0 ? 0 : -1;
}

int main(int argc, char **argv)
{
    const char *device = device_argument(argc, argv);
    int round = 0;

    setvbuf(stdout, NULL, _IOLBF, 0);
    openmsg_com(LOG_FILE, LOG_CAP_BYTES, MODULE, 0);
    if (take_lock() != 0) {
        fprintf(stderr, "modemd: %s: another program holds the modem's line\n", LOCK_FILE);
        return 1;
    }
    /* Blocked, these signals stay pending while the library's handler is on them, and are
     * taken between two rounds: none is lost. SIGALRM must not be blocked. */
    sigemptyset(&ends);
    sigaddset(&ends, SIGTERM);
    sigaddset(&ends, SIGINT);
    sigprocmask(SIG_BLOCK, &ends, NULL);

    write_status();
    printf("modemd: running on %s, log in %s\n", device, LOG_FILE);
    while (!told_to_end(line > 0 && round > 0 ? 1 : 0)) {
        if (line <= 0 && open_line(device) != 0)
            continue; /* dev_init() has taken its time */
        poll_modem(round++);
    }
    dev_close(line);
    qzlib_disconnect_mbus_server();
    printf("modemd: ended\n");
    closemsg();
    return 0;
}
