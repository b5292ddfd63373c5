/* Start-up, in three steps that the host and the object store drive: the host
 * hands over its context and calls the redundancy hook; the hook connects to
 * the four databases; when the last of them is connected, the module initialises
 * itself. When a lost database comes back (type 2) and all four are connected
 * again, it re-initialises itself: tables, ACLs and the timer stay, and the
 * subscriptions are made again and correct them. The module cannot work after
 * half a start-up, so a failure ends the process, and the host restarts it.
 */
#include "udp_vvlan.h"

#include "tq_global.h"
#include "tq_mom.h"
#include "udp_vvlan_age.h"
#include "udp_vvlan_base.h"
#include "udp_vvlan_ds.h"
#include "udp_vvlan_fp.h"
#include "udp_vvlan_glb_cfg.h"
#include "udp_vvlan_handler.h"
#include "udp_vvlan_list.h"
#include "udp_vvlan_mac.h"
#include "udp_vvlan_oui.h"
#include "udp_vvlan_port.h"
#include "udp_vvlan_recover.h"

#include <stdlib.h>

/* One database that the module needs. */
typedef struct vvlan_mom_event {
    vvlan_list_t link; /* in vvlan_mom_status_t::events */
    uint32_t id;       /* database */
    uint32_t ready;    /* 1 while connected */
} vvlan_mom_event_t;

typedef struct vvlan_mom_status {
    const char *name;    /* shown in status lines */
    vvlan_list_t events; /* vvlan_mom_event_t, in the order of vvlan_mom_databases */
    uint8_t inited;      /* 1 from the first successful initialisation on */
} vvlan_mom_status_t;

/* Connect callbacks receive a pointer to their entry. */
static uint32_t vvlan_mom_databases[] = {VVLAN_DB_CONFIG, VVLAN_DB_STATUS, VVLAN_DB_ADDRESS, TQ_MOM_UDP_DB};

static vvlan_mom_status_t vvlan_mom_status = {
    VVLAN_MODULE_NAME, {&vvlan_mom_status.events, &vvlan_mom_status.events}, 0};

static vvlan_mom_event_t *find_event(uint32_t id)
{
    for (vvlan_list_t *node = vvlan_mom_status.events.next; node != &vvlan_mom_status.events; node = node->next) {
        auto *event = VVLAN_LIST_ENTRY(node, vvlan_mom_event_t, link);
        if (event->id == id) {
            return event;
        }
    }
    return nullptr;
}

static bool all_ready(void)
{
    for (vvlan_list_t *node = vvlan_mom_status.events.next; node != &vvlan_mom_status.events; node = node->next) {
        if (VVLAN_LIST_ENTRY(node, vvlan_mom_event_t, link)->ready != 1) {
            return false;
        }
    }
    return true;
}

static void drop_events(void)
{
    while (!udp_vvlan_list_empty(&vvlan_mom_status.events)) {
        vvlan_list_t *node = vvlan_mom_status.events.next;
        udp_vvlan_list_unlink(node);
        free(VVLAN_LIST_ENTRY(node, vvlan_mom_event_t, link));
    }
}

int udp_vvlan_global_init(void *global)
{
    if (global == nullptr) {
        VVLAN_LOG_ERROR("Assert:<init> udp_vvlan_global_init failed.");
        return VVLAN_E_INVALID;
    }
    g_udp_vvlan_global = global;
    return VVLAN_OK;
}

int udp_vvlan_rdnd_aware_callback(...)
{
    udp_vvlan_mom_init();
    udp_vvlan_mom_connect(g_udp_vvlan_global);
    return VVLAN_OK;
}

void udp_vvlan_mom_init(void)
{
    drop_events();
    vvlan_mom_status.name = VVLAN_MODULE_NAME;
    for (const uint32_t id : vvlan_mom_databases) {
        if (find_event(id) != nullptr) {
            continue;
        }
        auto *event = static_cast<vvlan_mom_event_t *>(malloc(sizeof(vvlan_mom_event_t)));
        if (event == nullptr) {
            VVLAN_LOG_ERROR("<init> add mom event(%d) failed, rv = %d.", id, VVLAN_E_NO_ENTRY);
            tq_global_finish(g_udp_vvlan_global);
            continue;
        }
        event->id = id;
        event->ready = 0;
        udp_vvlan_list_append(&vvlan_mom_status.events, &event->link);
    }
    VVLAN_LOG_INFO("<init> init mom status successfully.");
}

static int connect_database(void *ctx, uint32_t *id)
{
    int rv = tq_mom_client_connect_sync(ctx, *id);
    rv |= tq_mom_client_connect(ctx, *id, udp_vvlan_mom_connect_callback, id);
    if (rv == 0) {
        rv = tq_mom_client_set_disconnect_cb(ctx, *id, udp_vvlan_mom_disconnect_callback, nullptr);
    }
    if (rv == 0) {
        rv = tq_mom_client_set_reconnect_cb(ctx, *id, udp_vvlan_mom_reconnect_callback, nullptr);
    }
    return rv;
}

void udp_vvlan_mom_connect(void *ctx)
{
    for (uint32_t &id : vvlan_mom_databases) {
        const int rv = connect_database(ctx, &id);
        if (rv != 0) {
            VVLAN_LOG_ERROR("<init> udp_vvlan_mom_connect failed, rv = %d.", rv);
            tq_global_finish(ctx);
            exit(rv);
        }
    }
    VVLAN_LOG_INFO("<init> init all mom successfully.");
}

int udp_vvlan_mom_connect_callback(void *ctx, void *user)
{
    const uint32_t id = *static_cast<const uint32_t *>(user);
    vvlan_mom_event_t *event = find_event(id);
    if (event != nullptr) {
        event->ready = 1;
        VVLAN_LOG_INFO("<status:event(%d) of %s> update already.\n", id, vvlan_mom_status.name);
    } else {
        VVLAN_LOG_ERROR("<status: %s> event(%d) is not found.\n", vvlan_mom_status.name, id);
    }
    if (!all_ready()) {
        VVLAN_LOG_INFO("<status: %s> %s is not already.", vvlan_mom_status.name, __func__);
        return VVLAN_OK;
    }
    VVLAN_LOG_INFO("<status: %s> %s is already now.", vvlan_mom_status.name, __func__);
    VVLAN_LOG_INFO("<mom> all mom is connected now.");

    const int rv = udp_vvlan_init(ctx, VVLAN_MODULE_NAME);
    if (rv != 0) {
        VVLAN_LOG_ERROR("<exit> init udp vvlan failed, rv = %d.", rv);
        exit(rv);
    }
    return VVLAN_OK;
}

int udp_vvlan_mom_disconnect_callback([[maybe_unused]] void *ctx, uint32_t id)
{
    VVLAN_LOG_WARN("<mom> mom(%d) is disconneted.", id);
    vvlan_mom_event_t *event = find_event(id);
    if (event != nullptr) {
        event->ready = 0;
        VVLAN_LOG_INFO("<status:event(%d) of %s> %s update waiting.\n", id, vvlan_mom_status.name, __func__);
    } else {
        VVLAN_LOG_ERROR("<status: %s> %s event(%d) is not found.\n", vvlan_mom_status.name, __func__, id);
    }
    return VVLAN_OK;
}

int udp_vvlan_mom_reconnect_callback(void *ctx, uint32_t id, int32_t type)
{
    constexpr int32_t changes_missed = 2;
    VVLAN_LOG_WARN("<mom> mom(%d) reconnected, type = %d.", id, type);
    if (type != changes_missed) {
        return VVLAN_RECONNECT_IGNORED;
    }
    const int rv = udp_vvlan_mom_connect_callback(ctx, &id);
    if (rv != 0) {
        VVLAN_LOG_ERROR("Assert:<mom> deal with mom(%d) reconnected failed, rv = %d.", id, rv);
    }
    return rv;
}

static int init_first(void *ctx, const char *name)
{
    int rv = udp_vvlan_glb_cfg_init();
    rv |= udp_vvlan_fp_init(ctx, name);
    rv |= udp_vvlan_handler_init(ctx, name);
    rv |= udp_vvlan_recover_ds_init(ctx);
    rv |= udp_vvlan_ds_init(ctx, name);
    rv |= udp_vvlan_timer_init();
    if (rv != 0) {
        VVLAN_LOG_ERROR("Assert:<init> init vvlan failed, restart now!");
        return rv;
    }
    VVLAN_LOG_INFO("<init> init vvlan successfully.");
    vvlan_mom_status.inited = 1;
    return VVLAN_OK;
}

static int init_again(void *ctx)
{
    oui_cfg_scan_over = 0;
    glb_cfg_scan_over = 0;
    port_cfg_scan_over = 0;
    port_noti_scan_over = 0;
    udp_vvlan_recover_db_clear();
    int rv = udp_vvlan_recover_ds_init(ctx);
    rv |= udp_vvlan_ds_init(ctx, VVLAN_MODULE_NAME);
    if (rv != 0) {
        VVLAN_LOG_ERROR("Assert:<reinit> reinit vvlan failed, restart now!");
    } else {
        VVLAN_LOG_INFO("<reinit> reinit vvlan successfully.");
    }
    return rv;
}

int udp_vvlan_init(void *ctx, const char *name)
{
    return vvlan_mom_status.inited == 0 ? init_first(ctx, name) : init_again(ctx);
}

/* The dynamic linker runs this when the host unloads the module: it frees what
 * is left on the heap. The store, the forwarding plane and the timers are the
 * host's; it has removed our callbacks before. */
__attribute__((destructor)) static void udp_vvlan_unload(void)
{
    drop_events();
    udp_vvlan_oui_release();
    udp_vvlan_mac_release();
    udp_vvlan_port_release();
    udp_vvlan_recover_release();
}
