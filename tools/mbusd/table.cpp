// SPDX-License-Identifier: MIT
#include "server.h"

#include "log.h"
#include "mbus/ring.h"

#include <algorithm>
#include <cerrno>
#include <cstddef>
#include <cstring>
#include <ctime>
#include <strings.h>
#include <sys/ipc.h>
#include <sys/shm.h>

namespace mbusd
{

using namespace qz::mbus;

namespace
{

constexpr uint64_t ATTACH_PATIENCE_MS = 5000; // from registering to attaching
constexpr uint64_t CLOSE_PATIENCE_MS = 4000;  // for the receivers of what was sent before the server ends
constexpr int CLOSE_LOOKS = 3;                // for a write that was under way, a millisecond each
constexpr size_t ESTATES_MAX = 64;

std::string_view field(const char *text, size_t width)
{
    return {text, strnlen(text, width)};
}

bool same_name(std::string_view a, std::string_view b)
{
    return a.size() == b.size() && strncasecmp(a.data(), b.data(), a.size()) == 0;
}

// Processes attached to a segment; 0 when it is gone.
unsigned long attached_to(int segment)
{
    shmid_ds status;
    return shmctl(segment, IPC_STAT, &status) == 0 ? status.shm_nattch : 0;
}

bool is_client_segment(int segment)
{
    shmid_ds status;
    return shmctl(segment, IPC_STAT, &status) == 0 && status.shm_segsz == QZLIB_MBUS_SEGMENT_SIZE;
}

// A client segment whose id was found in a record, if it is one and nobody uses it.
void remove_stray(int segment)
{
    if (is_client_segment(segment) && attached_to(segment) == 0)
        (void)shmctl(segment, IPC_RMID, nullptr);
}

// The segment of a new client. What an earlier run left under its key goes first: the slots
// are old, and it may be of another size.
int make_segment(int key)
{
    const int stale = shmget(key, 0, 0);
    if (stale >= 0 && attached_to(stale) == 0)
        (void)shmctl(stale, IPC_RMID, nullptr);
    return shmget(key, QZLIB_MBUS_SEGMENT_SIZE, IPC_CREAT | 0666);
}

// The first character last, so that nobody finds half a name; and first when it goes.
void show_name(mbus_client &record, const std::string &name)
{
    char padded[sizeof record.name] = {};
    name.copy(padded, sizeof padded);
    memcpy(record.name + 1, padded + 1, sizeof padded - 1);
    __atomic_store_n(&record.name[0], padded[0], __ATOMIC_SEQ_CST);
}

void hide_name(mbus_client &record)
{
    __atomic_store_n(&record.name[0], '\0', __ATOMIC_SEQ_CST);
}

void clear_record(mbus_client &record)
{
    hide_name(record);
    memset(&record, 0, offsetof(mbus_client, reserved)); // that of the last one is the server's doorbell
}

bool process_gone(pid_t pid)
{
    return pid > 0 && kill(pid, 0) != 0 && errno == ESRCH;
}

// Shown to whoever looks; the server itself never reads it.
mbus_seg_handle shown_handle(size_t index, int segment, [[maybe_unused]] char *base)
{
#if UINTPTR_MAX == UINT32_MAX
    (void)index;
    const auto address = static_cast<uint32_t>(reinterpret_cast<uintptr_t>(base));
    return {segment, address, address, address + QZLIB_MBUS_RING_SIZE};
#else
    return {segment, static_cast<uint32_t>(index) + 1, 0, 0};
#endif
}

unsigned long long number(uint64_t value)
{
    return value;
}

unsigned waiting_in(const uint32_t &write, const uint32_t &read)
{
    return (load_index(write) + SLOTS - load_index(read)) % SLOTS;
}

// What could not be given to its receivers in time.
void report_rest(const Sender &sender)
{
    if (!sender.is_done())
        log_line(QZLIB_LOG_WARNING, "%s: the last %zu packets are dropped", printable(sender.name).c_str(),
                 sender.backlog.size());
}

void pause_ms()
{
    const timespec pause = {0, 1'000'000};
    (void)nanosleep(&pause, nullptr);
}

} // namespace

uint64_t now_us()
{
    timespec now{};
    clock_gettime(CLOCK_MONOTONIC, &now);
    return static_cast<uint64_t>(now.tv_sec) * 1'000'000 + static_cast<uint64_t>(now.tv_nsec) / 1000;
}

void Server::forget_targets()
{
    end_ = 0;
    for (size_t i = 0; i < CLIENTS; ++i) {
        members_[i].sender.last_valid = false;
        if (members_[i].used())
            end_ = i + 1;
    }
    for (Sender &estate : estates_)
        estate.last_valid = false;
}

size_t Server::find_name(std::string_view name) const
{
    size_t i = 0;
    while (i < CLIENTS && !(members_[i].used() && same_name(members_[i].name(), name)))
        ++i;
    return i;
}

size_t Server::find_conflict(std::string_view name, int key) const
{
    size_t i = find_name(name);
    if (i < CLIENTS)
        return i;
    for (i = 0; i < CLIENTS && !(members_[i].used() && members_[i].key == key);)
        ++i;
    return i;
}

bool Server::has_plain_clients()
{
    for (size_t i = 0; i < end_; ++i) {
        Member &member = members_[i];
        if (member.used() && !member.rings)
            member.rings = is_served(doorbell(i).word);
        if (member.used() && !member.rings)
            return true;
    }
    return false;
}

// A client lives while a process besides the server has its segment attached, or may still
// be about to attach it.
bool Server::is_dead(const Member &member) const
{
    if (attached_to(member.segment) > 1)
        return false;
    return member.attached || process_gone(member.pid) || now_ms() - member.since_ms > ATTACH_PATIENCE_MS;
}

// Attaches the segment and fills the member; what a client of this name left is its own again.
bool Server::enter(size_t index, const std::string &name, int key, int segment)
{
    void *base = segment < 0 ? nullptr : shmat(segment, nullptr, 0);
    if (base == nullptr || base == reinterpret_cast<void *>(-1))
        return false;
    Member &member = members_[index];
    member = {};
    const auto estate = std::find_if(estates_.begin(), estates_.end(),
                                     [&](const Sender &sender) { return sender.name == name; });
    if (estate != estates_.end()) {
        member.sender = std::move(*estate);
        estates_.erase(estate);
    }
    member.sender.name = name;
    member.key = key;
    member.segment = segment;
    member.base = static_cast<char *>(base);
    member.since_ms = now_ms();
    record(index).server_handle = shown_handle(index, segment, member.base);
    forget_targets();
    return true;
}

// A client that left is nobody's destination any longer, but what it sent is still delivered. It is
// removed once the control queue was read to its end: a daemon that has found the record had
// registered before, its registration is in the queue, and renews the record.
void Server::leave(size_t index, const char *why)
{
    log_line(QZLIB_LOG_INFO, "%s: %s", printable(members_[index].name()).c_str(), why);
    store(record(index).up_read, take_rest(index));
    members_[index].hidden = true;
    hide_name(record(index));
    forget_targets();
}

bool Server::has_hidden() const
{
    return std::any_of(members_.begin(), members_.end(), [](const Member &m) { return m.hidden; });
}

void Server::remove_hidden()
{
    for (size_t i = 0; i < CLIENTS; ++i)
        if (members_[i].hidden)
            remove(i);
}

void Server::remove(size_t index)
{
    Member &member = members_[index];
    for (Member &other : members_)
        other.sender.waiting &= ~target(index);
    for (Sender &estate : estates_)
        estate.waiting &= ~target(index);
    unrung_ &= ~target(index);
    if (!member.sender.is_done())
        estates_.push_back(std::move(member.sender));
    if (estates_.size() > ESTATES_MAX) {
        log_line(QZLIB_LOG_WARNING, "%s: what it sent before it left is dropped",
                 printable(estates_.front().name).c_str());
        estates_.pop_front();
    }
    (void)shmdt(member.base);
    // Whether or not the client is still to detach: nothing stays behind if it is killed first.
    (void)shmctl(member.segment, IPC_RMID, nullptr);
    if (!closing_) // or else its client is to find a full ring
        clear_record(record(index));
    member = {};
    forget_targets();
}

// The same name again, after a restart or a new connection. Record and segment stay: if this
// server was late the client has found them already, and uses them. If it has not, they are
// made as new, and it cannot find them until they are.
void Server::renew(size_t index, pid_t pid)
{
    Member &member = members_[index];
    hide_name(record(index));
    member.attached = attached_to(member.segment) > 1;
    if (!member.attached) {
        take_rest(index);
        store(doorbell(index).word, 0);
        memset(&record(index).up_write, 0, offsetof(mbus_client, reserved) - offsetof(mbus_client, up_write));
    }
    member.hidden = false;
    member.rings = false;
    member.rung = {};
    member.grace.caught_up();
    member.pid = pid;
    member.since_ms = now_ms();
    forget_targets();
    show_name(record(index), member.name());
}

// Whether a name or key is to be had of its holder. A process that registers again has lost its
// connection, and one whose holder's process is gone is a daemon that was restarted.
bool Server::may_take(const Member &holder, const Command &command) const
{
    if (holder.hidden || is_dead(holder) || process_gone(holder.pid))
        return true;
    return holder.name() == command.name && command.sender > 0 && holder.pid == command.sender &&
           attached_to(holder.segment) <= 1;
}

// True when the holder has gone.
bool Server::make_way(const Command &command, size_t holder)
{
    const Member &member = members_[holder];
    if (may_take(member, command)) {
        log_line(QZLIB_LOG_INFO, "%s: replaced", printable(member.name()).c_str());
        if (!member.hidden)
            take_rest(holder);
        remove(holder);
        return true;
    }
    log_line(QZLIB_LOG_WARNING, "refused %s from process %d: %s %s", printable(command.name).c_str(),
             command.sender,
             same_name(member.name(), command.name) ? "the name is that of" : "it has the key of",
             printable(member.name()).c_str());
    return false;
}

// A free record; one of a client that left goes first when there is none. CLIENTS when the
// table is full.
size_t Server::find_place()
{
    const auto first_free = [this] {
        return static_cast<size_t>(
            std::find_if(members_.begin(), members_.end(), [](const Member &m) { return !m.used(); }) -
            members_.begin());
    };
    const size_t place = first_free();
    if (place < CLIENTS)
        return place;
    reap();
    remove_hidden();
    return first_free();
}

void Server::add(const Command &command)
{
    const int key = qzlib_mbus_name_to_key(command.name.c_str());
    if (key == IPC_PRIVATE || key == QZLIB_MBUS_SHARE_KEY) {
        log_line(QZLIB_LOG_WARNING, "refused %s: its key is not usable", printable(command.name).c_str());
        return;
    }
    const size_t holder = find_conflict(command.name, key);
    if (holder < CLIENTS && members_[holder].name() == command.name && may_take(members_[holder], command)) {
        renew(holder, command.sender);
        log_line(QZLIB_LOG_INFO, "%s: registered again by process %d", printable(command.name).c_str(),
                 command.sender);
        return;
    }
    if (holder < CLIENTS && !make_way(command, holder))
        return;
    const size_t place = find_place();
    if (place == CLIENTS) {
        log_line(QZLIB_LOG_WARNING, "refused %s: %zu clients are connected", printable(command.name).c_str(),
                 CLIENTS);
        return;
    }
    clear_record(record(place));
    if (!enter(place, command.name, key, make_segment(key))) {
        log_line(QZLIB_LOG_ERROR, "refused %s: no segment: %s", printable(command.name).c_str(),
                 strerror(errno));
        return;
    }
    members_[place].pid = command.sender;
    show_name(record(place), command.name);
    log_line(QZLIB_LOG_INFO, "%s: registered by process %d", printable(command.name).c_str(), command.sender);
}

// A daemon whose name was refused unregisters it all the same when it ends, and a child of fork()
// that of its parent. That takes no living client off the bus.
bool Server::may_unregister(const Member &holder, pid_t sender) const
{
    return holder.pid == sender || holder.pid <= 0 || sender <= 0 || process_gone(holder.pid) ||
           attached_to(holder.segment) <= 1;
}

void Server::handle(const Command &command)
{
    if (command.code == MBUS_CTL_REGISTER) {
        add(command);
        return;
    }
    const size_t index = find_name(command.name);
    if (index == CLIENTS || !members_[index].connected())
        log_line(QZLIB_LOG_WARNING, "%s is not registered", printable(command.name).c_str());
    else if (!may_unregister(members_[index], command.sender))
        log_line(QZLIB_LOG_WARNING, "refused to unregister %s for process %d: it is that of process %d",
                 printable(command.name).c_str(), command.sender, members_[index].pid);
    else
        leave(index, "unregistered");
}

void Server::reap()
{
    for (size_t i = 0; i < CLIENTS; ++i) {
        Member &member = members_[i];
        if (!member.connected())
            continue;
        if (attached_to(member.segment) > 1) {
            member.attached = true;
            show_name(record(i), member.name()); // whoever wrote there
        } else if (is_dead(member)) {
            leave(i, "its process is gone");
        }
    }
}

// A record that an earlier server left. Its client goes on if it lives: its segment holds
// everything that is needed. What one that is gone had sent is delivered.
void Server::adopt(size_t index)
{
    const std::string name(field(record(index).name, sizeof record(index).name));
    const int key = name.empty() ? IPC_PRIVATE : qzlib_mbus_name_to_key(name.c_str());
    const int segment = key == IPC_PRIVATE || key == QZLIB_MBUS_SHARE_KEY ? -1 : shmget(key, 0, 0);
    const bool alive = segment >= 0 && attached_to(segment) > 0;
    if (segment != record(index).server_handle.id)
        remove_stray(record(index).server_handle.id);
    record(index).server_handle = {};
    if (segment >= 0 && is_client_segment(segment) && find_conflict(name, key) == CLIENTS &&
        enter(index, name, key, segment)) {
        if (!alive) {
            leave(index, "its process is gone");
            return;
        }
        members_[index].attached = true;
        ring_anyway(doorbell(index)); // the earlier server may have died before it did
        log_line(QZLIB_LOG_INFO, "%s: taken over", printable(name).c_str());
        return;
    }
    if (segment >= 0 && !alive)
        (void)shmctl(segment, IPC_RMID, nullptr);
    clear_record(record(index));
}

void Server::adopt()
{
    for (size_t i = 0; i < CLIENTS; ++i)
        adopt(i);
}

// The rings look full from now on, and stay so when the server is gone, so that their clients know
// that nothing goes on. The names go first: no later server takes over what is left.
void Server::close()
{
    closing_ = true;
    std::array<uint32_t, CLIENTS> ends{};
    for (size_t i = 0; i < end_; ++i) {
        if (!members_[i].used())
            continue;
        hide_name(record(i));
        ends[i] = take_rest(i);
        shut(i, ends[i]);
    }
    const uint64_t start = now_ms();
    const sig_atomic_t nothing = 0;
    for (int quiet = 0; quiet < CLOSE_LOOKS && now_ms() - start < CLOSE_PATIENCE_MS;) {
        bool moved = false;
        for (size_t i = 0; i < end_; ++i)
            moved = (members_[i].used() && shut_again(i, ends[i])) || moved;
        moved = route(nothing).moved || moved;
        quiet = moved || has_work() ? 0 : quiet + 1;
        if (!moved)
            pause_ms();
    }
    for (const Sender &estate : estates_)
        report_rest(estate);
    for (size_t i = 0; i < CLIENTS; ++i) {
        const Member &member = members_[i];
        if (!member.used())
            continue;
        report_rest(member.sender);
        log_line(QZLIB_LOG_INFO, "%s: the bus server ends", printable(member.name()).c_str());
        record(i).server_handle = {};
        (void)shmdt(member.base);
        (void)shmctl(member.segment, IPC_RMID, nullptr);
    }
}

void Server::print_stats() const
{
    bool goes_on =
        print_line(stdout, "%-32s %12s %12s %10s %5s %12s %12s %10s %5s", "client", "up offered", "up read",
                   "up dropped", "wait", "down offered", "down read", "down drop", "wait");
    for (size_t i = 0; goes_on && i < CLIENTS; ++i) {
        const mbus_client &r = record(i);
        if (!members_[i].used())
            continue;
        goes_on = print_line(
            stdout, "%-32s %12llu %12llu %10llu %5u %12llu %12llu %10llu %5u",
            printable(members_[i].name()).c_str(), number(r.client_offered), number(r.server_read),
            number(r.client_dropped), waiting_in(r.up_write, r.up_read), number(r.server_offered),
            number(r.client_read), number(r.server_dropped), waiting_in(r.down_write, r.down_read));
    }
}

} // namespace mbusd
