// What qzctl promises about the files that it changes: whatever happens, one can go on with them.
#include "support/case.h"

#include <list>
#include <qzlib.h>
#include <sys/ptrace.h>

namespace
{

using namespace support;

constexpr const char *CONF = "/tmp/config/netd.conf";
constexpr const char *OLD = "# comment\nmode=auto\nwan\n mtu=1500\n";
constexpr const char *NEW = "# comment\nmode=auto\nwan\n mtu=1428\n";
constexpr const char *SAID = "/tmp/said";
constexpr const char *IMAGE = "/tmp/image";

std::vector<std::string> words_of(const std::string &arguments)
{
    std::istringstream stream("qzctl " + arguments);
    return {std::istream_iterator<std::string>(stream), {}};
}

int qzctl(const std::string &arguments)
{
    return Process(words_of(arguments), SAID).wait();
}

int env(const std::string &arguments)
{
    return qzctl("env " + arguments + " --image " + IMAGE);
}

// Sets twenty names at once, each by a command of its own.
void set_at_once(const std::string &set, const std::string &get, const std::string &options)
{
    std::list<Process> processes;
    for (int i = 0; i < 20; ++i)
        processes.emplace_back(words_of(set + std::to_string(i) + "=1" + options), SAID);
    for (Process &process : processes)
        EXPECT_EQ(process.wait(), 0);
    for (int i = 0; i < 20; ++i)
        EXPECT_EQ(qzctl(get + std::to_string(i) + options), 0) << i;
}

// Kills the command at its nth stop, which are the beginnings and ends of its system calls. False: it had
// ended before.
bool kill_at(unsigned stop, const std::string &arguments)
{
    Process traced([&] {
        setenv("ASAN_OPTIONS", "detect_leaks=0", 1); // which would trace it, too
        ptrace(PTRACE_TRACEME, 0, nullptr, nullptr);
        Process::exec(words_of(arguments), SAID);
    });
    for (unsigned i = 0; i <= stop; ++i) {
        siginfo_t change{};
        waitid(P_PID, static_cast<id_t>(traced.pid()), &change, WEXITED | WSTOPPED | WNOWAIT);
        if (change.si_code == CLD_EXITED)
            return false;
        ptrace(PTRACE_SYSCALL, traced.pid(), nullptr, nullptr);
    }
    traced.end(SIGKILL);
    return true;
}

TEST(ConfSet, killed_at_any_system_call_leaves_the_old_or_the_new_file)
{
    unsigned stop = 0;
    unsigned renewed = 0;
    for (bool was_killed = true; was_killed; stop += slowness() > 1 ? 3 : 1) {
        write_file(CONF, OLD);
        was_killed = kill_at(stop, "conf netd set wan mtu=1428");
        const std::string found = read_file(CONF);
        ASSERT_TRUE(found == OLD || found == NEW) << "stop " << stop << ": " << found;
        renewed += found == NEW ? 1 : 0;
        ASSERT_EQ(qzctl("conf netd set wan mtu=1428"), 0) << read_file(SAID);
        ASSERT_EQ(read_file(CONF), NEW);
    }
    EXPECT_GT(stop, 40U);
    EXPECT_GT(renewed, 1U);
    EXPECT_LT(renewed, stop);
    EXPECT_EQ(qzctl("conf netd set wan mtu=1"), 0);
    EXPECT_EQ(entries_in("/tmp/config"), 1U) << "something is left";
}

TEST(ConfSet, on_a_full_disk_leaves_the_old_file_and_says_so)
{
    std::filesystem::create_directory("/tmp/disk");
    const Cover disk("/tmp/disk", "size=64k");
    const std::string file = "/tmp/disk/a.txt";
    const std::string set = "conf --file " + file + " set wan mtu=1428";
    write_file(file, OLD);
    write_file("/tmp/disk/rest", std::string(1 << 17, 'x')); // as far as there is room
    EXPECT_EQ(qzctl(set), 1);
    EXPECT_EQ(read_file(SAID), "qzctl: " + file + ": No space left on device; it is as it was\n");
    EXPECT_EQ(read_file(file), OLD);
    EXPECT_EQ(entries_in("/tmp/disk"), 2U);
    std::filesystem::remove("/tmp/disk/rest");
    EXPECT_EQ(qzctl(set), 0);
    EXPECT_EQ(read_file(file), NEW);
}

TEST(ConfSet, keeps_owner_mode_links_and_what_another_qzctl_sets)
{
    write_file("/tmp/config/real", OLD);
    std::filesystem::create_symlink("real", CONF);
    const bool can_give = chown(CONF, 1, 2) == 0; // in a box of an ordinary user there is nobody else
    ASSERT_EQ(chmod(CONF, 0640), 0);
    set_at_once("conf netd set wan x", "conf netd get wan x", "");
    EXPECT_EQ(sh("cd /tmp/config; stat -c '%u %g %a' real; readlink netd.conf"),
              std::string(can_give ? "1 2" : "0 0") + " 640\nreal\n");
}

TEST(ConfSet, refuses_to_lose_what_the_readers_pass_over)
{
    for (const std::string &text :
         {std::string("a=1\nlast"), "a=" + std::string(1100, 'x') + "\n", std::string("a=1\n stray\n"),
          std::string("empty\n"), "g\n b=" + std::string(300, 'y') + "\n"}) {
        write_file(CONF, text);
        EXPECT_EQ(qzctl("conf netd set a=2"), 1) << text;
        EXPECT_EQ(read_file(CONF), text);
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

constexpr size_t BLOCK = 0x20000;

std::string block_of(std::string entries)
{
    entries.resize(BLOCK - 4);
    const uint32_t sum = crc32(0, reinterpret_cast<const unsigned char *>(entries.data()), BLOCK - 4);
    return std::string(reinterpret_cast<const char *>(&sum), 4) + entries;
}

const std::string ENTRIES("a=1\0b=2\0a=3\0", 12);

TEST(Env, spoilt_in_any_way_is_refused_and_restored)
{
    const std::string good = block_of(ENTRIES), backup = "/tmp/backup", option = " --backup " + backup;
    // Where what stands in the place of good bytes: a wrong sum, other bytes, a cut write, an erased page
    // and blank flash.
    const Table<size_t, std::string> spoilings = {
        {0, "x"},
        {100, "x"},
        {BLOCK - 1, "x"},
        {0, block_of("c=4").substr(0, 8)},
        {0, std::string(0x1000, '\xff')},
        {0, std::string(BLOCK, '\xff')},
    };
    for (const auto &[at, bytes] : spoilings) {
        SCOPED_TRACE(std::to_string(bytes.size()) + " bytes at " + std::to_string(at));
        write_file(IMAGE, "before" + good);
        ASSERT_EQ(env("backup " + backup), 0);
        const std::string spoilt = "before" + std::string(good).replace(at, bytes.size(), bytes);
        write_file(IMAGE, spoilt);
        for (const char *command : {"list", "get a", "set a=1", "unset a", "clear", "verify"}) {
            EXPECT_EQ(env(command + option), 1) << command;
            EXPECT_NE(read_file(SAID).find("spoilt: its sum"), std::string::npos);
            EXPECT_NE(read_file(SAID).find("qzctl env restore /tmp/backup"), std::string::npos);
        }
        EXPECT_TRUE(read_file(IMAGE) == spoilt);
        EXPECT_EQ(env("set c=4 --force" + option), 0);
        EXPECT_TRUE(read_file(IMAGE) == "before" + block_of("c=4"));
        EXPECT_TRUE(read_file(backup) == good) << "a spoilt block took the place of a backup";
        write_file(IMAGE, spoilt);
        EXPECT_EQ(env("restore " + backup), 0);
        EXPECT_TRUE(read_file(IMAGE) == "before" + good);
    }
    write_file(backup, std::string(BLOCK, 'x'));
    EXPECT_EQ(env("restore " + backup), 1);
}

TEST(Env, is_written_once_and_only_when_it_changes)
{
    const Table<std::string, int, std::string> changes = {
        {"set b=2", 0, ENTRIES},
        {"set a=1", 0, {"b=2\0a=1\0", 8}}, // what was there twice is there once
        {"set c=3 d=4 b=2", 0, {"b=2\0a=1\0c=3\0d=4\0", 16}},
        {"unset c a", 0, {"b=2\0d=4\0", 8}},
        {"unset d nope", 1, {"b=2\0d=4\0", 8}},
    };
    write_file(IMAGE, block_of(ENTRIES));
    for (const auto &[change, result, entries] : changes) {
        const std::string before = read_file(IMAGE);
        const auto written = std::filesystem::last_write_time(IMAGE);
        EXPECT_EQ(env(change), result) << change;
        EXPECT_TRUE(read_file(IMAGE) == block_of(entries)) << change;
        EXPECT_EQ(std::filesystem::last_write_time(IMAGE) != written, read_file(IMAGE) != before) << change;
    }
    EXPECT_EQ(env("set x=" + std::string(60000, 'x')), 0);
    EXPECT_EQ(env("set y=" + std::string(80000, 'y')), 1);
    set_at_once("env set n", "env get n", std::string(" --image ") + IMAGE);
}

} // namespace
