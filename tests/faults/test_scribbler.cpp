// A process that overwrites all shared memory of a bus at work, for QZ_SCRIBBLE seconds.
#include "support/case.h"

#include <qzlib.h>

#include <list>
#include <random>
#include <span>
#include <sys/mman.h>
#include <sys/shm.h>

namespace
{

using namespace support;
using Clock = std::chrono::steady_clock;

constexpr const char *NAMES[] = {"linkd", "modemd", "statusd"};

struct Shared {
    std::atomic<bool> scribbled;
    std::atomic<unsigned> ready;
    std::atomic<int64_t> longest_us;
};

void connect(const char *name)
{
    EXPECT_TRUE(eventually([name] { return qzlib_connect_mbus_server(name) == 0; })) << name;
}

void work(const char *name, Shared &shared)
{
    connect(name);
    std::minstd_rand random(static_cast<unsigned>(getpid()));
    [[maybe_unused]] volatile char touched = 0;
    const std::string payload(QZLIB_MBUS_PAYLOAD_MAX, 'p');
    for (++shared.ready; !shared.scribbled;) {
        const auto begin = Clock::now();
        const char *to = NAMES[random() % std::size(NAMES)];
        (void)qzlib_mbus_write(nullptr, 0, to, payload.data(),
                               1 + static_cast<int>(random() % payload.size()));
        const mbus_pkg *pkg = qzlib_mbus_read_pkg(nullptr, 1);
        const uint32_t length = pkg != nullptr ? pkg->length % 64 : 0;
        if (length > 0)
            touched = static_cast<const char *>(pkg->data)[length - 1];
        (void)qzlib_find_client_by_name(to);
        const auto us = std::chrono::duration_cast<std::chrono::microseconds>(Clock::now() - begin).count();
        shared.longest_us = std::max<int64_t>(shared.longest_us, us);
    }
    connect(name); // which leaves the bus first
    EXPECT_EQ(qzlib_mbus_write(nullptr, 1, name, "after all", 9), 9);
    const mbus_pkg *pkg = nullptr;
    while (pkg == nullptr || pkg->type != 1)
        pkg = qzlib_mbus_read_pkg(nullptr, 0);
    EXPECT_EQ(std::string(static_cast<const char *>(pkg->data), pkg->length), "after all");
    qzlib_disconnect_mbus_server();
}

// Words of any kind anywhere; every other time in the first 200 bytes of a record or a slot.
void scribble(const std::vector<std::span<char>> &places, std::chrono::seconds time)
{
    std::minstd_rand random(1);
    constexpr size_t STRIDES[] = {sizeof(mbus_client), QZLIB_MBUS_SLOT_SIZE};
    for (const auto end = Clock::now() + time; Clock::now() < end;)
        for (int i = 0; i < 1000; ++i) {
            const size_t part = random() % places.size();
            const std::span<char> place = places[part];
            size_t at = random() % place.size();
            if (i % 2 == 0) // the table is the first
                at =
                    std::min(at / STRIDES[part != 0] * STRIDES[part != 0] + random() % 200, place.size() - 4);
            const auto word = static_cast<uint32_t>(random() << (random() % 32));
            memcpy(&place[at / 4 * 4], &word, sizeof word);
        }
}

TEST(Scribbler, over_table_rings_names_and_conditions_stops_nobody)
{
    const std::string before = remains();
    const char *given = getenv("QZ_SCRIBBLE");
    auto *shared = static_cast<Shared *>(
        mmap(nullptr, sizeof(Shared), PROT_READ | PROT_WRITE, MAP_SHARED | MAP_ANONYMOUS, -1, 0));
    {
        const Process server({"mbusd", "--quiet", "--log", "/tmp/mbusd.log"}, "/tmp/output");
        ASSERT_TRUE(eventually([] { return access(QZLIB_MBUS_SOCKET, F_OK) == 0; }));
        std::list<Process> clients;
        for (const char *name : NAMES)
            clients.emplace_back([=] { work(name, *shared); });
        ASSERT_TRUE(eventually([=] { return shared->ready == std::size(NAMES); }));
        std::vector<std::span<char>> places;
        const auto attach = [&places](int key, size_t size) {
            places.emplace_back(static_cast<char *>(shmat(shmget(key, 0, 0), nullptr, 0)), size);
        };
        attach(QZLIB_MBUS_SHARE_KEY, QZLIB_MBUS_SHARE_SIZE);
        for (const char *name : NAMES)
            attach(qzlib_mbus_name_to_key(name), QZLIB_MBUS_SEGMENT_SIZE);
        scribble(places, std::chrono::seconds(given != nullptr ? atoi(given) : 2));
        for (const std::span<char> place : places)
            shmdt(place.data());
        shared->scribbled = true; // which ends the clients, and the server goes after them
    }
    EXPECT_LT(shared->longest_us, patient(std::chrono::microseconds(2'000'000)).count());
    EXPECT_EQ(remains(), before);
    munmap(shared, sizeof *shared);
}

} // namespace
