// SPDX-License-Identifier: MIT
// env: the bootloader's variables. Several are changed in one write, under the lock that is taken before
// the block is read; nothing is written where nothing changes, or over a block that is spoilt.
#include "flash.h"
#include "print.h"
#include "replace.h"

#include <cerrno>
#include <climits>
#include <cstring>
#include <fcntl.h>
#include <sys/stat.h>
#include <utility>

namespace qzctl
{
namespace
{

// Large, and one of each is enough.
Block block;  // what the flash holds
Block wanted; // what it shall hold
Block kept;   // a backup

size_t count_variables(const Block &of)
{
    size_t count = 0;
    for (Entry entry(of); entry; entry.next())
        ++count;
    return count;
}

// A file that holds a block in order, and nothing else. @return DONE, or NO after saying why, unless quiet
int read_backup(const char *path, bool quiet)
{
    const Fd file(open(path, O_RDONLY | O_CLOEXEC));
    Content content;
    if (!file || !read_all(file.get(), content))
        return quiet ? static_cast<int>(NO) : say_errno(path);
    if (content.size != Block::SIZE)
        return quiet ? static_cast<int>(NO)
                     : say(NO, "%s: %zu bytes, and not the %zu of an environment", path, content.size,
                           Block::SIZE);
    memcpy(&kept, content.memory.get(), Block::SIZE);
    if (kept.is_spoilt())
        return quiet ? static_cast<int>(NO) : say(NO, "%s: its sum is wrong", path);
    return DONE;
}

const char *backup_of(const Arguments &arguments)
{
    return arguments.has(BACKUP) ? check_length("--backup", arguments.options[BACKUP], PATH_MAX - 1)
                                 : nullptr;
}

void check_image(const Arguments &arguments)
{
    if (arguments.has(IMAGE))
        (void)check_length("--image", arguments.options[IMAGE], PATH_MAX - 1);
    struct stat image;
    struct stat backup;
    if (backup_of(arguments) != nullptr && arguments.has(IMAGE) &&
        stat(arguments.options[IMAGE], &image) == 0 && stat(backup_of(arguments), &backup) == 0 &&
        image.st_ino == backup.st_ino && image.st_dev == backup.st_dev)
        refuse("--backup %s: it is the image", backup_of(arguments));
}

// Says that the block is spoilt, and which backup helps.
int say_spoilt(const Arguments &arguments, const Flash &flash)
{
    const char *backup = backup_of(arguments);
    if (backup != nullptr && read_backup(backup, true) == DONE)
        return say(
            NO,
            "%s: the environment is spoilt: its sum is %08x and not %08x; qzctl env restore %s brings back "
            "%zu variables",
            flash.path(), block.sum, block.right_sum(), backup, count_variables(kept));
    return say(NO,
               "%s: the environment is spoilt: its sum is %08x and not %08x; qzctl env restore FILE writes a "
               "backup, --force begins anew",
               flash.path(), block.sum, block.right_sum());
}

// The block of the flash, as a list of variables. @return DONE, or what was said
int load(const Arguments &arguments, Flash &flash, bool writes)
{
    check_image(arguments);
    if (const int status = flash.open(arguments, writes); status != DONE)
        return status;
    if (const int status = flash.read(block); status != DONE)
        return status;
    if (block.is_spoilt()) {
        if (!arguments.has(FORCE))
            return say_spoilt(arguments, flash);
        memset(block.data, 0, sizeof block.data);
    }
    return DONE;
}

// Nothing that is spoilt takes the place of a backup. @return DONE, or NO after saying why
int keep_backup(const char *path, const Block &old)
{
    if (path == nullptr || old.is_spoilt())
        return DONE;
    Replacement file;
    if (const int status = file.open(path); status != DONE)
        return status;
    return file.write(old.bytes());
}

// Brings what is wanted onto the flash. @return DONE, or NO after saying why
int store(const Arguments &arguments, const Flash &flash)
{
    if (const int status = flash.read(block); status != DONE || block.bytes() == wanted.bytes())
        return status;
    if (const int status = keep_backup(backup_of(arguments), block); status != DONE)
        return status;
    return flash.write(wanted);
}

// Takes all entries of a name out. @return how many
unsigned remove(std::string_view name)
{
    const size_t used = wanted.used();
    size_t end = 0;
    unsigned removed = 0;
    for (size_t place = 0; place < used;) {
        const char *text = wanted.data + place;
        const size_t length = strlen(text) + 1;
        const bool is_it = std::string_view(text, strcspn(text, "=")) == name;
        removed += is_it ? 1 : 0;
        if (!is_it) {
            memmove(wanted.data + end, text, length);
            end += length;
        }
        place += length;
    }
    memset(wanted.data + end, 0, sizeof wanted.data - end);
    return removed;
}

bool has_once(std::string_view name, const char *value)
{
    unsigned count = 0;
    bool is_same = false;
    for (Entry entry(wanted); entry; entry.next())
        if (entry.name() == name) {
            ++count;
            is_same = strcmp(entry.value(), value) == 0;
        }
    return count == 1 && is_same;
}

std::string_view check_name(const char *word)
{
    const std::string_view name(word, strcspn(word, "="));
    if (name.empty())
        refuse("%.40s: the name is empty", word);
    if (strlen(word) >= Block::DATA_SIZE)
        refuse("%.40s...: longer than the environment", word);
    return name;
}

// Loads the block for a change of its list.
int load_list(const Arguments &arguments, Flash &flash)
{
    if (const int status = load(arguments, flash, true); status != DONE)
        return status;
    if (!block.has_end())
        return say(NO, "%s: the list of variables has no end; qzctl env clear mends that", flash.path());
    wanted = block;
    return DONE;
}

} // namespace

int env_list(const Arguments &arguments)
{
    Flash flash;
    if (const int status = load(arguments, flash, false); status != DONE)
        return status;
    const Json list = new_list();
    for (Entry entry(block); entry; entry.next()) {
        if (!arguments.has(JSON)) {
            print_text(entry.text());
            (void)putchar('\n');
            continue;
        }
        Json record = new_record();
        put_bytes(record, "name", entry.name());
        put(record, "value", entry.value());
        append(list, std::move(record));
    }
    return arguments.has(JSON) ? print_list(arguments, list) : static_cast<int>(DONE);
}

int env_get(const Arguments &arguments)
{
    const char *name = arguments.word(0);
    if (check_name(name).size() != strlen(name))
        refuse("%.40s: a name holds no =", name);
    Flash flash;
    if (const int status = load(arguments, flash, false); status != DONE)
        return status;
    for (Entry entry(block); entry; entry.next())
        if (entry.name() == name) {
            (void)puts(entry.value());
            return DONE;
        }
    return say(NO, "%s: no variable %s", flash.path(), name);
}

int env_set(const Arguments &arguments)
{
    for (int i = 0; i < arguments.count; ++i)
        if (check_name(arguments.words[i]).size() == strlen(arguments.words[i]))
            refuse("%.40s: without a value: NAME=VALUE", arguments.words[i]);
    Flash flash;
    if (const int status = load_list(arguments, flash); status != DONE)
        return status;
    for (int i = 0; i < arguments.count; ++i) {
        const char *word = arguments.words[i];
        const std::string_view name = check_name(word);
        if (has_once(name, word + name.size() + 1))
            continue;
        (void)remove(name);
        const size_t used = wanted.used();
        if (used + strlen(word) + 2 > sizeof wanted.data)
            return say(NO, "%s: no room for %.40s", flash.path(), word);
        memcpy(wanted.data + used, word, strlen(word));
    }
    wanted.seal();
    return store(arguments, flash);
}

int env_unset(const Arguments &arguments)
{
    for (int i = 0; i < arguments.count; ++i)
        if (check_name(arguments.words[i]).size() != strlen(arguments.words[i]))
            refuse("%.40s: a name holds no =", arguments.words[i]);
    Flash flash;
    if (const int status = load_list(arguments, flash); status != DONE)
        return status;
    for (int i = 0; i < arguments.count; ++i)
        if (remove(arguments.words[i]) == 0)
            return say(NO, "%s: no variable %s", flash.path(), arguments.words[i]);
    wanted.seal();
    return store(arguments, flash);
}

int env_clear(const Arguments &arguments)
{
    Flash flash;
    if (const int status = load(arguments, flash, true); status != DONE)
        return status;
    memset(&wanted, 0, sizeof wanted);
    return store(arguments, flash);
}

int env_verify(const Arguments &arguments)
{
    check_image(arguments);
    Flash flash;
    if (const int status = flash.open(arguments, false); status != DONE)
        return status;
    if (const int status = flash.read(block); status != DONE)
        return status;
    const bool is_spoilt = block.is_spoilt();
    if (is_spoilt && !arguments.has(JSON))
        return say_spoilt(arguments, flash);
    const Json record = new_record();
    put(record, "device", flash.path());
    put(record, "state",
        is_spoilt            ? "spoilt"
        : block.is_cleared() ? "cleared"
        : block.has_end()    ? "in order"
                             : "without end");
    put_number(record, "variables", is_spoilt ? 0 : static_cast<double>(count_variables(block)));
    put_number(record, "used", is_spoilt ? 0 : static_cast<double>(block.used()));
    put_number(record, "size", Block::DATA_SIZE);
    (void)print_record(arguments, record);
    return is_spoilt ? say_spoilt(arguments, flash) : block.has_end() ? DONE : NO;
}

int env_backup(const Arguments &arguments)
{
    const char *path = check_length("the file", arguments.word(0), PATH_MAX - 1);
    Flash flash;
    check_image(arguments);
    if (const int status = flash.open(arguments, false); status != DONE)
        return status;
    if (const int status = flash.read(block); status != DONE)
        return status;
    if (block.is_spoilt() && !arguments.has(FORCE))
        return say_spoilt(arguments, flash);
    Replacement file;
    if (const int status = file.open(path); status != DONE)
        return status;
    return file.write(block.bytes());
}

int env_restore(const Arguments &arguments)
{
    const char *path = check_length("the file", arguments.word(0), PATH_MAX - 1);
    check_image(arguments);
    if (const int status = read_backup(path, false); status != DONE)
        return status;
    Flash flash;
    if (const int status = flash.open(arguments, true); status != DONE)
        return status;
    wanted = kept;
    return store(arguments, flash);
}

} // namespace qzctl
