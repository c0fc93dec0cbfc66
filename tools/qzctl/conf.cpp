// SPDX-License-Identifier: MIT
// conf: the parameters of a service. They are read and changed by the library's store; the file is
// replaced as a whole, and its comments stay.
#include "print.h"
#include "replace.h"
#include "text.h"

#include <cerrno>
#include <cstring>
#include <fcntl.h>
#include <sys/mman.h>
#include <sys/stat.h>
#include <utility>

namespace qzctl
{
namespace
{

constexpr size_t SERVICE_MAX = 200;
constexpr const char *FOLDER = "/tmp/config";
constexpr const char *BLANKS = " \t\r\n";

const char *file_of(const Arguments &arguments)
{
    static char path[sizeof "/tmp/config/.conf" + SERVICE_MAX];
    if (arguments.has(PATH))
        return check_length("--file", arguments.options[PATH], PATH_MAX - 1);
    check_file_name("the service", arguments.service, SERVICE_MAX);
    (void)snprintf(path, sizeof path, "%s/%s.conf", FOLDER, arguments.service);
    return path;
}

// What the file would give back otherwise than it was set is refused.
void check_text(const char *what, const char *text)
{
    if (strlen(text) > SERVICE_STR_MAX)
        refuse("%s %.40s...: more than %d characters", what, text, SERVICE_STR_MAX);
    if (strchr(text, '\n') != nullptr)
        refuse("%s has more than one line", what);
    if (*text != '\0' &&
        (strchr(BLANKS, *text) != nullptr || strchr(BLANKS, text[strlen(text) - 1]) != nullptr))
        refuse("%s \"%s\" begins or ends with a blank, which the file does not keep", what, text);
}

const char *check_name(const char *what, const char *name)
{
    check_text(what, name);
    if (*name == '\0')
        refuse("%s is empty", what);
    if (*name == '#')
        refuse("%s %s: in the file this would be a comment", what, name);
    if (strchr(name, '=') != nullptr)
        refuse("%s %s: it holds a =", what, name);
    return name;
}

const char *check_group(const char *group)
{
    check_name("the group", group);
    if (strcmp(group, "shutdown") == 0)
        refuse("the group shutdown: that is a parameter's name");
    return group;
}

// The store reads files below /tmp/config alone, by name. Another one gets such a name for the moment.
class Link
{
public:
    explicit Link(const char *path)
    {
        made_folder_ = mkdir(FOLDER, 0755) == 0;
        char real[PATH_MAX];
        if (mkdtemp(folder_) == nullptr || realpath(path, real) == nullptr)
            return;
        (void)snprintf(link_, sizeof link_, "%s/file.conf", folder_);
        (void)snprintf(service_, sizeof service_, "%s/file", folder_ + strlen(FOLDER) + 1);
        is_made_ = symlink(real, link_) == 0;
    }
    Link(const Link &) = delete;
    Link &operator=(const Link &) = delete;
    ~Link()
    {
        (void)unlink(link_);
        (void)rmdir(folder_);
        if (made_folder_)
            (void)rmdir(FOLDER);
    }

    [[nodiscard]] bool is_made() const { return is_made_; }
    // Its name for the store.
    [[nodiscard]] const char *service() const { return service_; }

private:
    char folder_[40] = "/tmp/config/../qzctl.XXXXXX";
    char link_[64] = "";
    char service_[64] = "";
    bool made_folder_ = false;
    bool is_made_ = false;
};

// @return DONE, or NO after saying why
int load(const Arguments &arguments, const char *path, Store &store)
{
    if (arguments.has(PATH) && access(path, F_OK) == 0) {
        const Link link(path);
        if (!link.is_made())
            return say(NO, "%s: no link to it can be made in /tmp: %s", path, strerror(errno));
        store.reset(qzlib_service_info_init(link.service()));
    } else {
        char missing[SERVICE_MAX + 2] = ""; // a name so long that there is no such file
        memset(missing, '-', SERVICE_MAX + 1);
        store.reset(qzlib_service_info_init(arguments.has(PATH) ? missing : arguments.service));
    }
    if (!store)
        out_of_memory();
    return DONE;
}

int load_for_reading(const Arguments &arguments, Store &store)
{
    const char *path = file_of(arguments);
    const Fd file(open(path, O_RDONLY | O_NONBLOCK | O_CLOEXEC));
    struct stat status;
    if (!file || fstat(file.get(), &status) != 0)
        return say_errno(path);
    return S_ISREG(status.st_mode) ? load(arguments, path, store) : say(NO, "%s: not a file", path);
}

// ---- Reading

using Entries = Owned<service_param_list, free>;

Entries list_entries(const service_info *store)
{
    Entries list(static_cast<service_param_list *>(calloc(1, sizeof(service_param_list))));
    if (!list)
        out_of_memory();
    (void)qzlib_service_get_all_param(store, list.get());
    return list;
}

// The value of a parameter. @return false: it is not there
bool get(const service_info *store, const char *group, const char *name, char (&value)[SERVICE_STR_MAX + 1])
{
    memset(value, 0, sizeof value);
    return qzlib_service_get_param(store, group, name, value) == 0;
}

} // namespace

int conf_list(const Arguments &arguments)
{
    const char *wanted = arguments.word(0) == nullptr ? nullptr : check_group(arguments.word(0));
    Store store;
    if (const int status = load_for_reading(arguments, store); status != DONE)
        return status;
    const Entries entries = list_entries(store.get());
    const Json list = new_list();
    const char *group = nullptr;
    bool is_there = wanted == nullptr;
    for (uint32_t i = 0; i < entries.get()->count; ++i) {
        const int type = entries.get()->type[i];
        group = type == SERVICE_NODE_GROUP ? entries.get()->name[i]
                : type == SERVICE_NODE_TOP ? nullptr
                                           : group;
        const bool is_wanted = wanted == nullptr || (group != nullptr && strcmp(group, wanted) == 0);
        is_there = is_there || is_wanted;
        if (type == SERVICE_NODE_GROUP || !is_wanted)
            continue;
        Json record = new_record();
        put(record, "group", group);
        put(record, "name", entries.get()->name[i]);
        put(record, "value", entries.get()->value[i]);
        append(list, std::move(record));
    }
    if (!is_there)
        return say(NO, "%s: no group %s", file_of(arguments), wanted);
    if (qzlib_service_get_param_num(store.get()) > SERVICE_MAX_ENTRIES)
        (void)say(NO, "%s: only the first %d entries are listed", file_of(arguments), SERVICE_MAX_ENTRIES);
    return print_list(arguments, list);
}

int conf_get(const Arguments &arguments)
{
    const char *group = arguments.count == 2 ? check_group(arguments.word(0)) : nullptr;
    const char *name = check_name("the name", arguments.word(arguments.count - 1));
    Store store;
    if (const int status = load_for_reading(arguments, store); status != DONE)
        return status;
    char value[SERVICE_STR_MAX + 1];
    if (!get(store.get(), group, name, value))
        return say(NO, "%s: no %s%s%s", file_of(arguments), name, group == nullptr ? "" : " in group ",
                   group == nullptr ? "" : group);
    (void)puts(value);
    return DONE;
}

// ---- Writing
namespace
{

// A line of a text and what the store makes of it. The rest of the text comes after it.
struct Line {
    std::string_view whole; // with its line feed
    std::string_view name;
    std::string_view value;
    bool is_indented = false;
    bool has_value = false;

    [[nodiscard]] bool is_entry() const { return !name.empty() && name.front() != '#'; }
    [[nodiscard]] bool has_name_of(const Line &other) const
    {
        return is_indented == other.is_indented && name == other.name;
    }
    [[nodiscard]] bool is_same(const Line &other) const
    {
        return has_name_of(other) && has_value == other.has_value && value == other.value;
    }
};

std::string_view trim(std::string_view text)
{
    while (!text.empty() && strchr(BLANKS, text.front()) != nullptr)
        text.remove_prefix(1);
    while (!text.empty() && strchr(BLANKS, text.back()) != nullptr)
        text.remove_suffix(1);
    return text;
}

Line take_line(std::string_view &text)
{
    const size_t end = text.find('\n');
    const size_t length = end == std::string_view::npos ? text.size() : end + 1;
    Line line;
    line.whole = head(text, length);
    text.remove_prefix(length);
    line.is_indented = line.whole.front() == ' ' || line.whole.front() == '\t';
    line.name = trim(line.whole);
    const size_t equals = line.name.find('=');
    if (equals != std::string_view::npos && line.is_entry()) {
        line.has_value = true;
        line.value = line.name;
        line.value.remove_prefix(equals + 1);
        line.value = trim(line.value);
        line.name = trim(head(line.name, equals));
    }
    return line;
}

// The store as the text of a file. The library does not tell whether writing went well; into memory it does.
void print_store(const service_info *store, Content &content)
{
    const Fd memory(memfd_create("qzctl", MFD_CLOEXEC));
    char path[32];
    (void)snprintf(path, sizeof path, "/proc/self/fd/%d", memory.get());
    if (!memory || qzlib_service_saveto_file(store, path) != 0 || !read_all(memory.get(), content))
        exit(say(NO, "no memory file for the parameters: %s", strerror(errno)));
}

// Whether each entry of the text is among what was read from it, in order; else the first that is not.
bool is_kept(std::string_view text, std::string_view saved, Line &lost, unsigned &number)
{
    number = 0;
    while (!text.empty()) {
        lost = take_line(text);
        ++number;
        if (!lost.is_entry())
            continue;
        if (saved.empty() || lost.whole.back() != '\n' || !take_line(saved).is_same(lost))
            return false;
    }
    return true;
}

// Puts the comments and empty lines of the old text between the lines of the new one, each before the
// entry that it stood before.
class Merge
{
public:
    Merge(std::string_view old_text, std::string_view new_text) : rest_(new_text)
    {
        out_.memory.reset(static_cast<char *>(malloc(old_text.size() + new_text.size() + 1)));
        if (!out_.memory)
            out_of_memory();
        while (!old_text.empty()) {
            const Line line = take_line(old_text);
            if (!line.is_entry()) {
                comments_ = comments_.empty()
                                ? line.whole
                                : std::string_view(comments_.data(), comments_.size() + line.whole.size());
                continue;
            }
            go_to(line);
            add(comments_);
            comments_ = {};
        }
        add(rest_);
        add(comments_);
    }
    [[nodiscard]] std::string_view text() const { return out_.view(); }

private:
    void add(std::string_view text)
    {
        if (!text.empty())
            memcpy(out_.memory.get() + out_.size, text.data(), text.size());
        out_.size += text.size();
    }

    // The new lines up to the one that has become of that entry; none where it was deleted.
    void go_to(const Line &entry)
    {
        for (std::string_view text = rest_; !text.empty();) {
            const Line line = take_line(text);
            if (!line.has_name_of(entry))
                continue;
            add(head(rest_, static_cast<size_t>(line.whole.data() - rest_.data())));
            add(comments_);
            comments_ = {};
            add(line.whole);
            rest_ = text;
            return;
        }
    }

    Content out_;
    std::string_view rest_;     // of the new text
    std::string_view comments_; // that wait for their entry
};

bool is_binary(std::string_view text)
{
    return text.find('\0') != std::string_view::npos;
}

// Reads the file under its lock, changes it and replaces it, unless nothing changes.
template <typename Change>
int change_file(const Arguments &arguments, Change change)
{
    Replacement file;
    if (const int status = file.open(file_of(arguments)); status != DONE)
        return status;
    Content old_text;
    if (const int status = file.read(old_text); status != DONE)
        return status;
    if (is_binary(old_text.view()))
        return say(NO, "%s: not a file of parameters", file.path());
    Store store;
    if (const int status = load(arguments, file.path(), store); status != DONE)
        return status;
    Content unchanged;
    print_store(store.get(), unchanged);
    Line lost;
    unsigned number = 0;
    if (!arguments.has(FORCE) && !is_kept(old_text.view(), unchanged.view(), lost, number))
        return say(NO, "%s: line %u (%.*s) would be lost in saving; mend it, or use --force", file.path(),
                   number, static_cast<int>(lost.name.size()), lost.name.data());
    if (const int status = change(store.get(), file.path()); status != DONE)
        return status;
    Content changed;
    print_store(store.get(), changed);
    if (changed.view() == unchanged.view())
        return DONE;
    const Merge merged(old_text.view(), changed.view());
    return file.write(merged.text());
}

// A first word that is no parameter to be set names the group.
bool has_group(const Arguments &arguments)
{
    return arguments.count > 1 && strchr(arguments.words[0], '=') == nullptr &&
           strcmp(arguments.words[0], "shutdown") != 0;
}

struct Setting {
    char name[SERVICE_STR_MAX + 1];
    const char *value; // null: none
};

Setting check_setting(const char *group, const char *word)
{
    Setting setting{};
    const size_t length = strcspn(word, "=");
    if (length > SERVICE_STR_MAX)
        refuse("the name %.40s...: more than %d characters", word, SERVICE_STR_MAX);
    memcpy(setting.name, word, length);
    check_name("the name", setting.name);
    setting.value = word[length] == '=' ? word + length + 1 : nullptr;
    if (setting.value != nullptr)
        check_text("the value", setting.value);
    else if (group == nullptr && strcmp(word, "shutdown") != 0)
        refuse("%s: without a value it would be a group; NAME=VALUE, or GROUP NAME", word);
    return setting;
}

// The library deletes a group of that name, too, unless it is told a value.
int unset_top(service_info *store, const char *name)
{
    char value[SERVICE_STR_MAX + 1];
    int found = -1;
    while (get(store, nullptr, name, value)) {
        if (qzlib_service_del_param(store, nullptr, name,
                                    strcmp(name, "shutdown") == 0 && *value == '\0' ? nullptr : value) != 0)
            break;
        found = 0;
    }
    return found;
}

} // namespace

int conf_set(const Arguments &arguments)
{
    const char *group = has_group(arguments) ? check_group(arguments.word(0)) : nullptr;
    const int first = group == nullptr ? 0 : 1;
    for (int i = first; i < arguments.count; ++i)
        (void)check_setting(group, arguments.words[i]);
    return change_file(arguments, [&](service_info *store, const char * /*path*/) -> int {
        for (int i = first; i < arguments.count; ++i) {
            const Setting setting = check_setting(group, arguments.words[i]);
            if (qzlib_service_set_param(store, group, setting.name, setting.value) != 0)
                out_of_memory();
        }
        return DONE;
    });
}

int conf_unset(const Arguments &arguments)
{
    const bool whole_group = arguments.has(GROUP);
    const char *group = whole_group || arguments.count > 1 ? check_group(arguments.word(0)) : nullptr;
    if (whole_group && arguments.count > 1)
        refuse("unset --group %s: the whole group goes: no names after it", group);
    for (int i = group == nullptr ? 0 : 1; i < arguments.count; ++i)
        check_name("the name", arguments.words[i]);
    return change_file(arguments, [&](service_info *store, const char *path) -> int {
        if (whole_group && qzlib_service_del_param(store, group, nullptr, nullptr) != 0)
            return say(NO, "%s: no group %s", path, group);
        for (int i = group == nullptr ? 0 : 1; i < arguments.count; ++i) {
            const char *name = arguments.words[i];
            if ((group == nullptr ? unset_top(store, name)
                                  : qzlib_service_del_param(store, group, name, nullptr)) != 0)
                return say(NO, "%s: no %s%s%s", path, name, group == nullptr ? "" : " in group ",
                           group == nullptr ? "" : group);
        }
        return DONE;
    });
}

} // namespace qzctl
