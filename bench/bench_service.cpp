// SPDX-License-Identifier: MIT
// What the service store costs as its entries grow, and its load beside a plain parser of the same file. Runs
// in a box, whose /tmp/config it uses.
#include "ratio_reporter.h"

#include <array>
#include <cstdlib>
#include <cstring>
#include <qzlib.h>
#include <sys/stat.h>

namespace
{

constexpr const char *PATH = "/tmp/config/bench.conf";

// Ten groups, so that a group grows with the file.
void write_store(int64_t entries)
{
    mkdir("/tmp/config", 0755);
    FILE *file = fopen(PATH, "we");
    for (int64_t i = 0; file != nullptr && i < entries; ++i) {
        if (i % (entries / 10) == 0)
            fprintf(file, "group%d\n", static_cast<int>(i / (entries / 10)));
        fprintf(file, "  name%d = value of %d\n", static_cast<int>(i), static_cast<int>(i));
    }
    if (file != nullptr)
        fclose(file);
}

class Store
{
public:
    explicit Store(const benchmark::State &state)
    {
        write_store(state.range(0));
        info_ = qzlib_service_info_init("bench");
        (void)snprintf(last_.data(), last_.size(), "name%d", static_cast<int>(state.range(0) - 1));
    }
    ~Store() { (void)qzlib_service_info_uninit(info_); }
    Store(const Store &) = delete;
    Store &operator=(const Store &) = delete;

    [[nodiscard]] service_info *info() const { return info_; }
    [[nodiscard]] const char *last() const { return last_.data(); }

private:
    service_info *info_;
    std::array<char, 32> last_{};
};

void load(benchmark::State &state)
{
    write_store(state.range(0));
    for ([[maybe_unused]] auto _ : state)
        (void)qzlib_service_info_uninit(qzlib_service_info_init("bench"));
}

char *trimmed(char *text)
{
    constexpr const char *BLANKS = " \t\r\n";
    text += strspn(text, BLANKS);
    size_t length = strlen(text);
    while (length > 0 && strchr(BLANKS, text[length - 1]) != nullptr)
        --length;
    text[length] = '\0';
    return text;
}

struct Line {
    Line *next;
    char *name;
    char *value;
    bool indented;
};

Line *load_lines()
{
    std::array<char, 1024> text{};
    Line *first = nullptr;
    Line **end = &first;
    FILE *file = fopen(PATH, "re");
    while (fgets(text.data(), text.size(), file) != nullptr) {
        char *equals = strchr(text.data(), '=');
        if (equals != nullptr)
            *equals = '\0';
        const bool indented = text[0] == ' ';
        auto *line = static_cast<Line *>(malloc(sizeof(Line)));
        *line = {nullptr, strdup(trimmed(text.data())),
                 equals != nullptr ? strdup(trimmed(equals + 1)) : nullptr, indented};
        *end = line;
        end = &line->next;
    }
    fclose(file);
    return first;
}

void free_lines(Line *first)
{
    while (first != nullptr) {
        Line *line = first;
        first = line->next;
        free(line->name);
        free(line->value);
        free(line);
    }
}

void plain_load(benchmark::State &state)
{
    write_store(state.range(0));
    for ([[maybe_unused]] auto _ : state)
        free_lines(load_lines());
}

// Only in the group, as the store looks.
void plain_get(benchmark::State &state)
{
    const Store store(state);
    Line *lines = load_lines();
    std::array<char, SERVICE_STR_MAX> value{};
    for ([[maybe_unused]] auto _ : state) {
        const Line *line = lines;
        while (line->indented || strcmp(line->name, "group9") != 0)
            line = line->next;
        for (line = line->next; strcmp(line->name, store.last()) != 0;)
            line = line->next;
        benchmark::DoNotOptimize(strncpy(value.data(), line->value, value.size() - 1));
    }
    free_lines(lines);
}

void get(benchmark::State &state)
{
    const Store store(state);
    std::array<char, SERVICE_STR_MAX> value{};
    for ([[maybe_unused]] auto _ : state)
        benchmark::DoNotOptimize(qzlib_service_get_param(store.info(), "group9", store.last(), value.data()));
}

void set(benchmark::State &state)
{
    const Store store(state);
    for ([[maybe_unused]] auto _ : state)
        benchmark::DoNotOptimize(qzlib_service_set_param(store.info(), "group9", store.last(), "another"));
}

void save(benchmark::State &state)
{
    const Store store(state);
    for ([[maybe_unused]] auto _ : state)
        benchmark::DoNotOptimize(qzlib_service_saveto_file(store.info(), "/tmp/saved"));
}

BENCHMARK(load)->Arg(10)->Arg(100)->Arg(1000);
BENCHMARK(plain_load)->Arg(10)->Arg(100)->Arg(1000);
BENCHMARK(get)->Arg(100)->Arg(1000);
BENCHMARK(plain_get)->Arg(100)->Arg(1000);
BENCHMARK(set)->Arg(1000);
BENCHMARK(save)->Arg(100)->Arg(1000);

} // namespace

int main()
{
    return bench::run_comparisons({{"load/10", "plain_load/10", 1.2},
                                   {"load/100", "plain_load/100", 1.2},
                                   {"load/1000", "plain_load/1000", 1.2},
                                   {"load/1000", "load/100", 11},
                                   {"save/1000", "save/100", 11},
                                   {"get/100", "plain_get/100", 0},
                                   {"get/1000", "plain_get/1000", 1.2},
                                   {"set/1000", "get/1000", 1.2},
                                   {"get/1000", "get/100", 0},
                                   {"plain_get/1000", "plain_get/100", 0}});
}
