/* Calls every family once, in plain C and against whatever libc it is linked with; to be run by
 * tests/target/musl.sh. Each family runs on a thread with the 128 KiB of stack that a small libc gives
 * one, and says how much of it the calls used. every_family --emulator leaves out what the user-mode
 * emulator does not know: the netlink user protocol. Status 0 when all is as it should be. */
#define _GNU_SOURCE
#include <qzlib.h>

#include <errno.h>
#include <fcntl.h>
#include <pthread.h>
#include <stdio.h>
#include <string.h>
#include <sys/mman.h>
#include <sys/stat.h>

enum { STACK_SIZE = 128 * 1024, PAINT = 0xA5 };

static int in_emulator;

static int write_text(const char *path, const char *text)
{
    FILE *file = fopen(path, "w");
    return file != NULL && fputs(text, file) >= 0 && fclose(file) == 0;
}

static int strings(void)
{
    char ip[32], length[32];
    return qzlib_get_ip_mask("10.1.2.3/24", ip, length) == 0 && strcmp(ip, "10.1.2.3") == 0;
}

static int message_log(void)
{
    openmsg_com("/tmp/daemon.log", 0, "every_family", 0);
    debug_msg(QZLIB_LOG_ERROR, "m", __LINE__, "%s %d", "rssi", -71);
    return qzlib_get_file_size("/tmp/daemon.log") > 20;
}

static int configuration(void)
{
    service_info *info = qzlib_service_info_init("lan");
    int result = write_text("/tmp/config/cli.conf", "interface eth0\n ip address 10.0.0.1\n!\n") &&
                 cli_find_paremeter("interface eth0", "ip address") == 0 &&
                 qzlib_service_set_param(info, NULL, "dhcp", "on") == 0 &&
                 qzlib_service_saveto_file(info, "/tmp/config/lan.conf") == 0 &&
                 qzlib_service_find_param("lan", NULL, "dhcp") == 0;
    qzlib_service_info_uninit(info);
    return result;
}

static int message_bus(void)
{
    mbus_pkg *pkg;
    int tries = 0;
    while (qzlib_connect_mbus_server("demo") != 0 && tries < 99) /* a loaded server may need longer */
        ++tries;
    if (qzlib_mbus_write(NULL, 1, "demo", "hello", 6) != 6)
        return 0;
    pkg = qzlib_mbus_read_pkg(NULL, 0);
    /* a 32-bit reader gets the slot itself */
    return pkg != NULL && strcmp(pkg->data, "hello") == 0 &&
           (sizeof(void *) != 4 || (char *)pkg->data == (char *)pkg + QZLIB_MBUS_SLOT_PAYLOAD) &&
           qzlib_disconnect_mbus_server() == 0;
}

static int serial_line(void)
{
    int line = dev_init("/tmp/modem", O_RDWR | O_NOCTTY | O_NONBLOCK, 115200);
    return line > 0 && chat_send_expect(line, "AT", "OK", 5, 0) == 1 && dev_close(line) == 0;
}

static int event_flags(void)
{
    qzlib_event *event = qzlib_event_init();
    return qzlib_event_set_flag(event, 5) == 0 && qzlib_event_wait_all_flag(event, 5, 1) == 0 &&
           qzlib_event_wait_flag(event, 2, 1) == ETIMEDOUT && qzlib_event_unint(event) == 0;
}

static int routing(void)
{
    srtinfo *routes = qz_srtinfo_stat();
    qz_srtinfo_free(&routes);
    return qzlib_do_route(1, 9, "10.0.0.0/8", "lo", 1) == -1; /* there is no daemon */
}

static int boot_environment(void)
{
    char value[64];
    return qzlib_get_boot_env("x", value, sizeof value) == -1; /* there is no flash */
}

static void on_message(local_msg *msg, void *heard)
{
    qzlib_event_set_flag(heard, msg->type);
}

static int local_messages(void)
{
    local_msg msg = {.type = 4};
    qzlib_event *heard = qzlib_event_init();
    int result;
    if (in_emulator)
        return qzlib_msg_init(on_message, heard) < 0;
    result = qzlib_msg_init(on_message, heard) == 0 && qzlib_msg_send(&msg) == 0 &&
             qzlib_event_wait_flag(heard, 4, 10) == 0;
    qzlib_msg_exit();
    return result;
}

static int device_and_modem(void)
{
    qzlib_led_set(7, 1);
    return qzlib_led_name_get("no such led") == -1 && qzlib_gpio_name_get("no such line") == -1 &&
           write_text("/tmp/modem.info", "rssi:-71\n") && qzlib_update_modem_status_info_tab() == 0 &&
           strcmp(qzlib_get_modem_status_info("rssi"), "-71") == 0;
}

static int system_helpers(void)
{
    char device[256];
    return qzlib_get_mount_dev("/tmp", device) == 0 && strcmp(device, "tmpfs") == 0 &&
           qzlib_file_is_elf("/proc/self/exe") == 1 && qzlib_exe_cmd("exit %d", 0) == 0 &&
           system_dumb("exit 3", 5) == 3 && system_dumb("sleep 9", 1) == QZLIB_ERR_TIME_LIMIT &&
           qzlib_get_cpu_use_percent() >= 0;
}

static int network(void)
{
    char ip[32], mask[32], mac[32];
    int listener = qzlib_create_listen_tcp("127.0.0.1", 7000);
    return listener >= 0 && qzlib_create_connect_tcp("127.0.0.1", "7000", 0) >= 0 &&
           qzlib_get_tcp_latency("127.0.0.1", "9", 5000) == -1 &&
           qzlib_get_interface_info("lo", ip, sizeof ip, mask, sizeof mask, mac, sizeof mac) == 0 &&
           strcmp(ip, "127.0.0.1") == 0 && qzlib_get_domain_ip("8.8.8.8", ip) == 0;
}

struct family {
    const char *name;
    int (*works)(void);
};

static void *run(void *family)
{
    return ((struct family *)family)->works() ? family : NULL;
}

int main(int argc, char **argv)
{
    struct family families[] = {{"strings", strings},
                                {"message log", message_log},
                                {"configuration", configuration},
                                {"message bus", message_bus},
                                {"serial line", serial_line},
                                {"event flags", event_flags},
                                {"routing", routing},
                                {"boot environment", boot_environment},
                                {"local messages", local_messages},
                                {"device and modem", device_and_modem},
                                {"system", system_helpers},
                                {"network", network}};
    int status = 0;
    pthread_attr_t attributes;
    unsigned char *stack = mmap(NULL, STACK_SIZE, PROT_READ | PROT_WRITE, MAP_PRIVATE | MAP_ANONYMOUS, -1, 0);
    in_emulator = argc > 1 && strcmp(argv[1], "--emulator") == 0;
    mkdir("/tmp/config", 0755);
    pthread_attr_init(&attributes);
    pthread_attr_setstack(&attributes, stack, STACK_SIZE);
    for (size_t i = 0; i < sizeof families / sizeof families[0]; ++i) {
        pthread_t thread;
        void *passed;
        size_t untouched = 0;
        memset(stack, PAINT, STACK_SIZE);
        pthread_create(&thread, &attributes, run, &families[i]);
        pthread_join(thread, &passed);
        while (untouched < STACK_SIZE && stack[untouched] == PAINT)
            ++untouched;
        printf("%-7s %-18s %6zu bytes of stack\n", passed != NULL ? "ok" : "FAILED", families[i].name,
               STACK_SIZE - untouched);
        fflush(stdout);
        status |= passed == NULL;
    }
    return status;
}
