// SPDX-License-Identifier: MIT
// The modem's status table, kept at the broker as retained values.
#pragma once

#include "outbox.h"
#include "topics.h"

#include <ctime>
#include <string>
#include <sys/types.h>
#include <vector>

namespace mqtt
{

class Status
{
public:
    Status(const Patterns &wanted, const Topics &topics, Outbox &outbox)
        : wanted_(wanted), topics_(topics), outbox_(outbox)
    {
    }
    // Looks whether the table was replaced, and hands on what changed in it.
    void look();

private:
    bool is_new();

    const Patterns &wanted_;
    const Topics &topics_;
    Outbox &outbox_;
    std::vector<std::string> names_; // published so far
    ino_t inode_ = 0;
    timespec changed_{};
};

} // namespace mqtt
