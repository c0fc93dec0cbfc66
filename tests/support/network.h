// What tests of the network need: shell commands, made-up commands in front of PATH, kernel
// files with content of the test's own, children that must not be left behind.
#pragma once

#include "support/files.h"

#include <cerrno>
#include <cstdio>
#include <cstdlib>
#include <string>
#include <sys/mount.h>
#include <sys/resource.h>
#include <sys/wait.h>
#include <unistd.h>

namespace support
{

// Runs a shell script; its standard output. A script that fails fails the test program.
inline std::string sh(const std::string &script)
{
    FILE *pipe = popen(("set -e\n" + script).c_str(), "re");
    std::string output;
    char buffer[4096];
    for (size_t count = 0; pipe != nullptr && (count = fread(buffer, 1, sizeof buffer, pipe)) > 0;)
        output.append(buffer, count);
    if (pipe == nullptr || pclose(pipe) != 0) {
        fprintf(stderr, "this script failed:\n%s\n", script.c_str());
        abort();
    }
    return output;
}

// Puts a script of that name before all other commands.
inline void fake_command(const std::string &name, const std::string &script)
{
    static const std::string path = [] {
        const std::string original = getenv("PATH");
        setenv("PATH", ("/tmp/fakes:" + original).c_str(), 1);
        return original;
    }();
    write_file("/tmp/fakes/" + name, script);
    chmod(("/tmp/fakes/" + name).c_str(), 0755);
}

// Puts content of the test's own in the place of a kernel file.
class FakeFile
{
public:
    FakeFile(const std::string &path, const std::string &content) : path_(path), content_(made())
    {
        set(content);
        if (mount(content_.c_str(), path_.c_str(), nullptr, MS_BIND, nullptr) != 0)
            abort();
    }
    ~FakeFile() { umount2(path_.c_str(), MNT_DETACH); }
    FakeFile(const FakeFile &) = delete;
    FakeFile &operator=(const FakeFile &) = delete;

    void set(const std::string &content) const { write_file(content_, content); }

private:
    static std::string made()
    {
        static int count = 0;
        return "/tmp/fake-file-" + std::to_string(count++);
    }

    std::string path_;
    std::string content_;
};

// A time without a descriptor to be had.
class NoDescriptors
{
public:
    NoDescriptors()
    {
        getrlimit(RLIMIT_NOFILE, &saved_);
        const rlimit none = {0, saved_.rlim_max};
        setrlimit(RLIMIT_NOFILE, &none);
    }
    ~NoDescriptors() { setrlimit(RLIMIT_NOFILE, &saved_); }
    NoDescriptors(const NoDescriptors &) = delete;
    NoDescriptors &operator=(const NoDescriptors &) = delete;

private:
    rlimit saved_{};
};

// True when this process has no child, running or dead.
inline bool has_no_child()
{
    return waitpid(-1, nullptr, WNOHANG) < 0 && errno == ECHILD;
}

} // namespace support
