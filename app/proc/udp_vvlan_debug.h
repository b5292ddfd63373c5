/* Logging, the log level and its file, and the eight debug commands.
 */
#ifndef UDP_VVLAN_DEBUG_H
#define UDP_VVLAN_DEBUG_H

#include "tq_zlog.h"

#include <stdint.h>
#include <stdio.h>
#include <string.h>

extern "C" {

/* Verbosity, 0 to 5: 0 nothing, 1 error, 2 and 3 and warn, 4 and info, 5 and debug. */
extern uint32_t g_vvlan_zlog_level;

/* Category "vvlan"; null while logging is not open. Owned by the host. */
extern void *g_vvlan_zlog_category;

/* Opens the category and reads the level file. -17 when the host has no log. */
int udp_vvlan_zlog_init(void);

/* Registers the debug commands; the arguments go to the command library. */
int udp_vvlan_at_init(void *a0, void *module, void *a2, void *a3);

/* Debug commands. They print to standard output. */
void udp_vvlan_show_log_level(void);
void udp_vvlan_set_zlog_level(int level);
void udp_vvlan_dump_glb_cfg(void);
void udp_vvlan_dump_oui(void);
void udp_vvlan_dump_port(void);
void udp_vvlan_dump_port_mac(int ifx);
void udp_vvlan_dump_all_mac(void);
void udp_vvlan_dump_recover_entry(void);

/* Hands a formatted text to the log; with no category nothing is written. */
void udp_vvlan_log_write(const char *file, size_t filelen, const char *func, size_t funclen, long line, int level,
                         const char *text);
}

constexpr size_t VVLAN_LOG_TEXT_SIZE = 1024; /* bytes; longer texts are cut */

/* One format for MAC addresses in texts. */
#define VVLAN_MAC_FORMAT "%02X%02X.%02X%02X.%02X%02X"
#define VVLAN_MAC_ARGS(mac) (mac)[0], (mac)[1], (mac)[2], (mac)[3], (mac)[4], (mac)[5]

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

/* A message is formatted only when the level asks for it. _RAW takes formats
 * that only the host's formatter knows; VVLAN_LOG has the compiler check the
 * format as printf's. */
#define VVLAN_LOG_RAW(threshold, level, ...)                                                                           \
    do {                                                                                                               \
        if (g_vvlan_zlog_level >= (threshold)) {                                                                       \
            udp_vvlan_log_format((level), __LINE__, __FILE_NAME__, __func__, __VA_ARGS__);                             \
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
