// The clients of the bus, and the way of packets between them. Everything happens on one
// thread. What lies in shared memory any client can change, so that names, ids and states
// that decisions hang on are kept here, and the shared table shows them to the clients.
#pragma once

#include "control.h"

#include <array>
#include <bitset>
#include <csignal>
#include <cstdint>
#include <string>

namespace mbusd
{

constexpr size_t CLIENTS = QZLIB_MBUS_CLIENTS;

// Milliseconds of the monotonic clock.
uint64_t now_ms();

class Server
{
public:
    explicit Server(mbus_share_segment &share) : share_(share) {}

    // Takes over clients that live on from a server that died, and removes the rest of it.
    void adopt();
    void handle(const Command &command);
    // Lets clients go that died.
    void reap();
    // Clients that left and whose packets are handed on: to be removed after the control queue
    // was read to its end.
    [[nodiscard]] bool has_hidden() const;
    void remove_hidden();
    // Removes all clients.
    void close();

    // True when a packet waits in some up ring.
    [[nodiscard]] bool has_work() const;
    struct Progress {
        bool moved;   // some packet went on
        bool blocked; // some packet waits for room in a ring
    };
    // One round over all clients; a bounded number of packets of each. Cut short, to be gone on
    // with, when attention is not 0, but not before somebody had his turn.
    Progress route(const volatile sig_atomic_t &attention);

    void print_stats() const;

private:
    using Targets = std::bitset<CLIENTS>;

    struct Member {
        std::string name; // empty: free
        int key = 0;
        int segment = -1;
        mbus_seg_handle handle{}; // of this server's attachment, as it was made
        pid_t pid = 0;
        uint64_t since_ms = 0;         // of registering, or of leaving
        bool attached = false;         // its process was seen attached
        const char *leaving = nullptr; // why it is removed once all that it sent is handed on
        bool hidden = false;           // which has come to pass
        // The packet in hand and those that have not got it yet, for want of room.
        const mbus_pkg *held = nullptr;
        mbus_pkg outgoing{};
        Targets waiting;
        // The destination of the last packet, so that names are not searched for each.
        std::array<char, QZLIB_MBUS_PKG_NAME_SIZE> last_name{};
        Targets last_targets;
        bool last_valid = false;
        // A down ring that is full: since when, and whether senders no longer wait for it.
        bool full = false;
        bool stalled = false;
        uint32_t full_at = 0;
        uint64_t full_since_ms = 0;

        [[nodiscard]] bool used() const { return !name.empty(); }
        [[nodiscard]] bool connected() const { return used() && leaving == nullptr; }
    };

    mbus_client &record(size_t index) { return share_.clients[index]; }
    [[nodiscard]] const mbus_client &record(size_t index) const { return share_.clients[index]; }
    [[nodiscard]] bool is_dead(const Member &member) const;
    size_t find_name(std::string_view name) const;
    size_t find_conflict(std::string_view name, int key) const;
    [[nodiscard]] bool may_take(const Member &holder, const Command &command) const;
    [[nodiscard]] bool may_unregister(const Member &holder, pid_t sender) const;
    bool make_way(const Command &command, size_t holder);
    size_t find_place();
    void add(const Command &command);
    void enter(size_t index, const std::string &name, int key, pid_t pid, int segment);
    [[nodiscard]] bool holds_next(size_t index) const;
    void renew(size_t index, pid_t pid);
    void leave(size_t index, const char *why);
    [[nodiscard]] bool is_done(size_t index) const;
    void hide(size_t index);
    void flush(size_t index);
    void remove(size_t index);
    void adopt(size_t index);
    void forget_targets();

    Targets targets_of(size_t sender, const mbus_pkg &pkg);
    Progress serve(size_t index);
    Progress route_from(size_t sender);
    bool take(size_t sender);
    bool hand_on(size_t sender);
    bool give(const mbus_pkg &pkg, size_t receiver);
    bool has_room(size_t receiver);

    mbus_share_segment &share_;
    std::array<Member, CLIENTS> members_;
    size_t end_ = 0;  // behind the last used record
    size_t next_ = 0; // whose turn it is
};

} // namespace mbusd
