/* The bridge learns addresses and notifies the module. For the voice VLAN the
 * module keeps a registration object in the store, a subscription to the
 * bridge's notifications, and a record for each notified MAC that an OUI
 * matches, under the port where it was last seen. A MAC does not make a port
 * join; it only keeps a joined port from aging out.
 *
 * Each time the subscription is established, a mark-and-sweep cycle removes
 * old registrations. A registration is withdrawn after the voice VLAN id has
 * changed, so the subscribed and the registered id are remembered here.
 */
#include "udp_vvlan_mac.h"

#include "udp_vvlan_base.h"
#include "udp_vvlan_glb_cfg.h"
#include "udp_vvlan_oui.h"
#include "udp_vvlan_port.h"

constexpr uint64_t VVLAN_MAC_OWNER = 1000;  /* owner of our registration objects */
constexpr uint64_t VVLAN_MAC_EXPIRY = 1000; /* of their data-sync cycle */

/* A VLAN id or none. No number stands for none, since each may be configured. */
typedef struct vvlan_known_vid {
    bool known;
    uint32_t vid; /* meaningful while known */
} vvlan_known_vid_t;

static vvlan_known_vid_t vvlan_subscribed; /* VLAN of the subscription */
static vvlan_known_vid_t vvlan_registered; /* VLAN of the registration object */
static vvlan_known_vid_t vvlan_withdrawn;  /* VLAN that was unsubscribed; its 28 has not come yet */

VVLAN_HASH_DEFINE(mac, vvlan_mac_traits);

/* ---- Records ---- */

int udp_vvlan_mac_init(void)
{
    return udp_vvlan_mac_hash_init();
}

vvlan_mac_t *udp_vvlan_mac_get(const uint8_t *mac)
{
    vvlan_mac_t key = {};
    memcpy(key.mac, mac, VVLAN_MAC_SIZE);
    return udp_vvlan_mac_hash_find(&key);
}

vvlan_mac_t *udp_vvlan_mac_op(const vvlan_mac_t *tmpl, uint32_t add)
{
    vvlan_mac_t *record;
    if (add != 0) {
        return udp_vvlan_mac_cache_create(&record, tmpl);
    }
    record = udp_vvlan_mac_hash_find(tmpl);
    if (record != nullptr) {
        udp_vvlan_mac_cache_destroy(record);
    }
    return nullptr;
}

bool udp_vvlan_mac_data_valid(const PLibpub__Mac *mac)
{
    return mac != nullptr && mac->data.data != nullptr && mac->data.len == VVLAN_MAC_SIZE;
}

/* ---- Subscription, scan, registration ---- */

/* The template of notifications in one VLAN. */
typedef struct vvlan_noti_template {
    UBridge__UdpL2addrBaseIndex key;
    UBridge__MacVidRegNoti noti;
} vvlan_noti_template_t;

static const ProtobufCMessage *make_noti_template(vvlan_noti_template_t *tmpl, uint32_t vid)
{
    tmpl->key = U_BRIDGE__UDP_L2ADDR_BASE_INDEX__INIT;
    tmpl->key.t_fid = vid;
    tmpl->noti = U_BRIDGE__MAC_VID_REG_NOTI__INIT;
    tmpl->noti.index = &tmpl->key;
    return &tmpl->noti.base;
}

/* The registration object of one VLAN. */
typedef struct vvlan_registration {
    UBridge__MacVidIndex key;
    UBridge__MacVidReg reg;
} vvlan_registration_t;

static const ProtobufCMessage *make_registration(vvlan_registration_t *object, uint32_t vid)
{
    object->key = U_BRIDGE__MAC_VID_INDEX__INIT;
    object->key.vid = vid;
    object->reg = U_BRIDGE__MAC_VID_REG__INIT;
    object->reg.index = &object->key;
    return &object->reg.base;
}

static uint32_t subscribed_or_present_vid(void)
{
    return vvlan_subscribed.known ? vvlan_subscribed.vid : g_udp_vvlan_glb_cfg.vid;
}

static int subscribe(uint32_t vid)
{
    vvlan_noti_template_t tmpl;
    const vvlan_known_vid_t subscribed_before = vvlan_subscribed;
    vvlan_subscribed = {true, vid}; /* before the call, since it may be established before it returns */
    const int rv = tq_mom_subscribe(g_udp_vvlan_global, VVLAN_DB_ADDRESS, make_noti_template(&tmpl, vid),
                                    TQ_MOM_MATCH_FIELDS, udp_vvlan_mac_subscribe_callback, nullptr);
    if (rv != 0) {
        vvlan_subscribed = subscribed_before;
        VVLAN_LOG_ERROR("Assert:<ds> subscribe vid_reg_noti failed, rv = %d.", rv);
        return rv;
    }
    VVLAN_LOG_INFO("sub mac addr for voice vlan(%04u) successfully.", vid);
    return VVLAN_OK;
}

/* The withdrawal may come before the call returns, too. */
static int unsubscribe(void)
{
    vvlan_noti_template_t tmpl;
    const uint32_t vid = subscribed_or_present_vid();
    const vvlan_known_vid_t withdrawn_before = vvlan_withdrawn;
    if (vvlan_subscribed.known) { /* otherwise no withdrawal comes */
        vvlan_withdrawn = vvlan_subscribed;
    }
    const int rv = tq_mom_unsubscribe(g_udp_vvlan_global, VVLAN_DB_ADDRESS, make_noti_template(&tmpl, vid),
                                      TQ_MOM_MATCH_FIELDS, udp_vvlan_mac_subscribe_callback, nullptr);
    if (rv != 0) {
        vvlan_withdrawn = withdrawn_before;
        VVLAN_LOG_ERROR("Assert:unsub mac addr for voice vlan(%04u) failed, rv = %d.", vid, rv);
        return rv;
    }
    vvlan_subscribed = {};
    VVLAN_LOG_INFO("unsub mac addr for voice vlan(%04u) successfully.", vid);
    return VVLAN_OK;
}

int udp_vvlan_mac_subscribe(uint32_t sub)
{
    const uint32_t vid = g_udp_vvlan_glb_cfg.vid;
    if (sub == 0) {
        return unsubscribe();
    }
    /* A withdrawal that has not come yet may never come; the next one is not taken for it. */
    vvlan_withdrawn = {};
    if (vvlan_subscribed.known && vvlan_subscribed.vid != vid) {
        unsubscribe(); /* logs its failure, which must not cost the new VLAN its notifications */
    }
    return subscribe(vid);
}

int udp_vvlan_mac_scan(uint32_t ifx)
{
    vvlan_noti_template_t tmpl;
    const uint32_t vid = g_udp_vvlan_glb_cfg.vid;
    const int rv =
        tq_mom_scan(g_udp_vvlan_global, VVLAN_DB_ADDRESS, make_noti_template(&tmpl, vid), TQ_MOM_MATCH_FIELDS,
                    udp_vvlan_event_set_mac_noti, reinterpret_cast<void *>(static_cast<uintptr_t>(ifx)));
    if (rv != 0) {
        VVLAN_LOG_ERROR("Assert:scan mac noti for vvlan(%04u) failed, rv = %d.", vid, rv);
    }
    return rv;
}

static int open_registration_cycle(void *ctx, void *user)
{
    vvlan_registration_t object;
    const int rv = tq_mom_dsbegin_ow(ctx, VVLAN_DB_ADDRESS, make_registration(&object, 0), TQ_MOM_MATCH_ALL,
                                     VVLAN_MAC_EXPIRY, udp_vvlan_mac_subscribe_callback, user, VVLAN_MAC_OWNER);
    if (rv != 0) {
        VVLAN_LOG_ERROR("Assert:<ds> pexpire vid_reg failed, rv = %d.", rv);
    }
    return VVLAN_OK;
}

/* The VLAN whose registration is withdrawn: the one that was unsubscribed last,
 * else the registered one, the subscribed one, or the present one. */
static uint32_t take_withdrawn_vid(void)
{
    const vvlan_known_vid_t withdrawn = vvlan_withdrawn.known ? vvlan_withdrawn : vvlan_registered;
    vvlan_withdrawn = {};
    return withdrawn.known ? withdrawn.vid : subscribed_or_present_vid();
}

static int withdraw_registration(void)
{
    const uint32_t vid = take_withdrawn_vid();
    vvlan_registration_t object;
    const int rv = tq_mom_del_ow(g_udp_vvlan_global, VVLAN_DB_ADDRESS, make_registration(&object, vid), nullptr,
                                 nullptr, VVLAN_MAC_OWNER);
    if (rv != 0) {
        VVLAN_LOG_ERROR("Assert:unreg mac addr for vvlan(%04u) failed, rv = %d.", vid, rv);
        return rv;
    }
    if (vvlan_registered.vid == vid) {
        vvlan_registered = {};
    }
    VVLAN_LOG_INFO("unreg mac addr for vvlan(%04u) successfully.", vid);
    return VVLAN_OK;
}

static int renew_registration(void *ctx)
{
    const uint32_t vid = subscribed_or_present_vid();
    vvlan_registration_t object;
    const ProtobufCMessage *registration = make_registration(&object, vid);
    int rv = tq_mom_setow(g_udp_vvlan_global, VVLAN_DB_ADDRESS, registration, nullptr, nullptr, VVLAN_MAC_OWNER);
    if (rv != 0) {
        VVLAN_LOG_ERROR("Assert:reg mac addr for vvlan(%04u) failed, rv = %d.", vid, rv);
        return rv;
    }
    vvlan_registered = {true, vid};
    VVLAN_LOG_INFO("reg mac addr for vvlan(%04u) successfully.", vid);
    tq_mom_dsend_ow(ctx, VVLAN_DB_ADDRESS, registration, TQ_MOM_MATCH_ALL, nullptr, nullptr, VVLAN_MAC_OWNER);
    rv = udp_vvlan_mac_scan(0);
    if (rv != 0) {
        VVLAN_LOG_ERROR("Assert:scan mac noti for vvlan(%04u) fail!", vid);
        return rv;
    }
    VVLAN_LOG_INFO("scan mac noti for vvlan(%04u) successfully.", vid);
    return VVLAN_OK;
}

int udp_vvlan_mac_subscribe_callback(void *ctx, tq_mom_record_t *record, void *user)
{
    if (record != nullptr && record->operate == TQ_MOM_ESTABLISHED) {
        return open_registration_cycle(ctx, user);
    }
    if (record != nullptr && record->operate == TQ_MOM_WITHDRAWN) {
        return withdraw_registration();
    }
    if (record != nullptr && record->phase == TQ_MOM_CYCLE_OPEN) {
        return renew_registration(ctx);
    }
    return udp_vvlan_event_set_mac_noti(ctx, record, user);
}

/* ---- Notification intake ---- */

int udp_vvlan_mac_check_noti(const UBridge__MacVidRegNoti *noti)
{
    if (noti->index == nullptr || noti->index->t_mac == nullptr) {
        VVLAN_LOG_ERROR("Assert:notify mac data is invalid.");
        return VVLAN_E_INVALID;
    }
    const UBridge__UdpL2addrBaseIndex *key = noti->index;
    if (key->t_fid != g_udp_vvlan_glb_cfg.vid || key->t_type != 0) {
        VVLAN_LOG_INFO("<check> vlan(%04u) unmatch vvlan(%04u) or type(%d).", key->t_fid, g_udp_vvlan_glb_cfg.vid,
                       key->t_type);
    }
    if (!udp_vvlan_mac_data_valid(key->t_mac)) {
        VVLAN_LOG_ERROR("<check> mac length(%u) is error.", static_cast<uint32_t>(key->t_mac->data.len));
        VVLAN_LOG_ERROR("Assert:notify mac data is invalid.");
        return VVLAN_E_INVALID;
    }
    return VVLAN_OK;
}

void udp_vvlan_mac_print_noti(int32_t operate, const UBridge__MacVidRegNoti *noti)
{
    VVLAN_LOG_INFO("<title> UBridge__MacVidRegNoti");
    VVLAN_LOG_INFO("<param> +operation: %d", operate);
    VVLAN_LOG_INFO("<param> +index field");
    VVLAN_LOG_INFO("<param>   -vlan: %04u", noti->index->t_fid);
    VVLAN_LOG_INFO("<param>   -type: 0x%x", noti->index->t_type);
    VVLAN_LOG_RAW(VVLAN_LOG_AT_INFO, TQ_ZLOG_INFO, "<param>   -mac: %m", noti->index->t_mac->data.data);
    if (operate != TQ_MOM_SET) {
        VVLAN_LOG_INFO("<param> +value field");
        VVLAN_LOG_INFO("<param>   -port_type: 0x%x", noti->port_type);
        VVLAN_LOG_INFO("<param>   -ifx: %u", noti->port_id);
        VVLAN_LOG_INFO("<param>   -flag: 0x%x", noti->flag);
    }
}

static int apply_noti(int32_t operate, const UBridge__MacVidRegNoti *noti)
{
    int rv;
    switch (operate) {
    case TQ_MOM_SET:
        VVLAN_LOG_INFO("receive a TQ_MOM_SET event.");
        rv = udp_vvlan_handler_set_mac_noti(1, noti);
        break;
    case TQ_MOM_DEL:
        VVLAN_LOG_INFO("receive a TQ_MOM_DEL event.");
        rv = udp_vvlan_handler_set_mac_noti(0, noti);
        break;
    default:
        VVLAN_LOG_WARN("receive a unexpected event.");
        return VVLAN_E_UNHANDLED;
    }
    if (rv != 0) {
        VVLAN_LOG_ERROR("Assert:set mac_noti failed, rv = %d.", rv);
        return rv;
    }
    VVLAN_LOG_INFO("set mac_noti successfully.");
    return VVLAN_OK;
}

int udp_vvlan_event_set_mac_noti([[maybe_unused]] void *ctx, tq_mom_record_t *record, void *ifx)
{
    if (udp_vvlan_event_check(record) != 0) {
        return VVLAN_E_INVALID;
    }
    /* NOLINTBEGIN(clang-analyzer-core.NullDereference): the check refuses a null record */
    VVLAN_LOG_INFO("set_mac_noti: %d", record->phase);
    if (record->phase == TQ_MOM_SCAN_OVER) {
        VVLAN_LOG_INFO("receive a TQ_MOM_SCAN_OVER event: %d", record->phase);
        udp_vvlan_port_hash_traverse(udp_vvlan_port_mac, nullptr);
        return VVLAN_OK;
    }
    const auto *noti = static_cast<const UBridge__MacVidRegNoti *>(record->object);
    /* NOLINTEND(clang-analyzer-core.NullDereference) */
    if (noti == nullptr) {
        VVLAN_LOG_ERROR("Assert:mac_noti is NULL.");
        return VVLAN_OK;
    }
    const auto only_ifx = static_cast<uint32_t>(reinterpret_cast<uintptr_t>(ifx));
    if (only_ifx != 0 && only_ifx != noti->port_id) {
        return VVLAN_OK;
    }
    const int rv = udp_vvlan_mac_check_noti(noti);
    if (rv != 0) {
        return rv;
    }
    udp_vvlan_mac_print_noti(record->operate, noti);
    return apply_noti(record->operate, noti);
}

/* ---- Notification handling ---- */

/* Learned MACs matter for enabled automatic ports alone. */
static bool follows_macs(const vvlan_port_t *port)
{
    return port != nullptr && port->vvlan_en != 0 && port->auto_mod != 0;
}

/* The port has lost its last MAC but keeps its join and trap state. */
static void mark_aged_if_macless(vvlan_port_t *port)
{
    if (udp_vvlan_list_empty(&port->mac_list)) {
        port->no_flw = 0;
        port->mac_aged = 1;
    }
}

/* A device that is seen on another port has moved, if its old port still follows
 * MACs; otherwise the record stays with that port until the port drops it. */
static void move_mac(vvlan_mac_t *record, vvlan_port_t *port)
{
    vvlan_port_t *old_port = udp_vvlan_port_get(record->ifx);
    if (!follows_macs(old_port) || record->ifx == port->ifx) {
        return;
    }
    record->ifx = port->ifx;
    udp_vvlan_list_unlink(&record->link);
    mark_aged_if_macless(old_port);
    udp_vvlan_list_append(&port->mac_list, &record->link);
}

static void add_mac(vvlan_port_t *port, vvlan_mac_t *record, const uint8_t *mac)
{
    if (record != nullptr) {
        move_mac(record, port);
    } else {
        vvlan_mac_t tmpl = {};
        memcpy(tmpl.mac, mac, VVLAN_MAC_SIZE);
        tmpl.ifx = port->ifx;
        record = udp_vvlan_mac_op(&tmpl, 1);
        if (record != nullptr) {
            udp_vvlan_list_append(&port->mac_list, &record->link);
        } else {
            VVLAN_LOG_ERROR("Assert:add mac(" VVLAN_MAC_FORMAT ") to mac_hash fail!", VVLAN_MAC_ARGS(mac));
        }
    }
    port->no_flw = 0;
    port->mac_aged = 0;
}

static void delete_mac(vvlan_port_t *port, vvlan_mac_t *record)
{
    udp_vvlan_list_unlink(&record->link);
    udp_vvlan_mac_op(record, 0);
    if (udp_vvlan_list_empty(&port->mac_list)) {
        udp_vvlan_port_mark_macless(port);
    }
}

int udp_vvlan_handler_set_mac_noti(uint32_t add, const UBridge__MacVidRegNoti *noti)
{
    if (noti == nullptr || noti->index == nullptr || !udp_vvlan_mac_data_valid(noti->index->t_mac)) {
        VVLAN_LOG_ERROR("Assert:notify mac data is invalid.");
        return VVLAN_E_INVALID;
    }
    const uint8_t *mac = noti->index->t_mac->data.data;
    vvlan_port_t *port = udp_vvlan_port_get(noti->port_id);
    VVLAN_LOG_INFO("udp vvlan port get from ifx: %d, port is: %p!", noti->port_id, static_cast<void *>(port));
    if (!follows_macs(port)) {
        return VVLAN_OK;
    }
    if (udp_vvlan_list_empty(&port->mac_list)) {
        udp_vvlan_port_mark_macless(port);
    }
    if (add != 0 && udp_vvlan_oui_find_mac(mac) == nullptr) {
        VVLAN_LOG_INFO("add mac(" VVLAN_MAC_FORMAT ") to mac_hash fail!", VVLAN_MAC_ARGS(mac));
        return VVLAN_OK;
    }
    vvlan_mac_t *record = udp_vvlan_mac_get(mac);
    if (add != 0) {
        add_mac(port, record, mac);
    } else if (record != nullptr) {
        delete_mac(port, record);
    } else {
        VVLAN_LOG_INFO("mac(" VVLAN_MAC_FORMAT ") not found", VVLAN_MAC_ARGS(mac));
        return VVLAN_OK;
    }
    VVLAN_LOG_INFO(VVLAN_PORT_STATE_FORMAT, VVLAN_PORT_STATE_ARGS(port, g_udp_vvlan_glb_cfg.age_time));
    return VVLAN_OK;
}

/* ---- OUI deletion ---- */

static bool oui_covers(const vvlan_oui_t *oui, const uint8_t *mac)
{
    for (uint32_t i = 0; i < VVLAN_MAC_SIZE; i++) {
        if ((mac[i] & oui->mask[i]) != oui->mac[i]) {
            return false;
        }
    }
    return true;
}

int udp_vvlan_del_oui_mac(vvlan_mac_t *record, void *oui)
{
    if (record == nullptr || oui == nullptr) {
        VVLAN_LOG_ERROR("pointer NULL!");
        return VVLAN_WALK_NULL;
    }
    if (!oui_covers(static_cast<const vvlan_oui_t *>(oui), record->mac)) {
        return VVLAN_OK;
    }
    udp_vvlan_list_unlink(&record->link);
    vvlan_port_t *port = udp_vvlan_port_get(record->ifx);
    udp_vvlan_mac_op(record, 0);
    if (follows_macs(port)) {
        mark_aged_if_macless(port);
        VVLAN_LOG_INFO(VVLAN_PORT_BITS_FORMAT, VVLAN_PORT_BITS_ARGS(port));
    }
    return VVLAN_OK;
}
