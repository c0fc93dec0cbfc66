// SPDX-License-Identifier: MIT
#include "base/export.h"
#include "base/owners.h"
#include "base/text.h"
#include "service/node.h"

#include <array>
#include <cstring>

namespace
{

using qz::base::UniqueStream;
using qz::service::service_node;

constexpr const char *CONFIG_DIRECTORY = "/tmp/config";
constexpr size_t SERVICE_NAME_MAX = 200; // characters
constexpr size_t PATH_SIZE = 256;
constexpr size_t LINE_SIZE = 1024; // a longer line is read as several
static_assert(sizeof "/tmp/config/.conf" + SERVICE_NAME_MAX <= PATH_SIZE);

// A name that is too long counts as a file that cannot be opened.
UniqueStream open_service_file(const char *service)
{
    if (strnlen(service, SERVICE_NAME_MAX + 1) > SERVICE_NAME_MAX)
        return {};
    std::array<char, PATH_SIZE> path;
    (void)snprintf(path.data(), path.size(), "%s/%s.conf", CONFIG_DIRECTORY, service);
    return qz::base::open_for_reading(path.data());
}

// Cuts a trimmed line at its first '=' and trims both parts; null when there is none.
char *split_value(char *text)
{
    char *equals = strchr(text, '=');
    if (equals == nullptr)
        return nullptr;
    *equals = '\0';
    qzlib_str_trim(text);
    return qzlib_str_trim(equals + 1);
}

int32_t entry_type(bool is_indented, const char *name, const char *value)
{
    if (is_indented)
        return SERVICE_NODE_PARAM;
    if (value != nullptr || qz::service::is_shutdown(name))
        return SERVICE_NODE_TOP;
    return SERVICE_NODE_GROUP;
}

// Appends the line's entry, if it has one. last_type is the type of the last stored entry:
// after an ungrouped parameter no group is open, and an indented line belongs nowhere.
// False when memory runs out.
bool take_line(service_info &info, int32_t &last_type, char *line)
{
    const bool is_indented = *line == ' ' || *line == '\t';
    if (is_indented && last_type == SERVICE_NODE_TOP)
        return true;
    char *name = qzlib_str_trim(line);
    if (*name == '\0' || *name == '#')
        return true;
    const char *value = split_value(name);
    const int32_t type = entry_type(is_indented, name, value);
    service_node *node = qz::service::node_create(name, value, type);
    if (node == nullptr)
        return false;
    info.append(*node);
    last_type = type;
    return true;
}

void read_entries(service_info &info, FILE *stream)
{
    int32_t last_type = SERVICE_NODE_TOP;
    std::array<char, LINE_SIZE> line;
    while (qz::base::read_full_line(stream, line)) {
        if (!take_line(info, last_type, line.data()))
            return; // the caller gets what was read
    }
}

// Write errors are ignored, deliberately: the file is rewritten at the next save.
void write_entry(FILE *stream, const service_node &node)
{
    const char *indent = node.type == SERVICE_NODE_PARAM ? " " : "";
    if (node.value == nullptr)
        (void)fprintf(stream, "%s%s\n", indent, node.name);
    else
        (void)fprintf(stream, "%s%s=%s\n", indent, node.name, node.value);
}

// A header waits for its first member; an empty group is never written, deliberately.
void write_entries(const service_info &info, FILE *stream)
{
    const service_node *header = nullptr;
    for (const service_node &node : info) {
        if (node.type == SERVICE_NODE_GROUP) {
            header = &node;
            continue;
        }
        if (node.type == SERVICE_NODE_PARAM && header != nullptr) {
            (void)fprintf(stream, "%s\n", header->name);
            header = nullptr;
        }
        write_entry(stream, node);
    }
}

} // namespace

QZ_EXPORT service_info *qzlib_service_info_init(const char *service)
{
    if (service == nullptr)
        return nullptr;
    auto *info = static_cast<service_info *>(malloc(sizeof(service_info)));
    if (info == nullptr)
        return nullptr;
    info->init();
    const UniqueStream stream = open_service_file(service);
    if (stream)
        read_entries(*info, stream.get());
    return info;
}

QZ_EXPORT int qzlib_service_saveto_file(const service_info *info, const char *path)
{
    if (info == nullptr || path == nullptr)
        return -1;
    const UniqueStream stream(fopen(path, "we"));
    if (!stream)
        return -1;
    write_entries(*info, stream.get());
    return 0;
}
