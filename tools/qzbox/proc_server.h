// SPDX-License-Identifier: MIT
// /proc with additions: a read-only FUSE file system whose root lists the kernel's names and the
// tree's, each a symbolic link to the real thing. Where FUSE is not available, a directory of such
// links, which also has the numbers of processes to come.
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

    // Cover /proc.
    static ProcServer start();

    // To be polled for input.
    [[nodiscard]] int fd() const { return device_.valid() ? device_.get() : timer_.get(); }

    // Answer one request, or make the links that will be needed until the next call. Stops serving
    // when /proc has been unmounted.
    void serve();

private:
    struct Request;
    // The names at the time of opening, ready for reading.
    struct Listing {
        std::vector<std::string> names;
    };

    bool start_fuse();
    void start_links();
    void link_processes();
    void serve_fuse();
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

    UniqueFd device_;                // of FUSE; without it invalid
    UniqueFd timer_;                 // when to look at the process numbers; with FUSE invalid
    unsigned linked_ = 0;            // process numbers up to here have a link
    UniqueFd additions_;             // PROC_ADDITIONS
    UniqueFd kernel_;                // the real procfs
    std::vector<std::string> names_; // node number minus FIRST_NAMED -> name; only grows
    std::vector<Listing> listings_;  // by file handle; an empty one is free
};

} // namespace qzbox
