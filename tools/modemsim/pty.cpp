// SPDX-License-Identifier: MIT
#include "pty.h"

#include <cerrno>
#include <cstdio>
#include <cstdlib>
#include <fcntl.h>
#include <sys/stat.h>
#include <termios.h>
#include <unistd.h>

namespace modemsim
{

bool Pty::open(const std::string &link)
{
    hang_up();
    master_ = posix_openpt(O_RDWR | O_NOCTTY | O_NONBLOCK | O_CLOEXEC);
    if (master_ < 0 || grantpt(master_) != 0 || unlockpt(master_) != 0)
        return false;
    char path[64];
    if (ptsname_r(master_, path, sizeof path) != 0)
        return false;
    path_ = path;
    slave_ = ::open(path, O_RDWR | O_NOCTTY | O_CLOEXEC);
    termios settings{};
    if (slave_ < 0 || tcgetattr(slave_, &settings) != 0)
        return false;
    cfmakeraw(&settings);
    if (tcsetattr(slave_, TCSANOW, &settings) != 0)
        return false;
    return link.empty() || make_link(link);
}

void Pty::hang_up()
{
    char target[sizeof "/dev/pts/" + 20] = "";
    if (!link_.empty() && readlink(link_.c_str(), target, sizeof target - 1) > 0 && path_ == target)
        unlink(link_.c_str()); // unless another modem has taken it over
    link_.clear();
    for (int *fd : {&slave_, &master_}) {
        if (*fd >= 0)
            close(*fd);
        *fd = -1;
    }
}

void Pty::set_draining(bool draining) const
{
    if (slave_ >= 0)
        tcflow(slave_, draining ? TCOON : TCOOFF);
}

bool Pty::may_link(const std::string &link)
{
    struct stat found {
    };
    const bool there = lstat(link.c_str(), &found) == 0;
    if (there && S_ISLNK(found.st_mode))
        return true;
    if (there)
        errno = EEXIST;
    if (there || errno != ENOENT || link.empty())
        return false;
    const size_t slash = link.rfind('/');
    return access(slash == std::string::npos ? "." : link.substr(0, slash + 1).c_str(), W_OK) == 0;
}

bool Pty::make_link(const std::string &link)
{
    if (!may_link(link))
        return false;
    const std::string fresh = link + "." + std::to_string(getpid());
    if (symlink(path_.c_str(), fresh.c_str()) != 0)
        return false;
    if (rename(fresh.c_str(), link.c_str()) != 0) {
        unlink(fresh.c_str());
        return false;
    }
    link_ = link;
    return true;
}

} // namespace modemsim
