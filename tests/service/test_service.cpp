#include "support/case.h"

#include <qzlib.h>

namespace
{

using namespace support;
using namespace std::string_literals;

// A loaded store. Listings are shown one entry a line, "TYPE name=value" or "TYPE name".
struct Store : NoCopy {
    explicit Store(service_info *loaded) : info(loaded) {}
    explicit Store(const std::string &content)
    {
        write_file("/tmp/config/s.conf", content);
        info = qzlib_service_info_init("s");
    }
    ~Store() { EXPECT_EQ(qzlib_service_info_uninit(info), 0); }

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

TEST(Service, changes_leave_exactly_these_entries)
{
    using Text = const char *;
    constexpr Text NONE = nullptr;
    const std::string n300(300, 'n'), n256(256, 'n'), v300(300, 'v'), v256(256, 'v');
    const auto set = qzlib_service_set_param, add = qzlib_service_set_param_repeat,
               del = qzlib_service_del_param;
    // File, change of an entry (group, name, value), result, all entries afterwards.
    const Table<std::string, decltype(set), Text, Text, Text, int, std::string> cases = {
        // A new ungrouped entry stands before the first header, without one in front, after "shutdown".
        {"a=1\n", set, NONE, "b", "2", 0, "0 b=2\n0 a=1\n"},
        {"a=1\n", set, "", "b", "2", 0, "0 b=2\n0 a=1\n"}, // no group either
        {"shutdown\na=1\n", set, NONE, "b", "2", 0, "0 shutdown\n0 b=2\n0 a=1\n"},
        {"a=1\nshutdown\n", set, NONE, "b", "2", 0, "0 b=2\n0 a=1\n0 shutdown\n"},
        {"a=1\ng\n k\nh\n", set, NONE, "b", "2", 0, "0 a=1\n0 b=2\n2 g\n1 k\n2 h\n"},
        {"a=1\ng\n", set, NONE, "shutdown", NONE, 0, "0 shutdown\n0 a=1\n2 g\n"},
        {"a=1\n", set, NONE, "Shutdown", NONE, 0, "2 Shutdown\n0 a=1\n"}, // a name alone is a group
        {"a=1\na=2\n", set, NONE, "a", "3", 0, "0 a=3\n0 a=2\n"},
        {"a=1\n", set, NONE, "a", NONE, 0, "0 a\n"},
        {"a=1\ng\n a=2\n", add, NONE, "a", "3", 0, "0 a=1\n0 a=3\n2 g\n1 a=2\n"},
        {"a=1\n", set, NONE, NONE, "v", -1, "0 a=1\n"},
        // A new member stands after the last one, a repeated one after the first of its name.
        {"g\n a=1\n b=1\nh\n c=1\n", set, "g", "c", "2", 0, "2 g\n1 a=1\n1 b=1\n1 c=2\n2 h\n1 c=1\n"},
        {"g\n a=1\n b=1\n a=3\n", set, "g", "a", "2", 0, "2 g\n1 a=2\n1 b=1\n1 a=3\n"},
        {"g\n a=1\n b=1\n", add, "g", "a", "2", 0, "2 g\n1 a=1\n1 a=2\n1 b=1\n"},
        {"g\n a=1\n", set, "g", "shutdown", NONE, 0, "2 g\n1 shutdown\n1 a=1\n"},
        {"g\nh\n k\n", set, "g", "k", "", 0, "2 g\n1 k=\n2 h\n1 k\n"},
        {"a=1\n", set, "g", "k", NONE, 0, "0 a=1\n2 g\n1 k\n"},
        {"g\n a\ng\n b\nh\n", set, "g", "c", NONE, 0, "2 g\n1 a\n2 g\n1 b\n1 c\n2 h\n"}, // neighbours are one
        {"g\n a\nh\ng\n b\n", set, "g", "b", "2", 0, "2 g\n1 a\n1 b=2\n2 h\n2 g\n1 b\n"},
        {"g\n a\nx=1\ng\n b\n", set, "g", "b", "2", 0, "2 g\n1 a\n0 x=1\n2 g\n1 b=2\n"}, // x is passed
        {"g\n a\n", set, "g", NONE, "v", -1, "2 g\n1 a\n"},
        // Names and values are cut; a longer name than a stored one matches nothing.
        {n256 + "=1\n", set, NONE, n300.c_str(), v300.c_str(), 0,
         "0 " + n256 + "=" + v256 + "\n0 " + n256 + "=1\n"},
        {"", set, n300.c_str(), "k", NONE, 0, "2 " + n256 + "\n1 k\n"},
        // All of a name are deleted, with a value those that have it.
        {"a=1\nb=1\na=2\ng\n a=1\n", del, NONE, "a", NONE, 0, "0 b=1\n2 g\n1 a=1\n"},
        {"a=1\nshutdown\na=2\n", del, "", "a", "2", 0, "0 a=1\n0 shutdown\n"},
        {"g\n k=1\n k\n k=2\nh\n k=1\n", del, "g", "k", NONE, 0, "2 g\n2 h\n1 k=1\n"},
        {"g\n k\n k=1\n k=2\n", del, "g", "k", "1", 0, "2 g\n1 k\n1 k=2\n"},
        {"a=1\ng\n k\n", del, NONE, "k", NONE, -1, "0 a=1\n2 g\n1 k\n"},
        {"g\n k\n", del, "g", "k", "1", -1, "2 g\n1 k\n"},
        {"g\n k\n", del, "h", NONE, NONE, -1, "2 g\n1 k\n"},
        {"g\n k\n", del, "g", NONE, "v", -1, "2 g\n1 k\n"},
        {"g\n k\n", del, NONE, NONE, NONE, -1, "2 g\n1 k\n"},
        // A group goes as a whole: by its name, or as an ungrouped name, whose search ends there.
        {"g\n a\nx=1\ng\n b\nh\n c\ng\n", del, "g", NONE, NONE, 0, "0 x=1\n2 h\n1 c\n2 g\n"},
        {"a=1\na\n k\na=2\n", del, NONE, "a", NONE, 0, "0 a=2\n"},
        {"g=1\ng\n k\ng=1\n", del, NONE, "g", "1", 0, "2 g\n1 k\n"},
    };
    for (const auto &[content, change, group, name, value, result, expected] : cases) {
        Store store(content);
        EXPECT_EQ(change(store.info, group, name, value), result) << expected;
        EXPECT_EQ(store.all(), expected) << content;
        EXPECT_EQ(qzlib_service_get_param_num(store.info),
                  std::count(expected.begin(), expected.end(), '\n'));
    }
}

TEST(Service, texts_of_a_listing_may_be_those_of_what_is_changed)
{
    Store store("g\n k=v\n k=v\nv=1\n");
    (void)store.all();
    const auto [names, values] = std::pair(Store::out.name, Store::out.value);
    EXPECT_EQ(qzlib_service_set_param(store.info, nullptr, names[3], names[3]), 0);
    EXPECT_EQ(qzlib_service_del_param(store.info, names[0], names[1], values[1]), 0);
    EXPECT_EQ(store.all(), "2 g\n0 v=v\n");
}

TEST(Service, reading_ends_a_group_at_an_ungrouped_parameter)
{
    Store store("a=1\ng\n k=1\n k=2\ng\n l\nx=1\ng\n hidden\nh\nempty\n");
    EXPECT_EQ(store.members("g"), "1 k=1\n1 k=2\n1 l\n");
    EXPECT_EQ(store.members("h"), "");
    EXPECT_EQ(store.members(""), "refused");
    EXPECT_EQ(store.groups(), "2 g\n2 g\n2 g\n2 h\n2 empty\n");
    EXPECT_EQ(store.saved(), "a=1\ng\n k=1\n k=2\ng\n l\nx=1\ng\n hidden\n") << "no empty group";
    // Group, name, result, first characters of the value's 256.
    const Table<const char *, const char *, int, const char *> cases = {
        {nullptr, "a", 0, "1"},       {"", "x", 0, "1"},
        {"g", "k", 0, "1"},           {"g", "l", 0, nullptr},
        {"g", "hidden", -1, nullptr}, {nullptr, "k", -1, nullptr},
        {"g", nullptr, -1, nullptr}};
    for (const auto &[group, name, result, value] : cases) {
        std::string buffer(260, '#'), expected = value != nullptr ? value + std::string(255, '\0') : "";
        expected.resize(260, '#');
        EXPECT_EQ(qzlib_service_get_param(store.info, group, name, buffer.data()), result);
        EXPECT_EQ(buffer, expected) << (name != nullptr ? name : "null");
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
        {"# no\ng\n\t #\n \t a = b \n\nshutdown\n k\nx = 1\n", "2 g\n1 a=b\n0 shutdown\n0 x=1\n"},
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
