// SPDX-License-Identifier: MIT
// The bus's side: this process among the router's daemons.
#pragma once

#include "config.h"
#include "line.h"
#include "outbox.h"

#include <deque>
#include <map>
#include <mutex>
#include <string>
#include <string_view>

namespace mqtt
{

// One in a process, as the bus knows no other.
class Bridge final : public Orders
{
public:
    Bridge(const Config &config, const Topics &topics, Outbox &outbox);
    Bridge(const Bridge &) = delete;
    Bridge &operator=(const Bridge &) = delete;

    // To be called now and then: joins the bus when its server runs, and again when it was replaced.
    void look_after();
    // Nothing comes from the bus any longer.
    void leave();

    void take(std::string_view topic, std::string_view payload, bool retained) override;
    bool is_held_up() override;

private:
    struct Order {
        Address to;
        std::string payload;
        double since_s;
    };

    struct Refusals {
        Occasions occasions;
        std::string last; // topic
    };

    void on_packet(unsigned type, std::string_view name, std::string_view payload);
    void refuse(std::string_view topic, const char *why);

    const Config &config_;
    const Topics &topics_;
    Outbox &outbox_;
    std::mutex mutex_; // held while the process joins, leaves or writes
    bool listening_ = false;
    double tried_s_ = 0;
    std::deque<Order> orders_;                  // the line's thread alone
    std::map<const char *, Refusals> refusals_; // by their reason, one of a few sentences
    Occasions unfit_packets_;
};

} // namespace mqtt
