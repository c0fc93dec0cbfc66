// What qzctl promises about the files that it changes: whatever happens, one can go on with them.
#include "support/case.h"

#include <qzlib.h>
#include <sys/mount.h>
#include <sys/ptrace.h>

namespace
{

using namespace support;

constexpr const char *FILE_PATH = "/tmp/config/netd.conf";
constexpr const char *IMAGE = "/tmp/image";
constexpr const char *BACKUP = "/tmp/backup";
constexpr size_t ENVIRONMENT_SIZE = 0x20000;

std::vector<std::string> words_of(const std::string &line)
{
    std::istringstream stream(line);
    return {std::istream_iterator<std::string>(stream), {}};
}

pid_t start(const std::string &arguments, bool traced = false)
{
    const pid_t pid = fork();
    if (pid != 0)
        return pid;
    dup2(open("/tmp/said", O_WRONLY | O_CREAT | O_TRUNC, 0644), 2);
    dup2(2, 1);
    std::vector<std::string> words = words_of(BINARY_DIR "/bin/qzctl " + arguments);
    std::vector<char *> argv;
    for (std::string &word : words)
        argv.push_back(word.data());
    argv.push_back(nullptr);
    if (traced)
        ptrace(PTRACE_TRACEME, 0, nullptr, nullptr);
    execv(argv[0], argv.data());
    _exit(127);
}

int finish(pid_t pid)
{
    int status = 0;
    waitpid(pid, &status, 0);
    return WIFEXITED(status) ? WEXITSTATUS(status) : -1;
}

int qzctl(const std::string &arguments)
{
    return finish(start(arguments));
}

// Kills the command at its nth stop, which are the beginnings and ends of its system calls. False: it had
// ended before.
bool kill_at(unsigned stop, const std::string &arguments)
{
    const pid_t pid = start(arguments, true);
    int status = 0;
    for (unsigned i = 0; i <= stop; ++i) {
        waitpid(pid, &status, 0);
        if (!WIFSTOPPED(status))
            return false;
        ptrace(PTRACE_SYSCALL, pid, nullptr, nullptr);
    }
    kill(pid, SIGKILL);
    waitpid(pid, &status, 0);
    return true;
}

size_t files_in(const char *folder)
{
    size_t count = 0;
    for ([[maybe_unused]] const auto &entry : std::filesystem::directory_iterator(folder))
        ++count;
    return count;
}

constexpr const char *OLD = "# comment\nmode=auto\nwan\n mtu=1500\n";
constexpr const char *NEW = "# comment\nmode=auto\nwan\n mtu=1428\n";

TEST(ConfSet, killed_at_any_system_call_leaves_the_old_or_the_new_file)
{
    unsigned stop = 0;
    unsigned renewed = 0;
    for (bool was_killed = true; was_killed; stop += slowness() > 1 ? 5 : 1) {
        write_file(FILE_PATH, OLD);
        was_killed = kill_at(stop, "conf netd set wan mtu=1428");
        const std::string found = read_file(FILE_PATH);
        ASSERT_TRUE(found == OLD || found == NEW) << "stop " << stop << ": " << found;
        renewed += found == NEW ? 1 : 0;
        ASSERT_EQ(qzctl("conf netd set wan mtu=1428"), 0) << read_file("/tmp/said");
        ASSERT_EQ(read_file(FILE_PATH), NEW);
    }
    EXPECT_GT(stop, 40U);
    EXPECT_GT(renewed, 1U);
    EXPECT_LT(renewed, stop);
    EXPECT_EQ(qzctl("conf netd set wan mtu=1"), 0);
    EXPECT_EQ(files_in("/tmp/config"), 1U) << "something is left";
}

TEST(ConfSet, on_a_full_disk_leaves_the_old_file_and_says_so)
{
    const std::string folder = "/tmp/disk";
    const std::string file = folder + "/a.txt";
    std::filesystem::create_directory(folder);
    ASSERT_EQ(mount("none", folder.c_str(), "tmpfs", 0, "size=64k"), 0) << strerror(errno);
    write_file(file, OLD);
    const std::string set = "conf --file " + file + " set wan mtu=1428";
    const int fd = open((folder + "/rest").c_str(), O_WRONLY | O_CREAT | O_CLOEXEC, 0644);
    const std::string page(4096, 'x');
    while (write(fd, page.data(), page.size()) > 0) {
    }
    close(fd);
    EXPECT_EQ(qzctl(set), 1);
    EXPECT_EQ(read_file("/tmp/said"), "qzctl: " + file + ": No space left on device; it is as it was\n");
    EXPECT_EQ(read_file(file), OLD);
    EXPECT_EQ(files_in(folder.c_str()), 2U);
    std::filesystem::remove(folder + "/rest");
    EXPECT_EQ(qzctl(set), 0);
    EXPECT_EQ(read_file(file), NEW);
    umount(folder.c_str());
}

TEST(ConfSet, keeps_owner_mode_links_and_what_another_qzctl_sets)
{
    write_file("/tmp/config/real", OLD);
    std::filesystem::create_symlink("real", FILE_PATH);
    ASSERT_EQ(chown("/tmp/config/real", 1, 2), 0);
    ASSERT_EQ(chmod("/tmp/config/real", 0640), 0);
    std::vector<pid_t> pids;
    for (int i = 0; i < 20; ++i)
        pids.push_back(start("conf netd set wan x" + std::to_string(i) + "=1"));
    for (const pid_t pid : pids)
        EXPECT_EQ(finish(pid), 0);
    for (int i = 0; i < 20; ++i)
        EXPECT_EQ(qzctl("conf netd get wan x" + std::to_string(i)), 0) << i;
    struct stat status {
    };
    ASSERT_EQ(lstat("/tmp/config/real", &status), 0);
    EXPECT_EQ(status.st_uid, 1U);
    EXPECT_EQ(status.st_gid, 2U);
    EXPECT_EQ(status.st_mode, S_IFREG | 0640U);
    EXPECT_TRUE(std::filesystem::is_symlink(FILE_PATH));
}

TEST(ConfSet, refuses_to_lose_what_the_readers_pass_over)
{
    const std::string long_line(1100, 'x');
    for (const std::string &text :
         {std::string("a=1\nlast"), "a=" + long_line + "\n", std::string("a=1\n stray\n"),
          std::string("empty\n"), "g\n b=" + std::string(300, 'y') + "\n"}) {
        write_file(FILE_PATH, text);
        EXPECT_EQ(qzctl("conf netd set a=2"), 1) << text;
        EXPECT_EQ(read_file(FILE_PATH), text);
        EXPECT_EQ(qzctl("conf netd set a=2 --force"), 0) << text;
    }
}

TEST(LogLevel, each_change_gives_the_file_another_second_for_running_daemons)
{
    write_file("/tmp/config/cli.conf", "hostname x\nlog msg-level info\n!\n");
    openmsg_com("/tmp/log", 0, "test", 0);
    for (const char *level : {"debug", "error", "debug", "warn", "debug"}) {
        EXPECT_EQ(qzctl(std::string("log level ") + level), 0);
        debug_msg(QZLIB_LOG_DEBUG, nullptr, 0, "%s", level);
    }
    const std::string log = read_file("/tmp/log");
    EXPECT_EQ(std::count(log.begin(), log.end(), '\n'), 3) << log;
    EXPECT_EQ(read_file("/tmp/config/cli.conf"), "hostname x\nlog msg-level debug\n!\n");
}

std::string make_block(const std::string &entries)
{
    std::string data = entries;
    data.resize(ENVIRONMENT_SIZE - 4);
    const uint32_t sum = crc32(0, reinterpret_cast<const unsigned char *>(data.data()), ENVIRONMENT_SIZE - 4);
    return std::string(reinterpret_cast<const char *>(&sum), 4) + data;
}

const std::string ENTRIES("a=1\0b=2\0a=3\0", 12);
const std::string IMAGE_OPTION = std::string(" --image ") + IMAGE;

TEST(Env, spoilt_in_any_way_is_refused_and_restored)
{
    const std::string good = make_block(ENTRIES);
    const Table<const char *, std::function<void(std::string &)>> spoilings = {
        {"a wrong sum", [](std::string &block) { block[0] ^= 1; }},
        {"another byte", [](std::string &block) { block[100] = 'x'; }},
        {"its last byte", [](std::string &block) { block.back() = 'x'; }},
        {"a cut write", [](std::string &block) { block.replace(0, 8, make_block("c=4"), 0, 8); }},
        {"an erased page", [](std::string &block) { block.replace(0, 0x1000, 0x1000, '\xff'); }},
        {"blank flash", [](std::string &block) { block.assign(ENVIRONMENT_SIZE, '\xff'); }},
    };
    for (const auto &[name, spoil] : spoilings) {
        write_file(IMAGE, "before" + good);
        ASSERT_EQ(qzctl(std::string("env backup ") + BACKUP + IMAGE_OPTION), 0);
        std::string block = good;
        spoil(block);
        write_file(IMAGE, "before" + block);
        for (const char *command : {"list", "get a", "set a=1", "unset a", "clear", "verify"}) {
            EXPECT_EQ(qzctl(std::string("env ") + command + IMAGE_OPTION + " --backup " + BACKUP), 1)
                << name << " " << command;
            EXPECT_NE(read_file("/tmp/said").find("spoilt: its sum"), std::string::npos);
            EXPECT_NE(read_file("/tmp/said").find("qzctl env restore /tmp/backup"), std::string::npos);
        }
        EXPECT_TRUE(read_file(IMAGE) == "before" + block) << name;
        EXPECT_EQ(qzctl("env set c=4 --force --backup " + std::string(BACKUP) + IMAGE_OPTION), 0) << name;
        EXPECT_TRUE(read_file(IMAGE) == "before" + make_block("c=4")) << name;
        EXPECT_TRUE(read_file(BACKUP) == good) << "a spoilt block took the place of a backup";
        write_file(IMAGE, "before" + block);
        EXPECT_EQ(qzctl(std::string("env restore ") + BACKUP + IMAGE_OPTION), 0) << name;
        EXPECT_TRUE(read_file(IMAGE) == "before" + good) << name;
    }
    write_file(BACKUP, std::string(ENVIRONMENT_SIZE, 'x'));
    EXPECT_EQ(qzctl(std::string("env restore ") + BACKUP + IMAGE_OPTION), 1);
}

TEST(Env, is_written_once_and_only_when_it_changes)
{
    const Table<const char *, int, std::string> changes = {
        {"set b=2", 0, ENTRIES},
        {"set a=1", 0, {"b=2\0a=1\0", 8}}, // what was there twice is there once
        {"set c=3 d=4 b=2", 0, {"b=2\0a=1\0c=3\0d=4\0", 16}},
        {"unset c a", 0, {"b=2\0d=4\0", 8}},
        {"unset d nope", 1, {"b=2\0d=4\0", 8}},
    };
    write_file(IMAGE, make_block(ENTRIES));
    for (const auto &[change, result, entries] : changes) {
        const std::string before = read_file(IMAGE);
        struct stat old {
        };
        ASSERT_EQ(stat(IMAGE, &old), 0);
        EXPECT_EQ(qzctl(std::string("env ") + change + IMAGE_OPTION), result) << change;
        EXPECT_TRUE(read_file(IMAGE) == make_block(entries)) << change;
        struct stat now {
        };
        ASSERT_EQ(stat(IMAGE, &now), 0);
        const bool was_written = memcmp(&old.st_mtim, &now.st_mtim, sizeof old.st_mtim) != 0;
        EXPECT_EQ(was_written, read_file(IMAGE) != before) << change;
    }
    EXPECT_EQ(qzctl("env set x=" + std::string(60000, 'x') + IMAGE_OPTION), 0);
    EXPECT_EQ(qzctl("env set y=" + std::string(80000, 'y') + IMAGE_OPTION), 1);
    std::vector<pid_t> pids;
    for (int i = 0; i < 10; ++i)
        pids.push_back(start("env set n" + std::to_string(i) + "=1" + IMAGE_OPTION));
    for (const pid_t pid : pids)
        EXPECT_EQ(finish(pid), 0);
    for (int i = 0; i < 10; ++i)
        EXPECT_EQ(qzctl("env get n" + std::to_string(i) + IMAGE_OPTION), 0) << i;
}

} // namespace
