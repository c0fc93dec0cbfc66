/* Calls every family once, in plain C and against whatever libc it is linked with; to be run by
 * tests/target/musl.sh. Each family runs on a thread with the 128 KiB of stack that a small libc gives
 * one, and says how much of it the calls used. every_family --emulator leaves out what the user-mode
 * emulator does not know: the netlink user protocol. Status 0 when all is as it should be. */
#define _GNU_SOURCE
#include <qzlib.h>

#include <errno.h>
#include <fcntl.h>
#include <poll.h>
#include <pthread.h>
#include <stdio.h>
#include <stdlib.h>
#include <string.h>
#include <sys/mman.h>
#include <sys/stat.h>
#include <unistd.h>

enum { STACK_SIZE = 128 * 1024, PAINT = 0xA5 };

static int failures;
static int in_emulator;

static void check(int holds, const char *text, int line)
{
    if (holds)
        return;
    printf("FAILED line %d: %s\n", line, text);
    ++failures;
}
#define CHECK(condition) check((condition) != 0, #condition, __LINE__)

static void write_text(const char *path, const char *text)
{
    FILE *file = fopen(path, "w");
    CHECK(file != NULL && fputs(text, file) >= 0);
    if (file != NULL)
        fclose(file);
}

static void strings(void)
{
    char text[] = " \t3.2.0\r\n";
    char ip[32], length[32];
    CHECK(strcmp(qzlib_str_trim(text), "3.2.0") == 0);
    CHECK(qzlib_ip_is_valid("10.0.0.1") == 1);
    CHECK(qzlib_mac_is_valid("00:11:22:33:44:55") == 1);
    CHECK(qzlib_get_ip_mask("10.1.2.3/24", ip, length) == 0 && strcmp(ip, "10.1.2.3") == 0);
}

static void message_log(void)
{
    char stamp[32];
    int kept = dup(2);
    openmsg_com("/tmp/daemon.log", 0, "every_family", 0);
    debug_msg(QZLIB_LOG_ERROR, "m", __LINE__, "%s %d", "rssi", -71);
    CHECK(qzlib_get_file_size("/tmp/daemon.log") > 20);
    CHECK(strlen(str_timestamp(0, stamp, sizeof stamp)) == 19);
    CHECK(reset_file_size("/tmp/daemon.log", 1) == 0);
    close(kept);
}

static void configuration(void)
{
    char value[256];
    service_info *info;
    write_text("/tmp/config/cli.conf", "interface eth0\n ip address 10.0.0.1\n!\n");
    CHECK(cli_find_paremeter("interface eth0", "ip address") == 0);
    write_text("/tmp/config/lan.conf", "lan_ip=192.168.1.1\n");
    info = qzlib_service_info_init("lan");
    CHECK(info != NULL && qzlib_service_set_param(info, NULL, "dhcp", "on") == 0);
    CHECK(qzlib_service_get_param(info, NULL, "lan_ip", value) == 0 && strcmp(value, "192.168.1.1") == 0);
    CHECK(qzlib_service_saveto_file(info, "/tmp/config/lan.conf") == 0);
    qzlib_service_info_uninit(info);
}

static void message_bus(void)
{
    mbus_client *record;
    mbus_pkg *pkg;
    int tries = 0;
    while (qzlib_connect_mbus_server("demo") != 0 && tries < 99) /* a loaded server may need longer */
        ++tries;
    record = qzlib_find_client_by_name("DEMO");
    CHECK(record != NULL && qzlib_client_set_flag(1) == 0);
    CHECK(qzlib_mbus_write(NULL, 1, "demo", "hello", 6) == 6);
    pkg = qzlib_mbus_read_pkg(NULL, 0);
    CHECK(pkg != NULL && pkg->type == 1 && pkg->length == 6 && strcmp(pkg->data, "hello") == 0);
    /* a 32-bit reader gets the slot itself */
    CHECK(sizeof(void *) != 4 || (char *)pkg->data == (char *)pkg + QZLIB_MBUS_SLOT_PAYLOAD);
    CHECK(qzlib_disconnect_mbus_server() == 0);
}

static void serial_line(void)
{
    char answer[64] = "";
    int line = dev_init("/tmp/modem", O_RDWR | O_NOCTTY | O_NONBLOCK, 115200);
    CHECK(line > 0);
    CHECK(chat_send_expect(line, "AT", "OK", 5, 0) == 1);
    CHECK(chat_read(line, answer, sizeof answer, 1, 0) >= 0);
    CHECK(dev_close(line) == 0);
    CHECK(qzlib_uart_baud_to_flag(500000) == 0x1005);
}

static void event_flags(void)
{
    qzlib_event *event = qzlib_event_init();
    CHECK(event != NULL && qzlib_event_set_flag(event, 5) == 0);
    CHECK(qzlib_event_wait_all_flag(event, 5, 1) == 0);
    CHECK(qzlib_event_wait_flag(event, 2, 1) == ETIMEDOUT);
    CHECK(qzlib_event_unint(event) == 0);
}

static void routing(void)
{
    char ip[16], mask[16], net[16];
    srtinfo *routes;
    CHECK(qz_ccid2obsolete("10.1.2.3/8", ip, mask, net) == 0 && strcmp(net, "10.0.0.0") == 0);
    CHECK(string2masklen("255.255.0.0") == 16);
    routes = qz_srtinfo_stat();
    qz_srtinfo_free(&routes);
    CHECK(qzlib_do_route(1, 9, "10.0.0.0/8", "lo", 1) == -1); /* there is no daemon */
}

static void boot_environment(void)
{
    char value[64];
    CHECK(crc32(0, (const unsigned char *)"123456789", 9) == 0xCBF43926);
    CHECK(qzlib_get_boot_env("x", value, sizeof value) == -1); /* there is no flash */
}

static int heard[2]; /* a pipe */

static void on_message(local_msg *msg, void *ctx)
{
    (void)ctx;
    CHECK(msg->data_len == 4 && memcmp(msg->data, "ping", 4) == 0);
    CHECK(write(heard[1], "", 1) == 1);
}

static void local_messages(void)
{
    local_msg msg;
    struct pollfd wait = {-1, POLLIN, 0};
    memset(&msg, 0, sizeof msg);
    msg.data_len = 4;
    msg.data = "ping";
    if (in_emulator) {
        CHECK(qzlib_msg_init(on_message, NULL) < 0);
        return;
    }
    CHECK(pipe(heard) == 0);
    CHECK(qzlib_msg_init(on_message, NULL) == 0);
    CHECK(qzlib_msg_send(&msg) == 0);
    wait.fd = heard[0];
    CHECK(poll(&wait, 1, 10000) == 1);
    qzlib_msg_exit();
}

static void leds(void)
{
    qzlib_led_set(7, 1);
    CHECK(qzlib_led_name_get("no such led") == -1);
    CHECK(qzlib_gpio_name_get("no such line") == -1);
}

static void files(void)
{
    char device[256];
    char buffer[8] = "";
    int ends[2];
    CHECK(pipe(ends) == 0);
    CHECK(qzlib_fd_write(ends[1], "abc", 3, 1000) == 3 && qzlib_fd_read(ends[0], buffer, 8, 1000) == 3);
    CHECK(qzlib_fd_read(ends[0], buffer, 8, 50) == 0);
    CHECK(qzlib_file_is_elf("/proc/self/exe") == 1);
    CHECK(qzlib_get_mount_dev("/tmp", device) == 0 && strcmp(device, "tmpfs") == 0);
    CHECK(qzlib_get_dir_free_space("/tmp") > 0);
}

static void commands(void)
{
    char name[64] = "";
    CHECK(system_dumb("exit 3", 5) == 3);
    CHECK(system_dumb("sleep 9", 1) == QZLIB_ERR_TIME_LIMIT);
    CHECK(qzlib_exe_cmd("exit %d", 0) == 0);
    CHECK(qzlib_get_process_name_by_pid(getpid(), name, sizeof name) >= 0 && name[0] != '\0');
}

static void statistics(void)
{
    CHECK(qzlib_get_system_uptime() > 0);
    CHECK(qzlib_get_system_uptime_ms() > 0);
    CHECK(qzlib_get_total_mem_size() > 1000);
    CHECK(qzlib_get_cpu_use_percent() >= 0);
}

static void device(void)
{
    char text[256];
    write_text("/tmp/modem.info", "rssi:-71\n");
    CHECK(qzlib_update_modem_status_info_tab() == 0);
    CHECK(strcmp(qzlib_get_modem_status_info("rssi"), "-71") == 0);
    write_text("/tmp/device.info", "HW_Version:V1.0\n");
    CHECK(qzlib_get_device_hwversion(text) == 0 && strcmp(text, "V1.0") == 0);
    CHECK(strcmp(qzlib_get_cpu_model(), "MDM9607") == 0);
}

static void network(void)
{
    char ip[32], mask[32], mac[32];
    int listener = qzlib_create_listen_tcp("127.0.0.1", 7000);
    int client = qzlib_create_connect_tcp("127.0.0.1", "7000", 0);
    int odd = qzlib_create_connect_udp("1.2.3.", "7000", 0); /* to 0.0.0.0, for which no route is needed */
    CHECK(listener >= 0 && client >= 0 && odd >= 0);
    close(odd);
    close(client);
    close(listener);
    CHECK(qzlib_get_interface_info("lo", ip, sizeof ip, mask, sizeof mask, mac, sizeof mac) == 0);
    CHECK(strcmp(ip, "127.0.0.1") == 0 && strcmp(mask, "255.0.0.0") == 0);
    CHECK(qzlib_get_tcp_latency("127.0.0.1", "9", 5000) == -1);
    CHECK(qzlib_get_domain_ip("8.8.8.8", ip) == 0 && strcmp(ip, "8.8.8.8") == 0);
}

static void *run(void *family)
{
    void (*calls)(void);
    memcpy(&calls, family, sizeof calls);
    calls();
    return NULL;
}

/* The bytes of a painted stack that something was written over. */
static size_t used_of(const unsigned char *stack)
{
    size_t untouched = 0;
    while (untouched < STACK_SIZE && stack[untouched] == PAINT)
        ++untouched;
    return STACK_SIZE - untouched;
}

int main(int argc, char **argv)
{
    static const struct {
        const char *name;
        void (*calls)(void);
    } families[] = {
        {"strings", strings},
        {"message log", message_log},
        {"configuration", configuration},
        {"message bus", message_bus},
        {"serial line", serial_line},
        {"event flags", event_flags},
        {"routing", routing},
        {"boot environment", boot_environment},
        {"local messages", local_messages},
        {"LEDs and GPIOs", leds},
        {"files", files},
        {"commands", commands},
        {"statistics", statistics},
        {"device and modem", device},
        {"network", network},
    };
    size_t i;
    cJSON *tree = cJSON_Parse("{\"rssi\": -71}");
    in_emulator = argc > 1 && strcmp(argv[1], "--emulator") == 0;
    mkdir("/tmp/config", 0755);
    CHECK(tree != NULL && cJSON_GetObjectItem(tree, "rssi")->valueint == -71);
    cJSON_Delete(tree);
    for (i = 0; i < sizeof families / sizeof families[0]; ++i) {
        int before = failures;
        pthread_t thread;
        pthread_attr_t attributes;
        unsigned char *stack =
            mmap(NULL, STACK_SIZE, PROT_READ | PROT_WRITE, MAP_PRIVATE | MAP_ANONYMOUS, -1, 0);
        memset(stack, PAINT, STACK_SIZE);
        pthread_attr_init(&attributes);
        pthread_attr_setstack(&attributes, stack, STACK_SIZE);
        pthread_create(&thread, &attributes, run, (void *)&families[i].calls);
        pthread_join(thread, NULL);
        printf("%-7s %-18s %6zu bytes of stack\n", failures == before ? "ok" : "FAILED", families[i].name,
               used_of(stack));
        fflush(stdout);
        munmap(stack, STACK_SIZE);
    }
    return failures != 0;
}
