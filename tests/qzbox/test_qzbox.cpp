// qzbox itself, run on the host: the boxes are real, and so is what must not be left behind.
// QZBOX_PATH and ROUTER_TREE come from the build. Needs root or user namespaces.
#include <gtest/gtest.h>

#include <fcntl.h>
#include <grp.h>
#include <sys/stat.h>
#include <sys/wait.h>
#include <unistd.h>

#include <algorithm>
#include <csignal>
#include <cstdlib>
#include <filesystem>
#include <fstream>
#include <string>
#include <vector>

namespace
{

namespace fs = std::filesystem;
using Words = std::vector<std::string>;

struct Outcome {
    int status;
    std::string output; // standard output and standard error
};

std::string read_file(const fs::path &path)
{
    std::ifstream file(path, std::ios::binary);
    return {std::istreambuf_iterator<char>(file), {}};
}

void write_file(const fs::path &path, const std::string &text)
{
    fs::create_directories(path.parent_path());
    std::ofstream(path, std::ios::binary) << text;
}

struct Running {
    pid_t pid;
    int output; // read end of a pipe
};

Running start(Words words, bool as_nobody = false)
{
    int ends[2];
    EXPECT_EQ(pipe2(ends, O_CLOEXEC), 0);
    const int program = open(QZBOX_PATH, O_PATH | O_CLOEXEC); // the user below may not reach the path
    const pid_t pid = fork();
    if (pid == 0) {
        dup2(ends[1], STDOUT_FILENO);
        dup2(ends[1], STDERR_FILENO);
        if (as_nobody && (setgroups(0, nullptr) != 0 || setgid(65534) != 0 || setuid(65534) != 0))
            _exit(1);
        std::vector<char *> arguments;
        for (std::string &word : words)
            arguments.push_back(word.data());
        arguments.push_back(nullptr);
        fexecve(program, arguments.data(), environ);
        _exit(1);
    }
    close(program);
    close(ends[1]);
    return {pid, ends[0]};
}

Outcome finish(const Running &running)
{
    std::string output;
    char buffer[4096];
    ssize_t length = 0;
    while ((length = read(running.output, buffer, sizeof(buffer))) > 0)
        output.append(buffer, static_cast<size_t>(length));
    close(running.output);
    int status = 0;
    waitpid(running.pid, &status, 0);
    return {WIFEXITED(status) ? WEXITSTATUS(status) : -WTERMSIG(status), output};
}

Outcome box(Words options, const Words &command, bool as_nobody = false)
{
    options.insert(options.begin(), "qzbox");
    options.insert(options.end(), command.begin(), command.end());
    return finish(start(options, as_nobody));
}

// Output of a script that must succeed in the box.
std::string script(const Words &options, const std::string &text, bool as_nobody = false)
{
    const Outcome outcome = box(options, {"--", "sh", "-ec", text}, as_nobody);
    EXPECT_EQ(outcome.status, 0) << text << "\n" << outcome.output;
    return outcome.output;
}

// A directory below /tmp, which the box covers.
class QzboxTest : public testing::Test
{
protected:
    QzboxTest()
    {
        std::string name = "/tmp/test_qzbox.XXXXXX";
        directory_ = mkdtemp(name.data());
        chmod(directory_.c_str(), 0755);
        fs::current_path("/"); // else the box might show it below /tmp
        unsetenv("LD_LIBRARY_PATH");
    }
    ~QzboxTest() override { fs::remove_all(directory_); }

    [[nodiscard]] Words tree() const { return {"--root", directory_ / "tree"}; }

    fs::path directory_;
};

TEST_F(QzboxTest, status_is_the_commands_or_the_one_shells_use)
{
    const struct {
        Words command;
        int status;
    } cases[] = {
        {{"--", "sh", "-c", "exit 7"}, 7},
        {{"sh", "-c", "kill -9 $$"}, 137}, // options after the command are the command's
        {{"/etc/passwd"}, 126},
        {{"no-such-command"}, 127},
        {{}, 125},
        {{"--no-such-option", "true"}, 125},
        {{"--root", "/no/such/tree", "true"}, 125},
        {{"--bind", "/tmp", "true"}, 125},
    };
    for (const auto &wanted : cases)
        EXPECT_EQ(box({}, wanted.command).status, wanted.status) << testing::PrintToString(wanted.command);
}

TEST_F(QzboxTest, box_is_a_router_of_its_own)
{
    EXPECT_EQ(script({}, "cat /proc/1/comm; hostname; cat /sys/class/net/lo/flags; ls /sys/class/net"),
              "init\nrouter\n0x9\nlo\n");
    EXPECT_EQ(
        script({},
               "cd /; test -c /dev/null; test ! -e /dev/kmsg; ls /tmp /data /mnt; stat -c %a /tmp; echo $$"),
        "/data:\n\n/mnt:\n\n/tmp:\n1777\n2\n");
    EXPECT_EQ(script({}, "script -qec 'tty' /dev/null | tr -d '\\r'"), "/dev/pts/0\n");
}

TEST_F(QzboxTest, messages_to_dev_log_become_lines_of_var_log_messages)
{
    const std::string log = script({}, "for t in one two; do logger -u /dev/log -t $t text; done\n"
                                       "until grep two /var/log/messages; do :; done >/dev/null\n"
                                       "cat /var/log/messages");
    EXPECT_EQ(std::count(log.begin(), log.end(), '\n'), 2) << log;
    EXPECT_LT(log.find("one: text\n"), log.find("two: text\n"));
}

TEST_F(QzboxTest, nothing_is_left_behind)
{
    const std::string mounts = read_file("/proc/self/mounts");
    const std::string segments = read_file("/proc/sysvipc/shm");
    // The sleeper holds the output pipe: reading to its end proves that it is gone.
    script({"--root", ROUTER_TREE}, "touch /tmp/qzbox_left /run/qzbox_left /dev/shm/qzbox_left /qzbox_left\n"
                                    "ipcmk -M 4096 >/dev/null; sleep 600 &");
    EXPECT_EQ(read_file("/proc/self/mounts"), mounts);
    EXPECT_EQ(read_file("/proc/sysvipc/shm"), segments);
    for (const char *path : {"/tmp/qzbox_left", "/run/qzbox_left", "/dev/shm/qzbox_left", "/qzbox_left"})
        EXPECT_FALSE(fs::exists(path)) << path;
}

TEST_F(QzboxTest, killing_the_outer_process_ends_the_box)
{
    const Running running = start({"qzbox", "--root", ROUTER_TREE, "sh", "-c", "echo up; sleep 600; :"});
    char byte = 0;
    ASSERT_EQ(read(running.output, &byte, 1), 1);
    kill(running.pid, SIGKILL);
    EXPECT_EQ(finish(running).status, -SIGKILL); // as above: at the end of the pipe nobody is left
}

TEST_F(QzboxTest, termination_is_passed_on_to_the_command)
{
    const Running running = start({"qzbox", "sh", "-c", "trap 'exit 9' TERM; echo up; sleep 600 & wait"});
    char text[3];
    ASSERT_EQ(read(running.output, text, sizeof(text)), 3);
    kill(running.pid, SIGTERM);
    EXPECT_EQ(finish(running).status, 9);
}

TEST_F(QzboxTest, needed_paths_below_private_directories_stay_visible)
{
    write_file(directory_ / "here" / "file", "here\n");
    write_file(directory_ / "bound" / "file", "bound\n");
    write_file(directory_ / "bin" / "tool", "#!/bin/sh\necho tool; ls " + directory_.string() + "\n");
    fs::permissions(directory_ / "bin" / "tool", fs::perms::owner_all);
    fs::current_path(directory_ / "here");
    EXPECT_EQ(
        script({"--bind", directory_ / "bound"}, "cat file; cat ../bound/file; ls ..; echo written >out"),
        "here\nbound\nbound\nhere\n");
    EXPECT_EQ(read_file(directory_ / "here" / "out"), "written\n"); // it is the host's directory
    fs::current_path("/");
    EXPECT_EQ(box({}, {directory_ / "bin" / "tool"}).output, "tool\nbin\n");
}

TEST_F(QzboxTest, tree_covers_files_of_the_kernel_and_of_the_host)
{
    write_file(directory_ / "tree/proc/uptime", "100.05 1.00\n");
    write_file(directory_ / "tree/sys/class/leds/power/brightness", "1\n");
    write_file(directory_ / "tree/etc/passwd", "nobody else\n");
    write_file(directory_ / "tree/etc/test_qzbox/new", "new\n");
    write_file(directory_ / "tree/tmp/config/cli.conf", "!\n");
    EXPECT_EQ(script(tree(), "cat /proc/uptime /sys/class/leds/power/brightness /etc/passwd"
                             " /etc/test_qzbox/new /tmp/config/cli.conf"),
              "100.05 1.00\n1\nnobody else\nnew\n!\n");
    EXPECT_EQ(script(tree(), "cat /etc/hosts; cat /sys/class/net/lo/mtu"),
              read_file("/etc/hosts") + "65536\n");
}

TEST_F(QzboxTest, proc_shows_the_trees_names_beside_live_processes)
{
    EXPECT_EQ(script({"--root", ROUTER_TREE},
                     "cat /proc/device-tree/model; cat /proc/self/comm; cat /proc/$$/comm\n"
                     "sleep 60 & until grep sleep /proc/$!/comm; do :; done; ls /proc | grep -cx $!\n"
                     "kill $!; wait $! 2>/dev/null || :; test ! -e /proc/$!; test ! -e /proc/nothing"),
              read_file(fs::path(ROUTER_TREE) / "proc/device-tree/model") + "cat\nsh\nsleep\n1\n");
    write_file(directory_ / "tree/proc/net/wireless", "none\n");
    EXPECT_EQ(script(tree(), "cat /proc/net/wireless; grep -c lo: /proc/net/dev"), "none\n1\n");
}

TEST_F(QzboxTest, writes_in_the_box_do_not_reach_the_tree)
{
    fs::copy(ROUTER_TREE, directory_ / "tree", fs::copy_options::recursive);
    script(tree(), "for f in /tmp/modem.info /sys/class/leds/power/trigger /proc/cmdline /data/www/version\n"
                   "do echo changed >$f; grep -qx changed $f; done; rm -r /tmp/config");
    EXPECT_EQ(std::system(("diff -r " ROUTER_TREE " " + (directory_ / "tree").string()).c_str()), 0);
}

TEST_F(QzboxTest, unprivileged_users_get_a_box_too)
{
    write_file(directory_ / "tree/sys/class/leds/power/brightness", "1\n");
    write_file(directory_ / "tree/proc/cmdline", "boot\n");
    const char *text = "id -u; hostname; cd /sys/class; cat leds/power/brightness net/lo/flags\n"
                       "cat /proc/1/comm /proc/cmdline; ls /tmp; script -qec true /dev/null";
    EXPECT_EQ(script(tree(), text, geteuid() == 0), "0\nrouter\n1\n0x9\ninit\nboot\n");
}

TEST_F(QzboxTest, boxes_may_be_nested)
{
    EXPECT_EQ(script({"--bind", QZBOX_PATH, "--bind", ROUTER_TREE, "--root", ROUTER_TREE},
                     QZBOX_PATH " --root " ROUTER_TREE
                                " -- sh -c 'cat /proc/device-tree/model; echo $$; echo in >/tmp/modem.info'\n"
                                "echo $$; grep -c state: /tmp/modem.info"),
              read_file(fs::path(ROUTER_TREE) / "proc/device-tree/model") + "2\n2\n1\n");
}

} // namespace
