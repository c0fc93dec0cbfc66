// /proc with additions: a read-only FUSE file system whose root lists the kernel's names and the
// tree's, each a symbolic link to the real thing.
#pragma once

#include "util.h"

#include <cstdint>

namespace qzbox
{

// Served by init, which must not touch /proc from the moment this exists: it would wait for
// itself. All links are resolved by whoever follows them, so /proc/self and the numbers of
// processes are always live; nothing is cached in the kernel.
class ProcServer
{
public:
    ProcServer() = default; // serves nothing; fd() is -1

    // Cover /proc. Where FUSE is not available the box ends with a message.
    static ProcServer start();

    // To be polled for input.
    [[nodiscard]] int fd() const { return device_.get(); }

    // Answer one request. Stops serving when /proc has been unmounted.
    void serve();

private:
    struct Request;
    // The names at the time of opening, ready for reading.
    struct Listing {
        std::vector<std::string> names;
    };

    void answer(const Request &request);
    void answer_init(const Request &request);
    void answer_lookup(const Request &request);
    void answer_attributes(const Request &request);
    void answer_link(const Request &request);
    void open_listing(const Request &request);
    void read_listing(const Request &request);
    void close_listing(const Request &request);
    void reply(const Request &request, int error, const void *data, size_t size) const;

    [[nodiscard]] std::string link_text(const std::string &name) const;
    [[nodiscard]] uint64_t node_of(const std::string &name);
    [[nodiscard]] std::string name_of(uint64_t node) const;

    UniqueFd device_;
    UniqueFd additions_;             // PROC_ADDITIONS
    UniqueFd kernel_;                // the real procfs
    std::vector<std::string> names_; // node number minus FIRST_NAMED -> name; only grows
    std::vector<Listing> listings_;  // by file handle; an empty one is free
};

} // namespace qzbox
