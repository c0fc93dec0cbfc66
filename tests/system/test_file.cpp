#include "support/case.h"

#include <qzlib.h>

#include <sys/socket.h>
#include <sys/statfs.h>

namespace
{

using namespace support;

// Its descriptors fit into no fd_set. They stay open: each case has a process of its own.
struct Pipe {
    explicit Pipe(int flags = 0)
    {
        const rlimit many = {4096, 4096};
        int low[2];
        EXPECT_EQ(setrlimit(RLIMIT_NOFILE, &many) + pipe2(low, flags), 0);
        for (const int end : {0, 1}) {
            fds[end] = fcntl(low[end], F_DUPFD, 3000);
            close(low[end]);
        }
    }
    int fds[2];
};

char buffer[100];

TEST(FdRead, reads_what_is_there_or_ends_at_the_limit)
{
    Pipe pipe;
    ASSERT_EQ(write(pipe.fds[1], "abcdef", 6), 6);
    EXPECT_EQ(qzlib_fd_read(pipe.fds[0], buffer, 4, 0), 4);
    EXPECT_EQ(qzlib_fd_read(pipe.fds[0], buffer, sizeof buffer, -1), 2);
    {
        const SignalStorm storm;
        const Stopwatch watch;
        EXPECT_EQ(qzlib_fd_read(pipe.fds[0], buffer, 4, 100), 0);
        EXPECT_GE(watch.seconds(), 0.1);
    }
    close(pipe.fds[1]);
    EXPECT_EQ(qzlib_fd_read(pipe.fds[0], buffer, 4, 0), 0);
    for (const int closed : {pipe.fds[1], -1})
        EXPECT_EQ(qzlib_fd_read(closed, buffer, 4, 0), -1);
    EXPECT_EQ(qzlib_fd_read(pipe.fds[0], nullptr, 4, 0), -1);
}

TEST(FdWrite, writes_until_done_and_then_once_more)
{
    int pair[2];
    ASSERT_EQ(socketpair(AF_UNIX, SOCK_DGRAM, 0, pair), 0);
    EXPECT_EQ(qzlib_fd_write(pair[0], buffer, 5, 0), 5);
    EXPECT_EQ(recv(pair[1], buffer, sizeof buffer, MSG_DONTWAIT), 5);
    EXPECT_EQ(recv(pair[1], buffer, sizeof buffer, MSG_DONTWAIT), 0) << "no empty datagram after the data";
    EXPECT_EQ(qzlib_fd_write(-1, buffer, 1, 0), -1);
    EXPECT_EQ(qzlib_fd_write(pair[0], nullptr, 1, 0), -1);
    EXPECT_EQ(qzlib_fd_write(Pipe().fds[0], buffer, 1, 50), 0); // an error ends the loop only
}

TEST(FdWrite, limit_is_a_budget_for_the_whole_call)
{
    Pipe pipe(O_NONBLOCK);
    const auto room = static_cast<unsigned>(fcntl(pipe.fds[1], F_SETPIPE_SZ, 4096));
    std::string bytes(room * 200, 'x');
    const Stopwatch last_wait;
    EXPECT_EQ(qzlib_fd_write(pipe.fds[1], bytes.data(), room, 100), static_cast<int>(room));
    EXPECT_GE(last_wait.seconds(), 0.1) << "the wait after the last byte";

    const std::jthread reader([&](const std::stop_token &stop) { // takes 10 s for all of it
        for (std::string page(room, '\0'); !stop.stop_requested(); usleep(50'000))
            (void)!read(pipe.fds[0], page.data(), room);
    });
    const Stopwatch budget;
    EXPECT_LT(qzlib_fd_write(pipe.fds[1], bytes.data(), room * 200, 300), static_cast<int>(bytes.size()));
    EXPECT_GE(budget.seconds(), 0.3);
}

TEST(FdReadPackage, gathers_until_it_is_full_or_a_pause_or_the_end)
{
    Pipe pipe(O_DIRECT); // each writing is read on its own
    const SignalStorm storm;
    EXPECT_EQ(qzlib_fd_read_package(pipe.fds[0], buffer, 8, 10), -1) << "a signal ends the first wait";
    const Stopwatch watch;
    for (const auto &[size, gap_ms] : {std::pair(30, 60'000), {64, 50}, {64, 60'000}}) {
        for (int i = 0; i < 3; ++i)
            ASSERT_EQ(write(pipe.fds[1], "0123456789", 10), 10);
        if (size > 30 && gap_ms > 50)
            close(pipe.fds[1]);
        EXPECT_EQ(qzlib_fd_read_package(pipe.fds[0], buffer, size, gap_ms), 30);
    }
    EXPECT_LT(watch.punctual_seconds(), 60) << "a full buffer, or the end, still waits for the gap";
    EXPECT_EQ(qzlib_fd_read_package(-1, buffer, 8, 10), -1);
    EXPECT_EQ(qzlib_fd_read_package(pipe.fds[0], nullptr, 8, 10), -1);
    EXPECT_EQ(qzlib_fd_read_package(pipe.fds[0], buffer, 0, 10), -1);
    EXPECT_EQ(qzlib_fd_read_package(pipe.fds[0], buffer, 8, 0), -1);
}

const char *const NO_PATH = nullptr;

struct FileSystems : NothingLeft {
    FileSystems() { write_file("/tmp/m/sub/file", "x"); }
    const bool is_made = std::filesystem::create_directory("/tmp/m");
    const Cover disk{"/tmp/m", "size=6g"};
};

TEST_F(FileSystems, facts_about_files)
{
    constexpr unsigned TMPFS = 0x01021994, PROC = 0x9fa0;
    write_file("/tmp/m/elf", "\177ELF");
    write_file("/tmp/m/short", "\177EL");
    write_file("/tmp/m/text", "x\177ELF");
    EXPECT_EQ(truncate("/tmp/m/sub/file", (4LL << 30) + 5), 0);
    const Table<const char *, int, int, unsigned> cases = {
        {"/tmp/m/elf", 4, 1, TMPFS},
        {"/tmp/m/short", 3, 0, TMPFS},
        {"/tmp/m/text", 5, 0, TMPFS},
        {"/tmp/m/sub/file", 5, 0, TMPFS},  // the low 32 bits
        {"/proc/self/status", 0, 0, PROC}, // cannot be sought in from its end
        {"/tmp/none", 0, 0, 0},
        {NO_PATH, -1, 0, 0},
    };
    for (const auto &[path, size, is_elf, type] : cases) {
        EXPECT_EQ(qzlib_get_file_size(path), size) << path;
        EXPECT_EQ(qzlib_file_is_elf(path), is_elf) << path;
        EXPECT_EQ(qzlib_get_filesystem_type(path), type) << path;
        EXPECT_EQ(qzlib_get_dir_free_space(path) > 0, type == TMPFS) << path;
    }
    EXPECT_EQ(qzlib_file_is_elf("/tmp"), 0);
    struct statfs status;
    ASSERT_EQ(statfs("/tmp/m", &status), 0);
    const auto free_bytes = 1ULL * status.f_bfree * static_cast<unsigned long>(status.f_bsize);
    EXPECT_EQ(qzlib_get_dir_free_space("/tmp/m/sub"), free_bytes) << "not counted in 64 bits";
}

TEST_F(FileSystems, mounted_device_is_found_by_name_and_by_number)
{
    // A device node counts by its name only, not by the mount that it lies on.
    const int terminal = posix_openpt(O_RDWR | O_NOCTTY);
    const std::string node = ptsname(terminal);
    char device[256] = "untouched";
    for (const char *path : {node.c_str(), "/tmp/none", NO_PATH})
        EXPECT_EQ(qzlib_get_mount_dev(path, device), -1);
    EXPECT_STREQ(device, "untouched");
    for (const char *path : {"/tmp/m", "/tmp/m/sub", "/tmp/m/sub/file", "/tmp/m/sub/.."}) {
        strcpy(device, "untouched");
        EXPECT_EQ(qzlib_get_mount_dev(path, device), 0) << path;
        EXPECT_STREQ(device, Cover::SOURCE) << path;
    }
    EXPECT_EQ(qzlib_get_mount_dev("/", nullptr), 0);
    ASSERT_EQ(mount(node.c_str(), "/tmp/m/sub", "tmpfs", 0, nullptr), 0);
    EXPECT_EQ(qzlib_get_mount_dev(node.c_str(), device), 0);
    EXPECT_EQ(device, node);
    close(terminal);
}

TEST_F(FileSystems, mount_points_differ_from_their_parent)
{
    ASSERT_EQ(symlink("/tmp/m", "/tmp/link"), 0);
    std::string deep = "/tmp";
    for (const size_t length : {250U, 250U, 250U, 250U, 17U}) // 1021 in all: "/.." would not fit after it
        deep.append("/").append(length, 'd');
    std::filesystem::create_directories(deep);
    for (const char *path : {"/", "/proc", "/tmp/m", "/tmp/m/"})
        EXPECT_EQ(qzlib_path_is_mountpoint(path), 1) << path;
    for (const char *path :
         {"/tmp/m/sub", "/tmp/m/sub/file", "/tmp/link", "/tmp/none", deep.c_str(), NO_PATH})
        EXPECT_EQ(qzlib_path_is_mountpoint(path), 0);
}

TEST_F(FileSystems, version_stamp_is_found_by_its_rules_and_copied_within_its_bound)
{
    const std::string elf = "\177ELF", nul(1, '\0'), marker = "--qzversion";
    const std::string stamp = marker + " V1.2.3" + nul;
    const Table<std::string, const char *> cases = {
        {elf + "code" + stamp + marker + " V2" + nul, "V1.2.3"},
        {elf + nul + marker + nul + "V" + nul, "V"},
        {elf + marker + " V", "V"},    // the file's end ends the text
        {elf + marker + " ", nullptr}, // none
        {elf + marker, nullptr},
        {elf + marker + "V1.2.3" + nul, nullptr}, // no separator
        {elf + marker + " 1" + stamp, "V1.2.3"},
        {elf + marker + " " + stamp, nullptr}, // passed over by the skip of 13 bytes
        {"text" + stamp, nullptr},
        {elf + std::string(5242880 - 4 - stamp.size(), 'x') + stamp, "V1.2.3"},
        {elf + std::string(5242881 - 4 - stamp.size(), 'x') + stamp, nullptr},
    };
    for (const auto &[file, expected] : cases) {
        write_file("/mnt/update/app", file);
        char version[32] = "untouched";
        EXPECT_EQ(qzlib_get_patch_version("app", version, sizeof version), expected == nullptr ? -1 : 0);
        EXPECT_STREQ(version, expected == nullptr ? "untouched" : expected) << file.substr(0, 64);
        EXPECT_EQ(qzlib_file_is_qzapp("/mnt/update/app"), expected != nullptr);
    }
    EXPECT_EQ(qzlib_file_is_qzapp(nullptr), 0);

    const std::string name(128 - sizeof "/usr/sbin/", 'n'); // with the directory 127 characters
    const std::string longer = name + "tail";
    const Cover programs("/usr/sbin");
    write_file("/usr/sbin/" + name, "\177ELF--qzversion V1.2.3");
    std::string out(11, '#');
    EXPECT_EQ(qzlib_get_ori_version(name.c_str(), out.data(), 3), 0);
    EXPECT_EQ(out, "V1.########");
    EXPECT_EQ(qzlib_get_ori_version(longer.c_str(), out.data(), 10), 0);
    EXPECT_EQ(out, std::string("V1.2.3\0\0\0\0#", 11));
    EXPECT_EQ(qzlib_get_ori_version(name.c_str(), out.data(), 0), -1);
    EXPECT_EQ(qzlib_get_ori_version(name.c_str(), nullptr, 10), -1);
    for (const char *program : {"none", NO_PATH})
        EXPECT_EQ(qzlib_get_ori_version(program, out.data(), 10), -1);
}

} // namespace
