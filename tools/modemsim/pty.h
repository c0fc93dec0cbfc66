// SPDX-License-Identifier: MIT
// The pseudo terminal behind which the modem sits.
#pragma once

#include <string>
#include <string_view>

namespace modemsim
{

class Pty
{
public:
    Pty() = default;
    Pty(const Pty &) = delete;
    Pty &operator=(const Pty &) = delete;
    ~Pty() { hang_up(); }

    // Opens a new pair, raw, so that no client sees its own answers. The link, when one is
    // given, is moved over to it in one step. False, with errno, when that cannot be done.
    bool open(const std::string &link);

    // Whether open() would make that link: an older one is replaced, and nothing else that may
    // stand there. False with errno.
    [[nodiscard]] static bool may_link(const std::string &link);

    // Ends the line: who has the slave open sees the end of the data. The link goes too.
    void hang_up();

    // Stops or resumes taking what clients write; while it is stopped their writes block.
    void set_draining(bool draining) const;

    [[nodiscard]] int master() const { return master_; }
    [[nodiscard]] const std::string &path() const { return path_; }

private:
    [[nodiscard]] bool make_link(const std::string &link);

    int master_ = -1;
    int slave_ = -1; // held, so that the line stays up between two clients
    std::string path_;
    std::string link_;
};

} // namespace modemsim
