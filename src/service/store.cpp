// SPDX-License-Identifier: MIT
#include "base/export.h"
#include "base/text.h"
#include "service/node.h"

#include <cstdlib>
#include <cstring>

namespace
{

using qz::service::Link;
using qz::service::link_after;
using qz::service::service_node;

// The record is the caller's; the offsets are those of the router's 32-bit target.
static_assert(offsetof(service_param_list, count) == 0);
static_assert(sizeof(void *) != 4 || offsetof(service_param_list, name) == 4);
static_assert(sizeof(void *) != 4 || offsetof(service_param_list, value) == 4100);
static_assert(sizeof(void *) != 4 || offsetof(service_param_list, type) == 8196);
static_assert(sizeof(void *) != 4 || sizeof(service_param_list) == 12292);

// Whether an ungrouped parameter after a group's header ends the group. Reading calls take
// it so; changing calls look past it, up to the next other header.
enum class TopEntry { ENDS_GROUP, IS_PASSED };

bool is_given(const char *group)
{
    return group != nullptr && *group != '\0';
}

// Names are compared as they stand, and a stored one is cut: a longer name matches nothing.
bool is_named(const service_node &node, const char *name)
{
    return strcmp(node.name, name) == 0;
}

bool has_value(const service_node &node, const char *value)
{
    return node.value != nullptr && strcmp(node.value, value) == 0;
}

// Hands out the headers and the members of a group in list order, until visit returns false.
// The group goes from its first header to the next header of another name, so a second
// header of the same name next to it counts as the same group.
template <typename Visit>
void walk_group(const service_info &info, const char *group, TopEntry top, Visit visit)
{
    bool is_open = false;
    for (service_node &node : info) {
        if (node.type == SERVICE_NODE_GROUP) {
            const bool is_ours = is_named(node, group);
            if (is_open && !is_ours)
                return;
            is_open = is_ours;
        }
        if (!is_open)
            continue;
        if (node.type == SERVICE_NODE_TOP) {
            if (top == TopEntry::ENDS_GROUP)
                return;
            continue;
        }
        if (!visit(node))
            return;
    }
}

service_node *find_ungrouped(const service_info &info, const char *name)
{
    for (service_node &node : info) {
        if (node.type == SERVICE_NODE_TOP && is_named(node, name))
            return &node;
    }
    return nullptr;
}

struct GroupSearch {
    service_node *header = nullptr; // the first one
    service_node *last = nullptr;   // last member passed, the match included; the header without one
    service_node *match = nullptr;
};

GroupSearch find_in_group(const service_info &info, const char *group, const char *name, TopEntry top)
{
    GroupSearch found;
    walk_group(info, group, top, [&found, name](service_node &node) {
        if (node.type == SERVICE_NODE_GROUP) {
            if (found.header == nullptr)
                found.header = found.last = &node;
            return true;
        }
        found.last = &node;
        found.match = is_named(node, name) ? &node : nullptr;
        return found.match == nullptr;
    });
    return found;
}

const service_node *find_param(const service_info &info, const char *group, const char *name)
{
    if (is_given(group))
        return find_in_group(info, group, name, TopEntry::ENDS_GROUP).match;
    return find_ungrouped(info, name);
}

// Where a new ungrouped entry goes: just before the first header; in front when
// there is none (so entries come out in reverse order, deliberately), though "shutdown" keeps
// its place at the very front.
Link &ungrouped_place(service_info &info)
{
    Link *front = &info.ends;
    bool is_front = true;
    for (service_node &node : info) {
        if (node.type == SERVICE_NODE_GROUP)
            return *node.link.prev;
        is_front = is_front && node.type == SERVICE_NODE_TOP && qz::service::is_shutdown(node.name);
        if (is_front)
            front = &node.link;
    }
    return *front;
}

// Returns the new entry; null when memory runs out.
service_node *insert_at(Link &place, const char *name, const char *value, int32_t type)
{
    service_node *node = qz::service::node_create(name, value, type);
    if (node != nullptr)
        link_after(place, *node);
    return node;
}

// Returns the entry; null when memory runs out, its value untouched.
service_node *replace_value(service_node &node, const char *value)
{
    return qz::service::node_set_value(node, value) ? &node : nullptr;
}

// A name alone makes an empty group, "shutdown" apart.
service_node *insert_ungrouped(service_info &info, const char *name, const char *value, bool repeat)
{
    service_node *match = repeat ? nullptr : find_ungrouped(info, name);
    if (match != nullptr)
        return replace_value(*match, value);
    if (qz::service::is_shutdown(name))
        return insert_at(info.ends, name, value, SERVICE_NODE_TOP);
    const int32_t type = value != nullptr ? SERVICE_NODE_TOP : SERVICE_NODE_GROUP;
    return insert_at(ungrouped_place(info), name, value, type);
}

// The search stops at the first match, so a repeated parameter goes directly after the first
// one of its name: a, then b, then c come out as a, c, b. Callers rely on that order.
service_node *insert_in_group(service_info &info, const char *group, const char *name, const char *value,
                              bool repeat)
{
    GroupSearch found = find_in_group(info, group, name, TopEntry::IS_PASSED);
    if (found.match != nullptr && !repeat)
        return replace_value(*found.match, value);
    if (found.header == nullptr) {
        service_node *header = insert_at(*info.ends.prev, group, nullptr, SERVICE_NODE_GROUP);
        if (header == nullptr)
            return nullptr;
        return insert_at(header->link, name, value, SERVICE_NODE_PARAM); // failing, it leaves the header
    }
    service_node *place = qz::service::is_shutdown(name) ? found.header : found.last;
    return insert_at(place->link, name, value, SERVICE_NODE_PARAM);
}

int service_param_insert(service_info *info, const char *group, const char *name, const char *value,
                         bool repeat)
{
    if (info == nullptr || name == nullptr)
        return -1;
    const service_node *node = is_given(group) ? insert_in_group(*info, group, name, value, repeat)
                                               : insert_ungrouped(*info, name, value, repeat);
    return node != nullptr ? 0 : -1;
}

// Entries on their way out. They are freed together at the end, because the texts that a
// caller compares with may be those of the very entries it deletes.
class Doomed
{
public:
    Doomed() { list_.init(); }
    ~Doomed() { list_.clear(); }
    Doomed(const Doomed &) = delete;
    Doomed &operator=(const Doomed &) = delete;

    void take(service_node &node)
    {
        qz::service::node_unlink(node);
        list_.append(node);
    }
    // 0 when anything is deleted.
    [[nodiscard]] int result() const { return list_.begin() != list_.end() ? 0 : -1; }

private:
    service_info list_;
};

// Without a name, everything: the headers go too, so an empty group is found as well.
int delete_in_group(service_info &info, const char *group, const char *name, const char *value)
{
    Doomed doomed;
    walk_group(info, group, TopEntry::IS_PASSED, [&doomed, name, value](service_node &node) {
        const bool is_wanted = name == nullptr || (node.type == SERVICE_NODE_PARAM && is_named(node, name) &&
                                                   (value == nullptr || has_value(node, value)));
        if (is_wanted)
            doomed.take(node);
        return true;
    });
    return doomed.result();
}

// A group of that name ends the scan and, when no value is given, is deleted with all its entries.
int delete_ungrouped(service_info &info, const char *name, const char *value)
{
    Doomed doomed;
    for (service_node &node : info) {
        if (node.type == SERVICE_NODE_PARAM || !is_named(node, name))
            continue;
        if (node.type == SERVICE_NODE_GROUP && value == nullptr)
            return delete_in_group(info, name, nullptr, nullptr);
        if (node.type == SERVICE_NODE_TOP && (value == nullptr || has_value(node, value)))
            doomed.take(node);
    }
    return doomed.result();
}

// False when the record is full.
bool list_entry(service_param_list &out, const service_node &node)
{
    if (out.count >= SERVICE_MAX_ENTRIES)
        return false;
    out.name[out.count] = node.name;
    out.value[out.count] = node.value;
    out.type[out.count] = node.type;
    ++out.count;
    return true;
}

} // namespace

QZ_EXPORT int qzlib_service_info_uninit(service_info *info)
{
    if (qzlib_service_info_empty(info) != 0)
        return -1;
    free(info);
    return 0;
}

QZ_EXPORT int qzlib_service_info_empty(service_info *info)
{
    if (info == nullptr)
        return -1;
    info->clear();
    return 0;
}

QZ_EXPORT int qzlib_service_set_param(service_info *info, const char *group, const char *name,
                                      const char *value)
{
    return service_param_insert(info, group, name, value, false);
}

QZ_EXPORT int qzlib_service_set_param_repeat(service_info *info, const char *group, const char *name,
                                             const char *value)
{
    return service_param_insert(info, group, name, value, true);
}

QZ_EXPORT int qzlib_service_del_param(service_info *info, const char *group, const char *name,
                                      const char *value)
{
    if (info == nullptr)
        return -1;
    if (is_given(group)) {
        if (name == nullptr && value != nullptr)
            return -1;
        return delete_in_group(*info, group, name, value);
    }
    return name != nullptr ? delete_ungrouped(*info, name, value) : -1;
}

QZ_EXPORT int qzlib_service_get_param(const service_info *info, const char *group, const char *name,
                                      char *value_out)
{
    if (info == nullptr || name == nullptr)
        return -1;
    const service_node *node = find_param(*info, group, name);
    if (node == nullptr)
        return -1;
    if (node->value != nullptr && value_out != nullptr)
        qz::base::fill_field({value_out, SERVICE_STR_MAX}, node->value);
    return 0;
}

QZ_EXPORT int qzlib_service_find_param(const char *service, const char *group, const char *name)
{
    service_info *info = qzlib_service_info_init(service);
    const int result = qzlib_service_get_param(info, group, name, nullptr);
    (void)qzlib_service_info_uninit(info); // null when nothing was loaded
    return result;
}

QZ_EXPORT int qzlib_service_get_group_name(const service_info *info, service_param_list *out)
{
    if (info == nullptr || out == nullptr)
        return 0;
    out->count = 0;
    for (const service_node &node : *info) {
        if (node.type == SERVICE_NODE_GROUP && !list_entry(*out, node))
            break;
    }
    return static_cast<int>(out->count);
}

QZ_EXPORT int qzlib_service_get_group_param(const service_info *info, const char *group,
                                            service_param_list *out)
{
    if (info == nullptr || !is_given(group) || out == nullptr)
        return -1;
    out->count = 0;
    walk_group(*info, group, TopEntry::ENDS_GROUP, [out](const service_node &node) {
        return node.type != SERVICE_NODE_PARAM || list_entry(*out, node);
    });
    return static_cast<int>(out->count);
}

QZ_EXPORT int qzlib_service_get_all_param(const service_info *info, service_param_list *out)
{
    if (info == nullptr || out == nullptr)
        return -1;
    out->count = 0;
    for (const service_node &node : *info) {
        if (!list_entry(*out, node))
            break;
    }
    return static_cast<int>(out->count);
}

QZ_EXPORT int qzlib_service_get_param_num(const service_info *info)
{
    if (info == nullptr)
        return 0;
    int count = 0;
    for ([[maybe_unused]] const service_node &node : *info)
        ++count;
    return count;
}
