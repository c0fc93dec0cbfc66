// SPDX-License-Identifier: MIT
#include "log.h"
#include "mbus/ring.h"
#include "server.h"

#include <algorithm>
#include <bit>
#include <cstring>
#include <strings.h>

namespace mbusd
{

using namespace qz::mbus;

namespace
{

constexpr int PACKETS_A_TURN = SLOTS;
constexpr uint64_t UNRUNG_MAX_US = 50; // how long a packet may lie before its receiver is woken
constexpr size_t NOBODY = CLIENTS;     // in place of the record of what a client left

// For the look at a ring after the wait was announced.
bool differ(const uint32_t &write, const uint32_t &read)
{
    return load(write) % SLOTS != load_index(read);
}

// The packet in a slot, type and length as they were when they were checked. False when they cannot
// be.
bool read_slot(Slot &slot, mbus_pkg &pkg)
{
    pkg.type = load_relaxed(slot.type);
    pkg.length = load_relaxed(slot.length);
    pkg.data = slot.payload;
    memcpy(pkg.name, slot.name, sizeof pkg.name);
    return pkg.type < TYPES && pkg.length >= 1 && pkg.length <= READ_LENGTH_MAX;
}

Parcel copy_of(const mbus_pkg &pkg)
{
    return {pkg, std::string(static_cast<const char *>(pkg.data), pkg.length)};
}

mbus_pkg view_of(Parcel &parcel)
{
    parcel.header.data = parcel.payload.data();
    return parcel.header;
}

} // namespace

bool Server::has_work() const
{
    for (size_t i = 0; i < end_; ++i) {
        const Member &member = members_[i];
        if (member.used() &&
            (!member.sender.is_done() || (!closing_ && differ(record(i).up_write, record(i).up_read))))
            return true;
    }
    return !estates_.empty();
}

void Server::collect(size_t index, uint32_t from, uint32_t end)
{
    Slot *slots = up_slots(members_[index].base);
    mbus_pkg pkg;
    for (; from != end; from = following(from)) {
        if (!read_slot(slots[from], pkg))
            continue;
        record(index).server_read += pkg.length;
        members_[index].sender.backlog.push_back(copy_of(pkg));
    }
}

uint32_t Server::take_rest(size_t index)
{
    Sender &sender = members_[index].sender;
    uint32_t from = load_index(record(index).up_read);
    const uint32_t end = load_index(record(index).up_write);
    if (sender.in_hand && sender.backlog.empty()) {
        if (sender.hand_slot == from && from != end)
            from = following(from);
        sender.backlog.push_back(sender.hand);
    }
    collect(index, from, end);
    return end;
}

// A ring is full when its read index is the one after its write index. The slot before that is the
// last that a writer would come to who was not stopped: with no address in it he was.
void Server::shut(size_t index, uint32_t end)
{
    store(up_slots(members_[index].base)[(end + SLOTS - 1) % SLOTS].data_address, 0);
    store(record(index).up_read, following(end));
}

bool Server::shut_again(size_t index, uint32_t &end)
{
    const bool went_round = load(up_slots(members_[index].base)[(end + SLOTS - 1) % SLOTS].data_address) != 0;
    const uint32_t written = load_index(record(index).up_write);
    if (load_index(record(index).up_read) != following(end)) { // a client that connects emptied its rings
        collect(index, load_index(record(index).up_read), written);
    } else if (written != end || went_round) {
        collect(index, end, following(end));
        collect(index, following(end), written);
    } else {
        return false;
    }
    end = written;
    shut(index, end);
    return true;
}

// A packet named after a client goes to that client, the sender included; any other to all
// but the sender.
Targets Server::targets_of(Sender &sender, size_t index, const mbus_pkg &pkg)
{
    if (sender.last_valid && memcmp(sender.last_name.data(), pkg.name, sizeof pkg.name) == 0)
        return sender.last_targets;
    Targets targets = 0;
    const size_t named = find_name({pkg.name, strnlen(pkg.name, sizeof pkg.name)});
    if (named < CLIENTS && members_[named].connected()) {
        targets = target(named);
    } else {
        for (size_t i = 0; i < CLIENTS; ++i)
            if (members_[i].connected() && i != index)
                targets |= target(i);
    }
    memcpy(sender.last_name.data(), pkg.name, sizeof pkg.name);
    sender.last_targets = targets;
    sender.last_valid = true;
    return targets;
}

// The sender's next packet that has not been tried yet. A corrupt one is skipped.
bool Server::next_packet(Sender &sender, size_t index, mbus_pkg &pkg)
{
    if (!sender.backlog.empty()) {
        pkg = view_of(sender.backlog.front());
        return true;
    }
    if (index == NOBODY || closing_)
        return false;
    mbus_client &own = record(index);
    for (uint32_t at = load_index(own.up_read); at != load_index(own.up_write); at = following(at)) {
        if (read_slot(up_slots(members_[index].base)[at], pkg))
            return true;
        log_line(QZLIB_LOG_WARNING, "%s: skipped a packet of type %u, %u bytes",
                 printable(sender.name).c_str(), pkg.type, pkg.length);
        __atomic_store_n(&own.up_read, following(at), __ATOMIC_RELEASE);
    }
    return false;
}

// True when the packet is to wait for room, or for a client that is just emptying its rings.
bool Server::await_room(size_t receiver)
{
    Member &member = members_[receiver];
    const mbus_client &to = record(receiver);
    if (following(load_index(to.down_write)) != load_index(to.down_read))
        return true;
    const bool is_first = !member.grace.is_waiting();
    const bool lagged = member.grace.lags();
    const bool waits = member.grace.wait(now_us());
    if (is_first || !waits)
        ring_anyway(doorbell(receiver));
    if (!waits && !lagged)
        log_line(QZLIB_LOG_WARNING, "%s: lags, what finds its ring full is dropped",
                 printable(member.name()).c_str());
    return waits;
}

// False when the packet has to wait for room.
bool Server::give(const Sender &sender, const mbus_pkg &pkg, size_t receiver)
{
    Member &member = members_[receiver];
    mbus_client &to = record(receiver);
    const bool placed =
        put<Side::SERVER>({down_slots(member.base), to.down_write, to.down_read}, Outgoing(pkg));
    if (!placed && await_room(receiver))
        return false;
    to.server_offered += pkg.length;
    if (trace_.is_on())
        trace_.print(sender.name, member.name(), pkg, !placed);
    if (!placed) {
        to.server_dropped += pkg.length;
        return true;
    }
    unrung_ |= target(receiver);
    if (member.grace.is_waiting())
        member.grace.found_room();
    if (!member.grace.is_fresh() &&
        (load_index(to.down_write) - load_index(to.down_read)) % SLOTS <= SLOTS / 2)
        member.grace.caught_up();
    return true;
}

// The receivers that have not got the packet.
Targets Server::hand_out(const Sender &sender, const mbus_pkg &pkg, Targets targets)
{
    Targets left = 0;
    for (; targets != 0; targets &= targets - 1) {
        const auto receiver = static_cast<size_t>(std::countr_zero(targets));
        if (members_[receiver].used() && !give(sender, pkg, receiver))
            left |= target(receiver);
    }
    return left;
}

void Server::keep(Sender &sender, size_t index, const mbus_pkg &pkg, Targets waiting)
{
    sender.waiting = waiting;
    if (sender.in_hand)
        return;
    sender.in_hand = true;
    sender.hand = copy_of(pkg);
    if (index != NOBODY)
        sender.hand_slot = load_index(record(index).up_read);
}

// The packet has been given. Its slot is not given back when the client emptied the ring meanwhile.
void Server::finish(Sender &sender, size_t index, uint32_t length)
{
    const bool was_in_hand = sender.in_hand;
    sender.in_hand = false;
    if (!sender.backlog.empty()) {
        sender.backlog.pop_front();
        return;
    }
    if (index >= CLIENTS)
        return;
    mbus_client &own = record(index);
    own.server_read += length;
    const uint32_t at = load_index(own.up_read);
    if (!was_in_hand || sender.hand_slot == at)
        __atomic_store_n(&own.up_read, following(at), __ATOMIC_RELEASE);
}

Server::Progress Server::serve(Sender &sender, size_t index)
{
    Progress progress = {false, false};
    mbus_pkg pkg;
    for (int i = 0; i < PACKETS_A_TURN; ++i) {
        Targets targets = sender.waiting;
        if (sender.in_hand) {
            pkg = view_of(sender.hand);
        } else {
            if (!next_packet(sender, index, pkg))
                break;
            targets = targets_of(sender, index, pkg);
            if (pkg.name[0] == '\0') {
                memset(pkg.name, 0, sizeof pkg.name); // a peer's padding may be anything
                sender.name.copy(pkg.name, sizeof pkg.name);
            }
            if (pkg.length > QZLIB_MBUS_PAYLOAD_MAX) { // may be read, but not written
                log_line(QZLIB_LOG_WARNING, "%s: a packet of %u bytes is dropped",
                         printable({pkg.name, strnlen(pkg.name, sizeof pkg.name)}).c_str(), pkg.length);
                targets = 0;
            }
        }
        const Targets left = hand_out(sender, pkg, targets);
        progress.moved = progress.moved || left != targets || left == 0;
        if (left != 0) {
            keep(sender, index, pkg, left);
            progress.blocked = true;
            break;
        }
        finish(sender, index, pkg.length);
    }
    return progress;
}

void Server::ring_all()
{
    for (; unrung_ != 0; unrung_ &= unrung_ - 1) {
        const auto receiver = static_cast<size_t>(std::countr_zero(unrung_));
        ring(doorbell(receiver), members_[receiver].rung);
    }
}

Server::Progress Server::route(const volatile sig_atomic_t &attention)
{
    Progress all = {false, false};
    const auto count = [&all](Progress one) {
        all.moved = all.moved || one.moved;
        all.blocked = all.blocked || one.blocked;
    };
    uint64_t since_us = 0;
    for (size_t turns = end_; turns > 0; turns = attention != 0 ? 0 : turns - 1) {
        next_ = next_ < end_ ? next_ : 0;
        const size_t index = next_++;
        if (members_[index].used())
            count(serve(members_[index].sender, index));
        if (unrung_ == 0)
            continue;
        since_us = since_us == 0 ? now_us() : since_us;
        if (now_us() - since_us > UNRUNG_MAX_US) {
            ring_all();
            since_us = 0;
        }
    }
    for (Sender &estate : estates_)
        count(serve(estate, NOBODY));
    estates_.remove_if([](const Sender &estate) { return estate.is_done(); });
    ring_all();
    if (attention != 0) // a daemon that connects does not wait for long
        return {true, false};
    return all;
}

} // namespace mbusd
