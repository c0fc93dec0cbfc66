#include "support/case.h"
#include "support/log.h"
#include "support/syscall_trace.h"

#include <qzlib.h>

#if UINTPTR_MAX > UINT32_MAX
// A clock that stands at 0, which the kernel does not let a test set.
static bool clock_stands = false;
extern "C" time_t time(time_t *out)
{
    timespec now;
    clock_gettime(CLOCK_REALTIME_COARSE, &now);
    const time_t seconds = clock_stands ? 0 : now.tv_sec;
    return out != nullptr ? *out = seconds : seconds;
}
#endif

namespace
{

using namespace support;
constexpr const char *CLI_CONF = "/tmp/config/cli.conf";

// Writes the CLI configuration with a modification time that was not used before.
void configure(const std::string &content)
{
    static time_t mtime = 1'000'000'000;
    write_file(CLI_CONF, content);
    set_mtime(CLI_CONF, ++mtime);
}

// A modification time, also one that does not fit this program's time_t on a 32-bit machine.
void set_mtime64(const char *path, int64_t seconds)
{
#ifdef SYS_utimensat_time64
    constexpr long CALL = SYS_utimensat_time64;
#else
    constexpr long CALL = SYS_utimensat;
#endif
    const int64_t times[] = {seconds, 0, seconds, 0};
    ASSERT_EQ(syscall(CALL, AT_FDCWD, path, times, 0), 0);
}

// Which of the five levels come through, as digits.
std::string emitted_levels()
{
    for (int level = 0; level < 5; ++level)
        debug_msg(level, "m", 1, "%d", level);
    std::string levels = take_log();
    std::erase_if(levels, [](char c) { return c < '0' || c > '9'; });
    return levels;
}

struct FileLog : NothingLeft {
    FileLog() { openmsg_com(LOG_FILE, 0, "id", 0); }
    ~FileLog() override { closelog(); }
};

TEST_F(FileLog, threshold_follows_the_configuration_file)
{
    EXPECT_EQ(emitted_levels(), "1234") << "without a file the threshold is info";
    const std::string debug = "log msg-level debug\n", error = "log msg-level error\n";
    const Table<std::string, const char *> cases = {
        {debug, "01234"},
        {error, "34"},
        {"log msg-level warning\n", "234"},     // by prefix
        {"log msg-level emergency now\n", "4"}, // what follows the prefix is ignored
        {"log msg-level verbose\n", "4"},       // unknown: as before
        {"log  msg-level debug\n", "4"},        // two blanks
        {" log msg-level debug\n", "4"},        // indented; no level line: not back to info
        {"log msg-level debug", "4"},           // last line without line feed
        {"log msg-level info\r\n" + error + "log msg-level debug", "34"}, // the last full line wins
        {std::string(10'000'000, '\0') + "\n" + debug, "01234"},
        {std::string(10'000'000, 'x'), "01234"},
        {std::string(383, 'x') + error, "34"}, // a long line is read in such pieces
    };
    for (const auto &[content, expected] : cases) {
        configure(content);
        EXPECT_EQ(emitted_levels(), expected) << content.substr(0, 100);
    }
    remove(CLI_CONF);
    EXPECT_EQ(emitted_levels(), "34") << "a missing file changes nothing";
    ASSERT_EQ(mkdir(CLI_CONF, 0755), 0);
    EXPECT_EQ(emitted_levels(), "34");
}

TEST_F(FileLog, an_edit_that_keeps_the_modification_time_is_not_seen)
{
    constexpr int64_t AFTER_2038 = 2'208'988'800;
    // Any other time, an earlier one too, is a change.
    const Table<const char *, int64_t, const char *> edits = {
        {"error", 5000, "34"}, {"debug", 5000, "34"}, {"debug", 4999, "01234"}, {"error", AFTER_2038, "34"}};
    for (const auto &[level, mtime, expected] : edits) {
        write_file(CLI_CONF, std::string("log msg-level ") + level + "\n");
        set_mtime64(CLI_CONF, mtime);
        EXPECT_EQ(emitted_levels(), expected);
    }
    write_file(LOG_FILE, std::string(204800, 'o'));
    set_mtime64(LOG_FILE, AFTER_2038);
    debug_msg(3, nullptr, 0, "fresh");
    EXPECT_LT(read_file(LOG_FILE).size(), 100U) << "a log that is full is begun anew, whatever its time";
}

TEST_F(FileLog, line_is_time_level_ident_and_message)
{
    const char *prefixes[] = {"<DEBUG>", "<INFO>", "<WARNING>", "<ERROR>", "<FATAL>"};
    const std::string ident = "0123456789abcdef0123456789abcdef"; // 32 characters are taken
    start_log((ident + "TAIL").c_str());
    for (int level = 0; level < 5; ++level) {
        remove(LOG_FILE);
        debug_msg(level, "module", 42, "rssi %d of %s", -71, "wwan0");
        const std::string text = prefixes[level] + ident + ":rssi -71 of wwan0\n";
        EXPECT_EQ(with_zeros(read_file(LOG_FILE)), "[0-0-0 0:0:0]" + with_zeros(text));
        EXPECT_TRUE(read_file(LOG_FILE).ends_with(text));
    }
    EXPECT_EQ(std::filesystem::status(LOG_FILE).permissions(), std::filesystem::perms(0644));

    const std::string long_path = "/tmp/" + std::string(300, 'p'); // 256 characters are taken
    openmsg_com(long_path.c_str(), 0, "id", 0);
    debug_msg(3, nullptr, 0, "%s", std::string(5000, 'x').c_str());
    const std::string log = read_file(long_path.substr(0, 256));
    const size_t head = log.find(":xxx") + 1;
    // Of 1022 bytes less the head one is the terminator, and the line feed takes its place.
    EXPECT_EQ(log.substr(head), std::string(1022 - head - 1, 'x') + "\n");
}

#if UINTPTR_MAX > UINT32_MAX
TEST_F(FileLog, clock_at_zero_has_a_time_too)
{
    clock_stands = true;
    debug_msg(3, nullptr, 0, "x");
    clock_stands = false;
    EXPECT_EQ(read_file(LOG_FILE).substr(0, 6), "[1970-");
}
#endif

TEST_F(FileLog, file_at_its_cap_is_begun_anew)
{
    for (const auto &[cap, size] : {std::pair(100, 100), {0, 204800}}) {
        openmsg_com(LOG_FILE, cap, "id", 0);
        const std::string full(static_cast<size_t>(size), 'o');
        write_file(LOG_FILE, full.substr(1));
        debug_msg(3, nullptr, 0, "kept");
        EXPECT_EQ(read_file(LOG_FILE).substr(0, full.size()), full.substr(1) + "[");
        write_file(LOG_FILE, full);
        debug_msg(3, nullptr, 0, "fresh");
        EXPECT_EQ(read_file(LOG_FILE)[0], '[');
    }
}

TEST_F(FileLog, file_that_cannot_be_opened_costs_one_message)
{
    openmsg_com("/tmp/no/such/dir.log", 0, "id", 0);
    SyslogSink sink;
    errno = EDOM;
    debug_msg(3, "module", 1, "lost");
    EXPECT_EQ(errno, EDOM);
    // LOG_USER, LOG_ERR: openlog() was never called.
    EXPECT_EQ(sink.take(), "<11>Error open message file(/tmp/no/such/dir.log) for record\n");
}

TEST_F(FileLog, messages_of_threads_are_whole_lines_and_leak_nothing)
{
    std::vector<std::jthread> threads;
    for (int t = 0; t < 4; ++t)
        threads.emplace_back([t] {
            for (int i = 0; i < 250; ++i)
                debug_msg(3, "m", i, "thread %d message %03d end", t, i);
        });
    for (int i = 0; i < 50; ++i) {
        write_file(CLI_CONF, "log msg-level info\n");
        set_mtime(CLI_CONF, 5000 + i);
    }
    threads.clear();
    std::string lines;
    for (int i = 0; i < 1000; ++i)
        lines += "[0-0-0 0:0:0]<ERROR>id:thread 0 message 0 end\n";
    EXPECT_EQ(with_zeros(read_file(LOG_FILE)), lines);
    const auto write_one = [] { debug_msg(3, "m", 1, "text"); };
    EXPECT_EQ(trace_writes("/tmp/", write_one).size(), 1U) << "a line is one write";
}

TEST(SyslogMode, priorities_formats_ident_and_quiet_stdio)
{
    SyslogSink sink;
    configure("log msg-level debug\n");
    debug_msg(3, "mod", 7, "before open"); // no openmsg() yet: libc opens by itself
    openmsg("netd");
    for (int level = 0; level < 5; ++level)
        debug_msg(level, "system_api", 12, "%s-%d", "text", level);
    debug_msg(1, nullptr, 12, "bare 100%%");
    debug_msg(1, nullptr, 0, "%s", std::string(3000, 'y').c_str());
    errno = ENOENT;
    debug_msg(1, nullptr, 0, "open: %m");
    EXPECT_EQ(sink.take(), "<11>before open{mod\n"
                           "<30>text-0{system_api\n<30>text-1{system_api\n<28>text-2{system_api\n"
                           "<27>text-3{system_api\n<24>text-4{system_api\n<30>bare 100%\n<30>" +
                               std::string(1022, 'y') + "\n<30>open: No such file or directory\n");
    debug_msg(1, "system_api", 12, "x");
    const std::string line = " netd[" + std::to_string(getpid()) + "]: x{system_api->12}";
    EXPECT_NE(sink.next().find(line), std::string::npos);
    closemsg();
    debug_msg(1, nullptr, 0, "reopened");
    EXPECT_NE(sink.next().find(": reopened"), std::string::npos);

    fflush(stdout);
    const int out = dup(1), err = dup(2);
    openmsg_com(nullptr, 0, "0123456789abcdef0123456789abcdefTAIL", QZLIB_LOG_QUIET_STDIO);
    for (const char *slot : {"/proc/self/fd/1", "/proc/self/fd/2"})
        EXPECT_EQ(std::filesystem::read_symlink(slot), "/dev/null");
    dup2(out, 1);
    dup2(err, 2);
    debug_msg(1, nullptr, 0, "x");
    const std::string tag = " 0123456789abcdef0123456789abcdef[" + std::to_string(getpid()) + "]: x";
    EXPECT_NE(sink.next().find(tag), std::string::npos);
}

TEST(Timestamp, is_local_time_cut_to_the_buffer)
{
    const Table<const char *, time_t, int, const char *> cases = {
        {"UTC0", 0x7fffffff, 32, "2038-01-19 03:14:07"},
        {"XYZ-3", 86400, 32, "1970-01-02 03:00:00"},
        {"XYZ-3", 86400, 20, "1970-01-02 03:00:00"},
        {"XYZ-3", 86400, 11, "1970-01-02"},
        {"XYZ-3", 86400, 1, ""},
    };
    char buffer[32];
    for (const auto &[zone, time, size, text] : cases) {
        setenv("TZ", zone, 1); // a change of the zone is followed
        memset(buffer, '#', sizeof buffer);
        EXPECT_EQ(str_timestamp(time, buffer, size), buffer);
        EXPECT_STREQ(buffer, text);
    }
    const time_t before = time(nullptr);
    const std::string now = str_timestamp(0, buffer, sizeof buffer);
    EXPECT_GE(now, str_timestamp(before, buffer, sizeof buffer));
    EXPECT_LE(now, str_timestamp(time(nullptr), buffer, sizeof buffer));
}

TEST(ResetFileSize, deletes_at_the_cap_and_reports_the_size_below)
{
    write_file("/tmp/f", std::string(100, 'x'));
    EXPECT_EQ(reset_file_size("/tmp/f", 101), 100);
    ASSERT_EQ(truncate("/tmp/f", (5LL << 30) + 7), 0); // past 32 bits
    EXPECT_EQ(reset_file_size("/tmp/f", 100), 0);
    EXPECT_NE(access("/tmp/f", F_OK), 0);
    EXPECT_NE(reset_file_size("/tmp/f", 100), 0);
}

} // namespace
