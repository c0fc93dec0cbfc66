// The service store against a model of it in a vector, with files of any content, saved and loaded again.
#include "input.h"

#include <algorithm>
#include <optional>
#include <qzlib.h>
#include <sys/stat.h>
#include <utility>
#include <vector>

namespace
{

using namespace fuzz;
using Text = std::optional<std::string>;

constexpr const char *FILE_PATH = "/tmp/config/fuzz.conf";

struct Entry {
    int32_t type;
    std::string name;
    Text value;
    bool operator==(const Entry &) const = default;
};
using Store = std::vector<Entry>;
using Places = std::vector<size_t>;

Entry entry(int32_t type, const std::string &name, const Text &value)
{
    return {type, name.substr(0, SERVICE_STR_MAX), value ? Text(value->substr(0, SERVICE_STR_MAX)) : value};
}

std::string trimmed(const std::string &text)
{
    constexpr const char *BLANKS = "\t\n\r ";
    const size_t begin = text.find_first_not_of(BLANKS);
    return begin == std::string::npos ? "" : text.substr(begin, text.find_last_not_of(BLANKS) + 1 - begin);
}

Store loaded(const std::string &file)
{
    Store store;
    int32_t last = SERVICE_NODE_TOP;
    for (size_t at = 0; at < file.size();) {
        const size_t end = std::min(file.find('\n', at), file.size() - 1) + 1;
        std::string line = file.substr(at, std::min<size_t>(end - at, 1023));
        at += line.size();
        if (at == file.size() && line.back() != '\n' && line.size() < 1023)
            break;
        line = line.c_str();
        const bool indented = line.starts_with(' ') || line.starts_with('\t');
        const std::string text = trimmed(line);
        if ((indented && last == SERVICE_NODE_TOP) || text.empty() || text[0] == '#')
            continue;
        const size_t equals = text.find('=');
        const std::string name = trimmed(text.substr(0, equals));
        const Text value = equals == std::string::npos ? Text() : trimmed(text.substr(equals + 1));
        last = indented                      ? SERVICE_NODE_PARAM
               : value || name == "shutdown" ? SERVICE_NODE_TOP
                                             : SERVICE_NODE_GROUP;
        store.push_back(entry(last, name, value));
    }
    return store;
}

std::string saved(const Store &store)
{
    std::string file;
    std::string header;
    for (const Entry &e : store) {
        if (e.type == SERVICE_NODE_GROUP)
            header = e.name + "\n";
        else if (e.type == SERVICE_NODE_PARAM)
            file += std::exchange(header, "") + " ";
        if (e.type != SERVICE_NODE_GROUP)
            file += e.name + (e.value ? "=" + *e.value : "") + "\n";
    }
    return file;
}

// A group's headers and members; outside of groups what is ungrouped.
Places places(const Store &store, const std::string &group, bool top_ends, bool grouped)
{
    Places found;
    for (size_t i = 0; i < store.size(); ++i) {
        const auto &[type, name, value] = store[i];
        const bool top = type == SERVICE_NODE_TOP;
        const bool ours = !grouped ? top : type == SERVICE_NODE_GROUP ? name == group : !found.empty();
        if (grouped && !found.empty() && (top ? top_ends : !ours))
            break;
        if (ours && (!grouped || !top))
            found.push_back(i);
    }
    return found;
}

Places named(const Store &store, const std::string &group, const std::string &name, bool top_ends = false)
{
    Places found = places(store, group, top_ends, !group.empty());
    std::erase_if(found,
                  [&](size_t i) { return store[i].type == SERVICE_NODE_GROUP || store[i].name != name; });
    return found;
}

void add(Store &store, const std::string &group, const std::string &name, const Text &value, bool repeat)
{
    const Places same = named(store, group, name);
    if (!same.empty() && !repeat) {
        store[same[0]].value = entry(0, "", value).value;
        return;
    }
    auto at = store.begin();
    const bool shutdown = name == "shutdown";
    if (group.empty()) {
        if (!shutdown)
            at = std::ranges::find(store, SERVICE_NODE_GROUP, &Entry::type);
        if (at == store.end())
            at = std::ranges::find_if(store, [](const Entry &e) { return e.name != "shutdown"; });
        store.insert(at, entry(shutdown || value ? SERVICE_NODE_TOP : SERVICE_NODE_GROUP, name, value));
        return;
    }
    if (places(store, group, false, !group.empty()).empty())
        store.push_back(entry(SERVICE_NODE_GROUP, group, {}));
    size_t place = store.size() - 1;
    if (const Places all = places(store, group, false, !group.empty()); !all.empty()) {
        place = all[0];
        for (const size_t i : all)
            place = !shutdown && store[i].type == SERVICE_NODE_PARAM ? i : place;
    }
    if (!shutdown && !same.empty())
        place = same[0];
    store.insert(store.begin() + static_cast<ptrdiff_t>(place) + 1, entry(SERVICE_NODE_PARAM, name, value));
}

bool remove(Store &store, const std::string &group, const Text &name, const Text &value)
{
    Places doomed = name ? named(store, group, *name) : places(store, group, false, !group.empty());
    if (value)
        std::erase_if(doomed, [&](size_t i) { return store[i].value != value; });
    size_t header = store.size();
    if (group.empty() && !value) // which ends at a group of that name, and takes it along
        for (header = 0; header < store.size(); ++header)
            if (store[header].type == SERVICE_NODE_GROUP && store[header].name == *name)
                break;
    std::erase_if(doomed, [&](size_t i) { return group.empty() && i > header; });
    if (header < store.size()) {
        const Places all = places(store, *name, false, true);
        doomed.insert(doomed.end(), all.begin(), all.end());
    }
    for (auto i = doomed.rbegin(); i != doomed.rend(); ++i)
        store.erase(store.begin() + static_cast<ptrdiff_t>(*i));
    return !doomed.empty();
}

void check(const service_info *info, const Store &store)
{
    static service_param_list listed;
    const size_t count = std::min<size_t>(store.size(), SERVICE_MAX_ENTRIES);
    require(qzlib_service_get_param_num(info) == static_cast<int>(store.size()));
    require(qzlib_service_get_all_param(info, &listed) == static_cast<int>(count));
    for (size_t i = 0; i < count; ++i) {
        const Text value = listed.value[i] != nullptr ? Text(listed.value[i]) : Text();
        require(store[i] == Entry{listed.type[i], listed.name[i], value});
    }
}

// One of few words, that some may meet; or what the fuzzer wants.
Text word(Input &in)
{
    static const Text WORDS[] = {{}, "a", "b", "shutdown", "g", "", std::string(300, 'x'), "#a", "a=b"};
    const auto chosen = in.number();
    return chosen < std::size(WORDS) ? WORDS[chosen] : in.text();
}

} // namespace

void take(Input in)
{
    mkdir("/tmp/config", 0755);
    const std::string file = in.bytes(in.number<uint16_t>() % 2048);
    write_file(FILE_PATH, file);
    Store store = loaded(file);
    service_info *info = qzlib_service_info_init("fuzz");
    const auto chars = [](const Text &text) { return text ? text->c_str() : nullptr; };
    for (check(info, store); !in.is_empty(); check(info, store)) {
        const unsigned action = in.number() % 5;
        const Text group_text = word(in);
        const Text name_text = word(in);
        const Text value_text = word(in);
        const std::string group = group_text.value_or("");
        const char *const g = chars(group_text);
        const char *const n = chars(name_text);
        const char *const v = chars(value_text);
        if (action < 2) {
            const auto set = action == 0 ? qzlib_service_set_param : qzlib_service_set_param_repeat;
            require(set(info, g, n, v) == (name_text ? 0 : -1));
            if (name_text)
                add(store, group, *name_text, value_text, action == 1);
        } else if (action == 2) {
            const bool sensible = name_text || (!group.empty() && !value_text);
            const bool deleted = sensible && remove(store, group, name_text, value_text);
            require(qzlib_service_del_param(info, g, n, v) == (deleted ? 0 : -1));
        } else if (action == 3) {
            char text[SERVICE_STR_MAX + 1] = {};
            const Places found = name_text ? named(store, group, *name_text, true) : Places();
            require(qzlib_service_get_param(info, g, n, text) == (found.empty() ? -1 : 0));
            require(found.empty() || store[found[0]].value.value_or("") == text);
        } else {
            require(qzlib_service_saveto_file(info, FILE_PATH) == 0);
            require(read_file(FILE_PATH, 1 << 20) == saved(store));
            qzlib_service_info_uninit(info);
            info = qzlib_service_info_init("fuzz");
            store = loaded(saved(store));
        }
    }
    qzlib_service_info_uninit(info);
}
