// SPDX-License-Identifier: MIT
// mbus-mqtt: from one router to a fleet. Carries chosen packets between the router's message bus and an
// MQTT broker. This file holds the process: its start, its second hand, its end.
#include "../arguments.h"
#include "bridge.h"
#include "config.h"
#include "line.h"
#include "outbox.h"
#include "status.h"

#include <algorithm>
#include <csignal>
#include <fcntl.h>
#include <memory>
#include <new>
#include <sys/resource.h>
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

// libmosquitto asks for the memory of a packet as soon as the broker says how large it is, which may be
// 256 MB, and takes it well when there is none: the broker does not get more than this. What the bridge
// itself asks for it gets all the same.
void limit_memory(size_t queue_bytes)
{
    if (IS_SANITIZED != 0) // sanitizers map terabytes
        return;
    constexpr rlim_t FOR_BROKER = 16777216;
    constexpr rlim_t STEP = 1048576;
    constexpr int STEPS_MAX = 256;
    constexpr int BUS_THREADS = 2; // they start when the bus is joined
    unsigned long data_pages = 0;
    const std::unique_ptr<FILE, int (*)(FILE *)> file(fopen("/proc/self/statm", "re"),
                                                      [](FILE *f) { return fclose(f); });
    if (file == nullptr || fscanf(file.get(), "%*u %*u %*u %*u %*u %lu", &data_pages) != 1)
        return;
    rlimit stack{};
    rlimit data{};
    (void)getrlimit(RLIMIT_STACK, &stack);
    (void)getrlimit(RLIMIT_DATA, &data);
    const rlim_t stack_bytes = stack.rlim_cur == RLIM_INFINITY ? FOR_BROKER : stack.rlim_cur;
    const rlim_t limit = data_pages * static_cast<rlim_t>(sysconf(_SC_PAGESIZE)) + BUS_THREADS * stack_bytes +
                         2 * queue_bytes + FOR_BROKER;
    data.rlim_cur = std::min(limit, data.rlim_max);
    (void)setrlimit(RLIMIT_DATA, &data);
    std::set_new_handler([] {
        static int steps = 0;
        rlimit more{};
        if (++steps > STEPS_MAX || getrlimit(RLIMIT_DATA, &more) != 0)
            abort();
        more.rlim_cur += STEP;
        if (setrlimit(RLIMIT_DATA, &more) != 0)
            abort();
    });
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
    limit_memory(config.queue_bytes);
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
