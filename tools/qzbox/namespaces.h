// SPDX-License-Identifier: MIT
// The namespaces that make the box.
#pragma once

#include <sys/types.h>

namespace qzbox
{

// fork(2) with the child as process 1 of new mount, network, IPC, host name and process namespaces;
// the caller itself stays where it is. Root enters them directly; where that is refused, and for
// other users, a user namespace comes with them, in which the child is root. If the kernel refuses
// that too, this process ends with a message that names what was refused.
pid_t fork_init();

} // namespace qzbox
