/* SPDX-License-Identifier: MIT */
/**
 * @file qzlib.h
 * The shared utility library of the router's daemons: the whole public interface.
 *
 * Plain C (C99), and clean C++. Every function runs on its caller's thread; there is no
 * main loop and nothing to initialise. Functions return 0, a count, a length or a
 * descriptor on success and one of the negative codes below on failure, unless their own
 * text says otherwise. Names are part of the interface as they stand, misspelt ones
 * included (cli_find_paremeter, qzlib_event_unint, qzlib_str_tolowr, ...).
 *
 * Sections, in this order, each named as the folder of src/ that defines it:
 *   str      strings and addresses          bootenv  boot environment
 *   log      message log,                   modem    modem status, local messages,
 *            CLI configuration                       LEDs and GPIOs
 *   service  service store                  system   files and packages, commands and
 *   mbus     message bus                             processes, system statistics
 *   chat     serial line and AT chat        device   device information
 *   event    event flags                    socket   sockets
 *   route    routing                        net      network interfaces, probes
 *
 * The cJSON functions come with the library: <cjson/cJSON.h> is included here, and a
 * daemon that links with -lqzlib alone may call them. libqzlib.so is a linker script: what
 * loads the library at run time names libqzlib.so.3 (in Python, CDLL("libqzlib.so.3")).
 */
#ifndef QZLIB_H
#define QZLIB_H

#include <pthread.h>
#include <signal.h>
#include <stddef.h>
#include <stdint.h>
#include <time.h>

#include <cjson/cJSON.h>

#ifdef __cplusplus
extern "C" {
#endif

#if defined(__GNUC__)
#define QZLIB_PRINTF(format_index, first_argument)                                                           \
    __attribute__((format(printf, format_index, first_argument)))
#else
#define QZLIB_PRINTF(format_index, first_argument)
#endif

/** Result codes that several families share; a plain -1 stands beside them. */
enum {
    QZLIB_ERR_ARGUMENT = -257,   /**< bad argument or oversize input */
    QZLIB_ERR_FAILED = -264,     /**< operation failed, or channel not open */
    QZLIB_ERR_TIME_LIMIT = -267, /**< command killed at its time limit */
    QZLIB_ERR_NO_FILE = -268,    /**< file cannot be opened */
    QZLIB_ERR_NO_MEMORY = -271,  /**< out of memory */
    QZLIB_ERR_NOT_FOUND = -272   /**< not found, or nothing to change */
};

/* ---- str: strings and addresses ------------------------------------------------------
 * Clean text that came from files and commands, and check addresses typed into a
 * configuration. Nothing is allocated, logged or kept: callable from any thread.
 * Whitespace is exactly tab, line feed, carriage return and space. The validators are
 * loose in the places stated; daemons rely on exactly these rules. */

/** Fold a string to upper case in place, with the C library's mapping. @param str not null */
void qzlib_str_toupper(char *str);

/** Fold a string to lower case in place (the name is spelt so). @param str not null */
void qzlib_str_tolowr(char *str);

/**
 * Remove leading and trailing whitespace in place.
 * @param str  string, not null; of 1024 characters or more only the first 1023 are kept
 * @return str
 */
char *qzlib_str_trim(char *str);

/**
 * Remove trailing carriage returns and line feeds in place. The first character is never
 * removed, deliberately: "\r\n" becomes "\r", and "\n" stays.
 * @param str  string or null
 */
void qzlib_str_del_end_crlf(char *str);

/**
 * Remove all trailing whitespace in place (in spite of its name). The first character is
 * never removed, deliberately: " " stays.
 * @param str  string or null
 */
void qzlib_str_del_crlf(char *str);

/**
 * Find the last component of a path.
 * @param path  not null
 * @return pointer into path after its last '/', to its terminator when it ends in '/';
 *         path itself when it has none
 */
char *qzlib_path_notdir(char *path);

/**
 * Check the form of an IPv4 address: digits and dots only, exactly three dots, no two of
 * them together. The values are deliberately not bounded ("999.1.1.1" is valid) and a dot
 * may lead or trail (".1.2.3" is valid).
 * @param ip  text or null
 * @return 1 valid, 0 invalid
 */
unsigned int qzlib_ip_is_valid(const char *ip);

/**
 * Check an address with prefix length, "10.0.0.1/24". Only the first 32 bytes are looked
 * at. The length is read as atoi() reads it and must be 0 to 32, so "/" and "/24abc" pass.
 * @param ip_slash_len  text or null
 * @return 1 valid, 0 invalid
 */
unsigned int qzlib_ip_mask_is_valid(const char *ip_slash_len);

/**
 * Check a MAC address: 11 to 17 characters, six groups of one or two hexadecimal digits
 * parted by ':' or '-', which may be mixed. The length of the last group is deliberately
 * bounded only by the total length.
 * @param mac  text, not null
 * @return 1 valid, 0 invalid
 */
unsigned int qzlib_mac_is_valid(const char *mac);

/**
 * Split "address/length" without checking either part. Only the first 32 bytes of src are
 * looked at. Both outputs are filled as strncpy() fills them: a part that takes the whole
 * buffer arrives without terminator.
 * @param src      text or null
 * @param ip_out   16 bytes for the address part, or null
 * @param len_out  3 bytes for the length part, or null
 * @return 0; -1 for a null src or one without '/', the outputs untouched
 */
int qzlib_get_ip_mask(const char *src, char *ip_out, char *len_out);

/**
 * Check that a text holds decimal digits only; the empty text does.
 * @param str  text or null
 * @return 1 valid, 0 invalid (null too)
 */
unsigned int qzlib_str_is_digit(const char *str);

/* ---- log: message log ----------------------------------------------------------------
 * One log per process: syslog, or a file of its own that is started afresh when it
 * reaches its size cap. Which levels are emitted is the router's choice, not the
 * process's: the line "log msg-level WORD" of /tmp/config/cli.conf (debug, info, warn,
 * error, emerg; info without one), looked at again whenever the file's modification time
 * (whole seconds) changes, at every message.
 *
 * Set the destination once, before threads start; debug_msg() itself may be called from
 * any thread. */

/** Levels of debug_msg(). */
enum {
    QZLIB_LOG_DEBUG = 0,
    QZLIB_LOG_INFO = 1,
    QZLIB_LOG_WARNING = 2,
    QZLIB_LOG_ERROR = 3,
    QZLIB_LOG_FATAL = 4
};

/** Flag of openmsg_com(): point standard output and standard error at /dev/null. */
#define QZLIB_LOG_QUIET_STDIO 1

/**
 * Choose where this process's messages go; replaces an earlier choice whole.
 * @param path      log file (at most 256 characters are kept); null for syslog, which is
 *                  opened with LOG_PID and LOG_DAEMON
 * @param max_size  file size in bytes at which the file is deleted and begun anew;
 *                  below 1: 204800
 * @param ident     name put before each message, at most 32 characters; may be null
 * @param flags     QZLIB_LOG_QUIET_STDIO or 0
 */
void openmsg_com(const char *path, int max_size, const char *ident, int flags);

/** Send this process's messages to syslog: openmsg_com(NULL, 0, ident, 0). */
void openmsg(const char *ident);

/**
 * End syslog mode with closelog(); does nothing in file mode. Later messages reopen syslog
 * under the program's name: the ident is lost until openmsg() is called again.
 */
void closemsg(void);

/**
 * Log one message, if the router-wide level lets it through.
 *
 * In a file the line is "[%Y-%m-%d %X]<LEVEL>ident:message"; the file is opened, appended
 * to with one write and closed for every message, created with mode 0644, and a line is
 * at most 1022 bytes with its line feed. In syslog it is "message{module->line}" at the
 * priority of the level (debug goes out as LOG_INFO, fatal as LOG_EMERG), the message at
 * most 1022 characters. A log file that cannot be opened costs that message and one
 * syslog line at LOG_ERR. Nothing is allocated. Callable from any thread.
 *
 * In a signal handler only where the interrupted thread cannot be in debug_msg(), syslog(),
 * malloc() or the time zone functions (str_timestamp() too): it would wait for ever for their
 * locks. From the first dev_init() on debug_msg() itself holds back the six signals that
 * chat_signal_handler() is installed for. A child forked from a process with threads may
 * hang in the same way, in libc's time zone or syslog lock: exec first, or fork before there
 * are threads.
 * @param level   QZLIB_LOG_DEBUG to QZLIB_LOG_FATAL, no other value
 * @param module  source module for syslog ("{module->line}"), or null for the bare message
 * @param line    line of the call
 * @param format  as printf()
 */
void debug_msg(int level, const char *module, int line, const char *format, ...) QZLIB_PRINTF(4, 5);

/**
 * Format a time as local time, "%Y-%m-%d %X". In programs that are built with _TIME_BITS=64
 * for 32-bit glibc t is cut to 32 bits, which reach to 2038; 0, for now, works beyond that.
 * @param t     seconds since the epoch; 0 for now
 * @param buf   receives at most size - 1 characters; its last byte is always set to NUL
 * @param size  of buf in bytes, at least 1
 * @return buf
 */
#if defined(__GLIBC__) && defined(_TIME_BITS) && _TIME_BITS == 64 && !defined(__LP64__)
char *str_timestamp(int32_t t, char *buf, int size);
#else
char *str_timestamp(time_t t, char *buf, int size);
#endif

/**
 * Delete a file that has reached a size.
 * @param path      file
 * @param max_size  bytes
 * @return the file's size (low 32 bits) when it is below max_size; when it was deleted the
 *         result of the deletion, 0 on success; nonzero when it cannot be examined
 */
int reset_file_size(const char *path, int max_size);

/* ---- log: CLI configuration ----------------------------------------------------------
 * Lookups in the router's command-line configuration, /tmp/config/cli.conf: a block is a
 * header line at the left margin, parameter lines indented by one space, and a closing
 * line. Any line with "!" anywhere in it closes a block. Every call opens and reads the
 * file afresh; a last line without line feed is not read, and a longer line than the bound
 * named is taken in pieces. Nothing is kept or logged: callable from any thread. */

/** Mode of cli_config_get(): values are single words. */
#define QZLIB_CLI_WORDS 2

/** Result of cli_config_get(): the block was found and gave no parameter. */
#define QZLIB_CLI_EMPTY_BLOCK 2

/**
 * Ask whether a block contains a text (the name is spelt so). Lines of at most 255
 * characters, line end included, are read: a header of 255 characters never matches. The
 * first block with that header line counts.
 * @param block  the whole header line, without its line end
 * @param text   text to find anywhere in a line of the block
 * @return 0 found; -1 not found, no such block, no file, or a null argument
 */
int cli_find_paremeter(const char *block, const char *text);

/**
 * Read the parameters of one block into a lookup table. Lines of at most 383 characters are
 * read.
 *
 * The table is one buffer that holds a run of entries, each at a 4-byte boundary of the
 * buffer: the address of the key (one machine word, which need not be aligned further),
 * directly after it the value's area, then only zero bytes up to the next entry. The
 * caller zeroes the table, puts the keys in, and leaves room for the longest value
 * expected and its terminator; a longer one is cut to its area. The first entry's key is
 * the word that block headers begin with, and its value receives the header's argument;
 * the other keys are parameter names.
 *
 * First value empty: the first block with that header word is taken. A header without
 * argument is taken only if its block holds a parameter. First value preset: the block
 * that follows the one with this argument is taken, and all other values are cleared
 * before it is read, so that passing the table back again and again enumerates the
 * blocks. The search ends at a second block with the preset argument.
 *
 * Such an enumeration never ends where the first block taken has no argument (the value stays
 * empty, and the next call is a first one) and where an argument comes again after another
 * block; keep the arguments seen, or a count. An argument that was cut to its area equals
 * none and ends it. In a file with CRLF line ends a key without a value counts as a
 * parameter found, with an empty value.
 *
 * A parameter counts where its key's first occurrence in the line has a blank before it.
 * The character after the key and further blanks are passed over, and an empty rest is no
 * value. With QZLIB_CLI_WORDS the value is one word, the last line wins, and a line may
 * serve several entries in their order; otherwise it is the rest of the line and the first
 * line wins. One or two line-end characters are removed. A line that begins with
 * " shutdown" counts as a parameter found and is not looked into.
 *
 * With QZLIB_CLI_WORDS a block whose header argument holds a blank is not taken;
 * deliberately, the argument stays in the first value with its line end and is the preset
 * value from then on. So an enumeration passes over such a block, while a first call that
 * meets one before any block it can take ends with -1.
 * @param table  the table; values are filled in place
 * @param size   of the table in bytes; nothing outside it is touched
 * @param mode   QZLIB_CLI_WORDS, or any other value for whole lines
 * @return 0 a parameter was found; QZLIB_CLI_EMPTY_BLOCK (2) block without parameter;
 *         -1 no block taken, no file, or a table without an entry
 */
int cli_config_get(void *table, int size, int mode);

/* ---- service: service store ----------------------------------------------------------
 * The parameters of one service: loaded from /tmp/config/SERVICE.conf, read and changed in
 * memory, and written back only by qzlib_service_saveto_file().
 *
 * The file holds one entry per line:
 *
 *     shutdown            the one ungrouped parameter that may stand without a value
 *     mode=auto           an ungrouped parameter
 *     wan                 a group header
 *      apn=internet       a member of the group above: indented by spaces or tabs
 *      roaming            a member without a value, which differs from an empty one
 *
 * A line is cut at its first '=' and both parts are trimmed; blank lines and lines that
 * begin with '#' after trimming are skipped. Lines of more than 1023 bytes are read as
 * several; a NUL byte ends its line's text; a last line without line feed is not taken.
 * Once an ungrouped parameter was read, indented lines are skipped up to the next header.
 *
 * The store is a flat list in file order: a group is a header entry and the members after
 * it, up to the next header of another name; a further header of the same name before that
 * continues the group. Entries in front of the first header are outside any group, as are
 * all of type SERVICE_NODE_TOP. A null or empty group argument means "outside any group".
 * Names are case-sensitive and compared as they stand. Names and values are stored cut to
 * 256 characters: a longer name (of a parameter or a group) therefore never matches what
 * was stored for it.
 *
 * Nothing logs. Nothing is locked: a store belongs to the thread that loaded it, or to
 * callers with a lock of their own. Texts passed in are copied, and may be those that a
 * listing returned. */

enum {
    SERVICE_NODE_TOP = 0,      /**< type of a parameter outside any group */
    SERVICE_NODE_PARAM = 1,    /**< type of a parameter inside the group above it */
    SERVICE_NODE_GROUP = 2,    /**< type of a group header, usually without a value */
    SERVICE_STR_MAX = 256,     /**< characters kept of a name or a value */
    SERVICE_MAX_ENTRIES = 1024 /**< entries that a service_param_list holds */
};

/** A loaded store, made by qzlib_service_info_init(). */
typedef struct service_info service_info;

/**
 * What a listing found. The caller's record; only its first count rows are filled. The
 * texts are the store's own: not to be changed or freed, each valid until its entry is
 * deleted, its value replaced, or the store emptied or freed.
 */
typedef struct {
    uint32_t count;                    /**< entries filled, at most SERVICE_MAX_ENTRIES */
    char *name[SERVICE_MAX_ENTRIES];   /**< never null */
    char *value[SERVICE_MAX_ENTRIES];  /**< null for an entry without a value */
    int32_t type[SERVICE_MAX_ENTRIES]; /**< SERVICE_NODE_TOP, _PARAM or _GROUP */
} service_param_list;

/**
 * Load a service's file, /tmp/config/SERVICE.conf.
 * @param service  name; one of more than 200 characters counts as a missing file
 * @return the store, released with qzlib_service_info_uninit(): an empty one when the file
 *         cannot be opened, what was read so far when memory runs out on the way; null for a
 *         null service or when the store itself cannot be allocated
 */
service_info *qzlib_service_info_init(const char *service);

/** Release a store with its entries. @return 0; -1 for null */
int qzlib_service_info_uninit(service_info *info);

/** Delete all entries and keep the store. @return 0; -1 for null */
int qzlib_service_info_empty(service_info *info);

/**
 * Write the store as a file that reads back to the same entries. Groups without members are
 * not written, deliberately. Names and values are written as they stand: blanks around them,
 * line feeds, a name with '=' or a leading '#', a group called "shutdown" read back otherwise.
 * An ungrouped parameter without a value, other than "shutdown", is written as its name alone,
 * which reads back as a group header. Write errors are ignored.
 * @param path  created or truncated; any path, though only /tmp/config/SERVICE.conf is read
 *              by qzlib_service_info_init()
 * @return 0; -1 for a null argument or when the file cannot be opened for writing
 */
int qzlib_service_saveto_file(const service_info *info, const char *path);

/**
 * Set a parameter: the first one of that name gets the value and keeps its place; without
 * one it is added.
 *
 * A new member goes to the end of its group, "shutdown" to the group's front; a missing group
 * is added at the end of the store. A new ungrouped parameter goes directly before the first
 * group header and, as long as there are no groups, to the front, so that the order is
 * reversed then, deliberately; "shutdown" goes to the very front and stays there. A new
 * ungrouped name without a value, other than "shutdown", becomes the header of an empty
 * group, at that same place.
 * @param group  null or empty: outside any group
 * @param name   not null
 * @param value  null: without a value
 * @return 0; -1 for a null info or name, and when out of memory (an added group then stays)
 */
int qzlib_service_set_param(service_info *info, const char *group, const char *name, const char *value);

/**
 * Add a parameter, even if there is one of that name. In a group the new one goes directly
 * after the first of its name, deliberately: a, then b, then c come out as a, c, b. Places
 * and results are otherwise those of qzlib_service_set_param().
 */
int qzlib_service_set_param_repeat(service_info *info, const char *group, const char *name,
                                   const char *value);

/**
 * Delete parameters: all of that name, not only the first.
 *
 * In a group a null name deletes the whole group with its header; otherwise the header stays,
 * even without members. Outside any group the scan ends at a group that bears the name, and
 * that whole group is deleted too, unless a value is given.
 * @param group  null or empty: outside any group
 * @param name   may be null for a given group only
 * @param value  null, or delete only entries with this value; needs a name
 * @return 0 when something was deleted; -1 when nothing was, and for arguments that name
 *         nothing (a null info, neither group nor name, a value without a name)
 */
int qzlib_service_del_param(service_info *info, const char *group, const char *name, const char *value);

/**
 * Find the first parameter of a name. In a group an ungrouped parameter after the header
 * ends the search, though it does not when setting or deleting.
 * @param group      null or empty: outside any group
 * @param value_out  256 bytes that receive the value as strncpy() fills them, without
 *                   terminator when the value has 256 characters, deliberately; untouched
 *                   when the parameter has no value; may be null
 * @return 0 when found; -1 when not, and for a null info or name
 */
int qzlib_service_get_param(const service_info *info, const char *group, const char *name, char *value_out);

/**
 * Load a service's file and see whether it has a parameter, as qzlib_service_get_param() does.
 * @return 0 when it does; -1 otherwise, and for a null service or name
 */
int qzlib_service_find_param(const char *service, const char *group, const char *name);

/**
 * List the group headers.
 * @return their number, at most SERVICE_MAX_ENTRIES; 0, not -1, for a null argument, with
 *         nothing written
 */
int qzlib_service_get_group_name(const service_info *info, service_param_list *out);

/**
 * List the parameters of one group; an ungrouped parameter after the header ends it.
 * @return their number, at most SERVICE_MAX_ENTRIES, 0 when there is no such group; -1 for a
 *         null argument or an empty group, with nothing written
 */
int qzlib_service_get_group_param(const service_info *info, const char *group, service_param_list *out);

/**
 * List all entries, headers included.
 * @return their number, at most SERVICE_MAX_ENTRIES; -1 for a null argument, with nothing
 *         written
 */
int qzlib_service_get_all_param(const service_info *info, service_param_list *out);

/** Count all entries, headers included, without a limit. @return their number; 0 for null */
int qzlib_service_get_param_num(const service_info *info);

/* ---- mbus: message bus ---------------------------------------------------------------
 * The daemons of the router talk through one bus server. It owns the local datagram socket
 * QZLIB_MBUS_SOCKET and a System V shared-memory table of clients; every client has a
 * segment of its own with two packet rings, "up" (client to server) and "down" (server to
 * client). A daemon connects, starts the down cache and answers with qzlib_mbus_write();
 * docs/bus.md has the formats, the guarantees and the limits.
 *
 * The same functions serve the bus server: given a record that is not this process's own,
 * they act on that client's rings from the server's end.
 *
 * Everything in shared memory is fixed to the byte on 32-bit and 64-bit hosts, is
 * little-endian, and is never trusted: no index, length or name found there makes a call
 * leave the segment. One thread at a time may write a ring, and one may read it. One may
 * disconnect or connect again while they do, and while the down cache runs, but not while
 * another sets flags or looks for a name; in a child of fork() only threads that have
 * connected there themselves. Packets are written and read without heap and, when nobody
 * sleeps on the ring, without a system call. A process that is killed at any point stops
 * nobody else. Messages go to debug_msg() with the module "mbus_api".
 *
 * Once the server has ended, writes are refused. A daemon that no longer finds its own name
 * (qzlib_find_client_by_name() gives null, without a system call) should connect again: look
 * when a write is refused, and now and then. When a server that was killed is replaced, its
 * clients do not notice. */

#define QZLIB_MBUS_SOCKET "/tmp/mbus.sock" /**< control socket, bound by the bus server */

/** Sizes and keys of the bus's shared memory. */
enum {
    QZLIB_MBUS_SHARE_KEY = 20206372,  /**< System V key of the share segment */
    QZLIB_MBUS_SHARE_SIZE = 8520,     /**< bytes, struct mbus_share_segment */
    QZLIB_MBUS_CLIENTS = 50,          /**< records in the client table */
    QZLIB_MBUS_NAME_SIZE = 32,        /**< client name; no terminator at 32 characters */
    QZLIB_MBUS_SEGMENT_SIZE = 534656, /**< bytes of a client segment: up ring, down ring */
    QZLIB_MBUS_RING_SIZE = 267392,    /**< offset of the down ring; the up ring starts at 0 */
    QZLIB_MBUS_RING_SLOTS = 64,       /**< at most 63 packets wait */
    QZLIB_MBUS_SLOT_SIZE = 4176,      /**< slot i starts at i * 4176 within its ring */
    QZLIB_MBUS_SLOT_PAYLOAD = 76,     /**< offset of the payload within a slot */
    QZLIB_MBUS_PKG_NAME_SIZE = 64,    /**< packet name; no terminator at 64 characters */
    QZLIB_MBUS_PAYLOAD_MAX = 4096     /**< most payload bytes of a packet that is written */
};

/** Commands on the control socket. */
enum { MBUS_CTL_REGISTER = 1, MBUS_CTL_UNREGISTER = 2 };

/** One datagram on the control socket, 36 bytes; it is not answered. */
typedef struct mbus_ctl_msg {
    int32_t command;                 /**< MBUS_CTL_REGISTER or MBUS_CTL_UNREGISTER */
    char name[QZLIB_MBUS_NAME_SIZE]; /**< client, NUL-padded */
} mbus_ctl_msg;

/**
 * One process's attachment of a client segment; all zero when not attached. On a 32-bit
 * build the words are the id and three addresses; on a 64-bit build addresses do not fit,
 * and address holds a key that means something inside the attaching process only.
 */
typedef struct mbus_seg_handle {
    int32_t id;         /**< System V segment id */
    uint32_t address;   /**< attachment, or the key */
    uint32_t up_ring;   /**< address of the up ring; 0 on a 64-bit build */
    uint32_t down_ring; /**< address of the down ring; 0 on a 64-bit build */
} mbus_seg_handle;

/**
 * Client record in the share segment, 168 bytes. The bus server writes name and handle; of
 * the indices and counters each has one writer, named below. A ring is empty when its two
 * indices are equal and full when write + 1 (modulo 64) is read.
 */
typedef struct mbus_client {
    char name[QZLIB_MBUS_NAME_SIZE]; /**< NUL-padded, full width without terminator; empty: free */
    mbus_seg_handle server_handle;   /**< means something inside the server only */
    uint32_t up_write;               /**< 0 to 63, moved by the client */
    uint32_t up_read;                /**< 0 to 63, moved by the server */
    uint32_t down_write;             /**< 0 to 63, moved by the server */
    uint32_t down_read;              /**< 0 to 63, moved by the client */
    uint64_t server_read;            /**< bytes the server read from the up ring */
    uint64_t server_offered;         /**< bytes the server offered to the down ring, dropped ones too */
    uint64_t client_offered;         /**< bytes the client offered to the up ring, dropped ones too */
    uint64_t client_read;            /**< bytes the client read from the down ring */
    uint64_t server_dropped;         /**< bytes the server dropped: down ring full */
    uint64_t client_dropped;         /**< bytes the client dropped: up ring full */
    pthread_cond_t down_cond;        /**< process-shared, for packets in the down ring */
    uint32_t flags;                  /**< set by the client; the bits are the bus server's */
    uint32_t reserved;               /**< that of the last record is the server's doorbell, see docs/bus.md */
} mbus_client;

/** The share segment, 8520 bytes. */
typedef struct mbus_share_segment {
    pthread_cond_t up_cond; /**< process-shared, for packets in any up ring; the bus server initialises it */
    mbus_client clients[QZLIB_MBUS_CLIENTS];
    uint8_t server[72]; /**< the bus server's own */
} mbus_share_segment;

/** Packet header: what a caller fills to write, and what a read hands out. */
typedef struct mbus_pkg {
    uint8_t type;                        /**< 0 to 3; the meanings belong to the daemons */
    char name[QZLIB_MBUS_PKG_NAME_SIZE]; /**< client or topic, NUL-padded, full width without terminator */
    uint32_t length;                     /**< payload bytes, 1 to 4096 when written */
    void *data;                          /**< payload */
} mbus_pkg;

/**
 * Receives the packets of the down cache, on the cache's delivery thread.
 * @param type  0 to 3
 * @param name  64-byte field, terminated only if shorter
 * @param data  payload, aligned for any type; it and name are valid during the call only
 * @param len   payload bytes
 * @return ignored
 */
typedef int (*mbus_pkg_callback)(unsigned int type, const char *name, const void *data, unsigned int len);

/** Address of the share segment in this process (mbus_share_segment); null when not attached. */
extern void *mbus_share;

/** Id of the share segment; -1 when there is none. */
extern int mbus_share_memid;

/**
 * Make the System V key of a client's segment: the sum of the name's bytes as signed
 * characters. Names with the same sum share a key, deliberately simple; the bus server
 * refuses the second.
 * @param name  terminated text, not empty
 * @return the key; -1 for null
 */
int qzlib_mbus_name_to_key(const char *name);

/**
 * Find a client's record, without regard to case. The empty name finds the first free record.
 * @param name  terminated text
 * @return the first matching record, valid until the share segment is detached; null when
 *         there is none, or no share segment is attached
 */
mbus_client *qzlib_find_client_by_name(const char *name);

/**
 * Attach a client's segment, creating it when it is absent. On the client's side (the own
 * record) also empties both rings and initialises the down condition. Logs at level 1, or
 * at level 3 on failure.
 * @param client  record whose name is set
 * @return 0; -1 for null, or when the segment cannot be created (a name whose key is 0
 *         cannot have one). An attachment that the system refuses gives 0, deliberately,
 *         and a record whose packets all fail.
 */
int qzlib_client_init(mbus_client *client);

/**
 * Detach a client's segment and clear its handle; the last side to detach removes the
 * segment. Logs at level 1.
 * @param client  record or null
 */
void qzlib_client_uninit(mbus_client *client);

/**
 * Attach the share segment, creating it when it is absent; sets mbus_share and
 * mbus_share_memid. Attaching again what is attached changes nothing.
 * @return 0; -1 when it cannot be created (not logged) or attached (logged at level 3)
 */
int qzlib_mbus_share_init(void);

/**
 * Detach the share segment, removing it when no process is attached any longer. A process that
 * is connected loses its rings with it, and can only disconnect.
 */
void qzlib_mbus_share_uninit(void);

/** Set bits in the own record's client flags. @return 0; -1 when not connected */
int qzlib_client_set_flag(unsigned flags);

/** Clear bits in the own record's client flags. @return 0; -1 when not connected */
int qzlib_client_clear_flag(unsigned flags);

/**
 * Join the bus. Blocks for some milliseconds; for up to 250 ms while the server's queue is full,
 * and as long while the server has not read what this name sent in an earlier connection; for
 * up to 6 seconds (4 attempts) when no server answers. The server has about 7 ms to enter the
 * name in its table. Logs success at level 1, and at level 3 that there is no segment to be had.
 * A process that is connected leaves the bus first; one that was forked from a connected one
 * leaves it silently, and its parent stays.
 * @param name  1 to 32 characters. One that another process has, without regard to case, is
 *              refused by the server, but found all the same: the result is 0, the rings of
 *              the other process are emptied, and the two share them from then on
 * @return 0; QZLIB_ERR_ARGUMENT (-257) for null; -1 when there is no server, or no record of
 *         the name because it was refused for another reason
 */
int qzlib_connect_mbus_server(const char *name);

/**
 * Leave the bus. A thread that waits in qzlib_mbus_read_pkg() gets null; the down cache
 * sleeps until the process connects again. Payloads that were handed out are no longer valid.
 * What was written before is still delivered: by mbusd always, by another server if it reads it
 * in time.
 * Logs at level 1; does nothing when not connected.
 * @return 0
 */
int qzlib_disconnect_mbus_server(void);

/**
 * Put one packet into a ring: the own up ring, or another client's down ring.
 * A full ring drops the packet (counted, logged at level 0) and wakes the reader.
 * @param client  own record; in the bus server, one attached with qzlib_client_init()
 * @param pkg     type 0 to 3, length 1 to 4096, data; name as in the format
 * @return 0; -1 for a bad argument (nothing counted), a full ring, or a ring that is not
 *         attached (nothing counted, logged at level 2)
 */
int qzlib_mbus_write_pkg(mbus_client *client, const mbus_pkg *pkg);

/**
 * Write a buffer as a run of packets of at most 4096 bytes.
 * @param client  as qzlib_mbus_write_pkg(); null for the own record
 * @param type    0 to 3
 * @param name    client or topic, at most 64 characters are kept; null or "" for none
 * @param data    len bytes
 * @param len     any length
 * @return bytes put into packets: fewer than len, perhaps 0, when the ring ran full; 0 for
 *         len below 1; -1 when client is null and the process is not connected
 */
int qzlib_mbus_write(mbus_client *client, int type, const char *name, const void *data, int len);

/** qzlib_mbus_write() of type 0, without a name, to the own up ring. */
int qzlib_mbus_write_data(const void *data, int len);

/**
 * Take the next packet from a ring: the own down ring, or another client's up ring. The
 * packet's slot is given back by the next call on the same ring. A corrupt packet is
 * skipped with a message at level 2 and gives null.
 *
 * Waiting costs nothing while the ring is idle. A waiting call looks at the ring again after
 * 1 ms, then at intervals that double up to 1 s, so that a packet whose writer did not signal it
 * (an older server) is late by no longer than the ring was idle, and by 1 s at most. With a
 * server that knows doorbells (mbusd) no signal is missed; the intervals, which then only serve
 * to notice that the server was killed, are 16 times as long.
 * @param client  null or the own record; in the bus server, another record
 * @param nowait  0: wait for a packet; the server's side never waits and logs at level 2, as
 *                both do when the ring is not attached
 * @return header and payload, valid until the next call on the same ring (reads of other
 *         rings do not matter); null when there is none
 */
mbus_pkg *qzlib_mbus_read_pkg(mbus_client *client, int nowait);

/**
 * Start the down cache: one thread empties the down ring into memory, another hands the
 * packets to the callback in the order of their arrival. Call it once, after connecting;
 * the threads run until the process ends.
 *
 * A packet is dropped (logged at level 2) when the bytes in use + 87 + its length exceed
 * the cap; a cached packet uses 83 bytes + its length until its callback has returned. Out of
 * memory drops it too (level 3).
 * @param max_bytes  cap; below 4097: 8388608
 * @param callback   may take its time and may write to the bus; runs with the signal mask
 *                   of the caller
 * @return 0; -1 when not connected
 */
int qzlib_mbus_down_cache_process(int max_bytes, mbus_pkg_callback callback);

/* ---- chat: serial line and AT chat ---------------------------------------------------
 * Open the modem's tty and exchange AT commands with it. One device at a time and one
 * exchange at a time: terminal settings, signal actions and the alarm are the process's.
 *
 * Signals. From dev_init() to dev_close() chat_signal_handler() stands on SIGHUP, SIGALRM
 * and SIGINT, without SA_RESTART: such a signal no longer ends the process, it is logged
 * and breaks off a blocked call. During dev_init() and dev_close() themselves it stands on
 * SIGQUIT, SIGPIPE and SIGTERM too. alarm() is taken over by dev_init(), dev_close() and
 * every call that sends; an alarm that the caller had set is lost.
 *
 * An answer is whatever arrives until the line has been quiet for timeout seconds, the
 * buffer is full, or the expected text was seen. The timeout counts anew for every piece,
 * so an answer that trickles in keeps a call going. OK and ERROR are not interpreted.
 * Calls that send first discard everything pending on the line in both directions. Every
 * call leaves the descriptor non-blocking. A signal whose handler runs while a call waits
 * ends it with the result of a failed wait, also with SA_RESTART. Descriptors are borrowed,
 * of any number (there is no FD_SETSIZE bound), from dev_init(): without its handler the
 * write alarm of the sending calls would end the process.
 *
 * A negative descriptor, a null pointer, a command of more than 509 characters and a raw
 * length below 0 or above 512 are refused: "argument error", result -1, nothing sent and
 * nothing changed. All logging goes through debug_msg(), module "vq_chat": failures as
 * errors, always; traffic ("%d <<< (%s)", "%d >>> (%s)") as debug when log is not 0. */

/** A baud rate and its termios speed code. */
typedef struct qzlib_speed {
    uint32_t baud;
    uint32_t code;
} qzlib_speed;

/**
 * The rates that dev_init() can set, ended by the pair (0, 0); the first row of a rate
 * counts. Writable. 19200 and 38400 stand twice, deliberately, and 500000 is not in it.
 */
extern qzlib_speed speeds_list[23];

/** The signal actions that the last dev_init() or dev_close() found, and that dev_close() puts back. */
extern struct sigaction oldhup;
extern struct sigaction oldint;
extern struct sigaction oldquit;
extern struct sigaction oldpipe;
extern struct sigaction oldalrm;
extern struct sigaction oldterm;

/**
 * Failed writes, waits and reads of chat_send_read(), chat_send_ASCII_read() and
 * chat_send_hex_read() since the process began. The library only counts up, without
 * atomics; daemons read it, and may reset it, to judge the modem's health.
 */
extern int at_modem_error;

/**
 * Open a tty and make it a raw modem line: 8 data bits, 1 stop bit, no parity, hardware
 * flow control, no echo; then a one-second pulse on DTR. Keeps the settings that it found
 * for dev_close() (of the last device opened). Takes over signals as the section tells. A failing
 * open is tried four times, each followed by a pause of 3 seconds; the open itself is not
 * guarded by the alarm, so pass O_NONBLOCK for a tty that may wait for a carrier. The
 * set-up is broken off by an alarm after 5 seconds. A tty whose settings cannot be read or
 * set is returned all the same.
 * @param path   device
 * @param flags  for open(), unchanged (O_RDWR | O_NOCTTY | O_NONBLOCK); close-on-exec only
 *               if O_CLOEXEC is among them
 * @param baud   rate from speeds_list; another one is logged and the speed kept; 0 keeps it
 * @return descriptor above 2, the caller's until dev_close(); 0 or below when it cannot be
 *         opened (the last result of open(): nothing is open then, since descriptor 0
 *         counts as a failure, deliberately); -1 when the alarm fired, all six signal
 *         actions restored
 */
int dev_init(const char *path, int flags, int baud);

/**
 * Write back the terminal settings that dev_init() found, close the tty and put back the
 * signal actions found by dev_init() (SIGHUP, SIGINT, SIGALRM) and by this call (SIGQUIT,
 * SIGPIPE, SIGTERM). To be called after dev_init() only: before it there is nothing to put
 * back but zeroes.
 * @param fd  from dev_init(), closed in any case; negative: nothing is done
 * @return 0; -1 when the alarm of 5 seconds fired while writing the settings
 */
int dev_close(int fd);

/**
 * The handler that dev_init() and dev_close() install: remembers the signal and logs
 * "vq_chat receive the signal(%d)" as an error. It formats and writes a log line inside
 * the handler, so a daemon should not expect such signals as a matter of routine.
 */
void chat_signal_handler(int signal);

/** Look a baud rate up among 30 termios rates. @return its speed code; 0 for 0; -1 if absent (2000000 is) */
int qzlib_uart_baud_to_flag(int baud);

/** Look a termios speed code up. @return its baud rate; 0 for 0; -1 if absent (0x100b is) */
int qzlib_uart_flag_to_baud(int code);

/** Placeholder: does nothing with whatever it is given. @return 0 */
int qzlib_set_uart_baud_rate(int fd, ...);

/** Placeholder, the same function under another name. @return 0 */
int qzlib_get_uart_baud_rate(int fd, ...);

/**
 * Send a command line. Lasts at most 10 seconds.
 * @param command  without line end, at most 509 characters; one carriage return is added
 * @param log      not 0: log the traffic
 * @return bytes written, fewer than the line when the alarm broke the write off half-way;
 *         -1 when it failed ("Cannot write( %d, %s, %d )") or for a bad argument
 */
int chat_send(int fd, const char *command, int log);

/**
 * Collect at most 511 bytes until a text is among them, also when it arrived in pieces.
 * @param expected  text searched for in all that was collected
 * @param timeout   seconds of silence
 * @param log       not 0: log the traffic (nothing when nothing arrived)
 * @return 1 seen; 0 for silence, end of data or 511 bytes without it; -1 when a wait or a
 *         read failed or for a bad argument
 */
int chat_expect(int fd, const char *expected, int timeout, int log);

/**
 * Collect what arrives.
 * @param buffer   receives at most size - 1 bytes and a NUL after them; its last byte is
 *                 set to NUL first, and when nothing arrives that is all
 * @param size     of buffer in bytes; below 2 the result is 0 at once
 * @param timeout  seconds of silence
 * @param log      not 0: log the traffic (nothing when nothing arrived)
 * @return bytes read, also when a read failed after them (unlike chat_send_read(),
 *         deliberately); on a line that was hung up at once, with 0; -1 when a wait failed or
 *         for a bad argument
 */
int chat_read(int fd, char *buffer, int size, int timeout, int log);

/** chat_send() and chat_expect() in one: their arguments and results. */
int chat_send_expect(int fd, const char *command, const char *expected, int timeout, int log);

/**
 * Send a command line, within 5 seconds, and collect the answer. An answer that contains
 * "^SIMST:255" is logged as "..........USIM Remove........", whatever log says.
 * @param command  as chat_send()
 * @param buffer   receives at most size - 1 bytes and a NUL; its last byte is set to NUL
 *                 before sending, and when nothing arrives that is all: an older answer is
 *                 still in it, look at the count
 * @param size     of buffer in bytes; below 2 the command is sent and the result is 0
 * @param timeout  seconds of silence
 * @param log      not 0: log the traffic
 * @return bytes read; -1 when the write, a wait or a read failed, counted in
 *         at_modem_error (what was read stays in the buffer), or for a bad argument
 */
int chat_send_read(int fd, const char *command, char *buffer, int size, int timeout, int log);

/**
 * Send raw bytes, within 5 seconds, and collect an answer of at most 8 bytes; when all 8
 * are there the call waits once more, for up to timeout seconds, for a ninth that it does
 * not read.
 * @param data    length bytes, sent as they are
 * @param answer  at least 9 bytes and at least length: the byte at length - 1 is set to NUL
 *                first, the answer gets a NUL after it
 * @param length  0 to 512
 * @return as chat_send_read(), "^SIMST:255" and at_modem_error included
 */
int chat_send_ASCII_read(int fd, const void *data, char *answer, int length, int timeout, int log);

/** chat_send_ASCII_read() with an answer of at most 12 bytes; answer has at least 13. */
int chat_send_hex_read(int fd, const void *data, char *answer, int length, int timeout, int log);

/* ---- event: event flags --------------------------------------------------------------
 * 32 flags on which the threads of one process wait. Time limits are whole seconds of the
 * monotonic clock, and a limit below 1 means no limit. Every change, even one that leaves the
 * flags as they were, wakes one waiter and not all, no matter what it waits for: if its condition
 * does not hold, its whole limit starts anew, while another whose condition does hold sleeps on
 * until the next change. So let only one thread wait on a group, or repeat the change for each
 * waiter. No wait changes a flag. A waiter may be cancelled. All functions may be called from
 * any thread; a null group gives -1 (0 from qzlib_event_check_flag()). */

/** An event flag group, made by qzlib_event_init(). Its fields are the library's. */
typedef struct qzlib_event {
    pthread_mutex_t mutex;
    pthread_cond_t changed; /**< on CLOCK_MONOTONIC */
    uint32_t flags;
} qzlib_event;

/**
 * Make a group with all flags clear.
 * @return the group, released with qzlib_event_unint(); null when out of memory
 */
qzlib_event *qzlib_event_init(void);

/** Release a group that nobody uses any more. @return 0; -1 for null */
int qzlib_event_unint(qzlib_event *ev);

/** Set the flags of mask and wake one waiter. @return 0; -1 for null */
int qzlib_event_set_flag(qzlib_event *ev, uint32_t mask);

/** Clear the flags of mask and wake one waiter. @return 0; -1 for null */
int qzlib_event_clear_flag(qzlib_event *ev, uint32_t mask);

/**
 * Look at the flags without waiting or locking.
 * @return 1 when all flags of mask are set (always for an empty mask), else 0
 */
int qzlib_event_check_flag(qzlib_event *ev, uint32_t mask);

/**
 * Wait until at least one flag of mask is set; an empty mask never is.
 * @param timeout  seconds; below 1: no limit
 * @return 0; -1 for null; ETIMEDOUT at the limit
 */
int qzlib_event_wait_flag(qzlib_event *ev, uint32_t mask, int timeout);

/** Wait until every flag of mask is set; results as qzlib_event_wait_flag(). */
int qzlib_event_wait_all_flag(qzlib_event *ev, uint32_t mask, int timeout);

/** As qzlib_event_wait_flag(); status is accepted and ignored. */
int qzlib_event_wait_flag_with_status(qzlib_event *ev, uint32_t mask, uint32_t status, int timeout);

/** Wait until no flag of mask is set; ignored is accepted and ignored. Results as qzlib_event_wait_flag(). */
int qzlib_event_wait_noflag(qzlib_event *ev, uint32_t mask, uint32_t ignored, int timeout);

/** Wait for one change, whatever the flags; may also wake without one. Results as qzlib_event_wait_flag(). */
int qzlib_event_wait_event(qzlib_event *ev, int timeout);

/* ---- route: routing ------------------------------------------------------------------
 * IPv4 routes in two notations, snapshots of the kernel's rules and tables, and requests to
 * the routing daemon. Nothing here writes to the message log. The conversions are pure and
 * callable from any thread. The snapshots run the `ip` and `route` tools, found through PATH,
 * and read their text: tens of milliseconds, for control paths only. The tools are started
 * without a shell, so that nothing they print is ever run. */

/**
 * Prefix length of a dotted netmask. Only the leading run of ones counts; what follows the
 * first zero bit is deliberately not looked at (255.0.255.0 gives 8).
 * @return 0 to 32; -1 for null or a text that is no IPv4 address
 */
int string2masklen(const char *mask);

/**
 * Split "a.b.c.d/n" (without "/n": a host, n is 32) into dotted texts. n is read as atoi()
 * reads it. An address that cannot be parsed counts as 0.0.0.0 and is no failure.
 *
 * Deliberate: with n 32, net is 0.0.0.0 when mask is asked for too, and the address itself
 * when it is not.
 * @param cidr  text, not changed
 * @param ip    16 bytes for the address, or null
 * @param mask  16 bytes for the netmask, or null; "" when n is negative or above 32
 * @param net   16 bytes for the network address, or null; the address unchanged when n is
 *              negative or above 32
 * @return 0; -1 for a null cidr
 */
int qz_ccid2obsolete(const char *cidr, char *ip, char *mask, char *net);

/**
 * Join an address and a dotted netmask into "a.b.c.d/n". The address is not looked at, and a
 * mask that cannot be converted gives "/-1".
 * @param out  strlen(ip) + 4 bytes at least; 19 for an address
 * @return 0; -1 when an argument is null
 */
int qz_obsolete2ccid(char *out, const char *ip, const char *mask);

/**
 * Whether an address lies in a network.
 * @param ip, mask  any address of the network and its dotted netmask (read as
 *                  string2masklen() reads it)
 * @param probe     the address asked about
 * @return 0 inside; -1 outside, for a null argument or one that is no IPv4 address
 */
int srt_ipinnet_judge(const char *ip, const char *mask, const char *probe);

/** One route of a table that a policy rule with a source looks up; see qz_srtinfo_stat(). */
typedef struct srtinfo {
    char table[8];        /**< name or number of the table, at most 7 characters */
    int32_t prio;         /**< priority of the rule, not negative; 2147483647 for larger ones */
    char source[32];      /**< the rule's "from": an address or prefix */
    char dest[24];        /**< destination as the tool prints it; "0.0.0.0/0" for "default" */
    char dest_ip[16];     /**< its address, dotted */
    char dest_mask[16];   /**< its netmask, dotted */
    char gateway[16];     /**< next hop; "0.0.0.0" for none */
    char dev[32];         /**< output device */
    struct srtinfo *next; /**< null at the end */
} srtinfo;

/**
 * Take a snapshot of source routing: for every rule of `ip rule ls` with a specific source, in
 * ascending priority, every route that `ip route ls table TABLE` prints.
 *
 * The lines are taken word by word, by position. Lines of other forms than "DEST [via
 * GATEWAY] dev DEV" therefore give odd records ("blackhole" or "nexthop" as dest), and one of
 * more than 127 characters comes in pieces. Words too long for their field are cut. Rules
 * whose table has a name of more than 7 characters are passed over. The rules and the tables
 * are read one after the other: a route that changes meanwhile may or may not be seen.
 *
 * Runs one command and one more per rule. A command that cannot be started counts as empty
 * output, and a record that there is no memory for is left out. Not to be called from two
 * threads at once.
 * @return the list, released with qz_srtinfo_free(); null when there is nothing to report
 */
srtinfo *qz_srtinfo_stat(void);

/** Release a snapshot. @param list  its head, null afterwards; an empty list is left alone */
void qz_srtinfo_free(srtinfo **list);

/**
 * Name the device of the best route of the main table for an address, from `route -n`.
 *
 * Deliberate order: a line replaces the best one so far when its prefix is at least as long
 * and its metric is no higher, so that a longer prefix with a higher metric loses, and of
 * equals the later line wins. The first line is measured against length 0 and metric 10000.
 * Lines without all eight columns are passed over. A rejecting route's device is "-".
 * @param ip      dotted address
 * @param ifname  32 bytes; untouched when no route matches
 * @return 0; -1 when no route matches, for a null argument, or when the command cannot run
 */
int qzlib_get_route_interface(const char *ip, char *ifname);

/**
 * Note an address under a name, in /tmp/source_route/NAME.ip (one line, "NAME IP"); replaces
 * an earlier note. The name becomes part of the path as it stands: do not pass names from
 * outside the router. A path of more than 127 characters counts as one that cannot be opened;
 * then perror("fopen failed") says so on standard error. Nothing happens when either is null.
 */
void srt_iip_save(const char *name, const char *ip);

/**
 * Read the address noted under a name.
 * @param ip  16 bytes; a longer text is cut to 15 characters
 * @return 0; -1 for a null argument, without a note, or when it holds no address
 */
int srt_iip_get(const char *name, char *ip);

/**
 * Ask the routing daemon (/tmp/.zserv) to add or delete an IPv4 route. One connection per
 * call; the daemon does not answer, so that 0 means sent and not done: look at the tables to
 * know. Callable from any thread. Blocks while the daemon has a full queue of connections.
 *
 * The message's numbers are those of the routing daemon's protocol and go out unchanged.
 * Prefix bytes are deliberately not masked to the length, the daemon does that; with lengths
 * above 32 the bytes after the address are zero. Address 0.0.0.0 is the default route
 * whatever its length says.
 *
 * Aborts the process, in every build, on a length that leaves no prefix bytes ("10.0.0.0/0")
 * and on an empty nexthop: the default route is "0.0.0.0/0".
 *
 * When the write fails "write failed[REASON]" goes to standard output, and the result is 0 all
 * the same. SIGPIPE is held back.
 * @param command   the daemon's code, low 8 bits; 0: connect and send nothing
 * @param type      the route's type, low 8 bits
 * @param prefix    "a.b.c.d/n"; an address that cannot be parsed counts as 0.0.0.0 with that n
 * @param nexthop   a text that begins with a digit is an address (0.0.0.0 when it cannot be
 *                  parsed), any other an interface name; null: connect and send nothing
 * @param distance  the route's distance
 * @return 0; -1 for a prefix without '/' (nothing is opened), when the daemon is not there, or
 *         when the message would be longer than 128 bytes (long names, absurd lengths), in
 *         which case nothing is sent
 */
int qzlib_do_route(unsigned int command, unsigned int type, const char *prefix, const char *nexthop,
                   unsigned char distance);

/* ---- bootenv: boot environment -------------------------------------------------------
 * The bootloader's variables: one block of 0x20000 bytes at the end of the first MTD
 * partition whose name begins with "aboot", found through /sys/class/mtd once per process
 * and reached through /dev/mtdblockN. Every call reads the whole block and every change
 * writes it whole, synchronously: rare control operations. A block with a wrong checksum
 * reads as an empty environment.
 *
 * The four calls share one block buffer and one descriptor without a lock: never on two
 * threads at once. Between processes the device is locked (flock) from after the read to
 * the end of the call; since the read comes first, a change that another process makes
 * meanwhile is lost: see docs/bootenv.md for what to do about it. Failures are printed on
 * standard output: "can't get boot env device and offset", "open %s fail\n",
 * "read %s fail\n", "write %s fail\n" with the device. A device that opens as descriptor 0
 * counts as one that cannot be opened; one that opens as 1 or 2 is moved to a higher number,
 * since the output of a daemon without these would otherwise overwrite the bootloader. */

/**
 * List the environment, or look up one entry.
 *
 * Deliberate oddity: a listing (null name) of an empty environment leaves the device open
 * and locked, and the next environment call of the process works on the block in memory and
 * releases it.
 * @param name      null for all entries in order; else the first entry of that name
 * @param callback  takes ctx and the text "name=value", valid during the call only; null
 *                  prints each entry as a line on standard output
 * @return 0, also when the name is not present; -1 when the block cannot be loaded
 */
int qzlib_print_boot_env(const char *name, void (*callback)(void *ctx, const char *entry), void *ctx);

/**
 * Read a variable: the first entry of that name. A name that itself holds '=' matches an
 * entry that agrees with it up to there.
 * @param value  filled as strncpy() fills it: not terminated when the value has len
 *               characters or more; untouched on failure
 * @param len    size of value in bytes
 * @return 0; -1 for a null argument, an absent name, or a block that cannot be loaded
 */
int qzlib_get_boot_env(const char *name, char *value, size_t len);

/**
 * Set or delete a variable. Its first entry is removed, the new one goes to the end of the
 * list, and the block is written, even where there was nothing to delete.
 * @param value  null deletes
 * @return 0; -1 for a null name, a block that cannot be loaded, an entry list without end or
 *         a lack of room (in these nothing is written), or a failed or short write
 */
int qzlib_set_boot_env(const char *name, const char *value);

/**
 * Empty the environment: the whole block, checksum included, becomes zero.
 * @return 0; -1 for a block that cannot be loaded, or a failed or short write
 */
int qzlib_clear_boot_env(void);

/**
 * The standard CRC-32 (reflected, polynomial 0xEDB88320), of a buffer or continued over
 * several. No state: callable from any thread. The name is zlib's too, with other types. A
 * source that includes both headers includes <zlib.h> first, or defines QZLIB_NO_CRC32: the
 * declaration is left out then. Which of the two it calls is decided by the order in which
 * the libraries are linked; both give the same sums.
 * @param crc  0 to start, else the result so far
 * @param buf  at any alignment; may be null when len is 0
 * @param len  bytes
 * @return the checksum; 0xCBF43926 over "123456789" from 0
 */
#if !defined(QZLIB_NO_CRC32) && !defined(ZLIB_H)
unsigned int crc32(unsigned int crc, const unsigned char *buf, unsigned int len);
#endif

/**
 * CRC-32 of a whole file. A read error is reported with perror() and ends the file there.
 * Callable from any thread.
 * @return the checksum; 0 for an empty file, and for one that cannot be opened
 */
unsigned int crc32file(const char *path);

/* ---- modem: modem status -------------------------------------------------------------
 * What the modem daemon publishes in /tmp/modem.info, as a table in this process: lines
 * name:value, each ended by a line feed. Which names there are is that daemon's choice.
 * One table per process, unlocked: update and read it from one thread, or take turns.
 * Nothing is logged. */

/**
 * Load the table anew from /tmp/modem.info. Loading stops at the first line that is not
 * stored (no ':', or the last line without line feed) and after 64 rows. Name and value
 * are taken as they stand, blanks included. Names count up to 63 characters and values up
 * to 127: a longer name is cut and a longer value reads on into the next row.
 * @return 0; -1 when not even the first line was stored, the table empty;
 *         QZLIB_ERR_NO_FILE (-268) when the file cannot be opened, the table as it was
 */
int qzlib_update_modem_status_info_tab(void);

/**
 * Look a value up in the table.
 * @param name  exact name; the empty name finds the first row without one, in most cases an
 *              unused row with an empty value
 * @return value inside the table, valid until the next update; null for a null name or one
 *         that is not there
 */
const char *qzlib_get_modem_status_info(const char *name);

/* ---- modem: local messages -----------------------------------------------------------
 * A broadcast channel between the router's daemons, over netlink user sockets (groups 1
 * and 3): every message reaches every process that receives, the sender included, and is
 * dropped there unless it is addressed to it. Best effort: nobody learns whether a message
 * arrived, and a receiver that falls behind loses messages. One channel per process, without
 * a lock: qzlib_msg_init(), qzlib_msg_send() and qzlib_msg_exit() must not run on two
 * threads at once. Nothing is logged. Receiving needs CAP_NET_ADMIN. */

/** Largest data of a message, in bytes. */
#define QZLIB_MSG_MAX_DATA 3936

/** A message. Names are fixed fields of 64 bytes, not terminated when they fill them. */
typedef struct local_msg {
    uint32_t magic;    /**< set by qzlib_msg_send(): 0x515A4D53 */
    int32_t dst_pid;   /**< receiving process; 0 or below: any */
    char dst_name[64]; /**< name of the receiving process, at most 15 characters, all that the kernel
                            keeps: a longer one never matches; empty: any */
    int32_t src_pid;   /**< set by qzlib_msg_send() */
    char src_name[64]; /**< set by qzlib_msg_send(): the process name */
    uint32_t type;     /**< the application's */
    int32_t data_len;  /**< bytes of data, 0 to QZLIB_MSG_MAX_DATA */
    void *data;        /**< the data, or null; only read by qzlib_msg_send() */
} local_msg;

/**
 * Open the channel, and with a callback start the thread that receives. A second call
 * without qzlib_msg_exit() replaces the channel; when it fails the old one stays.
 *
 * The callback runs on the receiver thread, one message at a time; the message and its data
 * are valid only until it returns. All signals are blocked in that thread: a program that the
 * callback starts inherits that, and an AT exchange needs SIGALRM; so set another mask there
 * first. Of a message with more than 3776 bytes of data the rest is not received: data_len is
 * the sent length, and the bytes past 3776 are without meaning. A read error in the thread
 * hands over the message before once more, deliberately.
 * @param callback  null: the channel only sends
 * @param ctx       handed to the callback
 * @return 0, also when the thread could not be started; -1 when a socket call failed, the
 *         own name could not be read from /proc or, with a callback, libc's unwinder
 *         (libgcc_s.so.1 for glibc) could not be loaded; QZLIB_ERR_NO_MEMORY
 */
int qzlib_msg_init(void (*callback)(local_msg *msg, void *ctx), void *ctx);

/**
 * Send a message, to all receivers that its dst_pid and dst_name let through. Without data,
 * or with a data_len below 1, nothing but the record is sent.
 * @param msg  magic, src_pid and src_name are filled in; stays the caller's
 * @return 0, also when the write failed; QZLIB_ERR_ARGUMENT for null or data of more than
 *         QZLIB_MSG_MAX_DATA bytes; QZLIB_ERR_FAILED when the channel is not open
 */
int qzlib_msg_send(local_msg *msg);

/**
 * Close the channel; harmless when it is not open, and allowed in the callback. The receiver
 * thread is cancelled, not joined: no callback begins for a message that arrives afterwards,
 * but one that is under way is ended only at its next cancellation point, and may still use
 * its message and ctx until then.
 */
void qzlib_msg_exit(void);

/* ---- modem: LEDs and GPIOs -----------------------------------------------------------
 * The front panel through the files of /sys/class/leds/NAME (trigger, brightness, delay_on,
 * delay_off, shot, invert) and /sys/class/gpio/NAME/value. Paths are cut to 62 characters.
 * Each step opens, writes or reads, and closes one file; files are never created. No state,
 * no logging: callable from any thread, but two callers on one LED mix their steps. */

/** Display modes of an LED. */
enum {
    QZLIB_LED_OFF = 0,
    QZLIB_LED_ON = 1,
    QZLIB_LED_FAST_BLINK = 2, /**< 100 ms on, 100 ms off */
    QZLIB_LED_SLOW_BLINK = 3, /**< 500 ms on, 500 ms off */
    QZLIB_LED_ONE_SHOT = 4    /**< dark until fired */
};

/** Actions on an LED in one-shot or blink mode. */
enum {
    QZLIB_LED_SHOT_FIRE = 0,   /**< one blink */
    QZLIB_LED_SHOT_INVERT = 1, /**< lit between blinks */
    QZLIB_LED_SHOT_50_MS = 2,  /**< 50 ms on, 50 ms off */
    QZLIB_LED_SHOT_100_MS = 3  /**< 100 ms on, 100 ms off */
};

/**
 * Put an LED into a mode: its trigger is written first, then what the mode needs. Files that
 * cannot be opened are skipped.
 * @param name  LED; null does nothing
 * @param mode  QZLIB_LED_OFF to QZLIB_LED_ONE_SHOT; others do nothing
 * @return 0 always: not a status
 */
int qzlib_led_name_set(const char *name, unsigned int mode);

/**
 * An LED's mode as the kernel reports it, not as it was set. The first 255 characters of the
 * trigger file are looked at: one that a kernel with many triggers lists later is not found.
 * @return QZLIB_LED_OFF to QZLIB_LED_ONE_SHOT; -1 for null, an unreadable file, another
 *         trigger, or a blink whose delay_on is neither 100 nor 500
 */
int qzlib_led_name_get(const char *name);

/**
 * Act on an LED. The trigger is not looked at: the files are there only in a fitting mode.
 * @param action  QZLIB_LED_SHOT_FIRE to QZLIB_LED_SHOT_100_MS; others do nothing
 * @return 0; -1 for null or a file that cannot be opened (of two, the first may be written)
 */
int qzlib_led_name_shot(const char *name, unsigned int action);

/**
 * qzlib_led_name_set() by index: 0 "power", 1 "data", 2 "net", 3 to 6 "rssi0" to "rssi3".
 * @param index  not negative; 7 or more does nothing
 * @return 0 always
 */
int qzlib_led_set(int index, unsigned int mode);

/** qzlib_led_name_shot() by the index of qzlib_led_set(); 0 for an index of 7 or more. */
int qzlib_led_shot(int index, unsigned int action);

/** Set a GPIO to 1 for a nonzero value, else 0; null or a missing GPIO does nothing. */
void qzlib_gpio_name_set(const char *name, int value);

/** Read a GPIO. @return the number in its value file; -1 for null or an unreadable file */
int qzlib_gpio_name_get(const char *name);

/* ---- system: files and packages ------------------------------------------------------
 * Reads and writes with a time limit, facts about files and file systems, and the version
 * stamp of the router's own programs. Descriptors are borrowed, never closed here, of any
 * number. Time limits are milliseconds. No state, no logging, callable from any thread. */

/**
 * Read once from a descriptor, waiting no longer than the limit. Signals do not end the
 * wait or prolong it.
 * @param fd          open descriptor
 * @param buf         receives at most len bytes; not terminated
 * @param len         of buf in bytes
 * @param timeout_ms  milliseconds; below 1: wait without limit
 * @return bytes read, perhaps fewer than len; 0 at the time limit or end of file; -1 for a
 *         negative fd, a null buf, or a failed wait or read
 */
int qzlib_fd_read(int fd, void *buf, unsigned len, int timeout_ms);

/**
 * Write to a descriptor until everything is written, the limit is reached or an error
 * occurs. Deliberately, when everything is written it still waits until the descriptor is
 * writable once more and writes 0 bytes: on a pipe or socket that is full to the last byte
 * the call lasts until there is room again (or to its limit), and a datagram socket sends
 * an empty datagram. On a blocking descriptor with less room than there are bytes the write
 * itself waits, without regard to the limit: give it a non-blocking one.
 * @param fd          open descriptor; SIGPIPE is the caller's affair
 * @param buf         bytes to write
 * @param len         how many
 * @param timeout_ms  milliseconds for all waits of the call together; below 1: no limit
 * @return bytes written, perhaps fewer than len, also after an error; -1 for a negative fd
 *         or a null buf
 */
int qzlib_fd_write(int fd, const void *buf, unsigned len, int timeout_ms);

/**
 * Gather one package: everything that arrives without a pause longer than gap_ms, up to
 * size bytes. The wait for the first byte has no limit; a signal ends it.
 * @param fd      open descriptor
 * @param buf     receives at most size bytes; not terminated
 * @param size    of buf in bytes, at least 1
 * @param gap_ms  milliseconds, at least 1
 * @return bytes gathered, 0 at end of file or when the first read fails; -1 for a bad
 *         argument, or when the wait for the first byte failed
 */
int qzlib_fd_read_package(int fd, void *buf, int size, int gap_ms);

/**
 * Size of a file.
 * @return bytes (low 32 bits); 0 for a file without a size (in /proc) or one that cannot be
 *         opened; -1 for null
 */
int qzlib_get_file_size(const char *path);

/**
 * Free space of the file system that holds a path, in bytes, the blocks reserved for the
 * superuser included.
 * @return bytes; 0 for null or when it cannot be examined
 */
unsigned long long qzlib_get_dir_free_space(const char *path);

/**
 * Find the device mounted at, or holding, a path in /proc/mounts. The first entry counts
 * whose directory or device name is the path as written. A path that is not a device node
 * is also found by the device that it lies on.
 * @param path     existing path
 * @param dev_out  receives the device name as it stands in /proc/mounts, however long it
 *                 is; may be null
 * @return 0; -1 for null, a path that does not exist, or no match, dev_out untouched
 */
int qzlib_get_mount_dev(const char *path, char *dev_out);

/**
 * Ask whether a directory is a mount point, by comparing it with its parent: a bind mount
 * from the same file system is not seen. "/" is one.
 * @param path  at most 1020 characters; not a symbolic link
 * @return 1; 0 otherwise, for null, and for what is not a directory
 */
int qzlib_path_is_mountpoint(const char *path);

/**
 * Kind of the file system that holds a path.
 * @return its magic number, as statfs() gives it; 0 for null or on failure
 */
unsigned qzlib_get_filesystem_type(const char *path);

/** Whether a file can be read and begins with the ELF magic. @return 1 or 0; 0 for null */
int qzlib_file_is_elf(const char *path);

/**
 * Read the version stamp of an installed program, /usr/sbin/PROGRAM (the path is cut to
 * 127 characters). A stamp is the text "--qzversion", any one byte and a version text that
 * begins with 'V' and runs to the next NUL; the first one counts. Only ELF files of at most
 * 5242880 bytes are searched, and the file is held in memory for the call.
 * @param program   file name
 * @param ver_out   receives the version as strncpy() gives it: a version of ver_size
 *                  characters or more arrives without terminator
 * @param ver_size  of ver_out in bytes, at least 1
 * @return 0; -1 for a bad argument or without a stamp, ver_out untouched
 */
int qzlib_get_ori_version(const char *program, char *ver_out, int ver_size);

/** As qzlib_get_ori_version(), of the copy staged for an update, /mnt/update/PROGRAM. */
int qzlib_get_patch_version(const char *program, char *ver_out, int ver_size);

/** Whether a file carries a version stamp, see qzlib_get_ori_version(). @return 1 or 0; 0 for null */
int qzlib_file_is_qzapp(const char *path);

/* ---- system: commands and processes --------------------------------------------------
 * Run shell commands, look at other processes through /proc, guard against running twice,
 * switch descriptors and signal handlers. Only system_dumb() logs. The others keep no
 * state and are callable from any thread; signal handlers belong to the whole process. */

/**
 * Run a shell command and wait for it, no longer than a limit. SIGQUIT and SIGINT are
 * ignored and SIGCHLD has its default action meanwhile; with a limit SIGALRM is taken and
 * unblocked too, and an alarm of the caller's is cancelled for good. All actions and the
 * mask are put back as they were. The command gets the caller's actions. When the limit is
 * reached the shell is killed, not what it has started.
 *
 * Logs at QZLIB_LOG_WARNING with module "system_api" when the command is killed and when it
 * cannot be waited for (someone else reaped it).
 *
 * Not for two threads at once.
 * @param cmd        for /bin/sh -c; only its first 255 characters are used
 * @param timeout_s  seconds; below 1: no limit
 * @return the exit code, 127 when the shell cannot be started; the raw wait status of a
 *         command ended by a signal; QZLIB_ERR_TIME_LIMIT (-267) killed at the limit;
 *         QZLIB_ERR_ARGUMENT (-257) for null; QZLIB_ERR_FAILED (-264) when it cannot be
 *         started or waited for
 */
int system_dumb(const char *cmd, int timeout_s);

/**
 * Run a shell command with the standard system(), without a limit. Logs nothing.
 * @param format  as printf(); only the first 1023 characters of the command are used
 * @return what system() gives; -1 for null
 */
int qzlib_exe_cmd(const char *format, ...) QZLIB_PRINTF(1, 2);

/**
 * Point standard output, and standard error too, at /dev/null. When descriptor 1 or 2 was
 * closed before the call that slot ends up closed again, deliberately.
 * @param keep_stderr  nonzero: leave standard error as it is
 * @return negative when /dev/null cannot be opened, else of no meaning
 */
int qzlib_stdout_to_null(int keep_stderr);

/** Add O_NONBLOCK to a descriptor's status flags. @return 0; QZLIB_ERR_FAILED (-264) */
int qzlib_set_nonblock(int fd);

/** Remove O_NONBLOCK from a descriptor's status flags. @return 0; QZLIB_ERR_FAILED (-264) */
int qzlib_set_block(int fd);

/**
 * Install a signal handler with an empty mask and without SA_RESTART, so that the signal
 * ends a blocking call in progress with EINTR.
 * @param sig      signal
 * @param handler  function, SIG_IGN or SIG_DFL
 * @return the previous handler; SIG_ERR (-1) when it cannot be installed
 */
void (*qzlib_sys_signal(int sig, void (*handler)(int)))(int);

/**
 * State of a process, from /proc/PID/stat. Deliberately, only the first ')' of the line is
 * taken for the end of the name: a name that holds one gives a wrong state.
 * @return 1 running, 2 sleeping, 3 uninterruptible wait, 4 stopped, 5 zombie, 6 dead;
 *         0 any other state, or no such process
 */
int qzlib_get_process_state_by_pid(int pid);

/**
 * Name of a process, from /proc/PID/comm.
 * @param pid   process
 * @param buf   receives at most size - 1 characters of the name, terminated
 * @param size  of buf in bytes; 1 leaves no room and fails
 * @return 0; -1 for a bad argument or no such process, buf untouched
 */
int qzlib_get_process_name_by_pid(int pid, char *buf, int size);

/**
 * Path of the program that a process runs, from the link /proc/PID/exe.
 * @param pid   process
 * @param buf   receives at most size - 1 characters of the path, silently cut, terminated
 * @param size  of buf in bytes; 1 leaves no room and fails
 * @return 0; -1 for a bad argument, no such process or one without program, buf untouched
 */
int qzlib_get_process_path_by_pid(int pid, char *buf, int size);

/**
 * Find a process by its name and, unless path is null, by its program's path too. The first
 * one in the order of /proc counts, which may be the caller.
 * @param name  as qzlib_get_process_name_by_pid() gives it; the kernel keeps 15 characters
 * @param path  as qzlib_get_process_path_by_pid() gives it with 255 characters; or null
 * @return process id; -1 for a null name or when there is none
 */
int qzlib_get_pid_by_name_path(const char *name, const char *path);

/**
 * Ask whether no other process has this one's name and program path. A process whose program
 * file was replaced meanwhile, by an update for example, has another path ("... (deleted)")
 * and is not seen.
 * @return 1 unique, or /proc cannot be read; 0 another instance runs
 */
int qzlib_process_is_unique(void);

/**
 * Let only one instance run: when another one does, prints "The process is already
 * running" and a line feed on standard output and ends this process with exit(0).
 * @return 1
 */
int qzlib_process_unique(void);

/* ---- system: system statistics -------------------------------------------------------
 * Figures of the whole system from the kernel's files. A file that cannot be opened is logged
 * at level 2 (module "system_api"), but for the uptime. No state: callable from any thread. */

/** Whole seconds since boot, from /proc/uptime. @return seconds; 0 when it cannot be read */
unsigned int qzlib_get_system_uptime(void);

/**
 * Time since boot on a scale of its own: seconds times 1000 plus the hundredths as they stand,
 * so that 12.34 s gives 12034. Within a second it grows by 1 per 10 ms, and at the next second
 * it jumps. Deliberate: callers compare with this scale. Does not use the heap.
 * @return the figure; 0 when /proc/uptime cannot be read
 */
unsigned long long qzlib_get_system_uptime_ms(void);

/** Memory of the system. @return kB, "MemTotal:" of /proc/meminfo; 0 without it; -1 without the file */
int qzlib_get_total_mem_size(void);

/** Memory to be had. @return kB, "MemAvailable:" of /proc/meminfo; 0 without it; -1 without the file */
int qzlib_get_free_mem_size(void);

/**
 * Share of memory that is AVAILABLE, deliberately, in spite of the name. 32-bit arithmetic:
 * right up to 40 GiB available.
 * @return 0 to 100; -1 when /proc/meminfo lacks either figure or cannot be opened
 */
int qzlib_get_mem_use_percent(void);

/**
 * Share of the processors' time that was not idle, over one second in which the caller waits
 * (less when a signal interrupts it). Waiting for devices counts as busy. From /proc/stat.
 * @return 0 to 100, whatever the counters do; 0 when no tick went by; -1 when the file cannot
 *         be opened (logged) or read
 */
int qzlib_get_cpu_use_percent(void);

/* ---- device: device information ------------------------------------------------------
 * Who the device is, from /tmp/device.info, the kernel and the settings, and the hardware
 * watchdog. Nothing is logged. The readers keep no state: callable from any thread. An
 * output is written on success only and always terminated, save where said. */

/**
 * A value of /tmp/device.info, from the first line that holds the key anywhere: what stands
 * between its first and its second ':', trimmed. A last line without line feed is ignored,
 * and lines are taken in pieces of 255 characters.
 * @param value_out  256 bytes; the copy is not bounded further
 * @return 0; -1 for null, a missing file, no such line, or one without ':'
 */
int qzlib_get_device_system_info(const char *key, char *value_out);

/** Hardware version: qzlib_get_device_system_info("HW_Version", value_out). */
int qzlib_get_device_hwversion(char *value_out);

/** Device id: qzlib_get_device_system_info("devid", value_out). */
int qzlib_get_device_sn(char *value_out);

/** Device model: qzlib_get_device_system_info("devmodel", value_out). */
int qzlib_get_device_model(char *value_out);

/**
 * Bootloader version: the text after "boot_version=" up to the next whitespace, in the first
 * 256 bytes of /proc/cmdline.
 * @param out  256 bytes
 * @return 0; -1 for null, an unreadable file or no such text
 */
int qzlib_get_device_bootversion(char *out);

/**
 * Kernel version: the text after "kernel_version=" up to the line end, in /proc/version; otherwise
 * as qzlib_get_device_bootversion().
 */
int qzlib_get_device_kernelversion(char *out);

/**
 * Version of the web pages: the first 64 bytes of /data/www/version, trimmed.
 * @param out  65 bytes
 * @return 0; -1 for null or a missing file
 */
int qzlib_get_device_webversion(char *out);

/**
 * Firmware version, "V3.2.0_1904151627".
 * @param out  18 bytes
 * @return 0; -1 for null
 */
int qzlib_get_device_softversion(char *out);

/**
 * Build time: the very same text as the firmware version, deliberately; its tail is the build stamp.
 * @param out  18 bytes
 * @return 0; -1 for null
 */
int qzlib_get_device_build_time(char *out);

/**
 * Processor id: the hexadecimal number after "androidboot.serialno=" in the first 512 bytes of
 * /proc/cmdline.
 * @return the number; 0 without one
 */
unsigned int qzlib_get_cpuid(void);

/**
 * Processor temperature (the name is spelt so), as it stands in
 * /sys/devices/virtual/thermal/thermal_zone0/temp and in that file's unit.
 * @return the number; -1 when the file cannot be read
 */
int qzlib_get_cputempture(void);

/**
 * Modem module (the name is spelt so), from the first 128 bytes of /proc/device-tree/model.
 * @return 1 "EC20", 2 "SLM750", 3 "SIM7600CE", the first one found; 0 for none
 */
int qzlib_get_moduel_type(void);

/** Board, from the same file. @return 1 "K31", 2 "K52R", 3 "K52T", the first one found; 0 for none */
int qzlib_get_board_type(void);

/** Maker of the processor (the name is spelt so). @return "Qualcomm" */
const char *qzlib_get_cpu_vender(void);

/** Model of the processor. @return "MDM9607" */
const char *qzlib_get_cpu_model(void);

/** Clock of the processor. @return "1GHz" */
const char *qzlib_get_cpu_freq(void);

/**
 * Serial number from the settings: the first line of "nvram show" that holds "hd_number",
 * between its first and its second '=', trimmed; a last line without line feed is ignored.
 * Deliberate oddity: the command's process is not waited for where closing a stream does not
 * do that by itself (glibc's does), so that it is the caller's to reap.
 * @param out   filled as strncpy() fills it: not terminated when the text has size
 *              characters or more
 * @param size  of out in bytes
 * @return 0; -1 when there is no such line; QZLIB_ERR_ARGUMENT for null or a size below 1
 */
int qzlib_get_dev_sn(char *out, int size);

/** Does nothing; for callers that expect it. */
void qzlib_watchdog_enable(void);

/** Does nothing; for callers that expect it. See qzlib_watchdog_stop(). */
void qzlib_watchdog_disable(void);

/**
 * Feed the hardware watchdog: writes one byte to /dev/mdm9x07_watchdog. The device is opened
 * by the first call of this or of qzlib_watchdog_stop() and stays open; once fed, the
 * hardware resets the board unless it is fed again in time or stopped. Callable from any
 * thread; two first calls at once may open the device twice.
 * @return result of the write: 1, or -1 with errno
 */
int qzlib_watchdog_feed(void);

/**
 * Stop the hardware watchdog (WDIOC_SETOPTIONS, WDIOS_DISABLECARD).
 * @return result of the request; -1 with errno
 */
int qzlib_watchdog_stop(void);

/* ---- socket: sockets -----------------------------------------------------------------
 * Ready-made sockets. The caller owns every descriptor that is returned and closes it; all
 * are close-on-exec. Connects have no time limit. Local paths are cut to 107 bytes. No
 * state: callable from any thread. Messages go to debug_msg() with the module "socket_api". */

/**
 * Open a local datagram socket connected to a path; non-blocking (when it cannot be
 * switched, that is logged at level 2 and the socket returned all the same).
 * @return descriptor; QZLIB_ERR_ARGUMENT (-257) for null; QZLIB_ERR_FAILED (-264), logged
 *         at level 3 only when no socket can be created
 */
int qzlib_create_connect_unixdomain(const char *path);

/**
 * Send one datagram to a local path. One that cannot be delivered is lost silently.
 * @param len  bytes of buf, at least 1
 * @return 0; QZLIB_ERR_ARGUMENT (-257) for a null pointer or len below 1; else the code of
 *         qzlib_create_connect_unixdomain()
 */
int qzlib_send_to_unixdomain(const char *path, const void *buf, int len);

/**
 * Bind a local datagram socket to a path, removing a file that is there; non-blocking.
 * Nothing removes the file when the socket is closed. Logs every failure.
 * @return descriptor; QZLIB_ERR_ARGUMENT (-257); QZLIB_ERR_FAILED (-264)
 */
int qzlib_create_listen_unixdomain(const char *path);

/**
 * Open a UDP socket to a host. With an address in the form of qzlib_ip_is_valid() and a
 * port of digits no resolver is asked. In that case a socket that fails to connect stays
 * open, deliberately, and text that only looks like an address ("300.1.1.1") connects to
 * 0.0.0.0. Logs nothing.
 * @param port         number or service name
 * @param force_block  above 0: switch the socket to blocking
 * @return descriptor; QZLIB_ERR_ARGUMENT (-257) for null; QZLIB_ERR_FAILED (-264) when the
 *         name is not resolved or the socket cannot be switched; -1 when nothing connects
 *         (-264 if resolved by name with the flag set)
 */
int qzlib_create_connect_udp(const char *host, const char *port, int force_block);

/**
 * Open a TCP connection; otherwise as qzlib_create_connect_udp(), but the flag asks for
 * the opposite.
 * @param nonblock  above 0: switch the connected socket to non-blocking
 */
int qzlib_create_connect_tcp(const char *host, const char *port, int nonblock);

/**
 * Open a socket of whatever kind to the first address of a node and service that connects;
 * always asks the resolver. Logs nothing.
 * @param force_block  above 0: switch the socket to blocking
 * @return descriptor; QZLIB_ERR_ARGUMENT (-257) for null; QZLIB_ERR_FAILED (-264) when the
 *         name is not resolved or the socket cannot be switched; -1 when nothing connects
 *         (-264 with the flag set)
 */
int qzlib_create_connect_addr(const char *node, const char *service, int force_block);

/**
 * Open a listening TCP socket (SO_REUSEADDR, backlog 1024), non-blocking. Logs every failure.
 * @param ip    local IPv4 address; null for any
 * @param port  host order, low 16 bits
 * @return descriptor; QZLIB_ERR_ARGUMENT (-257) for text that is no address;
 *         QZLIB_ERR_FAILED (-264); -1 when no socket can be created, deliberately not -264
 */
int qzlib_create_listen_tcp(const char *ip, unsigned port);

/**
 * Open a UDP socket bound to a port (SO_REUSEADDR), non-blocking. Logs every failure.
 * @param ip    local IPv4 address; null for any
 * @param port  host order, low 16 bits
 * @return descriptor; QZLIB_ERR_ARGUMENT (-257) for text that is no address; QZLIB_ERR_FAILED (-264)
 */
int qzlib_create_listen_udp(const char *ip, unsigned port);

/* ---- net: network interfaces ---------------------------------------------------------
 * Addresses, counters and flags of one interface. Names longer than 15 characters are cut to
 * that by the kernel. Failures are logged at level 3 (module "net_api") where it says so. No
 * state: callable from any thread.
 *
 * Text outputs come with their size in bytes, whose last byte is always set to NUL. A dotted
 * address must fit with its terminator into size - 1 bytes, so that any address needs 17; when
 * it does not fit the buffer keeps what it held but for its last byte. A hardware address needs
 * 18 and is cut to size - 2 characters in less. A size of 0 stands for no bound at all. */

/**
 * Read address, netmask and hardware address ("00:1A:..", upper case). One that cannot be read
 * leaves its buffer untouched and does not stop the others. Logs only when no socket can be had.
 * @param ifname         interface
 * @param ip, mask, mac  outputs, each may be null
 * @return 0 when all that was asked for was read; QZLIB_ERR_FAILED (-264);
 *         QZLIB_ERR_ARGUMENT (-257) for a null ifname
 */
int qzlib_get_interface_info(const char *ifname, char *ip, unsigned ip_size, char *mask, unsigned mask_size,
                             char *mac, unsigned mac_size);

/**
 * The beginning of an interface's address as text, kept for old daemons and NOT the address: the
 * first four characters of its dotted form as a big-endian number ("192.168.1.1" gives
 * 0x3139322E); 0 when it cannot be read.
 * @return as qzlib_get_interface_info(); QZLIB_ERR_ARGUMENT (-257) for a null out, too
 */
int qzlib_get_ip_by_name(const char *ifname, uint32_t *out);

/**
 * As qzlib_get_interface_info(), with the address of the other end of a point-to-point link
 * (on other links it is the interface's own). Logs every failure.
 * @param ifname               interface; null fails like a name that does not exist
 * @param ip, peer, mask, mac  outputs, each may be null
 * @return 0; QZLIB_ERR_FAILED (-264)
 */
int qzlib_get_pppinterface_info(const char *ifname, char *ip, unsigned ip_size, char *peer,
                                unsigned peer_size, char *mask, unsigned mask_size, char *mac,
                                unsigned mac_size);

/**
 * Read the traffic counters of /proc/net/dev. The first line that has the name anywhere in it
 * is taken: "eth0" finds veth0 too when that comes first. Outputs, each may be null, are
 * untouched on failure.
 * @return 0; QZLIB_ERR_NOT_FOUND (-272) without such a line; QZLIB_ERR_FAILED (-264), logged,
 *         when the file cannot be opened
 */
int qzlib_get_interface_status(const char *ifname, long long *rx_bytes, long long *rx_packets,
                               long long *rx_errors, long long *rx_dropped, long long *tx_bytes,
                               long long *tx_packets, long long *tx_errors, long long *tx_dropped);

/**
 * Test interface flags (IFF_UP, IFF_RUNNING, ... of <net/if.h>). A mask with bit 15 or a higher
 * bit is deliberately never found set.
 * @return 0 all set; -1 not all; QZLIB_ERR_FAILED (-264), logged only without a socket;
 *         QZLIB_ERR_ARGUMENT (-257) for a null ifname
 */
int qzlib_get_interface_flag(const char *ifname, int mask);

/**
 * Set interface flags; needs CAP_NET_ADMIN. Logs failures.
 * @return 0; QZLIB_ERR_NOT_FOUND (-272) when all are set already, nothing is written then;
 *         QZLIB_ERR_FAILED (-264); QZLIB_ERR_ARGUMENT (-257) for a null ifname
 */
int qzlib_set_interface_flag(const char *ifname, unsigned mask);

/**
 * Clear interface flags; needs CAP_NET_ADMIN. Logs failures, in other words than setting does.
 * @return 0; QZLIB_ERR_NOT_FOUND (-272) when none is set, nothing is written then;
 *         QZLIB_ERR_FAILED (-264); QZLIB_ERR_ARGUMENT (-257) for a null ifname
 */
int qzlib_clear_interface_flag(const char *ifname, unsigned mask);

/* ---- net: probes ---------------------------------------------------------------------
 * Is a host there, and does a name resolve. Neither logs. Callable from any thread; neither is
 * broken off when its thread is cancelled. */

/**
 * Time until a host takes a TCP connection. A child process resolves and connects, one address
 * after the other; failed attempts count into the time and the lookup does not. At the limit
 * the child is ended. It is gone when the call returns, and it ends through exit(), so that
 * output which the caller has not flushed comes out twice (flush before) and the functions of
 * atexit() and the destructors of static objects run in the child: they must not wait for
 * threads, which it does not have.
 *
 * A child that is forked while another thread is in the resolver can inherit a lock that nobody
 * gives back, and hangs until the limit. For a name the call therefore waits until no look-up
 * of the library's is under way (qzlib_get_domain_ip(), the connecting calls of the sockets),
 * and holds up new ones; it cannot see those that the process makes itself: do not call
 * getaddrinfo() and the like in other threads meanwhile, or probe an address.
 * @param host        name or address
 * @param port        number as text
 * @param timeout_ms  milliseconds for all of it, the wait for other look-ups too; 0: no limit
 * @return the time on the scale of qzlib_get_system_uptime_ms(): 1 per 10 ms and a jump at
 *         every second of uptime; -1 when nobody took the connection, at the limit, or when
 *         no pipe or child can be had; QZLIB_ERR_FAILED (-264) when the name or port is not
 *         resolved; QZLIB_ERR_ARGUMENT (-257) for null or a negative limit
 */
int qzlib_get_tcp_latency(const char *host, const char *port, int timeout_ms);

/**
 * Resolve a name to one dotted IPv4 address. Blocks as long as the resolver does. A name that
 * qzlib_ip_is_valid() accepts is copied unchanged (-1 when it has more than 15 characters). The
 * resolver's first entry counts; an IPv6 entry deliberately gives "0.0.0.0" (its flow
 * information).
 * @param ip_out  16 bytes; untouched on failure
 * @return 0; -1 when the name does not resolve; QZLIB_ERR_ARGUMENT (-257) for null
 */
int qzlib_get_domain_ip(const char *name, char *ip_out);

#ifdef __cplusplus
}
#endif

#endif /* QZLIB_H */
