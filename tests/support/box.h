// Covering the box's kernel files and commands.
#pragma once

#include "support/files.h"

#include <cstdio>
#include <cstdlib>
#include <string>
#include <sys/mount.h>
#include <unistd.h>

namespace support
{

// Puts an empty file system over a directory, for a test to fill with its own files.
class Cover : NoCopy
{
public:
    explicit Cover(const char *directory, const char *options = "") : directory_(directory)
    {
        if (mount("test", directory, "tmpfs", 0, options) != 0) {
            perror(directory);
            abort();
        }
    }
    ~Cover() { (void)umount2(directory_, MNT_DETACH); }

private:
    const char *directory_;
};

// Puts content of the test's own in the place of a kernel file.
class FakeFile : NoCopy
{
public:
    FakeFile(const std::string &path, const std::string &content) : path_(path)
    {
        set(content);
        if (mount(CONTENT, path_.c_str(), nullptr, MS_BIND, nullptr) != 0)
            abort();
    }
    ~FakeFile() { umount2(path_.c_str(), MNT_DETACH); }

    void set(const std::string &content) const { write_file(CONTENT, content); }

private:
    static constexpr const char *CONTENT = "/tmp/fake-file"; // of the one at a time that tests need
    std::string path_;
};

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
    static const int once = setenv("PATH", ("/tmp/fakes:" + std::string(getenv("PATH"))).c_str(), 1);
    (void)once;
    write_file("/tmp/fakes/" + name, script);
    chmod(("/tmp/fakes/" + name).c_str(), 0755);
}

} // namespace support
