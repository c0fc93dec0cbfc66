// SPDX-License-Identifier: MIT
// The line to the broker: one thread that connects, sends, receives, and connects again.
//
// Who owns an event: the outbox until it is sent; then libmosquitto, which keeps it until the broker
// acknowledges it and sends it again, with the duplicate flag, when it has connected again. It never gets
// more than it may send at once, since it would flag what it sends late as well.
#pragma once

#include "config.h"
#include "outbox.h"

#include <atomic>
#include <deque>
#include <mosquitto.h>
#include <pthread.h>
#include <string_view>

namespace mqtt
{

// Who takes what the broker sends. Called on the line's thread.
class Orders
{
public:
    virtual void take(std::string_view topic, std::string_view payload, bool retained) = 0;
    // True while orders wait for room. Nothing is received meanwhile.
    virtual bool is_held_up() = 0;

protected:
    ~Orders() = default;
};

class Line // NOLINT(clang-analyzer-optin.performance.Padding): there is one, and its order is for readers
{
public:
    Line(const Config &config, const Topics &topics, Outbox &outbox, Orders &orders);
    ~Line();
    Line(const Line &) = delete;
    Line &operator=(const Line &) = delete;

    // Makes everything ready that can go wrong: certificates, threads. False, with a line in the log.
    bool start();
    // To be called now and then: no attempt to connect lasts for ever.
    void look_after();
    // Sends what waits, for some seconds at most, and leaves the broker.
    void finish();

private:
    struct InFlight {
        int id;
        Message message; // without its payload
    };

    void run();
    bool connect();
    void serve();
    void pause(double lasted_s);
    void pump();
    int send(Message message);
    bool receive(int fd);
    void on_connect(int reason, int flags, const mosquitto_property *properties);
    void on_sent(int id, int reason);
    void interrupt();
    [[nodiscard]] bool wants_to_leave() const;

    const Config &config_;
    const Topics &topics_;
    Outbox &outbox_;
    Orders &orders_;
    mosquitto *client_ = nullptr;
    mosquitto_property *properties_ = nullptr; // of connecting
    pthread_t thread_{};
    bool started_ = false;
    std::atomic<double> stop_s_ = 0; // when the end was asked for
    std::atomic<bool> ended_ = false;
    std::atomic<double> blocked_since_s_ = 0; // 0: not in a call that may block

    // The thread's own.
    bool connected_ = false;
    double since_s_ = 0;    // when the attempt began, or the connection
    unsigned attempts_ = 0; // in vain, one after the other
    size_t window_ = 0;
    std::deque<InFlight> flight_;
    bool heard_ = false; // something that makes sense arrived
    double heard_s_ = 0; // when, and how many bytes had arrived by then
    uint64_t heard_bytes_ = 0;
    int birth_ = 0; // its number while it is in flight
    Occasions refusals_;
    Occasions failures_;
};

} // namespace mqtt
