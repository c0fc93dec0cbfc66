// One call of the system after the other fails, under each of many calls of the library.
#include "support/case.h"

#include <qzlib.h>

#include <set>
#include <syslog.h>

extern "C" __thread int fault_in; // of shim.c: which call of this thread from here on fails; 0: it has

namespace
{

using namespace support;

constexpr const char *DEVICE = "/dev/mtdblock0";
constexpr const char *CONFIG = "/tmp/config/netd.conf";
constexpr int FAILED = QZLIB_ERR_FAILED;
constexpr int NOT_REACHED = 2; // status of a process that made no such call

// What a call left open is part of its result.
int closed(int fd)
{
    return fd < 0 ? fd : close(fd);
}

service_info *store = nullptr;

void load_store()
{
    store = qzlib_service_info_init("netd");
}

mbus_client *record()
{
    return static_cast<mbus_share_segment *>(mbus_share)->clients;
}

// The bus without a server: its socket, and its table with the name.
int control = -1;

void make_bus()
{
    control = qzlib_create_listen_unixdomain(QZLIB_MBUS_SOCKET);
    EXPECT_EQ(qzlib_mbus_share_init(), 0);
    strcpy(record()->name, "faulty");
}

void join_bus()
{
    make_bus();
    EXPECT_EQ(qzlib_connect_mbus_server("faulty"), 0);
}

void unmake_bus()
{
    qzlib_disconnect_mbus_server();
    qzlib_mbus_share_uninit();
    (void)closed(control);
}

void unmake_client()
{
    qzlib_client_uninit(record());
    unmake_bus();
}

char text[64];

void set_variable()
{
    qzlib_set_boot_env("a", "1");
}

int list_variables()
{
    return qzlib_print_boot_env(
        nullptr, [](void *, const char *) {}, nullptr);
}

int open_channel()
{
    local_msg msg{};
    const int result = qzlib_msg_init([](local_msg *, void *) {}, nullptr);
    EXPECT_TRUE(result == 0 || qzlib_msg_send(&msg) == FAILED) << "half open";
    return result;
}

int take_snapshot()
{
    srtinfo *list = qz_srtinfo_stat();
    qz_srtinfo_free(&list);
    return 0;
}

// libc's resolver does not survive that memory runs out in its first look-up.
void resolve()
{
    EXPECT_EQ(qzlib_get_domain_ip("localhost", text), 0);
}

struct Row {
    const char *what;
    int success;
    std::set<int> failures; // that the header promises
    std::function<int()> call;
    void (*before)() = [] {}; // without a fault
    void (*after)() = [] {};  // gives back what the call gave
};

const std::vector<Row> ROWS = {
    {"load", 0, {-1}, [] { return qzlib_service_info_uninit(qzlib_service_info_init("netd")); }},
    {"set", 0, {-1}, [] { return qzlib_service_set_param(store, "new", "a", "b"); }, load_store},
    {"add", 0, {-1}, [] { return qzlib_service_set_param_repeat(store, "", "a", "b"); }, load_store},
    {"save", 0, {-1}, [] { return qzlib_service_saveto_file(store, "/tmp/saved"); }, load_store},
    {"find", 0, {-1}, [] { return qzlib_service_find_param("netd", "", "a"); }},
    {"get environment", 0, {-1}, [] { return qzlib_get_boot_env("a", text, 9); }, set_variable},
    {"set environment", 0, {-1}, [] { return qzlib_set_boot_env("b", "2"); }, set_variable},
    {"clear environment", 0, {-1}, qzlib_clear_boot_env, set_variable},
    {"list environment", 0, {-1}, list_variables, set_variable},
    {"sum of a file", 0, {}, [] { return crc32file("/tmp/config/netd.conf") == 1 ? 1 : 0; }},
    {"connect to the bus", 0, {-1}, [] { return qzlib_connect_mbus_server("faulty"); }, make_bus, unmake_bus},
    {"leave the bus", 0, {}, qzlib_disconnect_mbus_server, join_bus, unmake_bus},
    {"attach the table", 0, {-1}, qzlib_mbus_share_init, [] {}, qzlib_mbus_share_uninit},
    {"attach a client", 0, {-1}, [] { return qzlib_client_init(record()); }, make_bus, unmake_client},
    {"open the channel", 0, {-1, QZLIB_ERR_NO_MEMORY}, open_channel, [] {}, qzlib_msg_exit},
    {"command", 3, {FAILED}, [] { return system_dumb("exit 3", 0); }},
    {"limited command", 3, {FAILED}, [] { return system_dumb("exit 3", 9); }},
    {"snapshot", 0, {}, take_snapshot},
    {"route to", 0, {-1}, [] { return qzlib_get_route_interface("10.0.0.1", text); }},
    {"note", 0, {-1}, [] { return srt_iip_save("f", "10.0.0.1"), srt_iip_get("f", text); }},
    {"ask the daemon", -1, {}, [] { return qzlib_do_route(1, 1, "10.0.0.0/8", "10.0.0.1", 0); }},
    {"latency", -1, {FAILED}, [] { return qzlib_get_tcp_latency("127.0.0.1", "9", 2000); }},
    {"resolve", 0, {-1}, [] { return qzlib_get_domain_ip("localhost", text); }, resolve},
    {"local socket", 0, {FAILED}, [] { return closed(qzlib_create_listen_unixdomain("/tmp/s")); }},
    {"listen", 0, {-1, FAILED}, [] { return closed(qzlib_create_listen_tcp("127.0.0.1", 0)); }},
    {"bind", 0, {FAILED}, [] { return closed(qzlib_create_listen_udp(nullptr, 0)); }},
    {"connect", 0, {-1, FAILED}, [] { return closed(qzlib_create_connect_udp("router", "9", 1)); }, resolve},
    {"interface",
     0,
     {FAILED},
     [] { return qzlib_get_interface_info("lo", text, 17, nullptr, 0, nullptr, 0); }},
    {"modem", 0, {-1, QZLIB_ERR_NO_FILE}, qzlib_update_modem_status_info_tab},
    {"cli", 0, {-1}, [] { return cli_find_paremeter("log", "level"); }},
    {"message", 0, {}, [] { return debug_msg(QZLIB_LOG_FATAL, "m", 1, "text"), 0; }},
    {"event", 0, {-1}, [] { return qzlib_event_unint(qzlib_event_init()); }},
    {"processes", 0, {1}, qzlib_process_is_unique}, // its parent has the same name
    {"version", 0, {-1}, [] { return qzlib_get_patch_version("program", text, 9); }},
};

// In a process of its own.
int run(const Row &row, int n)
{
    openmsg_com("/tmp/faults.log", 0, "f", 0);
    const std::string before = remains();
    row.before();
    const std::string files = read_file(CONFIG) + read_file(DEVICE);
    alarm(20); // a hang ends with it
    fault_in = n;
    const int result = row.call();
    const bool reached = std::exchange(fault_in, 0) == 0 && n > 0;
    alarm(0);
    row.after();
    closelog();
    const bool failed = result != row.success;
    EXPECT_TRUE(!failed || (reached && row.failures.contains(result))) << "result " << result;
    EXPECT_TRUE(!failed || read_file(CONFIG) + read_file(DEVICE) == files) << "files changed";
    const auto is_nothing_left = [&] { return remains() == before; };
    EXPECT_TRUE(eventually(is_nothing_left)) << before << "\nbecame " << remains();
    return reached ? 0 : NOT_REACHED;
}

TEST(Faults, of_the_system_leave_nothing_and_give_the_result_that_is_documented)
{
    const Cover classes("/sys/class");
    write_file("/sys/class/mtd/mtd0/name", "aboot\n");
    write_file("/sys/class/mtd/mtd0/size", "131072\n");
    write_file(DEVICE, std::string(0x20000, '\0'));
    write_file(CONFIG, "a=1\ngroup\n b=2\n");
    write_file("/tmp/config/cli.conf", "log msg-level debug\nlog\n level\n!\n");
    write_file("/tmp/modem.info", "a:1\n");
    write_file("/tmp/source_route/f.ip", "");
    write_file("/mnt/update/program", "\177ELF--qzversion:V1");
    sh("ip route add 10.0.0.0/8 dev lo");
    int faults = 0;
    for (const Row &row : ROWS) {
        ASSERT_EQ(run_child([&] { return run(row, 0); }), NOT_REACHED) << row.what << ", without a fault";
        int status = 0;
        for (int n = 1; status == 0; ++n) {
            status = run_child([&] { return run(row, n); });
            ASSERT_TRUE(status == 0 || status == NOT_REACHED) << row.what << ", call " << n << ": " << status;
            faults += status == 0;
        }
    }
    EXPECT_GT(faults, 100);
}

} // namespace
