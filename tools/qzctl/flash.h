// SPDX-License-Identifier: MIT
// The block of the boot environment, on the flash or in the image of it, and what is in the block.
#pragma once

#include "command.h"
#include "owners.h"

#include <cstdint>
#include <string_view>
#include <sys/types.h>

namespace qzctl
{

struct Block {
    static constexpr size_t SIZE = 0x20000;
    static constexpr size_t DATA_SIZE = SIZE - 4;

    uint32_t sum; // CRC-32 of data
    char data[DATA_SIZE];

    [[nodiscard]] uint32_t right_sum() const;
    void seal() { sum = right_sum(); }
    [[nodiscard]] std::string_view bytes() const { return {reinterpret_cast<const char *>(this), SIZE}; }

    // As the library clears it: all zero, which has the wrong sum.
    [[nodiscard]] bool is_cleared() const;
    // Neither in order nor cleared: blank flash, or a write that was cut off.
    [[nodiscard]] bool is_spoilt() const { return sum != right_sum() && !is_cleared(); }
    // Bytes of the entries with their NULs, without the empty one that ends them.
    [[nodiscard]] size_t used() const;
    // Whether the list of entries comes to an end.
    [[nodiscard]] bool has_end() const;
};
static_assert(sizeof(Block) == Block::SIZE);

// The entries of a block: for (Entry entry(block); entry; entry.next())
class Entry
{
public:
    explicit Entry(const Block &block) : block_(block) {}
    explicit operator bool() const;
    void next();
    [[nodiscard]] const char *text() const { return block_.data + place_; }
    [[nodiscard]] size_t place() const { return place_; }
    // Up to the first '='.
    [[nodiscard]] std::string_view name() const;
    [[nodiscard]] const char *value() const;

private:
    const Block &block_;
    size_t place_ = 0;
};

// The device or the image, open and locked.
class Flash
{
public:
    // Finds it, and takes its lock before anything is read. @return DONE, or NO or NOT_IN_TIME after saying
    // why
    int open(const Arguments &arguments, bool writes);
    // @return DONE, or NO after saying why
    int read(Block &block) const;
    // Writes the block, reads it again from the device and compares. @return DONE, or NO after saying why
    int write(const Block &block) const;
    [[nodiscard]] const char *path() const { return path_; }

private:
    bool find_device();

    Fd guard_;
    Fd device_;
    char path_[4096] = "";
    off_t place_ = -1; // of the block
};

} // namespace qzctl
