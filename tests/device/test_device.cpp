#include "support/case.h"
#include "support/syscall_trace.h"

#include <linux/watchdog.h>
#include <qzlib.h>

namespace
{

using namespace support;
constexpr const char *WATCHDOG = "/dev/mdm9x07_watchdog";

// What a function says as text, "-1" when it fails.
template <auto FUNCTION>
std::string said()
{
    if constexpr (std::is_invocable_v<decltype(FUNCTION)>)
        return std::to_string(FUNCTION());
    else {
        const std::string kept(256, '#');
        std::string out = kept;
        const int result = FUNCTION(out.data());
        EXPECT_TRUE(result == 0 || (result == -1 && out == kept)) << "written on failure";
        EXPECT_EQ(FUNCTION(nullptr), -1);
        return result == 0 ? out.c_str() : "-1";
    }
}

int value_of_k(char *out)
{
    EXPECT_EQ(qzlib_get_device_system_info(nullptr, out), -1);
    return qzlib_get_device_system_info("k", out);
}

struct Fact {
    const char *path;
    std::string (*read)();
    const char *without_file = "-1";
};

TEST(Facts, are_read_from_files_and_of_the_build)
{
    const Cover proc("/proc"), devices("/sys/devices/virtual"); // not every machine's has all of these files
    const Fact k = {"/tmp/device.info", said<value_of_k>};
    const Fact hardware = {k.path, said<qzlib_get_device_hwversion>};
    const Fact number = {k.path, said<qzlib_get_device_sn>};
    const Fact model = {k.path, said<qzlib_get_device_model>};
    const Fact kernel = {"/proc/version", said<qzlib_get_device_kernelversion>};
    const Fact boot = {"/proc/cmdline", said<qzlib_get_device_bootversion>};
    const Fact cpu_id = {boot.path, said<qzlib_get_cpuid>, "0"};
    const Fact module = {"/proc/device-tree/model", said<qzlib_get_moduel_type>, "0"};
    const Fact board = {module.path, said<qzlib_get_board_type>, "0"};
    const Fact web = {"/data/www/version", said<qzlib_get_device_webversion>};
    const Fact heat = {"/sys/devices/virtual/thermal/thermal_zone0/temp", said<qzlib_get_cputempture>};
    for (const Fact &fact : {k, hardware, number, model, kernel, boot, cpu_id, module, board, web, heat})
        EXPECT_EQ(fact.read(), fact.without_file) << fact.path;

    const Table<Fact, std::string, std::string> cases = {
        {k, "k:a:b\n", "a"},
        {k, "k::b\n", ""},
        {k, "k:\n", ""},
        {k, "a:k\nk:v\n", "k"}, // the key anywhere in the line
        {k, "other:1\nk:2\nk:3\n", "2"},
        {k, "j:1\nk:2", "-1"},          // last line without line end
        {k, "no colon k\nk:v\n", "-1"}, // the first line with the key decides
        {k, "k:" + std::string(300, 'x') + "\n", std::string(253, 'x')}, // a line's 255 at a time
        {hardware, std::string(255, 'x') + "HW_Version:V1.0\n", "V1.0"},
        {number, "x:1\ndevid: 123456\n", "123456"},
        {model, "devmodel:\tR1 \r\n", "R1"},
        {kernel, "Linux version 3.18\nkernel_version=3.18 K31\nmore\n", "3.18 K31"},
        {boot, "quiet boot_version=1.4.2 x\n", "1.4.2"},
        {boot, "boot_version= x", ""},
        {boot, std::string(250, 'x') + " boot_version=1", "-1"}, // past the 256 bytes
        {boot, std::string(240, 'x') + " boot_version=123456", "12"},
        {cpu_id, "androidboot.serialno=1a2B3c4Dzz\n", "439041101"},
        {cpu_id, "androidboot.serialno=123456789a", "4294967295"},
        {cpu_id, std::string(490, 'x') + " androidboot.serialno=1234", "0"}, // the key ends the 512 bytes
        {cpu_id, std::string(489, 'x') + " androidboot.serialno=1234", "1"},
        {module, "Router K31 with EC20", "1"},
        {module, "SLM750 or EC20", "1"}, // the table's order, not the text's
        {module, "SLM750 on K52R", "2"},
        {module, "SIM7600CE-K52T\n", "3"},
        {module, "EC2", "0"},
        {board, std::string("Router K31\0", 11), "1"},
        {board, "SLM750 on K52R", "2"},
        {board, "SIM7600CE-K52T\n", "3"},
        {board, std::string(126, 'x') + "K31", "0"}, // past the 128 bytes
        {web, " 1.2.3\r\n", "1.2.3"},
        {web, std::string(100, 'v'), std::string(64, 'v')},
        {heat, "45000\n1\n", "45000"},
        {heat, "-7", "-7"},
        {heat, "", "-1"},
    };
    for (const auto &[fact, content, value] : cases) {
        write_file(fact.path, content);
        EXPECT_EQ(fact.read(), value) << content;
    }
    EXPECT_EQ(said<qzlib_get_device_softversion>(), "V3.2.0_1904151627");
    EXPECT_EQ(said<qzlib_get_device_build_time>(), "V3.2.0_1904151627");
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

TEST(Watchdog, device_is_opened_once_fed_by_one_byte_and_stopped_by_a_request)
{
    const size_t descriptors = open_descriptors();
    EXPECT_EQ(qzlib_watchdog_feed(), -1);
    EXPECT_EQ(qzlib_watchdog_stop(), -1);
    EXPECT_EQ(open_descriptors(), descriptors);
    write_file(WATCHDOG, "");
    const auto calls = trace_writes(WATCHDOG, [] {
        qzlib_watchdog_enable();
        qzlib_watchdog_disable();
        qzlib_watchdog_feed();
        qzlib_watchdog_stop();
    });
    const std::string stop = " ioctl " + std::to_string(WDIOC_SETOPTIONS) + " 1";
    EXPECT_EQ(calls, (std::vector<std::string>{"=\n", stop}));
    write_file(WATCHDOG, "");
    const int out = dup(1);
    close(0); // descriptor 0, next to be given, means "not open"
    close(1); // and what is printed is not for the device
    for (int i = 0; i < 3; ++i)
        EXPECT_EQ(qzlib_watchdog_feed(), 1);
    EXPECT_EQ(read_file(WATCHDOG), "\n\n\n");
    EXPECT_LT(fcntl(1, F_GETFD), 0);
    EXPECT_EQ(qzlib_watchdog_stop(), -1) << "a plain file knows no such request";
    EXPECT_LT(fcntl(0, F_GETFD), 0);
    EXPECT_EQ(dup2(out, 1) + close(out), 1);
    EXPECT_EQ(open_descriptors(), descriptors);
}

} // namespace
