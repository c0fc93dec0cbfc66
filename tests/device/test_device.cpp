#include "support/box.h"
#include "support/files.h"
#include "support/syscall_trace.h"

#include <gtest/gtest.h>
#include <linux/watchdog.h>
#include <qzlib.h>

#include <cerrno>
#include <cstring>

namespace
{

using support::write_file;

constexpr const char *DEVICE_INFO = "/tmp/device.info";
constexpr const char *WATCHDOG = "/dev/mdm9x07_watchdog";

// The text that a reader gives, or "-1".
std::string text_of(int (*reader)(char *))
{
    char text[256];
    memset(text, '#', sizeof text);
    const int result = reader(text);
    if (result == 0)
        return {text, strnlen(text, sizeof text)};
    EXPECT_EQ(result, -1);
    EXPECT_EQ(std::string(text, sizeof text), std::string(sizeof text, '#')) << "written on failure";
    return "-1";
}

TEST(DeviceInfo, keys_of_the_device_information_file)
{
    EXPECT_EQ(text_of(qzlib_get_device_hwversion), "-1") << "no file";
    write_file(DEVICE_INFO, "HW_Version:V1.0\ndevid: 123456\ndevmodel:\tR1 \r\n");
    EXPECT_EQ(text_of(qzlib_get_device_hwversion), "V1.0");
    EXPECT_EQ(text_of(qzlib_get_device_sn), "123456");
    EXPECT_EQ(text_of(qzlib_get_device_model), "R1");
    EXPECT_EQ(text_of([](char *out) { return qzlib_get_device_system_info("absent", out); }), "-1");
    char value[256];
    EXPECT_EQ(qzlib_get_device_system_info(nullptr, value), -1);
    EXPECT_EQ(qzlib_get_device_system_info("devid", nullptr), -1);
    EXPECT_EQ(qzlib_get_device_hwversion(nullptr), -1);
}

TEST(DeviceInfo, value_stands_between_the_first_two_colons)
{
    const std::string long_value(300, 'x');
    const struct {
        std::string content;
        const char *key;
        std::string expected;
    } cases[] = {
        {"k:a:b\n", "k", "a"},
        {"k::b\n", "k", ""},
        {"k:\n", "k", ""},
        {"a:k\nk:v\n", "k", "k"}, // the key anywhere in the line
        {"xky : v \n", "k", "v"},
        {"other:1\nk:2\nk:3\n", "k", "2"},
        {"k:v", "k", "-1"}, // last line without line end
        {"k:1\nk2:2", "k2", "-1"},
        {"no colon k\nk:v\n", "k", "-1"}, // the first line with the key decides
        {"", "k", "-1"},
        {"k:" + long_value + "\n", "k", std::string(253, 'x')}, // 255 characters of a line at a time
        {std::string(255, 'x') + "k:v\n", "k", "v"},
    };
    for (const auto &c : cases) {
        write_file(DEVICE_INFO, c.content);
        char value[256] = "-1"; // untouched on failure
        EXPECT_EQ(qzlib_get_device_system_info(c.key, value), c.expected == "-1" ? -1 : 0) << c.content;
        EXPECT_EQ(value, c.expected) << c.content;
    }
}

TEST(KernelFiles, versions_and_cpu_id)
{
    const support::Cover proc("/proc"); // this machine's /proc has no device tree
    EXPECT_EQ(text_of(qzlib_get_device_bootversion), "-1");
    EXPECT_EQ(text_of(qzlib_get_device_kernelversion), "-1");
    EXPECT_EQ(qzlib_get_cpuid(), 0U);

    write_file("/proc/version", "Linux version 3.18\nkernel_version=3.18 K31\nmore\n");
    EXPECT_EQ(text_of(qzlib_get_device_kernelversion), "3.18 K31");
    const struct {
        std::string line, boot_version;
        unsigned cpu_id;
    } cases[] = {
        {"quiet boot_version=1.4.2 androidboot.serialno=1a2b3c4d x\n", "1.4.2", 0x1A2B3C4D},
        {"boot_version=2", "2", 0},
        {"boot_version=2\n", "2", 0},
        {"boot_version= androidboot.serialno=FFzz", "", 0xFF},
        {"boot_version", "-1", 0},
        {"", "-1", 0},
        {"androidboot.serialno=123456789a", "-1", 0xFFFFFFFF},
        {std::string(250, 'x') + " boot_version=1", "-1", 0}, // past the 256 bytes
        {std::string(240, 'x') + " boot_version=123456", "12", 0},
        {std::string(490, 'x') + " androidboot.serialno=1234", "-1", 0}, // the key ends with the 512 bytes
        {std::string(488, 'x') + " androidboot.serialno=1234", "-1", 0x12},
        {std::string(5000, 'x'), "-1", 0},
    };
    for (const auto &c : cases) {
        write_file("/proc/cmdline", c.line);
        EXPECT_EQ(text_of(qzlib_get_device_bootversion), c.boot_version) << c.line;
        EXPECT_EQ(qzlib_get_cpuid(), c.cpu_id) << c.line;
    }
    EXPECT_EQ(qzlib_get_device_bootversion(nullptr), -1);
    EXPECT_EQ(qzlib_get_device_kernelversion(nullptr), -1);
}

TEST(KernelFiles, module_and_board_from_the_device_tree)
{
    const support::Cover proc("/proc");
    EXPECT_EQ(qzlib_get_moduel_type(), 0);
    EXPECT_EQ(qzlib_get_board_type(), 0);
    const struct {
        std::string model;
        int module, board;
    } cases[] = {
        {std::string("Router K31 with EC20\0", 21), 1, 1},
        {"SLM750 on K52R", 2, 2},
        {"SIM7600CE-K52T\n", 3, 3},
        {"SLM750 or EC20, K52T or K31", 1, 1}, // the table's order, not the text's
        {"EC2 K5", 0, 0},
        {"", 0, 0},
        {std::string(125, 'x') + "EC20", 0, 0}, // past the 128 bytes
        {std::string(124, 'x') + "EC20K31", 1, 0},
    };
    for (const auto &c : cases) {
        write_file("/proc/device-tree/model", c.model);
        EXPECT_EQ(qzlib_get_moduel_type(), c.module) << c.model;
        EXPECT_EQ(qzlib_get_board_type(), c.board) << c.model;
    }
}

TEST(Files, web_version_and_temperature)
{
    EXPECT_EQ(text_of(qzlib_get_device_webversion), "-1");
    EXPECT_EQ(qzlib_get_device_webversion(nullptr), -1);
    for (const auto &[content, expected] : {std::pair<std::string, std::string>{" 1.2.3\r\n", "1.2.3"},
                                            {"1.2", "1.2"},
                                            {"", ""},
                                            {std::string(100, 'v'), std::string(64, 'v')}}) {
        write_file("/data/www/version", content);
        EXPECT_EQ(text_of(qzlib_get_device_webversion), expected);
    }

    const support::Cover devices("/sys/devices/virtual");
    const std::string temperature = "/sys/devices/virtual/thermal/thermal_zone0/temp";
    EXPECT_EQ(qzlib_get_cputempture(), -1);
    for (const auto &[content, expected] :
         {std::pair<const char *, int>{"45\n", 45}, {"-7", -7}, {"45000\n1\n", 45000}}) {
        write_file(temperature, content);
        EXPECT_EQ(qzlib_get_cputempture(), expected);
    }
    remove(temperature.c_str());
    ASSERT_EQ(mkdir(temperature.c_str(), 0755), 0); // opens, and then cannot be read
    EXPECT_EQ(qzlib_get_cputempture(), -1);
}

TEST(Constants, fixed_texts)
{
    EXPECT_EQ(text_of(qzlib_get_device_softversion), "V3.2.0_1904151627");
    EXPECT_EQ(text_of(qzlib_get_device_build_time), "V3.2.0_1904151627");
    EXPECT_EQ(qzlib_get_device_softversion(nullptr), -1);
    EXPECT_EQ(qzlib_get_device_build_time(nullptr), -1);
    EXPECT_STREQ(qzlib_get_cpu_vender(), "Qualcomm");
    EXPECT_STREQ(qzlib_get_cpu_model(), "MDM9607");
    EXPECT_STREQ(qzlib_get_cpu_freq(), "1GHz");
}

TEST(SerialNumber, is_taken_from_the_settings)
{
    const auto settings = [](const std::string &script) {
        write_file("/tmp/bin/nvram", "#!/bin/sh\n[ \"$*\" = show ] || exit 1\n" + script);
        chmod("/tmp/bin/nvram", 0755);
    };
    setenv("PATH", ("/tmp/bin:" + std::string(getenv("PATH"))).c_str(), 1);
    const size_t descriptors = support::open_descriptors();
    char out[16];
    EXPECT_EQ(qzlib_get_dev_sn(out, 0), -257);
    EXPECT_EQ(qzlib_get_dev_sn(out, -1), -257);
    EXPECT_EQ(qzlib_get_dev_sn(nullptr, 16), -257);
    const struct {
        const char *script;
        int size;
        std::string expected; // all of out, which is filled with '#'
    } cases[] = {
        {"echo a=1; echo 'hd_number= SN42 '; echo b=2", 16, std::string("SN42") + std::string(12, '\0')},
        {"echo hd_number=SN42=x", 5, std::string("SN42\0", 5) + std::string(11, '#')},
        {"echo hd_number=SN42", 4, "SN42############"}, // fills the bound: not terminated
        {"echo my_hd_number2=SN42", 2, "SN##############"},
        {"printf hd_number=SN42", 16, ""},
        {"echo hd_number", 16, ""},
        {"echo other=1", 16, ""},
        {"exit 3", 16, ""},
    };
    for (const auto &c : cases) {
        settings(c.script);
        memset(out, '#', sizeof out);
        EXPECT_EQ(qzlib_get_dev_sn(out, c.size), c.expected.empty() ? -1 : 0) << c.script;
        EXPECT_EQ(std::string(out, sizeof out), c.expected.empty() ? std::string(16, '#') : c.expected)
            << c.script;
    }
    EXPECT_EQ(support::open_descriptors(), descriptors);
}

TEST(Watchdog, one_byte_feeds_and_a_request_stops)
{
    write_file(WATCHDOG, "");
    const std::string disable = std::to_string(WDIOC_SETOPTIONS) + " 1";
    EXPECT_EQ(support::trace_writes("/dev/",
                                    [] {
                                        qzlib_watchdog_enable();
                                        qzlib_watchdog_disable();
                                        qzlib_watchdog_feed();
                                        qzlib_watchdog_feed();
                                        qzlib_watchdog_stop();
                                    }),
              (std::vector<std::string>{"mdm9x07_watchdog=\n", "mdm9x07_watchdog=\n",
                                        "mdm9x07_watchdog ioctl " + disable}));
}

TEST(Watchdog, device_is_opened_once_and_a_failure_tried_again)
{
    const size_t descriptors = support::open_descriptors();
    EXPECT_EQ(qzlib_watchdog_feed(), -1);
    EXPECT_EQ(qzlib_watchdog_stop(), -1);
    EXPECT_EQ(support::open_descriptors(), descriptors);
    write_file(WATCHDOG, "");
    close(0); // descriptor 0, next to be given, means "not open"
    for (int i = 0; i < 3; ++i)
        EXPECT_EQ(qzlib_watchdog_feed(), 1);
    EXPECT_EQ(support::read_file(WATCHDOG), "\n\n\n");
    errno = 0;
    EXPECT_EQ(qzlib_watchdog_stop(), -1) << "a plain file knows no such request";
    EXPECT_EQ(errno, ENOTTY);
    EXPECT_LT(fcntl(0, F_GETFD), 0);
    EXPECT_EQ(support::open_descriptors(), descriptors);
}

} // namespace
