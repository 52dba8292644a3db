/* Logging to the log service of the appliance, from C99 and from C++11 on.
 *
 *     tarvik_log *log;
 *     int error = tarvik_log_open(&log, 1, 1982, 2001);
 *     tarvik_log_info(log, "link %s is up", name);
 *
 * A text becomes one record, or several when it is longer than a record takes. A record is a
 * datagram to 127.0.0.1: no call ever waits for the service, and what could not be delivered is
 * counted (tarvik_log_stats). How it all works: docs/client.md.
 *
 * Results: 0 or more is success; errors are negative errno values, named at each call. No call
 * changes errno. A null handle is allowed everywhere: nothing is done, and the result is -EINVAL.
 * So a program whose log could not be opened runs on, without a log.
 *
 * Threads: every call but tarvik_log_close may be made from any number of threads at once, on the
 * same handle too. No call may be made from a signal handler. After fork the child opens a handle
 * of its own; of the inherited one it may only call tarvik_log_close.
 */
#ifndef TARVIK_LOG_H
#define TARVIK_LOG_H

#include <stdarg.h>
#include <stddef.h>
#include <stdint.h>

#define TARVIK_LOG_API __attribute__((__visibility__("default")))
#define TARVIK_LOG_PRINTF(format, first) __attribute__((__format__(__printf__, format, first)))

#ifdef __cplusplus
extern "C" {
#endif

/* Types of records. The service stores 0 to 3 alike, and lights the LED of the appliance for 1 and
 * 2; what the numbers mean otherwise is the convention of this library. Real-time records are
 * shown to the engineer who asked for them, and not stored. */
enum {
    TARVIK_LOG_INFO = 0,
    TARVIK_LOG_WARNING = 1,
    TARVIK_LOG_ERROR = 2,
    TARVIK_LOG_DEBUG = 3,
    TARVIK_LOG_REALTIME = 4
};

/* Bytes of text that one record takes. */
enum { TARVIK_LOG_TEXT_BYTES = 279 };

/* A handle. The member belongs to the library: it lets tarvik_log_wants_realtime answer without a
 * call. 0: ask the library; TARVIK_LOG_SKIP_ALL: off until the library says otherwise; in between:
 * off, and to be counted down. */
typedef struct tarvik_log {
    unsigned int skip;
} tarvik_log;

#define TARVIK_LOG_SKIP_ALL 0xFFFFFFFFu

/* Opens a handle and leaves it in *log; null there on failure. Records go to 127.0.0.1 and
 * service_port, PortFromClient of log.conf, whether the service runs yet or not.
 * client_index: number of the client's section in log.conf, 0 to 99.
 * control_port: ListenPort of that section, where the service switches real-time logging; 0: none,
 * and real-time logging stays off.
 * 0; -EINVAL: log is null, the index is out of range or service_port is 0; -EADDRINUSE: another
 * program has the control port; -ENOMEM; or what the system said to the sockets, such as -EMFILE or
 * -EACCES. */
TARVIK_LOG_API int tarvik_log_open(tarvik_log** log, int client_index, uint16_t service_port,
                                   uint16_t control_port);

/* Ends the thread if there is one, closes the sockets and frees the handle. No other call may be
 * running on it, so it is not for callbacks. */
TARVIK_LOG_API void tarvik_log_close(tarvik_log* log);

/* Log a text of the type in the name, formatted as by printf, with the local time of now.
 * 0: every record of it was handed to the system. Otherwise at least one could not be and is
 * counted as lost; the others went out:
 * -EAGAIN, -ENOBUFS: the system has no room for it now; -ENOMEM: no memory to format the text;
 * -EOVERFLOW, -EILSEQ and the like: printf cannot format it; or what the system said, such as
 * -EPERM or -ENETUNREACH.
 * That the service is not there is known only after a record was handed on. It is no error of the
 * call, and is counted. */
TARVIK_LOG_API int tarvik_log_info(tarvik_log* log, const char* format, ...)
    TARVIK_LOG_PRINTF(2, 3);
TARVIK_LOG_API int tarvik_log_warning(tarvik_log* log, const char* format, ...)
    TARVIK_LOG_PRINTF(2, 3);
TARVIK_LOG_API int tarvik_log_error(tarvik_log* log, const char* format, ...)
    TARVIK_LOG_PRINTF(2, 3);
TARVIK_LOG_API int tarvik_log_debug(tarvik_log* log, const char* format, ...)
    TARVIK_LOG_PRINTF(2, 3);

/* tarvik_log_realtime(log, format, ...): logs a real-time record as above while real-time logging
 * is on. While it is off, 0, and the arguments behind log are not evaluated; this costs one or two
 * nanoseconds. log is evaluated twice. The function does the same but evaluates everything. */
#define tarvik_log_realtime(log, ...) \
    (tarvik_log_wants_realtime(log) ? tarvik_log_realtime_print((log), __VA_ARGS__) : 0)
TARVIK_LOG_API int tarvik_log_realtime_print(tarvik_log* log, const char* format, ...)
    TARVIK_LOG_PRINTF(2, 3);

/* Logs a text as above. type: 0 to 4; real-time only while that is on. -EINVAL also: no such type.
 */
TARVIK_LOG_API int tarvik_log_vprintf(tarvik_log* log, int type, const char* format,
                                      va_list arguments) TARVIK_LOG_PRINTF(3, 0);

/* Logs length bytes of text, or those before the first NUL among them, as they are. Otherwise as
 * tarvik_log_vprintf. -EINVAL also: text is null. */
TARVIK_LOG_API int tarvik_log_write(tarvik_log* log, int type, const char* text, size_t length);

/* How many records were handed to the service (*sent) and how many were not (*lost) since
 * tarvik_log_open. Each record counts once, as one or the other; one that was refused because the
 * service is not there moves from sent to lost as soon as the system reports that. Either pointer
 * may be null. 0. */
TARVIK_LOG_API int tarvik_log_stats(tarvik_log* log, uint64_t* sent, uint64_t* lost);

/* A value that the service announced, and what was given together with the callback. */
typedef void (*tarvik_log_callback)(int value, void* user);

/* callback(value, user) is called whenever the value of real-time logging changes: 1 to 65535, as
 * the engineer chose it, for on, 0 for off. Null: nobody is called. One callback runs at a time, in
 * the order of the announcements, on the thread that found the announcement: any that makes a call
 * of this library on the handle, or the handle's own. It may log; it must not close the handle, and
 * no exception may leave it. The callback of before may still be running when this returns. 0. */
TARVIK_LOG_API int tarvik_log_on_realtime(tarvik_log* log, tarvik_log_callback callback,
                                          void* user);

/* As above, for each announcement of a display language: 0 for Chinese, 1 for English. */
TARVIK_LOG_API int tarvik_log_on_language(tarvik_log* log, tarvik_log_callback callback,
                                          void* user);

/* Without any of the following, calls that log look for announcements themselves, at most every 10
 * ms. A program that may be quiet for long and wants to hear at once uses one of two ways: */

/* Starts a thread that waits for announcements, until tarvik_log_close. It is named "tarvik-log"
 * and handles no signals. 0; -ENOTCONN: the handle has no control port; -EALREADY: it runs; or what
 * the system said, such as -EAGAIN. */
TARVIK_LOG_API int tarvik_log_start_thread(tarvik_log* log);

/* The descriptor that becomes readable when an announcement is there; the handle keeps it. To be
 * waited for in an event loop that then calls tarvik_log_poll. -ENOTCONN: there is none. */
TARVIK_LOG_API int tarvik_log_fd(tarvik_log* log);

/* Takes up to 64 announcements that are there, without waiting. How many were valid; 0 also when
 * another thread is at it. -ENOTCONN: the handle has no control port. */
TARVIK_LOG_API int tarvik_log_poll(tarvik_log* log);

/* What tarvik_log_wants_realtime calls when it cannot tell by itself. */
TARVIK_LOG_API int tarvik_log_look(tarvik_log* log);

/* The value of real-time logging, 0 when it is off. For work that is only worth it when on. */
static inline int tarvik_log_wants_realtime(tarvik_log* log) {
    unsigned int skip;
    if (!log) {
        return 0;
    }
    skip = __atomic_load_n(&log->skip, __ATOMIC_RELAXED);
    if (skip == 0) {
        return tarvik_log_look(log);
    }
    if (skip != TARVIK_LOG_SKIP_ALL) {
        /* Not exact between threads, and need not be: it only spaces out the looks. */
        __atomic_store_n(&log->skip, skip - 1, __ATOMIC_RELAXED);
    }
    return 0;
}

#ifdef __cplusplus
}
#endif

#endif
