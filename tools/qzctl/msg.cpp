// SPDX-License-Identifier: MIT
// msg: the local messages between the router's daemons. And the waiting for what is received.
#include "listen.h"
#include "print.h"
#include "text.h"

#include <algorithm>
#include <cerrno>
#include <climits>
#include <csignal>
#include <cstring>
#include <ctime>

namespace qzctl
{

namespace
{

constexpr unsigned COUNT_MAX = 1'000'000'000;
constexpr unsigned TIMEOUT_MAX = 1'000'000;
constexpr int SIGNAL_ENOUGH = SIGUSR1;

sigset_t ends()
{
    sigset_t signals;
    sigemptyset(&signals);
    for (const int signal : {SIGINT, SIGTERM, SIGHUP, SIGNAL_ENOUGH})
        sigaddset(&signals, signal);
    return signals;
}

time_t seconds()
{
    timespec now{};
    (void)clock_gettime(CLOCK_MONOTONIC, &now);
    return now.tv_sec;
}

} // namespace

Listening::Listening(const Arguments &arguments)
    : count_(arguments.number(COUNT, 0, 1, COUNT_MAX)), limit_s_(arguments.number(TIMEOUT, 0, 1, TIMEOUT_MAX))
{
    const sigset_t signals = ends();
    (void)sigprocmask(SIG_BLOCK, &signals, nullptr);
}

bool Listening::begin()
{
    (void)pthread_mutex_lock(&printing_);
    const bool is_wanted = count_ == 0 || came_ < count_;
    if (!is_wanted)
        (void)pthread_mutex_unlock(&printing_);
    return is_wanted;
}

void Listening::end()
{
    came_ = came_ + 1;
    const bool is_enough = came_ == count_ || fflush(stdout) != 0; // or nobody reads it any longer
    (void)pthread_mutex_unlock(&printing_);
    if (is_enough)
        (void)kill(getpid(), SIGNAL_ENOUGH);
}

int Listening::wait(bool (*is_alive)())
{
    const sigset_t signals = ends();
    const timespec pause = {0, 500'000'000};
    const time_t end = seconds() + static_cast<time_t>(limit_s_);
    int signal = -1;
    while (signal < 0 && (limit_s_ == 0 || seconds() < end)) {
        signal = sigtimedwait(&signals, nullptr, &pause);
        if (signal < 0 && !is_alive())
            return NO;
    }
    (void)pthread_mutex_lock(&printing_); // for good: what comes now is not printed
    const bool is_enough = count_ == 0 ? came_ > 0 : came_ >= count_;
    return signal >= 0 || is_enough ? DONE : NOT_IN_TIME;
}

namespace
{

// The kernel keeps 15 characters of a process's name.
constexpr size_t PROCESS_NAME_MAX = 15;
constexpr int RECEIVED_MAX = 3776;            // bytes of data; of more the rest is not received
constexpr size_t TEXT_MAX = RECEIVED_MAX - 1; // and its NUL

bool prints_json = false;

void print_message(local_msg *message, void *context)
{
    auto &listening = *static_cast<Listening *>(context);
    if (!listening.begin())
        return;
    const std::string_view from(message->src_name, strnlen(message->src_name, sizeof message->src_name));
    const int received = std::min(message->data == nullptr ? 0 : message->data_len, RECEIVED_MAX);
    const std::string_view data(static_cast<const char *>(message->data),
                                static_cast<size_t>(std::max(received, 0)));
    if (prints_json) {
        const Json record = new_record();
        put_bytes(record, "from", from);
        put_number(record, "pid", message->src_pid);
        put_number(record, "type", message->type);
        put_data(record, data);
        print_json_line(record);
    } else {
        print_text(from);
        (void)printf("[%d]  type %u  ", message->src_pid, message->type);
        print_text(head(data, data.find_last_not_of('\0') + 1));
        (void)putchar('\n');
    }
    listening.end();
}

} // namespace

int msg_send(const Arguments &arguments)
{
    local_msg message{};
    message.type = check_number("the type", arguments.word(0), 0, UINT_MAX);
    if (arguments.has(PID))
        message.dst_pid = static_cast<int32_t>(check_number("--pid", arguments.options[PID], 1, INT_MAX));
    if (arguments.has(TO))
        (void)strcpy(message.dst_name, check_length("--to", arguments.options[TO], PROCESS_NAME_MAX));
    if (arguments.count == 2) {
        const char *text = check_length("the text", arguments.word(1), TEXT_MAX);
        message.data = const_cast<char *>(text);
        message.data_len = static_cast<int32_t>(strlen(text)) + 1;
    }
    if (arguments.has(TO) && qzlib_get_pid_by_name_path(message.dst_name, nullptr) < 0)
        return say(NO, "no process has the name %s", message.dst_name);
    if (message.dst_pid != 0 && kill(message.dst_pid, 0) != 0 && errno == ESRCH)
        return say(NO, "there is no process %d", message.dst_pid);
    if (qzlib_msg_init(nullptr, nullptr) != 0 || qzlib_msg_send(&message) != 0)
        return say(NO, "the channel cannot be opened: %s", strerror(errno));
    qzlib_msg_exit();
    return DONE;
}

int msg_listen(const Arguments &arguments)
{
    prints_json = arguments.has(JSON);
    static Listening listening(arguments); // the receiver may use it up to the end of the process
    if (qzlib_msg_init(print_message, &listening) != 0)
        return say(NO, "the channel cannot be opened for receiving, which needs CAP_NET_ADMIN: %s",
                   strerror(errno));
    const int status = listening.wait([] { return true; });
    return status == NOT_IN_TIME ? say(NOT_IN_TIME, "no message came in time") : status;
}

} // namespace qzctl
