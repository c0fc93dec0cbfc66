#include "server.h"

#include "log.h"

#include <algorithm>
#include <cerrno>
#include <csignal>
#include <cstdio>
#include <cstring>
#include <ctime>
#include <strings.h>
#include <sys/ipc.h>
#include <sys/shm.h>

namespace mbusd
{
namespace
{

constexpr uint32_t SLOTS = QZLIB_MBUS_RING_SLOTS;
constexpr int PACKETS_A_ROUND = SLOTS;
constexpr uint64_t ATTACH_PATIENCE_MS = 5000; // from registering to attaching
constexpr uint64_t LEAVE_PATIENCE_MS = 5000;  // for the receivers of what a client sent before it left
constexpr uint64_t ROOM_PATIENCE_MS = 100;    // for a receiver whose ring is full and does not move

uint32_t load(const uint32_t &index)
{
    return __atomic_load_n(&index, __ATOMIC_ACQUIRE) % SLOTS;
}

// For the look at a ring after the wait was announced.
bool differ(const uint32_t &write, const uint32_t &read)
{
    return __atomic_load_n(&write, __ATOMIC_SEQ_CST) % SLOTS != load(read);
}

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

// A client segment whose id was found in a record, if it is one and nobody uses it.
void remove_stray(int segment)
{
    shmid_ds status;
    if (shmctl(segment, IPC_STAT, &status) == 0 && status.shm_nattch == 0 &&
        status.shm_segsz == QZLIB_MBUS_SEGMENT_SIZE)
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
    name.copy(record.name + 1, sizeof record.name - 1, 1);
    __atomic_store_n(&record.name[0], name[0], __ATOMIC_SEQ_CST);
}

void clear_record(mbus_client &record)
{
    __atomic_store_n(&record.name[0], '\0', __ATOMIC_SEQ_CST);
    memset(&record, 0, sizeof record);
}

bool process_gone(pid_t pid)
{
    return pid > 0 && kill(pid, 0) != 0 && errno == ESRCH;
}

// The packet as the server passes it on. On a 32-bit build the header that a read hands out
// lies in the sender's segment: its address of the payload is not to be believed.
mbus_pkg safe_copy(const mbus_pkg &pkg)
{
    mbus_pkg copy = pkg;
#if UINTPTR_MAX == UINT32_MAX
    copy.data = const_cast<char *>(reinterpret_cast<const char *>(&pkg)) + QZLIB_MBUS_SLOT_PAYLOAD;
#endif
    return copy;
}

unsigned long long number(uint64_t value)
{
    return value;
}

} // namespace

uint64_t now_ms()
{
    timespec now{};
    clock_gettime(CLOCK_MONOTONIC, &now);
    return static_cast<uint64_t>(now.tv_sec) * 1000 + static_cast<uint64_t>(now.tv_nsec) / 1'000'000;
}

// ---- The table ------------------------------------------------------------------------

void Server::forget_targets()
{
    end_ = 0;
    for (size_t i = 0; i < CLIENTS; ++i) {
        members_[i].last_valid = false;
        if (members_[i].used())
            end_ = i + 1;
    }
}

size_t Server::find_name(std::string_view name) const
{
    size_t i = 0;
    while (i < CLIENTS && !(members_[i].used() && same_name(members_[i].name, name)))
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

// A client lives while a process besides the server has its segment attached, or may still
// be about to attach it.
bool Server::is_dead(const Member &member) const
{
    if (attached_to(member.segment) > 1)
        return false;
    return member.attached || process_gone(member.pid) || now_ms() - member.since_ms > ATTACH_PATIENCE_MS;
}

void Server::enter(size_t index, const std::string &name, int key, pid_t pid, int segment)
{
    Member &member = members_[index];
    member = {};
    member.name = name;
    member.key = key;
    member.pid = pid;
    member.since_ms = now_ms();
    member.segment = segment;
    member.handle = record(index).server_handle;
    forget_targets();
}

// A client that left is nobody's destination any longer, but what it sent is still delivered.
// Packets in hand for it stay: it may be back with the next command.
void Server::leave(size_t index, const char *why)
{
    Member &member = members_[index];
    log_line(QZLIB_LOG_INFO, "%s: %s", printable(member.name).c_str(), why);
    member.leaving = why;
    member.since_ms = now_ms();
    forget_targets();
}

bool Server::is_done(size_t index) const
{
    return !differ(record(index).up_write, record(index).up_read) ||
           now_ms() - members_[index].since_ms > LEAVE_PATIENCE_MS;
}

// To be removed once the control queue was read to its end. A daemon that has found the record
// had registered before: its registration is in the queue, and renews the record.
void Server::hide(size_t index)
{
    members_[index].hidden = true;
    __atomic_store_n(&record(index).name[0], '\0', __ATOMIC_SEQ_CST);
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

// Hands on what there is room for, and forgets the rest.
void Server::flush(size_t index)
{
    for (uint32_t i = 0; i < 2 * SLOTS && route_from(index).moved; ++i) {
    }
    members_[index].held = nullptr;
    members_[index].waiting.reset();
}

void Server::remove(size_t index)
{
    Member &member = members_[index];
    flush(index);
    for (Member &other : members_)
        other.waiting.reset(index);
    // A copy, since the record's name may be hidden, and its handle anything.
    mbus_client copy = {};
    member.name.copy(copy.name, sizeof copy.name);
    copy.server_handle = member.handle;
    qzlib_client_uninit(&copy);
    // Whether or not the client is still to detach: nothing stays behind if it is killed first.
    (void)shmctl(member.segment, IPC_RMID, nullptr);
    clear_record(record(index));
    member = {};
    forget_targets();
}

// Whether the packet in hand is still the ring's next one. A client that connected anew has
// emptied the ring, and will write over a packet of its former life. The segment begins with a
// page, so that the address tells the slot.
bool Server::holds_next(size_t index) const
{
    constexpr uintptr_t PAGE = 4096;
    const Member &member = members_[index];
    const mbus_client &own = record(index);
    if (member.held == nullptr || !differ(own.up_write, own.up_read))
        return false;
    const auto *const data = static_cast<const char *>(member.outgoing.data);
    const auto address = reinterpret_cast<uintptr_t>(data);
    uint32_t mark = 0; // this process's, while the slot is not written again
    memcpy(&mark, data - sizeof mark, sizeof mark);
    return mark == static_cast<uint32_t>(address) &&
           address % PAGE ==
               (QZLIB_MBUS_SLOT_PAYLOAD + uintptr_t{load(own.up_read)} * QZLIB_MBUS_SLOT_SIZE) % PAGE;
}

// The same name again, after a restart or a new connection. Record and segment stay: if this
// server was late the client has found them already, and uses them. If it has not, they are
// made as new.
void Server::renew(size_t index, pid_t pid)
{
    Member &member = members_[index];
    const bool attached = attached_to(member.segment) > 1;
    if (!attached) {
        flush(index);
        memset(&record(index).up_write, 0, sizeof(mbus_client) - offsetof(mbus_client, up_write));
        (void)qzlib_client_init(&record(index));
    }
    const Member before = member;
    const bool holds = holds_next(index);
    enter(index, before.name, before.key, pid, shmget(before.key, 0, 0));
    member.attached = attached;
    if (attached)
        member.handle = before.handle;
    if (holds) {
        member.held = before.held;
        member.outgoing = before.outgoing;
        member.waiting = before.waiting;
    }
    show_name(record(index), member.name);
}

// Whether a name or key is to be had of its holder. A process that registers again has lost its
// connection, and one whose holder's process is gone is a daemon that was restarted.
bool Server::may_take(const Member &holder, const Command &command) const
{
    if (holder.leaving != nullptr || is_dead(holder) || process_gone(holder.pid))
        return true;
    return holder.name == command.name && command.sender > 0 && holder.pid == command.sender &&
           attached_to(holder.segment) <= 1;
}

// True when the holder has gone.
bool Server::make_way(const Command &command, size_t holder)
{
    const Member &member = members_[holder];
    if (may_take(member, command)) {
        log_line(QZLIB_LOG_INFO, "%s: replaced", printable(member.name).c_str());
        remove(holder);
        return true;
    }
    log_line(QZLIB_LOG_WARNING, "refused %s from process %d: %s %s", printable(command.name).c_str(),
             command.sender,
             same_name(member.name, command.name) ? "the name is that of" : "it has the key of",
             printable(member.name).c_str());
    return false;
}

// A free record; one of a client that left goes first when there is none. CLIENTS when the
// table is full.
size_t Server::find_place()
{
    const auto first = [this](auto wanted) {
        return static_cast<size_t>(std::find_if(members_.begin(), members_.end(), wanted) - members_.begin());
    };
    const size_t place = first([](const Member &m) { return !m.used(); });
    if (place < CLIENTS)
        return place;
    reap();
    const size_t leaver = first([](const Member &m) { return m.leaving != nullptr; });
    if (leaver < CLIENTS)
        remove(leaver);
    return leaver;
}

void Server::add(const Command &command)
{
    const int key = qzlib_mbus_name_to_key(command.name.c_str());
    if (key == IPC_PRIVATE || key == QZLIB_MBUS_SHARE_KEY) {
        log_line(QZLIB_LOG_WARNING, "refused %s: its key is not usable", printable(command.name).c_str());
        return;
    }
    const size_t holder = find_conflict(command.name, key);
    if (holder < CLIENTS && members_[holder].name == command.name && may_take(members_[holder], command)) {
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
    const int segment = make_segment(key);
    clear_record(record(place));
    show_name(record(place), command.name);
    if (segment < 0 || qzlib_client_init(&record(place)) != 0) {
        clear_record(record(place));
        log_line(QZLIB_LOG_ERROR, "refused %s: no segment", printable(command.name).c_str());
        return;
    }
    enter(place, command.name, key, command.sender, segment);
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
        if (attached_to(member.segment) > 1)
            member.attached = true;
        else if (is_dead(member))
            leave(i, "its process is gone");
    }
}

// A record that an earlier server left. Its client goes on if it lives: its segment holds
// everything that is needed.
void Server::adopt(size_t index)
{
    const std::string name(field(record(index).name, sizeof record(index).name));
    const int key = name.empty() ? IPC_PRIVATE : qzlib_mbus_name_to_key(name.c_str());
    const int segment = key == IPC_PRIVATE ? -1 : shmget(key, 0, 0);
    remove_stray(record(index).server_handle.id);
    record(index).server_handle = {};
    const bool alive = segment >= 0 && attached_to(segment) > 0 && key != QZLIB_MBUS_SHARE_KEY &&
                       find_conflict(name, key) == CLIENTS;
    if (alive && qzlib_client_init(&record(index)) == 0) {
        enter(index, name, key, 0, segment);
        members_[index].attached = true;
        log_line(QZLIB_LOG_INFO, "%s: taken over", printable(name).c_str());
        return;
    }
    if (segment >= 0 && key != QZLIB_MBUS_SHARE_KEY && attached_to(segment) == 0)
        (void)shmctl(segment, IPC_RMID, nullptr);
    clear_record(record(index));
}

void Server::adopt()
{
    for (size_t i = 0; i < CLIENTS; ++i)
        adopt(i);
}

void Server::close()
{
    for (size_t i = 0; i < CLIENTS; ++i) {
        if (!members_[i].used())
            continue;
        log_line(QZLIB_LOG_INFO, "%s: the bus server ends", printable(members_[i].name).c_str());
        remove(i);
    }
}

// ---- Packets --------------------------------------------------------------------------

bool Server::has_work() const
{
    for (size_t i = 0; i < end_; ++i)
        if (members_[i].used() && differ(record(i).up_write, record(i).up_read))
            return true;
    return false;
}

// A packet named after a client goes to that client, the sender included; any other to all
// but the sender.
Server::Targets Server::targets_of(size_t sender, const mbus_pkg &pkg)
{
    Member &member = members_[sender];
    if (member.last_valid && memcmp(member.last_name.data(), pkg.name, sizeof pkg.name) == 0)
        return member.last_targets;
    Targets targets;
    const size_t named = find_name(field(pkg.name, sizeof pkg.name));
    if (named < CLIENTS && members_[named].connected()) {
        targets.set(named);
    } else {
        for (size_t i = 0; i < CLIENTS; ++i)
            targets.set(i, members_[i].connected() && i != sender);
    }
    memcpy(member.last_name.data(), pkg.name, sizeof pkg.name);
    member.last_targets = targets;
    member.last_valid = true;
    return targets;
}

// False when the sender has nothing more. A corrupt packet is skipped and counts as moved.
bool Server::take(size_t sender)
{
    Member &member = members_[sender];
    const mbus_pkg *pkg = qzlib_mbus_read_pkg(&record(sender), 1);
    if (pkg == nullptr)
        return differ(record(sender).up_write, record(sender).up_read);
    member.outgoing = safe_copy(*pkg);
    member.waiting = targets_of(sender, member.outgoing);
    if (member.outgoing.name[0] == '\0') {
        memset(member.outgoing.name, 0, sizeof member.outgoing.name); // a peer's padding may be anything
        member.name.copy(member.outgoing.name, sizeof member.outgoing.name);
    }
    member.held = pkg;
    return true;
}

// A receiver that is merely slow holds its senders up; one that does not move at all only
// once, and then loses packets until it does.
bool Server::has_room(size_t receiver)
{
    Member &member = members_[receiver];
    const uint32_t read = load(record(receiver).down_read);
    if ((load(record(receiver).down_write) + 1) % SLOTS != read) {
        member.full = member.stalled = false;
        return true;
    }
    if (!member.full || member.full_at != read) {
        member.full = true;
        member.stalled = false;
        member.full_at = read;
        member.full_since_ms = now_ms();
    } else if (!member.stalled && now_ms() - member.full_since_ms > ROOM_PATIENCE_MS) {
        member.stalled = true;
    }
    return false;
}

// False when the packet has to wait for room.
bool Server::give(const mbus_pkg &pkg, size_t receiver)
{
    if (!has_room(receiver) && !members_[receiver].stalled)
        return false;
    // Counts what it drops for want of room. A packet may be read that is too long to be written.
    if (qzlib_mbus_write_pkg(&record(receiver), &pkg) != 0 && pkg.length > QZLIB_MBUS_PAYLOAD_MAX)
        log_line(QZLIB_LOG_WARNING, "%s: a packet of %u bytes is dropped",
                 printable(field(pkg.name, sizeof pkg.name)).c_str(), pkg.length);
    return true;
}

// True when everybody has the packet in hand.
bool Server::hand_on(size_t sender)
{
    Member &member = members_[sender];
    for (size_t i = 0; member.waiting.any() && i < end_; ++i)
        if (member.waiting.test(i) && give(member.outgoing, i))
            member.waiting.reset(i);
    if (member.waiting.any())
        return false;
    member.held = nullptr;
    return true;
}

Server::Progress Server::route_from(size_t sender)
{
    Member &member = members_[sender];
    Progress progress = {false, false};
    for (int i = 0; i < PACKETS_A_ROUND; ++i) {
        if (member.held == nullptr && !take(sender))
            break;
        if (member.held != nullptr && !hand_on(sender)) {
            progress.blocked = true;
            break;
        }
        progress.moved = true;
    }
    return progress;
}

Server::Progress Server::serve(size_t index)
{
    Progress progress = {false, false};
    if (members_[index].used() && differ(record(index).up_write, record(index).up_read))
        progress = route_from(index);
    if (members_[index].leaving != nullptr && is_done(index)) {
        hide(index);
        progress.moved = true;
    }
    return progress;
}

Server::Progress Server::route(const volatile sig_atomic_t &attention)
{
    Progress all = {false, false};
    for (size_t turns = end_; turns > 0; --turns) { // though it shrinks as clients go
        next_ = next_ < end_ ? next_ : 0;
        const Progress one = serve(next_++);
        all.moved = all.moved || one.moved;
        all.blocked = all.blocked || one.blocked;
        if (attention != 0) // a daemon that connects does not wait for long
            return {true, false};
    }
    return all;
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
        goes_on =
            print_line(stdout, "%-32s %12llu %12llu %10llu %5u %12llu %12llu %10llu %5u",
                       printable(members_[i].name).c_str(), number(r.client_offered), number(r.server_read),
                       number(r.client_dropped), (load(r.up_write) + SLOTS - load(r.up_read)) % SLOTS,
                       number(r.server_offered), number(r.client_read), number(r.server_dropped),
                       (load(r.down_write) + SLOTS - load(r.down_read)) % SLOTS);
    }
}

} // namespace mbusd
