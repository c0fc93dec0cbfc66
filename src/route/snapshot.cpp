// SPDX-License-Identifier: MIT
#include "base/export.h"
#include "base/text.h"
#include "route/command.h"
#include "route/words.h"

#include <cstdlib>
#include <qzlib.h>

namespace
{

using qz::base::copy_text;
using qz::route::CommandOutput;
using qz::route::split_words;

constexpr size_t LINE_SIZE = 128; // longer lines come in pieces
constexpr size_t ROUTE_TABLE_LINE_SIZE = 512;
constexpr size_t INTERFACE_NAME_SIZE = 32;

#if UINTPTR_MAX > UINT32_MAX
static_assert(sizeof(srtinfo) == 160 && offsetof(srtinfo, next) == 152);
#else
static_assert(sizeof(srtinfo) == 152 && offsetof(srtinfo, next) == 148);
#endif
static_assert(offsetof(srtinfo, prio) == 8 && offsetof(srtinfo, source) == 12 &&
              offsetof(srtinfo, dest) == 44 && offsetof(srtinfo, dest_ip) == 68 &&
              offsetof(srtinfo, dest_mask) == 84 && offsetof(srtinfo, gateway) == 100 &&
              offsetof(srtinfo, dev) == 116);

// The front of the records that it is reported in.
struct srt_rule {
    char table[sizeof srtinfo::table];
    int32_t prio;
    char source[sizeof srtinfo::source];
};
static_assert(offsetof(srt_rule, prio) == offsetof(srtinfo, prio));
static_assert(offsetof(srt_rule, source) == offsetof(srtinfo, source) &&
              sizeof(srt_rule) == offsetof(srtinfo, dest));

// "PRIO: from SOURCE lookup TABLE". False for a rule that is not reported: one for every
// source, and one whose table name does not fit (cut, it would name another table).
bool parse_rule(const char *line, srt_rule &rule)
{
    const auto [priority, from, source, lookup, table] = split_words<5>(line);
    rule.prio = qz::base::read_number(priority.data()); // "32765:" gives 32765
    if (source == "all" || rule.prio < 0 || table.size() >= sizeof rule.table)
        return false;
    copy_text(rule.table, table);
    copy_text(rule.source, source);
    return true;
}

// "DEST via GATEWAY dev DEV ..." or "DEST dev DEV ...". Lines of other forms (blackhole, nexthop)
// are taken word by word all the same.
void parse_route(const char *line, srtinfo &route)
{
    const bool has_gateway = strstr(line, "via") != nullptr;
    const auto words = split_words<5>(line);
    copy_text(route.dest, words[0] == "default" ? "0.0.0.0/0" : words[0]);
    copy_text(route.gateway, has_gateway && !words[2].empty() ? words[2] : "0.0.0.0");
    copy_text(route.dev, has_gateway ? words[4] : words[2]);
}

// A list that is built at its end and handed to the caller.
class SnapshotList
{
public:
    // Takes a route's line. Drops it when there is no memory for the record.
    void srt_route_append(const srt_rule &rule, const char *line)
    {
        auto *record = static_cast<srtinfo *>(calloc(1, sizeof(srtinfo)));
        if (record == nullptr)
            return;
        memcpy(static_cast<void *>(record), &rule, sizeof rule);
        parse_route(line, *record);
        (void)qz_ccid2obsolete(record->dest, record->dest_ip, record->dest_mask, nullptr);
        *end_ = record;
        end_ = &record->next;
    }
    [[nodiscard]] srtinfo *head() const { return head_; }

private:
    srtinfo *head_ = nullptr;
    srtinfo **end_ = &head_;
};

void append_routes(SnapshotList &list, const srt_rule &rule)
{
    const char *table = rule.table[0] != '\0' ? rule.table : nullptr; // without one: "ip route ls table"
    const char *words[] = {"ip", "route", "ls", "table", table, nullptr};
    CommandOutput routes(words);
    std::array<char, LINE_SIZE> line;
    while (routes.read_line(line))
        list.srt_route_append(rule, line.data());
}

// One line of "route -n".
struct TableLine {
    std::string_view destination;
    std::string_view mask;
    std::string_view interface;
    long long metric;
};

// False for a line that does not have all eight columns.
bool parse_table_line(char *line, TableLine &out)
{
    const auto [destination, gateway, mask, flags, metric, ref, use, interface] = split_words<8>(line);
    char *metric_end = nullptr;
    out.metric = strtoll(metric.data(), &metric_end, 10);
    if (interface.empty() || metric_end == metric.data())
        return false;
    out.destination = destination;
    out.mask = mask;
    out.interface = interface;
    // The words become texts of their own; each is followed by white space.
    line[destination.data() + destination.size() - line] = '\0';
    line[mask.data() + mask.size() - line] = '\0';
    return true;
}

// What was best so far. A longer prefix with a higher metric does not replace it and of equals
// the later line does: deliberate, daemons know this order.
class BestRoute
{
public:
    bool replace(const TableLine &line)
    {
        const int length = string2masklen(line.mask.data());
        if (length < length_ || line.metric > metric_)
            return false;
        length_ = length;
        metric_ = line.metric;
        return true;
    }

private:
    int length_ = 0;
    long long metric_ = 10000;
};

} // namespace

void qz::route::split_words(const char *text, std::span<std::string_view> words)
{
    constexpr const char *SPACE = " \t\n\v\f\r";
    for (std::string_view &word : words) {
        text += strspn(text, SPACE);
        word = {text, strcspn(text, SPACE)};
        text += word.size();
    }
}

QZ_EXPORT srtinfo *qz_srtinfo_stat(void)
{
    const char *words[] = {"ip", "rule", "ls", nullptr};
    CommandOutput rules(words);
    SnapshotList list;
    std::array<char, LINE_SIZE> line;
    while (rules.read_line(line)) {
        srt_rule rule{}; // records hold all of it
        if (parse_rule(line.data(), rule))
            append_routes(list, rule);
    }
    return list.head();
}

QZ_EXPORT void qz_srtinfo_free(srtinfo **list)
{
    while (list != nullptr && *list != nullptr) {
        srtinfo *record = *list;
        *list = record->next;
        free(record);
    }
}

QZ_EXPORT int qzlib_get_route_interface(const char *ip, char *ifname)
{
    if (ip == nullptr || ifname == nullptr)
        return -1;
    const char *words[] = {"route", "-n", nullptr};
    CommandOutput table(words);
    std::array<char, ROUTE_TABLE_LINE_SIZE> line;
    if (!table.read_line(line) || !table.read_line(line)) // the two heading lines
        return -1;
    BestRoute best;
    int result = -1;
    TableLine route;
    while (table.read_line(line)) {
        if (!parse_table_line(line.data(), route) ||
            srt_ipinnet_judge(route.destination.data(), route.mask.data(), ip) != 0 || !best.replace(route))
            continue;
        copy_text({ifname, INTERFACE_NAME_SIZE}, route.interface);
        result = 0;
    }
    return result;
}
