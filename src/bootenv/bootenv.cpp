// SPDX-License-Identifier: MIT
// The bootloader's environment block, the last 128 KiB of the partition "aboot": found
// through sysfs, read and written whole through the partition's block device.
#include "base/export.h"
#include "base/owners.h"
#include "base/text.h"

#include <array>
#include <cstddef>
#include <linux/fs.h>
#include <qzlib.h>
#include <sys/file.h>
#include <sys/ioctl.h>

namespace
{

using qz::base::UniqueFd;

constexpr size_t ENVIRONMENT_SIZE = 0x20000;
constexpr size_t DATA_SIZE = ENVIRONMENT_SIZE - 4;
constexpr size_t NOWHERE = ~size_t{0};
constexpr int PARTITIONS = 32;
constexpr char PARTITION_NAME_START[] = "aboot"; // "abootbak" is taken too, deliberately
constexpr size_t ATTRIBUTE_SIZE = 32;

// On flash and in memory. The checksum is in the processor's byte order. An entry is
// name=value and a NUL; an empty entry ends the list, and zeros fill what is left.
struct Block {
    uint32_t checksum; // of data
    char data[DATA_SIZE];
};
static_assert(offsetof(Block, data) == 4 && sizeof(Block) == ENVIRONMENT_SIZE);

#ifdef __mips__
static_assert(BLKFLSBUF == 0x20001261);
#endif

// Unlocked: the environment calls of one process must not run on two threads at once. All
// zero at start, so the block takes no memory in a process that never loads it.
struct Environment {
    int fd;        // the open, locked device; 0: none
    char path[32]; // of the device; empty until found
    int offset;    // of the block on the device
    Block block;
};
Environment environment;

template <typename Call>
auto restart_if_interrupted(Call call)
{
    auto result = call();
    while (result == -1 && errno == EINTR)
        result = call();
    return result;
}

// Descriptor 0 counts as a failure here, deliberately: 0 stands for "not open".
UniqueFd open_device(const char *path, int flags)
{
    UniqueFd fd(open(path, flags | O_CLOEXEC));
    if (fd.get() == 0)
        fd.reset();
    return fd;
}

using Attribute = std::array<char, ATTRIBUTE_SIZE + 1>;

bool read_partition_attribute(int number, const char *name, Attribute &text)
{
    char path[64];
    snprintf(path, sizeof path, "/sys/class/mtd/mtd%d/%s", number, name);
    const UniqueFd file = open_device(path, O_RDONLY);
    if (!file)
        return false;
    text = {};
    (void)!read(file.get(), text.data(), ATTRIBUTE_SIZE); // unreadable: empty, no name and no size
    return true;
}

bool take_partition(int number)
{
    Attribute text;
    if (!read_partition_attribute(number, "size", text))
        return false;
    const int size = qz::base::read_number(text.data());
    if (size < static_cast<int>(ENVIRONMENT_SIZE))
        return false;
    environment.offset = size - static_cast<int>(ENVIRONMENT_SIZE);
    snprintf(environment.path, sizeof environment.path, "/dev/mtdblock%d", number);
    return true;
}

// The first partition of that name decides, even when it is too small.
bool find_block()
{
    Attribute name;
    for (int number = 0; number < PARTITIONS; ++number) {
        if (!read_partition_attribute(number, "name", name))
            return false;
        if (qz::base::skip_prefix(name.data(), PARTITION_NAME_START) != nullptr)
            return take_partition(number);
    }
    return false;
}

uint32_t data_checksum(const Block &block)
{
    return crc32(0, reinterpret_cast<const unsigned char *>(block.data), DATA_SIZE);
}

// A short read leaves zeros. Corrupt or blank flash is an empty environment; a read that
// fails is not, lest the next change writes an empty environment over a good one.
bool read_block(int fd)
{
    Block &block = environment.block;
    memset(&block, 0, sizeof block);
    const ssize_t got = restart_if_interrupted(
        [fd] { return pread(fd, &environment.block, ENVIRONMENT_SIZE, environment.offset); });
    if (got < 0) {
        printf("read %s fail\n", environment.path);
        return false;
    }
    if (data_checksum(block) != block.checksum)
        memset(block.data, 0, sizeof block.data);
    return true;
}

// The lock comes after the read, by design: a change that another process makes in between
// is lost, see docs/bootenv.md.
int boot_env_load()
{
    if (environment.fd > 0)
        return 0; // left open by a listing of an empty environment
    if (environment.path[0] == '\0' && !find_block()) {
        puts("can't get boot env device and offset");
        return -1;
    }
    UniqueFd device(qz::base::move_up(open_device(environment.path, O_RDWR | O_SYNC).release()));
    if (!device) {
        printf("open %s fail\n", environment.path);
        return -1;
    }
    if (!read_block(device.get()))
        return -1;
    (void)restart_if_interrupted([fd = device.get()] { return flock(fd, LOCK_EX); });
    environment.fd = device.release();
    return 0;
}

void boot_env_release()
{
    const UniqueFd device(environment.fd > 0 ? environment.fd : -1);
    environment.fd = 0;
    if (device)
        (void)flock(device.get(), LOCK_UN);
}

// BLKFLSBUF also drops what the kernel cached of a write that failed, so that the next load
// sees the flash.
int boot_env_write()
{
    const ssize_t written = restart_if_interrupted(
        [] { return pwrite(environment.fd, &environment.block, ENVIRONMENT_SIZE, environment.offset); });
    (void)ioctl(environment.fd, BLKFLSBUF, 0);
    if (written == static_cast<ssize_t>(ENVIRONMENT_SIZE))
        return 0;
    printf("write %s fail\n", environment.path);
    return -1;
}

// Size of the entry at a place of the data, its NUL included: 1 at the end of the list, 0
// where no entry ends inside the data any more.
size_t entry_size(size_t at)
{
    if (at >= DATA_SIZE)
        return 0;
    const size_t room = DATA_SIZE - at;
    const size_t length = strnlen(environment.block.data + at, room);
    return length < room ? length + 1 : 0;
}

// The value when the entry is that of the name. A name that holds '=' itself matches an
// entry that agrees with it up to there; callers hand over whole "name=value" texts.
const char *value_if_named(const char *entry, const char *name)
{
    for (; *entry == *name && *entry != '\0'; ++entry, ++name)
        if (*entry == '=')
            return entry + 1;
    return *name == '\0' && *entry == '=' ? entry + 1 : nullptr;
}

// The place of the first entry of that name, or else of the list's end; nowhere when the list has no
// end inside the data.
size_t find_entry(const char *name)
{
    size_t at = 0;
    size_t size = entry_size(at);
    for (; size > 1; size = entry_size(at)) {
        if (value_if_named(environment.block.data + at, name) != nullptr)
            return at;
        at += size;
    }
    return size == 1 ? at : NOWHERE;
}

// The end of the list. A last entry whose NUL is the data's last byte ends it too: an
// append accepts such an entry.
size_t find_end(size_t at)
{
    size_t size = entry_size(at);
    for (; size > 1; size = entry_size(at))
        at += size;
    return size == 1 || at == DATA_SIZE ? at : NOWHERE;
}

// Both return the new end of the list; nowhere when the list is corrupt or there is no room.
size_t remove_entry(const char *name)
{
    const size_t at = find_entry(name);
    if (at == NOWHERE)
        return NOWHERE;
    char *entry = environment.block.data + at;
    if (*entry == '\0')
        return at;
    const size_t size = entry_size(at);
    const size_t end = find_end(at + size);
    if (end == NOWHERE)
        return NOWHERE;
    memmove(entry, entry + size, end - at - size);
    return end - size;
}

size_t append_entry(size_t at, const char *name, const char *value)
{
    const size_t name_length = strlen(name);
    const size_t value_length = strlen(value);
    if (name_length + value_length + 2 > DATA_SIZE - at)
        return NOWHERE;
    char *entry = environment.block.data + at;
    memcpy(entry, name, name_length);
    entry[name_length] = '=';
    memcpy(entry + name_length + 1, value, value_length);
    entry[name_length + 1 + value_length] = '\0';
    return at + name_length + value_length + 2;
}

// Changes the block in memory and seals it. A deleted value does not stay on flash.
bool change_entry(const char *name, const char *value)
{
    Block &block = environment.block;
    size_t end = block.data[0] != '\0' ? remove_entry(name) : size_t{0};
    if (end != NOWHERE && value != nullptr)
        end = append_entry(end, name, value);
    if (end == NOWHERE)
        return false;
    memset(block.data + end, 0, DATA_SIZE - end);
    block.checksum = data_checksum(block);
    return true;
}

using PrintCallback = void (*)(void *ctx, const char *entry);

void hand_over(PrintCallback callback, void *ctx, const char *entry)
{
    if (callback != nullptr)
        callback(ctx, entry);
    else
        puts(entry);
}

void print_entries(const char *name, PrintCallback callback, void *ctx)
{
    size_t at = 0;
    for (size_t size = entry_size(at); size > 1; size = entry_size(at)) {
        const char *entry = environment.block.data + at;
        at += size;
        if (name != nullptr && value_if_named(entry, name) == nullptr)
            continue;
        hand_over(callback, ctx, entry);
        if (name != nullptr)
            return;
    }
}

} // namespace

QZ_EXPORT int qzlib_print_boot_env(const char *name, void (*callback)(void *ctx, const char *entry),
                                   void *ctx)
{
    if (boot_env_load() != 0)
        return -1;
    if (name == nullptr && environment.block.data[0] == '\0')
        return 0; // without release, deliberately: the device stays open and locked
    print_entries(name, callback, ctx);
    boot_env_release();
    return 0;
}

QZ_EXPORT int qzlib_get_boot_env(const char *name, char *value, size_t len)
{
    if (name == nullptr || value == nullptr)
        return -1;
    const int loaded = boot_env_load();
    if (loaded != 0)
        return loaded;
    const size_t at = find_entry(name);
    const char *text = at != NOWHERE ? value_if_named(environment.block.data + at, name) : nullptr;
    if (text != nullptr)
        qz::base::fill_field({value, len}, text);
    boot_env_release();
    return text != nullptr ? 0 : -1;
}

QZ_EXPORT int qzlib_set_boot_env(const char *name, const char *value)
{
    if (name == nullptr)
        return -1;
    const int loaded = boot_env_load();
    if (loaded != 0)
        return loaded;
    const int result = change_entry(name, value) ? boot_env_write() : -1;
    boot_env_release();
    return result;
}

QZ_EXPORT int qzlib_clear_boot_env(void)
{
    const int loaded = boot_env_load();
    if (loaded != 0)
        return loaded;
    // The checksum is zeroed with the rest; no load accepts it, which is the same as empty.
    memset(&environment.block, 0, sizeof environment.block);
    const int result = boot_env_write();
    boot_env_release();
    return result;
}
