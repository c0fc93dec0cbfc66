// SPDX-License-Identifier: MIT
// Reading the user's tree of files, and copying from it. The tree itself is never written to; one
// that cannot be read or copied ends the box with a message.
#pragma once

#include "util.h"

namespace qzbox
{

// One name of the tree.
struct Entry {
    int directory; // borrowed
    std::string name;
    mode_t mode;
};

// A regular file, directory or symbolic link each; anything else is refused.
std::vector<Entry> entries_of(const UniqueFd &tree);

UniqueFd open_directory(const Entry &entry);

// The copies go to names that do not exist yet and keep the entry's mode.
void copy_file(const Entry &entry, const std::string &target);
void make_directory(const Entry &entry, const std::string &target); // empty
void copy_entry(const Entry &entry, const std::string &target);     // with all that is in it

} // namespace qzbox
