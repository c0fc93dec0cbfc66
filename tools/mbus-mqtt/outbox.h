// SPDX-License-Identifier: MIT
// What waits for the line. Whoever puts something in is never kept waiting: the lock is held for a
// few copies only, and what does not fit makes the oldest go.
#pragma once

#include "log.h"

#include <deque>
#include <mutex>
#include <optional>
#include <string>
#include <string_view>
#include <vector>

namespace mqtt
{

struct Message {
    std::string topic;
    std::string payload;
    bool retained = false;
    size_t charge = 0; // bytes that count until it is acknowledged; 0 for retained values
};

class Outbox
{
public:
    // The limit holds over events that wait here and those that the broker has not acknowledged yet.
    explicit Outbox(size_t limit_bytes);
    ~Outbox();
    Outbox(const Outbox &) = delete;
    Outbox &operator=(const Outbox &) = delete;

    // An event of the bus. From any thread.
    void publish(std::string topic, std::string_view payload);
    // The newest value of a topic; only that is sent, and again to a broker that forgot it. From any thread.
    // A value that is there already changes nothing; the empty one is forgotten by the broker, too.
    void retain(const std::string &topic, const std::string &value);

    // The line's side, one thread. What is to be sent next, and is now in flight; values come first.
    std::optional<Message> next();
    // The broker has it, or refused it. Its payload is not needed.
    void settle(const Message &message);
    // The broker remembers nothing of this router. What is in flight it gets anyway.
    void send_values_again();
    // True when nothing can be sent. From then on what comes makes wake_fd() readable.
    bool await();
    [[nodiscard]] int wake_fd() const { return wake_fd_; }
    void clear_wake() const;
    // From any thread.
    void wake() const;

    [[nodiscard]] unsigned long long dropped() const;
    // Events that the broker does not have for certain.
    [[nodiscard]] size_t unsettled() const;

private:
    struct Value {
        std::string topic;
        std::string value;
        bool due = true;
        size_t flying = 0;
    };

    static bool is_due(const Value &value) { return value.due; }
    std::vector<Value>::iterator find(const std::string &topic);
    [[nodiscard]] bool fits() const;
    void drop_oldest();

    const size_t limit_bytes_;
    const int wake_fd_;
    mutable std::mutex mutex_; // guards what follows
    std::deque<Message> waiting_;
    std::vector<Value> values_;
    size_t waiting_bytes_ = 0;
    size_t flying_bytes_ = 0;
    size_t flying_ = 0;
    Occasions drops_;
    bool line_sleeps_ = false;
};

} // namespace mqtt
