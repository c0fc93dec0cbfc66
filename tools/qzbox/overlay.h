// SPDX-License-Identifier: MIT
// A tree of files laid over the box: copies in private directories, copies bound over single
// files, and merged directories where the tree brings names that the box does not have.
#pragma once

#include "util.h"

namespace qzbox
{

// Where the tree's additions to /proc are kept when procfs itself cannot carry them.
inline constexpr const char *PROC_ADDITIONS = "/.kernel/tree/proc";

// Lay the tree over the box the caller has entered. The tree is only read; everything the box
// gets is a writable copy. A tree that does not fit ends the box with a message.
// Returns true when /proc must be served (see proc_server.h): PROC_ADDITIONS then holds the
// tree's names, with their merged directories.
[[nodiscard]] bool lay_tree(const UniqueFd &tree);

} // namespace qzbox
