// SPDX-License-Identifier: MIT
// Notes of an address under a name, one small file each.
#include "base/export.h"
#include "base/owners.h"
#include "base/text.h"

#include <array>
#include <qzlib.h>
#include <sys/stat.h>

namespace
{

constexpr const char *NOTE_DIRECTORY = "/tmp/source_route";
constexpr size_t PATH_SIZE = 128;
constexpr size_t IP_TEXT_SIZE = 16;

// Opens a name's note. A name that makes the path too long counts as a file that cannot be
// opened: cut, it would be the note of another name.
qz::base::UniqueStream open_note(const char *name, const char *mode)
{
    std::array<char, PATH_SIZE> path;
    const int length = snprintf(path.data(), path.size(), "%s/%s.ip", NOTE_DIRECTORY, name);
    if (length < 0 || static_cast<size_t>(length) >= path.size()) {
        errno = ENAMETOOLONG;
        return {};
    }
    return qz::base::UniqueStream(fopen(path.data(), mode));
}

} // namespace

QZ_EXPORT void srt_iip_save(const char *name, const char *ip)
{
    if (name == nullptr || ip == nullptr)
        return;
    (void)mkdir("/tmp", 0777); // both: whether they are there is seen at the opening
    (void)mkdir(NOTE_DIRECTORY, 0777);
    const qz::base::UniqueStream note = open_note(name, "we");
    if (!note) {
        perror("fopen failed");
        return;
    }
    (void)fprintf(note.get(), "%s %s\n", name, ip); // a full /tmp costs the note
}

QZ_EXPORT int srt_iip_get(const char *name, char *ip)
{
    if (name == nullptr || ip == nullptr)
        return -1;
    const qz::base::UniqueStream note = open_note(name, "re");
    std::array<char, IP_TEXT_SIZE> address{};
    if (!note || fscanf(note.get(), " %*s %15s", address.data()) != 1)
        return -1;
    strcpy(ip, address.data());
    return 0;
}
