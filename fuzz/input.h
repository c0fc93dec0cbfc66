// What the fuzzer gives, taken apart from its front; and what must hold.
#pragma once

#include <cstddef>
#include <cstdint>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <fcntl.h>
#include <span>
#include <string>
#include <unistd.h>

namespace fuzz
{

class Input
{
public:
    explicit Input(std::span<const uint8_t> bytes) : left_(bytes) {}

    [[nodiscard]] bool is_empty() const { return left_.empty(); }

    // At its end, zeros.
    template <typename Number = uint8_t>
    Number number()
    {
        Number value = 0;
        memcpy(&value, left_.data(), std::min(sizeof value, left_.size()));
        left_ = left_.subspan(std::min(sizeof value, left_.size()));
        return value;
    }
    std::string bytes(size_t most)
    {
        const std::span<const uint8_t> taken = left_.first(std::min(most, left_.size()));
        left_ = left_.subspan(taken.size());
        return {reinterpret_cast<const char *>(taken.data()), taken.size()};
    }
    // Its length is in the byte before it; without NUL.
    std::string text() { return bytes(number()).c_str(); }

private:
    std::span<const uint8_t> left_;
};

inline void require(bool holds, int line = __builtin_LINE())
{
    if (holds)
        return;
    fprintf(stderr, "what line %d requires does not hold\n", line);
    abort();
}

inline void write_file(const char *path, const std::string &content, off_t offset = 0)
{
    const int fd = open(path, O_WRONLY | O_CREAT | (offset == 0 ? O_TRUNC : 0), 0644);
    require(pwrite(fd, content.data(), content.size(), offset) == static_cast<ssize_t>(content.size()));
    close(fd);
}

inline std::string read_file(const char *path, size_t most, off_t offset = 0)
{
    std::string content(most, '\0');
    const int fd = open(path, O_RDONLY);
    content.resize(static_cast<size_t>(std::max<ssize_t>(pread(fd, content.data(), most, offset), 0)));
    close(fd);
    return content;
}

} // namespace fuzz

// The target: takes one input.
void take(fuzz::Input in);
