/* OUIs live in a small hash of lists. Each holds one ACE id, under which its
 * CoS ACE, its MAC-VLAN ACE and its record in the object store are known.
 *
 * A learned MAC is matched by trying prefix lengths. How many OUIs there are of
 * each length is counted, so that only lengths in use are probed; the order in
 * which they win is not affected.
 */
#include "udp_vvlan_oui.h"

#include "p_bridge.pb-c.h"
#include "tq_mom.h"
#include "u_bridge.pb-c.h"
#include "udp_vvlan.h"
#include "udp_vvlan_debug.h"
#include "udp_vvlan_err.h"
#include "udp_vvlan_fp.h"
#include "udp_vvlan_glb_cfg.h"
#include "udp_vvlan_mac.h"
#include "udp_vvlan_port.h"

#include <stdlib.h>
#include <string.h>

constexpr uint32_t VVLAN_PREFIX_LENGTH_MAX = 8 * VVLAN_MAC_SIZE;
constexpr uint32_t VVLAN_PREFIX_LENGTH_OUI = 24; /* an IEEE-assigned OUI: tried first */

/* Empty from the start, so that a dump before the start-up finds lists. */
#define VVLAN_OUI_HEAD(i)                                                                                              \
    {                                                                                                                  \
        &g_udp_vvlan_oui[i], &g_udp_vvlan_oui[i]                                                                       \
    }
vvlan_list_t g_udp_vvlan_oui[VVLAN_OUI_BUCKET_COUNT] = {
    VVLAN_OUI_HEAD(0),  VVLAN_OUI_HEAD(1),  VVLAN_OUI_HEAD(2),  VVLAN_OUI_HEAD(3),
    VVLAN_OUI_HEAD(4),  VVLAN_OUI_HEAD(5),  VVLAN_OUI_HEAD(6),  VVLAN_OUI_HEAD(7),
    VVLAN_OUI_HEAD(8),  VVLAN_OUI_HEAD(9),  VVLAN_OUI_HEAD(10), VVLAN_OUI_HEAD(11),
    VVLAN_OUI_HEAD(12), VVLAN_OUI_HEAD(13), VVLAN_OUI_HEAD(14), VVLAN_OUI_HEAD(15),
};

/* OUIs that a learned MAC can match, by prefix length. */
static uint32_t vvlan_prefix_count[VVLAN_PREFIX_LENGTH_MAX + 1];

static vvlan_list_t *bucket_of(const uint8_t *mac, const uint8_t *mask)
{
    uint32_t sum = 0;
    for (uint32_t i = 0; i < VVLAN_MAC_SIZE; i++) {
        sum += mac[i] & mask[i];
    }
    return &g_udp_vvlan_oui[sum % VVLAN_OUI_BUCKET_COUNT];
}

static void make_prefix_mask(uint32_t length, uint8_t *mask)
{
    memset(mask, 0, VVLAN_MAC_SIZE);
    memset(mask, 0xFF, length / 8);
    if (length % 8 != 0) {
        mask[length / 8] = static_cast<uint8_t>(0xFF << (8 - length % 8));
    }
}

/* The prefix length under which a learned MAC can match; 0 for none. */
static uint32_t prefix_length_of(const uint8_t *mac, const uint8_t *mask)
{
    uint32_t length = 0;
    for (uint32_t i = 0; i < VVLAN_MAC_SIZE; i++) {
        if ((mac[i] & ~mask[i]) != 0) {
            return 0;
        }
        length += static_cast<uint32_t>(__builtin_popcount(mask[i]));
    }
    uint8_t prefix[VVLAN_MAC_SIZE];
    make_prefix_mask(length, prefix);
    return memcmp(prefix, mask, VVLAN_MAC_SIZE) == 0 ? length : 0;
}

void udp_vvlan_oui_init(void)
{
    for (vvlan_list_t &head : g_udp_vvlan_oui) {
        udp_vvlan_list_init(&head);
    }
    memset(vvlan_prefix_count, 0, sizeof vvlan_prefix_count);
}

vvlan_oui_t *udp_vvlan_oui_find_node(const uint8_t *mac, const uint8_t *mask)
{
    vvlan_list_t *head = bucket_of(mac, mask);
    for (vvlan_list_t *link = head->next; link != head; link = link->next) {
        auto *node = VVLAN_LIST_ENTRY(link, vvlan_oui_t, link);
        if (memcmp(node->mac, mac, VVLAN_MAC_SIZE) == 0 && memcmp(node->mask, mask, VVLAN_MAC_SIZE) == 0) {
            return node;
        }
    }
    return nullptr;
}

static vvlan_oui_t *find_prefix(const uint8_t *mac, uint32_t length)
{
    if (vvlan_prefix_count[length] == 0) {
        return nullptr;
    }
    uint8_t mask[VVLAN_MAC_SIZE];
    uint8_t key[VVLAN_MAC_SIZE];
    make_prefix_mask(length, mask);
    for (uint32_t i = 0; i < VVLAN_MAC_SIZE; i++) {
        key[i] = mac[i] & mask[i];
    }
    return udp_vvlan_oui_find_node(key, mask);
}

vvlan_oui_t *udp_vvlan_oui_find_mac(const uint8_t *mac)
{
    vvlan_oui_t *node = find_prefix(mac, VVLAN_PREFIX_LENGTH_OUI);
    for (uint32_t length = VVLAN_PREFIX_LENGTH_MAX; node == nullptr && length > 0; length--) {
        if (length != VVLAN_PREFIX_LENGTH_OUI) {
            node = find_prefix(mac, length);
        }
    }
    return node;
}

/* A node in its bucket and with an ACE id, or null with nothing kept. */
static vvlan_oui_t *create_node(const uint8_t *mac, const uint8_t *mask)
{
    auto *node = static_cast<vvlan_oui_t *>(malloc(sizeof(vvlan_oui_t)));
    if (node == nullptr) {
        VVLAN_LOG_ERROR("Assert:malloc OUI fail");
        return nullptr;
    }
    memcpy(node->mac, mac, VVLAN_MAC_SIZE);
    memcpy(node->mask, mask, VVLAN_MAC_SIZE);
    node->ace_id = udp_vvlan_alloc_ace_id();
    VVLAN_LOG_DEBUG("ace_id=%d", node->ace_id);
    if (node->ace_id == VVLAN_ACE_ID_NONE) {
        VVLAN_LOG_ERROR("Assert:no ACE id left for OUI " VVLAN_MAC_FORMAT, VVLAN_MAC_ARGS(mac));
        udp_vvlan_handler_err_event(P_BRIDGE__VVLAN_ERR_TYPE__VVLAN_SET_OUI_CONFIG, node);
        free(node);
        return nullptr;
    }
    udp_vvlan_list_append(bucket_of(mac, mask), &node->link);
    vvlan_prefix_count[prefix_length_of(mac, mask)]++;
    return node;
}

vvlan_oui_t *udp_vvlan_oui_add_node(const uint8_t *mac, const uint8_t *mask)
{
    VVLAN_LOG_INFO("<+param>, mac :" VVLAN_MAC_FORMAT, VVLAN_MAC_ARGS(mac));
    VVLAN_LOG_INFO("<+param>, mask:" VVLAN_MAC_FORMAT, VVLAN_MAC_ARGS(mask));
    vvlan_oui_t *node = udp_vvlan_oui_find_node(mac, mask);
    if (node != nullptr) {
        return node;
    }
    node = create_node(mac, mask);
    if (node == nullptr) {
        return nullptr;
    }
    udp_vvlan_oui_set_db(node, 1);
    const int cos_rv = udp_vvlan_set_cos_ace(&g_udp_vvlan_glb_cfg.cos_acl, node, 1);
    if (cos_rv != 0) {
        VVLAN_LOG_WARN("add cos_ace fail !");
    }
    const int mvlan_rv = udp_vvlan_set_mvlan_ace(&g_udp_vvlan_glb_cfg.mvlan_acl, node, 1);
    if (cos_rv != 0 || mvlan_rv != 0) {
        VVLAN_LOG_WARN("add mvlan_ace fail !");
        VVLAN_LOG_WARN("add oui node fail !");
        udp_vvlan_handler_err_event(P_BRIDGE__VVLAN_ERR_TYPE__VVLAN_SET_OUI_CONFIG, node);
    } else {
        udp_vvlan_port_hash_traverse(udp_vvlan_port_cfg_sec, nullptr);
    }
    return node;
}

void udp_vvlan_oui_del_node(vvlan_oui_t *node)
{
    udp_vvlan_free_ace_id(static_cast<int>(node->ace_id));
    int rv = udp_vvlan_set_cos_ace(&g_udp_vvlan_glb_cfg.cos_acl, node, 0);
    rv |= udp_vvlan_set_mvlan_ace(&g_udp_vvlan_glb_cfg.mvlan_acl, node, 0);
    VVLAN_LOG_INFO("rv = %d.", rv);
    udp_vvlan_oui_set_db(node, 0);
    udp_vvlan_mac_hash_traverse(udp_vvlan_del_oui_mac, node);
    vvlan_prefix_count[prefix_length_of(node->mac, node->mask)]--;
    udp_vvlan_list_unlink(&node->link);
    free(node);
}

void udp_vvlan_oui_set_db(const vvlan_oui_t *node, uint32_t add)
{
    UBridge__VvlanOuiCfgIndex key = U_BRIDGE__VVLAN_OUI_CFG_INDEX__INIT;
    key.ace_id = node->ace_id;
    PLibpub__Mac mac = P_LIBPUB__MAC__INIT;
    mac.data = {VVLAN_MAC_SIZE, const_cast<uint8_t *>(node->mac)};
    PLibpub__Mac mask = P_LIBPUB__MAC__INIT;
    mask.data = {VVLAN_MAC_SIZE, const_cast<uint8_t *>(node->mask)};
    UBridge__BOui oui = U_BRIDGE__B_OUI__INIT;
    oui.mac = &mac;
    oui.mask = &mask;
    UBridge__VvlanOuiCfg object = U_BRIDGE__VVLAN_OUI_CFG__INIT;
    object.index = &key;
    object.oui = &oui;

    VVLAN_LOG_INFO("set OuiCfg to TQ_MOM_UDP_DB db. add=%d", add);
    const int rv = add != 0 ? tq_mom_set(g_udp_vvlan_global, TQ_MOM_UDP_DB, &object.base, nullptr, nullptr)
                            : tq_mom_del(g_udp_vvlan_global, TQ_MOM_UDP_DB, &object.base, nullptr, nullptr);
    if (rv != 0) {
        VVLAN_LOG_ERROR("Assert: set OuiCfg to mom error!");
    }
}

/* Runs step for every node, bucket by bucket; stops at the first failure. */
static int for_each_node(int (*step)(const vvlan_oui_t *node, uint32_t add), uint32_t add)
{
    for (vvlan_list_t &head : g_udp_vvlan_oui) {
        for (vvlan_list_t *link = head.next; link != &head; link = link->next) {
            const int rv = step(VVLAN_LIST_ENTRY(link, vvlan_oui_t, link), add);
            if (rv != 0) {
                return rv;
            }
        }
    }
    return VVLAN_OK;
}

static int set_node_ace(const vvlan_oui_t *node, uint32_t add)
{
    int rv = udp_vvlan_set_cos_ace(&g_udp_vvlan_glb_cfg.cos_acl, node, add);
    if (rv != 0) {
        VVLAN_LOG_ERROR("Assert:add cos_ace fail !");
        return rv;
    }
    rv = udp_vvlan_set_mvlan_ace(&g_udp_vvlan_glb_cfg.mvlan_acl, node, add);
    if (rv != 0) {
        VVLAN_LOG_ERROR("Assert:add mvlan_ace fail !");
    }
    return rv;
}

int udp_vvlan_oui_set_ace(uint32_t add)
{
    return for_each_node(set_node_ace, add);
}

static int set_node_cos(const vvlan_oui_t *node, uint32_t add)
{
    return udp_vvlan_set_cos_ace(&g_udp_vvlan_glb_cfg.cos_acl, node, add);
}

void udp_vvlan_oui_set_cos(void)
{
    VVLAN_LOG_INFO("update all ace about cos.");
    if (for_each_node(set_node_cos, 1) != 0) {
        VVLAN_LOG_WARN("add cos_ace fail !");
        udp_vvlan_handler_err_event(P_BRIDGE__VVLAN_ERR_TYPE__VVLAN_SET_QOS_CONFIG, nullptr);
    }
}

void udp_vvlan_oui_release(void)
{
    for (vvlan_list_t &head : g_udp_vvlan_oui) {
        while (!udp_vvlan_list_empty(&head)) {
            vvlan_list_t *link = head.next;
            udp_vvlan_list_unlink(link);
            free(VVLAN_LIST_ENTRY(link, vvlan_oui_t, link));
        }
    }
}
