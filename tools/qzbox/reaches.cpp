// SPDX-License-Identifier: MIT
#include "reaches.h"

#include <fcntl.h>

#include <algorithm>
#include <climits>
#include <cstdlib>

namespace qzbox
{

namespace
{

bool is_private_directory(const std::string &path)
{
    return std::any_of(PRIVATE_DIRECTORIES.begin(), PRIVATE_DIRECTORIES.end(),
                       [&](const char *directory) { return path == directory; });
}

std::string parent_of(const std::string &path)
{
    const size_t slash = path.rfind('/');
    return slash == 0 || slash == std::string::npos ? "/" : std::string(path, 0, slash);
}

// Absolute path without symbolic links; empty when the path does not exist.
std::string resolved(const char *path)
{
    char buffer[PATH_MAX];
    return realpath(path, buffer) != nullptr ? buffer : "";
}

} // namespace

bool is_covered(const std::string &path)
{
    return std::any_of(PRIVATE_DIRECTORIES.begin(), PRIVATE_DIRECTORIES.end(),
                       [&](const char *directory) { return is_within(path, directory); });
}

void Reaches::add(const std::string &path)
{
    UniqueFd handle(open(path.c_str(), O_PATH | O_CLOEXEC));
    if (handle.valid())
        reaches_.push_back(Reach{path, std::move(handle)});
}

void Reaches::add_directory(const std::string &path)
{
    const std::string real = resolved(path.c_str());
    if (is_covered(real) && !is_private_directory(real))
        add(real);
}

void Reaches::add_program(const std::string &path)
{
    const std::string directory = resolved(parent_of(path).c_str());
    if (is_private_directory(directory))
        add(directory + path.substr(path.rfind('/')));
    else
        add_directory(directory);
    const std::string real = resolved(path.c_str()); // behind a symbolic link
    if (!real.empty() && real != path)
        add_program(real);
}

void Reaches::add_bind(const char *path)
{
    const std::string real = resolved(path);
    if (real.empty())
        fail_errno("--bind %s", path);
    if (is_private_directory(real))
        fail("--bind %s: the box has its own %s; name a path in it", path, real.c_str());
    if (is_covered(real))
        add(real);
}

const std::vector<Reach> &Reaches::sorted()
{
    std::sort(reaches_.begin(), reaches_.end(),
              [](const Reach &left, const Reach &right) { return left.path.size() < right.path.size(); });
    return reaches_;
}

} // namespace qzbox
