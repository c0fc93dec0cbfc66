#include "support/box.h"
#include "support/files.h"
#include "support/scale.h"

#include <gtest/gtest.h>
#include <linux/loop.h>
#include <qzlib.h>

#include <array>
#include <csignal>
#include <cstring>
#include <dlfcn.h>
#include <fcntl.h>
#include <map>
#include <random>
#include <sys/file.h>
#include <sys/ioctl.h>
#include <sys/resource.h>
#include <sys/sysmacros.h>
#include <thread>
#include <vector>

namespace
{

using support::read_file;
using support::write_file;
using Entries = std::vector<std::string>;

constexpr size_t BLOCK = 0x20000;
constexpr size_t DATA = BLOCK - 4;
constexpr size_t OFFSET = 0x40000;
constexpr const char *DEVICE = "/dev/mtdblock1";

// zlib's own CRC-32, under its second name and out of the way of the library's crc32.
uint32_t zlib_crc(const void *data, size_t size)
{
    using Function = unsigned long (*)(unsigned long, const void *, size_t);
    static const auto function =
        reinterpret_cast<Function>(dlsym(dlopen("libz.so.1", RTLD_NOW | RTLD_LOCAL), "crc32_z"));
    return static_cast<uint32_t>(function(0, data, size));
}

std::string with_checksum(std::string data)
{
    data.resize(DATA, '\0');
    const uint32_t checksum = zlib_crc(data.data(), data.size());
    return std::string(reinterpret_cast<const char *>(&checksum), 4) + data;
}

std::string block_of(const Entries &entries)
{
    std::string data;
    for (const std::string &entry : entries)
        data += entry + '\0';
    return with_checksum(data);
}

std::string flash_block()
{
    return read_file(DEVICE).substr(OFFSET);
}

void flash(const std::string &block)
{
    const int fd = open(DEVICE, O_WRONLY);
    ASSERT_EQ(pwrite(fd, block.data(), block.size(), OFFSET), static_cast<ssize_t>(block.size()));
    close(fd);
}

void collect(void *ctx, const char *entry)
{
    static_cast<Entries *>(ctx)->push_back(entry);
}

Entries listed(const char *name = nullptr)
{
    Entries entries;
    EXPECT_EQ(qzlib_print_boot_env(name, collect, &entries), 0);
    return entries;
}

std::string value_of(const char *name)
{
    char value[256] = "untouched";
    return qzlib_get_boot_env(name, value, sizeof value) == 0 ? value : "-1";
}

void make_partition(int number, const std::string &name, const std::string &size)
{
    const std::string directory = "/sys/class/mtd/mtd" + std::to_string(number) + "/";
    write_file(directory + "name", name);
    write_file(directory + "size", size);
}

// A router whose second partition holds the block, on a file; blank.
struct BootEnv : testing::Test {
    BootEnv()
    {
        make_partition(0, "boot\n", "262144\n");
        make_partition(1, "aboot\n", std::to_string(OFFSET + BLOCK) + "\n");
        write_file(DEVICE, std::string(OFFSET + BLOCK, '\xFF'));
    }
    support::Cover classes{"/sys/class"};
    size_t descriptors = support::open_descriptors();
    ~BootEnv() override { EXPECT_EQ(support::open_descriptors(), descriptors); }
};

TEST(Crc32, equals_zlib_at_every_length_and_alignment)
{
    EXPECT_EQ(crc32(0, reinterpret_cast<const unsigned char *>("123456789"), 9), 0xCBF43926U);
    EXPECT_EQ(crc32(0, nullptr, 0), 0U);
    std::vector<unsigned char> buffer(300'000);
    std::mt19937 random(1);
    for (unsigned char &byte : buffer)
        byte = static_cast<unsigned char>(random());
    for (size_t alignment = 0; alignment < 8; ++alignment) {
        for (unsigned length = 0; length <= 4096; ++length)
            ASSERT_EQ(crc32(0, &buffer[alignment], length), zlib_crc(&buffer[alignment], length))
                << length << " at " << alignment;
        for (const unsigned length : {8191U, 8192U, 32767U, 32768U, 36871U, 131068U, 131072U, 299'990U}) {
            const uint32_t whole = zlib_crc(&buffer[alignment], length);
            EXPECT_EQ(crc32(0, &buffer[alignment], length), whole) << length << " at " << alignment;
            const unsigned cut = static_cast<unsigned>(random()) % length;
            const uint32_t start = crc32(0, &buffer[alignment], cut);
            EXPECT_EQ(crc32(start, &buffer[alignment + cut], length - cut), whole) << "continued at " << cut;
        }
    }
}

TEST(Crc32, of_files)
{
    std::string content(70'001, 'x');
    for (size_t i = 0; i < content.size(); ++i)
        content[i] = static_cast<char>(i * 7 + i / 256);
    write_file("/tmp/f", content);
    EXPECT_EQ(crc32file("/tmp/f"), zlib_crc(content.data(), content.size()));
    write_file("/tmp/empty", "");
    EXPECT_EQ(crc32file("/tmp/empty"), 0U);
    EXPECT_EQ(crc32file("/tmp/absent"), 0U);
    EXPECT_EQ(crc32file(nullptr), 0U);
    testing::internal::CaptureStderr();
    EXPECT_EQ(crc32file("/tmp"), 0U); // opens, and then cannot be read
    EXPECT_EQ(testing::internal::GetCapturedStderr(), "/tmp: Is a directory\n");
}

TEST_F(BootEnv, sets_leave_exactly_the_entries_expected)
{
    EXPECT_EQ(value_of("a"), "-1") << "blank flash is empty";
    EXPECT_EQ(qzlib_set_boot_env("absent", nullptr), 0);
    EXPECT_EQ(flash_block(), block_of({})) << "written although there was nothing to delete";
    const struct {
        const char *name, *value;
        Entries expected;
    } steps[] = {
        {"baudrate", "9600", {"baudrate=9600"}},
        {"bootdelay", "3", {"baudrate=9600", "bootdelay=3"}},
        {"x", "", {"baudrate=9600", "bootdelay=3", "x="}},
        {"baudrate", "115200", {"bootdelay=3", "x=", "baudrate=115200"}}, // replaced: to the end
        {"baudrate", "115200", {"bootdelay=3", "x=", "baudrate=115200"}},
        {"x", nullptr, {"bootdelay=3", "baudrate=115200"}},    // from the middle
        {"boot", nullptr, {"bootdelay=3", "baudrate=115200"}}, // the start of a name only
        {"baudrate", nullptr, {"bootdelay=3"}},                // the last one
        {"a=b", "c", {"bootdelay=3", "a=b=c"}},
        {"a=other", "d", {"bootdelay=3", "a=other=d"}}, // matches as far as the '='
        {"", "v", {"bootdelay=3", "a=other=d", "=v"}},
        {"bootdelay", nullptr, {"a=other=d", "=v"}},
        {"", nullptr, {"a=other=d"}},
        {"a", nullptr, {}},
    };
    for (const auto &step : steps) {
        ASSERT_EQ(qzlib_set_boot_env(step.name, step.value), 0);
        EXPECT_EQ(flash_block(), block_of(step.expected)) << step.name;
    }
    EXPECT_EQ(read_file(DEVICE).substr(0, OFFSET), std::string(OFFSET, '\xFF')) << "outside the block";
    EXPECT_EQ(qzlib_set_boot_env(nullptr, "v"), -1);
}

TEST_F(BootEnv, reading_finds_the_first_entry_of_the_whole_name)
{
    flash(block_of({"bootdelay=3", "boot=a=b", "boot=second", "empty=", "noequals"}));
    EXPECT_EQ(listed(), (Entries{"bootdelay=3", "boot=a=b", "boot=second", "empty=", "noequals"}));
    EXPECT_EQ(listed("boot"), Entries{"boot=a=b"});
    EXPECT_EQ(listed("boot=x"), Entries{"boot=a=b"});
    EXPECT_EQ(listed("bootd"), Entries{});
    EXPECT_EQ(listed("noequals"), Entries{});
    EXPECT_EQ(value_of("bootdelay"), "3");
    EXPECT_EQ(value_of("boot"), "a=b");
    EXPECT_EQ(value_of("empty"), "");
    EXPECT_EQ(value_of("bootdelay2"), "-1");
    testing::internal::CaptureStdout();
    EXPECT_EQ(qzlib_print_boot_env(nullptr, nullptr, nullptr), 0);
    EXPECT_EQ(qzlib_print_boot_env("empty", nullptr, nullptr), 0);
    fflush(stdout);
    EXPECT_EQ(testing::internal::GetCapturedStdout(),
              "bootdelay=3\nboot=a=b\nboot=second\nempty=\nnoequals\nempty=\n");

    char value[8];
    const struct {
        size_t len;
        std::string expected;
    } cases[] = {{0, "########"},
                 {2, "a=######"},
                 {3, "a=b#####"},
                 {4, std::string("a=b\0####", 8)},
                 {6, std::string("a=b\0\0\0##", 8)}};
    for (const auto &c : cases) {
        memset(value, '#', sizeof value);
        EXPECT_EQ(qzlib_get_boot_env("boot", value, c.len), 0);
        EXPECT_EQ(std::string(value, sizeof value), c.expected) << c.len;
    }
    EXPECT_EQ(qzlib_get_boot_env(nullptr, value, 8), -1);
    EXPECT_EQ(qzlib_get_boot_env("boot", nullptr, 8), -1);
}

TEST_F(BootEnv, cleared_or_spoilt_block_is_empty)
{
    const std::string good = block_of({"a=1", "b=2"});
    for (const size_t at : std::initializer_list<size_t>{0, 3, 4, 9, 11, 12, 65536, BLOCK - 1}) {
        std::string spoilt = good;
        spoilt[at] = static_cast<char>(spoilt[at] ^ 1);
        flash(spoilt);
        EXPECT_EQ(value_of("a"), "-1") << at;
    }
    flash(good);
    EXPECT_EQ(value_of("b"), "2");
    EXPECT_EQ(qzlib_clear_boot_env(), 0);
    EXPECT_EQ(flash_block(), std::string(BLOCK, '\0'));
    EXPECT_EQ(value_of("b"), "-1");
}

TEST_F(BootEnv, an_entry_may_fill_the_data_but_not_pass_it)
{
    ASSERT_EQ(qzlib_set_boot_env("a", "1"), 0);
    const std::string before = flash_block();
    const size_t room = DATA - 4; // behind "a=1" and its NUL
    EXPECT_EQ(qzlib_set_boot_env("b", std::string(room - 2, 'x').c_str()), -1);
    EXPECT_EQ(qzlib_set_boot_env("a", std::string(DATA, 'x').c_str()), -1);
    EXPECT_EQ(flash_block(), before) << "nothing is written";

    const Entries full = {"a=1", "b=" + std::string(room - 3, 'x')};
    EXPECT_EQ(qzlib_set_boot_env("b", full[1].substr(2).c_str()), 0);
    EXPECT_EQ(flash_block(), block_of(full)) << "one NUL is the block's last byte";
    EXPECT_EQ(listed(), full);
    EXPECT_EQ(value_of("c"), "-1");
    EXPECT_EQ(qzlib_set_boot_env("c", ""), -1);
    EXPECT_EQ(flash_block(), block_of(full));
    EXPECT_EQ(qzlib_set_boot_env("a", "2"), 0);
    EXPECT_EQ(flash_block(), block_of({full[1], "a=2"}));
    EXPECT_EQ(qzlib_set_boot_env("b", nullptr), 0);
    EXPECT_EQ(flash_block(), block_of({"a=2"}));
}

TEST_F(BootEnv, list_without_end_stays_inside_the_data)
{
    const std::string endless = with_checksum(std::string("a=1\0b=2\0", 8) + std::string(DATA - 8, 'x'));
    flash(endless);
    EXPECT_EQ(listed(), (Entries{"a=1", "b=2"}));
    EXPECT_EQ(value_of("b"), "2");
    EXPECT_EQ(value_of("c"), "-1");
    EXPECT_EQ(qzlib_set_boot_env("a", "3"), -1);
    EXPECT_EQ(qzlib_set_boot_env("c", "3"), -1);
    EXPECT_EQ(flash_block(), endless);
    flash(with_checksum(std::string(DATA, 'x')));
    EXPECT_EQ(listed(), Entries{});
    EXPECT_EQ(qzlib_set_boot_env("x", nullptr), -1);
}

TEST_F(BootEnv, listing_an_empty_environment_keeps_the_device_until_the_next_call)
{
    const int other = open(DEVICE, O_RDWR);
    EXPECT_EQ(listed("a"), Entries{});
    EXPECT_EQ(flock(other, LOCK_EX | LOCK_NB), 0) << "a look-up releases";
    flock(other, LOCK_UN);
    for (int i = 0; i < 2; ++i) {
        EXPECT_EQ(listed(), Entries{});
        ASSERT_EQ(flock(other, LOCK_EX | LOCK_NB), -1); // else the next call would wait for ever
        EXPECT_EQ(support::open_descriptors(), descriptors + 2);
    }
    flash(block_of({"a=1"}));
    EXPECT_EQ(value_of("a"), "-1") << "the block in memory is used";
    EXPECT_EQ(flock(other, LOCK_EX | LOCK_NB), 0);
    close(other);
    EXPECT_EQ(value_of("a"), "1");
}

TEST_F(BootEnv, partition_is_searched_by_name_and_only_until_found)
{
    const std::string size = std::to_string(BLOCK);
    Entries thirty_second(31, "other");
    thirty_second.push_back("aboot");
    Entries thirty_third(32, "other");
    thirty_third.push_back("aboot");
    const struct {
        Entries names; // of the partitions; empty: no such partition
        std::string first_size;
        const char *device; // null: not found
    } cases[] = {
        {{"aboot"}, size, "/dev/mtdblock0"},
        {{"boot\n", "abootbak\n", "aboot\n"}, size, "/dev/mtdblock1"},
        {{"abo", "xaboot"}, size, nullptr},
        {{"boot", "", "aboot"}, size, nullptr},
        {{"aboot", "aboot"}, "131071", nullptr},
        {{"aboot"}, "", nullptr},
        {{}, size, nullptr},
        {thirty_third, size, nullptr},
        {thirty_second, size, "/dev/mtdblock31"},
    };
    for (const auto &c : cases) {
        std::filesystem::remove_all("/sys/class/mtd");
        for (size_t i = 0; i < c.names.size(); ++i)
            if (!c.names[i].empty())
                make_partition(static_cast<int>(i), c.names[i], i == 0 ? c.first_size : size);
        if (c.device != nullptr)
            write_file(c.device, "");
        EXPECT_EQ(support::run_child([&] {
                      testing::internal::CaptureStdout();
                      const int result = qzlib_set_boot_env("a", "1");
                      fflush(stdout);
                      const std::string printed = testing::internal::GetCapturedStdout();
                      if (c.device == nullptr)
                          return result == -1 && printed == "can't get boot env device and offset\n" ? 0 : 1;
                      return result == 0 && printed.empty() && read_file(c.device) == block_of({"a=1"}) ? 0
                                                                                                        : 1;
                  }),
                  0)
            << &c - cases;
    }
    EXPECT_EQ(value_of("a"), "1");
    std::filesystem::remove_all("/sys/class/mtd");
    EXPECT_EQ(value_of("a"), "1") << "found once, never searched again";
}

std::string printed_by(int expected_result, int (*call)())
{
    testing::internal::CaptureStdout();
    EXPECT_EQ(call(), expected_result);
    fflush(stdout);
    return testing::internal::GetCapturedStdout();
}

void expect_changes_to_fail(const std::string &line)
{
    EXPECT_EQ(printed_by(-1, [] { return qzlib_set_boot_env("a", "1"); }), line);
    EXPECT_EQ(printed_by(-1, [] { return qzlib_clear_boot_env(); }), line);
}

void expect_every_call_to_fail(const std::string &line)
{
    expect_changes_to_fail(line);
    EXPECT_EQ(printed_by(-1, [] { return qzlib_print_boot_env(nullptr, collect, nullptr); }), line);
    EXPECT_EQ(printed_by(-1, [] { return qzlib_get_boot_env("a", std::array<char, 8>{}.data(), 8); }), line);
}

// A real block device in the place of the partition: a loop device on a sparse image in a
// full file system: space that the image lacks makes writes fail.
class LoopDevice
{
public:
    LoopDevice()
    {
        write_file("/mnt/filler", std::string(64 * 1024, 'f')); // all of the space: no block is left
        image_ = open("/mnt/image", O_RDWR | O_CREAT | O_CLOEXEC, 0600);
        EXPECT_EQ(ftruncate(image_, static_cast<off_t>(OFFSET + BLOCK)), 0);
        const int control = open("/dev/loop-control", O_RDWR | O_CLOEXEC);
        loop_config config{};
        config.fd = static_cast<uint32_t>(image_);
        config.info.lo_flags = LO_FLAGS_AUTOCLEAR; // gone with the last descriptor, come what may
        for (int attempt = 0; attempt < 100 && loop_ < 0; ++attempt) {
            const int number = ioctl(control, LOOP_CTL_GET_FREE);
            remove(DEVICE);
            if (number < 0 || mknod(DEVICE, S_IFBLK | 0600, makedev(7, static_cast<unsigned>(number))) != 0)
                break;
            loop_ = open(DEVICE, O_RDWR | O_CLOEXEC);
            if (loop_ >= 0 && ioctl(loop_, LOOP_CONFIGURE, &config) != 0) { // somebody was faster
                close(loop_);
                loop_ = -1;
            }
        }
        close(control);
        if (loop_ < 0)
            ADD_FAILURE() << "these tests need a loop device: " << strerror(errno);
    }
    ~LoopDevice()
    {
        close(loop_);
        close(image_);
    }
    LoopDevice(const LoopDevice &) = delete;
    LoopDevice &operator=(const LoopDevice &) = delete;

    void give_space() const { EXPECT_EQ(mount("test", "/mnt", "tmpfs", MS_REMOUNT, "size=4m"), 0); }

private:
    support::Cover space_{"/mnt", "size=64k"};
    int image_ = -1;
    int loop_ = -1;
};

TEST_F(BootEnv, device_that_cannot_be_opened_or_written_is_reported)
{
    remove(DEVICE);
    expect_every_call_to_fail("open /dev/mtdblock1 fail\n");

    const LoopDevice device;
    expect_changes_to_fail("write /dev/mtdblock1 fail\n");
    EXPECT_EQ(value_of("a"), "-1");
    device.give_space();
    EXPECT_EQ(printed_by(0, [] { return qzlib_set_boot_env("precious", "1"); }), "");
    EXPECT_EQ(value_of("precious"), "1");
}

// The process's own memory is the device whose reads fail: nothing is mapped at so low an offset.
TEST_F(BootEnv, failed_read_of_the_device_never_becomes_an_empty_environment)
{
    flash(block_of({"precious=1"}));
    const std::string aside = std::string(DEVICE) + ".aside";
    ASSERT_EQ(rename(DEVICE, aside.c_str()), 0);
    ASSERT_EQ(symlink("/proc/self/mem", DEVICE), 0);
    expect_every_call_to_fail("read /dev/mtdblock1 fail\n");
    ASSERT_EQ(rename(aside.c_str(), DEVICE), 0); // the error has passed
    EXPECT_EQ(value_of("precious"), "1");
}

TEST_F(BootEnv, short_read_is_zeros_and_short_write_a_failure)
{
    flash(block_of({"a=1"}));
    ASSERT_EQ(truncate(DEVICE, OFFSET + 100), 0);
    EXPECT_EQ(value_of("a"), "1") << "what is missing was zero";
    EXPECT_EQ(printed_by(0, [] { return qzlib_set_boot_env("b", "2"); }), "");
    EXPECT_EQ(flash_block(), block_of({"a=1", "b=2"}));
    ASSERT_EQ(truncate(DEVICE, OFFSET + 6), 0);
    EXPECT_EQ(value_of("a"), "-1");
    ASSERT_EQ(truncate(DEVICE, OFFSET - 5), 0);
    EXPECT_EQ(value_of("a"), "-1");

    signal(SIGXFSZ, SIG_IGN);
    const rlimit limit{OFFSET + 1000, RLIM_INFINITY};
    ASSERT_EQ(setrlimit(RLIMIT_FSIZE, &limit), 0);
    EXPECT_EQ(printed_by(-1, [] { return qzlib_set_boot_env("b", "2"); }), "write /dev/mtdblock1 fail\n");
}

TEST_F(BootEnv, cut_write_leaves_the_old_set_the_new_set_or_none)
{
    const std::string long_value(3000, 'v');
    const struct {
        const char *name, *value;
    } steps[] = {{"a", "1"}, {"long", long_value.c_str()}, {"b", "2"}, {"a", "3"}, {"long", nullptr},
                 {"c", ""}};
    for (const auto &step : steps) {
        const std::string old_block = flash_block();
        const Entries old_entries = listed();
        (void)value_of("-"); // an empty listing keeps the device
        ASSERT_EQ(qzlib_set_boot_env(step.name, step.value), 0);
        const std::string new_block = flash_block();
        const Entries new_entries = listed();
        (void)value_of("-");
        for (size_t cut = 0; cut <= BLOCK; cut += 512) {
            flash(new_block.substr(0, cut) + old_block.substr(cut));
            const Entries found = listed();
            (void)value_of("-");
            ASSERT_TRUE(found == new_entries || (cut < BLOCK && (found == old_entries || found.empty())))
                << cut;
        }
    }
}

// Waits until the kernel shows somebody waiting for a lock.
void wait_for_a_blocked_lock()
{
    for (int i = 0; i < 2000 && read_file("/proc/locks").find("->") == std::string::npos; ++i)
        usleep(5000);
    EXPECT_NE(read_file("/proc/locks").find("->"), std::string::npos);
}

TEST_F(BootEnv, change_made_between_another_process_s_read_and_its_lock_is_lost)
{
    flash(block_of({"a=1"}));
    const int holder = open(DEVICE, O_RDWR);
    ASSERT_EQ(flock(holder, LOCK_EX), 0);
    const pid_t child = support::start_child([] { return -qzlib_set_boot_env("b", "2"); });
    wait_for_a_blocked_lock(); // it has read the block by now
    flash(block_of({"a=changed", "c=3"}));
    flock(holder, LOCK_UN); // the child has the descriptor, too
    close(holder);
    EXPECT_EQ(support::wait_child(child), 0);
    EXPECT_EQ(flash_block(), block_of({"a=1", "b=2"})) << "by design: the lock comes after the read";
}

TEST_F(BootEnv, two_processes_lose_updates_but_never_the_file)
{
    const int ROUNDS = support::scaled(300);
    const auto writer = [ROUNDS](const char *name) {
        for (int i = 1; i <= ROUNDS; ++i)
            if (qzlib_set_boot_env(name, std::to_string(i).c_str()) != 0)
                return 1;
        return 0;
    };
    const auto expect_valid = [](const std::string &block) {
        EXPECT_EQ(block, with_checksum(block.substr(4))) << "invalid while nobody may write";
    };
    ASSERT_EQ(qzlib_set_boot_env("seed", "0"), 0);
    const int locked = open(DEVICE, O_RDWR);
    const pid_t first = support::start_child([&] { return writer("first"); });
    const pid_t second = support::start_child([&] { return writer("second"); });
    for (int i = 0; i < ROUNDS; ++i) {
        flock(locked, LOCK_EX);
        const std::string block = flash_block();
        flock(locked, LOCK_UN);
        expect_valid(block);
    }
    EXPECT_EQ(support::wait_child(first), 0);
    EXPECT_EQ(support::wait_child(second), 0);
    close(locked);
    expect_valid(flash_block());
    const Entries entries = listed();
    EXPECT_FALSE(entries.empty());
    for (const std::string &entry : entries)
        EXPECT_TRUE(entry.starts_with("first=") || entry.starts_with("second=") || entry == "seed=0")
            << entry;
}

// ---- against the standard tools for such blocks

std::string random_text(std::mt19937 &random, const std::string &characters, size_t length)
{
    std::string text(length, '\0');
    for (char &c : text)
        c = characters[random() % characters.size()];
    return text;
}

// Up to 20 variables, sorted as the tools sort them. Their text files trim values and take lines of 1 KiB.
Entries random_variables(std::mt19937 &random)
{
    static const std::string letters = "abcdefghijklmnopqrstuvwxyzABCDEFGHIJKLMNOPQRSTUVWXYZ_0123456789";
    static const std::string any = letters + " =;:,.!#$%&'\"()*+-/<>?@[]^`{|}~\\\t\xC3\xA4";
    std::map<std::string, std::string> variables;
    for (size_t count = random() % 20 + 1; variables.size() < count;) {
        const size_t length = random() % 50 == 0 ? 900 : random() % 60;
        variables[random_text(random, letters, random() % 12 + 1)] =
            "v" + random_text(random, any, length) + "v";
    }
    Entries entries;
    for (const auto &[name, value] : variables)
        entries.push_back(std::string(name).append("=").append(value));
    return entries;
}

std::string output_of(const std::string &command)
{
    std::string output;
    char piece[4096];
    FILE *pipe = popen(("exec " + command + " 2>&1").c_str(), "r");
    while (const size_t size = fread(piece, 1, sizeof piece, pipe))
        output.append(piece, size);
    EXPECT_EQ(pclose(pipe), 0) << command << ": " << output;
    return output;
}

std::string lines_of(const Entries &entries)
{
    std::string lines;
    for (const std::string &entry : entries)
        lines += entry + "\n";
    return lines;
}

struct StandardTools : BootEnv {
    StandardTools()
    {
        std::filesystem::create_directories("/var/lock/."); // the tools' lock file
        std::filesystem::create_directories("/run/lock");
        write_file("/tmp/fw.config", std::string(DEVICE) + " 0x40000 0x20000\n");
        write_file("/tmp/setenv.config",
                   "/tmp/env.bin 0x0 0x20000\n"); // fw_setenv writes no file at an offset
    }
    std::mt19937 random{42};
};

TEST_F(StandardTools, blocks_made_by_mkenvimage_and_fw_setenv_are_read)
{
    const std::string commands[] = {"mkenvimage -s 0x20000 -p 0x00 -o /tmp/env.bin /tmp/env.txt",
                                    "mkenvimage -s 0x20000 -p 0xff -o /tmp/env.bin /tmp/env.txt",
                                    "fw_setenv -c /tmp/setenv.config -s /tmp/env.txt"};
    for (int i = 0; i < support::scaled(1000); ++i) {
        const Entries entries = random_variables(random);
        write_file("/tmp/env.txt", lines_of(entries));
        write_file("/tmp/env.bin", block_of({"kept_by_fw_setenv=1"}));
        output_of(commands[i % 3]);
        flash(read_file("/tmp/env.bin"));
        Entries found = listed();
        EXPECT_EQ(std::erase(found, "kept_by_fw_setenv=1"), i % 3 == 2 ? 1U : 0U);
        ASSERT_EQ(found, entries);
    }
}

TEST_F(StandardTools, blocks_of_the_library_are_read_by_fw_printenv)
{
    for (int i = 0; i < support::scaled(1000); ++i) {
        const Entries entries = random_variables(random);
        ASSERT_EQ(qzlib_clear_boot_env(), 0);
        for (const std::string &entry : entries) {
            const size_t equals = entry.find('=');
            ASSERT_EQ(qzlib_set_boot_env(entry.substr(0, equals).c_str(), &entry[equals + 1]), 0);
        }
        ASSERT_EQ(output_of("fw_printenv -c /tmp/fw.config"), lines_of(entries));
    }
}

} // namespace
