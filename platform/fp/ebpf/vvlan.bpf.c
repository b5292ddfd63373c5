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
    __u64 *count = value_at(&ace_counters, VV_ACE_INDEX(acl, id));
    if (count)
        ++*count;
}

static __always_inline struct vv_cached *cached_for(__u64 key)
{
    struct vv_cache *all = value_at(&cache, 0);
    /* Multiplicative hashing: the high bits of a product with 2^64 divided by the golden ratio. */
    __u64 place = key * 0x9e3779b97f4a7c15ull >> 54;
    return all ? &all->entries[place & (VV_CACHE_SIZE - 1)] : 0;
}

/* What a verdict comes to, as a word of union vv_action. Each rule is used right
 * behind its lookup; see vvlan_learn. */
__noinline __u64 vvlan_action_of(__u32 state, __u32 verdict)
{
    union vv_action action = {};
    __u32 tag_rank = (verdict >> 8) & (VV_RANKS - 1), rank = verdict & (VV_RANKS - 1);
    __u32 named = verdict & VV_NAMED ? VV_ACTION_NAMED : 0;

    if ((verdict & 0xff) == VV_FILTERED) {
        action.flags = VV_RULE_DROP | named;
        return action.word;
    }
    if (rank != VV_RANK_NONE) {
        __u32 by_security = verdict & VV_BY_SECURITY ? VV_ACTION_BY_SECURITY : 0;
        const struct vv_rule *rule = rule_at(state, by_security ? VV_ACL_SECURITY : VV_ACL_VOICE, rank);
        if (rule) {
            action.mark_ace = rule->id;
            action.flags = (rule->flags & ~VV_RULE_TAG) | by_security | (named && !by_security ? VV_ACTION_SPEAKS : 0);
            action.cos = rule->cos;
            action.dscp = rule->dscp;
            action.prio = rule->prio;
        }
    }
    if (tag_rank != VV_RANK_NONE) {
        const struct vv_rule *rule = rule_at(state, VV_ACL_MAC_VLAN, tag_rank);
        if (rule) {
            action.flags |= VV_RULE_TAG | (named ? VV_ACTION_SPEAKS : 0);
            action.tag_ace = rule->id;
            action.tag_vid = rule->tag_vid;
        }
    }
    action.flags |= named;
    return action.word;
}

/* The verdict, searched for, and kept where there is an entry. */
static __noinline __u64 judge(__u64 key, __u64 bind, __u64 stamp, __u32 state)
{
    __u32 form = key >> 60, vid = form == FORM_TAGGED || form == FORM_DOUBLE_TAGGED ? VV_SEEN_VID(key) : 0;
    __u64 verdict = (stamp & ~0xffffull) | vvlan_judge(state, mac_of(key), bind, vid, form);
    struct vv_seen *entry = bpf_map_lookup_elem(&seen, &key);

    if (entry)
        once(entry->verdict) = verdict;
    return verdict;
}

/* What to do with a frame whose sender is not in the cache, after learning it: a
 * word of union vv_action. A sender whose frames are denied is not learned, nor is
 * a group address, which is no sender, or an all-zero one, which is a sender
 * without an address. key: of struct vv_seen; stamp: of struct vv_cached. */
__noinline __u64 vvlan_look_up(__u64 key, __u64 bind, __u64 stamp, __u32 state)
{
    bool is_station = mac_of(key) != 0 && !(key & GROUP_BIT);
    __u32 port = (stamp >> 16) & (VV_PORTS_MAX - 1);
    struct vv_seen before = {}, *entry = bpf_map_lookup_elem(&seen, &key);

    if (entry)
        before = *entry;
    __u64 verdict = (before.verdict ^ stamp) >> 16 ? judge(key, bind, stamp, state) : before.verdict;
    union vv_action action = {.word = vvlan_action_of(state, verdict)};
    if (!is_station || (action.flags & VV_RULE_DROP))
        return action.word;
    __u16 vlan = action.flags & VV_RULE_TAG ? action.tag_vid : VV_SEEN_VID(key);
    bool is_news = !before.reported || !before.is_newest || before.port != port || before.vlan != vlan ||
                   before.tick != once(vv.tick);
    if (is_news && !vvlan_learn(key, port, verdict, vlan, VV_BIND_PVID(bind))) {
        struct vv_port_counters *counters = value_at(&port_counters, port);
        if (counters)
            counters->events_lost++;
        return action.word;
    }
    struct vv_cached *cached = cached_for(key);
    if (cached)
        *cached = (struct vv_cached){key, stamp, action};
    return action.word;
}

/* The functions that follow are not static, and take numbers, so that the verifier
 * goes through them once and not with each form of a frame and each answer: for a
 * process with few capabilities it joins no paths. */

/* Follows the port's speaker. Another device becomes it where there is none or
 * where it has fallen silent, so one frame with a made-up address, or a second
 * telephone, does not change the form of what goes to all. */
__noinline int vvlan_note_form(__u32 index, __u64 source, __u32 untag_vid)
{
    struct vv_port *port = port_at(index);
    __u32 tick = once(vv.tick);

    if (port->speaker != source) {
        if (port->speaker != 0 && tick - port->speaker_tick < VV_SPEAKER_TICKS)
            return 0;
        port->speaker = source;
    }
    if (port->speaker_tick != tick)
        port->speaker_tick = tick;
    if (port->untag_vid != untag_vid)
        port->untag_vid = untag_vid;
    return 1;
}

/* Carries out what the rules ask for. word: of pack_header. */
__noinline int vvlan_treat(struct __sk_buff *skb, __u64 word, __u64 source, __u32 index, __u64 action_word)
{
    struct header header = unpack_header(word);
    union vv_action action = {.word = action_word};
    struct vv_port_counters *counters = value_at(&port_counters, index);
    bool has_tag = header.tag_type != 0, remarked = false;
    __u16 tci = header.tci;

    if (!counters)
        return TC_ACT_UNSPEC;
    /* A voice frame is trapped even where it is dropped, or a phone that tags its
     * own frames could never join. */
    if ((action.flags & VV_ACTION_NAMED) && (port_at(index)->flags & VV_PORT_TRAP))
        vvlan_trap(skb, index, source);
    if (action.flags & VV_ACTION_SPEAKS)
        vvlan_note_form(index, source, action.flags & VV_RULE_TAG ? action.tag_vid : 0);
    if (action.flags & VV_RULE_TAG) {
        tci = (tci & 0xf000) | action.tag_vid;
        has_tag = true;
        counters->tagged++;
        count_ace(VV_ACL_MAC_VLAN, action.tag_ace);
    }
    if (action.mark_ace)
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
        remarked |= vvlan_set_dscp(skb, header.payload, header.type, action.dscp) != 0;
    counters->remarked += remarked;
    if (has_tag && !set_tag(skb, &header, tci)) {
        counters->dropped++;
        return TC_ACT_SHOT;
    }
    return TC_ACT_UNSPEC;
}

static __always_inline int ingress(struct __sk_buff *skb)
{
    struct header header = {};
    __u32 index = port_of(skb->ifindex);
    struct vv_port_counters *counters = value_at(&port_counters, index);
    if (index >= VV_PORTS_MAX || !counters)
        return TC_ACT_UNSPEC;
    counters->in++;
    pull(skb);
    if (!read_header(skb, &header)) {
        counters->dropped++;
        return TC_ACT_SHOT;
    }

    __u32 state = once(vv.active) & (VV_STATES - 1);
    /* Such a frame goes on as it came in, and says nothing about how its device
     * talks; it may only make the port join. */
    if (is_reserved(header.destination)) {
        if ((port_at(index)->flags & VV_PORT_TRAP) && vvlan_names(state, header.source))
            vvlan_trap(skb, index, header.source);
        return TC_ACT_UNSPEC;
    }
    __u64 bind = bind_of(state_at(state), index);
    __u64 key = VV_SEEN_KEY(header.source, header.vid ? header.vid : VV_BIND_PVID(bind), header.form);
    __u32 turn = once(vv.turns[within(VV_TURN(header.source), VV_TURNS - 1)]);
    __u64 stamp = VV_VERDICT_OWNER(VV_BIND_GENERATION(bind), index) | ((once(vv.epoch) + turn) & 0xffff);
    struct vv_cached *cached = cached_for(key);
    union vv_action action;
    if (cached && cached->key == key && cached->stamp == stamp) {
        action = cached->action;
    } else {
        action.word = vvlan_look_up(key, bind, stamp, state);
    }
    return action.word ? vvlan_treat(skb, pack_header(&header), header.source, index, action.word) : TC_ACT_UNSPEC;
}

/* Whether the device that a frame of the VLAN is for wants it without a tag, as
 * its own newest frame came. What goes to all devices of the port, or to one
 * that has not been heard of, follows the port's speaker. */
static __always_inline bool wants_untagged(const struct vv_port *port, __u32 index, __u16 pvid, __u16 vid,
                                           __u64 destination)
{
    if (destination & GROUP_BIT)
        return port->untag_vid == vid;
    bool is_known = false;
    __u64 key = VV_SEEN_KEY(destination, pvid, FORM_UNTAGGED);
    struct vv_seen *entry = bpf_map_lookup_elem(&seen, &key);
    if (entry && entry->port == index) {
        if (entry->vlan != vid || entry->is_newest)
            return entry->vlan == vid;
        is_known = true;
    }
    key = VV_SEEN_KEY(destination, vid, FORM_TAGGED);
    entry = bpf_map_lookup_elem(&seen, &key);
    if (entry && entry->port == index)
        return false;
    return is_known || port->untag_vid == vid;
}

static __always_inline int egress(struct __sk_buff *skb)
{
    struct header header = {};
    __u32 index = port_of(skb->ifindex);
    struct vv_port_counters *counters = value_at(&port_counters, index);
    if (index >= VV_PORTS_MAX || !counters)
        return TC_ACT_UNSPEC;
    counters->out++;
    const struct vv_state *state = state_at(once(vv.active));
    __u64 bind = bind_of(state, index);
    if (!(VV_BIND_BOUND(bind) & VV_BOUND_MAC_VLAN))
        return TC_ACT_UNSPEC;
    pull(skb);
    if (!read_header(skb, &header) || header.vid == 0 || header.tag_count != 1 || header.tag_type != TYPE_CTAG ||
        is_reserved(header.destination))
        return TC_ACT_UNSPEC;
    if (wants_untagged(port_at(index), index, VV_BIND_PVID(bind), header.vid, header.destination) &&
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
