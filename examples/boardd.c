/* SPDX-License-Identifier: MIT */
/*
 * boardd: the daemon that knows the hardware.
 *
 * Says who the device is, counts the boots in the boot environment, drives the front panel,
 * feeds the watchdog, and takes orders from other processes over the local message channel.
 * It ends on SIGTERM or SIGINT, with the watchdog stopped.
 */
#include "arguments.h"

#include <qzlib.h>

#include <errno.h>
#include <stdio.h>
#include <stdlib.h>
#include <string.h>
#include <unistd.h>

#define FEED_PERIOD_S 1
#define ANSWER_LIMIT_S 3
#define DAEMON "boardd"

static const char USAGE[] =
    "Usage: boardd                  run: say who the device is, feed the watchdog, take orders\n"
    "       boardd led NAME MODE    order: put an LED into a mode (0 off, 1 on, 2 fast, 3 slow,\n"
    "                               4 one-shot)\n"
    "       boardd show NAME        order: say which mode an LED is in\n"
    "Ends on SIGTERM or SIGINT. An order's status is 1 when no daemon carries it out.\n";

/* Types of this daemon's messages; their data is text with its NUL. */
enum { MSG_STARTED = 1, MSG_LED = 2, MSG_SHOW = 3, MSG_DONE = 4, MSG_REFUSED = 5 };

enum { LED_NAME_SIZE = 32 };

/* The channel has no lock of its own: the receiver sends answers while the main thread sends. */
static pthread_mutex_t sending = PTHREAD_MUTEX_INITIALIZER;

static void print_identity(void)
{
    static const char *const modules[] = {"none", "EC20", "SLM750", "SIM7600CE"};
    static const char *const boards[] = {"none", "K31", "K52R", "K52T"};
    static const struct {
        const char *label;
        int (*read)(char *out);
    } texts[] = {
        {"hardware", qzlib_get_device_hwversion},   {"device id", qzlib_get_device_sn},
        {"model", qzlib_get_device_model},          {"boot loader", qzlib_get_device_bootversion},
        {"kernel", qzlib_get_device_kernelversion}, {"web pages", qzlib_get_device_webversion},
        {"firmware", qzlib_get_device_softversion},
    };
    char text[256];
    size_t i;

    for (i = 0; i < sizeof texts / sizeof texts[0]; i++)
        printf(DAEMON ": %s %s\n", texts[i].label, texts[i].read(text) == 0 ? text : "(unknown)");
    memset(text, 0, sizeof text);
    if (qzlib_get_dev_sn(text, (int)sizeof text - 1) == 0)
        printf(DAEMON ": serial number %s\n", text);
    printf(DAEMON ": board %s, module %s, CPU %s %s at %s, id %08x, %d degrees\n",
           boards[qzlib_get_board_type()], modules[qzlib_get_moduel_type()], qzlib_get_cpu_vender(),
           qzlib_get_cpu_model(), qzlib_get_cpu_freq(), qzlib_get_cpuid(), qzlib_get_cputempture());
}

/* The counter that the boot loader sees, too. */
static int count_boot(void)
{
    char value[16] = "";
    int count = 1;

    if (qzlib_get_boot_env("bootcount", value, sizeof value - 1) == 0)
        count = atoi(value) + 1;
    snprintf(value, sizeof value, "%d", count);
    return qzlib_set_boot_env("bootcount", value) == 0 ? count : -1;
}

/* To one process, or with receiver 0 to all that have the name; with a null name to everybody. */
static int send_text(unsigned type, pid_t receiver, const char *name, const char *text)
{
    local_msg msg;
    int result;

    memset(&msg, 0, sizeof msg);
    msg.dst_pid = receiver;
    if (name != NULL)
        snprintf(msg.dst_name, sizeof msg.dst_name, "%s", name);
    msg.type = type;
    msg.data = (void *)text;
    msg.data_len = (int)strlen(text) + 1;
    pthread_mutex_lock(&sending);
    result = qzlib_msg_send(&msg);
    pthread_mutex_unlock(&sending);
    return result;
}

static void close_channel(void)
{
    pthread_mutex_lock(&sending);
    qzlib_msg_exit();
    pthread_mutex_unlock(&sending);
}

/* A peer may send anything: only terminated texts are taken. */
static const char *text_of(const local_msg *msg)
{
    return msg->data != NULL && memchr(msg->data, '\0', (size_t)msg->data_len) != NULL ? msg->data : NULL;
}

/* ---- The daemon ---------------------------------------------------------------------- */

static int led_exists(const char *led)
{
    char path[64 + LED_NAME_SIZE];

    snprintf(path, sizeof path, "/sys/class/leds/%s/trigger", led);
    return strchr(led, '/') == NULL && access(path, F_OK) == 0;
}

/* Carries an order out. Returns the type of the answer, whose text goes to reply. */
static unsigned obey(unsigned type, const char *order, char *reply, size_t size)
{
    char led[LED_NAME_SIZE] = "";
    unsigned mode = 0;
    const int words = sscanf(order, "%31s %u", led, &mode);
    int now;

    if (words != (type == MSG_LED ? 2 : 1) || mode > QZLIB_LED_ONE_SHOT) {
        snprintf(reply, size, "not understood: %.64s", order);
        return MSG_REFUSED;
    }
    if (!led_exists(led)) {
        snprintf(reply, size, "there is no LED %s", led);
        return MSG_REFUSED;
    }
    if (type == MSG_LED) {
        qzlib_led_name_set(led, mode);
        snprintf(reply, size, "LED %s is to be in mode %u", led, mode);
        return MSG_DONE;
    }
    now = qzlib_led_name_get(led);
    if (now >= 0)
        snprintf(reply, size, "LED %s is in mode %d", led, now);
    else
        snprintf(reply, size, "LED %s is in none of the modes: its trigger file marks no such trigger", led);
    return MSG_DONE;
}

/* Runs on the channel's thread. */
static void on_message(local_msg *msg, void *ctx)
{
    const char *text = text_of(msg);
    char reply[160];
    unsigned answer;

    (void)ctx;
    if (text == NULL)
        return;
    if (msg->type == MSG_STARTED)
        printf(DAEMON ": heard from %.64s (pid %d): %s\n", msg->src_name, (int)msg->src_pid, text);
    if (msg->type != MSG_LED && msg->type != MSG_SHOW)
        return;
    answer = obey(msg->type, text, reply, sizeof reply);
    printf(DAEMON ": %s\n", reply);
    send_text(answer, msg->src_pid, NULL, reply);
}

/* ---- An order ------------------------------------------------------------------------ */

struct answer {
    qzlib_event *arrived; /* flags: the types of answers */
    char text[160];
};

/* Runs on the channel's thread. The order itself comes, too, for this process has the daemon's name. */
static void on_answer(local_msg *msg, void *ctx)
{
    struct answer *answer = ctx;
    const char *text = text_of(msg);

    if (text == NULL || (msg->type != MSG_DONE && msg->type != MSG_REFUSED))
        return;
    snprintf(answer->text, sizeof answer->text, "%s", text);
    qzlib_event_set_flag(answer->arrived, 1U << msg->type);
}

/* Sent messages are not confirmed by the channel, so the daemon answers. */
static int give_order(unsigned type, const char *order)
{
    static struct answer answer; /* a late answer may still be on its way at the end */
    const unsigned both = 1U << MSG_DONE | 1U << MSG_REFUSED;
    int came, refused;

    answer.arrived = qzlib_event_init();
    if (answer.arrived == NULL || qzlib_msg_init(on_answer, &answer) != 0) {
        fprintf(stderr, DAEMON ": no message channel: %s\n", strerror(errno));
        return 1;
    }
    send_text(type, 0, DAEMON, order);
    came = qzlib_event_wait_flag(answer.arrived, both, ANSWER_LIMIT_S) == 0;
    close_channel();
    if (!came) {
        fprintf(stderr, DAEMON ": %s: no " DAEMON " takes the order\n", order);
        return 1;
    }
    refused = qzlib_event_check_flag(answer.arrived, 1U << MSG_REFUSED);
    fprintf(refused ? stderr : stdout, DAEMON ": %s\n", answer.text);
    return refused;
}

/* The daemon is only asked when the arguments can be right. */
static int take_order(int argc, char **argv, int at)
{
    const int is_led = strcmp(argv[at], "led") == 0;
    char order[LED_NAME_SIZE + 8];

    if (!is_led && strcmp(argv[at], "show") != 0)
        wrong_usage(DAEMON, argv[at], "neither led nor show");
    if (argc - at < (is_led ? 3 : 2))
        wrong_usage(DAEMON, argv[at], is_led ? "it needs NAME and MODE" : "it needs NAME");
    if (argc - at > (is_led ? 3 : 2))
        wrong_usage(DAEMON, argv[argc - 1], "one argument too many");
    if (*argv[at + 1] == '\0' || strlen(argv[at + 1]) >= LED_NAME_SIZE ||
        strpbrk(argv[at + 1], "/ \t\n") != NULL)
        wrong_usage(DAEMON, argv[at + 1], "not the name of an LED");
    if (is_led)
        snprintf(order, sizeof order, "%s %d", argv[at + 1],
                 number_argument(DAEMON, argv[at + 2], QZLIB_LED_OFF, QZLIB_LED_ONE_SHOT));
    else
        snprintf(order, sizeof order, "%s", argv[at + 1]);
    return give_order(is_led ? MSG_LED : MSG_SHOW, order);
}

/* Feeds the watchdog until a signal of the set arrives. */
static void feed_watchdog(const sigset_t *ends)
{
    const struct timespec period = {FEED_PERIOD_S, 0};

    do {
        if (qzlib_watchdog_feed() != 1)
            printf(DAEMON ": cannot feed the watchdog: %s\n", strerror(errno));
    } while (sigtimedwait(ends, NULL, &period) < 0);
    if (qzlib_watchdog_stop() != 0)
        printf(DAEMON ": the watchdog does not stop: %s\n", strerror(errno));
}

int main(int argc, char **argv)
{
    const int at = take_operands(DAEMON, USAGE, argc, argv, 3);
    char text[32];
    sigset_t ends;
    int boots;

    if (at < argc)
        return take_order(argc, argv, at);
    setvbuf(stdout, NULL, _IOLBF, 0);
    print_identity();
    boots = count_boot();
    if (boots > 0)
        snprintf(text, sizeof text, "boot %d", boots);
    else
        snprintf(text, sizeof text, "a boot that was not counted");
    printf(DAEMON ": %s\n", text);

    /* The channel's thread inherits the mask, so that the signals reach the main thread. */
    sigemptyset(&ends);
    sigaddset(&ends, SIGTERM);
    sigaddset(&ends, SIGINT);
    pthread_sigmask(SIG_BLOCK, &ends, NULL);
    if (qzlib_msg_init(on_message, NULL) != 0) {
        fprintf(stderr, DAEMON ": no message channel: %s\n", strerror(errno));
        return 1;
    }
    qzlib_led_set(0, QZLIB_LED_ON); /* "power" */
    send_text(MSG_STARTED, 0, NULL, text);
    printf(DAEMON ": running\n");

    feed_watchdog(&ends);
    close_channel();
    qzlib_led_set(0, QZLIB_LED_OFF);
    printf(DAEMON ": stopped\n");
    return 0;
}
