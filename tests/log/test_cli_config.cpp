#include "support/case.h"

#include <qzlib.h>

namespace
{

using namespace support;
using CliConfig = NothingLeft;
constexpr const char *CLI_CONF = "/tmp/config/cli.conf";
constexpr int WORDS = QZLIB_CLI_WORDS;
constexpr int LINES = 0;
alignas(256) constexpr char KEY_OF_A_ZERO_BYTE[] = "mtu"; // its address in the table begins with one

// A lookup table as a daemon builds it. The rooms of 13 and 22 bytes put keys on every kind of
// 4-byte boundary, aligned to a 64-bit word and not.
class Lookup : NoCopy
{
public:
    explicit Lookup(const char *preset = "")
    {
        add("interface", 13);
        strcpy(value(0), preset);
        add("ip address", 22);
        add(KEY_OF_A_ZERO_BYTE, 13);
        add("up", 13);
        memset(bytes_ + size_, '#', sizeof bytes_ - size_);
    }
    ~Lookup() { EXPECT_EQ(std::string(bytes_ + size_, bytes_ + 256), std::string(256 - size_, '#')); }

    char *value(size_t entry) { return bytes_ + values_[entry]; }
    int get(int mode) { return get(mode, static_cast<int>(size_)); }
    int get(int mode, int size) { return cli_config_get(bytes_, size, mode); }
    std::string values() { return std::string(value(0)) + "|" + value(1) + "|" + value(2) + "|" + value(3); }

private:
    void add(const char *key, size_t room)
    {
        memcpy(bytes_ + size_, &key, sizeof key);
        values_[count_++] = size_ + sizeof key;
        size_ = (size_ + sizeof key + room + 3) / 4 * 4;
    }

    alignas(8) char bytes_[256] = {};
    size_t values_[4] = {}, count_ = 0, size_ = 0;
};

TEST(CliConfigGet, takes_one_block_and_its_values)
{
    // File, mode, preset, result, values of header, ip address, mtu and up.
    const Table<std::string, int, const char *, int, const char *> cases = {
        {"interface lan\n ip address 1.2.3.4 24\n mtu 1500\n!\n", WORDS, "", 0, "lan|1.2.3.4|1500|"},
        {"interface lan\r\n ip address 1.2.3.4 24\r\n!\r\n", LINES, "", 0, "lan|1.2.3.4 24||"},
        {"interface lan\n mtu   1\n mtu 2\n!\n", WORDS, "", 0, "lan||2|"},   // last line wins
        {"interface lan\n mtu   1\n mtu 2\n!\n", LINES, "", 0, "lan||1|"},   // first line wins
        {"interface lan\n mtu 15 up yes\n!\n", WORDS, "", 0, "lan||15|yes"}, // several on a line
        {"interface lan\n up yes mtu 15\n!\n", WORDS, "", 0, "lan||15|"},    // the rest of the line ends it
        {"interface lan\n mtu=15\n!\n", LINES, "", 0, "lan||15|"},           // one character passed over
        {"interface lan\n xmtu 1 mtu 2\n!\n", LINES, "", 2, "lan|||"},       // first occurrence only
        {"interface lan\nmtu 15\n\tup 1\n!\n", LINES, "", 2, "lan|||"},      // no blank before the key
        {"interface lan\n mtu\n up 1\n!\n", LINES, "", 0, "lan|||1"},        // key without value
        {"interface lan\n mtu \n!\n", LINES, "", 0, "lan|||"},               // a value of a line end only
        {"interface lan\n mtu 1\r\r\n!\n", LINES, "", 0, "lan||1\r|"},       // two line-end characters
        {"interface lan\n shutdown\n!\n", LINES, "", 0, "lan|||"},
        {"interface lan\n mtu 1\n up 2!\n up 3\n", LINES, "", 0, "lan||1|"}, // "!" anywhere ends the block
        {"interface lan\n" + std::string(383, 'x') + " mtu 7\n!\n", LINES, "", 0, "lan||7|"}, // two lines
        {"interface lan\n  shutdown\n!\n", LINES, "", 2, "lan|||"},
        {"interface lan!\n mtu 1\n!\n", LINES, "", -1, "|||"},
        {" interface lan\n mtu 1\n!\n", LINES, "", -1, "|||"},
        {"interfaces lan\n mtu 1\n!\ninterface \t x\n!\n", LINES, "", 2, "\t x|||"},
        {"interface   lan  0 \n mtu 1\n!\n", LINES, "", 0, "lan  0 ||1|"},
        {"interface\n mtu 1\n!\n", LINES, "", 0, "||1|"}, // no argument
        {"interface\n!\ninterface \r\n x\n!\ninterface b\n!\n", LINES, "", 2, "b|||"},
        // Preset: the block after the one named.
        {"interface a\n mtu 1\n!\ninterface\n mtu 2\n!\ninterface b\n mtu 3\n!\n", LINES, "a", 0, "b||3|"},
        {"interface ab\n!\ninterface a\n!\ninterface ab\n!\n", LINES, "a", 2, "ab|||"},
        {"interface a\n!\ninterface a\n mtu 1\n!\ninterface b\n!\n", LINES, "a", -1, "a|||"},
        {"interface a\r\n!\ninterface b c\n mtu 1\n!\n", LINES, "a", 0, "b c||1|"},
        // Words: an argument with a blank is not taken, and becomes the preset value.
        {"interface a b\n mtu 1\n!\ninterface c\n mtu 2\n!\n", WORDS, "", -1, "a b\n|||"},
        {"interface a\n!\ninterface b c\n mtu 1\n!\ninterface d\n mtu 2\n!\n", WORDS, "a", 0, "d||2|"},
        {"interface a\n!\ninterface b \n mtu 1\n!\n", WORDS, "a", -1, "b \n|||"},
    };
    for (const auto &[file, mode, preset, result, values] : cases) {
        write_file(CLI_CONF, file);
        Lookup table(preset);
        EXPECT_EQ(table.get(mode), result) << file;
        EXPECT_EQ(table.values(), values) << file;
    }
}

TEST(CliConfigGet, enumerates_all_blocks_with_one_header_word)
{
    write_file(CLI_CONF, "hostname r\ninterface wan0\n mtu 1400\n up yes\n!\nroute x\n mtu 9\n!\n"
                         "interface lo\n ip address 127.0.0.1\n!\ninterface lan\n!\n");
    Lookup table;
    for (const auto &[result, values] :
         {std::pair(0, "wan0||1400|yes"), {0, "lo|127.0.0.1||"}, {2, "lan|||"}, {-1, "lan|||"}}) {
        EXPECT_EQ(table.get(WORDS), result);
        EXPECT_EQ(table.values(), values);
    }
}

TEST(CliConfigGet, stays_inside_the_table)
{
    write_file(CLI_CONF, "interface lan\n mtu 15\n ip address " + std::string(300, '1') + "\n!\n");
    Lookup table, header_only;
    EXPECT_EQ(table.get(LINES), 0);
    EXPECT_STREQ(table.value(2), "15") << "the long value ran into the next entry";
    EXPECT_EQ(header_only.get(LINES, sizeof(char *) + 13), 2);
    EXPECT_EQ(header_only.values(), "lan|||");
    for (const int size : {static_cast<int>(sizeof(char *)) - 1, 0, -1})
        EXPECT_EQ(Lookup().get(LINES, size), -1);
    EXPECT_EQ(cli_config_get(nullptr, 64, LINES), -1);
    char zeros[64] = {};
    EXPECT_EQ(cli_config_get(zeros, sizeof zeros, LINES), -1);
}

TEST(CliFindParemeter, looks_in_the_block_with_exactly_that_header)
{
    const Table<std::string, const char *, const char *, int> cases = {
        {"a b\r\n mtu 1\r\n!\r\n", "a b", "tu 1", 0},
        {"a b\n mtu 1\n!\n", "a", "mtu", -1},
        {" a b\n mtu 1\n!\n", "a b", "mtu", -1},
        {"a b\n mtu 1 !\n mtu\n", "a b", "mtu", -1},
        {"a b\n!\na b\n mtu 1\n!\n", "a b", "mtu", -1}, // the first such block counts
        {"x\n!\na b\ny\n mtu 1\n!\n", "a b", "mtu", 0},
        {"a b\n mtu 1", "a b", "mtu", -1},
        {"a b\n\n!\n", "a b", "", 0},
        {"a b!\n mtu\n", "a b!", "mtu", -1},
        {"a\n" + std::string(250, 'x') + "mtu 15\n!\n", "a", "mtu 1", 0},
        {"a\n" + std::string(250, 'x') + "mtu 15\n!\n", "a", "mtu 15", -1}, // cut before the 5
        {"a\n\n!\n", nullptr, "", -1},
        {"a\n\n!\n", "a", nullptr, -1},
    };
    for (const auto &[file, block, text, result] : cases) {
        write_file(CLI_CONF, file);
        EXPECT_EQ(cli_find_paremeter(block, text), result) << file;
    }
}

TEST_F(CliConfig, odd_files_give_no_block_and_leave_no_descriptor)
{
    const auto look = [] {
        EXPECT_EQ(Lookup().get(LINES), -1);
        EXPECT_EQ(cli_find_paremeter("interface", "lan"), -1);
    };
    look(); // no file
    const size_t many = 10 << 20;
    for (const std::string &file : {std::string(many, '\0') + "\n", std::string(many, 'x'),
                                    std::string(many, '!') + "\n", std::string("interface\0 lan\n!\n", 17)}) {
        write_file(CLI_CONF, file);
        look();
    }
    std::filesystem::remove(CLI_CONF);
    std::filesystem::create_directories(CLI_CONF);
    look();
}

} // namespace
