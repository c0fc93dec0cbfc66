// SPDX-License-Identifier: MIT
#include "outbox.h"

#include <algorithm>
#include <cstdint>
#include <cstdlib>
#include <sys/eventfd.h>
#include <unistd.h>

namespace mqtt
{
namespace
{

// What an event costs beside its bytes, here or in the hands of libmosquitto.
constexpr size_t OVERHEAD_BYTES = 256;

} // namespace

Outbox::Outbox(size_t limit_bytes)
    : limit_bytes_(limit_bytes), wake_fd_(eventfd(0, EFD_CLOEXEC | EFD_NONBLOCK))
{
    if (wake_fd_ < 0)
        abort(); // no descriptor to be had at the start
}

Outbox::~Outbox()
{
    close(wake_fd_);
}

// Events in flight cannot be taken back. They never take more than half of the room, so that there is
// always one to drop.
void Outbox::drop_oldest()
{
    waiting_bytes_ -= waiting_.front().charge;
    waiting_.pop_front();
    if (drops_.is_due())
        LOG_LINE(QZLIB_LOG_WARNING, "the queue is full: %llu events dropped so far", drops_.total());
}

void Outbox::publish(std::string topic, std::string_view payload)
{
    const size_t charge = topic.size() + payload.size() + OVERHEAD_BYTES;
    bool sleeps = false;
    {
        const std::lock_guard lock(mutex_);
        while (!waiting_.empty() && waiting_bytes_ + flying_bytes_ + charge > limit_bytes_)
            drop_oldest();
        waiting_.push_back({std::move(topic), std::string(payload), false, charge});
        waiting_bytes_ += charge;
        std::swap(sleeps, line_sleeps_);
    }
    if (sleeps)
        wake();
}

void Outbox::retain(const std::string &topic, const std::string &value)
{
    bool sleeps = false;
    {
        const std::lock_guard lock(mutex_);
        const auto at = find(topic);
        if (at == values_.end()) {
            values_.push_back({topic, value});
        } else {
            if (at->value == value)
                return;
            at->value = value;
            at->due = true;
        }
        std::swap(sleeps, line_sleeps_);
    }
    if (sleeps)
        wake();
}

std::vector<Outbox::Value>::iterator Outbox::find(const std::string &topic)
{
    return std::find_if(values_.begin(), values_.end(), [&](const Value &v) { return v.topic == topic; });
}

// Beside the events in flight it has room for the oldest that waits.
bool Outbox::fits() const
{
    return !waiting_.empty() && (flying_ == 0 || flying_bytes_ + waiting_.front().charge <= limit_bytes_ / 2);
}

std::optional<Message> Outbox::next()
{
    const std::lock_guard lock(mutex_);
    const auto due = std::find_if(values_.begin(), values_.end(), is_due);
    if (due != values_.end()) {
        Message message{due->topic, due->value, true, 0};
        due->due = false;
        ++due->flying;
        if (due->value.empty())
            values_.erase(due);
        return message;
    }
    if (!fits())
        return std::nullopt;
    Message message = std::move(waiting_.front());
    waiting_.pop_front();
    waiting_bytes_ -= message.charge;
    flying_bytes_ += message.charge;
    ++flying_;
    return message;
}

void Outbox::settle(const Message &message)
{
    const std::lock_guard lock(mutex_);
    if (!message.retained) {
        flying_bytes_ -= message.charge;
        --flying_;
    } else if (const auto at = find(message.topic); at != values_.end() && at->flying > 0) {
        --at->flying;
    }
}

void Outbox::send_values_again()
{
    const std::lock_guard lock(mutex_);
    for (Value &value : values_)
        value.due = value.due || value.flying == 0;
}

bool Outbox::await()
{
    const std::lock_guard lock(mutex_);
    line_sleeps_ = !fits() && std::none_of(values_.begin(), values_.end(), is_due);
    return line_sleeps_;
}

void Outbox::clear_wake() const
{
    uint64_t count = 0;
    (void)!read(wake_fd_, &count, sizeof count);
}

void Outbox::wake() const
{
    const uint64_t one = 1;
    (void)!write(wake_fd_, &one, sizeof one);
}

unsigned long long Outbox::dropped() const
{
    const std::lock_guard lock(mutex_);
    return drops_.total();
}

size_t Outbox::unsettled() const
{
    const std::lock_guard lock(mutex_);
    return waiting_.size() + flying_;
}

} // namespace mqtt
