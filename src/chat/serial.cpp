// SPDX-License-Identifier: MIT
#include "base/export.h"
#include "base/owners.h"
#include "log/signals.h"

#include <algorithm>
#include <csignal>
#include <qzlib.h>
#include <span>
#include <sys/ioctl.h>
#include <termios.h>

#define CHAT_LOG(level, ...) debug_msg(level, "vq_chat", __LINE__, __VA_ARGS__)

// The signal actions that the last dev_init() or dev_close() found.
QZ_EXPORT struct sigaction oldhup;
QZ_EXPORT struct sigaction oldint;
QZ_EXPORT struct sigaction oldquit;
QZ_EXPORT struct sigaction oldpipe;
QZ_EXPORT struct sigaction oldalrm;
QZ_EXPORT struct sigaction oldterm;

// Writable: daemons patch rates in. The second 19200 and 38400 are never reached and stay.
QZ_EXPORT qzlib_speed speeds_list[23] = {
    {50, 1},      {75, 2},          {110, 3},         {134, 4},         {150, 5},         {200, 6},
    {300, 7},     {600, 8},         {1200, 9},        {1800, 0xa},      {2400, 0xb},      {4800, 0xc},
    {9600, 0xd},  {19200, 0xe},     {38400, 0xf},     {57600, 0x1001},  {115200, 0x1002}, {19200, 0xe},
    {38400, 0xf}, {230400, 0x1003}, {460800, 0x1004}, {921600, 0x1007}, {0, 0},
};

namespace
{

using qz::base::ErrnoKeeper;
using qz::base::UniqueFd;
using qz::log::held_signals;

constexpr int OPEN_ATTEMPTS = 4;
constexpr time_t OPEN_PAUSE_S = 3;
constexpr unsigned DEVICE_LIMIT_S = 5;
constexpr time_t DTR_PULSE_S = 1;

// The codes of both tables are the kernel's on x86, ARM and MIPS, and in order those of LIBC_SPEEDS:
// 0 to 0xf, 0x1001 to 0x100f. A libc may have values of its own, such as plain rates.
constexpr speed_t LIBC_SPEEDS[] = {
    B0,      B50,      B75,      B110,     B134,     B150,     B200,     B300,     B600,     B1200,   B1800,
    B2400,   B4800,    B9600,    B19200,   B38400,   B57600,   B115200,  B230400,  B460800,  B500000, B576000,
    B921600, B1000000, B1152000, B1500000, B2000000, B2500000, B3000000, B3500000, B4000000,
};
constexpr size_t LAST_OLD_CODE = 0xf;
constexpr uint32_t NEW_CODES = 0x1000;

constexpr uint32_t code_at(size_t place)
{
    return static_cast<uint32_t>(place <= LAST_OLD_CODE ? place : NEW_CODES + place - LAST_OLD_CODE);
}

constexpr bool codes_are_libcs()
{
    for (size_t place = 0; place < std::size(LIBC_SPEEDS); ++place) {
        if (LIBC_SPEEDS[place] != code_at(place))
            return false;
    }
    return true;
}

// What cfsetospeed() takes for a code; one that a daemon made up goes through as it is.
speed_t to_libc(uint32_t code)
{
    if constexpr (!codes_are_libcs()) {
        for (size_t place = 0; place < std::size(LIBC_SPEEDS); ++place) {
            if (code == code_at(place))
                return LIBC_SPEEDS[place];
        }
    }
    return code;
}

// Row 0 is never searched. 230400 stands twice, and 2000000 (0x100b) is absent on purpose.
constexpr qzlib_speed uart_baud_table[31] = {
    {0, 0},
    {50, 1},
    {75, 2},
    {110, 3},
    {134, 4},
    {150, 5},
    {200, 6},
    {300, 7},
    {600, 8},
    {1200, 9},
    {1800, 0xa},
    {2400, 0xb},
    {4800, 0xc},
    {9600, 0xd},
    {19200, 0xe},
    {38400, 0xf},
    {57600, 0x1001},
    {115200, 0x1002},
    {230400, 0x1003},
    {230400, 0x1003},
    {460800, 0x1004},
    {500000, 0x1005},
    {576000, 0x1006},
    {921600, 0x1007},
    {1000000, 0x1008},
    {1152000, 0x1009},
    {1500000, 0x100a},
    {2500000, 0x100c},
    {3000000, 0x100d},
    {3500000, 0x100e},
    {4000000, 0x100f},
};
constexpr std::span<const qzlib_speed> UART_SPEEDS = std::span(uart_baud_table).subspan<1>();

// Written by the signal handler; 0 at the start of every guarded section.
volatile sig_atomic_t chat_last_signal = 0;

// The settings that dev_init() found and dev_close() writes back: one device at a time.
termios chat_saved_termios;

struct TakenSignal {
    int number;
    struct sigaction *old_action;
};

// In the order of installation. The first three stay with the handler until dev_close(): a
// line that hangs up and an alarm during a write must not end the daemon.
constexpr TakenSignal TAKEN[] = {{SIGHUP, &oldhup},   {SIGALRM, &oldalrm}, {SIGINT, &oldint},
                                 {SIGQUIT, &oldquit}, {SIGPIPE, &oldpipe}, {SIGTERM, &oldterm}};
constexpr size_t GUARDED = 3; // from here on: while a section is guarded only
constexpr size_t END = std::size(TAKEN);

// All actions from that place on.
void take_signals(size_t place)
{
    struct sigaction action = {};
    action.sa_handler = chat_signal_handler;
    sigemptyset(&action.sa_mask);
    action.sa_flags = 0; // no SA_RESTART: the alarm has to break off a blocked call
    for (; place < END; ++place) {
        sigaddset(&held_signals.set, TAKEN[place].number);
        __atomic_store_n(&held_signals.any, true, __ATOMIC_RELEASE);
        (void)sigaction(TAKEN[place].number, &action, TAKEN[place].old_action);
    }
}

void restore_signals(size_t place, size_t end)
{
    for (; place < end; ++place)
        (void)sigaction(TAKEN[place].number, TAKEN[place].old_action, nullptr);
}

// The alarm's action comes back after that of the keyboard's interrupt.
void restore_at_close()
{
    restore_signals(0, 1);
    restore_signals(2, 3);
    restore_signals(1, 2);
    restore_signals(GUARDED, END);
}

void begin_guard()
{
    chat_last_signal = 0;
    alarm(DEVICE_LIMIT_S);
}

bool alarm_fired()
{
    return chat_last_signal == SIGALRM;
}

// Sleeps the whole time even when signals arrive.
void pause_for(time_t seconds)
{
    const ErrnoKeeper keeper;
    timespec left{seconds, 0};
    while (nanosleep(&left, &left) != 0 && errno == EINTR) {
    }
}

// The result of the last open(): 0 and less are failures. A descriptor 0 is held while the
// next attempts run, so that they get another one, and does not outlive the call.
int open_device(const char *path, int flags)
{
    UniqueFd descriptor_zero;
    int fd = -1;
    for (int failures = 0; failures < OPEN_ATTEMPTS; ++failures) {
        fd = open(path, flags); // the caller's flags and no others, hence not close-on-exec
        if (fd > 0)
            return qz::base::move_up(fd, (flags & O_CLOEXEC) != 0 ? F_DUPFD_CLOEXEC : F_DUPFD);
        if (fd == 0)
            descriptor_zero.reset(fd);
        CHAT_LOG(QZLIB_LOG_ERROR, "open the device(%s) error, try again %d times", path, failures);
        pause_for(OPEN_PAUSE_S);
    }
    CHAT_LOG(QZLIB_LOG_ERROR, "open the device(%s) error", path);
    return fd;
}

// Failures are not reported: a USB tty may not have the line.
void raise_dtr(int fd)
{
    const int lines = TIOCM_DTR;
    (void)ioctl(fd, TIOCMBIS, &lines);
}

void drop_dtr(int fd)
{
    const int lines = TIOCM_DTR;
    (void)ioctl(fd, TIOCMBIC, &lines);
}

void set_speed(termios &settings, int baud)
{
    const auto end = std::ranges::find_if(
        speeds_list, [](const qzlib_speed &row) { return row.baud == 0 && row.code == 0; });
    const auto row =
        std::ranges::find(std::begin(speeds_list), end, static_cast<uint32_t>(baud), &qzlib_speed::baud);
    if (row == end) {
        CHAT_LOG(QZLIB_LOG_ERROR, "speed %d not supported", baud);
        return;
    }
    if (row->code == 0)
        return;
    const speed_t speed = to_libc(row->code);
    (void)cfsetospeed(&settings, speed);
    (void)cfsetispeed(&settings, speed);
}

// Raw, eight bits, one stop bit, hardware flow control; speed and PARODD as they were found.
termios line_settings(const termios &found, int baud)
{
    constexpr tcflag_t CLEARED = CSIZE | CSTOPB | PARENB | HUPCL;
    termios settings = found;
    settings.c_iflag = IGNBRK | IGNPAR;
    settings.c_oflag = 0;
    settings.c_lflag = 0;
    settings.c_cflag &= ~CLEARED;
    settings.c_cflag |= CS8 | CREAD | CLOCAL | CRTSCTS;
    settings.c_cc[VMIN] = 1;
    settings.c_cc[VTIME] = 0;
    if (baud != 0)
        set_speed(settings, baud);
    return settings;
}

void configure_line(int fd, int baud)
{
    termios found;
    if (tcgetattr(fd, &found) != 0) {
        CHAT_LOG(QZLIB_LOG_ERROR, "tcgetattr tty(%d) error", fd);
        return;
    }
    chat_saved_termios = found;
    const termios settings = line_settings(found, baud);
    (void)tcsetattr(fd, TCSAFLUSH, &settings); // a device that refuses may still talk
}

void set_up_device(int fd, int baud)
{
    raise_dtr(fd);
    configure_line(fd, baud);
    drop_dtr(fd);
    pause_for(DTR_PULSE_S);
    raise_dtr(fd);
}

int find_by_baud(std::span<const qzlib_speed> rows, int baud)
{
    const auto row = std::ranges::find(rows, static_cast<uint32_t>(baud), &qzlib_speed::baud);
    return row == rows.end() ? -1 : static_cast<int>(row->code);
}

int find_by_code(std::span<const qzlib_speed> rows, int code)
{
    const auto row = std::ranges::find(rows, static_cast<uint32_t>(code), &qzlib_speed::code);
    return row == rows.end() ? -1 : static_cast<int>(row->baud);
}

} // namespace

QZ_EXPORT void chat_signal_handler(int signal)
{
    chat_last_signal = signal;
    CHAT_LOG(QZLIB_LOG_ERROR, "vq_chat receive the signal(%d)", signal);
}

QZ_EXPORT int dev_init(const char *path, int flags, int baud)
{
    const int fd = open_device(path, flags);
    if (fd <= 0)
        return fd;

    take_signals(0);
    begin_guard();
    set_up_device(fd, baud);
    alarm(0);
    restore_signals(GUARDED, END);

    if (alarm_fired()) {
        CHAT_LOG(QZLIB_LOG_ERROR, "device(%s) maybe die", path);
        restore_signals(0, GUARDED);
        chat_last_signal = 0;
        close(fd);
        return -1;
    }
    CHAT_LOG(QZLIB_LOG_INFO, "open the device(%s) succeed", path);
    return fd;
}

QZ_EXPORT int dev_close(int fd)
{
    if (fd < 0)
        return 0;

    take_signals(GUARDED);
    begin_guard();
    (void)tcsetattr(fd, TCSAFLUSH, &chat_saved_termios);
    alarm(0);
    close(fd);

    const bool hung = alarm_fired();
    if (hung)
        CHAT_LOG(QZLIB_LOG_ERROR, "receive the alarm signal, device maybe die");
    else
        CHAT_LOG(QZLIB_LOG_INFO, "close the device(%d) succeed", fd);
    restore_at_close();
    return hung ? -1 : 0;
}

QZ_EXPORT int qzlib_uart_baud_to_flag(int baud)
{
    return baud == 0 ? 0 : find_by_baud(UART_SPEEDS, baud);
}

QZ_EXPORT int qzlib_uart_flag_to_baud(int code)
{
    return code == 0 ? 0 : find_by_code(UART_SPEEDS, code);
}

// Placeholders: one body under two names.
QZ_EXPORT int qzlib_set_uart_baud_rate(int /*fd*/, ...)
{
    return 0;
}

extern "C" QZ_EXPORT int qzlib_get_uart_baud_rate(int fd, ...)
    __attribute__((alias("qzlib_set_uart_baud_rate")));
