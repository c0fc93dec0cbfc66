#include "support/files.h"
#include "support/scale.h"

#include <gtest/gtest.h>
#include <qzlib.h>

#include <algorithm>
#include <optional>
#include <random>
#include <vector>

namespace
{

using support::open_descriptors;
using support::read_file;
using support::write_file;
using namespace std::string_literals;
using Text = std::optional<std::string>;

const char *c_str(const Text &text)
{
    return text ? text->c_str() : nullptr;
}

// A loaded store. Listings are shown one entry a line, "TYPE name=value" or "TYPE name".
struct Store {
    explicit Store(service_info *loaded) : info(loaded) {}
    explicit Store(const char *content) : Store(std::string(content)) {}
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
            text += std::to_string(out.type[i]) + " " + out.name[i] + (out.value[i] ? "=" : "") +
                    (out.value[i] ? out.value[i] : "") + "\n";
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

// What the store has to do, on a plain vector.
struct Model {
    static constexpr size_t NONE = SIZE_MAX;
    struct Entry {
        int type;
        Text name, value;
    };
    std::vector<Entry> list;

    static bool outside(const Text &group) { return !group || group->empty(); }
    static Text cut(const Text &text) { return text ? Text(text->substr(0, 256)) : text; }
    std::string show(const std::vector<size_t> &indexes, int types) const
    {
        std::string text;
        for (const size_t i : indexes) {
            const Entry &e = list[i];
            if ((types >> e.type & 1) != 0)
                text += std::to_string(e.type) + " " + *e.name + (e.value ? "=" + *e.value : "") + "\n";
        }
        return text;
    }
    std::string show(int types = 7) const
    {
        std::vector<size_t> indexes(list.size());
        std::generate(indexes.begin(), indexes.end(), [i = 0U]() mutable { return i++; });
        return show(indexes, types);
    }
    // Indexes of a group's headers and members.
    std::vector<size_t> range(const Text &group, bool top_ends) const
    {
        std::vector<size_t> found;
        for (size_t i = 0; i < list.size(); ++i) {
            const bool ours = list[i].type == 2 && list[i].name == group;
            if (ours || (!found.empty() && list[i].type == 1))
                found.push_back(i);
            else if (!found.empty() && (list[i].type == 2 || top_ends))
                break;
        }
        return found;
    }
    size_t find(const Text &group, const Text &name, bool top_ends) const
    {
        for (size_t i = 0; i < list.size() && outside(group); ++i)
            if (list[i].type == 0 && list[i].name == name)
                return i;
        if (!outside(group))
            for (const size_t i : range(group, top_ends))
                if (list[i].type == 1 && list[i].name == name)
                    return i;
        return NONE;
    }
    size_t ungrouped_place(const Text &name) const
    {
        size_t front = 0;
        if (name == "shutdown")
            return front;
        for (size_t i = 0; i < list.size(); ++i)
            if (list[i].type == 2)
                return i;
        while (front < list.size() && list[front].name == "shutdown")
            ++front;
        return front;
    }
    size_t grouped_place(const Text &group, const Text &name, size_t match)
    {
        const auto whole = range(group, false);
        if (whole.empty()) {
            list.push_back({2, cut(group), {}});
            return list.size();
        }
        size_t place = whole.front();
        for (const size_t i : whole)
            if (list[i].type == 1 && name != "shutdown")
                place = match != NONE ? match : i;
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
        const size_t at = outside(group) ? ungrouped_place(name) : grouped_place(group, name, match);
        const int type = !outside(group) ? 1 : value || name == "shutdown" ? 0 : 2;
        list.insert(list.begin() + static_cast<long>(at), {type, cut(name), cut(value)});
        return 0;
    }
    int del(const Text &group, const Text &name, const Text &value)
    {
        if (!name && (outside(group) || value))
            return -1;
        std::vector<size_t> doomed;
        const auto fits = [&](const Entry &e, int type) {
            return e.type == type && (!name || e.name == name) && (!value || e.value == value);
        };
        if (!outside(group)) {
            for (const size_t i : range(group, false))
                if (fits(list[i], 1) || (!name && list[i].type == 2))
                    doomed.push_back(i);
        }
        for (size_t i = 0; i < list.size() && outside(group); ++i) {
            if (list[i].type == 2 && list[i].name == name && !value) {
                std::ranges::copy(range(name, false), std::back_inserter(doomed));
                break;
            }
            if (fits(list[i], 0))
                doomed.push_back(i);
        }
        for (size_t i = doomed.size(); i-- > 0;)
            list.erase(list.begin() + static_cast<long>(doomed[i]));
        return doomed.empty() ? -1 : 0;
    }
};

std::string trimmed(const std::string &text)
{
    const size_t start = text.find_first_not_of(" \t\r\n");
    return start == std::string::npos ? "" : text.substr(start, text.find_last_not_of(" \t\r\n") - start + 1);
}

// What a file of short lines holds.
Model parsed(const std::string &content)
{
    Model model;
    size_t start = 0;
    for (size_t end; (end = content.find('\n', start)) != std::string::npos; start = end + 1) {
        const bool indented = content[start] == ' ' || content[start] == '\t';
        const std::string line = trimmed(content.substr(start, end - start));
        const size_t equals = line.find('=');
        const std::string name = trimmed(line.substr(0, equals));
        if (line.empty() || line[0] == '#' ||
            (indented && (model.list.empty() || model.list.back().type == 0)))
            continue;
        if (equals != std::string::npos)
            model.list.push_back({indented, name, trimmed(line.substr(equals + 1))});
        else
            model.list.push_back({indented ? 1 : name == "shutdown" ? 0 : 2, name, {}});
    }
    return model;
}

size_t below(size_t limit)
{
    static std::mt19937 generator{20240229};
    return generator() % limit;
}

std::string random_file()
{
    constexpr const char *TOKENS[] = {"\n",    "\n",       "\n ", "\n\t", "\n", "g",  "h\n a=", "g\n b",
                                      "a=1\n", "shutdown", "=",   " ",    "#",  "\r", "x y"};
    std::string text;
    for (size_t tokens = below(120); tokens > 0; --tokens)
        text += TOKENS[below(std::size(TOKENS))];
    return text;
}

TEST(Service, random_operations_equal_the_model)
{
    const Text names[] = {
        {}, "", "g", "h", "shutdown", "a", "b", "A", std::string(256, 'n'), std::string(257, 'n')};
    const Text values[] = {{}, "", "1", "2", std::string(256, 'v'), std::string(300, 'w')};
    std::optional<Store> store;
    Model model;
    for (int step = 0; step < support::scaled(15'000); ++step) {
        if (step % 100 == 0) {
            const std::string file = random_file();
            store.emplace(file);
            model = parsed(file);
            ASSERT_EQ(store->all(), model.show()) << file;
        }
        const Text group = names[below(10)], name = names[below(10)], value = values[below(6)];
        const char *arguments[] = {c_str(group), c_str(name), c_str(value)};
        const auto [g, n, v] = arguments;
        const size_t operation = below(10);
        const std::string before = model.show();
        if (operation < 4)
            ASSERT_EQ(qzlib_service_set_param(store->info, g, n, v), model.set(group, name, value, false));
        else if (operation < 7)
            ASSERT_EQ(qzlib_service_set_param_repeat(store->info, g, n, v),
                      model.set(group, name, value, true));
        else
            ASSERT_EQ(qzlib_service_del_param(store->info, g, n, v), model.del(group, name, value));
        ASSERT_EQ(store->all(), model.show()) << operation << " " << g << " " << n << " on\n" << before;
        ASSERT_EQ(qzlib_service_get_param_num(store->info), static_cast<int>(model.list.size()));
        ASSERT_EQ(store->groups(), model.show(4));
        ASSERT_EQ(store->members(g),
                  Model::outside(group) ? "refused" : model.show(model.range(group, true), 2));

        const size_t found = name ? model.find(group, name, true) : Model::NONE;
        std::string buffer(260, '#'), expected = buffer;
        if (found != Model::NONE && model.list[found].value) {
            expected.replace(0, 256, 256, '\0');
            expected.replace(0, model.list[found].value->size(), *model.list[found].value);
        }
        ASSERT_EQ(qzlib_service_get_param(store->info, g, n, buffer.data()), found != Model::NONE ? 0 : -1);
        ASSERT_EQ(buffer, expected);
    }
}

TEST(Service, a_file_written_and_read_and_written_again_is_identical)
{
    for (int round = 0; round < support::scaled(500); ++round) {
        const std::string file = random_file();
        Model kept = parsed(file);
        for (size_t i = kept.list.size(); i-- > 0;) // empty groups are lost
            if (kept.list[i].type == 2 && (i + 1 == kept.list.size() || kept.list[i + 1].type != 1))
                kept.list.erase(kept.list.begin() + static_cast<long>(i));
        const std::string saved = Store(file).saved("/tmp/config/again.conf");
        Store again(qzlib_service_info_init("again"));
        ASSERT_EQ(again.all(), kept.show()) << file;
        ASSERT_EQ(again.saved(), saved);
    }
}

TEST(Service, lines_are_read_as_the_format_says)
{
    const std::string name = std::string(255, 'n') + "123", value(300, 'v'), mark(1023, 'm'), cut(256, 'm');
    const struct {
        std::string content, expected;
    } cases[] = {
        {"a=1\nb=2", "0 a=1\n"}, // the last line has no line feed
        {" x=1\n\ty\na=1\n z\n", "0 a=1\n"},
        {"g\n a\nshutdown\n b\nh\n c\n", "2 g\n1 a\n0 shutdown\n2 h\n1 c\n"},
        {"shutdown=1\n x\ng\n shutdown\nShutdown\n", "0 shutdown=1\n2 g\n1 shutdown\n2 Shutdown\n"},
        {"g\n # no\n\n \t\r\n#no\n a\n", "2 g\n1 a\n"},
        {"g\n a=b=c\n a=\n a\n \t k \t= v w\t\r\n =\n", "2 g\n1 a=b=c\n1 a=\n1 a\n1 k=v w\n1 =\n"},
        {"\rg\r\n\r a\n", "2 g\n2 a\n"}, // only a blank or a tab indents
        {name + "=" + value + "\n", "0 " + name.substr(0, 256) + "=" + value.substr(0, 256) + "\n"},
        {mark + "x=1\n", "2 " + cut + "\n0 x=1\n"},
        {mark + "\n x\n", "2 " + cut + "\n1 x\n"},
        {mark, "2 " + cut + "\n"}, // the buffer was full before the end was seen
        {mark + "x", "2 " + cut + "\n"},
        {"a\0=1\nb=\0002\n\0c\ng\n \0\n d\0\0\n"s, "2 a\n0 b=\n2 g\n1 d\n"}, // NUL ends a text
        {std::string(5000, '\0'), ""},
    };
    for (const auto &c : cases)
        EXPECT_EQ(Store(c.content).all(), c.expected) << c.content;
}

TEST(Service, only_groups_with_members_are_written)
{
    Store store("e\na=1\ng\n k= v \n bare\n empty=\nf\nshutdown\nz\n");
    EXPECT_EQ(qzlib_service_set_param(store.info, "f", "m", nullptr), 0);
    EXPECT_EQ(store.saved(), "a=1\ng\n k=v\n bare\n empty=\nf\n m\nshutdown\n");
    EXPECT_EQ(qzlib_service_info_empty(store.info), 0);
    EXPECT_EQ(store.saved(), "") << "an existing file is truncated";
}

TEST(Service, new_entries_take_their_places)
{
    Store store("");
    for (const char *name : {"a", "b", "shutdown", "c"})
        EXPECT_EQ(qzlib_service_set_param(store.info, "", name, "1"), 0);
    EXPECT_EQ(store.all(), "0 shutdown=1\n0 c=1\n0 b=1\n0 a=1\n");
    EXPECT_EQ(qzlib_service_set_param(store.info, nullptr, "x", nullptr), 0); // a header in front
    EXPECT_EQ(qzlib_service_set_param_repeat(store.info, nullptr, "shutdown", nullptr), 0);
    EXPECT_EQ(qzlib_service_set_param_repeat(store.info, nullptr, "a", "2"), 0); // not behind the other "a"
    EXPECT_EQ(qzlib_service_set_param(store.info, nullptr, "shutdown", "3"), 0);
    EXPECT_EQ(store.all(), "0 shutdown=3\n0 shutdown=1\n0 a=2\n2 x\n0 c=1\n0 b=1\n0 a=1\n");

    EXPECT_EQ(qzlib_service_info_empty(store.info), 0);
    for (const char *value : {"a", "b", "c"})
        EXPECT_EQ(qzlib_service_set_param_repeat(store.info, "g", "dns", value), 0);
    EXPECT_EQ(qzlib_service_set_param(store.info, "h", "k", "1"), 0);
    for (const char *name : {"last", "shutdown", "dns"})
        EXPECT_EQ(qzlib_service_set_param(store.info, "g", name, nullptr), 0);
    EXPECT_EQ(store.all(), "2 g\n1 shutdown\n1 dns\n1 dns=c\n1 dns=b\n1 last\n2 h\n1 k=1\n");
}

TEST(Service, deletes_by_texts_that_a_listing_returned)
{
    Store store("a=1\na=1\na=2\na\n k=1\n k=2\n k=1\na\n j\n");
    service_param_list out;
    ASSERT_EQ(qzlib_service_get_all_param(store.info, &out), 9);
    EXPECT_EQ(qzlib_service_del_param(store.info, out.name[3], out.name[4], out.value[4]), 0);
    EXPECT_EQ(qzlib_service_del_param(store.info, nullptr, out.name[0], out.value[0]), 0);
    EXPECT_EQ(store.all(), "0 a=2\n2 a\n1 k=2\n2 a\n1 j\n");
    EXPECT_EQ(qzlib_service_set_param(store.info, out.name[3], out.name[5], out.value[5]), 0);
    EXPECT_EQ(qzlib_service_del_param(store.info, out.name[3], out.name[5], nullptr), 0);
    EXPECT_EQ(qzlib_service_del_param(store.info, nullptr, out.name[2], nullptr), 0);
    EXPECT_EQ(store.all(), "");
}

TEST(Service, listings_stop_at_1024_entries)
{
    std::string members, groups;
    for (int i = 0; i < 1100; ++i) {
        members += " k" + std::to_string(i) + "\n";
        groups += std::to_string(i) + "\n";
    }
    Store store("g\n" + members + groups);
    EXPECT_EQ(qzlib_service_get_param_num(store.info), 2201);
    for (const auto &[listing, last] : {std::pair(store.all(), "\n1 k1022\n"),
                                        {store.members("g"), "\n1 k1023\n"},
                                        {store.groups(), "\n2 1022\n"}}) {
        EXPECT_EQ(std::ranges::count(listing, '\n'), 1024);
        EXPECT_TRUE(listing.ends_with(last)) << listing;
    }
}

TEST(Service, missing_arguments_are_refused)
{
    Store store("g\n k\n");
    Store::out.count = 77;
    EXPECT_EQ(qzlib_service_info_init(nullptr), nullptr);
    const int refused[] = {
        qzlib_service_info_uninit(nullptr),
        qzlib_service_info_empty(nullptr),
        qzlib_service_saveto_file(nullptr, "/tmp/f"),
        qzlib_service_saveto_file(store.info, nullptr),
        qzlib_service_set_param(nullptr, "g", "k", "v"),
        qzlib_service_set_param_repeat(nullptr, "g", "k", "v"),
        qzlib_service_del_param(nullptr, "g", "k", nullptr),
        qzlib_service_get_param(nullptr, "g", "k", nullptr),
        qzlib_service_get_group_param(nullptr, "g", &Store::out),
        qzlib_service_get_group_param(store.info, "", &Store::out),
        qzlib_service_get_group_param(store.info, "g", nullptr),
        qzlib_service_get_all_param(nullptr, &Store::out),
        qzlib_service_get_all_param(store.info, nullptr),
    };
    EXPECT_EQ(std::ranges::count(refused, -1), std::ssize(refused));
    EXPECT_EQ(qzlib_service_get_group_name(nullptr, &Store::out), 0); // 0, unlike the other listings
    EXPECT_EQ(qzlib_service_get_group_name(store.info, nullptr), 0);
    EXPECT_EQ(qzlib_service_get_param_num(nullptr), 0);
    EXPECT_EQ(qzlib_service_get_param(store.info, "g", "k", nullptr), 0) << "the buffer may be missing";
    EXPECT_EQ(Store::out.count, 77U);
    EXPECT_EQ(store.all(), "2 g\n1 k\n");
}

TEST(Service, find_looks_into_the_file)
{
    write_file("/tmp/config/f.conf", "top=1\ng\n k\nx=1\ng\n hidden\n");
    EXPECT_EQ(qzlib_service_find_param("f", nullptr, "top"), 0);
    EXPECT_EQ(qzlib_service_find_param("f", "g", "k"), 0);
    EXPECT_EQ(qzlib_service_find_param("f", "g", "top"), -1);
    EXPECT_EQ(qzlib_service_find_param("f", "", "g"), -1) << "a header is no parameter";
    EXPECT_EQ(qzlib_service_find_param("f", "g", "hidden"), -1) << "an ungrouped parameter ends the search";
    EXPECT_EQ(qzlib_service_find_param("f", "g", nullptr), -1);
    EXPECT_EQ(qzlib_service_find_param("missing", "g", "k"), -1);
    EXPECT_EQ(qzlib_service_find_param(nullptr, "g", "k"), -1);
}

TEST(Service, files_of_any_kind_give_a_store_and_leave_no_descriptor)
{
    std::filesystem::create_directories("/tmp/config/directory.conf");
    std::filesystem::create_symlink("loop.conf", "/tmp/config/loop.conf"); // nobody can open it
    std::string binary, lines = "g\n";
    for (int i = 0; i < 100'000; ++i)
        binary += static_cast<char>(i * 7919 >> 3);
    while (lines.size() < 10 << 20)
        lines += " some-name=some value\n";
    write_file("/tmp/config/binary.conf", binary);
    write_file("/tmp/config/lines.conf", lines);
    write_file("/tmp/config/no-line-feed.conf", std::string(10 << 20, 'x'));
    write_file("/tmp/config/" + std::string(200, 'n') + ".conf", "a=1\n");

    const size_t descriptors = open_descriptors();
    const auto entries = [](const std::string &service) {
        return qzlib_service_get_param_num(Store(qzlib_service_info_init(service.c_str())).info);
    };
    for (const char *service : {"missing", "directory", "loop", "a/b", ""})
        EXPECT_EQ(entries(service), 0) << service;
    EXPECT_GT(entries("binary"), 0);
    EXPECT_EQ(entries("lines"), static_cast<int>(std::ranges::count(lines, '\n')));
    EXPECT_EQ(entries("no-line-feed"), (10 << 20) / 1023) << "one for each full buffer";
    EXPECT_EQ(entries(std::string(200, 'n')), 1);
    EXPECT_EQ(entries(std::string(201, 'n')), 0);
    EXPECT_EQ(entries(std::string(5000, 'n')), 0);
    const Store store("a=1\n");
    for (const char *path : {"/tmp/config/directory.conf", "/tmp/none/f", "", "/tmp/config/loop.conf"})
        EXPECT_EQ(qzlib_service_saveto_file(store.info, path), -1) << path;
    EXPECT_EQ(qzlib_service_saveto_file(store.info, "/dev/full"), 0) << "write errors are ignored";
    EXPECT_EQ(open_descriptors(), descriptors);
}

} // namespace
