/* The plane in the kernel: one program on the ingress and one on the egress of
 * each port, at the clsact hooks.
 *
 * The treatment of a frame follows from one state and one word about its port,
 * each read once, so no frame sees a part of a change. What the ACLs decide
 * about an address is kept beside the time at which it was seen: one hash
 * lookup serves learning and classification, and the rules are searched only
 * for an address that is new or after a change.
 *
 * A VLAN tag stands in the frame's metadata where the kernel or the hardware
 * has taken it out of the bytes, and in the bytes otherwise; the outer one of
 * two may be in the metadata with the inner one in the bytes. */
#include <linux/bpf.h>
#include <linux/pkt_cls.h>
#include <stdbool.h>

#include <bpf/bpf_endian.h>
#include <bpf/bpf_helpers.h>

#include "platform/fp/ebpf/layout.h"

#define TYPE_CTAG 0x8100       /* IEEE 802.1Q customer tag */
#define TYPE_STAG 0x88a8       /* IEEE 802.1Q service tag */
#define TYPE_STAG_OLDER 0x9100 /* in use before the service tag had a number */
#define TYPE_IPV4 0x0800
#define TYPE_IPV6 0x86dd

#define TAG_OFFSET 12
#define TOUCHED_MAX 34 /* both addresses, two tags, the type, and an IPv4 header up to its checksum */
#define IPV4_HEADER_MIN 20
#define IPV6_HEADER 40
#define GROUP_BIT (1ull << 40)

/* How a frame came in. The first three are the forms that rules match; the
 * last one matches as untagged, and becomes double-tagged with a VLAN id. */
#define FORM_UNTAGGED 0
#define FORM_TAGGED 1
#define FORM_DOUBLE_TAGGED 2
#define FORM_PRIORITY_TAG_OUTSIDE 3

struct vv_shared vv;

struct {
    __uint(type, BPF_MAP_TYPE_HASH);
    __uint(max_entries, VV_SEEN_MAX);
    __type(key, __u64);
    __type(value, struct vv_seen);
} seen SEC(".maps");

struct {
    __uint(type, BPF_MAP_TYPE_PERCPU_ARRAY);
    __uint(max_entries, VV_PORTS_MAX);
    __type(key, __u32);
    __type(value, struct vv_port_counters);
} port_counters SEC(".maps");

struct {
    __uint(type, BPF_MAP_TYPE_PERCPU_ARRAY);
    __uint(max_entries, VV_ACLS *VV_RANKS);
    __type(key, __u32);
    __type(value, __u64);
} ace_counters SEC(".maps");

struct {
    __uint(type, BPF_MAP_TYPE_RINGBUF);
    __uint(max_entries, VV_EVENTS_SIZE);
} events SEC(".maps");

struct header {
    __u64 source;
    __u16 type;     /* behind the tags */
    __u16 tci;      /* of the outer tag */
    __u16 tag_type; /* of the outer tag; 0: there is none */
    __u16 vid;      /* of the outer tag; 0 without one */
    __u8 tag_count;
    bool tag_in_bytes;
    __u8 form;
    __u8 payload; /* offset in the bytes */
};

#define once(variable) (*(volatile __typeof__(variable) *)&(variable))

/* The verifier forgets what it knew of an index that the compiler has kept on
 * the stack; the compiler must therefore not leave out the mask. */
static __always_inline __u32 within(__u32 index, __u32 mask)
{
    asm volatile("" : "+r"(index));
    return index & mask;
}

static __always_inline struct vv_port *port_at(__u32 index)
{
    return &vv.ports[within(index, VV_PORTS_MAX - 1)];
}

static __always_inline __u64 bind_of(const struct vv_state *state, __u32 index)
{
    return once(state->bind[within(index, VV_PORTS_MAX - 1)]);
}

static __always_inline __u64 read_mac(const __u8 *at)
{
    return (__u64)bpf_ntohs(*(const __u16 *)at) << 32 | bpf_ntohl(*(const __u32 *)(at + 2));
}

/* The index of an interface's port, or VV_PORTS_MAX. */
static __always_inline __u32 port_of(__u32 ifindex)
{
    for (int i = 0; i < VV_IFINDEX_PROBES; i++) {
        __u64 place = once(vv.places[(ifindex + i) & (VV_IFINDEX_PLACES - 1)]);
        if (place >> 32 == ifindex)
            return (__u32)place & (VV_PORTS_MAX - 1);
    }
    return VV_PORTS_MAX;
}

static __always_inline bool is_tag(__u16 type, bool outer)
{
    return type == TYPE_CTAG || type == TYPE_STAG || (outer && type == TYPE_STAG_OLDER);
}

/* Makes the bytes that a program may touch directly accessible. */
static __always_inline void pull(struct __sk_buff *skb)
{
    __u32 wanted = skb->len < TOUCHED_MAX ? skb->len : TOUCHED_MAX;
    if (skb->data_end - skb->data < wanted)
        bpf_skb_pull_data(skb, wanted);
}

/* Returns false where the frame ends within its header. */
static __always_inline bool read_header(struct __sk_buff *skb, struct header *header)
{
    const __u8 *data = (const __u8 *)(long)skb->data;
    const __u8 *end = (const __u8 *)(long)skb->data_end;

    if (data + TAG_OFFSET + 2 > end)
        return false;
    header->source = read_mac(data + 6);
    const __u8 *at = data + TAG_OFFSET;
    __u16 type = bpf_ntohs(*(const __u16 *)at);
    header->tag_count = 0;
    header->tag_in_bytes = false;
    header->tag_type = header->tci = 0;
    if (skb->vlan_present) {
        header->tag_type = bpf_ntohs(skb->vlan_proto);
        header->tci = skb->vlan_tci;
        header->tag_count = 1;
    } else if (is_tag(type, true)) {
        if (at + 6 > end)
            return false;
        header->tag_type = type;
        header->tci = bpf_ntohs(*(const __u16 *)(at + 2));
        header->tag_count = 1;
        header->tag_in_bytes = true;
        at += 4;
        type = bpf_ntohs(*(const __u16 *)at);
    }
    if (header->tag_count == 1 && is_tag(type, false)) {
        if (at + 6 > end)
            return false;
        header->tag_count = 2;
        at += 4;
        type = bpf_ntohs(*(const __u16 *)at);
    }
    header->type = type;
    header->payload = at - data + 2;
    header->vid = header->tci & 0xfff;
    if (header->vid != 0)
        header->form = header->tag_count;
    else
        header->form = header->tag_count == 2 ? FORM_PRIORITY_TAG_OUTSIDE : FORM_UNTAGGED;
    return true;
}

/* ---- Rules --------------------------------------------------------------- */

struct rank_set {
    __u64 low;
    __u64 high;
};

/* The number of the lowest bit set in a word that is not 0, by counting the bits
 * below it; the compiler has no code for its own builtin on this machine. */
static __always_inline __u32 lowest_bit(__u64 word)
{
    __u64 below = (word & -word) - 1;
    below -= (below >> 1) & 0x5555555555555555ull;
    below = (below & 0x3333333333333333ull) + ((below >> 2) & 0x3333333333333333ull);
    below = (below + (below >> 4)) & 0x0f0f0f0f0f0f0f0full;
    return below * 0x0101010101010101ull >> 56;
}

static __always_inline struct rank_set ranks_for(const struct vv_acl *acl, __u64 mac)
{
    struct rank_set set = {~0ull, ~0ull};
#pragma unroll
    for (int digit = 0; digit < VV_DIGITS; digit++) {
        const __u64 *agreeing = acl->agreeing[digit][(mac >> (44 - 4 * digit)) & 15];
        set.low &= agreeing[0];
        set.high &= agreeing[1];
    }
    return set;
}

/* The first rule of a word's ranks that agrees with the VLAN. */
static __always_inline __u32 first_match(const struct vv_acl *acl, __u64 ranks, __u32 base, __u32 vlan)
{
    for (int i = 0; i < 64 && ranks != 0; i++) {
        __u32 rank = (base + lowest_bit(ranks)) & (VV_RANKS - 1);
        if (((acl->rules[rank].vlan ^ vlan) & acl->rules[rank].vlan_mask) == 0)
            return rank;
        ranks &= ranks - 1;
    }
    return VV_RANK_NONE;
}

/* The rank of the rule that acts, or VV_RANK_NONE. vlan: as in struct vv_rule.
 * Not static, and numbers instead of pointers, so that the verifier goes through
 * it once rather than once per call. */
__noinline __u32 vvlan_find_rank(__u32 state, __u32 index, __u64 mac, __u32 vlan)
{
    if (index >= VV_ACLS)
        return VV_RANK_NONE;
    const struct vv_acl *acl = &vv.states[state & (VV_STATES - 1)].acls[index];
    if (acl->count == 0)
        return VV_RANK_NONE;
    struct rank_set set = ranks_for(acl, mac);
    __u32 rank = first_match(acl, set.low, 0, vlan);
    return rank != VV_RANK_NONE ? rank : first_match(acl, set.high, 64, vlan);
}

/* Whether a rule of the voice ACL names the address. */
__noinline int vvlan_names(__u32 state, __u64 mac)
{
    const struct vv_acl *acl = &vv.states[state & (VV_STATES - 1)].acls[VV_ACL_VOICE];
    struct rank_set set = ranks_for(acl, mac);
    return ((set.low & acl->naming[0]) | (set.high & acl->naming[1])) != 0;
}

static __always_inline __u32 vlan_word(__u32 vid, __u32 form)
{
    return form << 16 | vid;
}

/* Works out the low half of a verdict: the order of the ACLs. The MAC-VLAN ACL
 * sees the frame as it came in and decides the VLAN, unless a tag has; the
 * others see the VLAN that results from it. */
__noinline __u32 vvlan_judge(__u32 state, __u64 mac, __u64 bind, __u32 vid, __u32 form)
{
    const struct vv_acl *tagging = &vv.states[state & (VV_STATES - 1)].acls[VV_ACL_MAC_VLAN];
    __u32 bound = VV_BIND_BOUND(bind), vlan = vid, tag_rank = VV_RANK_NONE, rank = VV_RANK_NONE, flags = 0;

    if (vid == 0) {
        __u32 resulting_form = form == FORM_PRIORITY_TAG_OUTSIDE ? FORM_DOUBLE_TAGGED : FORM_TAGGED;
        vlan = VV_BIND_PVID(bind);
        form = FORM_UNTAGGED;
        if (bound & VV_BOUND_MAC_VLAN)
            tag_rank = vvlan_find_rank(state, VV_ACL_MAC_VLAN, mac, vlan_word(0, form)) & (VV_RANKS - 1);
        if (tag_rank != VV_RANK_NONE && !(tagging->rules[tag_rank].flags & VV_RULE_TAG))
            tag_rank = VV_RANK_NONE;
        if (tag_rank != VV_RANK_NONE) {
            vlan = tagging->rules[tag_rank].tag_vid;
            form = resulting_form;
        }
    }
    /* A voice device is never judged by the security ACL. */
    if (bound & VV_BOUND_VOICE)
        rank = vvlan_find_rank(state, VV_ACL_VOICE, mac, vlan_word(vlan, form));
    if (rank == VV_RANK_NONE && (bound & VV_BOUND_SECURITY)) {
        rank = vvlan_find_rank(state, VV_ACL_SECURITY, mac, vlan_word(vlan, form));
        flags |= VV_BY_SECURITY;
    }
    if (vvlan_names(state, mac))
        flags |= VV_NAMED;
    return flags | tag_rank << 8 | rank;
}

/* ---- What the agent is told ---------------------------------------------- */

static __always_inline bool report_seen(__u32 port, __u64 mac, __u16 vlan)
{
    struct vv_event *event = bpf_ringbuf_reserve(&events, sizeof *event, 0);
    if (!event)
        return false;
    *event = (struct vv_event){.kind = VV_EVENT_SEEN, .port = port, .mac = mac, .vlan = vlan};
    bpf_ringbuf_submit(event, 0);
    return true;
}

/* Learns the address: reported at once where it is new, has moved or comes out
 * in another VLAN, then once per tick. One that could not be reported is tried
 * again with its next frame. */
static __noinline bool learn(struct vv_seen *entry, __u64 key, __u32 port, __u16 vlan, __u64 verdict)
{
    __u32 tick = once(vv.tick);
    __u64 mac = key & 0xffffffffffffull;

    if (!entry) {
        struct vv_seen fresh = {.verdict = verdict, .port = port, .tick = tick, .vlan = vlan};
        if (bpf_map_update_elem(&seen, &key, &fresh, BPF_NOEXIST) != 0)
            return false;
        entry = bpf_map_lookup_elem(&seen, &key);
        if (!entry)
            return false;
    }
    if (!report_seen(port, mac, vlan))
        return false;
    entry->port = port;
    entry->vlan = vlan;
    entry->tick = tick;
    entry->reported = 1;
    return true;
}

/* Copies the frame, as it came in, to the packet side. The number per tick is
 * limited, since a device is noticed by one frame and a stream must not drown
 * the agent. */
static __noinline void trap(struct __sk_buff *skb, struct vv_port *port, __u32 index, __u64 mac,
                            struct vv_port_counters *counters)
{
    __u32 tick = once(vv.tick), size = skb->len;

    if (port->trap_tick != tick) {
        port->trap_tick = tick;
        port->trap_count = 0;
    }
    if (port->trap_count >= VV_TRAPS_PER_TICK)
        return;
    struct vv_trapped *trapped = bpf_ringbuf_reserve(&events, sizeof *trapped, 0);
    if (!trapped) {
        counters->events_lost++;
        return;
    }
    if (size > VV_TRAP_BYTES_MAX)
        size = VV_TRAP_BYTES_MAX;
    trapped->event = (struct vv_event){.kind = VV_EVENT_TRAPPED, .port = index, .mac = mac, .size = size};
    if (skb->vlan_present) {
        trapped->event.tag_type = bpf_ntohs(skb->vlan_proto);
        trapped->event.tag = skb->vlan_tci;
    }
    if (size == 0 || bpf_skb_load_bytes(skb, 0, trapped->bytes, size) != 0) {
        bpf_ringbuf_discard(trapped, 0);
        return;
    }
    bpf_ringbuf_submit(trapped, 0);
    port->trap_count++;
    counters->trapped++;
}

/* ---- Rewriting ----------------------------------------------------------- */

/* The checksum is updated from the one word that changes (RFC 1624, equation
 * 3), so that one that was wrong on arrival leaves wrong. */
static __always_inline bool set_ipv4_dscp(struct __sk_buff *skb, __u32 payload, __u8 dscp)
{
    __u8 *data = (__u8 *)(long)skb->data;
    __u8 *packet = data + (payload & 31);

    if (skb->len < payload + IPV4_HEADER_MIN || packet + 12 > (__u8 *)(long)skb->data_end || packet[0] >> 4 != 4)
        return false;
    __u32 size = 4 * (packet[0] & 15);
    if (size < IPV4_HEADER_MIN || skb->len < payload + size)
        return false;
    __u16 before = bpf_ntohs(*(__u16 *)packet);
    __u16 after = (before & 0xff03) | dscp << 2;
    if (after == before)
        return true;
    __u32 sum = (~bpf_ntohs(*(__u16 *)(packet + 10)) & 0xffff) + (~before & 0xffff) + after;
    sum = (sum & 0xffff) + (sum >> 16);
    sum = (sum & 0xffff) + (sum >> 16);
    *(__u16 *)packet = bpf_htons(after);
    *(__u16 *)(packet + 10) = bpf_htons(~sum);
    return true;
}

/* IPv6 has no checksum that would make up for the change, so one over the whole
 * frame that came with it is kept true. */
static __always_inline bool set_ipv6_dscp(struct __sk_buff *skb, __u32 payload, __u8 dscp)
{
    __u8 *packet = (__u8 *)(long)skb->data + (payload & 31);

    if (skb->len < payload + IPV6_HEADER || packet + 2 > (__u8 *)(long)skb->data_end || packet[0] >> 4 != 6)
        return false;
    __u16 before = bpf_ntohs(*(__u16 *)packet);
    __u16 after = bpf_htons((before & 0xf03f) | dscp << 6);
    if (after != bpf_htons(before))
        bpf_skb_store_bytes(skb, payload, &after, sizeof after, BPF_F_RECOMPUTE_CSUM);
    return true;
}

/* Gives the frame its outer tag. Returns false where memory ran out. */
static __always_inline bool set_tag(struct __sk_buff *skb, const struct header *header, __u16 tci)
{
    if (header->tag_type != 0 && header->tci == tci)
        return true;
    if (header->tag_in_bytes) {
        __u8 *data = (__u8 *)(long)skb->data;
        if (data + TAG_OFFSET + 4 > (__u8 *)(long)skb->data_end)
            return false;
        *(__u16 *)(data + TAG_OFFSET + 2) = bpf_htons(tci);
        return true;
    }
    if (header->tag_type != 0 && bpf_skb_vlan_pop(skb) != 0)
        return false;
    return bpf_skb_vlan_push(skb, bpf_htons(header->tag_type ? header->tag_type : TYPE_CTAG), tci) == 0;
}

static __always_inline void count_ace(__u32 acl, __u8 id)
{
    __u32 index = VV_ACE_INDEX(acl, id);
    __u64 *count = bpf_map_lookup_elem(&ace_counters, &index);
    if (count)
        ++*count;
}

/* Carries out a verdict. */
static __always_inline int treat(struct __sk_buff *skb, const struct header *header, const struct vv_state *state,
                                 __u32 verdict, struct vv_port_counters *counters)
{
    __u32 tag_rank = (verdict >> 8) & (VV_RANKS - 1), rank = verdict & (VV_RANKS - 1);
    bool has_tag = header->tag_type != 0, remarked = false;
    __u16 tci = header->tci;

    if (tag_rank != VV_RANK_NONE) {
        const struct vv_rule *rule = &state->acls[VV_ACL_MAC_VLAN].rules[tag_rank];
        tci = (tci & 0xf000) | rule->tag_vid;
        has_tag = true;
        counters->tagged++;
        count_ace(VV_ACL_MAC_VLAN, rule->id);
    }
    if (rank != VV_RANK_NONE) {
        __u32 acl = verdict & VV_BY_SECURITY ? VV_ACL_SECURITY : VV_ACL_VOICE;
        const struct vv_rule *rule = &state->acls[acl].rules[rank];
        __u8 flags = rule->flags;
        count_ace(acl, rule->id);
        if (flags & VV_RULE_DROP) {
            counters->dropped++;
            return TC_ACT_SHOT;
        }
        if (flags & VV_RULE_PRIO)
            skb->priority = rule->prio;
        if ((flags & VV_RULE_COS) && has_tag) {
            tci = (tci & 0x1fff) | rule->cos << 13;
            remarked = true;
        }
        if ((flags & VV_RULE_DSCP) && header->type == TYPE_IPV4)
            remarked |= set_ipv4_dscp(skb, header->payload, rule->dscp);
        else if ((flags & VV_RULE_DSCP) && header->type == TYPE_IPV6)
            remarked |= set_ipv6_dscp(skb, header->payload, rule->dscp);
        counters->remarked += remarked;
    }
    if (has_tag && !set_tag(skb, header, tci)) {
        counters->dropped++;
        return TC_ACT_SHOT;
    }
    return TC_ACT_UNSPEC;
}

/* ---- The programs -------------------------------------------------------- */

/* Remembers how the port's voice device talks, for what goes to all devices. */
static __always_inline void note_form(struct vv_port *port, const struct vv_state *state, const struct header *header,
                                      __u32 verdict)
{
    __u32 tag_rank = (verdict >> 8) & (VV_RANKS - 1);
    __u16 untag_vid = port->untag_vid;

    if (tag_rank != VV_RANK_NONE) {
        __u16 vid = state->acls[VV_ACL_MAC_VLAN].rules[tag_rank].tag_vid;
        if (untag_vid != vid)
            port->untag_vid = vid;
    } else if (untag_vid != 0 && header->vid == untag_vid && (verdict & VV_NAMED)) {
        port->untag_vid = 0;
    }
}

static __always_inline __u16 resulting_vlan(const struct vv_state *state, const struct header *header, __u64 bind,
                                            __u32 verdict)
{
    __u32 tag_rank = (verdict >> 8) & (VV_RANKS - 1);
    if (tag_rank != VV_RANK_NONE)
        return state->acls[VV_ACL_MAC_VLAN].rules[tag_rank].tag_vid;
    return header->vid ? header->vid : VV_BIND_PVID(bind);
}

static __always_inline bool is_dropped(const struct vv_state *state, __u32 verdict)
{
    __u32 rank = verdict & (VV_RANKS - 1);
    __u32 acl = verdict & VV_BY_SECURITY ? VV_ACL_SECURITY : VV_ACL_VOICE;
    return rank != VV_RANK_NONE && (state->acls[acl].rules[rank].flags & VV_RULE_DROP);
}

static __always_inline int ingress(struct __sk_buff *skb)
{
    struct header header = {};
    __u32 index = port_of(skb->ifindex);
    struct vv_port_counters *counters = bpf_map_lookup_elem(&port_counters, &index);
    if (index >= VV_PORTS_MAX || !counters)
        return TC_ACT_UNSPEC;
    struct vv_port *port = port_at(index);
    counters->in++;
    pull(skb);
    if (!read_header(skb, &header)) {
        counters->dropped++;
        return TC_ACT_SHOT;
    }

    __u32 active = once(vv.active) & (VV_STATES - 1);
    const struct vv_state *state = &vv.states[active];
    __u64 bind = bind_of(state, index);
    __u64 key = VV_SEEN_KEY(header.source, header.vid ? header.vid : VV_BIND_PVID(bind), header.form);
    __u64 owner = VV_VERDICT_OWNER(VV_BIND_GENERATION(bind), index);
    /* A group address is no sender, and an all-zero one a sender without an address. */
    bool is_station = header.source != 0 && !(header.source & GROUP_BIT);
    struct vv_seen *entry = is_station ? bpf_map_lookup_elem(&seen, &key) : 0;
    __u64 verdict = entry ? once(entry->verdict) : 0;
    if ((verdict ^ owner) >> 16) {
        verdict = owner | vvlan_judge(active, header.source, bind, header.vid, header.form);
        if (entry)
            once(entry->verdict) = verdict;
    }

    /* A voice frame is trapped even where the security ACL drops it, or a phone
     * that tags its own frames could never join. */
    if ((port->flags & VV_PORT_TRAP) && (verdict & VV_NAMED))
        trap(skb, port, index, header.source, counters);
    if (is_station && !is_dropped(state, verdict)) {
        __u16 vlan = resulting_vlan(state, &header, bind, verdict);
        if (!entry || entry->port != index || entry->tick != once(vv.tick) || entry->vlan != vlan || !entry->reported)
            if (!learn(entry, key, index, vlan, verdict))
                counters->events_lost++;
        note_form(port, state, &header, verdict);
    }
    return treat(skb, &header, state, verdict, counters);
}

/* Whether the device that a frame of the VLAN is for wants it without a tag.
 * Devices of one port may differ; what goes to all of them, or to one that has
 * not been heard of, follows the one that talked last. */
static __always_inline bool wants_untagged(const struct vv_port *port, __u32 index, __u16 pvid, __u16 vid,
                                           __u64 destination)
{
    if (!(destination & GROUP_BIT)) {
        __u64 key = VV_SEEN_KEY(destination, pvid, FORM_UNTAGGED);
        struct vv_seen *entry = bpf_map_lookup_elem(&seen, &key);
        if (entry && entry->port == index)
            return entry->vlan == vid;
        key = VV_SEEN_KEY(destination, vid, FORM_TAGGED);
        entry = bpf_map_lookup_elem(&seen, &key);
        if (entry && entry->port == index)
            return false;
    }
    return port->untag_vid == vid;
}

static __always_inline int egress(struct __sk_buff *skb)
{
    struct header header = {};
    __u32 index = port_of(skb->ifindex);
    struct vv_port_counters *counters = bpf_map_lookup_elem(&port_counters, &index);
    if (index >= VV_PORTS_MAX || !counters)
        return TC_ACT_UNSPEC;
    counters->out++;
    const struct vv_state *state = &vv.states[once(vv.active) & (VV_STATES - 1)];
    __u64 bind = bind_of(state, index);
    if (!(VV_BIND_BOUND(bind) & VV_BOUND_MAC_VLAN))
        return TC_ACT_UNSPEC;
    pull(skb);
    const __u8 *data = (const __u8 *)(long)skb->data;
    if (!read_header(skb, &header) || header.vid == 0 || header.tag_count != 1 || header.tag_type != TYPE_CTAG)
        return TC_ACT_UNSPEC;
    data = (const __u8 *)(long)skb->data;
    if (data + 6 > (const __u8 *)(long)skb->data_end)
        return TC_ACT_UNSPEC;
    if (wants_untagged(port_at(index), index, VV_BIND_PVID(bind), header.vid, read_mac(data)) &&
        bpf_skb_vlan_pop(skb) != 0) {
        counters->dropped++;
        return TC_ACT_SHOT;
    }
    return TC_ACT_UNSPEC;
}

SEC("tc")
int vvlan_ingress(struct __sk_buff *skb)
{
    return ingress(skb);
}

SEC("tc")
int vvlan_egress(struct __sk_buff *skb)
{
    return egress(skb);
}

char license_text[] SEC("license") = "Dual MIT/GPL";
