/* The plane in the kernel: one program on the ingress and one on the egress of
 * each port, at the clsact hooks.
 *
 * The treatment of a frame follows from one state and one word about its port,
 * each read once, so no frame sees a part of a change. What the ACLs decide
 * about an address is kept beside the time at which it was seen: one lookup
 * serves learning and classification, and the rules are searched only for an
 * address that is new or after a change. */
#include "platform/fp/ebpf/events.bpf.h"
#include "platform/fp/ebpf/frame.bpf.h"
#include "platform/fp/ebpf/maps.bpf.h"
#include "platform/fp/ebpf/rules.bpf.h"

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
