// SPDX-License-Identifier: MIT
// The box's system log: what daemons send to /dev/log ends up in /var/log/messages.
#pragma once

#include "util.h"

namespace qzbox
{

class SystemLog
{
public:
    // Bind /dev/log. A box without it still works, so failures are silent.
    void open();

    // To be polled for input; -1 when there is none.
    [[nodiscard]] int fd() const { return socket_.get(); }

    // Append the waiting messages, one line each, as they came (priority in front). Line feeds
    // inside a message become blanks. The file is opened anew, so it may be moved or removed.
    void receive();

private:
    UniqueFd socket_;
};

} // namespace qzbox
