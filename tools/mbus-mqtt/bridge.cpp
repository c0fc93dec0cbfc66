// SPDX-License-Identifier: MIT
#include "bridge.h"

#include <cstring>
#include <strings.h>
#include <unistd.h>

namespace mqtt
{
namespace
{

Bridge *the_bridge = nullptr; // the bus's callback has no argument for it

constexpr int CACHE_BYTES = 256 * 1024; // of packets that the callback has not had yet
constexpr double RETRY_S = 10;          // a socket without a server costs a connect of six seconds
constexpr double ROOM_S = 2;            // that an order waits for room in the bus

} // namespace

Bridge::Bridge(const Config &config, const Topics &topics, Outbox &outbox)
    : config_(config), topics_(topics), outbox_(outbox)
{
    the_bridge = this;
}

void Bridge::look_after()
{
    const std::lock_guard lock(mutex_);
    if (qzlib_find_client_by_name(config_.name.c_str()) != nullptr)
        return;
    const double now = now_s();
    if (access(QZLIB_MBUS_SOCKET, F_OK) != 0 || (tried_s_ != 0 && now - tried_s_ < RETRY_S))
        return;
    tried_s_ = now;
    if (qzlib_connect_mbus_server(config_.name.c_str()) != 0) {
        LOG_LINE(QZLIB_LOG_WARNING, "cannot join the bus as %s: no server, or it refused the name",
                 config_.name.c_str());
        return;
    }
    LOG_LINE(QZLIB_LOG_INFO, "on the bus as %s", config_.name.c_str());
    const auto callback = [](unsigned type, const char *name, const void *data, unsigned length) {
        the_bridge->on_packet(type, {name, strnlen(name, QZLIB_MBUS_PKG_NAME_SIZE)},
                              {static_cast<const char *>(data), length});
        return 0;
    };
    listening_ = listening_ || qzlib_mbus_down_cache_process(CACHE_BYTES, callback) == 0;
}

void Bridge::leave()
{
    const std::lock_guard lock(mutex_);
    qzlib_disconnect_mbus_server();
}

// On the bus's thread, which must not wait: the outbox never does.
void Bridge::on_packet(unsigned type, std::string_view name, std::string_view payload)
{
    std::string text(name);
    if (!matches(config_.publish, text))
        return;
    const char *why = fault_of_name(name, QZLIB_MBUS_PKG_NAME_SIZE);
    if (why == nullptr) {
        outbox_.publish(topics_.of_packet(text, type), payload);
        return;
    }
    if (unfit_packets_.is_due())
        LOG_LINE(QZLIB_LOG_WARNING, "a packet of the bus, %s, is not published: %s (and %llu before)",
                 printable(name).c_str(), why, unfit_packets_.unsaid());
}

void Bridge::refuse(std::string_view topic, const char *why)
{
    Refusals &same = refusals_[why];
    same.last = printable(topic);
    if (same.occasions.is_due())
        LOG_LINE(QZLIB_LOG_WARNING, "refused %s: %s (and %llu before)", same.last.c_str(), why,
                 same.occasions.unsaid());
}

void Bridge::take(std::string_view topic, std::string_view payload, bool retained)
{
    const char *why = nullptr;
    const std::optional<Address> to = topics_.address(topic, why);
    if (!to)
        return refuse(topic, why);
    if (!matches(config_.accept, to->name))
        return refuse(topic, "it is not accepted");
    if (to->name.size() == config_.name.size() && strcasecmp(to->name.c_str(), config_.name.c_str()) == 0)
        return refuse(topic, "the bridge takes none itself");
    if (payload.empty() || payload.size() > QZLIB_MBUS_PAYLOAD_MAX)
        return refuse(topic, "its payload has not 1 to 4096 bytes");
    if (retained)
        return refuse(topic, "it was retained");
    orders_.push_back({*to, std::string(payload), now_s()});
    (void)is_held_up();
}

bool Bridge::is_held_up()
{
    for (auto &[why, same] : refusals_)
        if (same.occasions.has_rest())
            LOG_LINE(QZLIB_LOG_WARNING, "refused %llu more, the last one %s: %s", same.occasions.unsaid(),
                     same.last.c_str(), why);
    if (orders_.empty())
        return false;
    const std::unique_lock lock(mutex_, std::try_to_lock);
    while (!orders_.empty()) {
        const Order &order = orders_.front();
        const bool is_late = now_s() - order.since_s > ROOM_S;
        const int written =
            lock.owns_lock() && qzlib_find_client_by_name(config_.name.c_str()) != nullptr
                ? qzlib_mbus_write(nullptr, order.to.type, order.to.name.c_str(), order.payload.data(),
                                   static_cast<int>(order.payload.size()))
                : 0;
        if (written <= 0 && !is_late)
            return true;
        if (written <= 0)
            refuse(topics_.of_packet(order.to.name, static_cast<unsigned>(order.to.type)),
                   "the bus has no room");
        orders_.pop_front();
    }
    return false;
}

} // namespace mqtt
