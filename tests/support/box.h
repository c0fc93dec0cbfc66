// The box's files and commands: whole files, covers over the kernel's own, scripts.
#pragma once

#include <cstdio>
#include <cstdlib>
#include <filesystem>
#include <fstream>
#include <iterator>
#include <optional>
#include <string>
#include <sys/mount.h>
#include <sys/stat.h>
#include <sys/time.h>
#include <unistd.h>

namespace support
{

struct NoCopy {
    NoCopy() = default;
    NoCopy(const NoCopy &) = delete;
    NoCopy &operator=(const NoCopy &) = delete;
};

// Writes a file, making its directories.
inline void write_file(const std::string &path, const std::string &content)
{
    std::filesystem::create_directories(std::filesystem::path(path).parent_path());
    std::ofstream(path, std::ios::binary | std::ios::trunc) << content;
}

inline std::string read_file(const std::string &path)
{
    std::ifstream stream(path, std::ios::binary);
    return {std::istreambuf_iterator<char>(stream), std::istreambuf_iterator<char>()};
}

inline void set_mtime(const std::string &path, time_t seconds)
{
    const timeval times[2] = {{seconds, 0}, {seconds, 0}};
    if (utimes(path.c_str(), times) != 0)
        abort();
}

inline size_t entries_in(const char *directory)
{
    const std::filesystem::directory_iterator entries(directory);
    return static_cast<size_t>(std::distance(begin(entries), end(entries)));
}

inline size_t open_descriptors()
{
    return entries_in("/proc/self/fd") - 1; // without the one that counts
}

// Puts an empty file system over a directory, for a test to fill with its own files.
class Cover : NoCopy
{
public:
    static constexpr const char *SOURCE = "/tmp/fake-file"; // of one file at a time; a mere name else

    explicit Cover(const char *path, const char *options = "", unsigned long flags = 0) : path_(path)
    {
        if (mount(SOURCE, path, "tmpfs", flags, options) != 0) {
            perror(path);
            abort();
        }
    }
    ~Cover() { (void)umount2(path_, MNT_DETACH); }

private:
    const char *path_;
};

// Puts content of the test's own in the place of a kernel file.
class FakeFile
{
public:
    FakeFile(const char *path, const std::string &content)
    {
        set(content);
        cover_.emplace(path, "", MS_BIND);
    }
    void set(const std::string &content) const { write_file(Cover::SOURCE, content); }

private:
    std::optional<Cover> cover_;
};

// Runs a shell script; its standard output. A script that fails fails the test program.
inline std::string sh(const std::string &script)
{
    if (system(("exec >/tmp/sh-output; set -e\n" + script).c_str()) != 0) {
        fprintf(stderr, "this script failed:\n%s\n", script.c_str());
        abort();
    }
    return read_file("/tmp/sh-output");
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
