/* OUIs are kept in a small hash of lists. Each has one ACE id, which its CoS
 * ACE, its MAC-VLAN ACE and its record in the object store share.
 *
 * Most learned MACs belong to no voice device, so a miss has to be as cheap as
 * a hit. The first and last addresses of the OUIs cut all addresses into ranges
 * with one answer each, which a binary search finds. The first look-up after a
 * change of the OUIs makes the ranges again.
 */
#include "udp_vvlan_oui.h"

#include "p_bridge.pb-c.h"
#include "tq_mom.h"
#include "u_bridge.pb-c.h"
#include "udp_vvlan_base.h"
#include "udp_vvlan_err.h"
#include "udp_vvlan_fp.h"
#include "udp_vvlan_glb_cfg.h"
#include "udp_vvlan_mac.h"
#include "udp_vvlan_port.h"

#include <stdlib.h>
#include <string.h>

constexpr uint64_t VVLAN_ADDRESS_LAST = (UINT64_C(1) << 8 * VVLAN_MAC_SIZE) - 1;
constexpr uint64_t VVLAN_HOST_BITS_OUI = 0xFFFFFF; /* of an IEEE-assigned OUI, which precedes all others */

constexpr uint32_t VVLAN_SPAN_COUNT_MAX = VVLAN_ACE_ID_COUNT - 1;        /* every OUI has an ACE id */
constexpr uint32_t VVLAN_RANGE_COUNT_MAX = 2 * VVLAN_SPAN_COUNT_MAX + 1; /* each span begins one and ends one */

/* The addresses that an OUI with a prefix mask matches: first to first + host_bits. */
typedef struct vvlan_oui_span {
    uint64_t first;
    uint64_t host_bits; /* all bits outside the mask */
    vvlan_oui_t *node;
} vvlan_oui_span_t;

/* Addresses from first up to the next range's first. */
typedef struct vvlan_oui_range {
    uint64_t first;
    vvlan_oui_t *winner; /* null: no voice device */
} vvlan_oui_range_t;

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

/* In ascending order, the first one from address 0; none while they are out of date. */
static vvlan_oui_range_t vvlan_ranges[VVLAN_RANGE_COUNT_MAX];
static uint32_t vvlan_range_count;

static vvlan_list_t *bucket_of(const uint8_t *mac, const uint8_t *mask)
{
    uint32_t sum = 0;
    for (uint32_t i = 0; i < VVLAN_MAC_SIZE; i++) {
        sum += mac[i] & mask[i];
    }
    return &g_udp_vvlan_oui[sum % VVLAN_OUI_BUCKET_COUNT];
}

void udp_vvlan_oui_init(void)
{
    for (vvlan_list_t &head : g_udp_vvlan_oui) {
        udp_vvlan_list_init(&head);
    }
    vvlan_range_count = 0;
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

static uint64_t address_of(const uint8_t *bytes)
{
    uint64_t address = 0;
    for (uint32_t i = 0; i < VVLAN_MAC_SIZE; i++) {
        address = address << 8 | bytes[i];
    }
    return address;
}

/* The spans of the OUIs that a learned MAC can match; returns their number. */
static uint32_t collect_spans(vvlan_oui_span_t *spans)
{
    uint32_t count = 0;
    for (vvlan_list_t &head : g_udp_vvlan_oui) {
        for (vvlan_list_t *link = head.next; link != &head && count < VVLAN_SPAN_COUNT_MAX; link = link->next) {
            auto *node = VVLAN_LIST_ENTRY(link, vvlan_oui_t, link);
            const uint64_t first = address_of(node->mac);
            const uint64_t host_bits = address_of(node->mask) ^ VVLAN_ADDRESS_LAST;
            const bool prefix = (host_bits & (host_bits + 1)) == 0 && host_bits != VVLAN_ADDRESS_LAST;
            if (prefix && (first & host_bits) == 0) {
                spans[count++] = {first, host_bits, node};
            }
        }
    }
    return count;
}

static bool precedes(const vvlan_oui_span_t *span, const vvlan_oui_span_t *other)
{
    return other == nullptr || (other->host_bits != VVLAN_HOST_BITS_OUI &&
                                (span->host_bits == VVLAN_HOST_BITS_OUI || span->host_bits < other->host_bits));
}

static void make_ranges(void)
{
    vvlan_oui_span_t spans[VVLAN_SPAN_COUNT_MAX];
    const uint32_t span_count = collect_spans(spans);
    uint64_t last = VVLAN_ADDRESS_LAST;
    for (uint64_t first = 0; first <= VVLAN_ADDRESS_LAST; first = last + 1) {
        const vvlan_oui_span_t *winner = nullptr;
        last = VVLAN_ADDRESS_LAST;
        for (const vvlan_oui_span_t *span = spans; span < spans + span_count; span++) {
            const uint64_t span_last = span->first + span->host_bits;
            if (span->first > first) {
                last = span->first <= last ? span->first - 1 : last;
            } else if (span_last >= first) {
                last = span_last < last ? span_last : last;
                winner = precedes(span, winner) ? span : winner;
            }
        }
        vvlan_ranges[vvlan_range_count++] = {first, winner != nullptr ? winner->node : nullptr};
    }
}

vvlan_oui_t *udp_vvlan_oui_find_mac(const uint8_t *mac)
{
    if (vvlan_range_count == 0) {
        make_ranges();
    }
    const uint64_t address = address_of(mac);
    const vvlan_oui_range_t *range = vvlan_ranges;
    for (uint32_t count = vvlan_range_count; count > 1;) {
        const uint32_t half = count / 2;
        range += range[half].first <= address ? half : 0;
        count -= half;
    }
    return range->winner;
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
    vvlan_range_count = 0;
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
    udp_vvlan_list_unlink(&node->link);
    vvlan_range_count = 0;
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
    vvlan_range_count = 0;
}
