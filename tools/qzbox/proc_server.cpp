// SPDX-License-Identifier: MIT
#include "proc_server.h"

#include "overlay.h"
#include "root.h"

#include <fcntl.h>
#include <linux/fuse.h>
#include <sys/mount.h>
#include <sys/stat.h>
#include <sys/timerfd.h>
#include <sys/uio.h>

#include <algorithm>
#include <array>
#include <cerrno>
#include <cstdio>
#include <cstdlib>
#include <cstring>

namespace qzbox
{

namespace
{

// Node numbers: the root, then processes by their number, then other names as they are met.
constexpr uint64_t FIRST_PROCESS = 0x10;
constexpr uint64_t FIRST_NAMED = 0x20000000; // beyond the kernel's highest process number
constexpr size_t REQUEST_BYTES = 65536;      // no request for a read-only tree is longer
constexpr uint32_t OLD_INIT_MINOR = 23;      // before it the reply to INIT was shorter
constexpr unsigned long MOUNT_FLAGS = MS_NOSUID | MS_NODEV | MS_NOEXEC;
constexpr const char *KERNEL_PROC = "/.kernel/proc";

// Without FUSE: no box starts a hundred processes in a millisecond.
constexpr long LINK_INTERVAL_NS = 10'000'000;
constexpr unsigned LINKS_AHEAD = 1024;

// True for a decimal process number, which is put into `pid`.
bool is_process(const std::string &name, uint64_t &pid)
{
    if (name.empty() || name.size() > 8 || name.find_first_not_of("0123456789") != std::string::npos)
        return false;
    pid = static_cast<uint64_t>(atol(name.c_str()));
    return true;
}

bool exists_in(const UniqueFd &directory, const std::string &name)
{
    struct stat status = {};
    return fstatat(directory.get(), name.c_str(), &status, AT_SYMLINK_NOFOLLOW) == 0;
}

fuse_attr attributes_of(uint64_t node, size_t link_length)
{
    const bool is_root = node == FUSE_ROOT_ID;
    fuse_attr attributes = {};
    attributes.ino = node;
    attributes.size = link_length;
    attributes.mode = is_root ? (S_IFDIR | 0555) : (S_IFLNK | 0777);
    attributes.nlink = is_root ? 2 : 1;
    attributes.blksize = 512;
    return attributes;
}

UniqueFd open_or_fail(const char *path, int flags)
{
    UniqueFd fd(open(path, flags | O_CLOEXEC));
    if (!fd.valid())
        fail_errno("cannot open %s", path);
    return fd;
}

} // namespace

struct ProcServer::Request {
    const fuse_in_header &header;
    const char *body;

    template <typename Body>
    [[nodiscard]] Body body_as() const
    {
        Body copy;
        memcpy(&copy, body, sizeof(copy));
        return copy;
    }
};

ProcServer ProcServer::start()
{
    ProcServer server;
    server.additions_ = open_or_fail(PROC_ADDITIONS, O_PATH | O_DIRECTORY);
    server.kernel_ = open_or_fail(KERNEL_PROC, O_PATH | O_DIRECTORY);
    if (!server.start_fuse())
        server.start_links();
    return server;
}

// The device must be opened inside the box's own user namespace. A user may not be permitted to, and
// the kernel may be without it.
bool ProcServer::start_fuse()
{
    device_.reset(open("/dev/fuse", O_RDWR | O_NONBLOCK | O_CLOEXEC));
    char options[96];
    snprintf(options, sizeof(options), "fd=%d,rootmode=40555,user_id=0,group_id=0,allow_other",
             device_.get());
    if (device_.valid() && mount("proc", "/proc", "fuse", MOUNT_FLAGS | MS_RDONLY, options) == 0)
        return true;
    device_.reset();
    return false;
}

void ProcServer::start_links()
{
    mount_or_fail("tmpfs", "/proc", "tmpfs", MOUNT_FLAGS, "mode=555");
    for (const int directory : {additions_.get(), kernel_.get()}) {
        for (const std::string &name : list_names(directory))
            (void)symlink(link_text(name).c_str(), join("/proc", name).c_str()); // the first one holds
    }
    link_processes();
    timer_.reset(timerfd_create(CLOCK_MONOTONIC, TFD_CLOEXEC | TFD_NONBLOCK));
    const itimerspec interval = {{0, LINK_INTERVAL_NS}, {0, LINK_INTERVAL_NS}};
    if (timerfd_settime(timer_.get(), 0, &interval, nullptr) != 0)
        fail_errno("cannot follow the process numbers");
}

// The kernel tells the number given last; the next ones have their links before they are given.
void ProcServer::link_processes()
{
    char load[128] = "";
    const UniqueFd file(openat(kernel_.get(), "loadavg", O_RDONLY | O_CLOEXEC));
    (void)!read(file.get(), load, sizeof(load) - 1);
    const char *last = strrchr(load, ' ');
    if (last == nullptr)
        return;
    for (const auto end = static_cast<unsigned>(atol(last)) + LINKS_AHEAD; linked_ < end; ++linked_) {
        const std::string name = std::to_string(linked_ + 1);
        (void)symlink(join(KERNEL_PROC, name).c_str(), join("/proc", name).c_str());
    }
}

void ProcServer::serve()
{
    if (device_.valid())
        return serve_fuse();
    uint64_t expirations = 0;
    if (read(timer_.get(), &expirations, sizeof(expirations)) > 0)
        link_processes();
}

void ProcServer::serve_fuse()
{
    alignas(fuse_in_header) static std::array<char, REQUEST_BYTES> buffer;
    const ssize_t length = read(device_.get(), buffer.data(), buffer.size());
    if (length < 0 && errno == ENODEV)
        device_.reset();
    if (length < static_cast<ssize_t>(sizeof(fuse_in_header)))
        return;
    // Bodies shorter than expected read as zeros.
    memset(buffer.data() + length, 0, std::min<size_t>(buffer.size() - static_cast<size_t>(length), 512));
    const auto *header = reinterpret_cast<const fuse_in_header *>(buffer.data());
    answer(Request{*header, buffer.data() + sizeof(*header)});
}

void ProcServer::answer(const Request &request)
{
    switch (request.header.opcode) {
    case FUSE_INIT:
        return answer_init(request);
    case FUSE_LOOKUP:
        return answer_lookup(request);
    case FUSE_GETATTR:
        return answer_attributes(request);
    case FUSE_READLINK:
        return answer_link(request);
    case FUSE_OPENDIR:
        return open_listing(request);
    case FUSE_READDIR:
        return read_listing(request);
    case FUSE_RELEASEDIR:
        return close_listing(request);
    case FUSE_STATFS: {
        const fuse_statfs_out statistics = {};
        return reply(request, 0, &statistics, sizeof(statistics));
    }
    case FUSE_DESTROY:
        return reply(request, 0, nullptr, 0);
    case FUSE_FORGET:
    case FUSE_BATCH_FORGET:
    case FUSE_INTERRUPT: // every request is answered at once; none is left to interrupt
        return;          // none of the three takes an answer
    default:
        return reply(request, ENOSYS, nullptr, 0);
    }
}

void ProcServer::reply(const Request &request, int error, const void *data, size_t size) const
{
    fuse_out_header header = {};
    header.len = static_cast<uint32_t>(sizeof(header) + size);
    header.error = -error;
    header.unique = request.header.unique;
    iovec parts[] = {{&header, sizeof(header)}, {const_cast<void *>(data), size}};
    (void)!writev(device_.get(), parts, size == 0 ? 1 : 2); // the asker may be gone already
}

void ProcServer::answer_init(const Request &request)
{
    const auto offer = request.body_as<fuse_init_in>();
    fuse_init_out answer = {};
    answer.major = FUSE_KERNEL_VERSION;
    answer.minor = std::min<uint32_t>(offer.minor, FUSE_KERNEL_MINOR_VERSION);
    answer.max_write = 4096;
    const size_t size = offer.minor < OLD_INIT_MINOR ? FUSE_COMPAT_22_INIT_OUT_SIZE : sizeof(answer);
    reply(request, 0, &answer, size);
}

std::string ProcServer::link_text(const std::string &name) const
{
    if (exists_in(additions_, name))
        return join(PROC_ADDITIONS, name);
    if (exists_in(kernel_, name))
        return join(KERNEL_PROC, name);
    return "";
}

uint64_t ProcServer::node_of(const std::string &name)
{
    uint64_t pid = 0;
    if (is_process(name, pid))
        return FIRST_PROCESS + pid;
    const auto place = std::find(names_.begin(), names_.end(), name);
    const auto index = static_cast<uint64_t>(place - names_.begin());
    if (place == names_.end())
        names_.push_back(name);
    return FIRST_NAMED + index;
}

std::string ProcServer::name_of(uint64_t node) const
{
    if (node >= FIRST_NAMED && node - FIRST_NAMED < names_.size())
        return names_[static_cast<size_t>(node - FIRST_NAMED)];
    return node < FIRST_NAMED ? std::to_string(node - FIRST_PROCESS) : "";
}

void ProcServer::answer_lookup(const Request &request)
{
    const std::string name = request.body;
    const std::string text = link_text(name);
    if (text.empty())
        return reply(request, ENOENT, nullptr, 0);
    fuse_entry_out entry = {};
    entry.nodeid = node_of(name);
    entry.attr = attributes_of(entry.nodeid, text.size());
    reply(request, 0, &entry, sizeof(entry));
}

void ProcServer::answer_attributes(const Request &request)
{
    const uint64_t node = request.header.nodeid;
    const size_t length = node == FUSE_ROOT_ID ? 0 : link_text(name_of(node)).size();
    fuse_attr_out attributes = {};
    attributes.attr = attributes_of(node, length);
    reply(request, 0, &attributes, sizeof(attributes));
}

void ProcServer::answer_link(const Request &request)
{
    const std::string text = link_text(name_of(request.header.nodeid));
    reply(request, text.empty() ? ENOENT : 0, text.data(), text.size());
}

void ProcServer::open_listing(const Request &request)
{
    std::vector<std::string> names = list_names(additions_.get());
    for (std::string &name : list_names(kernel_.get())) {
        if (!exists_in(additions_, name))
            names.push_back(std::move(name));
    }
    const auto place = std::find_if(listings_.begin(), listings_.end(),
                                    [](const Listing &listing) { return listing.names.empty(); });
    fuse_open_out opened = {};
    opened.fh = static_cast<uint64_t>(place - listings_.begin());
    if (place == listings_.end())
        listings_.emplace_back();
    listings_[static_cast<size_t>(opened.fh)].names = std::move(names);
    reply(request, 0, &opened, sizeof(opened));
}

void ProcServer::read_listing(const Request &request)
{
    const auto input = request.body_as<fuse_read_in>();
    if (input.fh >= listings_.size())
        return reply(request, EBADF, nullptr, 0);
    const std::vector<std::string> &names = listings_[static_cast<size_t>(input.fh)].names;
    std::string records;
    for (uint64_t index = input.offset; index < names.size(); ++index) {
        const std::string &name = names[static_cast<size_t>(index)];
        fuse_dirent record = {};
        record.ino = node_of(name);
        record.off = index + 1;
        record.namelen = static_cast<uint32_t>(name.size());
        record.type = DT_LNK;
        const size_t size = FUSE_DIRENT_ALIGN(FUSE_NAME_OFFSET + name.size());
        if (records.size() + size > input.size)
            break;
        records.append(reinterpret_cast<const char *>(&record), FUSE_NAME_OFFSET).append(name);
        records.resize(FUSE_DIRENT_ALIGN(records.size()));
    }
    reply(request, 0, records.data(), records.size());
}

void ProcServer::close_listing(const Request &request)
{
    const auto input = request.body_as<fuse_release_in>();
    if (input.fh < listings_.size())
        listings_[static_cast<size_t>(input.fh)].names.clear();
    reply(request, 0, nullptr, 0);
}

} // namespace qzbox
