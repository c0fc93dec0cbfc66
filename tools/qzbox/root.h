// SPDX-License-Identifier: MIT
// The box's root file system: the host's top-level directories, with private ones in place of
// those a router's daemons write to.
#pragma once

#include "reaches.h"

namespace qzbox
{

// Private storage of the box and, when a tree is laid over it, the kernel's real file systems.
inline constexpr const char *KERNEL_DIRECTORY = "/.kernel";

// Keep what is mounted in this mount namespace from the host. In a chroot the current root becomes
// a mount of its own, which it has to be before it can be left for another.
void make_mounts_private();

// Build the root in the calling process's own mount namespace and enter it. Afterwards the
// host's root is gone from this namespace and the working directory is "/".
// `with_kernel_mounts`: also mount the kernel's file systems below KERNEL_DIRECTORY.
void enter_private_root(Reaches &reaches, bool with_kernel_mounts);

} // namespace qzbox
