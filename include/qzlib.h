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
 * Sections, one per family:
 *   strings and addresses, message log, CLI configuration, service store, event flags,
 *   files and packages, commands and processes.
 *
 * The cJSON functions come with the library: <cjson/cJSON.h> is included here, and a
 * daemon that links with -lqzlib alone may call them.
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

/* ---- Strings and addresses -----------------------------------------------------------
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
 * @return pointer into path behind its last '/', to its terminator when it ends in '/';
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

/* ---- Message log ---------------------------------------------------------------------
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

/** End syslog mode with closelog(); nothing to do in file mode. Later messages reopen. */
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
 * @param level   QZLIB_LOG_DEBUG to QZLIB_LOG_FATAL, no other value
 * @param module  source module for syslog ("{module->line}"), or null for the bare message
 * @param line    line of the call
 * @param format  as printf()
 */
void debug_msg(int level, const char *module, int line, const char *format, ...) QZLIB_PRINTF(4, 5);

/**
 * Format a time as local time, "%Y-%m-%d %X".
 * @param t     seconds since the epoch; 0 for now
 * @param buf   receives at most size - 1 characters; its last byte is always set to NUL
 * @param size  of buf in bytes, at least 1
 * @return buf
 */
char *str_timestamp(time_t t, char *buf, int size);

/**
 * Delete a file that has reached a size.
 * @param path      file
 * @param max_size  bytes
 * @return the file's size (low 32 bits) when it is below max_size; when it was deleted the
 *         result of the deletion, 0 on success; nonzero when it cannot be examined
 */
int reset_file_size(const char *path, int max_size);

/* ---- Service store -------------------------------------------------------------------
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
 * The store is a flat list in file order: a group is a header entry and the members behind
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
 * Write errors are ignored.
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
 * behind the first of its name, deliberately: a, then b, then c come out as a, c, b. Places
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
 * Find the first parameter of a name. In a group an ungrouped parameter behind the header
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
 * List the parameters of one group; an ungrouped parameter behind the header ends it.
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

/* ---- Event flags ---------------------------------------------------------------------
 * 32 flags on which the threads of one process wait. Time limits are whole seconds of the
 * monotonic clock, and a limit below 1 means no limit. Every change wakes one waiter, not
 * all; a woken waiter whose condition does not hold starts its whole limit anew. No wait
 * changes a flag. Functions are safe from any thread; a null group gives -1 (0 from
 * qzlib_event_check_flag()). */

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

/** Look at the flags without waiting or locking. @return 1 when all of mask are set (none is), else 0 */
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

/* ---- Commands and processes ----------------------------------------------------------
 * Run shell commands, look at other processes, guard against running twice, switch
 * descriptors and signal handlers. */

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

#ifdef __cplusplus
}
#endif

#endif /* QZLIB_H */
