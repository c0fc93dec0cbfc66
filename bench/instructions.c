// SPDX-License-Identifier: MIT
/* Makes one call of the library, or does by hand what it has to do at least, so many times:
 * instructions WHAT COUNT. scripts/target-instructions counts what is executed. In a box. */
#include <qzlib.h>

#include <fcntl.h>
#include <pthread.h>
#include <stdio.h>
#include <stdlib.h>
#include <string.h>
#include <sys/shm.h>
#include <sys/stat.h>
#include <sys/wait.h>
#include <unistd.h>

enum { PACKET = 256 };
static const char *const CLI = "/tmp/config/cli.conf";
static const char *const LOG = "/tmp/log";
static char payload[PACKET];
static char slot[QZLIB_MBUS_SLOT_SIZE];

/* ---- bus: this process's own record, whose other end is moved by hand ---- */

static mbus_client *own;
static mbus_pkg packet = {1, "topic", PACKET, payload};

static void join_bus(void)
{
    qzlib_create_listen_unixdomain(QZLIB_MBUS_SOCKET);
    qzlib_mbus_share_init();
    own = ((mbus_share_segment *)mbus_share)->clients;
    strcpy(own->name, "meter");
    qzlib_connect_mbus_server("meter");
    /* A segment full of packets: what is written is found by the reader, too. */
    for (int i = 0; i < QZLIB_MBUS_RING_SLOTS - 1; ++i)
        qzlib_mbus_write_pkg(own, &packet);
    char *segment = shmat(shmget(qzlib_mbus_name_to_key("meter"), 0, 0), NULL, 0);
    memcpy(segment + QZLIB_MBUS_RING_SIZE, segment, QZLIB_MBUS_RING_SIZE - QZLIB_MBUS_SLOT_SIZE);
    shmdt(segment);
    own[QZLIB_MBUS_CLIENTS - 1].reserved = 1; /* the server's doorbell: it is awake */
}

static void write_up(void)
{
    own->up_read = own->up_write;
    qzlib_mbus_write_pkg(own, &packet);
}

static void read_down(void)
{
    own->down_write = (own->down_read + 3) % QZLIB_MBUS_RING_SLOTS;
    if (own->down_read == QZLIB_MBUS_RING_SLOTS - 2)
        own->down_read = 0;
    (void)*(volatile char *)qzlib_mbus_read_pkg(NULL, 1)->data;
}

static void copy_packet(void)
{
    memcpy(slot, &packet, QZLIB_MBUS_SLOT_PAYLOAD);
    memcpy(slot + QZLIB_MBUS_SLOT_PAYLOAD, payload, PACKET);
}

static void look_at_packet(void)
{
    memcpy(&packet.length, slot + 68, sizeof packet.length);
    (void)*(volatile char *)slot;
}

/* ---- log ---- */

static void choose_log(void)
{
    openmsg_com(LOG, 0, "bench", 0);
}

static void log_filtered(void)
{
    debug_msg(QZLIB_LOG_DEBUG, "bench", 1, "rssi %d of %s", -71, "wwan0");
}

static void log_written(void)
{
    debug_msg(QZLIB_LOG_ERROR, "bench", 1, "rssi %d of %s", -71, "wwan0");
}

static void stat_file(void)
{
    struct stat status;
    stat(CLI, &status);
}

static void write_line(void)
{
    char line[128];
    char stamp[32];
    struct tm parts;
    struct stat status;
    const time_t now = time(NULL);
    stat(CLI, &status);
    stat(LOG, &status);
    strftime(stamp, sizeof stamp, "%Y-%m-%d %X", localtime_r(&now, &parts));
    const int length = snprintf(line, sizeof line, "[%s]<ERROR>bench:rssi %d of %s\n", stamp, -71, "wwan0");
    const int fd = open(LOG, O_WRONLY | O_APPEND | O_CREAT, 0644);
    (void)!write(fd, line, (size_t)length);
    close(fd);
}

/* ---- service store, beside a list of texts that is read and written line by line ---- */

struct line {
    struct line *next;
    char *name, *value;
};
static service_info *store;
static struct line *lines;
static char last[16];
static int entries;

static struct line *load_lines(void)
{
    char text[1024];
    struct line *first = NULL;
    struct line **end = &first;
    FILE *file = fopen("/tmp/config/bench.conf", "r");
    while (fgets(text, sizeof text, file) != NULL) {
        text[strcspn(text, "\n")] = '\0';
        char *equals = strchr(text, '=');
        if (equals == NULL)
            continue;
        *equals = '\0';
        *end = malloc(sizeof **end);
        **end = (struct line){NULL, strdup(text), strdup(equals + 1)};
        end = &(*end)->next;
    }
    fclose(file);
    return first;
}

static void make_store(void)
{
    FILE *file = fopen("/tmp/config/bench.conf", "w");
    for (int i = 0; i < entries; ++i)
        fprintf(file, "name%d=value%d\n", i, i);
    fclose(file);
    snprintf(last, sizeof last, "name%d", entries - 1);
    store = qzlib_service_info_init("bench");
    lines = load_lines();
}

static void service_load(void)
{
    qzlib_service_info_uninit(qzlib_service_info_init("bench"));
}

static void list_load(void)
{
    for (struct line *next, *line = load_lines(); line != NULL; line = next) {
        next = line->next;
        free(line->name);
        free(line->value);
        free(line);
    }
}

static void service_get(void)
{
    char value[SERVICE_STR_MAX];
    qzlib_service_get_param(store, NULL, last, value);
}

static struct line *find_line(void)
{
    struct line *line = lines;
    while (line != NULL && strcmp(line->name, last) != 0)
        line = line->next;
    return line;
}

static void list_get(void)
{
    char value[SERVICE_STR_MAX];
    strncpy(value, find_line()->value, sizeof value);
}

static void service_set(void)
{
    qzlib_service_set_param(store, NULL, last, "another");
}

static void list_set(void)
{
    struct line *line = find_line();
    free(line->value);
    line->value = strdup("another");
}

static void service_save(void)
{
    qzlib_service_saveto_file(store, "/tmp/saved");
}

static void list_save(void)
{
    FILE *file = fopen("/tmp/saved", "w");
    for (const struct line *line = lines; line != NULL; line = line->next)
        fprintf(file, "%s=%s\n", line->name, line->value);
    fclose(file);
}

/* ---- event flags with a waiter, commands, routes ---- */

static qzlib_event *event;
static pthread_mutex_t mutex = PTHREAD_MUTEX_INITIALIZER;
static pthread_cond_t changed = PTHREAD_COND_INITIALIZER;
static unsigned flags;

static void *wait_event(void *unused)
{
    qzlib_event_wait_flag(event, 2, 0);
    return unused;
}

static void *wait_condition(void *unused)
{
    pthread_mutex_lock(&mutex);
    while ((flags & 2) == 0)
        pthread_cond_wait(&changed, &mutex);
    pthread_mutex_unlock(&mutex);
    return unused;
}

static void start_waiters(void)
{
    pthread_t thread;
    event = qzlib_event_init();
    pthread_create(&thread, NULL, wait_event, NULL);
    pthread_create(&thread, NULL, wait_condition, NULL);
    usleep(100000);
}

static void event_set(void)
{
    qzlib_event_set_flag(event, 1);
    usleep(3000); /* for the waiter to look */
}

static void condition_set(void)
{
    pthread_mutex_lock(&mutex);
    flags |= 1;
    pthread_cond_signal(&changed);
    pthread_mutex_unlock(&mutex);
    usleep(3000);
}

static void command(void)
{
    system_dumb("exit 0", 0);
}

static void command_by_libc(void)
{
    (void)!system("exit 0");
}

static void snapshot(void)
{
    srtinfo *list = qz_srtinfo_stat();
    qz_srtinfo_free(&list);
}

static void snapshot_by_hand(void)
{
    static const char *const COMMANDS[] = {"ip rule ls", "ip route ls table 7"};
    char text[128];
    char word[5][32];
    for (size_t i = 0; i < 2; ++i) {
        FILE *pipe = popen(COMMANDS[i], "r");
        while (fgets(text, sizeof text, pipe) != NULL)
            sscanf(text, "%31s %31s %31s %31s %31s", word[0], word[1], word[2], word[3], word[4]);
        pclose(pipe);
    }
}

static void nothing(void) {}

static const struct {
    const char *name;
    void (*prepare)(void);
    void (*call)(void);
} CALLS[] = {
    {"write_up", join_bus, write_up},
    {"read_down", join_bus, read_down},
    {"copy_packet", nothing, copy_packet},
    {"look_at_packet", nothing, look_at_packet},
    {"log_filtered", choose_log, log_filtered},
    {"log_written", choose_log, log_written},
    {"stat_file", nothing, stat_file},
    {"write_line", nothing, write_line},
    {"service_load", make_store, service_load},
    {"service_get", make_store, service_get},
    {"service_set", make_store, service_set},
    {"service_save", make_store, service_save},
    {"list_load", make_store, list_load},
    {"list_get", make_store, list_get},
    {"list_set", make_store, list_set},
    {"list_save", make_store, list_save},
    {"event_set", start_waiters, event_set},
    {"condition_set", start_waiters, condition_set},
    {"command", nothing, command},
    {"command_by_libc", nothing, command_by_libc},
    {"snapshot", nothing, snapshot},
    {"snapshot_by_hand", nothing, snapshot_by_hand},
    {"nothing", nothing, nothing},
};

int main(int argc, char **argv)
{
    if (argc < 3)
        return 2;
    entries = argc > 3 ? atoi(argv[3]) : 0;
    mkdir("/tmp/config", 0755);
    FILE *file = fopen(CLI, "w");
    fputs("log msg-level info\n", file);
    fclose(file);
    for (size_t i = 0; i < sizeof CALLS / sizeof *CALLS; ++i) {
        if (strcmp(CALLS[i].name, argv[1]) != 0)
            continue;
        CALLS[i].prepare();
        for (int left = atoi(argv[2]); left > 0; --left)
            CALLS[i].call();
        _exit(0);
    }
    return 2;
}
