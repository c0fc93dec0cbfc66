// SPDX-License-Identifier: MIT
// The directories that the box has to itself, and what of the host stays visible below them.
#pragma once

#include "util.h"

#include <array>

namespace qzbox
{

// Directories that the box has to itself. /proc and /sys are fresh as well, but belong to the
// kernel.
inline constexpr std::array<const char *, 6> PRIVATE_DIRECTORIES = {"/tmp", "/data", "/mnt",
                                                                    "/run", "/dev",  "/var/log"};

// True for a path that is or lies below one of them. It must be free of symbolic links.
bool is_covered(const std::string &path);

// A host path that stays visible at the same place although a private directory covers it.
struct Reach {
    std::string path;
    UniqueFd handle; // O_PATH; keeps the host's object reachable while the root is built
};

// Collects reaches. Paths outside the private directories need none and are passed over.
class Reaches
{
public:
    // The directory `path`, for example the current one. A private directory itself, such as
    // /tmp, is passed over: the command then starts in the box's own.
    void add_directory(const std::string &path);
    // The directory of a program; the file alone where that is a private directory itself.
    void add_program(const std::string &path);
    // A path the user named; missing paths and private directories themselves are refused.
    void add_bind(const char *path);

    // In order of length, so that a parent comes before what lies in it.
    [[nodiscard]] const std::vector<Reach> &sorted();

private:
    void add(const std::string &path);
    std::vector<Reach> reaches_;
};

} // namespace qzbox
