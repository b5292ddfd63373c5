/* The host's log. A module opens a category once and writes lines to it.
 *
 * Levels are those of the zlog library, so that one host can show lines of
 * several modules together.
 */
#ifndef TQ_ZLOG_H
#define TQ_ZLOG_H

#include <stddef.h>

#ifdef __cplusplus
extern "C" {
#endif

#define TQ_ZLOG_DEBUG 20
#define TQ_ZLOG_INFO 40
#define TQ_ZLOG_NOTICE 60
#define TQ_ZLOG_WARN 80
#define TQ_ZLOG_ERROR 100
#define TQ_ZLOG_FATAL 120

#define TQ_ZLOG_CATEGORY_COUNT_MAX 64u /* categories in the host */

/* Opens (or finds) the category of this name. Returns its handle, owned by
 * the host and valid for the life of the process, or null where the name is
 * missing or TQ_ZLOG_CATEGORY_COUNT_MAX others are open. */
void *tq_zlog_init(const char *category);

/* Writes one line. category: a handle of tq_zlog_init. file, func: not
 * necessarily NUL-terminated beyond their length. level: one of the above;
 * another value is shown as the next lower one. format: as for printf. All
 * arguments are read during the call only. */
void tqdf_zlog(void *category, const char *file, size_t filelen, const char *func, size_t funclen, long line, int level,
               const char *format, ...);

/* snprintf with one conversion more: %m prints the MAC address at a
 * const uint8_t[6] as three dot-separated groups of four hexadecimal digits
 * ("0004.7622.2017"); a null pointer prints "(null)". Result as of snprintf:
 * the length that the whole text would have had, or negative on a bad format.
 * The buffer is always terminated when size is not 0. */
int at_snprintf(char *buf, size_t size, const char *format, ...);

#ifdef __cplusplus
}
#endif
#endif
