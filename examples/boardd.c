/*
 * boardd: the daemon that knows the hardware.
 *
 * Says who the device is, counts the boots in the boot environment, drives the front panel,
 * feeds the watchdog, and takes orders from other processes over the local message channel.
 * It ends on SIGTERM or SIGINT, with the watchdog stopped.
 *
 * Usage: boardd                  run
 *        boardd led NAME MODE    order: put an LED into a mode (0 off, 1 on, 2 fast, 3 slow, 4 one-shot)
 *        boardd show NAME        order: say which mode an LED is in
 */
#include <qzlib.h>

#include <errno.h>
#include <stdio.h>
#include <stdlib.h>
#include <string.h>

#define FEED_PERIOD_S 1
#define DAEMON "boardd"

/* Types of this daemon's messages; their data is text with its NUL. */
enum { MSG_STARTED = 1, MSG_LED = 2, MSG_SHOW = 3 };

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

static int send_text(unsigned type, const char *receiver, const char *text)
{
    local_msg msg;

    memset(&msg, 0, sizeof msg);
    if (receiver != NULL) /* else everybody */
        snprintf(msg.dst_name, sizeof msg.dst_name, "%s", receiver);
    msg.type = type;
    msg.data = (void *)text;
    msg.data_len = (int)strlen(text) + 1;
    return qzlib_msg_send(&msg);
}

/* Runs on the channel's thread. A peer may send anything: only terminated texts are taken. */
static void on_message(local_msg *msg, void *ctx)
{
    const char *text = msg->data;
    char led[32];
    unsigned mode;

    (void)ctx;
    if (text == NULL || memchr(text, '\0', (size_t)msg->data_len) == NULL)
        return;
    if (msg->type == MSG_STARTED) {
        printf(DAEMON ": heard from %.64s (pid %d): %s\n", msg->src_name, (int)msg->src_pid, text);
    } else if (msg->type == MSG_LED && sscanf(text, "%31s %u", led, &mode) == 2) {
        qzlib_led_name_set(led, mode);
        printf(DAEMON ": LED %s is to be in mode %u\n", led, mode);
    } else if (msg->type == MSG_SHOW && sscanf(text, "%31s", led) == 1) {
        printf(DAEMON ": LED %s is in mode %d\n", led, qzlib_led_name_get(led));
    }
}

static int send_order(int argc, char **argv)
{
    char text[64];
    unsigned type = 0;

    if (argc == 4 && strcmp(argv[1], "led") == 0) {
        snprintf(text, sizeof text, "%s %s", argv[2], argv[3]);
        type = MSG_LED;
    } else if (argc == 3 && strcmp(argv[1], "show") == 0) {
        snprintf(text, sizeof text, "%s", argv[2]);
        type = MSG_SHOW;
    } else {
        fprintf(stderr, "usage: boardd [led NAME MODE | show NAME]\n");
        return 2;
    }
    if (qzlib_msg_init(NULL, NULL) != 0 || send_text(type, DAEMON, text) != 0)
        return 1;
    qzlib_msg_exit();
    return 0;
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
    char text[32];
    sigset_t ends;

    if (argc > 1)
        return send_order(argc, argv);
    setvbuf(stdout, NULL, _IOLBF, 0);
    print_identity();
    snprintf(text, sizeof text, "boot %d", count_boot());
    printf(DAEMON ": %s\n", text);

    /* The channel's thread inherits the mask, so that the signals reach the main thread. */
    sigemptyset(&ends);
    sigaddset(&ends, SIGTERM);
    sigaddset(&ends, SIGINT);
    pthread_sigmask(SIG_BLOCK, &ends, NULL);
    if (qzlib_msg_init(on_message, NULL) != 0) {
        printf(DAEMON ": no message channel\n");
        return 1;
    }
    qzlib_led_set(0, QZLIB_LED_ON); /* "power" */
    send_text(MSG_STARTED, NULL, text);
    printf(DAEMON ": running\n");

    feed_watchdog(&ends);
    qzlib_msg_exit();
    qzlib_led_set(0, QZLIB_LED_OFF);
    printf(DAEMON ": stopped\n");
    return 0;
}
