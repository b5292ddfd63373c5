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
#define TAG_SIZE 4
#define TYPE_SIZE 2
#define PAYLOAD_UNTAGGED 14 /* offset of the packet behind that many tags in the bytes */
#define PAYLOAD_TAGGED 18
#define PAYLOAD_DOUBLE_TAGGED 22
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
    __uint(type, BPF_MAP_TYPE_ARRAY);
    __uint(map_flags, BPF_F_MMAPABLE);
    __uint(max_entries, VV_RULES_MAX);
    __type(key, __u32);
    __type(value, struct vv_rule);
} rules SEC(".maps");

struct {
    __uint(type, BPF_MAP_TYPE_HASH);
    __uint(max_entries, VV_SEEN_MAX);
    __type(key, __u64);
    __type(value, struct vv_seen);
} seen SEC(".maps");

struct {
    __uint(type, BPF_MAP_TYPE_PERCPU_ARRAY);
    __uint(max_entries, 1);
    __type(key, __u32);
    __type(value, struct vv_cache);
} cache SEC(".maps");

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

/* Makes the bytes that a program may touch directly accessible. Packet pointers
 * are compared, never subtracted: that would take another capability to load. */
static __always_inline void pull(struct __sk_buff *skb)
{
    if ((const __u8 *)(long)skb->data + TOUCHED_MAX > (const __u8 *)(long)skb->data_end)
        bpf_skb_pull_data(skb, skb->len < TOUCHED_MAX ? skb->len : TOUCHED_MAX);
}

/* A packet pointer moved by a constant. It must be one in the instruction too, or
 * the program takes another capability to load, so the compiler is not to turn
 * branches with a constant each into one with a variable. */
#define moved_by(pointer, constant)                                                                                    \
    ({                                                                                                                 \
        __u8 *moved = (pointer);                                                                                       \
        asm volatile("%0 += %1" : "+r"(moved) : "i"(constant));                                                        \
        moved;                                                                                                         \
    })

/* Reads what stands behind the outer tag, or in its place. */
static __always_inline bool read_inside(struct __sk_buff *skb, struct header *header)
{
    __u8 *data = (__u8 *)(long)skb->data;
    const __u8 *end = (const __u8 *)(long)skb->data_end;
    const __u8 *at = header->tag_in_bytes ? moved_by(data, TAG_OFFSET + TAG_SIZE) : moved_by(data, TAG_OFFSET);

    if (at + TYPE_SIZE > end)
        return false;
    header->type = bpf_ntohs(*(const __u16 *)at);
    header->payload = header->tag_in_bytes ? PAYLOAD_TAGGED : PAYLOAD_UNTAGGED;
    if (header->tag_count == 1 && is_tag(header->type, false)) {
        if (at + TAG_SIZE + TYPE_SIZE > end)
            return false;
        header->tag_count = 2;
        header->type = bpf_ntohs(*(const __u16 *)(at + TAG_SIZE));
        header->payload += TAG_SIZE;
    }
    return true;
}

/* Returns false where the frame ends within its header. */
static __always_inline bool read_header(struct __sk_buff *skb, struct header *header)
{
    const __u8 *data = (const __u8 *)(long)skb->data;
    const __u8 *end = (const __u8 *)(long)skb->data_end;

    if (data + TAG_OFFSET + TYPE_SIZE > end)
        return false;
    header->source = read_mac(data + 6);
    __u16 type = bpf_ntohs(*(const __u16 *)(data + TAG_OFFSET));
    header->tag_count = 0;
    header->tag_in_bytes = false;
    header->tag_type = header->tci = 0;
    if (skb->vlan_present) {
        header->tag_type = bpf_ntohs(skb->vlan_proto);
        header->tci = skb->vlan_tci;
        header->tag_count = 1;
    } else if (is_tag(type, true)) {
        if (data + TAG_OFFSET + TAG_SIZE > end)
            return false;
        header->tag_type = type;
        header->tci = bpf_ntohs(*(const __u16 *)(data + TAG_OFFSET + TYPE_SIZE));
        header->tag_count = 1;
        header->tag_in_bytes = true;
    }
    if (!read_inside(skb, header))
        return false;
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

/* A lookup rather than an array in the globals: what the verifier lets a program
 * reach in two steps takes another capability to load. */
static __always_inline const struct vv_rule *rule_at(__u32 state, __u32 acl, __u32 rank)
{
    __u32 index = VV_RULE_INDEX(state, acl, rank);
    return bpf_map_lookup_elem(&rules, &index);
}

struct search {
    __u64 left;       /* ranks to be looked at, one word of a set */
    __u32 first_rank; /* of the word */
    __u32 first_rule; /* index of the ACL's rule of rank 0 */
    __u32 vlan;
    __u32 rank; /* found */
};

/* Looks at the best rank that is left. Returns 1 to end the search. */
static long look_at_one(__u32 turn, void *context)
{
    struct search *search = context;
    __u64 left = search->left;
    (void)turn;
    if (left == 0)
        return 1;
    __u32 rank = search->first_rank + lowest_bit(left);
    __u32 index = search->first_rule + rank;
    const struct vv_rule *rule = bpf_map_lookup_elem(&rules, &index);
    search->left = left & (left - 1);
    if (!rule || ((rule->vlan ^ search->vlan) & rule->vlan_mask) != 0)
        return 0;
    search->rank = rank;
    return 1;
}

/* The rank of the rule that acts, or VV_RANK_NONE. vlan: as in struct vv_rule.
 * Not static, and numbers instead of pointers, so that the verifier goes through
 * it once rather than once per call. */
__noinline __u32 vvlan_find_rank(__u32 state, __u32 index, __u64 mac, __u32 vlan)
{
    const struct vv_acl *acl = &vv.states[within(state, VV_STATES - 1)].acls[within(index, 3)];
    if (index >= VV_ACLS || acl->count == 0)
        return VV_RANK_NONE;
    struct rank_set set = ranks_for(acl, mac);
    struct search search = {
        .left = set.low, .first_rule = VV_RULE_INDEX(state, index, 0), .vlan = vlan, .rank = VV_RANK_NONE};
    if (set.low)
        bpf_loop(VV_RANKS, look_at_one, &search, 0);
    if (search.rank == VV_RANK_NONE && set.high) {
        search.left = set.high;
        search.first_rank = 64;
        bpf_loop(VV_RANKS, look_at_one, &search, 0);
    }
    return search.rank;
}

/* Whether a rule of the voice ACL names the address. Apart from the search,
 * which a process with few capabilities could not load otherwise. */
__noinline int vvlan_names(__u32 state, __u64 mac)
{
    const struct vv_acl *acl = &vv.states[within(state, VV_STATES - 1)].acls[VV_ACL_VOICE];
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
    __u32 bound = VV_BIND_BOUND(bind), vlan = vid, tag_rank = VV_RANK_NONE, rank = VV_RANK_NONE, flags = 0;

    if (vid == 0) {
        __u32 resulting_form = form == FORM_PRIORITY_TAG_OUTSIDE ? FORM_DOUBLE_TAGGED : FORM_TAGGED;
        vlan = VV_BIND_PVID(bind);
        form = FORM_UNTAGGED;
        if (bound & VV_BOUND_MAC_VLAN)
            tag_rank = vvlan_find_rank(state, VV_ACL_MAC_VLAN, mac, vlan_word(0, form)) & (VV_RANKS - 1);
        const struct vv_rule *rule = tag_rank != VV_RANK_NONE ? rule_at(state, VV_ACL_MAC_VLAN, tag_rank) : 0;
        if (rule && (rule->flags & VV_RULE_TAG)) {
            vlan = rule->tag_vid;
            form = resulting_form;
        } else {
            tag_rank = VV_RANK_NONE;
        }
    }
    /* A voice device is never judged by the security ACL. */
    if (bound & VV_BOUND_VOICE)
        rank = vvlan_find_rank(state, VV_ACL_VOICE, mac, vlan_word(vlan, form)) & (VV_RANKS - 1);
    if (rank == VV_RANK_NONE && (bound & VV_BOUND_SECURITY)) {
        rank = vvlan_find_rank(state, VV_ACL_SECURITY, mac, vlan_word(vlan, form)) & (VV_RANKS - 1);
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
    /* Said once more for the verifier, which looks at one limit at a time. */
    size = within(size - 1, VV_TRAP_BYTES_MAX - 1) + 1;
    if (bpf_skb_load_bytes(skb, 0, trapped->bytes, size) != 0) {
        bpf_ringbuf_discard(trapped, 0);
        return;
    }
    bpf_ringbuf_submit(trapped, 0);
    port->trap_count++;
    counters->trapped++;
}

/* ---- Rewriting ----------------------------------------------------------- */

static __always_inline __u8 *packet_of(struct __sk_buff *skb, const struct header *header)
{
    __u8 *data = (__u8 *)(long)skb->data;
    if (header->payload == PAYLOAD_UNTAGGED)
        return moved_by(data, PAYLOAD_UNTAGGED);
    return header->payload == PAYLOAD_TAGGED ? moved_by(data, PAYLOAD_TAGGED) : moved_by(data, PAYLOAD_DOUBLE_TAGGED);
}

/* The checksum is updated from the one word that changes (RFC 1624, equation
 * 3), so that one that was wrong on arrival leaves wrong. */
static __always_inline bool set_ipv4_dscp(struct __sk_buff *skb, const struct header *header, __u8 dscp)
{
    __u8 *packet = packet_of(skb, header);
    __u32 payload = header->payload;

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
static __always_inline bool set_ipv6_dscp(struct __sk_buff *skb, const struct header *header, __u8 dscp)
{
    __u8 *packet = packet_of(skb, header);
    __u32 payload = header->payload;

    if (skb->len < payload + IPV6_HEADER || packet + 2 > (__u8 *)(long)skb->data_end || packet[0] >> 4 != 6)
        return false;
    __u16 before = bpf_ntohs(*(__u16 *)packet);
    __u16 after = bpf_htons((before & 0xf03f) | dscp << 6);
    if (after != bpf_htons(before))
        bpf_skb_store_bytes(skb, payload, &after, sizeof after, BPF_F_RECOMPUTE_CSUM);
    return true;
}

static __always_inline bool set_dscp(struct __sk_buff *skb, const struct header *header, __u8 dscp)
{
    if (header->type == TYPE_IPV4)
        return set_ipv4_dscp(skb, header, dscp);
    return header->type == TYPE_IPV6 && set_ipv6_dscp(skb, header, dscp);
}

/* Gives the frame its outer tag. Returns false where memory ran out. */
static __always_inline bool set_tag(struct __sk_buff *skb, const struct header *header, __u16 tci)
{
    if (header->tag_type != 0 && header->tci == tci)
        return true;
    if (header->tag_in_bytes) {
        __u8 *data = (__u8 *)(long)skb->data;
        if (data + TAG_OFFSET + TAG_SIZE > (__u8 *)(long)skb->data_end)
            return false;
        *(__u16 *)(data + TAG_OFFSET + TYPE_SIZE) = bpf_htons(tci);
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

/* Carries out what the rules ask for. */
static __always_inline int treat(struct __sk_buff *skb, const struct header *header, union vv_action action,
                                 struct vv_port_counters *counters)
{
    bool has_tag = header->tag_type != 0, remarked = false;
    __u16 tci = header->tci;

    if (action.flags & VV_RULE_TAG) {
        tci = (tci & 0xf000) | action.tag_vid;
        has_tag = true;
        counters->tagged++;
        count_ace(VV_ACL_MAC_VLAN, action.tag_ace);
    }
    if (action.mark_ace) {
        count_ace(action.flags & VV_ACTION_BY_SECURITY ? VV_ACL_SECURITY : VV_ACL_VOICE, action.mark_ace);
        if (action.flags & VV_RULE_DROP) {
            counters->dropped++;
            return TC_ACT_SHOT;
        }
        if (action.flags & VV_RULE_PRIO)
            skb->priority = action.prio;
        if ((action.flags & VV_RULE_COS) && has_tag) {
            tci = (tci & 0x1fff) | action.cos << 13;
            remarked = true;
        }
        if (action.flags & VV_RULE_DSCP)
            remarked |= set_dscp(skb, header, action.dscp);
        counters->remarked += remarked;
    }
    if (has_tag && !set_tag(skb, header, tci)) {
        counters->dropped++;
        return TC_ACT_SHOT;
    }
    return TC_ACT_UNSPEC;
}

/* ---- The programs -------------------------------------------------------- */

/* What the programs ask about a frame's sender. */
struct question {
    __u64 key; /* of struct vv_seen */
    __u64 bind;
    __u64 stamp; /* of struct vv_cached */
    __u32 port;
    __u32 state;
    __u16 vid;
    __u16 form;
};

static __always_inline struct vv_cached *cached_for(__u64 key)
{
    __u32 zero = 0;
    struct vv_cache *all = bpf_map_lookup_elem(&cache, &zero);
    /* Multiplicative hashing: the high bits of a product with 2^64 divided by the golden ratio. */
    __u64 place = key * 0x9e3779b97f4a7c15ull >> 54;
    return all ? &all->entries[place & (VV_CACHE_SIZE - 1)] : 0;
}

/* What a verdict comes to. */
static __always_inline union vv_action action_of(__u32 state, __u32 verdict)
{
    union vv_action action = {};
    __u32 tag_rank = (verdict >> 8) & (VV_RANKS - 1), rank = verdict & (VV_RANKS - 1);
    __u32 acl = verdict & VV_BY_SECURITY ? VV_ACL_SECURITY : VV_ACL_VOICE;
    const struct vv_rule *tagging = tag_rank != VV_RANK_NONE ? rule_at(state, VV_ACL_MAC_VLAN, tag_rank) : 0;
    const struct vv_rule *marking = rank != VV_RANK_NONE ? rule_at(state, acl, rank) : 0;

    if (marking) {
        action.mark_ace = marking->id;
        action.flags = marking->flags & ~VV_RULE_TAG;
        action.cos = marking->cos;
        action.dscp = marking->dscp;
        action.prio = marking->prio;
        if (acl == VV_ACL_SECURITY)
            action.flags |= VV_ACTION_BY_SECURITY;
    }
    if (tagging) {
        action.flags |= VV_RULE_TAG;
        action.tag_ace = tagging->id;
        action.tag_vid = tagging->tag_vid;
    }
    if (verdict & VV_NAMED)
        action.flags |= VV_ACTION_NAMED;
    return action;
}

/* What to do with a frame whose sender is not in the cache, after learning it. A
 * sender whose frames are denied is not learned, nor is a group address, which
 * is no sender, or an all-zero one, which is a sender without an address. */
static __noinline __u64 look_up(const struct question *question, struct vv_cached *cached,
                                struct vv_port_counters *counters)
{
    __u64 key = question->key, mac = key & 0xffffffffffffull;
    bool is_station = mac != 0 && !(mac & GROUP_BIT);
    struct vv_seen *entry = is_station ? bpf_map_lookup_elem(&seen, &key) : 0;
    __u64 verdict = entry ? once(entry->verdict) : 0;
    __u64 owner = question->stamp & ~0xffffull;

    if ((verdict ^ owner) >> 16) {
        verdict = owner | vvlan_judge(question->state, mac, question->bind, question->vid, question->form);
        if (entry)
            once(entry->verdict) = verdict;
    }
    union vv_action action = action_of(question->state, verdict);
    if (!is_station || (action.flags & VV_RULE_DROP))
        return action.word;
    __u16 vlan = question->vid ? question->vid : VV_BIND_PVID(question->bind);
    if (action.flags & VV_RULE_TAG)
        vlan = action.tag_vid;
    if (!entry || entry->port != question->port || entry->tick != once(vv.tick) || entry->vlan != vlan ||
        !entry->reported) {
        if (!learn(entry, key, question->port, vlan, verdict)) {
            counters->events_lost++;
            return action.word;
        }
    }
    if (cached)
        *cached = (struct vv_cached){key, question->stamp, action};
    return action.word;
}

/* Remembers how the port's voice device talks, for what goes to all devices. */
static __always_inline void note_form(struct vv_port *port, const struct header *header, union vv_action action)
{
    __u16 untag_vid = port->untag_vid;

    if (action.flags & VV_RULE_TAG) {
        if (untag_vid != action.tag_vid)
            port->untag_vid = action.tag_vid;
    } else if (untag_vid != 0 && header->vid == untag_vid) {
        port->untag_vid = 0;
    }
}

static __always_inline int ingress(struct __sk_buff *skb)
{
    struct header header = {};
    __u32 index = port_of(skb->ifindex);
    struct vv_port_counters *counters = bpf_map_lookup_elem(&port_counters, &index);
    if (index >= VV_PORTS_MAX || !counters)
        return TC_ACT_UNSPEC;
    counters->in++;
    pull(skb);
    if (!read_header(skb, &header)) {
        counters->dropped++;
        return TC_ACT_SHOT;
    }

    __u32 state = once(vv.active) & (VV_STATES - 1);
    __u64 bind = bind_of(&vv.states[state], index);
    __u64 key = VV_SEEN_KEY(header.source, header.vid ? header.vid : VV_BIND_PVID(bind), header.form);
    __u64 stamp = VV_VERDICT_OWNER(VV_BIND_GENERATION(bind), index) | (once(vv.epoch) & 0xffff);
    struct vv_cached *cached = cached_for(key);
    union vv_action action;
    if (cached && cached->key == key && cached->stamp == stamp) {
        action = cached->action;
    } else {
        struct question question = {key, bind, stamp, index, state, header.vid, header.form};
        action.word = look_up(&question, cached, counters);
    }
    if (action.word == 0)
        return TC_ACT_UNSPEC;

    if (action.flags & VV_ACTION_NAMED) {
        struct vv_port *port = port_at(index);
        /* A voice frame is trapped even where the security ACL drops it, or a
         * phone that tags its own frames could never join. */
        if (port->flags & VV_PORT_TRAP)
            trap(skb, port, index, header.source, counters);
        note_form(port, &header, action);
    }
    return treat(skb, &header, action, counters);
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
