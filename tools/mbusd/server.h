// SPDX-License-Identifier: MIT
// The clients of the bus, and the way of packets between them. Everything happens on one
// thread. What lies in shared memory any client can change, so that names, ids and states
// that decisions hang on are kept here, and the shared table shows them to the clients.
#pragma once

#include "control.h"
#include "member.h"
#include "trace.h"

#include <csignal>
#include <list>

namespace mbusd
{

class Server
{
public:
    Server(mbus_share_segment &share, Trace &trace) : share_(share), trace_(trace) {}

    // ---- The table (table.cpp)

    // Takes over clients that live on from a server that died, and removes the rest of it.
    void adopt();
    void handle(const Command &command);
    // Lets clients go that died.
    void reap();
    // Clients that left are removed after the control queue was read to its end.
    [[nodiscard]] bool has_hidden() const;
    void remove_hidden();
    // Refuses whatever clients write from now on, hands on what they have written, and removes them.
    void close();
    void print_stats() const;
    // Whether some client waits and signals with libc's condition alone.
    [[nodiscard]] bool has_plain_clients();

    // ---- Packets (routing.cpp)

    // True when a packet waits in some up ring, or here.
    [[nodiscard]] bool has_work() const;
    struct Progress {
        bool moved;   // some packet went on
        bool blocked; // some packet waits for room in a ring
    };
    // One round over all clients, a bounded number of packets of each; then everybody who got some
    // is woken. Cut short, to be gone on with, when attention is not 0, but not before somebody had
    // his turn.
    Progress route(const volatile sig_atomic_t &attention);

private:
    mbus_client &record(size_t index) { return share_.clients[index]; }
    [[nodiscard]] const mbus_client &record(size_t index) const { return share_.clients[index]; }
    [[nodiscard]] qz::mbus::Doorbell doorbell(size_t index)
    {
        return qz::mbus::down_doorbell(members_[index].base, record(index));
    }

    [[nodiscard]] bool is_dead(const Member &member) const;
    [[nodiscard]] size_t find_name(std::string_view name) const;
    [[nodiscard]] size_t find_conflict(std::string_view name, int key) const;
    [[nodiscard]] bool may_take(const Member &holder, const Command &command) const;
    [[nodiscard]] bool may_unregister(const Member &holder, pid_t sender) const;
    bool make_way(const Command &command, size_t holder);
    size_t find_place();
    void add(const Command &command);
    bool enter(size_t index, const std::string &name, int key, int segment);
    void renew(size_t index, pid_t pid);
    void leave(size_t index, const char *why);
    void hide(size_t index);
    void remove(size_t index);
    void adopt(size_t index);
    void forget_targets();

    // Copies of what lies in an up ring go to the sender's backlog: some slots, or all that waits,
    // up to the end that is returned.
    void collect(size_t index, uint32_t from, uint32_t end);
    uint32_t take_rest(size_t index);
    // Makes an up ring look full from its end on. A packet that was just being written opens it
    // again; then true, and what came is taken as well.
    void shut(size_t index, uint32_t end);
    bool shut_again(size_t index, uint32_t &end);

    Targets targets_of(Sender &sender, size_t index, const mbus_pkg &pkg);
    Progress serve(Sender &sender, size_t index);
    bool next_packet(Sender &sender, size_t index, mbus_pkg &pkg);
    Targets hand_out(const Sender &sender, const mbus_pkg &pkg, Targets targets);
    bool give(const Sender &sender, const mbus_pkg &pkg, size_t receiver);
    bool await_room(size_t receiver);
    void keep(Sender &sender, size_t index, const mbus_pkg &pkg, Targets waiting);
    void finish(Sender &sender, size_t index, uint32_t length);
    void ring_all();

    mbus_share_segment &share_;
    Trace &trace_;
    std::array<Member, CLIENTS> members_;
    std::list<Sender> estates_; // what clients left that are gone
    Targets unrung_ = 0;        // who has got packets and was not woken yet
    bool closing_ = false;      // the rings are not looked at any longer
    size_t end_ = 0;            // after the last used record
    size_t next_ = 0;           // whose turn it is
};

// Milliseconds and microseconds of the monotonic clock.
uint64_t now_us();
inline uint64_t now_ms()
{
    return now_us() / 1000;
}

} // namespace mbusd
