// The boot environment against a list of texts, on blocks of any content with a right or a wrong sum.
#include "input.h"

#include <qzlib.h>
#include <vector>

namespace
{

using namespace fuzz;

constexpr const char *DEVICE = "/dev/mtdblock2"; // of the router in examples/
constexpr off_t OFFSET = 1048576 - 0x20000;
constexpr size_t DATA = 0x20000 - 4;

enum class End { LISTED, AT_THE_BRIM, NOWHERE };
struct Model {
    std::vector<std::string> entries;
    End end = End::LISTED;
};

std::string block(std::string data)
{
    data.resize(DATA, '\0');
    const uint32_t sum = crc32(0, reinterpret_cast<const unsigned char *>(data.data()), DATA);
    return std::string(reinterpret_cast<const char *>(&sum), 4) + data;
}

std::string block(const Model &model)
{
    std::string data;
    for (const std::string &entry : model.entries)
        data += entry + '\0';
    return block(data);
}

Model parsed(const std::string &data)
{
    Model model;
    for (size_t at = 0; at < DATA;) {
        const size_t end = data.find('\0', at);
        if (end == at || end == std::string::npos) {
            model.end = end == at ? End::LISTED : End::NOWHERE;
            return model;
        }
        model.entries.push_back(data.substr(at, end - at));
        model.end = End::AT_THE_BRIM;
        at = end + 1;
    }
    return model;
}

auto find(Model &model, const std::string &name)
{
    auto at = model.entries.begin();
    while (at != model.entries.end() && !at->starts_with(name.substr(0, name.find('=')) + "="))
        ++at;
    return at;
}

bool set(Model &model, const std::string &name, const std::string *value)
{
    Model changed = model;
    const auto at = find(changed, name);
    const bool absent = at == changed.entries.end();
    if (changed.end == End::NOWHERE || (absent && changed.end == End::AT_THE_BRIM))
        return false;
    if (!absent)
        changed.entries.erase(at);
    if (value != nullptr)
        changed.entries.push_back(name + "=" + *value);
    size_t size = 0;
    for (const std::string &entry : changed.entries)
        size += entry.size() + 1;
    if (size > DATA)
        return false;
    model = {changed.entries, size == DATA ? End::AT_THE_BRIM : End::LISTED};
    return true;
}

void check(const Model &model)
{
    std::vector<std::string> listed;
    const auto collect = [](void *ctx, const char *entry) {
        static_cast<std::vector<std::string> *>(ctx)->emplace_back(entry);
    };
    require(qzlib_print_boot_env(nullptr, collect, &listed) == 0);
    require(listed == model.entries);
}

// A text with one of its bytes many times over in front: large blocks from small inputs.
std::string text(Input &in)
{
    const auto times = in.number<uint16_t>();
    const std::string tail = in.text();
    return std::string(times < 0xE000 ? times % 8 : times * 2U, tail.empty() ? 'x' : tail[0]) + tail;
}

} // namespace

void take(Input in)
{
    const bool right = in.number() % 4 != 0;
    std::string data = in.bytes(in.number());
    const size_t size = in.number<uint32_t>() % (DATA + 1);
    data.resize(size, static_cast<char>(in.number()));
    data += in.bytes(in.number() % 16);
    data.resize(DATA, static_cast<char>(in.number() % 2));
    std::string flash = block(data);
    flash[0] = static_cast<char>(flash[0] ^ !right);
    char value[300] = {};
    (void)qzlib_get_boot_env("-", value, 1); // what a listing kept in memory goes
    write_file(DEVICE, flash, OFFSET);
    Model model = right ? parsed(data) : Model();
    for (int left = 6; left > 0 && !in.is_empty(); --left) {
        const unsigned action = in.number() % 4;
        const std::string name = in.number() % 2 == 0 ? text(in) : "a";
        if (action < 2) {
            const std::string given = text(in);
            const std::string *const to = action == 0 ? &given : nullptr;
            const bool done = set(model, name, to);
            require(qzlib_set_boot_env(name.c_str(), to != nullptr ? given.c_str() : nullptr) ==
                    (done ? 0 : -1));
            require(!done || read_file(DEVICE, 0x20000, OFFSET) == block(model));
        } else if (action == 2) {
            const auto at = find(model, name);
            const bool found = at != model.entries.end();
            require(qzlib_get_boot_env(name.c_str(), value, sizeof value - 1) == (found ? 0 : -1));
            require(!found || at->substr(at->find('=') + 1, sizeof value - 1) == value);
        } else if (in.number() % 8 == 0) {
            require(qzlib_clear_boot_env() == 0);
            model = {};
        }
    }
    check(model);
}
