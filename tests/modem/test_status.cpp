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

std::string lines(int count, const std::string &text = "value")
{
    std::string all;
    for (int i = 0; i < count; ++i)
        all += "name" + std::to_string(i) + ":" + text + std::to_string(i) + "\n";
    return all;
}

TEST(ModemStatus, values_are_found_by_their_exact_name)
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
}

TEST(ModemStatus, loading_stops_at_the_first_line_that_is_not_one)
{
    EXPECT_EQ(load("a:3\nno colon\nb:4\n"), 0);
    EXPECT_EQ(value("a"), "3");
    EXPECT_EQ(value("b"), "(null)");
    unlink(INFO);
    EXPECT_EQ(qzlib_update_modem_status_info_tab(), QZLIB_ERR_NO_FILE);
    EXPECT_EQ(value("a"), "3") << "without a file the table stays";
    for (const char *nothing : {"\n", "a:5", "no colon\na:6\n"}) {
        EXPECT_EQ(load("a:1\n"), 0);
        EXPECT_EQ(load(nothing), -1) << nothing;
        EXPECT_EQ(value("a"), "(null)") << nothing;
    }
    unlink(INFO);
    ASSERT_EQ(mkdir(INFO, 0755), 0);
    EXPECT_EQ(qzlib_update_modem_status_info_tab(), -1);
}

TEST(ModemStatus, every_truncation_keeps_the_full_lines)
{
    const std::string whole = "rssi:-71\nsim:READY\noperator:Example\n";
    for (size_t size = 0; size <= whole.size(); ++size) {
        const std::string cut = whole.substr(0, size);
        const auto full_lines = std::count(cut.begin(), cut.end(), '\n');
        EXPECT_EQ(load(cut), full_lines > 0 ? 0 : -1) << cut;
        EXPECT_EQ(value("rssi"), full_lines > 0 ? "-71" : "(null)") << cut;
        EXPECT_EQ(value("sim"), full_lines > 1 ? "READY" : "(null)") << cut;
        EXPECT_EQ(value("operator"), full_lines > 2 ? "Example" : "(null)") << cut;
    }
}

TEST(ModemStatus, table_holds_64_rows)
{
    EXPECT_EQ(load(lines(70)), 0);
    EXPECT_EQ(value("name0"), "value0");
    EXPECT_EQ(value("name63"), "value63");
    EXPECT_EQ(value("name64"), "(null)");
    EXPECT_EQ(value(""), "(null)") << "no empty row is left";
    EXPECT_EQ(load(lines(63)), 0);
    EXPECT_EQ(value("name63"), "(null)") << "rows of the last update are gone";
    EXPECT_EQ(value(""), "");
}

TEST(ModemStatus, long_names_and_values_stay_inside_the_table)
{
    const std::string name63(63, 'n'), name100(100, 'm'), value127(127, 'v'), value200(200, 'x');
    EXPECT_EQ(load(name63 + ":" + value127 + "\nnext:1\n"), 0);
    EXPECT_EQ(value(name63), value127);
    EXPECT_EQ(value("next"), "1");

    // Longer ones are cut or read on into the next row; the rows after them are as they were.
    EXPECT_EQ(load(name100 + ":1\nlong:" + value200 + "\nnext:2\n"), 0);
    EXPECT_EQ(value(name100), "(null)");
    EXPECT_EQ(value("long"), value200.substr(0, 128) + "next");
    EXPECT_EQ(value("next"), "2");
    EXPECT_EQ(load(lines(63) + "last:" + value200 + "\n"), 0);
    EXPECT_EQ(value("last"), value200) << "the last row has room after it";
    EXPECT_EQ(load(lines(64)), 0);
    EXPECT_EQ(value("name63"), "value63");

    // A line of 256 characters and more arrives in pieces of 255.
    EXPECT_EQ(load("cut:" + std::string(251, 'y') + "rest:1\nb:2\n"), 0);
    EXPECT_EQ(value("cut"), std::string(128, 'y') + "rest");
    EXPECT_EQ(value("rest"), "1");
    EXPECT_EQ(load("a:1\n" + std::string(10'000'000, 'z') + "\n"), 0);
}

TEST(ModemStatus, file_replaced_while_it_is_read_gives_one_table_or_the_other)
{
    const size_t descriptors = open_descriptors();
    load(lines(64, "0 "));
    std::atomic<bool> stop = false;
    std::thread writer([&] {
        for (int round = 0; !stop; ++round) {
            write_file("/tmp/modem.info.new", lines(64, std::to_string(round) + " "));
            rename("/tmp/modem.info.new", INFO);
        }
    });
    for (int i = 0; i < 2000; ++i) {
        ASSERT_EQ(qzlib_update_modem_status_info_tab(), 0);
        const std::string first = value("name0");
        ASSERT_EQ(value("name63"), first.substr(0, first.find(' ')) + " 63");
    }
    stop = true;
    writer.join();
    EXPECT_EQ(open_descriptors(), descriptors);
}

} // namespace
