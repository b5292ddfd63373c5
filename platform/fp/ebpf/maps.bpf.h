/* The maps and globals of the kernel's half, and the ways into them. */
#ifndef VVLAN_FP_EBPF_MAPS_BPF_H
#define VVLAN_FP_EBPF_MAPS_BPF_H

#include <linux/bpf.h>
#include <linux/pkt_cls.h>
#include <stdbool.h>

#include <bpf/bpf_endian.h>
#include <bpf/bpf_helpers.h>

#include "platform/fp/ebpf/layout.h"

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

#define once(variable) (*(volatile __typeof__(variable) *)&(variable))

/* The verifier forgets what it knew of an index that the compiler has kept on
 * the stack; the compiler must therefore not leave out the mask. */
static __always_inline __u32 within(__u32 index, __u32 mask)
{
    asm volatile("" : "+r"(index));
    return index & mask;
}

/* The value of an array at an index, or null. The key is a whole word, of which the
 * kernel reads one half: where the stack has held a whole word before, a process
 * with few capabilities may write nothing smaller there. */
static __always_inline void *value_at(void *array, __u32 index)
{
#if __BYTE_ORDER__ == __ORDER_LITTLE_ENDIAN__
    __u64 key = index;
#else
    __u64 key = (__u64)index << 32;
#endif
    return bpf_map_lookup_elem(array, &key);
}

/* A pointer moved by a variable number of bytes. The verifier of Linux 6.12 knows
 * nothing of the pointer's lower half on the branch where a processor may guess the
 * number, and gives up at a copy of it, until a constant has been added. */
#define moved_by_bytes(pointer, bytes)                                                                                 \
    ({                                                                                                                 \
        __u8 *moved = (__u8 *)(pointer);                                                                               \
        __u64 distance = (bytes);                                                                                      \
        asm volatile("%0 += %1\n\t%0 += 0" : "+r"(moved) : "r"(distance));                                             \
        moved;                                                                                                         \
    })

static __always_inline struct vv_port *port_at(__u32 index)
{
    return (struct vv_port *)moved_by_bytes(vv.ports, within(index, VV_PORTS_MAX - 1) * sizeof(struct vv_port));
}

static __always_inline const struct vv_state *state_at(__u32 index)
{
    return (const struct vv_state *)moved_by_bytes(vv.states, within(index, VV_STATES - 1) * sizeof(struct vv_state));
}

static __always_inline __u64 bind_of(const struct vv_state *state, __u32 index)
{
    return once(state->bind[within(index, VV_PORTS_MAX - 1)]);
}

/* The same as below, for an interface that is not in its first place. Not static:
 * the verifier follows each way out of a loop to the program's end. */
__noinline __u32 vvlan_port_elsewhere(__u32 ifindex)
{
    for (int i = 1; i < VV_IFINDEX_PROBES; i++) {
        __u64 place = once(vv.places[(ifindex + i) & (VV_IFINDEX_PLACES - 1)]);
        if (place >> 32 == ifindex)
            return (__u32)place & (VV_PORTS_MAX - 1);
    }
    return VV_PORTS_MAX;
}

/* The index of an interface's port, or VV_PORTS_MAX. */
static __always_inline __u32 port_of(__u32 ifindex)
{
    __u64 place = once(vv.places[ifindex & (VV_IFINDEX_PLACES - 1)]);
    return place >> 32 == ifindex ? (__u32)place & (VV_PORTS_MAX - 1) : vvlan_port_elsewhere(ifindex);
}

#endif
