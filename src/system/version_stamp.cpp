// SPDX-License-Identifier: MIT
#include "base/export.h"
#include "base/owners.h"
#include "base/text.h"

#include <array>
#include <cstring>
#include <qzlib.h>
#include <sys/stat.h>

namespace
{

using qz::base::UniqueFd;
using qz::base::UniqueMemory;

constexpr const char *INSTALLED_PATH = "/usr/sbin/%s";
constexpr const char *STAGED_PATH = "/mnt/update/%s";
constexpr size_t PATH_SIZE = 128;
constexpr size_t VERSION_SIZE = 128;
constexpr off_t MAX_PROGRAM_BYTES = 5242880;

// A program carries the marker, one separator byte and the version text, which begins with 'V'.
constexpr std::string_view MARKER = "--qzversion";
constexpr size_t SEPARATOR_SIZE = 1;

// The version text in a program's bytes, after which one NUL stands; null without a stamp. A
// marker without 'V' is passed by one byte more than its separator, deliberately.
const char *find_version(std::span<const char> program)
{
    size_t at = 0;
    while (at + MARKER.size() < program.size()) {
        const std::span<const char> rest = program.subspan(at, program.size() - 1 - at);
        const void *found = memmem(rest.data(), rest.size(), MARKER.data(), MARKER.size());
        if (found == nullptr)
            break;
        const char *text = static_cast<const char *>(found) + MARKER.size() + SEPARATOR_SIZE;
        if (*text == 'V')
            return text;
        at = static_cast<size_t>(text + 1 - program.data());
    }
    return nullptr;
}

int qzapp_read_version(const char *path, char *out, int out_size)
{
    if (path == nullptr || out == nullptr || out_size < 1 || qzlib_file_is_elf(path) == 0)
        return -1;
    const UniqueFd file = qz::base::open_to_read(path);
    struct stat status;
    if (!file || fstat(file.get(), &status) != 0 || status.st_size > MAX_PROGRAM_BYTES)
        return -1;
    const auto size = static_cast<size_t>(status.st_size);
    const UniqueMemory bytes(malloc(size + 1));
    if (!bytes)
        return -1;
    const ssize_t count = read(file.get(), bytes.get(), size);
    if (count < 0)
        return -1;
    bytes.get()[count] = '\0';
    const char *version = find_version({bytes.get(), static_cast<size_t>(count)});
    if (version == nullptr)
        return -1;
    qz::base::fill_field({out, static_cast<size_t>(out_size)}, version);
    return 0;
}

int read_program_version(const char *path_format, const char *program, char *out, int out_size)
{
    if (program == nullptr)
        return -1;
    std::array<char, PATH_SIZE> path;
    (void)snprintf(path.data(), path.size(), path_format, program); // a longer path is cut
    return qzapp_read_version(path.data(), out, out_size);
}

} // namespace

QZ_EXPORT int qzlib_get_ori_version(const char *program, char *ver_out, int ver_size)
{
    return read_program_version(INSTALLED_PATH, program, ver_out, ver_size);
}

QZ_EXPORT int qzlib_get_patch_version(const char *program, char *ver_out, int ver_size)
{
    return read_program_version(STAGED_PATH, program, ver_out, ver_size);
}

QZ_EXPORT int qzlib_file_is_qzapp(const char *path)
{
    std::array<char, VERSION_SIZE> version;
    return qzapp_read_version(path, version.data(), static_cast<int>(version.size())) == 0;
}
