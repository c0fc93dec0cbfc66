// qzbox itself, run on the host: the boxes are real, and so is what must not be left behind.
// QZBOX_PATH and ROUTER_TREE come from the build. Needs root or user namespaces.
#include "support/case.h"

namespace
{

using namespace support;

// Each case has a directory $D below /tmp, which the box covers, and may fill the tree $D/tree.
struct Qzbox : testing::Test {
    Qzbox()
    {
        setenv("QZBOX", QZBOX_PATH, 1);
        setenv("ROUTER", ROUTER_TREE, 1);
        setenv("D", mkdtemp(directory.data()), 1);
        std::filesystem::permissions(directory, std::filesystem::perms(0755));
        std::filesystem::current_path("/"); // else the box might show it below /tmp
        unsetenv("LD_LIBRARY_PATH");
    }
    ~Qzbox() override { std::filesystem::remove_all(directory); }

    // What a shell script of the host prints on both outputs; its status after that, unless 0.
    static std::string host(const std::string &script)
    {
        FILE *pipe = popen(("exec 2>&1\n" + script).c_str(), "re");
        std::string output;
        for (int c = 0; (c = fgetc(pipe)) != EOF;)
            output += static_cast<char>(c);
        const int status = pclose(pipe);
        return output + (status != 0 ? "status " + std::to_string(WEXITSTATUS(status)) + "\n" : "");
    }
    // The same of a script in the box.
    static std::string box(const std::string &script, const std::string &options = "")
    {
        setenv("SCRIPT", script.c_str(), 1);
        return host("exec $QZBOX " + options + " -- sh -ec \"$SCRIPT\"");
    }
    void tree(const std::string &path, const std::string &text) const
    {
        write_file(directory + "/tree" + path, text);
    }

    std::string directory = "/tmp/test_qzbox.XXXXXX";
};

TEST_F(Qzbox, status_is_the_commands_or_the_one_shells_use)
{
    const Table<const char *, int> cases = {
        {"-- sh -c 'exit 7'", 7},  {"sh -c 'kill -9 $$'", 137}, // options after the command are the command's
        {"/etc/passwd", 126},      {"no-such-command", 127},    {"", 125}, {"--root /no/such/tree true", 125},
        {"--bind /tmp true", 125},
    };
    for (const auto &[arguments, status] : cases)
        EXPECT_EQ(host("$QZBOX " + std::string(arguments) + " >/dev/null 2>&1"),
                  "status " + std::to_string(status) + "\n")
            << arguments;
}

TEST_F(Qzbox, box_is_a_router_of_its_own)
{
    const Table<const char *, const char *> cases = {
        {"cat /proc/1/comm; hostname; cat /sys/class/net/lo/flags; ls /sys/class/net",
         "init\nrouter\n0x9\nlo\n"},
        {"cd /; test -c /dev/null; test ! -e /dev/kmsg; ls /tmp /data /mnt; stat -c %a /tmp; echo $$",
         "/data:\n\n/mnt:\n\n/tmp:\n1777\n2\n"},
        {"script -qec 'tty' /dev/null | tr -d '\\r'", "/dev/pts/0\n"},
        {"for t in one two; do logger -u /dev/log -t $t text; done\n" // to /dev/log: lines of a file
         "until grep two /var/log/messages; do :; done >/dev/null\n"
         "sed 's/.* \\(...: text\\)/\\1/' /var/log/messages",
         "one: text\ntwo: text\n"},
    };
    for (const auto &[script, output] : cases)
        EXPECT_EQ(box(script), output);
}

TEST_F(Qzbox, nothing_is_left_behind)
{
    const std::string looks = "cat /proc/self/mounts /proc/sysvipc/shm\n"
                              "ls -d /tmp/qzbox_left /run/qzbox_left /dev/shm/qzbox_left /qzbox_left\n";
    const std::string before = host(looks);
    EXPECT_NE(before.find("No such file or directory"), std::string::npos);
    // The sleeper holds the output pipe: reading to its end proves that it is gone.
    EXPECT_EQ(box("touch /tmp/qzbox_left /run/qzbox_left /dev/shm/qzbox_left /qzbox_left\n"
                  "ipcmk -M 4096 >/dev/null; sleep 600 &",
                  "--root $ROUTER"),
              "");
    EXPECT_EQ(host(looks), before);
}

TEST_F(Qzbox, signals_end_the_box_or_are_passed_on)
{
    const Table<const char *, const char *, const char *> cases = {
        {"KILL", "echo up; sleep 600; :", "137\n"}, // holds the pipe, as above
        {"TERM", "trap 'echo term; exit 9' TERM; echo up; sleep 600 & wait", "term\n9\n"},
    };
    for (const auto &[signal, script, output] : cases) {
        setenv("SCRIPT", script, 1);
        setenv("SIGNAL", signal, 1);
        EXPECT_EQ(host("{ sh -c 'echo $$ >$D/pid; exec $QZBOX --root $ROUTER sh -c \"$SCRIPT\"'\n"
                       "echo $? >$D/status; } 2>/dev/null |\n"
                       "{ read up; kill -$SIGNAL $(cat $D/pid); cat; }; cat $D/status"),
                  output);
    }
}

TEST_F(Qzbox, needed_paths_below_private_directories_stay_visible)
{
    EXPECT_EQ(
        host("mkdir $D/here $D/bound $D/bin; cd $D/here; echo here >file; echo bound >../bound/file\n"
             "$QZBOX --bind $D/bound sh -ec 'cat file ../bound/file; ls ..; echo written >out'; cat out\n"
             "cd /; printf '#!/bin/sh\\nls $D\\n' >$D/bin/tool; chmod +x $D/bin/tool; $QZBOX $D/bin/tool"),
        "here\nbound\nbound\nhere\nwritten\nbin\n");
}

TEST_F(Qzbox, tree_covers_files_of_the_kernel_and_of_the_host_and_stays_as_it_is)
{
    const Table<const char *, const char *> files = {
        {"/proc/uptime", "100.05 1.00\n"},  {"/proc/net/wireless", "none\n"},
        {"/etc/passwd", "nobody else\n"},   {"/sys/class/leds/power/brightness", "1\n"},
        {"/etc/test_qzbox/new", "new\n"},   {"/tmp/config/cli.conf", "!\n"},
        {"/data/www/version", "3.2.0-r1\n"}};
    std::string script = "look() { cat $1; echo changed >$1; grep -qx changed $1; }\n", output;
    for (const auto &[path, text] : files) {
        tree(path, text);
        script += std::string("look ") + path + "\n";
        output += text;
    }
    host("cp -r $D/tree $D/copy");
    EXPECT_EQ(
        box(script + "rm -r /tmp/config; cat /etc/group /sys/class/net/lo/mtu; grep -c lo: /proc/net/dev",
            "--root $D/tree"),
        output + read_file("/etc/group") + "65536\n1\n");
    EXPECT_EQ(host("diff -r $D/copy $D/tree"), "");
}

TEST_F(Qzbox, proc_shows_the_trees_names_beside_live_processes)
{
    setenv("SCRIPT",
           "cat /proc/device-tree/model; cat /proc/self/comm; cat /proc/$$/comm\n"
           "sleep 60 & until grep sleep /proc/$!/comm; do :; done; ls /proc | grep -cx $!\n"
           "kill $!; wait $! 2>/dev/null || :; test ! -e /proc/$!; test ! -e /proc/nothing",
           1);
    for (const std::string without_fuse :
         {"", "unshare -rm sh -ec 'mount --bind /dev/null /dev/fuse; exec \"$@\"' sh "})
        EXPECT_EQ(host(without_fuse + "$QZBOX --root $ROUTER -- sh -ec \"$SCRIPT\""),
                  read_file(ROUTER_TREE "/proc/device-tree/model") + "cat\nsh\nsleep\n1\n");
}

// Its root directory is no mount of its own, as on build machines.
TEST_F(Qzbox, chroot_holds_a_box_too)
{
    EXPECT_EQ(
        host("exec 9<$QZBOX; unshare -rm sh -ec '\n"
             "for name in $(ls /); do\n"
             "  if [ -L /$name ]; then cp -P /$name $D\n"
             "  elif [ -d /$name ]; then mkdir $D/$name; mount --rbind /$name $D/$name; fi\n"
             "done\n"
             "chroot $D /proc/self/fd/9 --root $ROUTER sh -c \"cat /proc/1/comm; ls /mnt; echo >/data/x\"'\n"
             "ls /data/x 2>/dev/null || echo gone"),
        "init\ngone\n");
}

TEST_F(Qzbox, unprivileged_users_get_a_box_too)
{
    tree("/sys/class/leds/power/brightness", "1\n");
    tree("/proc/cmdline", "boot\n");
    setenv("SCRIPT",
           "id -u; hostname; cd /sys/class; cat leds/power/brightness net/lo/flags\n"
           "cat /proc/1/comm /proc/cmdline; ls /tmp; script -qec true /dev/null",
           1);
    const std::string user = geteuid() == 0 ? "setpriv --reuid 65534 --regid 65534 --clear-groups " : "";
    EXPECT_EQ(host("exec 9<$QZBOX; " + user + "/proc/self/fd/9 --root $D/tree sh -ec \"$SCRIPT\""),
              "0\nrouter\n1\n0x9\ninit\nboot\n"); // they may not reach the path of the program
}

} // namespace
