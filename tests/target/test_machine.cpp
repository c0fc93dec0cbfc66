// What only a machine has, where the tests of the families make do with files in a box: flash
// behind the kernel's MTD layer, LEDs with the kernel's triggers, a watchdog that resets, a
// UART, addresses of 32 bits. Run outside any box by the stages in this folder.
#include "support/box.h"
#include "support/case.h"

#include <qzlib.h>

#include <sys/syscall.h>
#include <termios.h>

namespace
{

using namespace support;

std::string boot_env(const char *name)
{
    char value[64] = {};
    return qzlib_get_boot_env(name, value, sizeof value) == 0 ? value : "";
}

// Init has asked the kernel for this, so the other programs' passing means something.
TEST(Processor, unaligned_access_is_a_signal)
{
    EXPECT_EQ(sizeof(void *), 4U);
    EXPECT_EQ(sysconf(_SC_PAGESIZE), 4096) << "the object is linked for this size";
    alignas(8) static char bytes[16] = {};
    char *volatile odd = bytes + 1; // the compiler must not see it
    EXPECT_EXIT((void)*reinterpret_cast<volatile uint32_t *>(odd), testing::KilledBySignal(SIGBUS), "");
}

// The size in KiB of what is resident of the object's .bss, the mapping after its last one with a name.
long resident_bss_kib()
{
    const std::string maps = read_file("/proc/self/smaps");
    const size_t named = maps.find("Rss:", maps.rfind("libqzlib.so"));
    return std::stol(maps.substr(maps.find("Rss:", named + 1) + 4));
}

// Comes before what uses the environment.
TEST(Memory, environment_costs_nothing_until_it_is_used)
{
    debug_msg(QZLIB_LOG_DEBUG, "m", 1, "touches the log's state");
    EXPECT_LE(resident_bss_kib(), 16);
    EXPECT_EQ(qzlib_get_boot_env("x", nullptr, 0), -1);
    (void)boot_env("x");
    EXPECT_GE(resident_bss_kib(), 128) << "or the figure above means nothing";
}

TEST(Flash, environment_takes_what_is_set)
{
    EXPECT_EQ(read_file("/sys/class/mtd/mtd0/name"), "aboot\n");
    EXPECT_EQ(boot_env("serverip"), "");
    EXPECT_EQ(qzlib_set_boot_env("serverip", "192.168.1.10"), 0);
    EXPECT_EQ(qzlib_set_boot_env("baudrate", "57600"), 0);
    EXPECT_EQ(qzlib_set_boot_env("baudrate", "115200"), 0);
    EXPECT_EQ(boot_env("serverip"), "192.168.1.10");
}

TEST(FlashAfterReset, environment_is_what_was_set)
{
    EXPECT_EQ(boot_env("serverip"), "192.168.1.10");
    EXPECT_EQ(boot_env("baudrate"), "115200");
    EXPECT_EQ(qzlib_set_boot_env("serverip", nullptr), 0);
}

// The keyboard's, as "input0::numlock"; it has neither a trigger nor delays to begin with.
struct Led : testing::Test {
    std::string path = sh("echo -n /sys/class/leds/*numlock");
    std::string name = path.substr(path.rfind('/') + 1);
    std::string file(const char *attribute) const { return read_file(path + "/" + attribute); }
};

TEST_F(Led, kernel_shows_the_mode_that_was_set)
{
    ASSERT_NE(name, "");
    const Table<unsigned, const char *, const char *, const char *> cases = {
        {1, "[none]", "brightness", "1\n"},  {2, "[timer]", "delay_off", "100\n"},
        {3, "[timer]", "delay_on", "500\n"}, {0, "[none]", "brightness", "0\n"},
        {4, "[oneshot]", "invert", "0\n"},
    };
    for (const auto &[mode, trigger, attribute, value] : cases) {
        qzlib_led_name_set(name.c_str(), mode);
        EXPECT_NE(file("trigger").find(trigger), std::string::npos) << mode;
        EXPECT_EQ(file(attribute), value) << mode;
        // The call reads the first 255 characters; this kernel has more triggers than that.
        const bool in_reach = file("trigger").find(']') < 255;
        EXPECT_EQ(qzlib_led_name_get(name.c_str()), in_reach ? static_cast<int>(mode) : -1);
    }
}

TEST_F(Led, shots_reach_the_kernels_trigger)
{
    qzlib_led_name_set(name.c_str(), 4);
    EXPECT_EQ(qzlib_led_name_shot(name.c_str(), 2), 0);
    EXPECT_EQ(file("delay_on"), "50\n");
    EXPECT_EQ(file("delay_off"), "50\n");
    EXPECT_EQ(qzlib_led_name_shot(name.c_str(), 1), 0);
    EXPECT_EQ(file("invert"), "1\n");
    qzlib_led_name_set(name.c_str(), 2);
    EXPECT_EQ(qzlib_led_name_shot(name.c_str(), 2), 0);
    EXPECT_EQ(qzlib_led_name_get(name.c_str()), -1) << "a blink of no mode";
    EXPECT_EQ(qzlib_led_name_shot(name.c_str(), 3), 0);
    EXPECT_EQ(qzlib_led_name_get(name.c_str()), 2);
}

TEST(Watchdog, stopped_one_does_not_reset)
{
    EXPECT_EQ(qzlib_watchdog_feed(), 1);
    EXPECT_EQ(qzlib_watchdog_stop(), 0);
    sleep(4); // its period is 2 s
}

// The last one: nothing is printed after it.
TEST(WatchdogReset, fed_once_it_resets_the_machine)
{
    EXPECT_EQ(qzlib_watchdog_feed(), 1);
    sleep(20);
    FAIL() << "still running";
}

TEST(CommandLine, processor_id_and_boot_version_come_from_it)
{
    char version[256] = {};
    EXPECT_EQ(qzlib_get_cpuid(), 0x1a2b3c4dU);
    EXPECT_EQ(qzlib_get_device_bootversion(version), 0);
    EXPECT_STREQ(version, "1.4.7");
}

// The clock of this program's libc calls ends in 2038, the library's does not.
TEST(Clock, log_goes_on_after_2038)
{
    const int64_t in_2040[] = {2'208'988'800, 0};
    timespec now{};
    clock_gettime(CLOCK_REALTIME, &now);
    ASSERT_EQ(syscall(SYS_clock_settime64, CLOCK_REALTIME, in_2040), 0);
    openmsg_com("/tmp/clock.log", 0, "id", 0);
    debug_msg(QZLIB_LOG_ERROR, "m", 1, "x");
    clock_settime(CLOCK_REALTIME, &now);
    EXPECT_EQ(read_file("/tmp/clock.log").substr(0, 12), "[2040-01-01 ");
}

TEST(SerialLine, modem_on_the_uart_answers)
{
    const int fd = dev_init("/dev/ttyS1", O_RDWR | O_NOCTTY | O_NONBLOCK, 115200);
    ASSERT_GT(fd, 0);
    struct termios settings = {};
    ASSERT_EQ(tcgetattr(fd, &settings), 0);
    EXPECT_EQ(cfgetospeed(&settings), static_cast<speed_t>(B115200));
    EXPECT_NE(settings.c_cflag & CRTSCTS, 0U);
    char answer[256];
    EXPECT_EQ(chat_send_expect(fd, "ATE0", "OK", 10, 0), 1);
    EXPECT_GT(chat_send_read(fd, "AT", answer, sizeof answer, 2, 0), 0);
    EXPECT_STREQ(answer, "\r\nOK\r\n");
    EXPECT_EQ(dev_close(fd), 0);
}

} // namespace
