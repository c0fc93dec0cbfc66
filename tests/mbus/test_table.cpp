#include "mbus/bus_box.h"

namespace
{

using namespace support;

void expect_segment(int id, size_t size)
{
    shmid_ds status{};
    ASSERT_EQ(shmctl(id, IPC_STAT, &status), 0);
    EXPECT_EQ(status.shm_segsz, size);
    EXPECT_EQ(status.shm_perm.mode & 0777, 0666U);
}

TEST(Key, is_the_sum_of_the_bytes_as_signed_characters)
{
    const std::string z(1000, 'z');
    const Table<const char *, int> cases = {{"ab", 195},         {"ba", 195},         {"\xff", -1},
                                            {"a\x80", 97 - 128}, {z.c_str(), 122000}, {nullptr, -1}};
    for (const auto &[name, key] : cases)
        EXPECT_EQ(qzlib_mbus_name_to_key(name), key);
}

TEST(Share, is_created_attached_and_removed_by_the_last)
{
    SyslogSink sink;
    const int too_small = shmget(QZLIB_MBUS_SHARE_KEY, 100, IPC_CREAT | 0666);
    EXPECT_EQ(qzlib_mbus_share_init(), -1);
    EXPECT_EQ(sink.next(), "");
    shmctl(too_small, IPC_RMID, nullptr);
    qzlib_mbus_share_uninit(); // nothing to do
    EXPECT_EQ(mbus_share_memid, -1);
    EXPECT_EQ(qzlib_find_client_by_name("x"), nullptr);
    EXPECT_EQ(qzlib_client_set_flag(1), -1);
    EXPECT_EQ(qzlib_client_clear_flag(1), -1);

    ASSERT_EQ(qzlib_mbus_share_init(), 0);
    EXPECT_EQ(mbus_share_memid, shmget(0x01345324, 0, 0));
    expect_segment(mbus_share_memid, 8520);
    {
        const Segment other(0x01345324);
        qzlib_mbus_share_uninit();
        EXPECT_EQ(mbus_share, nullptr);
        EXPECT_EQ(mbus_share_memid, -1);
        EXPECT_EQ(shared_segments(), 1U) << "somebody is still attached";
    }
    ASSERT_EQ(qzlib_mbus_share_init(), 0);
    ASSERT_EQ(qzlib_mbus_share_init(), 0);
    qzlib_mbus_share_uninit();
    EXPECT_EQ(shared_segments(), 0U);
}

TEST(Find, compares_whole_names_without_case)
{
    const ServerEnd server;
    const std::string full(32, 'n'), longer(33, 'n');
    strncpy(server.record(2)->name, "Demo", 32);
    memcpy(server.record(3)->name, full.data(), 32);
    memset(&server.record(3)->server_handle, 'n', 16); // no terminator for a while
    strncpy(server.record(4)->name, "demo", 32);
    const Table<const char *, const mbus_client *> cases = {
        {"DEMO", server.record(2)}, // the first one
        {full.c_str(), server.record(3)}, {longer.c_str(), nullptr}, {"dem", nullptr},
        {"", server.record(0)}, // the first free one
    };
    for (const auto &[name, record] : cases)
        EXPECT_EQ(qzlib_find_client_by_name(name), record) << name;
}

TEST(ClientSegment, is_shared_by_both_sides_removed_by_the_last_or_refused)
{
    start_log("id");
    ServerEnd server;
    const std::string name(32, 'x'); // keyed by 32 characters
    mbus_client *record = server.add(name);
    const int id = shmget(32 * 'x', 0, 0);
    expect_segment(id, 534656);
    EXPECT_EQ(record->server_handle.id, id);
    EXPECT_NE(record->server_handle.address, 0U);
    EXPECT_TRUE(logged("<INFO>id:create " + name + " on server, memid=" + std::to_string(id) + "\n"));

    record->up_read = record->up_write = record->down_read = record->down_write = 17;
    Process([&] {
        connect_as(name.c_str());
        EXPECT_EQ(record->up_read + record->up_write + record->down_read + record->down_write, 0U);
        EXPECT_EQ(record->flags, 1U);
        EXPECT_EQ(qzlib_client_set_flag(0xf0), 0);
        EXPECT_EQ(qzlib_client_clear_flag(0x30), 0);
        EXPECT_EQ(record->flags, 0xc1U);
        qzlib_disconnect_mbus_server();
        EXPECT_EQ(mbus_share, nullptr);
        EXPECT_EQ(qzlib_client_set_flag(1), -1);
        EXPECT_EQ(qzlib_disconnect_mbus_server(), 0);
        EXPECT_TRUE(logged("<INFO>id:remove " + name + " on client\n"));

        connect_as(name.c_str());
        qzlib_mbus_share_uninit(); // which leaves nothing but disconnecting
        EXPECT_EQ(qzlib_mbus_write(nullptr, 0, nullptr, "x", 1), 0);
        EXPECT_TRUE(logged("<WARNING>id:mbus read fail, name:" + name + "\n"));
        EXPECT_EQ(qzlib_mbus_read_pkg(nullptr, 0), nullptr);
        EXPECT_EQ(qzlib_client_set_flag(1), -1);
        EXPECT_EQ(qzlib_disconnect_mbus_server(), 0);
    });
    for (const char code : {'\1', '\2', '\1', '\2'})
        EXPECT_EQ(server.control(), command(code, name));

    EXPECT_EQ(shmget(32 * 'x', 0, 0), id);
    qzlib_client_uninit(record);
    EXPECT_TRUE(logged("<INFO>id:remove " + name + " on server\n"));
    EXPECT_EQ(shmget(32 * 'x', 0, 0), -1);
    EXPECT_EQ(std::string(reinterpret_cast<char *>(&record->server_handle), 16), std::string(16, '\0'));
    qzlib_client_uninit(record); // again: nothing is attached
    qzlib_client_uninit(nullptr);
    EXPECT_EQ(qzlib_client_init(nullptr), -1);

    const int too_small = shmget('s', 100, IPC_CREAT | 0666);
    strcpy(record->name, "s");
    EXPECT_EQ(qzlib_client_init(record), -1);
    EXPECT_TRUE(logged("<ERROR>id:create share mem for s fail\n"));
    EXPECT_EQ(qzlib_client_init(server.record(1)), -1) << "a private segment would not be shared";
    shmctl(too_small, IPC_RMID, nullptr);
    EXPECT_EQ(shared_segments(), 1U);
}

TEST(Connect, fails_in_its_own_time_without_server_or_record)
{
    SyslogSink sink;
    EXPECT_EQ(qzlib_connect_mbus_server(nullptr), QZLIB_ERR_ARGUMENT);
    {
        const Stopwatch watch;
        EXPECT_EQ(qzlib_connect_mbus_server("demo"), -1);
        EXPECT_GE(watch.seconds(), 6) << "four attempts";
        EXPECT_LT(watch.punctual_seconds(), 8);
    }
    EXPECT_EQ(shared_segments(), 0U);

    const ServerEnd server;
    Process([] {
        const Stopwatch watch;
        EXPECT_EQ(qzlib_connect_mbus_server("demo"), -1);
        EXPECT_GE(watch.seconds(), 0.007);
        EXPECT_EQ(mbus_share, nullptr);
        EXPECT_EQ(mbus_share_memid, -1);
    });
    EXPECT_EQ(server.control(), command(1, "demo"));
    EXPECT_EQ(sink.next(), "");
}

} // namespace
