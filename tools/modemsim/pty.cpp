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
    if (!link_.empty())
        unlink(link_.c_str());
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

// Replaces an older link, and nothing else that may stand at that path.
bool Pty::make_link(const std::string &link)
{
    struct stat found {
    };
    if (lstat(link.c_str(), &found) == 0 && !S_ISLNK(found.st_mode)) {
        errno = EEXIST;
        return false;
    }
    const std::string fresh = link + ".new";
    unlink(fresh.c_str());
    if (symlink(path_.c_str(), fresh.c_str()) != 0 || rename(fresh.c_str(), link.c_str()) != 0)
        return false;
    link_ = link;
    return true;
}

} // namespace modemsim
