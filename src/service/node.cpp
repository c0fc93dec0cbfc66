// SPDX-License-Identifier: MIT
#include "service/node.h"

#include <cstdlib>
#include <cstring>

namespace qz::service
{

service_node *node_create(const char *name, const char *value, int32_t type)
{
    auto *node = static_cast<service_node *>(calloc(1, sizeof(service_node)));
    if (node == nullptr)
        return nullptr;
    node->name = strndup(name, SERVICE_STR_MAX);
    node->type = type;
    if (node->name == nullptr || !node_set_value(*node, value)) {
        service_node_free(*node);
        return nullptr;
    }
    return node;
}

bool node_set_value(service_node &node, const char *value)
{
    char *copy = nullptr;
    if (value != nullptr) {
        copy = strndup(value, SERVICE_STR_MAX);
        if (copy == nullptr)
            return false;
    }
    free(node.value);
    node.value = copy;
    return true;
}

void node_unlink(service_node &node)
{
    if (node.link.next == nullptr)
        return;
    node.link.prev->next = node.link.next;
    node.link.next->prev = node.link.prev;
    node.link = {};
}

void service_node_free(service_node &node)
{
    node_unlink(node);
    free(node.name);
    free(node.value);
    free(&node);
}

} // namespace qz::service
