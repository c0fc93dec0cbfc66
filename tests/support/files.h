// Whole-file reading and writing for tests, the count of open descriptors, and what owners have in common.
#pragma once

#include <cstdlib>
#include <filesystem>
#include <fstream>
#include <iterator>
#include <string>
#include <sys/stat.h>
#include <sys/time.h>

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

// How many descriptors this process has open.
inline size_t open_descriptors()
{
    size_t count = 0;
    for ([[maybe_unused]] const auto &entry : std::filesystem::directory_iterator("/proc/self/fd"))
        ++count;
    return count - 1; // the iterator's own
}

} // namespace support
