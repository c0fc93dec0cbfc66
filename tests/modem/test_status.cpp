#include "support/case.h"

#include <qzlib.h>

namespace
{

using namespace support;
constexpr const char *INFO = "/tmp/modem.info";

int load(const std::string &content)
{
    write_file(INFO, content);
    return qzlib_update_modem_status_info_tab();
}

// The value, or "(null)".
std::string value(const std::string &name)
{
    const char *text = qzlib_get_modem_status_info(name.c_str());
    return text == nullptr ? "(null)" : text;
}

std::string lines(int count)
{
    std::string all;
    for (int i = 0; i < count; ++i)
        all += "name" + std::to_string(i) + ":value" + std::to_string(i) + "\n";
    return all;
}

using ModemStatus = NothingLeft;

TEST_F(ModemStatus, values_are_found_by_their_exact_name)
{
    EXPECT_EQ(value("rssi"), "(null)") << "before the first update";
    EXPECT_EQ(value(""), "");
    EXPECT_EQ(load("rssi:-71\nsim:READY\nurl: http://a:80 \r\n:anonymous\nempty:\nsim:SECOND\n"), 0);
    const Table<const char *, const char *> cases = {
        {"rssi", "-71"}, {"sim", "READY"},   {"url", " http://a:80 \r"}, {"", "anonymous"},
        {"empty", ""},   {"RSSI", "(null)"}, {"rs", "(null)"},           {"rssi:", "(null)"}};
    for (const auto &[name, expected] : cases)
        EXPECT_EQ(value(name), expected) << name;
    EXPECT_EQ(qzlib_get_modem_status_info(nullptr), nullptr);
    unlink(INFO);
    EXPECT_EQ(qzlib_update_modem_status_info_tab(), QZLIB_ERR_NO_FILE);
    EXPECT_EQ(value("rssi"), "-71") << "without a file the table stays";
    ASSERT_EQ(mkdir(INFO, 0755), 0);
    EXPECT_EQ(qzlib_update_modem_status_info_tab(), -1);
}

TEST_F(ModemStatus, file_content_gives_these_values)
{
    const std::string name63(63, 'n'), name100(100, 'm'), v127(127, 'v'), x200(200, 'x'), y251(251, 'y');
    using Values = Table<std::string, std::string>;
    // Content, result, names and their values.
    const Table<std::string, int, Values> cases = {
        // Loading stops at the first line that is not one, and a line without its end is none.
        {"a:3\nno colon\nb:4\n", 0, {{"a", "3"}, {"b", "(null)"}}},
        {"a:1\nb:2\nc", 0, {{"a", "1"}, {"b", "2"}, {"c", "(null)"}}},
        {"a:1\nb:2", 0, {{"a", "1"}, {"b", "(null)"}}},
        {"", -1, {{"a", "(null)"}}},
        // The table holds 64 rows, and rows of the last update are gone.
        {lines(70), 0, {{"name0", "value0"}, {"name63", "value63"}, {"name64", "(null)"}, {"", "(null)"}}},
        {lines(63), 0, {{"name63", "(null)"}, {"", ""}}},
        // Longer names and values are cut or read on into the next row; the rows after are as they were.
        {name63 + ":" + v127 + "\nnext:1\n", 0, {{name63, v127}, {"next", "1"}}},
        {name100 + ":1\nlong:" + x200 + "\nnext:2\n",
         0,
         {{name100, "(null)"}, {"long", x200.substr(0, 128) + "next"}, {"next", "2"}}},
        {lines(63) + "last:" + x200 + "\n", 0, {{"last", x200}}}, // there is room after it
        // A line of 256 characters and more arrives in pieces of 255.
        {"cut:" + y251 + "rest:1\nb:2\n", 0, {{"cut", y251.substr(0, 128) + "rest"}, {"rest", "1"}}},
        {"a:1\n" + std::string(10'000'000, 'z') + "\n", 0, {{"a", "1"}}},
    };
    for (const auto &[content, result, values] : cases) {
        EXPECT_EQ(load(content), result) << content.substr(0, 300);
        for (const auto &[name, expected] : values)
            EXPECT_EQ(value(name), expected) << content.substr(0, 300) << "\nof " << name;
    }
}

} // namespace
