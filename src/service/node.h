// SPDX-License-Identifier: MIT
// The list in memory of one service's file: group headers and parameters in file order.
#pragma once

#include <cstddef>
#include <cstdint>
#include <cstring>
#include <qzlib.h>
#include <type_traits>

#pragma GCC visibility push(hidden)

namespace qz::service
{

struct Link {
    Link *next;
    Link *prev;
};

// One entry. Owns both strings; each is cut at SERVICE_STR_MAX characters.
struct service_node {
    Link link;
    char *name;  // never null
    char *value; // null: no value, which is not the empty value
    int32_t type;
};
static_assert(std::is_standard_layout_v<service_node>); // a link leads to its node
static_assert(offsetof(service_node, link) == 0);
static_assert(offsetof(service_node, name) == 2 * sizeof(void *));
static_assert(offsetof(service_node, value) == 3 * sizeof(void *));
static_assert(offsetof(service_node, type) == 4 * sizeof(void *));

// Walks the nodes. The way on is noted before a node is handed out, so that the loop's body
// may unlink or free the node it was given.
class NodeIterator
{
public:
    explicit NodeIterator(Link *at) : at_(at), next_(at->next) {}
    service_node &operator*() const { return *reinterpret_cast<service_node *>(at_); }
    bool operator!=(const Link *end) const { return at_ != end; }
    NodeIterator &operator++()
    {
        *this = NodeIterator(next_);
        return *this;
    }

private:
    Link *at_;
    Link *next_;
};

// Both null when memory runs out; the new node is in no list.
[[nodiscard]] service_node *node_create(const char *name, const char *value, int32_t type);
// False when memory runs out, the old value untouched. The text may be the old value itself.
[[nodiscard]] bool node_set_value(service_node &node, const char *value);
// Takes the node out of its list, if it is in one.
void node_unlink(service_node &node);
void service_node_free(service_node &node);

// Puts a node that is in no list after another link, or after the list's ends: in front.
inline void link_after(Link &place, service_node &node)
{
    node.link = {place.next, &place};
    place.next->prev = &node.link;
    place.next = &node.link;
}

inline bool is_shutdown(const char *name)
{
    return strcmp(name, "shutdown") == 0;
}

} // namespace qz::service

// The sentinel of the ring: next is the first entry, prev the last one, both the sentinel
// itself when there is none.
struct service_info {
    qz::service::Link ends;

    void init() { ends = {&ends, &ends}; }
    [[nodiscard]] qz::service::NodeIterator begin() const { return qz::service::NodeIterator(ends.next); }
    [[nodiscard]] const qz::service::Link *end() const { return &ends; }
    void append(qz::service::service_node &node) { qz::service::link_after(*ends.prev, node); }
    void clear()
    {
        for (qz::service::service_node &node : *this)
            qz::service::service_node_free(node);
    }
};
static_assert(sizeof(service_info) == 2 * sizeof(void *));

#pragma GCC visibility pop
