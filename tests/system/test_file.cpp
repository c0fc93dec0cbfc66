#include "support/files.h"

#include <gtest/gtest.h>
#include <qzlib.h>

#include <atomic>
#include <chrono>
#include <cstring>
#include <fcntl.h>
#include <filesystem>
#include <memory>
#include <poll.h>
#include <sched.h>
#include <sys/mount.h>
#include <sys/resource.h>
#include <sys/socket.h>
#include <sys/statfs.h>
#include <sys/time.h>
#include <thread>
#include <unistd.h>

namespace
{

using support::write_file;
using Clock = std::chrono::steady_clock;

long elapsed_ms(Clock::time_point since)
{
    return std::chrono::duration_cast<std::chrono::milliseconds>(Clock::now() - since).count();
}

struct Pipe {
    explicit Pipe(int flags = 0)
    {
        if (pipe2(fds, flags) != 0)
            abort();
    }
    ~Pipe()
    {
        close(fds[0]);
        close(fds[1]);
    }
    Pipe(const Pipe &) = delete;
    Pipe &operator=(const Pipe &) = delete;
    int fds[2];
};

// Signals that come all the time and interrupt every wait.
struct SignalStorm {
    SignalStorm()
    {
        qzlib_sys_signal(SIGALRM, [](int) {});
        const itimerval every_20_ms = {{0, 20000}, {0, 20000}};
        setitimer(ITIMER_REAL, &every_20_ms, nullptr);
    }
    ~SignalStorm()
    {
        const itimerval off = {};
        setitimer(ITIMER_REAL, &off, nullptr);
        qzlib_sys_signal(SIGALRM, SIG_DFL);
    }
};

// Writes "0123456789" three times with pauses.
std::thread burst(int fd, int pause_ms)
{
    return std::thread([fd, pause_ms] {
        for (int i = 0; i < 3; ++i) {
            EXPECT_EQ(write(fd, "0123456789", 10), 10);
            std::this_thread::sleep_for(std::chrono::milliseconds(pause_ms));
        }
    });
}

TEST(FdRead, reads_what_is_there_or_ends_at_the_limit)
{
    Pipe pipe;
    char buffer[64];
    ASSERT_EQ(write(pipe.fds[1], "abcdef", 6), 6);
    EXPECT_EQ(qzlib_fd_read(pipe.fds[0], buffer, 4, 0), 4);
    EXPECT_EQ(qzlib_fd_read(pipe.fds[0], buffer, sizeof buffer, -1), 2);
    for (const bool storm : {false, true}) {
        const auto signals = storm ? std::make_unique<SignalStorm>() : nullptr;
        const auto start = Clock::now();
        EXPECT_EQ(qzlib_fd_read(pipe.fds[0], buffer, 4, 100), 0);
        EXPECT_GE(elapsed_ms(start), 100);
        EXPECT_LT(elapsed_ms(start), 3000);
    }
    close(pipe.fds[1]);
    EXPECT_EQ(qzlib_fd_read(pipe.fds[0], buffer, 4, 0), 0);
    close(pipe.fds[0]);
    EXPECT_EQ(qzlib_fd_read(pipe.fds[0], buffer, 4, 0), -1);
    EXPECT_EQ(qzlib_fd_read(900, buffer, 4, 0), -1) << "waits on a closed descriptor for ever";
    EXPECT_EQ(qzlib_fd_read(-1, buffer, 4, 0), -1);
    EXPECT_EQ(qzlib_fd_read(0, nullptr, 4, 0), -1);
}

TEST(FdWrite, writes_until_done_and_then_once_more)
{
    char data[100] = {};
    Pipe pipe;
    EXPECT_EQ(qzlib_fd_write(pipe.fds[1], data, sizeof data, 0), 100);
    EXPECT_EQ(qzlib_fd_write(pipe.fds[1], data, 0, 0), 0);
    EXPECT_EQ(qzlib_fd_write(-1, data, 1, 0), -1);
    EXPECT_EQ(qzlib_fd_write(pipe.fds[1], nullptr, 1, 0), -1);
    EXPECT_EQ(qzlib_fd_write(pipe.fds[0], data, 1, 50), 0); // an error ends the loop only

    int pair[2];
    ASSERT_EQ(socketpair(AF_UNIX, SOCK_DGRAM, 0, pair), 0);
    EXPECT_EQ(qzlib_fd_write(pair[0], data, 5, 0), 5);
    EXPECT_EQ(recv(pair[1], data, sizeof data, MSG_DONTWAIT), 5);
    EXPECT_EQ(recv(pair[1], data, sizeof data, MSG_DONTWAIT), 0) << "no empty datagram behind the data";
    close(pair[0]);
    close(pair[1]);
}

TEST(FdWrite, limit_is_a_budget_for_the_whole_call)
{
    Pipe pipe(O_NONBLOCK);
    const int room = fcntl(pipe.fds[1], F_SETPIPE_SZ, 4096);
    const std::string exactly(static_cast<size_t>(room), 'x');
    auto start = Clock::now();
    EXPECT_EQ(qzlib_fd_write(pipe.fds[1], exactly.data(), static_cast<unsigned>(room), 100), room);
    EXPECT_GE(elapsed_ms(start), 100) << "no wait behind the last byte";

    const std::string many(static_cast<size_t>(room) * 100, 'x');
    std::atomic<bool> stop{false};
    std::thread reader([&] { // takes over 5 s for all of it
        std::string buffer(static_cast<size_t>(room), '\0');
        while (!stop) {
            (void)!read(pipe.fds[0], buffer.data(), buffer.size());
            std::this_thread::sleep_for(std::chrono::milliseconds(50));
        }
    });
    start = Clock::now();
    EXPECT_LT(qzlib_fd_write(pipe.fds[1], many.data(), static_cast<unsigned>(many.size()), 300),
              static_cast<int>(many.size()));
    EXPECT_GE(elapsed_ms(start), 300);
    EXPECT_LT(elapsed_ms(start), 3000);
    stop = true;
    reader.join();
}

TEST(FdReadPackage, gathers_until_a_pause)
{
    const struct {
        int pause_ms, gap_ms, size, expected;
        bool storm;
    } cases[] = {{20, 600, 64, 30, false},
                 {20, 600, 64, 30, true},
                 {500, 50, 64, 10, false},
                 {500, 50, 64, 10, true},
                 {5, 5000, 25, 25, false}};
    for (const auto &c : cases) {
        Pipe pipe;
        char buffer[64];
        std::thread writer = burst(pipe.fds[1], c.pause_ms);
        pollfd first = {pipe.fds[0], POLLIN, 0};
        while (poll(&first, 1, -1) != 1) // the first wait would not bear a signal
            continue;
        const auto start = Clock::now();
        const auto signals = c.storm ? std::make_unique<SignalStorm>() : nullptr;
        EXPECT_EQ(qzlib_fd_read_package(pipe.fds[0], buffer, c.size, c.gap_ms), c.expected);
        EXPECT_LT(elapsed_ms(start), 4000) << "a full buffer still waits for the gap";
        writer.join();
    }
}

TEST(FdReadPackage, ends_early_and_refuses)
{
    Pipe pipe;
    char buffer[8];
    {
        const SignalStorm storm;
        EXPECT_EQ(qzlib_fd_read_package(pipe.fds[0], buffer, 8, 10), -1) << "a signal ends the first wait";
    }
    ASSERT_EQ(write(pipe.fds[1], "abc", 3), 3);
    close(pipe.fds[1]);
    EXPECT_EQ(qzlib_fd_read_package(pipe.fds[0], buffer, 8, 60000), 3); // end of file
    EXPECT_EQ(qzlib_fd_read_package(pipe.fds[0], buffer, 8, 60000), 0);
    EXPECT_EQ(qzlib_fd_read_package(-1, buffer, 8, 10), -1);
    EXPECT_EQ(qzlib_fd_read_package(pipe.fds[0], nullptr, 8, 10), -1);
    EXPECT_EQ(qzlib_fd_read_package(pipe.fds[0], buffer, 0, 10), -1);
    EXPECT_EQ(qzlib_fd_read_package(pipe.fds[0], buffer, 8, 0), -1);
}

TEST(FdTransfers, descriptors_past_the_fixed_set_work)
{
    const rlimit many = {4096, 4096};
    ASSERT_EQ(setrlimit(RLIMIT_NOFILE, &many), 0);
    Pipe pipe;
    for (const int number : {1023, 1024, 3001}) {
        ASSERT_EQ(dup2(pipe.fds[0], number), number);
        ASSERT_EQ(dup2(pipe.fds[1], number + 1), number + 1);
        char buffer[8];
        EXPECT_EQ(qzlib_fd_read(number, buffer, 8, 20), 0);
        EXPECT_EQ(qzlib_fd_write(number + 1, "abcd", 4, 1000), 4);
        EXPECT_EQ(qzlib_fd_read(number, buffer, 2, 1000), 2);
        EXPECT_EQ(qzlib_fd_read_package(number, buffer, 8, 20), 2);
        close(number);
        close(number + 1);
    }
}

// Mounts of its own, so that the fixed paths of the library are free to be covered.
struct FileSystems : testing::Test {
    FileSystems()
    {
        std::filesystem::create_directories("/tmp/m/sub");
        if (unshare(CLONE_NEWNS) != 0 || mount(nullptr, "/", nullptr, MS_REC | MS_PRIVATE, nullptr) != 0 ||
            mount("qzdisk", "/tmp/m", "tmpfs", 0, "size=1m") != 0)
            abort(); // without it the host's files would be changed
        std::filesystem::create_directories("/tmp/m/sub");
        write_file("/tmp/m/file", "x");
    }
    size_t descriptors = support::open_descriptors();
    ~FileSystems() override
    {
        umount("/tmp/m");
        EXPECT_EQ(support::open_descriptors(), descriptors);
    }
};

TEST_F(FileSystems, facts_about_files)
{
    write_file("/tmp/size", std::string(12345, 'x'));
    EXPECT_EQ(qzlib_get_file_size("/tmp/size"), 12345);
    EXPECT_EQ(truncate("/tmp/size", (4LL << 30) + 5), 0);
    EXPECT_EQ(qzlib_get_file_size("/tmp/size"), 5); // the low 32 bits
    EXPECT_EQ(qzlib_get_file_size("/tmp/none"), 0);
    EXPECT_EQ(qzlib_get_file_size("/proc/self/status"), 0); // cannot be sought in from its end
    EXPECT_EQ(qzlib_get_file_size(nullptr), -1);

    const char magic[] = "\177ELF";
    write_file("/tmp/elf", magic);
    write_file("/tmp/short", std::string(magic, 3));
    write_file("/tmp/text", std::string("x") + magic);
    EXPECT_EQ(qzlib_file_is_elf("/proc/self/exe"), 1);
    EXPECT_EQ(qzlib_file_is_elf("/tmp/elf"), 1);
    for (const char *path :
         {"/tmp/short", "/tmp/text", "/tmp", "/tmp/none", static_cast<const char *>(nullptr)})
        EXPECT_EQ(qzlib_file_is_elf(path), 0);
}

TEST_F(FileSystems, free_space_and_type)
{
    struct statfs status;
    ASSERT_EQ(statfs("/tmp/m/sub", &status), 0);
    EXPECT_EQ(qzlib_get_dir_free_space("/tmp/m/sub"), static_cast<unsigned long long>(status.f_bfree) *
                                                          static_cast<unsigned long long>(status.f_bsize));
    EXPECT_LT(qzlib_get_dir_free_space("/tmp/m"), 1048576U);
    EXPECT_EQ(mount(nullptr, "/tmp/m", nullptr, MS_REMOUNT, "size=6g"), 0);
    EXPECT_GT(qzlib_get_dir_free_space("/tmp/m"), 5ULL << 30) << "not counted in 64 bits";
    EXPECT_EQ(qzlib_get_filesystem_type("/proc/self"), 0x9fa0U);
    EXPECT_EQ(qzlib_get_filesystem_type("/tmp/m/file"), 0x01021994U); // tmpfs
    for (const char *path : {"/tmp/none", static_cast<const char *>(nullptr)}) {
        EXPECT_EQ(qzlib_get_dir_free_space(path), 0U);
        EXPECT_EQ(qzlib_get_filesystem_type(path), 0U);
    }
}

TEST_F(FileSystems, mounted_device_is_found_by_name_and_by_number)
{
    char device[256];
    for (const char *path : {"/tmp/m", "/tmp/m/sub", "/tmp/m/file", "/tmp/m/sub/.."}) {
        strcpy(device, "untouched");
        EXPECT_EQ(qzlib_get_mount_dev(path, device), 0) << path;
        EXPECT_STREQ(device, "qzdisk") << path;
    }
    EXPECT_EQ(qzlib_get_mount_dev("/proc", device), 0);
    EXPECT_EQ(qzlib_get_mount_dev("/", nullptr), 0);

    // A device node counts by its name only, not by the mount that it lies on.
    const int terminal = posix_openpt(O_RDWR | O_NOCTTY);
    const std::string node = ptsname(terminal);
    strcpy(device, "untouched");
    EXPECT_EQ(qzlib_get_mount_dev(node.c_str(), device), -1);
    EXPECT_EQ(qzlib_get_mount_dev("/tmp/none", device), -1);
    EXPECT_EQ(qzlib_get_mount_dev(nullptr, device), -1);
    EXPECT_STREQ(device, "untouched");
    ASSERT_EQ(mount(node.c_str(), "/tmp/m/sub", "tmpfs", 0, nullptr), 0);
    EXPECT_EQ(qzlib_get_mount_dev(node.c_str(), device), 0);
    EXPECT_EQ(device, node);
    umount("/tmp/m/sub");
    close(terminal);
}

TEST_F(FileSystems, mount_points_differ_from_their_parent)
{
    ASSERT_EQ(symlink("/tmp/m", "/tmp/link"), 0);
    std::string deep = "/tmp";
    while (deep.size() < 900)
        deep.append("/").append(99, 'd');
    deep.append("/").append(1021 - deep.size() - 1, 'd'); // "/.." would not fit behind it
    std::filesystem::create_directories(deep);
    for (const char *path : {"/", "/proc", "/tmp/m", "/tmp/m/"})
        EXPECT_EQ(qzlib_path_is_mountpoint(path), 1) << path;
    for (const char *path : {"/tmp/m/sub", "/tmp/m/file", "/tmp/link", "/tmp/none", deep.c_str(),
                             static_cast<const char *>(nullptr)})
        EXPECT_EQ(qzlib_path_is_mountpoint(path), 0);
}

std::string program(const std::string &content)
{
    return std::string("\177ELF") + content;
}

TEST_F(FileSystems, version_stamp_is_found_by_its_rules)
{
    const std::string nul(1, '\0');
    const std::string marker = "--qzversion";
    const std::string stamp = marker + " V1.2.3" + nul;
    const struct {
        std::string file;
        const char *version; // null: none
    } cases[] = {
        {program("code" + stamp + "more"), "V1.2.3"},
        {program(stamp + marker + " V2" + nul), "V1.2.3"},
        {program(nul + marker + nul + "V" + nul), "V"},
        {program(marker + " V9"), "V9"}, // the file's end ends the text
        {program(marker + " V"), "V"},
        {program(marker + " "), nullptr},
        {program(marker), nullptr},
        {program(""), nullptr},
        {program(marker + " 1.2.3" + nul), nullptr},
        {program(marker + "V1.2.3" + nul), nullptr}, // no separator
        {program(marker + " 1" + stamp), "V1.2.3"},
        {program(marker + " " + stamp), nullptr}, // passed over by the skip of 13 bytes
        {"text" + stamp, nullptr},
        {program(std::string(5242880 - 4 - stamp.size(), 'x') + stamp), "V1.2.3"},
        {program(std::string(5242881 - 4 - stamp.size(), 'x') + stamp), nullptr},
    };
    for (const auto &c : cases) {
        write_file("/mnt/update/app", c.file);
        char version[32] = "untouched";
        EXPECT_EQ(qzlib_get_patch_version("app", version, sizeof version), c.version == nullptr ? -1 : 0);
        EXPECT_STREQ(version, c.version == nullptr ? "untouched" : c.version) << c.file.substr(0, 64);
        EXPECT_EQ(qzlib_file_is_qzapp("/mnt/update/app"), c.version != nullptr);
    }
}

TEST_F(FileSystems, version_is_copied_within_its_bound)
{
    const std::string stamp = program("--qzversion V1.2.3" + std::string(1, '\0'));
    ASSERT_EQ(mount("none", "/usr/sbin", "tmpfs", 0, nullptr), 0);
    const std::string long_name(115, 'n'); // with the directory 127 characters
    write_file("/usr/sbin/app", stamp);
    write_file("/mnt/update/" + long_name, stamp);
    char version[16];
    memset(version, '#', sizeof version);
    EXPECT_EQ(qzlib_get_ori_version("app", version, 3), 0);
    EXPECT_EQ(std::string(version, 5), "V1.##");
    EXPECT_EQ(qzlib_get_ori_version("app", version, 10), 0);
    EXPECT_EQ(std::string(version, 11), "V1.2.3" + std::string(4, '\0') + "#");
    EXPECT_EQ(qzlib_get_patch_version((long_name + "tail").c_str(), version, 10), 0);
    EXPECT_EQ(qzlib_get_ori_version("none", version, 10), -1);
    EXPECT_EQ(qzlib_get_ori_version(nullptr, version, 10), -1);
    EXPECT_EQ(qzlib_get_ori_version("app", nullptr, 10), -1);
    EXPECT_EQ(qzlib_get_patch_version("app", version, 0), -1);
    EXPECT_EQ(qzlib_file_is_qzapp(nullptr), 0);
    umount("/usr/sbin");
}

} // namespace
