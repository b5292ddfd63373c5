/* What the agent is told of: addresses, and voice frames of trapped ports. */
#ifndef VVLAN_FP_EBPF_EVENTS_BPF_H
#define VVLAN_FP_EBPF_EVENTS_BPF_H

#include "platform/fp/ebpf/maps.bpf.h"

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

#endif
