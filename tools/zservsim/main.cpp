// SPDX-License-Identifier: MIT
// zservsim: the routing daemon's socket for laptops and tests. Prints the route requests that
// it is sent and, with --apply, puts them into the kernel's table.
#include "../arguments.h"
#include "request.h"

#include <csignal>
#include <getopt.h>
#include <poll.h>
#include <spawn.h>
#include <sys/signalfd.h>
#include <sys/socket.h>
#include <sys/stat.h>
#include <sys/un.h>
#include <sys/wait.h>
#include <unistd.h>
#include <vector>

namespace
{

using zservsim::Request;

constexpr const char *TOOL = "zservsim";
constexpr const char *USAGE =
    "Usage: zservsim [OPTION]...\n"
    "Stand in for the routing daemon: print the route requests sent to its socket.\n"
    "\n"
    "  --apply           put the routes into the kernel's main table, with ip(8)\n"
    "  --socket PATH     listen there instead of on /tmp/.zserv\n"
    "  --add-code N      command code of an added route (default 7)\n"
    "  --delete-code N   command code of a deleted route (default 8)\n"
    "  --count N         end after N requests\n"
    "  -h, --help        print this text\n"
    "  --version         print the version\n"
    "\n"
    "Ends on SIGTERM, SIGINT or SIGHUP. The exit status is 0, 1 when a request was malformed,\n"
    "and 2 when it could not listen or the arguments were wrong.\n";

struct Options {
    std::string socket = "/tmp/.zserv";
    unsigned add_code = 7;
    unsigned delete_code = 8;
    unsigned long count = 0; // 0: no limit
    bool apply = false;
};

[[noreturn]] void fail(const std::string &what)
{
    arguments::fail(TOOL, what + ": " + strerror(errno));
}

unsigned code(const char *option)
{
    return static_cast<unsigned>(arguments::number(TOOL, option, optarg, 0, 255));
}

Options parse_arguments(int argc, char **argv)
{
    constexpr option OPTIONS[] = {
        {"apply", no_argument, nullptr, 'a'},          {"socket", required_argument, nullptr, 's'},
        {"add-code", required_argument, nullptr, '+'}, {"delete-code", required_argument, nullptr, '-'},
        {"count", required_argument, nullptr, 'c'},    {"help", no_argument, nullptr, 'h'},
        {"version", no_argument, nullptr, 'V'},        {nullptr, 0, nullptr, 0}};
    Options options;
    argv[0] = const_cast<char *>(TOOL); // for getopt_long's own messages
    int chosen = 0;
    while ((chosen = getopt_long(argc, argv, "h", OPTIONS, nullptr)) != -1) {
        switch (chosen) {
        case 'a':
            options.apply = true;
            break;
        case 's':
            options.socket = optarg;
            break;
        case '+':
            options.add_code = code("--add-code");
            break;
        case '-':
            options.delete_code = code("--delete-code");
            break;
        case 'c':
            options.count = arguments::number(TOOL, "--count", optarg, 0, 1'000'000'000);
            break;
        case 'h':
            arguments::print(TOOL, USAGE);
        case 'V':
            arguments::print(TOOL, "zservsim (qzlib) " QZLIB_VERSION "\n");
        default:
            exit(arguments::WRONG_USAGE); // getopt_long has said why
        }
    }
    if (optind < argc)
        arguments::fail(TOOL, std::string(argv[optind]) + ": there are options only");
    if (options.add_code == options.delete_code)
        arguments::fail(TOOL,
                        "--add-code " + std::to_string(options.add_code) + ": --delete-code is the same");
    return options;
}

// Runs a command to its end; its exit status, -1 when there is none.
int run(const std::vector<std::string> &words)
{
    std::vector<char *> argv;
    argv.reserve(words.size() + 1);
    for (const std::string &word : words)
        argv.push_back(const_cast<char *>(word.c_str()));
    argv.push_back(nullptr);
    pid_t pid = -1;
    posix_spawnattr_t attributes;
    sigset_t none;
    sigemptyset(&none);
    posix_spawnattr_init(&attributes);
    posix_spawnattr_setsigmask(&attributes, &none);
    posix_spawnattr_setflags(&attributes, POSIX_SPAWN_SETSIGMASK);
    const int error = posix_spawnp(&pid, argv[0], nullptr, &attributes, argv.data(), environ);
    posix_spawnattr_destroy(&attributes);
    if (error != 0)
        fprintf(stderr, "%s: %s: %s\n", TOOL, argv[0], strerror(error));
    int status = 0;
    if (error != 0 || waitpid(pid, &status, 0) != pid || !WIFEXITED(status))
        return -1;
    return WEXITSTATUS(status);
}

struct Connection {
    int fd;
    std::vector<uint8_t> bytes;
    bool said_something = false;
};

class Daemon
{
public:
    explicit Daemon(const Options &options) : options_(options) {}

    int serve()
    {
        catch_signals();
        listen_on_socket();
        printf("listening on %s\n", options_.socket.c_str());
        while (options_.count == 0 || requests_ < options_.count) {
            if (!wait_and_serve())
                break;
        }
        remove_socket();
        return malformed_ ? 1 : 0;
    }

private:
    void listen_on_socket()
    {
        const char *path = options_.socket.c_str();
        sockaddr_un address{};
        address.sun_family = AF_UNIX;
        errno = options_.socket.empty() ? ENOENT : ENAMETOOLONG;
        if (options_.socket.empty() || options_.socket.size() >= sizeof address.sun_path)
            fail("--socket " + options_.socket);
        memcpy(address.sun_path, path, options_.socket.size());
        const auto *name = reinterpret_cast<const sockaddr *>(&address);
        remove_left_socket(name);
        listener_ = socket(AF_UNIX, SOCK_STREAM | SOCK_CLOEXEC, 0);
        if (listener_ < 0 || bind(listener_, name, sizeof address) != 0)
            fail(options_.socket);
        lstat(path, &own_);
        if (listen(listener_, SOMAXCONN) != 0) {
            remove_socket();
            fail(options_.socket);
        }
    }

    // Removes only what a killed daemon has left: a socket that nobody serves.
    void remove_left_socket(const sockaddr *name) const
    {
        const char *path = options_.socket.c_str();
        struct stat found {
        };
        if (lstat(path, &found) != 0)
            return;
        if (!S_ISSOCK(found.st_mode))
            arguments::fail(TOOL, options_.socket + ": it is there and no socket");
        const int probe = socket(AF_UNIX, SOCK_STREAM | SOCK_CLOEXEC | SOCK_NONBLOCK, 0);
        if (connect(probe, name, sizeof(sockaddr_un)) == 0 || errno != ECONNREFUSED)
            arguments::fail(TOOL, options_.socket + ": another program serves it");
        close(probe);
        unlink(path);
    }

    // Unless another one has taken its place.
    void remove_socket() const
    {
        struct stat found {
        };
        if (lstat(options_.socket.c_str(), &found) == 0 && found.st_dev == own_.st_dev &&
            found.st_ino == own_.st_ino)
            unlink(options_.socket.c_str());
    }

    void catch_signals()
    {
        sigset_t ends;
        sigemptyset(&ends);
        sigaddset(&ends, SIGTERM);
        sigaddset(&ends, SIGINT);
        sigaddset(&ends, SIGHUP);
        sigaddset(&ends, SIGPIPE); // nobody reads the output any more
        sigprocmask(SIG_BLOCK, &ends, nullptr);
        signals_ = signalfd(-1, &ends, SFD_CLOEXEC);
        if (signals_ < 0)
            fail("signalfd");
    }

    // Waits once and serves all that became ready. False when a signal asked for the end.
    bool wait_and_serve()
    {
        std::vector<pollfd> waits = {{signals_, POLLIN, 0}, {listener_, POLLIN, 0}};
        for (const Connection &connection : connections_)
            waits.push_back({connection.fd, POLLIN, 0});
        if (poll(waits.data(), waits.size(), -1) < 0)
            fail("poll");
        for (size_t i = 0; i < connections_.size(); ++i) {
            if (waits[i + 2].revents != 0 && !read_from(connections_[i])) {
                close(connections_[i].fd);
                connections_[i].fd = -1;
            }
        }
        std::erase_if(connections_, [](const Connection &connection) { return connection.fd < 0; });
        if (waits[1].revents != 0)
            accept_connection();
        return waits[0].revents == 0;
    }

    void accept_connection()
    {
        const int fd = accept4(listener_, nullptr, nullptr, SOCK_CLOEXEC);
        if (fd >= 0)
            connections_.push_back({fd, {}, false});
    }

    // False when the connection is over.
    bool read_from(Connection &connection)
    {
        uint8_t buffer[4096];
        const ssize_t count = read(connection.fd, buffer, sizeof buffer);
        if (count <= 0) {
            if (!connection.bytes.empty())
                report_malformed(connection.bytes, "it is cut off");
            else if (!connection.said_something)
                printf("connection without a request\n");
            return false;
        }
        connection.said_something = true;
        connection.bytes.insert(connection.bytes.end(), buffer, buffer + count);
        return take_messages(connection.bytes);
    }

    // False when the stream cannot be followed any further.
    bool take_messages(std::vector<uint8_t> &bytes)
    {
        for (;;) {
            const size_t length = zservsim::stated_length(bytes);
            if (bytes.size() < 2 || (length >= 3 && bytes.size() < length))
                return true;
            if (length < 3) {
                report_malformed(bytes, "length is " + std::to_string(length));
                bytes.clear();
                return false;
            }
            handle_message(std::span(bytes).first(length));
            bytes.erase(bytes.begin(), bytes.begin() + static_cast<ptrdiff_t>(length));
        }
    }

    void handle_message(std::span<const uint8_t> message)
    {
        Request request;
        const std::string error = zservsim::decode(message, request);
        if (!error.empty()) {
            report_malformed(message, error);
            return;
        }
        ++requests_;
        printf("%s %s %s %s distance %u type %u\n", verb(request.command).c_str(),
               zservsim::prefix_text(request).c_str(), request.next_hop_is_interface ? "dev" : "via",
               request.next_hop.c_str(), request.distance, request.type);
        if (options_.apply)
            apply(request);
    }

    void report_malformed(std::span<const uint8_t> bytes, const std::string &error)
    {
        ++requests_;
        malformed_ = true;
        printf("malformed: %s:", error.c_str());
        for (const uint8_t byte : bytes)
            printf(" %02X", byte);
        printf("\n");
    }

    [[nodiscard]] std::string verb(unsigned command) const
    {
        if (command == options_.add_code)
            return "add";
        if (command == options_.delete_code)
            return "delete";
        return "command " + std::to_string(command);
    }

    // The distance becomes the kernel's metric: of routes to one prefix the nearest is used.
    void apply(const Request &request) const
    {
        const bool add = request.command == options_.add_code;
        if (!add && request.command != options_.delete_code)
            return;
        const int status =
            run({"ip", "-4", "route", add ? "replace" : "delete", zservsim::network_text(request),
                 request.next_hop_is_interface ? "dev" : "via", request.next_hop, "metric",
                 std::to_string(request.distance)});
        printf("%s\n", status == 0 ? "applied" : "not applied");
    }

    Options options_;
    int listener_ = -1;
    struct stat own_ {
    }; // the socket's file
    int signals_ = -1;
    std::vector<Connection> connections_;
    unsigned long requests_ = 0;
    bool malformed_ = false;
};

} // namespace

int main(int argc, char **argv)
{
    arguments::hold_standard_streams();
    setvbuf(stdout, nullptr, _IOLBF, 0);
    return Daemon(parse_arguments(argc, argv)).serve();
}
