#include "support/box.h"
#include "support/case.h"
#include "support/syscall_trace.h"

#include <linux/watchdog.h>
#include <qzlib.h>

namespace
{

using namespace support;
constexpr const char *DEVICE_INFO = "/tmp/device.info";
constexpr const char *WATCHDOG = "/dev/mdm9x07_watchdog";

using Reader = int (*)(char *);

// The text that a reader gives, or "-1".
std::string text_of(Reader reader)
{
    std::string text(256, '#');
    const int result = reader(text.data());
    EXPECT_TRUE(result == 0 || (result == -1 && text == std::string(256, '#'))) << "written on failure";
    EXPECT_EQ(reader(nullptr), -1);
    return result == 0 ? text.c_str() : "-1";
}

TEST(DeviceInfo, value_stands_between_the_first_two_colons)
{
    EXPECT_EQ(text_of(qzlib_get_device_hwversion), "-1") << "no file";
    write_file(DEVICE_INFO, "HW_Version:V1.0\ndevid: 123456\ndevmodel:\tR1 \r\n");
    EXPECT_EQ(text_of(qzlib_get_device_hwversion), "V1.0");
    EXPECT_EQ(text_of(qzlib_get_device_sn), "123456");
    EXPECT_EQ(text_of(qzlib_get_device_model), "R1");

    const Table<std::string, const char *, std::string> cases = {
        {"k:a:b\n", "k", "a"},
        {"k::b\n", "k", ""},
        {"k:\n", "k", ""},
        {"a:k\nk:v\n", "k", "k"}, // the key anywhere in the line
        {"xky : v \n", "k", "v"},
        {"other:1\nk:2\nk:3\n", "k", "2"},
        {"k:1\nk2:2", "k2", "-1"},        // last line without line end
        {"no colon k\nk:v\n", "k", "-1"}, // the first line with the key decides
        {"", "k", "-1"},
        {"k:" + std::string(300, 'x') + "\n", "k", std::string(253, 'x')}, // a line's 255 at a time
        {std::string(255, 'x') + "k:v\n", "k", "v"},
        {"k:v\n", nullptr, "-1"},
    };
    for (const auto &[content, key, expected] : cases) {
        write_file(DEVICE_INFO, content);
        char value[256] = "-1"; // untouched on failure
        EXPECT_EQ(qzlib_get_device_system_info(key, value), expected == "-1" ? -1 : 0) << content;
        EXPECT_EQ(value, expected) << content;
    }
    EXPECT_EQ(qzlib_get_device_system_info("k", nullptr), -1);
}

TEST(KernelFiles, versions_and_cpu_id)
{
    const Cover proc("/proc"); // this machine's /proc has no device tree
    EXPECT_EQ(text_of(qzlib_get_device_bootversion), "-1");
    EXPECT_EQ(text_of(qzlib_get_device_kernelversion), "-1");
    EXPECT_EQ(qzlib_get_cpuid(), 0U);

    write_file("/proc/version", "Linux version 3.18\nkernel_version=3.18 K31\nmore\n");
    EXPECT_EQ(text_of(qzlib_get_device_kernelversion), "3.18 K31");
    const Table<std::string, std::string, unsigned> cases = {
        {"quiet boot_version=1.4.2 androidboot.serialno=1a2b3c4d x\n", "1.4.2", 0x1A2B3C4D},
        {"boot_version=2", "2", 0},
        {"boot_version= androidboot.serialno=FFzz\n", "", 0xFF},
        {"boot_version", "-1", 0},
        {"", "-1", 0},
        {"androidboot.serialno=123456789a", "-1", 0xFFFFFFFF},
        {std::string(250, 'x') + " boot_version=1", "-1", 0}, // past the 256 bytes
        {std::string(240, 'x') + " boot_version=123456", "12", 0},
        {std::string(490, 'x') + " androidboot.serialno=1234", "-1", 0}, // the key ends with the 512 bytes
        {std::string(488, 'x') + " androidboot.serialno=1234", "-1", 0x12},
        {std::string(5000, 'x'), "-1", 0},
    };
    for (const auto &[line, boot_version, cpu_id] : cases) {
        write_file("/proc/cmdline", line);
        EXPECT_EQ(text_of(qzlib_get_device_bootversion), boot_version) << line;
        EXPECT_EQ(qzlib_get_cpuid(), cpu_id) << line;
    }
}

TEST(KernelFiles, module_and_board_from_the_device_tree)
{
    const Cover proc("/proc");
    EXPECT_EQ(qzlib_get_moduel_type(), 0);
    EXPECT_EQ(qzlib_get_board_type(), 0);
    const Table<std::string, int, int> cases = {
        {std::string("Router K31 with EC20\0", 21), 1, 1},
        {"SLM750 on K52R", 2, 2},
        {"SIM7600CE-K52T\n", 3, 3},
        {"SLM750 or EC20, K52T or K31", 1, 1}, // the table's order, not the text's
        {"EC2 K5", 0, 0},
        {"", 0, 0},
        {std::string(125, 'x') + "EC20", 0, 0}, // past the 128 bytes
        {std::string(124, 'x') + "EC20K31", 1, 0},
    };
    for (const auto &[model, module, board] : cases) {
        write_file("/proc/device-tree/model", model);
        EXPECT_EQ(qzlib_get_moduel_type(), module) << model;
        EXPECT_EQ(qzlib_get_board_type(), board) << model;
    }
}

TEST(Files, web_version_and_temperature)
{
    EXPECT_EQ(text_of(qzlib_get_device_webversion), "-1");
    const Table<std::string, std::string> versions = {
        {" 1.2.3\r\n", "1.2.3"}, {"1.2", "1.2"}, {"", ""}, {std::string(100, 'v'), std::string(64, 'v')}};
    for (const auto &[content, expected] : versions) {
        write_file("/data/www/version", content);
        EXPECT_EQ(text_of(qzlib_get_device_webversion), expected);
    }

    const Cover devices("/sys/devices/virtual");
    const std::string temperature = "/sys/devices/virtual/thermal/thermal_zone0/temp";
    EXPECT_EQ(qzlib_get_cputempture(), -1);
    for (const auto &[content, expected] : Table<const char *, int>{{"-7", -7}, {"45000\n1\n", 45000}}) {
        write_file(temperature, content);
        EXPECT_EQ(qzlib_get_cputempture(), expected);
    }
    remove(temperature.c_str());
    ASSERT_EQ(mkdir(temperature.c_str(), 0755), 0); // opens, and then cannot be read
    EXPECT_EQ(qzlib_get_cputempture(), -1);

    EXPECT_EQ(text_of(qzlib_get_device_softversion), "V3.2.0_1904151627");
    EXPECT_EQ(text_of(qzlib_get_device_build_time), "V3.2.0_1904151627");
    EXPECT_STREQ(qzlib_get_cpu_vender(), "Qualcomm");
    EXPECT_STREQ(qzlib_get_cpu_model(), "MDM9607");
    EXPECT_STREQ(qzlib_get_cpu_freq(), "1GHz");
}

using SerialNumber = NothingLeft;

TEST_F(SerialNumber, is_taken_from_the_settings)
{
    // What `nvram show` prints, the size given, and all of the buffer of '#' if it succeeds.
    const Table<std::string, int, std::string> cases = {
        {"echo a=1; echo 'hd_number= SN42 '; echo b=2", 16, std::string("SN42") + std::string(12, '\0')},
        {"echo hd_number=SN42=x", 5, std::string("SN42\0", 5) + std::string(11, '#')},
        {"echo hd_number=SN42", 4, "SN42############"}, // fills the bound: not terminated
        {"echo my_hd_number2=SN42", 2, "SN##############"},
        {"printf hd_number=SN42", 16, ""},
        {"echo hd_number", 16, ""},
        {"exit 3", 16, ""},
    };
    for (const auto &[script, size, expected] : cases) {
        fake_command("nvram", "#!/bin/sh\n[ \"$*\" = show ] || exit 1\n" + script);
        std::string out(16, '#');
        EXPECT_EQ(qzlib_get_dev_sn(out.data(), size), expected.empty() ? -1 : 0) << script;
        EXPECT_EQ(out, expected.empty() ? std::string(16, '#') : expected) << script;
    }
    char out[16];
    for (const auto &[buffer, size] : {std::pair<char *, int>(out, 0), {out, -1}, {nullptr, 16}})
        EXPECT_EQ(qzlib_get_dev_sn(buffer, size), QZLIB_ERR_ARGUMENT);
}

TEST(Watchdog, one_byte_feeds_and_a_request_stops)
{
    write_file(WATCHDOG, "");
    const auto use = [] {
        qzlib_watchdog_enable();
        qzlib_watchdog_disable();
        qzlib_watchdog_feed();
        qzlib_watchdog_stop();
    };
    const std::string name = "mdm9x07_watchdog";
    EXPECT_EQ(
        trace_writes("/dev/", use),
        (std::vector<std::string>{name + "=\n", name + " ioctl " + std::to_string(WDIOC_SETOPTIONS) + " 1"}));
}

TEST(Watchdog, device_is_opened_once_and_a_failure_tried_again)
{
    const size_t descriptors = open_descriptors();
    EXPECT_EQ(qzlib_watchdog_feed(), -1);
    EXPECT_EQ(qzlib_watchdog_stop(), -1);
    EXPECT_EQ(open_descriptors(), descriptors);
    write_file(WATCHDOG, "");
    const int out = dup(1);
    close(0); // descriptor 0, next to be given, means "not open"
    close(1); // and what is printed is not for the device
    for (int i = 0; i < 3; ++i)
        EXPECT_EQ(qzlib_watchdog_feed(), 1);
    EXPECT_EQ(read_file(WATCHDOG), "\n\n\n");
    EXPECT_LT(fcntl(1, F_GETFD), 0);
    errno = 0;
    EXPECT_EQ(qzlib_watchdog_stop(), -1) << "a plain file knows no such request";
    EXPECT_EQ(errno, ENOTTY);
    EXPECT_LT(fcntl(0, F_GETFD), 0);
    EXPECT_EQ(dup2(out, 1) + close(out), 1);
    EXPECT_EQ(open_descriptors(), descriptors);
}

} // namespace
