// SPDX-License-Identifier: MIT
// What the server keeps of each client, and of each packet that waits. All of it is the server's
// own memory: of what it wrote into shared memory it takes nothing back.
#pragma once

#include "mbus/format.h"

#include <algorithm>
#include <array>
#include <cstdint>
#include <deque>
#include <string>
#include <sys/types.h>

namespace mbusd
{

constexpr size_t CLIENTS = QZLIB_MBUS_CLIENTS;

// A set of clients, a bit each.
using Targets = uint64_t;
static_assert(CLIENTS <= 64);

constexpr Targets target(size_t index)
{
    return Targets{1} << index;
}

// A packet that had to be copied.
struct Parcel {
    mbus_pkg header{}; // its data is set when it is used
    std::string payload;
};

// Where packets come from: a client, or what one left.
struct Sender {
    std::string name;
    // What was sent in a former life. It goes before what is in the ring.
    std::deque<Parcel> backlog;
    // The packet that some receivers had no room for, and which ones. It is the first of the
    // backlog, or else the next one in the ring, at hand_slot, where it stays until all have it: a
    // server that takes over finds it there.
    bool in_hand = false;
    Parcel hand;
    uint32_t hand_slot = 0;
    Targets waiting = 0;
    // The destinations of the last packet's name, so that it is not looked up for each packet.
    bool last_valid = false;
    std::array<char, QZLIB_MBUS_PKG_NAME_SIZE> last_name{};
    Targets last_targets = 0;

    [[nodiscard]] bool is_done() const { return backlog.empty() && !in_hand; }
};

// How long senders have waited for a receiver. One that is merely slow earns its senders' patience
// with every packet that it takes; one that lags uses it up, and from then on loses what comes while
// its ring is full, until it has caught up.
class Grace
{
public:
    // A packet finds the ring full. True when it is to wait.
    bool wait(uint64_t now_us)
    {
        if (lags_)
            return false;
        if (!waiting_) {
            waiting_ = true;
            waited_us_ = 0;
            looked_us_ = now_us;
        }
        // Where others compute, the receiver had no more of the processor than this server.
        waited_us_ += std::min(now_us - looked_us_, LOOK_US);
        looked_us_ = now_us;
        lags_ = waited_us_ > left_us_;
        return !lags_;
    }
    // A packet found room.
    void found_room()
    {
        left_us_ = std::min((left_us_ > waited_us_ ? left_us_ - waited_us_ : 0) + EARNED_US, MOST_US);
        waiting_ = false;
    }
    void caught_up() { *this = {}; }
    [[nodiscard]] bool is_waiting() const { return waiting_; }
    [[nodiscard]] bool lags() const { return lags_; }
    // Nobody had to wait since it caught up.
    [[nodiscard]] bool is_fresh() const { return !lags_ && left_us_ == MOST_US; }

private:
    static constexpr uint64_t MOST_US = 100'000;
    static constexpr uint64_t EARNED_US = 20'000;
    static constexpr uint64_t LOOK_US = 5'000; // more than this between two looks does not count

    bool waiting_ = false; // some packet waits
    bool lags_ = false;
    uint64_t left_us_ = MOST_US;
    uint64_t waited_us_ = 0;
    uint64_t looked_us_ = 0;
};

struct Member {
    Sender sender; // its name is the client's; empty: the record is free
    int key = 0;
    int segment = -1;
    char *base = nullptr; // this server's attachment of the segment
    pid_t pid = 0;
    uint64_t since_ms = 0; // of registering
    bool attached = false; // its process was seen attached
    bool hidden = false;   // it left; to be removed when the control queue was read to its end
    bool rings = false;    // it was seen to know doorbells
    qz::mbus::RingMemory rung{};
    Grace grace;

    [[nodiscard]] const std::string &name() const { return sender.name; }
    [[nodiscard]] bool used() const { return !sender.name.empty(); }
    [[nodiscard]] bool connected() const { return used() && !hidden; }
};

} // namespace mbusd
