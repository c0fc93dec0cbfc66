#include "support/box.h"
#include "support/case.h"
#include "support/log.h"

#include <qzlib.h>

#include <dlfcn.h>
#include <random>
#include <sys/file.h>

namespace
{

using namespace support;
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

// A block as a boot loader writes it.
std::string with_checksum(std::string data)
{
    data.resize(DATA, '\0');
    const uint32_t checksum = zlib_crc(data.data(), data.size());
    return std::string(reinterpret_cast<const char *>(&checksum), 4) + data;
}

std::string joined(const Entries &entries, char end)
{
    std::string text;
    for (const std::string &entry : entries)
        text += entry + end;
    return text;
}

std::string block_of(const Entries &entries)
{
    return with_checksum(joined(entries, '\0'));
}

std::string flash_block()
{
    return read_file(DEVICE).substr(OFFSET);
}

void flash(const std::string &block)
{
    write_file(DEVICE, std::string(OFFSET, '\xFF') + block);
}

Entries listed(const char *name = nullptr)
{
    Entries entries;
    const auto collect = [](void *ctx, const char *entry) { static_cast<Entries *>(ctx)->push_back(entry); };
    EXPECT_EQ(qzlib_print_boot_env(name, collect, &entries), 0);
    return entries;
}

std::string value_of(const char *name)
{
    char value[256] = "untouched";
    return qzlib_get_boot_env(name, value, sizeof value) == 0 ? value : "-1";
}

// The result of a call and what it printed, as "RESULT OUTPUT".
template <typename Call>
std::string printed(Call call)
{
    testing::internal::CaptureStdout();
    const int result = call();
    fflush(stdout);
    return std::to_string(result) + " " + testing::internal::GetCapturedStdout();
}

std::string printed_by_set(const char *name = "a")
{
    return printed([name] { return qzlib_set_boot_env(name, "1"); });
}

void make_partition(size_t number, const std::string &name, const std::string &size)
{
    const std::string directory = "/sys/class/mtd/mtd" + std::to_string(number) + "/";
    write_file(directory + "name", name);
    write_file(directory + "size", size);
}

// A router whose second partition holds the block, on a file; blank.
struct BootEnv : NothingLeft {
    BootEnv()
    {
        make_partition(0, "boot\n", "262144\n");
        make_partition(1, "aboot\n", std::to_string(OFFSET + BLOCK) + "\n");
        flash(std::string(BLOCK, '\xFF'));
    }
    Cover classes{"/sys/class"};
};

TEST(Crc32, equals_zlib_at_every_length_and_alignment)
{
    std::string text(300'000, '\0');
    std::mt19937 random(1);
    for (char &c : text)
        c = static_cast<char>(random());
    const auto *bytes = reinterpret_cast<const unsigned char *>(text.data());
    EXPECT_EQ(crc32(0, nullptr, 0), 0U);
    for (size_t alignment = 0; alignment < 8; ++alignment) {
        const auto *start = bytes + alignment;
        for (unsigned length = 0; length < text.size() - 8; length += length < 4096 ? 1 : 8191) {
            const unsigned cut = length % 3 == 0 ? length / 3 : 0;
            ASSERT_EQ(crc32(crc32(0, start, cut), start + cut, length - cut), zlib_crc(start, length))
                << length << " continued at " << cut;
        }
    }
    write_file("/tmp/file", text);
    EXPECT_EQ(crc32file("/tmp/file"), zlib_crc(text.data(), text.size()));
    EXPECT_EQ(crc32file("/tmp/absent"), 0U);
    EXPECT_EQ(crc32file(nullptr), 0U);
    testing::internal::CaptureStderr();
    EXPECT_EQ(crc32file("/tmp"), 0U); // opens, and then cannot be read
    EXPECT_EQ(testing::internal::GetCapturedStderr(), "/tmp: Is a directory\n");
}

// What sets and deletions leave, fuzz/bootenv.cpp compares with a model.
TEST_F(BootEnv, values_are_cut_to_their_buffers_and_nothing_else_is_touched)
{
    EXPECT_EQ(value_of("boot"), "-1") << "blank flash is empty";
    const Entries entries = {"bootdelay=3", "boot=a=b", "boot=second", "noequals"};
    flash(block_of(entries));
    EXPECT_EQ(qzlib_set_boot_env("last", ""), 0);
    EXPECT_EQ(qzlib_set_boot_env(nullptr, "v"), -1);
    EXPECT_EQ(read_file(DEVICE).substr(0, OFFSET), std::string(OFFSET, '\xFF')) << "outside the block";
    EXPECT_EQ(printed([] { return qzlib_print_boot_env(nullptr, nullptr, nullptr); }),
              "0 " + joined(entries, '\n') + "last=\n");
    EXPECT_EQ(listed("boot=x"), Entries{"boot=a=b"});
    EXPECT_EQ(listed("noequals"), Entries{});
    char value[8];
    const Table<size_t, std::string> bounds = {
        {0, "########"}, {3, "a=b#####"}, {6, std::string("a=b\0\0\0##", 8)}};
    for (const auto &[size, expected] : bounds) {
        memset(value, '#', sizeof value);
        EXPECT_EQ(qzlib_get_boot_env("boot", value, size), 0);
        EXPECT_EQ(std::string(value, sizeof value), expected) << size;
    }
    EXPECT_EQ(qzlib_get_boot_env(nullptr, value, 8), -1);
    EXPECT_EQ(qzlib_get_boot_env("boot", nullptr, 8), -1);
}

TEST_F(BootEnv, cleared_or_spoilt_block_is_empty)
{
    const std::string good = block_of({"a=1", "b=2"});
    for (const size_t at : {size_t{0}, size_t{3}, size_t{4}, size_t{12}, BLOCK - 1}) {
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

    const std::string endless = with_checksum(std::string("a=1\0b=2\0", 8) + std::string(DATA - 8, 'x'));
    flash(endless);
    EXPECT_EQ(listed(), (Entries{"a=1", "b=2"}));
    EXPECT_EQ(value_of("c"), "-1") << "looked for outside the data";
    EXPECT_EQ(qzlib_set_boot_env("a", "3"), -1);
    EXPECT_EQ(qzlib_set_boot_env("c", "3"), -1);
    EXPECT_EQ(flash_block(), endless);
}

TEST_F(BootEnv, listing_an_empty_environment_keeps_the_device_until_the_next_call)
{
    const int other = open(DEVICE, O_RDWR);
    EXPECT_EQ(listed("a"), Entries{});
    EXPECT_EQ(flock(other, LOCK_EX | LOCK_NB), 0) << "a look-up releases";
    flock(other, LOCK_UN);
    for (int i = 0; i < 2; ++i) {
        EXPECT_EQ(listed(), Entries{});
        ASSERT_EQ(flock(other, LOCK_SH | LOCK_NB), -1); // else the next call would wait for ever
        EXPECT_EQ(open_descriptors(), descriptors + 2);
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
    Entries late(32, "other"), too_late(33, "other");
    late[31] = too_late[32] = "aboot";
    // Names of the partitions (empty: no such partition), size of the first one, device found.
    const Table<Entries, std::string, const char *> cases = {
        {{"aboot"}, size, "/dev/mtdblock0"},
        {{"boot\n", "abootbak\n", "aboot\n"}, size, DEVICE},
        {{"abo", "xaboot"}, size, nullptr},
        {{"boot", "", "aboot"}, size, nullptr},
        {{"aboot", "aboot"}, "131071", nullptr},
        {{"aboot"}, "", nullptr},
        {too_late, size, nullptr},
        {late, size, "/dev/mtdblock31"},
    };
    for (const auto &[names, first_size, device] : cases) {
        std::filesystem::remove_all("/sys/class/mtd");
        for (size_t i = 0; i < names.size(); ++i)
            if (!names[i].empty())
                make_partition(i, names[i], i == 0 ? first_size : size);
        if (device != nullptr)
            write_file(device, "");
        const std::string expected = device != nullptr ? "0 " : "-1 can't get boot env device and offset\n";
        EXPECT_EQ(run_child([&] { EXPECT_EQ(printed_by_set(), expected); }), 0);
        if (device != nullptr) {
            EXPECT_EQ(read_file(device), block_of({"a=1"})) << device;
        }
    }
    EXPECT_EQ(value_of("a"), "1");
    std::filesystem::remove_all("/sys/class/mtd");
    EXPECT_EQ(value_of("a"), "1") << "found once, never searched again";
}

void expect_every_call_to_fail(const std::string &line)
{
    EXPECT_EQ(printed_by_set(), "-1 " + line);
    EXPECT_EQ(printed(qzlib_clear_boot_env), "-1 " + line);
    EXPECT_EQ(printed([] { return qzlib_print_boot_env(nullptr, nullptr, nullptr); }), "-1 " + line);
    char value[8];
    EXPECT_EQ(printed([&value] { return qzlib_get_boot_env("a", value, 8); }), "-1 " + line);
}

TEST_F(BootEnv, what_is_printed_without_standard_streams_does_not_reach_the_device)
{
    flash(block_of({"a=1"}));
    for (int slot : {STDOUT_FILENO, STDERR_FILENO}) {
        const auto print = [](void *ctx, const char *) { (void)!write(*static_cast<int *>(ctx), "!", 1); };
        EXPECT_EQ(run_child([&] { return close(slot) + qzlib_print_boot_env(nullptr, print, &slot); }), 0);
        EXPECT_EQ(read_file(DEVICE)[0], '\xFF') << slot;
    }
}

// The process's own memory is the device whose reads fail: nothing is mapped at so low an offset.
TEST_F(BootEnv, failed_open_or_read_never_becomes_an_empty_environment)
{
    flash(block_of({"precious=1"}));
    const std::string aside = std::string(DEVICE) + ".aside";
    ASSERT_EQ(rename(DEVICE, aside.c_str()), 0);
    expect_every_call_to_fail("open /dev/mtdblock1 fail\n");
    ASSERT_EQ(symlink("/proc/self/mem", DEVICE), 0);
    expect_every_call_to_fail("read /dev/mtdblock1 fail\n");
    ASSERT_EQ(rename(aside.c_str(), DEVICE), 0); // the error has passed
    EXPECT_EQ(value_of("precious"), "1");
}

TEST_F(BootEnv, short_read_is_zeros_and_short_or_failed_write_a_failure)
{
    flash(block_of({"a=1"}));
    ASSERT_EQ(truncate(DEVICE, OFFSET + 100), 0);
    EXPECT_EQ(value_of("a"), "1") << "what is missing was zero";
    EXPECT_EQ(printed_by_set("b"), "0 ");
    EXPECT_EQ(flash_block(), block_of({"a=1", "b=1"}));
    for (const size_t size : {OFFSET + 6, OFFSET - 5}) {
        ASSERT_EQ(truncate(DEVICE, static_cast<off_t>(size)), 0);
        EXPECT_EQ(value_of("a"), "-1");
    }
    const auto fail = [](rlim_t size) {
        signal(SIGXFSZ, SIG_IGN);
        const rlimit limit{size, size};
        setrlimit(RLIMIT_FSIZE, &limit);
        EXPECT_EQ(printed_by_set(), "-1 write /dev/mtdblock1 fail\n");
        EXPECT_EQ(printed(qzlib_clear_boot_env), "-1 write /dev/mtdblock1 fail\n");
    };
    for (const rlim_t size : {OFFSET + 1000, OFFSET}) // part of it can be written, and nothing
        EXPECT_EQ(run_child([&] { fail(size); }), 0);
    EXPECT_EQ(printed_by_set(), "0 ");
    EXPECT_EQ(value_of("a"), "1");
}

TEST_F(BootEnv, change_made_between_another_process_s_read_and_its_lock_is_lost)
{
    flash(block_of({"a=1"}));
    const int holder = open(DEVICE, O_RDWR);
    ASSERT_EQ(flock(holder, LOCK_EX), 0);
    Process child([] { return -qzlib_set_boot_env("b", "2"); });
    EXPECT_TRUE(eventually([] { return logged("->", "/proc/locks"); })); // it has read the block by now
    flash(block_of({"a=changed", "c=3"}));
    flock(holder, LOCK_UN); // the child has the descriptor, too
    close(holder);
    EXPECT_EQ(child.wait(), 0);
    EXPECT_EQ(flash_block(), block_of({"a=1", "b=2"})) << "by design: the lock comes after the read";
}

TEST_F(BootEnv, blocks_are_exchanged_with_the_standard_tools)
{
    // Sorted as the tools sort them. Their text files trim values and take lines of 1 KiB.
    const Entries entries = {"A=1", "B_9=v =;:,.!#$%&'\"()*+-/<>?@[]^`{|}~\\\t\xC3\xA4v", "a=v=w",
                             "long=" + std::string(900, 'v'), "z=2"};
    write_file("/tmp/env.txt", joined(entries, '\n'));
    for (const char *padding : {"0x00", "0xff"}) {
        sh("mkenvimage -s 0x20000 -o /tmp/env.bin -p " + std::string(padding) + " /tmp/env.txt");
        flash(read_file("/tmp/env.bin"));
        EXPECT_EQ(listed(), entries) << padding;
    }
    ASSERT_EQ(qzlib_clear_boot_env(), 0);
    for (const std::string &entry : entries) {
        const size_t equals = entry.find('=');
        ASSERT_EQ(qzlib_set_boot_env(entry.substr(0, equals).c_str(), &entry[equals + 1]), 0);
    }
    write_file("/tmp/fw.config", std::string(DEVICE) + " 0x40000 0x20000\n");
    EXPECT_EQ(sh("mkdir -p /run/lock; fw_printenv -c /tmp/fw.config"), joined(entries, '\n'));
}

} // namespace
