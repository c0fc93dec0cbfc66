#include "support/case.h"

#include <qzlib.h>

#include <optional>
#include <random>

namespace
{

using namespace support;
using namespace std::string_literals;
using Text = std::optional<std::string>;

// A loaded store. Listings are shown one entry a line, "TYPE name=value" or "TYPE name".
struct Store {
    explicit Store(service_info *loaded) : info(loaded) {}
    explicit Store(const std::string &content)
    {
        write_file("/tmp/config/s.conf", content);
        info = qzlib_service_info_init("s");
    }
    ~Store() { EXPECT_EQ(qzlib_service_info_uninit(info), 0); }
    Store(const Store &) = delete;
    Store &operator=(const Store &) = delete;

    static std::string show(int count)
    {
        if (count < 0)
            return "refused";
        EXPECT_EQ(out.count, static_cast<unsigned>(count));
        std::string text;
        for (unsigned i = 0; i < out.count; ++i)
            text += std::to_string(out.type[i]) + " " + out.name[i] +
                    (out.value[i] ? std::string("=") + out.value[i] : "") + "\n";
        return text;
    }
    std::string all() { return show(qzlib_service_get_all_param(info, &out)); }
    std::string groups() { return show(qzlib_service_get_group_name(info, &out)); }
    std::string members(const char *group) { return show(qzlib_service_get_group_param(info, group, &out)); }
    std::string saved(const char *path = "/tmp/saved")
    {
        EXPECT_EQ(qzlib_service_saveto_file(info, path), 0);
        return read_file(path);
    }
    service_info *info;
    static inline service_param_list out;
};

// What the store has to do, on a plain vector. No group: the ungrouped entries.
struct Model {
    using Indexes = std::vector<size_t>;
    static constexpr size_t NONE = SIZE_MAX;
    struct Entry {
        int type; // -1: deleted
        Text name, value;
    };
    std::vector<Entry> list;

    static Text cut(const Text &text) { return text ? Text(text->substr(0, 256)) : text; }
    static std::string line(const Entry &e) { return *e.name + (e.value ? "=" + *e.value : "") + "\n"; }
    std::string show(int types, const Indexes &indexes) const
    {
        std::string text;
        for (const size_t i : indexes)
            text +=
                (types >> list[i].type & 1) != 0 ? std::to_string(list[i].type) + " " + line(list[i]) : "";
        return text;
    }
    std::string show(int types = 7) const { return show(types, scope({}, false)); }
    std::string file() const
    {
        std::string text;
        for (size_t i = 0; i < list.size(); ++i)
            if (list[i].type != 2 || (i + 1 < list.size() && list[i + 1].type == 1)) // no empty group
                text += (list[i].type == 1 ? " " : "") + line(list[i]);
        return text;
    }
    // Indexes of a group's headers and members; without a group, of everything.
    Indexes scope(const Text &group, bool top_ends) const
    {
        Indexes found;
        for (size_t i = 0; i < list.size(); ++i) {
            const bool ours = list[i].type == 2 && list[i].name == group;
            if (!group || ours || (!found.empty() && list[i].type == 1))
                found.push_back(i);
            else if (!found.empty() && (list[i].type == 2 || top_ends))
                break;
        }
        return found;
    }
    size_t find(const Text &group, const Text &name, bool top_ends) const
    {
        for (const size_t i : scope(group, top_ends))
            if (list[i].type == group.has_value() && list[i].name == name)
                return i;
        return NONE;
    }
    size_t ungrouped_place(const Text &name) const
    {
        const auto header = std::ranges::find(list, 2, &Entry::type);
        const auto other = [](const Entry &e) { return e.name != "shutdown"; };
        const auto place = header != list.end() ? header : std::ranges::find_if(list, other);
        return name == "shutdown" ? 0 : static_cast<size_t>(place - list.begin());
    }
    size_t grouped_place(const Text &group, const Text &name, size_t match)
    {
        const Indexes whole = scope(group, false);
        if (whole.empty())
            list.push_back({2, cut(group), {}});
        size_t place = whole.empty() ? list.size() - 1 : whole.front();
        for (const size_t i : whole)
            if (list[i].type == 1 && name != "shutdown")
                place = std::min(i, match);
        return place + 1;
    }
    int set(const Text &group, const Text &name, const Text &value, bool repeat)
    {
        const size_t match = find(group, name, false);
        if (!name)
            return -1;
        if (match != NONE && !repeat) {
            list[match].value = cut(value);
            return 0;
        }
        const size_t at = group ? grouped_place(group, name, match) : ungrouped_place(name);
        const int type = group ? 1 : value || name == "shutdown" ? 0 : 2;
        list.insert(list.begin() + static_cast<long>(at), {type, cut(name), cut(value)});
        return 0;
    }
    int del(const Text &group, const Text &name, const Text &value)
    {
        if (!name && (!group || value))
            return -1;
        for (const size_t i : scope(group, false)) {
            const Entry e = list[i];
            if (!group && e.type == 2 && e.name == name && !value) {
                for (const size_t member : scope(name, false))
                    list[member].type = -1;
                break;
            }
            if (!name || (e.type == group.has_value() && e.name == name && (!value || e.value == value)))
                list[i].type = -1;
        }
        return std::erase_if(list, [](const Entry &e) { return e.type < 0; }) == 0 ? -1 : 0;
    }
};

template <typename Item, size_t COUNT>
const Item &pick(const Item (&items)[COUNT])
{
    static std::mt19937 generator{20240229};
    return items[generator() % COUNT];
}

const Text NAMES[] = {
    {}, "g", "h", "shutdown", "Shutdown", "b c", std::string(256, 'n'), std::string(257, 'n')};
const Text VALUES[] = {{}, {}, {}, "", "1", "2", "a = b", std::string(256, 'v'), std::string(300, 'w')};
constexpr const char *PADDING[] = {"", " ", "\t \t"};
constexpr const char *LINE_ENDS[] = {"\n", "\n", " \t\r\n", "\n\n", "\n# no\n", "\n\t #\r\n"};

// A file of random lines; the model is what it holds.
std::string random_file(Model &model, int lines)
{
    std::string text;
    for (model.list.clear(); lines > 0; --lines) {
        const std::string indent = pick(PADDING), name = pick(NAMES).value_or("a");
        const Text value = pick(VALUES);
        text += indent + name + pick(PADDING);
        text += (value ? "=" + (pick(PADDING) + *value) : "") + pick(LINE_ENDS);
        const int type = !indent.empty() ? 1 : value || name == "shutdown" ? 0 : 2;
        if (type != 1 || (!model.list.empty() && model.list.back().type != 0))
            model.list.push_back({type, Model::cut(name), Model::cut(value)});
    }
    return text;
}

// The store's own text where it has that one: callers pass what a listing returned.
const char *own(const Text &text, const char *without = nullptr)
{
    for (unsigned i = 0; text && i < Store::out.count; ++i)
        for (const char *const listed : {Store::out.name[i], Store::out.value[i]})
            if (listed != nullptr && *text == listed)
                return listed;
    return text ? text->c_str() : without;
}

TEST(Service, random_operations_equal_the_model)
{
    std::optional<Store> store;
    Model model;
    for (int step = 0; step < scaled(15'000); ++step) {
        if (step % 50 == 0) {
            store.emplace(random_file(model, step / 50 % 30));
            ASSERT_EQ(store->saved("/tmp/config/again.conf"), model.file());
            ASSERT_EQ(Store(qzlib_service_info_init("again")).saved(), model.file());
        }
        ASSERT_EQ(store->all(), model.show()) << step;
        const Text group = pick(NAMES), name = pick(NAMES), value = pick(VALUES);
        const char *no_group = pick({static_cast<const char *>(nullptr), ""});
        const char *const g = own(group, no_group), *const n = own(name), *const v = own(value);
        const int operation = pick({0, 1, 2});
        const auto set = operation == 0 ? qzlib_service_set_param : qzlib_service_set_param_repeat;
        if (operation < 2)
            ASSERT_EQ(set(store->info, g, n, v), model.set(group, name, value, operation == 1));
        else
            ASSERT_EQ(qzlib_service_del_param(store->info, g, n, v), model.del(group, name, value));
        ASSERT_EQ(qzlib_service_get_param_num(store->info), static_cast<int>(model.list.size()));
        ASSERT_EQ(store->groups(), model.show(4));
        ASSERT_EQ(store->members(own(group, no_group)),
                  group ? model.show(2, model.scope(group, true)) : "refused");

        const size_t found = name ? model.find(group, name, true) : Model::NONE;
        std::string buffer(260, '#');
        std::string expected = found != Model::NONE ? model.list[found].value.value_or(buffer) : buffer;
        expected.resize(256);
        expected.append(4, '#');
        const int result =
            qzlib_service_get_param(store->info, own(group, no_group), own(name), buffer.data());
        ASSERT_EQ(result, found != Model::NONE ? 0 : -1);
        ASSERT_EQ(buffer, expected);
    }
}

TEST(Service, lines_are_read_as_the_format_says)
{
    const std::string mark(1023, 'm'), cut(256, 'm');
    const Table<std::string, std::string> cases = {
        {"a=1\nb=2", "0 a=1\n"}, // the last line has no line feed
        {"g\n a=b=c\n \t k \t= v w\t\r\n =\n", "2 g\n1 a=b=c\n1 k=v w\n1 =\n"},
        {"\rg\r\n\r a\n", "2 g\n2 a\n"}, // only a blank or a tab indents
        {mark + "x=1\n", "2 " + cut + "\n0 x=1\n"},
        {mark + "\n x\n", "2 " + cut + "\n1 x\n"},
        {mark, "2 " + cut + "\n"}, // the buffer was full before the end was seen
        {"a\0=1\nb=\0002\n\0c\ng\n \0\n d\0\0\n"s, "2 a\n0 b=\n2 g\n1 d\n"}, // NUL ends a text
        {std::string(5000, '\0'), ""},
    };
    for (const auto &[content, expected] : cases)
        EXPECT_EQ(Store(content).all(), expected) << content;
}

std::string repeated(const std::string &line, int count)
{
    std::string text;
    while (count-- > 0)
        text += line;
    return text;
}

TEST(Service, listings_stop_at_1024_entries)
{
    Store store("g\n" + repeated(" k\n", 1100) + repeated("h\n", 1100));
    EXPECT_EQ(store.all(), "2 g\n" + repeated("1 k\n", 1023));
    EXPECT_EQ(store.members("g"), repeated("1 k\n", 1024));
    EXPECT_EQ(store.groups(), "2 g\n" + repeated("2 h\n", 1023));
}

TEST(Service, missing_arguments_are_refused)
{
    const Store store("g\n k\n");
    service_info *const none = nullptr;
    auto *out = &Store::out;
    const std::vector<int> refused = {qzlib_service_info_uninit(none),
                                      qzlib_service_info_empty(none),
                                      qzlib_service_saveto_file(none, "/tmp/f"),
                                      qzlib_service_saveto_file(store.info, nullptr),
                                      qzlib_service_set_param(none, "g", "k", "v"),
                                      qzlib_service_del_param(none, "g", "k", nullptr),
                                      qzlib_service_find_param(nullptr, "g", "k"),
                                      qzlib_service_get_group_param(none, "g", out),
                                      qzlib_service_get_group_param(store.info, "g", nullptr),
                                      qzlib_service_get_all_param(none, out),
                                      qzlib_service_get_all_param(store.info, nullptr)};
    EXPECT_EQ(refused, std::vector<int>(refused.size(), -1));
    EXPECT_EQ(qzlib_service_get_group_name(none, out), 0); // 0, unlike the other listings
    EXPECT_EQ(qzlib_service_get_group_name(store.info, nullptr), 0);
    EXPECT_EQ(qzlib_service_get_param_num(none), 0);
}

TEST(Service, files_of_any_kind_give_a_store_and_leave_no_descriptor)
{
    const std::string long_name(200, 'n');
    const Table<std::string, std::string, int> cases = {
        {"lines", repeated("shutdown\n", 1 << 20), 1 << 20},
        {"no-line-feed", std::string(10 << 20, 'x'), (10 << 20) / 1023}, // one a full buffer
        {"missing", "", 0},
        {"directory", "", 0},
        {"loop", "", 0}, // a link that nobody can open
        {long_name + "n", "a\n", 0},
        {long_name, "top=1\ng\n k\nx=1\ng\n hidden\n", 6},
    };
    std::filesystem::create_directories("/tmp/config/directory.conf");
    std::filesystem::create_symlink("loop.conf", "/tmp/config/loop.conf");
    const size_t descriptors = open_descriptors();
    for (const auto &[service, content, entries] : cases) {
        if (!content.empty())
            write_file("/tmp/config/" + service + ".conf", content);
        const Store store(qzlib_service_info_init(service.c_str()));
        EXPECT_EQ(qzlib_service_get_param_num(store.info), entries) << service;
    }
    EXPECT_EQ(qzlib_service_find_param(long_name.c_str(), nullptr, "top"), 0);
    EXPECT_EQ(qzlib_service_find_param(long_name.c_str(), "g", "k"), 0) << "the buffer may be missing";
    EXPECT_EQ(qzlib_service_find_param(long_name.c_str(), "g", "hidden"), -1) << "after an ungrouped one";
    const Store store("a=1\n");
    for (const char *path : {"/tmp/config/directory.conf", "/tmp/none/f", "/tmp/config/loop.conf"})
        EXPECT_EQ(qzlib_service_saveto_file(store.info, path), -1) << path;
    EXPECT_EQ(qzlib_service_saveto_file(store.info, "/dev/full"), 0) << "write errors are ignored";
    EXPECT_EQ(open_descriptors(), descriptors);
}

} // namespace
