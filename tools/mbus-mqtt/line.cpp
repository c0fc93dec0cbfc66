// SPDX-License-Identifier: MIT
#include "line.h"

#include <algorithm>
#include <cerrno>
#include <csignal>
#include <cstring>
#include <ctime>
#include <linux/tcp.h>
#include <mqtt_protocol.h>
#include <netinet/in.h>
#include <poll.h>
#include <sys/random.h>
#include <sys/socket.h>
#include <sys/stat.h>
#include <unistd.h>

namespace mqtt
{
namespace
{

constexpr int AT_LEAST_ONCE = 1;
constexpr int WINDOW_MAX = 64;        // events in flight, if the broker permits that many
constexpr double ATTEMPT_S = 20;      // to connect, TLS and the broker's answer included
constexpr double FINISH_S = 5;        // to send what waits before leaving
constexpr double ROOM_POLL_S = 0.005; // while the bus has no room
constexpr uint32_t PACKET_MAX = 8192; // the largest order, with topic and properties; told to the broker
constexpr int RECEIVE_BUFFER = 65536;
constexpr double NONSENSE_MAX = 65536;  // bytes without a message in them
constexpr double PING_ANSWER_MAX = 100; // bytes of the answer to a keepalive, with TLS around it

// libmosquitto takes packets of any size that there is memory for, bit by bit. What TCP has received tells
// how large one gets.
uint64_t received_bytes(int fd)
{
    tcp_info info{};
    socklen_t size = sizeof info;
    if (getsockopt(fd, IPPROTO_TCP, TCP_INFO, &info, &size) != 0)
        return 0; // a local socket
    return info.tcpi_bytes_received;
}

double random_part()
{
    uint32_t number = 0;
    (void)!getrandom(&number, sizeof number, 0);
    return number / 4294967296.0;
}

int milliseconds(double seconds)
{
    return static_cast<int>(seconds * 1000) + 1;
}

// Whether libmosquitto keeps an event for which publishing gave this.
bool is_kept(int result)
{
    return result == MOSQ_ERR_SUCCESS || result == MOSQ_ERR_NO_CONN || result == MOSQ_ERR_CONN_LOST ||
           result == MOSQ_ERR_ERRNO || result == MOSQ_ERR_TLS;
}

void log_trouble(mosquitto * /*client*/, void * /*line*/, int level, const char *text)
{
    if ((level & (MOSQ_LOG_ERR | MOSQ_LOG_WARNING)) != 0)
        LOG_LINE(QZLIB_LOG_WARNING, "%s", printable(text).c_str());
}

} // namespace

Line::Line(const Config &config, const Topics &topics, Outbox &outbox, Orders &orders)
    : config_(config), topics_(topics), outbox_(outbox), orders_(orders)
{
    mosquitto_lib_init();
}

Line::~Line()
{
    mosquitto_destroy(client_);
    mosquitto_property_free_all(&properties_);
    mosquitto_lib_cleanup();
}

bool Line::start()
{
    client_ = mosquitto_new(config_.id.c_str(), config_.session_s == 0, this);
    if (client_ == nullptr)
        return false;
    const auto fails = [](const char *what, int result) {
        if (result != MOSQ_ERR_SUCCESS)
            LOG_LINE(QZLIB_LOG_ERROR, "%s: %s", what,
                     result == MOSQ_ERR_ERRNO ? strerror(errno) : mosquitto_strerror(result));
        return result != MOSQ_ERR_SUCCESS;
    };
    const auto given = [](const std::string &text) { return text.empty() ? nullptr : text.c_str(); };
    mosquitto_int_option(client_, MOSQ_OPT_PROTOCOL_VERSION, MQTT_PROTOCOL_V5);
    mosquitto_int_option(client_, MOSQ_OPT_SEND_MAXIMUM, WINDOW_MAX);
    mosquitto_int_option(client_, MOSQ_OPT_TCP_NODELAY, config_.is_local() ? 0 : 1);
    if (!config_.ca.empty()) {
        struct stat facts {
        };
        const bool is_directory = stat(config_.ca.c_str(), &facts) == 0 && S_ISDIR(facts.st_mode);
        if (fails("TLS", mosquitto_tls_set(client_, is_directory ? nullptr : given(config_.ca),
                                           is_directory ? given(config_.ca) : nullptr, given(config_.cert),
                                           given(config_.key), nullptr)))
            return false;
    }
    static constexpr std::string_view GONE = "offline";
    if (fails("login", mosquitto_username_pw_set(client_, given(config_.user), given(config_.password))) ||
        fails("will", mosquitto_will_set(client_, topics_.state().c_str(), GONE.size(), GONE.data(),
                                         AT_LEAST_ONCE, true)) ||
        fails("session", mosquitto_property_add_int32(&properties_, MQTT_PROP_SESSION_EXPIRY_INTERVAL,
                                                      config_.session_s)) ||
        fails("packet size",
              mosquitto_property_add_int32(&properties_, MQTT_PROP_MAXIMUM_PACKET_SIZE, PACKET_MAX)))
        return false;
    mosquitto_connect_v5_callback_set(
        client_, [](mosquitto *, void *line, int reason, int flags, const mosquitto_property *properties) {
            static_cast<Line *>(line)->on_connect(reason, flags, properties);
        });
    mosquitto_publish_v5_callback_set(
        client_, [](mosquitto *, void *line, int id, int reason, const mosquitto_property *) {
            static_cast<Line *>(line)->on_sent(id, reason);
        });
    mosquitto_message_callback_set(client_, [](mosquitto *, void *line, const mosquitto_message *message) {
        static_cast<Line *>(line)->heard_ = true;
        static_cast<Line *>(line)->orders_.take(
            message->topic,
            {static_cast<const char *>(message->payload), static_cast<size_t>(message->payloadlen)},
            message->retain);
    });
    mosquitto_disconnect_v5_callback_set(
        client_, [](mosquitto *, void *, int reason, const mosquitto_property *) {
            if (reason >= 0x80) // in the broker's words
                LOG_LINE(QZLIB_LOG_WARNING, "the broker ends the connection: %s",
                         mosquitto_reason_string(reason));
        });
    mosquitto_subscribe_callback_set(
        client_, [](mosquitto *, void *line, int, int count, const int *granted) {
            static_cast<Line *>(line)->heard_ = true;
            if (count != 1 || granted[0] >= 0x80)
                LOG_LINE(QZLIB_LOG_ERROR, "the broker refuses the topic of this router's orders");
        });
    struct sigaction interruption {
    };
    interruption.sa_handler = [](int) {}; // without SA_RESTART: it ends a call that blocks
    sigaction(SIGUSR1, &interruption, nullptr);
    started_ = pthread_create(
                   &thread_, nullptr,
                   [](void *line) -> void * {
                       static_cast<Line *>(line)->run();
                       return nullptr;
                   },
                   this) == 0;
    return started_;
}

void Line::interrupt()
{
    if (blocked_since_s_ != 0)
        pthread_kill(thread_, SIGUSR1);
}

void Line::look_after()
{
    const double since = blocked_since_s_;
    if (since != 0 && now_s() - since > ATTEMPT_S)
        interrupt();
}

void Line::finish()
{
    stop_s_ = now_s();
    outbox_.wake();
    const timespec step = {0, 20'000'000};
    for (double limit = now_s() + FINISH_S + 1; !ended_ && now_s() < limit; nanosleep(&step, nullptr))
        interrupt();
    if (!ended_) { // in the resolver
        LOG_LINE(QZLIB_LOG_WARNING, "ending in the middle of an attempt to connect");
        _exit(0);
    }
    pthread_join(thread_, nullptr);
}

bool Line::wants_to_leave() const
{
    return stop_s_ != 0 && (outbox_.unsettled() == 0 || !connected_);
}

void Line::run()
{
    while (stop_s_ == 0) {
        if (connect())
            serve();
        if (const int fd = mosquitto_socket(client_); fd >= 0)
            (void)shutdown(fd, SHUT_RDWR); // libmosquitto closes it with the next attempt
        if (stop_s_ == 0)
            pause(connected_ ? now_s() - since_s_ : 0);
        connected_ = false;
    }
    ended_ = true;
}

// False when there is no connection to be had.
bool Line::connect()
{
    heard_bytes_ = 0;
    heard_s_ = since_s_ = now_s();
    blocked_since_s_ = since_s_;
    mosquitto_log_callback_set(client_, log_trouble);
    const int result =
        mosquitto_connect_bind_v5(client_, config_.host.c_str(), config_.is_local() ? 0 : config_.port,
                                  config_.keepalive_s, nullptr, properties_);
    blocked_since_s_ = 0;
    if (result != MOSQ_ERR_SUCCESS && failures_.is_due())
        LOG_LINE(QZLIB_LOG_WARNING, "%s: no connection: %s", config_.host.c_str(),
                 result == MOSQ_ERR_ERRNO ? strerror(errno) : mosquitto_strerror(result));
    if (const int fd = mosquitto_socket(client_); fd >= 0) // so that no more than this comes at once
        (void)setsockopt(fd, SOL_SOCKET, SO_RCVBUF, &RECEIVE_BUFFER, sizeof RECEIVE_BUFFER);
    return result == MOSQ_ERR_SUCCESS;
}

void Line::on_connect(int reason, int flags, const mosquitto_property *properties)
{
    heard_ = true;
    if (reason != 0) {
        LOG_LINE(QZLIB_LOG_ERROR, "%s: the broker refuses: %s", config_.host.c_str(),
                 mosquitto_reason_string(reason));
        return;
    }
    mosquitto_log_callback_set(client_, nullptr); // it would format every packet
    connected_ = true;
    since_s_ = now_s();
    uint16_t permitted = WINDOW_MAX;
    mosquitto_property_read_int16(properties, MQTT_PROP_RECEIVE_MAXIMUM, &permitted, false);
    window_ = std::clamp<size_t>(permitted, 1, WINDOW_MAX);
    const bool known = (flags & 1) != 0;
    LOG_LINE(QZLIB_LOG_INFO, "connected to %s, %s, %zu events in flight, %llu dropped so far",
             config_.host.c_str(), known ? "which kept the session" : "which has no session", flight_.size(),
             outbox_.dropped());
    if (!known)
        outbox_.send_values_again();
    // The birth comes after the will of the connection before. Orders that the broker retains are none: they
    // would be carried out with every connection.
    if (birth_ == 0)
        birth_ = send({topics_.state(), "online", true, 0});
    mosquitto_subscribe_v5(client_, nullptr, topics_.orders().c_str(), AT_LEAST_ONCE,
                           MQTT_SUB_OPT_SEND_RETAIN_NEVER, nullptr);
}

void Line::on_sent(int id, int reason)
{
    heard_ = true;
    if (id == birth_)
        birth_ = 0;
    const auto found =
        std::find_if(flight_.begin(), flight_.end(), [id](const InFlight &f) { return f.id == id; });
    if (found == flight_.end())
        return;
    if (reason >= 0x80 && refusals_.is_due())
        LOG_LINE(QZLIB_LOG_WARNING, "the broker refuses what is published: %s (and %llu before)",
                 mosquitto_reason_string(reason), refusals_.unsaid());
    outbox_.settle(found->message);
    flight_.erase(found);
}

// Its number in flight; 0 when it cannot be sent.
int Line::send(Message message)
{
    int id = 0;
    const int result =
        mosquitto_publish_v5(client_, &id, message.topic.c_str(), static_cast<int>(message.payload.size()),
                             message.payload.data(), AT_LEAST_ONCE, message.retained, nullptr);
    if (is_kept(result)) {
        message.payload = std::string();
        flight_.push_back({id, std::move(message)});
        return id;
    }
    outbox_.settle(message);
    if (refusals_.is_due())
        LOG_LINE(QZLIB_LOG_WARNING, "%s: cannot be published: %s (and %llu before)",
                 printable(message.topic).c_str(), mosquitto_strerror(result), refusals_.unsaid());
    return 0;
}

void Line::pump()
{
    while (connected_ && flight_.size() < window_) {
        std::optional<Message> message = outbox_.next();
        if (!message)
            return;
        send(std::move(*message));
    }
}

// False when the connection is lost or to be given up.
bool Line::receive(int fd)
{
    heard_ = false;
    const int result = mosquitto_loop_read(client_, 1);
    if (result == MOSQ_ERR_NOMEM)
        LOG_LINE(QZLIB_LOG_WARNING, "refused a packet that there is no memory for: the line is cut");
    if (result != MOSQ_ERR_SUCCESS || mosquitto_socket(client_) < 0)
        return false;
    const uint64_t bytes = received_bytes(fd);
    const double now = now_s();
    if (heard_) {
        heard_bytes_ = bytes;
        heard_s_ = now;
        return true;
    }
    const double pings = (now - heard_s_) / config_.keepalive_s;
    if (static_cast<double>(bytes - heard_bytes_) <= NONSENSE_MAX + pings * PING_ANSWER_MAX)
        return true;
    LOG_LINE(QZLIB_LOG_WARNING, "refused a packet of more than %.0f bytes: the line is cut", NONSENSE_MAX);
    return false;
}

// Until the connection is lost, or all is said and the process is to end.
void Line::serve()
{
    time_t checked = 0;
    while (!wants_to_leave()) {
        pump();
        const int fd = mosquitto_socket(client_);
        if (fd < 0)
            break;
        const bool held_up = orders_.is_held_up();
        const bool full = !connected_ || flight_.size() >= window_;
        const bool idle = full || outbox_.await();
        const bool writes = mosquitto_want_write(client_);
        pollfd fds[] = {{held_up && !writes ? -1 : fd, 0, 0}, {outbox_.wake_fd(), POLLIN, 0}};
        fds[0].events = static_cast<short>((held_up ? 0 : POLLIN) | (writes ? POLLOUT : 0));
        const double limit_s = held_up ? ROOM_POLL_S : 1;
        if (poll(fds, 2, idle ? milliseconds(limit_s) : 0) < 0 && errno != EINTR)
            break;
        if (fds[1].revents != 0)
            outbox_.clear_wake();
        if ((fds[0].revents & POLLOUT) != 0 && mosquitto_loop_write(client_, 1) != MOSQ_ERR_SUCCESS)
            break;
        if ((fds[0].revents & (POLLIN | POLLERR | POLLHUP)) != 0 && !held_up && !receive(fd))
            break;
        const double now = now_s();
        if (static_cast<time_t>(now) != checked && mosquitto_loop_misc(client_) != MOSQ_ERR_SUCCESS)
            break;
        checked = static_cast<time_t>(now);
        if (!connected_ && now - since_s_ > ATTEMPT_S) {
            LOG_LINE(QZLIB_LOG_WARNING, "%s: no answer", config_.host.c_str());
            break;
        }
        if (stop_s_ != 0 && now - stop_s_ > FINISH_S)
            break;
    }
    if (stop_s_ != 0 && connected_ && mosquitto_socket(client_) >= 0) {
        mosquitto_disconnect_v5(client_, MQTT_RC_DISCONNECT_WITH_WILL_MSG, nullptr);
        return;
    }
    if (connected_ && stop_s_ == 0)
        LOG_LINE(QZLIB_LOG_WARNING, "%s: the connection is lost, %zu events wait", config_.host.c_str(),
                 outbox_.unsettled());
}

// Of many routers that lost their broker at once each takes another time, somewhere up to the limit, which
// doubles with every failure. A connection counts as a success when it lasted longer than that.
void Line::pause(double lasted_s)
{
    const auto limit_s = [this] {
        return std::min(config_.retry_first_s * static_cast<double>(1U << std::min(attempts_, 16U)),
                        static_cast<double>(config_.retry_longest_s));
    };
    if (lasted_s > limit_s())
        attempts_ = 0;
    const double pause_s = limit_s() * random_part();
    ++attempts_;
    const double end = now_s() + pause_s;
    for (double rest = pause_s; rest > 0 && stop_s_ == 0; rest = end - now_s()) {
        pollfd wake = {outbox_.wake_fd(), POLLIN, 0};
        if (poll(&wake, 1, milliseconds(rest)) > 0)
            outbox_.clear_wake();
    }
}

} // namespace mqtt
