/* Logging starts at level 1 (errors) and without a category: what is logged
 * before the host has opened the log is dropped.
 */
#include "udp_vvlan_base.h"

void *g_udp_vvlan_global;
uint32_t g_vvlan_zlog_level = VVLAN_LOG_AT_ERROR;
void *g_vvlan_zlog_category;

void udp_vvlan_log_write(const char *file, size_t filelen, const char *func, size_t funclen, long line, int level,
                         const char *text)
{
    if (g_vvlan_zlog_category != nullptr) {
        tqdf_zlog(g_vvlan_zlog_category, file, filelen, func, funclen, line, level, "%s", text);
    }
}

int udp_vvlan_event_check(const tq_mom_record_t *record)
{
    if (record == nullptr) {
        VVLAN_LOG_ERROR("Assert:MOM msg is NULL.\n");
        return VVLAN_E_INVALID;
    }
    if (record->error != 0) {
        VVLAN_LOG_ERROR("Assert:MOM error is %d.\n", record->error);
        return VVLAN_E_INVALID;
    }
    return VVLAN_OK;
}
