#include "mbus/bus_box.h"
#include "support/log.h"

#include <chrono>
#include <climits>

namespace
{

using namespace support;

size_t segments()
{
    shm_info info{};
    EXPECT_GE(shmctl(0, SHM_INFO, reinterpret_cast<shmid_ds *>(&info)), 0);
    return static_cast<size_t>(info.used_ids);
}

TEST(Key, is_the_sum_of_the_bytes_as_signed_characters)
{
    EXPECT_EQ(qzlib_mbus_name_to_key("ab"), 195);
    EXPECT_EQ(qzlib_mbus_name_to_key("ba"), 195);
    EXPECT_EQ(qzlib_mbus_name_to_key("\xff"), -1);
    EXPECT_EQ(qzlib_mbus_name_to_key("a\x80"), 97 - 128);
    EXPECT_EQ(qzlib_mbus_name_to_key(std::string(1000, 'z').c_str()), 122000);
    EXPECT_EQ(qzlib_mbus_name_to_key(nullptr), -1);
}

TEST(Share, is_created_attached_and_removed_by_the_last)
{
    qzlib_mbus_share_uninit(); // nothing to do
    EXPECT_EQ(mbus_share_memid, -1);
    EXPECT_EQ(qzlib_find_client_by_name("x"), nullptr);
    EXPECT_EQ(qzlib_client_set_flag(1), -1);
    EXPECT_EQ(qzlib_client_clear_flag(1), -1);

    ASSERT_EQ(qzlib_mbus_share_init(), 0);
    shmid_ds status{};
    ASSERT_EQ(shmctl(shmget(0x01345324, 0, 0), IPC_STAT, &status), 0);
    EXPECT_EQ(status.shm_segsz, 8520U);
    EXPECT_EQ(status.shm_perm.mode & 0777, 0666U);
    EXPECT_EQ(mbus_share_memid, shmget(0x01345324, 0, 0));
    {
        const RawSegment other(SHARE_KEY);
        qzlib_mbus_share_uninit();
        EXPECT_EQ(mbus_share, nullptr);
        EXPECT_EQ(mbus_share_memid, -1);
        EXPECT_EQ(segments(), 1U) << "somebody is still attached";
    }
    ASSERT_EQ(qzlib_mbus_share_init(), 0);
    ASSERT_EQ(qzlib_mbus_share_init(), 0);
    qzlib_mbus_share_uninit();
    EXPECT_EQ(segments(), 0U);
}

TEST(Share, of_a_wrong_size_is_refused_without_a_message)
{
    SyslogSink sink;
    const int id = shmget(SHARE_KEY, 100, IPC_CREAT | 0666);
    EXPECT_EQ(qzlib_mbus_share_init(), -1);
    EXPECT_EQ(sink.next(), "");
    shmctl(id, IPC_RMID, nullptr);
}

TEST(Find, compares_whole_names_without_case)
{
    const ServerEnd server;
    const std::string full(32, 'n');
    strncpy(server.record(2)->name, "Demo", 32);
    memcpy(server.record(3)->name, full.data(), 32);
    memset(&server.record(3)->server_handle, 'n', 16); // no terminator for a while
    strncpy(server.record(4)->name, "demo", 32);
    EXPECT_EQ(qzlib_find_client_by_name("DEMO"), server.record(2)) << "the first one";
    EXPECT_EQ(qzlib_find_client_by_name(full.c_str()), server.record(3));
    EXPECT_EQ(qzlib_find_client_by_name((full + "n").c_str()), nullptr);
    EXPECT_EQ(qzlib_find_client_by_name("dem"), nullptr);
    EXPECT_EQ(qzlib_find_client_by_name(""), server.record(0)) << "the first free one";
}

TEST(ClientSegment, is_shared_by_both_sides_and_removed_by_the_last)
{
    const LogFile log;
    ServerEnd server;
    const std::string name(32, 'x'); // keyed by 32 characters
    mbus_client *record = server.add(name.c_str());
    const int id = shmget(32 * 'x', 0, 0);
    shmid_ds status{};
    ASSERT_EQ(shmctl(id, IPC_STAT, &status), 0);
    EXPECT_EQ(status.shm_segsz, 534656U);
    EXPECT_EQ(status.shm_perm.mode & 0777, 0666U);
    EXPECT_EQ(record->server_handle.id, id);
    EXPECT_NE(record->server_handle.address, 0U);
    EXPECT_TRUE(LogFile::has("<INFO>id:create " + name + " on server, memid=" + std::to_string(id)));

    record->up_read = record->up_write = record->down_read = record->down_write = 17;
    const Child client([&] {
        connect_as(name.c_str());
        EXPECT_EQ(record->up_read + record->up_write + record->down_read + record->down_write, 0U);
        EXPECT_EQ(RawSegment(SHARE_KEY).word(record_at(0) + 160), 1U);
        EXPECT_EQ(qzlib_client_set_flag(0xf0), 0);
        EXPECT_EQ(qzlib_client_clear_flag(0x30), 0);
        EXPECT_EQ(RawSegment(SHARE_KEY).word(record_at(0) + 160), 0xc1U);
        qzlib_disconnect_mbus_server();
        EXPECT_EQ(mbus_share, nullptr);
        EXPECT_EQ(qzlib_client_set_flag(1), -1);
        EXPECT_EQ(qzlib_disconnect_mbus_server(), 0);
    });
    ASSERT_EQ(const_cast<Child &>(client).wait(), 0);
    EXPECT_TRUE(LogFile::has("<INFO>id:remove " + name + " on client"));
    const std::string first = server.control();
    const std::string second = server.control();
    EXPECT_EQ(first, std::string("\1\0\0\0", 4) + name);
    EXPECT_EQ(second, std::string("\2\0\0\0", 4) + name);

    EXPECT_EQ(shmget(32 * 'x', 0, 0), id);
    qzlib_client_uninit(record);
    EXPECT_TRUE(LogFile::has("<INFO>id:remove " + name + " on server"));
    EXPECT_EQ(shmget(32 * 'x', 0, 0), -1);
    EXPECT_EQ(std::string(reinterpret_cast<char *>(&record->server_handle), 16), std::string(16, '\0'));
    qzlib_client_uninit(record); // again: nothing is attached
    qzlib_client_uninit(nullptr);
    EXPECT_EQ(qzlib_client_init(nullptr), -1);
}

TEST(ClientSegment, that_cannot_be_had_is_reported)
{
    const LogFile log;
    const ServerEnd server;
    const int id = shmget('s', 100, IPC_CREAT | 0666);
    strcpy(server.record(0)->name, "s");
    EXPECT_EQ(qzlib_client_init(server.record(0)), -1) << "too small";
    EXPECT_TRUE(LogFile::has("<ERROR>id:create share mem for s fail"));
    EXPECT_EQ(qzlib_client_init(server.record(1)), -1) << "a private segment would not be shared";
    shmctl(id, IPC_RMID, nullptr);
    EXPECT_EQ(segments(), 1U);
}

TEST(Connect, leaves_nothing_but_disconnecting_once_the_table_is_detached)
{
    ServerEnd server;
    server.add("demo");
    const Child client([] {
        const LogFile log;
        connect_as("demo");
        qzlib_mbus_share_uninit();
        EXPECT_EQ(qzlib_mbus_write(nullptr, 0, nullptr, "x", 1), 0);
        EXPECT_TRUE(LogFile::has("<WARNING>id:mbus read fail, name:demo"));
        EXPECT_EQ(qzlib_mbus_read_pkg(nullptr, 0), nullptr);
        EXPECT_EQ(qzlib_client_set_flag(1), -1);
        EXPECT_EQ(qzlib_disconnect_mbus_server(), 0);
        connect_as("demo");
        EXPECT_EQ(qzlib_mbus_write(nullptr, 0, nullptr, "x", 1), 1);
    });
}

TEST(Connect, fails_in_its_own_time_without_server_or_record)
{
    using Clock = std::chrono::steady_clock;
    SyslogSink sink;
    EXPECT_EQ(qzlib_connect_mbus_server(nullptr), QZLIB_ERR_ARGUMENT);
    const auto start = Clock::now();
    EXPECT_EQ(qzlib_connect_mbus_server("demo"), -1);
    const auto taken = Clock::now() - start;
    EXPECT_GE(taken, std::chrono::seconds(6)) << "four attempts";
    EXPECT_LT(taken, std::chrono::seconds(8));
    EXPECT_EQ(segments(), 0U);

    ServerEnd server;
    const Child client([&] {
        const auto begin = Clock::now();
        EXPECT_EQ(qzlib_connect_mbus_server("demo"), -1);
        EXPECT_GE(Clock::now() - begin, std::chrono::milliseconds(7));
        EXPECT_EQ(mbus_share, nullptr);
        EXPECT_EQ(mbus_share_memid, -1);
    });
    const_cast<Child &>(client).wait();
    EXPECT_EQ(server.control(), std::string("\1\0\0\0demo", 8) + std::string(28, '\0'));
    EXPECT_EQ(sink.next(), "");
}

} // namespace
