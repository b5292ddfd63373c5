/* What the agent is told of: addresses, and voice frames of trapped ports. */
#ifndef VVLAN_FP_EBPF_EVENTS_BPF_H
#define VVLAN_FP_EBPF_EVENTS_BPF_H

#include "platform/fp/ebpf/frame.bpf.h"

static __always_inline bool report_seen(__u32 port, __u64 mac, __u16 vlan)
{
    struct vv_event event = {.kind = VV_EVENT_SEEN, .port = port, .mac = mac, .vlan = vlan};
    return bpf_ringbuf_output(&events, &event, sizeof event, 0) == 0;
}

/* The share of the port, and of all ports, that an address is counted in. */
static __always_inline struct vv_share *share_of(struct vv_port *port, bool is_voice)
{
    return (struct vv_share *)(is_voice ? moved_by((__u8 *)port, __builtin_offsetof(struct vv_port, voice))
                                        : moved_by((__u8 *)port, __builtin_offsetof(struct vv_port, others)));
}

static __always_inline struct vv_share *share_of_all(bool is_voice)
{
    return (struct vv_share *)(is_voice ? moved_by((__u8 *)&vv, __builtin_offsetof(struct vv_shared, voice))
                                        : moved_by((__u8 *)&vv, __builtin_offsetof(struct vv_shared, others)));
}

static __noinline void count_address(__u32 index, bool is_voice, __s32 change)
{
    __sync_fetch_and_add(&share_of(port_at(index), is_voice)->used, change);
    __sync_fetch_and_add(&share_of_all(is_voice)->used, change);
}

/* Whether the table has room for one more address of the port. Addresses that no
 * rule names cannot take the room of voice devices, nor a port that of others. */
static __always_inline bool has_room(__u32 index, bool is_voice)
{
    const struct vv_share *share = share_of(port_at(index), is_voice);
    const struct vv_share *all = share_of_all(is_voice);
    return once(share->used) < share->max && once(all->used) < all->max;
}

static __always_inline __u64 mac_of(__u64 key)
{
    return key & 0xffffffffffffull;
}

/* Puts a new address into the table, where there is room. */
static __noinline void add_address(__u64 key, __u32 port, __u64 verdict)
{
    bool is_voice = (verdict & VV_NAMED) != 0;
    struct vv_seen fresh = {.verdict = verdict, .port = port, .is_voice = is_voice};

    if (has_room(port, is_voice) && bpf_map_update_elem(&seen, &key, &fresh, BPF_NOEXIST) == 0)
        count_address(port, is_voice, 1);
}

/* Makes the form of a frame the one in which its device talked last. vlan: the
 * frame's, after the ACLs. */
static __noinline void take_turn(struct vv_seen *entry, __u64 key, __u16 vlan, __u16 pvid)
{
    __u64 mac = mac_of(key), other_key = VV_SEEN_KEY(mac, vlan, FORM_TAGGED);
    __u32 form = key >> 60;

    entry->is_newest = 1;
    if (form > FORM_TAGGED)
        return;
    if (form == FORM_TAGGED)
        other_key = VV_SEEN_KEY(mac, pvid, FORM_UNTAGGED);
    struct vv_seen *other = bpf_map_lookup_elem(&seen, &other_key);
    if (other && other->vlan == vlan)
        other->is_newest = 0;
    __sync_fetch_and_add(&vv.turns[within(VV_TURN(mac), VV_TURNS - 1)], 1);
}

/* Learns the address: reported at once where it is new, has moved or comes out
 * in another VLAN, then once per tick. Returns 0 where it could not be kept or
 * reported; it is tried again with its next frame.
 *
 * The entry is looked up here although the caller has had it: the verifier also
 * follows the branches that a processor may only guess, where a process has few
 * capabilities, and there a pointer that was found to be null is used as one. */
__noinline int vvlan_learn(__u64 key, __u32 port, __u64 verdict, __u32 vlan, __u32 pvid)
{
    struct vv_seen *entry = bpf_map_lookup_elem(&seen, &key);

    if (!entry) {
        add_address(key, port, verdict);
        entry = bpf_map_lookup_elem(&seen, &key);
        if (!entry)
            return 0;
    }
    if (!entry->is_newest || entry->vlan != vlan)
        take_turn(entry, key, vlan, pvid);
    if (entry->port != port) {
        count_address(entry->port, entry->is_voice, -1);
        count_address(port, entry->is_voice, 1);
        entry->port = port;
    }
    entry->vlan = vlan;
    entry->tick = once(vv.tick);
    entry->reported = report_seen(port, mac_of(key), vlan);
    return entry->reported;
}

/* Copies the frame, as it came in, to the packet side. The number per tick is
 * limited, since a device is noticed by one frame and a stream must not drown
 * the agent. Returns whether it was. */
__noinline int vvlan_trap(struct __sk_buff *skb, __u32 index, __u64 mac)
{
    struct vv_port *port = port_at(index);
    struct vv_port_counters *counters = value_at(&port_counters, index);
    __u32 tick = once(vv.tick), size = skb->len;

    if (!counters)
        return 0;
    if (port->trap_tick != tick) {
        port->trap_tick = tick;
        port->trap_count = 0;
    }
    if (port->trap_count >= VV_TRAPS_PER_TICK)
        return 0;
    struct vv_trapped *trapped = bpf_ringbuf_reserve(&events, sizeof *trapped, 0);
    if (!trapped) {
        counters->events_lost++;
        return 0;
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
        return 0;
    }
    bpf_ringbuf_submit(trapped, 0);
    port->trap_count++;
    counters->trapped++;
    return 1;
}

#endif
