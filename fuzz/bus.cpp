// The bus with everything in shared memory hostile: this process is a client of mbusd, a second server that
// serves records of the table, and who writes whatever it likes into table, rings and the control socket.
#include "input.h"

#include <array>
#include <atomic>
#include <csignal>
#include <memory>
#include <qzlib.h>
#include <sys/shm.h>
#include <sys/stat.h>
#include <sys/wait.h>
#include <thread>

namespace
{

using namespace fuzz;

constexpr const char *OWN = "fuzz";
constexpr int RUNS_OF_A_SERVER = 500;
constexpr size_t FIRST_PEER = 20; // of the records that are served here
constexpr size_t PEERS = 4;

// A server's life. At its end it is to be there still, to carry a packet, and to leave nothing.
class Bus
{
public:
    Bus()
    {
        if (server_ == 0) {
            execl(BINARY_DIR "/bin/mbusd", "mbusd", "--log", "/tmp/mbusd.log", nullptr);
            _exit(127);
        }
        while (access(QZLIB_MBUS_SOCKET, F_OK) != 0)
            usleep(1000);
        while (qzlib_connect_mbus_server(OWN) != 0) {
        }
        own_ = qzlib_find_client_by_name(OWN);
        memcpy(clean_.data(), mbus_share, clean_.size());
        rings_ = static_cast<char *>(shmat(shmget(qzlib_mbus_name_to_key(OWN), 0, 0), nullptr, 0));
    }
    ~Bus()
    {
        restart_input();
        while (qzlib_connect_mbus_server(OWN) != 0 || qzlib_find_client_by_name(OWN) == nullptr) {
        }
        require(qzlib_mbus_write(nullptr, 1, OWN, "after all", 9) == 9);
        const mbus_pkg *pkg = nullptr;
        while (pkg == nullptr || pkg->type != 1)
            pkg = qzlib_mbus_read_pkg(nullptr, 0);
        require(pkg->length == 9 && memcmp(pkg->data, "after all", 9) == 0);
        shmdt(rings_);
        qzlib_disconnect_mbus_server();
        int status = 0;
        kill(server_, SIGTERM);
        require(waitpid(server_, &status, 0) == server_ && status == 0);
    }
    Bus(const Bus &) = delete;
    Bus &operator=(const Bus &) = delete;

    // The table as it was, for an input to be reproduced.
    void restart_input()
    {
        require(waitpid(server_, nullptr, WNOHANG) == 0);
        for (size_t i = 0; i < PEERS; ++i)
            qzlib_client_uninit(peer(i));
        memcpy(mbus_share, clean_.data(), clean_.size());
    }
    [[nodiscard]] static char *table() { return static_cast<char *>(mbus_share); }
    [[nodiscard]] static mbus_client *peer(size_t index)
    {
        return &static_cast<mbus_share_segment *>(mbus_share)->clients[FIRST_PEER + index % PEERS];
    }
    [[nodiscard]] char *rings() const { return rings_; }
    [[nodiscard]] mbus_client *own() const { return own_; }

private:
    pid_t server_ = fork();
    mbus_client *own_ = nullptr;
    char *rings_ = nullptr;
    std::array<char, QZLIB_MBUS_SHARE_SIZE> clean_{};
};

void store(char *segment, size_t size, Input &in)
{
    const size_t at = in.number<uint32_t>() % (size - 64) / 4 * 4;
    if (const std::string bytes = in.bytes(in.number() % 60); !bytes.empty())
        memcpy(segment + at, bytes.data(), bytes.size());
}

void look_at(const mbus_pkg *pkg)
{
    if (pkg == nullptr)
        return;
    const std::string payload(static_cast<const char *>(pkg->data),
                              std::min<uint32_t>(pkg->length, QZLIB_MBUS_SLOT_SIZE));
    static volatile size_t sum;
    for (const char c : payload)
        sum = sum + static_cast<size_t>(c);
    require(sizeof(void *) == 4 || (pkg->type < 4 && pkg->length >= 1 && pkg->length == payload.size()));
}

// A waiting read ends once the indices say that there is a packet, whatever else they say.
void wait_for_packet(const Bus &bus)
{
    std::atomic<bool> done = false;
    const std::thread writer([&] {
        for (uint32_t i = 1; !done; ++i) {
            __atomic_store_n(&bus.own()->down_write, i, __ATOMIC_SEQ_CST);
            usleep(500);
        }
    });
    look_at(qzlib_mbus_read_pkg(nullptr, 0));
    done = true;
    const_cast<std::thread &>(writer).join();
}

} // namespace

void take(Input in)
{
    static std::unique_ptr<Bus> bus;
    static int runs = 0;
    if (bus == nullptr || runs++ % RUNS_OF_A_SERVER == RUNS_OF_A_SERVER - 1) {
        mkdir("/tmp/config", 0755);
        write_file("/tmp/config/cli.conf", "log msg-level debug\n");
        openmsg_com("/tmp/fuzz.log", 0, OWN, 0);
        bus.reset();
        bus = std::make_unique<Bus>();
    }
    static std::array<char, QZLIB_MBUS_PAYLOAD_MAX> payload;
    bus->restart_input();
    for (int waits = 2; !in.is_empty();) {
        const unsigned action = in.number() % 11;
        mbus_client *const peer = Bus::peer(in.number());
        if (action == 0)
            store(Bus::table(), QZLIB_MBUS_SHARE_SIZE, in);
        else if (action == 1)
            store(bus->rings(), QZLIB_MBUS_SEGMENT_SIZE, in);
        else if (action == 2 || action == 3) // the indices and the header of a slot
            store(action == 2 ? bus->own()->name : peer->name, sizeof(mbus_client), in);
        else if (action == 4)
            store(bus->rings() + in.number() % 128 * QZLIB_MBUS_SLOT_SIZE, 64 + QZLIB_MBUS_SLOT_PAYLOAD, in);
        else if (action == 5) {
            const int type = in.number() % 5;
            const std::string name = in.text();
            (void)qzlib_mbus_write(nullptr, type, name.c_str(), payload.data(), in.number<uint16_t>() % 4097);
        } else if (action == 6) {
            mbus_pkg pkg = {in.number(), {}, in.number<uint16_t>() % 4100U, payload.data()};
            in.bytes(64).copy(pkg.name, 64);
            (void)qzlib_mbus_write_pkg(peer, &pkg);
        } else if (action == 7)
            look_at(in.number() % 8 != 0 ? qzlib_mbus_read_pkg(nullptr, 1) : qzlib_mbus_read_pkg(peer, 1));
        else if (action == 8) {
            std::string datagram = in.bytes(in.number() % 40);
            if (in.number() % 8 != 0) {
                const int32_t command = 1 + in.number() % 2;
                datagram = std::string(reinterpret_cast<const char *>(&command), 4) + datagram;
                datagram.resize(sizeof(mbus_ctl_msg));
            }
            (void)qzlib_send_to_unixdomain(QZLIB_MBUS_SOCKET, datagram.data(),
                                           static_cast<int>(datagram.size()));
        } else if (action == 9) {
            if (in.number() % 4 == 0)
                qzlib_client_uninit(peer);
            else
                (void)qzlib_client_init(peer);
            (void)qzlib_find_client_by_name(in.text().c_str());
        } else if (waits-- > 0)
            wait_for_packet(*bus);
    }
}
