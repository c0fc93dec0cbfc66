#include "support/case.h"

#include <qzlib.h>

namespace
{

using namespace support;

// A loaded store. What changes leave in it, and what is read and saved, fuzz/service.cpp compares with a
// model. Listings are shown one entry a line, "TYPE name=value" or "TYPE name".
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
    // A value is given with the NULs after it, 256 bytes; without one nothing is touched.
    const Table<const char *, int, std::string> cases = {
        {"k", 0, "1" + std::string(255, '\0')}, {"l", 0, ""}, {"hidden", -1, ""}, {nullptr, -1, ""}};
    for (const auto &[name, result, value] : cases) {
        std::string buffer(260, '#');
        EXPECT_EQ(qzlib_service_get_param(store.info, "g", name, buffer.data()), result);
        EXPECT_EQ(buffer, value + std::string(260 - value.size(), '#'));
    }
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
