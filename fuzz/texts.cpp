// What reads the other files, commands' output, the serial line and texts: content of any kind, buffers that
// are exactly as large as promised.
#include "input.h"

#include <memory>
#include <qzlib.h>
#include <sys/socket.h>
#include <sys/stat.h>

namespace
{

using namespace fuzz;

// An allocation of its own, which the sanitizer watches the edges of.
struct Buffer {
    explicit Buffer(size_t bytes) : size(bytes), at(new char[bytes]()) {}
    explicit Buffer(const std::string &text) : Buffer(text.size() + 1) { text.copy(at.get(), text.size()); }
    // NOLINTNEXTLINE(google-explicit-constructor)
    operator char *() const { return at.get(); }
    void require_text() const { require(strnlen(at.get(), size) < size); }

    size_t size;
    std::unique_ptr<char[]> at;
};

void change_texts(const std::string &text)
{
    for (char *(*change)(char *) : {qzlib_str_trim, qzlib_path_notdir})
        require(strlen(change(Buffer(text))) <= text.size());
    for (void (*change)(char *) :
         {qzlib_str_toupper, qzlib_str_tolowr, qzlib_str_del_end_crlf, qzlib_str_del_crlf})
        change(Buffer(text));
    const Buffer ip(16);
    const Buffer mask(16);
    const Buffer net(16);
    (void)qzlib_get_ip_mask(text.c_str(), ip, Buffer(3));
    require(qz_ccid2obsolete(text.c_str(), ip, mask, net) == 0);
    for (const Buffer *out : {&ip, &mask, &net})
        out->require_text();
    require(qz_obsolete2ccid(Buffer(text.size() + 5), text.c_str(), text.c_str()) == 0);
    (void)srt_ipinnet_judge(text.c_str(), mask, text.c_str());
    for (unsigned (*check)(const char *) :
         {qzlib_ip_is_valid, qzlib_ip_mask_is_valid, qzlib_mac_is_valid, qzlib_str_is_digit})
        require(check(text.c_str()) <= 1);
}

void read_files(const std::string &content, const std::string &key)
{
    write_file("/tmp/modem.info", content);
    require(qzlib_update_modem_status_info_tab() <= 0);
    if (const char *value = qzlib_get_modem_status_info(key.c_str()); value != nullptr)
        require(strlen(value) < 128 * 200);
    write_file("/tmp/device.info", content);
    const Buffer value(256);
    if (qzlib_get_device_system_info(key.c_str(), value) == 0)
        value.require_text();
    mkdir("/mnt/update", 0755);
    write_file("/mnt/update/fuzz", "\177ELF" + content);
    (void)qzlib_get_patch_version("fuzz", Buffer(9), 9);
    require(qzlib_file_is_qzapp("/mnt/update/fuzz") <= 1);
    mkdir("/tmp/source_route", 0755);
    write_file("/tmp/source_route/fuzz.ip", content);
    const Buffer ip(16);
    if (srt_iip_get("fuzz", ip) == 0)
        ip.require_text();
    write_file("/tmp/config/cli.conf", content);
    openmsg_com("/tmp/fuzz.log", 4096, key.c_str(), 0);
    debug_msg(QZLIB_LOG_FATAL, key.c_str(), 1, "%s", content.c_str());
}

// The commands' place is taken by one that prints a file.
void read_routes(const std::string &content)
{
    static const int once = mkdir("/tmp/fakes", 0755) + setenv("PATH", "/tmp/fakes:/usr/bin:/bin", 1);
    (void)once;
    for (const char *command : {"/tmp/fakes/ip", "/tmp/fakes/route"}) {
        write_file(command, "#!/bin/sh\nexec cat /tmp/output\n");
        chmod(command, 0755);
    }
    write_file("/tmp/output", content);
    srtinfo *routes = qz_srtinfo_stat();
    for (const srtinfo *route = routes; route != nullptr; route = route->next)
        require(strnlen(route->dev, sizeof route->dev) < sizeof route->dev && route->prio >= 0);
    qz_srtinfo_free(&routes);
    (void)qzlib_get_route_interface("10.0.0.1", Buffer(32));
}

void read_line(const std::string &content, const std::string &expected, unsigned size)
{
    for (int call = 0; call < 3; ++call) {
        int ends[2];
        require(socketpair(AF_UNIX, SOCK_STREAM, 0, ends) == 0);
        (void)!write(ends[1], content.data(), content.size());
        (void)shutdown(ends[1], SHUT_WR);
        const Buffer buffer(size + 1);
        const int most = static_cast<int>(size);
        const int result = call == 0   ? chat_read(ends[0], buffer, most, 1, 1)
                           : call == 1 ? chat_expect(ends[0], expected.c_str(), 1, 1)
                                       : qzlib_fd_read_package(ends[0], buffer, most + 1, 1);
        require(result >= -1 && result <= static_cast<int>(size) + 1);
        close(ends[0]);
        close(ends[1]);
    }
}

} // namespace

void take(Input in)
{
    const unsigned kind = in.number();
    const unsigned size = in.number();
    const std::string key = in.text();
    const std::string content = in.bytes(8192);
    mkdir("/tmp/config", 0755);
    change_texts(content.c_str());
    if (kind == 0) // which starts commands, and so is slow
        read_routes(content);
    else if (kind % 2 == 0)
        read_files(content, key);
    else
        read_line(content, key, size);
}
