/* The plane's ingress program as a benchmark runs it, and what it is measured
 * against. The test run repeats a program on one and the same frame, so one that
 * rewrites the frame has to undo it; the undoing counts against the plane. */
#include "platform/fp/ebpf/vvlan.bpf.c"

SEC("tc")
int bench_empty(struct __sk_buff *skb)
{
    (void)skb;
    return TC_ACT_UNSPEC;
}

/* One lookup of a key that is there, in the plane's own table of addresses. */
SEC("tc")
int bench_lookup(struct __sk_buff *skb)
{
    __u64 key = VV_SEEN_KEY(0x021122334455ull, 1, FORM_UNTAGGED) + skb->mark;
    struct vv_seen *entry = bpf_map_lookup_elem(&seen, &key);
    return entry ? (int)entry->port : TC_ACT_SHOT;
}

/* A frame that no rule asks to change. */
SEC("tc")
int bench_miss(struct __sk_buff *skb)
{
    return ingress(skb);
}

static __always_inline void undo(struct __sk_buff *skb)
{
    bpf_skb_vlan_pop(skb);
    __u8 *data = (__u8 *)(long)skb->data;
    if (data + TOUCHED_MAX > (__u8 *)(long)skb->data_end)
        return;
    *(__u16 *)(data + PAYLOAD_UNTAGGED) = bpf_htons(0x4500);
    *(__u16 *)(data + PAYLOAD_UNTAGGED + 10) = bpf_htons(0x1234);
}

/* A frame that is tagged and marked. */
SEC("tc")
int bench_hit(struct __sk_buff *skb)
{
    int verdict = ingress(skb);
    undo(skb);
    return verdict;
}

/* Tagging and the undoing alone: about the half of it is the undoing. */
SEC("tc")
int bench_undo(struct __sk_buff *skb)
{
    if (bpf_skb_vlan_push(skb, bpf_htons(TYPE_CTAG), 0xc064) != 0)
        return TC_ACT_SHOT;
    undo(skb);
    return TC_ACT_UNSPEC;
}

/* The same as a hit, with the address looked up and the rules searched each time; to
 * forget what was decided last takes a lookup of its own, which counts too. */
SEC("tc")
int bench_search(struct __sk_buff *skb)
{
    __u64 key = VV_SEEN_KEY(0x021122334455ull, 1, FORM_UNTAGGED);
    struct vv_seen *entry = bpf_map_lookup_elem(&seen, &key);
    if (entry)
        entry->verdict = 0;
    struct vv_cached *cached = cached_for(key);
    if (cached)
        cached->key = 0;
    int verdict = ingress(skb);
    undo(skb);
    return verdict;
}

struct {
    __uint(type, BPF_MAP_TYPE_ARRAY);
    __uint(max_entries, 1);
    __type(key, __u32);
    __type(value, __u32);
} target SEC(".maps");

struct {
    __uint(type, BPF_MAP_TYPE_PERCPU_ARRAY);
    __uint(max_entries, 1);
    __type(key, __u32);
    __type(value, __u64);
} arrived SEC(".maps");

/* Where the frames end. */
SEC("tc")
int bench_sink(struct __sk_buff *skb)
{
    __u32 key = 0;
    __u64 *count = bpf_map_lookup_elem(&arrived, &key);
    (void)skb;
    if (count)
        ++*count;
    return TC_ACT_SHOT;
}

/* Sends each frame on to the interface whose index is in the map. */
static __always_inline int redirect(void)
{
    __u32 key = 0;
    __u32 *ifindex = bpf_map_lookup_elem(&target, &key);
    return ifindex ? bpf_redirect(*ifindex, 0) : TC_ACT_SHOT;
}

SEC("tc")
int bench_redirect(struct __sk_buff *skb)
{
    (void)skb;
    return redirect();
}

SEC("tc")
int bench_plane_redirect(struct __sk_buff *skb)
{
    int verdict = ingress(skb);
    return verdict == TC_ACT_UNSPEC ? redirect() : verdict;
}
