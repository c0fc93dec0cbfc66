// mbus-mqtt: from one router to a fleet. Carries chosen packets between the router's message bus and an
// MQTT broker. This file holds the process: its start, its second hand, its end.
#include "../arguments.h"
#include "bridge.h"
#include "config.h"
#include "line.h"
#include "outbox.h"
#include "status.h"

#include <csignal>
#include <fcntl.h>
#include <unistd.h>

namespace
{

constexpr timespec LOOK_EVERY = {0, 500'000'000};

// The library's log drops what it cannot write, without a word.
bool is_writable(const char *path)
{
    const int fd = open(path, O_WRONLY | O_APPEND | O_CREAT | O_NONBLOCK | O_CLOEXEC, 0644);
    if (fd >= 0)
        close(fd);
    return fd >= 0;
}

} // namespace

int main(int argc, char **argv)
{
    using namespace mqtt;
    arguments::hold_standard_streams();
    const Config config = configure(argc, argv);
    if (!config.log.empty() && !is_writable(config.log.c_str()))
        arguments::fail(TOOL, "cannot write the log " + config.log + ": " + strerror(errno), 1);
    openmsg_com(config.log.empty() ? nullptr : config.log.c_str(), 0, TOOL, 0);
    // Before there are threads, so that they inherit the mask.
    sigset_t ends;
    sigemptyset(&ends);
    sigaddset(&ends, SIGTERM);
    sigaddset(&ends, SIGINT);
    pthread_sigmask(SIG_BLOCK, &ends, nullptr);
    (void)signal(SIGPIPE, SIG_IGN);

    const Topics topics(config.prefix, config.id);
    Outbox outbox(config.queue_bytes);
    Bridge bridge(config, topics, outbox);
    Line line(config, topics, outbox, bridge);
    Status status(config.status, topics, outbox);
    if (!line.start())
        arguments::fail(TOOL, "cannot start: the log tells why", 1);
    do {
        bridge.look_after();
        status.look();
        outbox.retain(topics.dropped(), std::to_string(outbox.dropped()));
        line.look_after();
    } while (sigtimedwait(&ends, nullptr, &LOOK_EVERY) < 0);
    bridge.leave();
    line.finish();
    LOG_LINE(QZLIB_LOG_INFO, "ended: %llu events dropped, %zu not acknowledged", outbox.dropped(),
             outbox.unsettled());
    closemsg();
    _exit(0); // the bus's threads are still there, and may hand over a last packet
}
