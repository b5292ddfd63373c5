/* The ground that all areas stand on: result codes, object-store databases, the
 * host's context, the first check of a store's record, the text form of MAC
 * addresses, and logging.
 */
#ifndef UDP_VVLAN_BASE_H
#define UDP_VVLAN_BASE_H

#include "tq_mom.h"
#include "tq_zlog.h"

#include <stdint.h>
#include <stdio.h>
#include <string.h>

/* Results. 0 is success; codes of the object-store client are passed up. */
constexpr int VVLAN_OK = 0;
constexpr int VVLAN_E_NO_ENTRY = -1;     /* no synchronisation entry, no tracker node */
constexpr int VVLAN_E_NO_OBJECT = -2;    /* a record or a forwarding-plane object could not be created */
constexpr int VVLAN_E_INVALID = -4;      /* invalid or missing input, or a store error in a callback */
constexpr int VVLAN_E_RECOVER = -6;      /* no recovery entry could be allocated */
constexpr int VVLAN_E_NOT_FOUND = -7;    /* no such port or OUI */
constexpr int VVLAN_E_STORE = -11;       /* an object-store write or subscription failed */
constexpr int VVLAN_E_UNAVAILABLE = -17; /* no log category, no forwarding-plane manager */
constexpr int VVLAN_E_UNHANDLED = -20;   /* an operation or field tag that the code does not handle */
constexpr int VVLAN_WALK_NULL = 4;       /* a walk callback received a null record */
constexpr int VVLAN_RECONNECT_IGNORED = 77;

/* Object-store databases. */
constexpr uint32_t VVLAN_DB_STATUS = 0;  /* status and service registration */
constexpr uint32_t VVLAN_DB_CONFIG = 4;  /* configuration, and our reports to the control side */
constexpr uint32_t VVLAN_DB_ADDRESS = 6; /* the bridge's learned addresses; TQ_MOM_UDP_DB holds our own objects */

/* The name under which the module registers itself everywhere. */
constexpr char VVLAN_MODULE_NAME[] = "udp_vvlan";

/* MAC addresses: six bytes in transmission order, and one format for texts. */
constexpr uint32_t VVLAN_MAC_SIZE = 6;
#define VVLAN_MAC_FORMAT "%02X%02X.%02X%02X.%02X%02X"
#define VVLAN_MAC_ARGS(mac) (mac)[0], (mac)[1], (mac)[2], (mac)[3], (mac)[4], (mac)[5]

extern "C" {

/* The host's global context (tq_global_t): the context of every object-store
 * call, and the handle of every forwarding-plane call. Owned by the host. */
extern void *g_udp_vvlan_global;

/* Verbosity, 0 to 5: 0 nothing, 1 error, 2 and 3 and warn, 4 and info, 5 and debug. */
extern uint32_t g_vvlan_zlog_level;

/* Category "vvlan"; null while logging is not open. Owned by the host. */
extern void *g_vvlan_zlog_category;

/* Writes a formatted text to the log; does nothing without a category. */
void udp_vvlan_log_write(const char *file, size_t filelen, const char *func, size_t funclen, long line, int level,
                         const char *text);

/* The check that every decoder begins with: there is a record, and it has no
 * store error. Otherwise -4, with a log line. */
int udp_vvlan_event_check(const tq_mom_record_t *record);
}

constexpr size_t VVLAN_LOG_TEXT_SIZE = 1024; /* bytes; longer texts are cut */

/* Formats and writes one message: line, file and function of the place, then
 * as for printf. One instance per list of argument types, so that the many
 * places that log cost a call each and not a buffer each. */
template <typename... Args>
[[gnu::noinline]] void udp_vvlan_log_format(int level, long line, const char *file, const char *func,
                                            const char *format, Args... args)
{
    char text[VVLAN_LOG_TEXT_SIZE] = {};
    at_snprintf(text, sizeof text, format, args...);
    udp_vvlan_log_write(file, strlen(file), func, strlen(func), line, level, text);
}

/* A message is formatted only when the level asks for it. The format is a
 * literal. VVLAN_LOG has the compiler check the arguments as printf's; _RAW
 * takes conversions that only the host's formatter knows. */
#define VVLAN_LOG_RAW(threshold, level, format, ...)                                                                   \
    do {                                                                                                               \
        if (g_vvlan_zlog_level >= (threshold)) {                                                                       \
            udp_vvlan_log_format((level), __LINE__, __FILE_NAME__, __func__, "" format __VA_OPT__(, ) __VA_ARGS__);    \
        }                                                                                                              \
    } while (0)
#define VVLAN_LOG(threshold, level, ...)                                                                               \
    do {                                                                                                               \
        (void)sizeof(printf(__VA_ARGS__));                                                                             \
        VVLAN_LOG_RAW(threshold, level, __VA_ARGS__);                                                                  \
    } while (0)

constexpr uint32_t VVLAN_LOG_AT_ERROR = 1;
constexpr uint32_t VVLAN_LOG_AT_WARN = 2;
constexpr uint32_t VVLAN_LOG_AT_INFO = 4;
constexpr uint32_t VVLAN_LOG_AT_DEBUG = 5;

#define VVLAN_LOG_ERROR(...) VVLAN_LOG(VVLAN_LOG_AT_ERROR, TQ_ZLOG_ERROR, __VA_ARGS__)
#define VVLAN_LOG_WARN(...) VVLAN_LOG(VVLAN_LOG_AT_WARN, TQ_ZLOG_WARN, __VA_ARGS__)
#define VVLAN_LOG_INFO(...) VVLAN_LOG(VVLAN_LOG_AT_INFO, TQ_ZLOG_INFO, __VA_ARGS__)
#define VVLAN_LOG_DEBUG(...) VVLAN_LOG(VVLAN_LOG_AT_DEBUG, TQ_ZLOG_DEBUG, __VA_ARGS__)

#endif
