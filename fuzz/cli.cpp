// The readers of the CLI configuration: files of any content, tables of any shape, whose keys and outside
// stay.
#include "input.h"

#include <memory>
#include <qzlib.h>
#include <sys/stat.h>

using namespace fuzz;

void take(Input in)
{
    static const char *const KEYS[] = {"interface", "ip", "mtu", "a", " ", "", "ip address", "\n"};
    constexpr int ROUNDS = 6; // an enumeration may have no end
    mkdir("/tmp/config", 0755);
    const int mode = in.number();
    const std::string own_key = in.text();
    const std::string text = in.text();
    const size_t size = in.number<uint16_t>() % 600;
    // An allocation of its own, so that what lies beside it is not to be touched.
    const std::unique_ptr<char[]> table(new char[size]());
    size_t count = 0;
    size_t places[8];
    const char *keys[8];
    for (size_t at = 0; count < std::size(places) && at + sizeof(char *) <= size; ++count) {
        const unsigned chosen = in.number() % 16;
        keys[count] = chosen < std::size(KEYS) ? KEYS[chosen] : own_key.c_str();
        places[count] = at;
        memcpy(&table[at], &keys[count], sizeof(char *));
        at += sizeof(char *) + 4 + in.number() / 4 * 4;
    }
    const std::string preset = in.text();
    const size_t area = count == 0 ? 0 : (count > 1 ? places[1] : size) - sizeof(char *);
    if (area > 0)
        preset.copy(&table[sizeof(char *)], area - 1);
    write_file("/tmp/config/cli.conf", in.bytes(100000));
    for (int round = 0; round < ROUNDS; ++round) {
        const int result = cli_config_get(table.get(), static_cast<int>(size), mode % 4);
        require(result == 0 || result == QZLIB_CLI_EMPTY_BLOCK || result == -1);
        require(result == -1 || count > 0);
        for (size_t i = 0; i < count; ++i) {
            const char *key = nullptr;
            memcpy(&key, &table[places[i]], sizeof key);
            require(key == keys[i]);
        }
        if (result == -1)
            break;
    }
    const int found = cli_find_paremeter(own_key.c_str(), text.c_str());
    require(found == -1 || found == 0);
    require(cli_find_paremeter("!", "") == -1);
}
