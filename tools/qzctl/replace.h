// SPDX-License-Identifier: MIT
// Files that are replaced as a whole: whatever happens, the old one is there or the new one.
#pragma once

#include "owners.h"

#include <climits>
#include <string_view>
#include <sys/types.h>

namespace qzctl
{

// A whole file in memory, and a NUL after it.
struct Content {
    Memory memory;
    size_t size = 0;

    [[nodiscard]] std::string_view view() const { return {memory.get(), size}; }
};

// Reads a descriptor from where it stands to its end. False, with errno, when that fails.
bool read_all(int fd, Content &content);
bool write_all(int fd, std::string_view bytes);

// Opens a file that programs lock, and makes it where it is not. In a folder that all may write, as /tmp,
// the kernel keeps even root from making what another user has made, and no link is followed.
Fd open_lock(const char *path, mode_t mode);

// Takes the lock of a file that is open. Waits for 10 s. @return DONE, or what was said: NO, NOT_IN_TIME
int lock_file(int fd, int operation, const char *name);

// A file that is to be replaced. From open() to the end of its life no other process that uses this
// class replaces a file of the same folder: the folder is locked, so that no lock file is left.
class Replacement
{
public:
    // A symbolic link is followed. @return DONE, or NO or NOT_IN_TIME after saying why
    int open(const char *path);
    // A file that is not there has no content. @return DONE, or NO after saying why
    int read(Content &content) const;
    // Writes another file, with owner and mode of the old one, brings it onto the disk and gives it the
    // name. Its modification time is another second than the old one's, for daemons that look at that.
    // @return DONE, or NO after saying why
    int write(std::string_view content) const;
    [[nodiscard]] const char *path() const { return path_; }

private:
    bool write_temporary(const char *path, std::string_view content) const;

    char path_[PATH_MAX] = "";
    size_t folder_length_ = 0; // of path_, without the slash
    Fd folder_;
};

} // namespace qzctl
