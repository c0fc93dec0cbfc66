// SPDX-License-Identifier: MIT
#include "status.h"

#include <algorithm>
#include <cstdio>
#include <cstring>
#include <memory>
#include <qzlib.h>
#include <sys/stat.h>

namespace mqtt
{
namespace
{

constexpr const char *FILE_NAME = "/tmp/modem.info";
constexpr size_t ROWS_MAX = 64; // of the library's table
constexpr size_t NAME_MAX_BYTES = 63;

// The library's table is asked by name, so the names are read from the file that it is loaded from.
std::vector<std::string> names_in_file()
{
    std::vector<std::string> names;
    const std::unique_ptr<FILE, int (*)(FILE *)> file(fopen(FILE_NAME, "re"),
                                                      [](FILE *f) { return fclose(f); });
    char line[256];
    while (file != nullptr && names.size() < ROWS_MAX && fgets(line, sizeof line, file.get()) != nullptr)
        if (const char *colon = strchr(line, ':'); colon != nullptr)
            names.emplace_back(line, static_cast<size_t>(colon - line));
    return names;
}

} // namespace

// The writer renames a new file over the old one. An inode number alone may come again.
bool Status::is_new()
{
    struct stat now {
    };
    if (stat(FILE_NAME, &now) != 0 ||
        (now.st_ino == inode_ && memcmp(&now.st_mtim, &changed_, sizeof changed_) == 0))
        return false;
    inode_ = now.st_ino;
    changed_ = now.st_mtim;
    return true;
}

void Status::look()
{
    if (!is_new() || qzlib_update_modem_status_info_tab() != 0)
        return;
    std::vector<std::string> names;
    for (std::string &name : names_in_file()) {
        const char *value = qzlib_get_modem_status_info(name.c_str());
        if (value == nullptr || *value == '\0' || fault_of_name(name, NAME_MAX_BYTES) != nullptr ||
            !matches(wanted_, name))
            continue;
        outbox_.retain(topics_.of_status(name), value);
        names.push_back(std::move(name));
    }
    for (const std::string &name : names_)
        if (std::find(names.begin(), names.end(), name) == names.end())
            outbox_.retain(topics_.of_status(name), ""); // it is gone
    names_ = std::move(names);
}

} // namespace mqtt
