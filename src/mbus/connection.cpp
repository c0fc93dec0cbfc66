// SPDX-License-Identifier: MIT
#include "base/export.h"
#include "base/lock.h"
#include "base/owners.h"
#include "base/text.h"
#include "mbus/bus.h"

#include <cerrno>
#include <cstring>
#include <ctime>
#include <poll.h>
#include <unistd.h>

namespace qz::mbus
{
namespace
{

using qz::base::UniqueFd;

constexpr unsigned ATTEMPTS = 4; // to reach the server, and to find the name
constexpr int REGISTER_PATIENCE_MS = 250;
constexpr int REGISTER_TRIES = 25;
constexpr int FORMER_PATIENCE_MS = 250; // for the server to read what a former life sent

// Whether connect has finished: what the down cache's reader waits for.
pthread_mutex_t connected_mutex = PTHREAD_MUTEX_INITIALIZER;
pthread_cond_t connected_changed = PTHREAD_COND_INITIALIZER;
bool connected = false;

void set_connected(bool value)
{
    const base::Lock lock(connected_mutex);
    connected = value;
    pthread_cond_broadcast(&connected_changed);
}

void pause_ms(unsigned ms)
{
    timespec left = {static_cast<time_t>(ms / 1000), static_cast<long>(ms % 1000) * 1'000'000};
    while (nanosleep(&left, &left) != 0 && errno == EINTR) {
    }
}

mbus_ctl_msg command(int32_t code, const char *name)
{
    mbus_ctl_msg message = {code, {}};
    qz::base::fill_field(message.name, name);
    return message;
}

UniqueFd reach_server()
{
    UniqueFd fd(qzlib_create_connect_unixdomain(QZLIB_MBUS_SOCKET));
    for (unsigned failed = 1; !fd && failed < ATTEMPTS; ++failed) {
        pause_ms(failed * 1000);
        fd.reset(qzlib_create_connect_unixdomain(QZLIB_MBUS_SOCKET));
    }
    return fd;
}

// The result is not looked at: whether the server took the name shows in its table. But many
// daemons start at once, and the server's queue may be full for a moment; where there is room
// somebody else may be quicker.
void send_command(int fd, const mbus_ctl_msg &message)
{
    pollfd room = {fd, POLLOUT, 0};
    for (int tries = 0; write(fd, &message, sizeof message) < 0 && errno == EAGAIN && tries < REGISTER_TRIES;
         ++tries)
        (void)poll(&room, 1, REGISTER_PATIENCE_MS / REGISTER_TRIES);
}

// Whether the server has not read all that was sent in this name's former life.
bool has_old_packets(const mbus_client &record)
{
    return load(record.up_write) % QZLIB_MBUS_RING_SLOTS != load(record.up_read) % QZLIB_MBUS_RING_SLOTS;
}

// The server needs a moment to fill the record, and one of a former life is not taken, and its
// rings emptied, while packets lie there; but not every server reads them.
mbus_client *await_record(const char *name)
{
    pause_ms(1);
    mbus_client *record = qzlib_find_client_by_name(name);
    for (unsigned failed = 1; record == nullptr && failed < ATTEMPTS; ++failed) {
        pause_ms(failed);
        record = qzlib_find_client_by_name(name);
    }
    for (int waited = 0; record != nullptr && has_old_packets(*record) && waited < FORMER_PATIENCE_MS;
         ++waited) {
        pause_ms(1);
        record = qzlib_find_client_by_name(name);
    }
    return record;
}

bool take_record(mbus_client *record)
{
    qz::base::copy_text(state.own_name, qz::base::field_text(record->name));
    state.table_gone = false;
    state.is_occupied = false;
    set_self(record);
    if (qzlib_client_init(record) == 0)
        return true;
    set_self(nullptr);
    return false;
}

// A record that changed its name between finding and attaching is looked for again: the server was
// just making it new.
bool join(const char *name)
{
    for (unsigned tries = 0; tries < ATTEMPTS; ++tries) {
        mbus_client *record = await_record(name);
        if (record == nullptr)
            return false;
        if (take_record(record)) {
            MBUS_LOG(QZLIB_LOG_INFO, "connect to mbus success");
            set_connected(true);
            return true;
        }
        if (qzlib_find_client_by_name(name) == record)
            break;
    }
    MBUS_LOG(QZLIB_LOG_ERROR, "connect to mbus fail");
    return false;
}

// Threads that wait for a packet leave first: once the server has read the command, the record may be
// another client's. A connection inherited from the parent has no threads here.
void leave(bool inherited, bool unregister)
{
    if (self() == nullptr)
        return;
    set_connected(false);
    set_self(nullptr);
    if (!inherited)
        dismiss_users(state.own.base);
    const mbus_ctl_msg message = command(MBUS_CTL_UNREGISTER, state.own_name);
    if (unregister) // the server may be gone
        (void)qzlib_send_to_unixdomain(QZLIB_MBUS_SOCKET, &message, sizeof message);
    uninit_own();
    qzlib_mbus_share_uninit();
}

} // namespace

bool is_new_process()
{
    if (state.pid == getpid())
        return false;
    const bool forked = state.pid != 0;
    state.pid = getpid();
    if (forked) {
        memset(state.in_use, 0, sizeof state.in_use);
        connected_mutex = PTHREAD_MUTEX_INITIALIZER;
        connected_changed = PTHREAD_COND_INITIALIZER;
        renew_down_cache();
    }
    return forked;
}

void wait_connected()
{
    const base::Lock lock(connected_mutex);
    while (!connected)
        pthread_cond_wait(&connected_changed, &connected_mutex);
}

} // namespace qz::mbus

using namespace qz::mbus;

QZ_EXPORT int qzlib_connect_mbus_server(const char *name)
{
    if (name == nullptr)
        return QZLIB_ERR_ARGUMENT;
    const bool inherited = is_new_process();
    leave(inherited, !inherited); // a forked process's parent stays on the bus
    UniqueFd fd = reach_server();
    if (!fd)
        return -1;
    send_command(fd.get(), command(MBUS_CTL_REGISTER, name));
    fd.reset();
    const int result = qzlib_mbus_share_init();
    if (result != 0)
        return result;
    if (join(name))
        return 0;
    qzlib_mbus_share_uninit();
    return -1;
}

QZ_EXPORT int qzlib_disconnect_mbus_server(void)
{
    leave(is_new_process(), true);
    return 0;
}
