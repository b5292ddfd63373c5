/* Takes in what leaves the switch, and counts how each kind of sender's frames
 * were treated: all of them, not a sample. Nothing is expected here; the drill
 * judges the counts. */
#include <linux/bpf.h>
#include <linux/pkt_cls.h>

#include <bpf/bpf_endian.h>
#include <bpf/bpf_helpers.h>

#include "tests/live/checker.h"

struct {
    __uint(type, BPF_MAP_TYPE_PERCPU_HASH);
    __uint(max_entries, CHECKER_TREATMENTS_MAX);
    __type(key, struct checker_treatment);
    __type(value, __u64);
} treatments SEC(".maps");

SEC("tc")
int checker(struct __sk_buff *skb)
{
    struct checker_treatment treatment = {};
    __u8 *data = (__u8 *)(long)skb->data;
    const __u64 one = 1;

    /* The kernel has taken the outer tag out of the bytes. */
    if (data + 16 > (__u8 *)(long)skb->data_end || data[CHECKER_MARK_OFFSET] != CHECKER_MARK)
        return TC_ACT_OK;
    treatment.sender = data[CHECKER_SENDER_OFFSET];
    if (skb->vlan_present) {
        treatment.vid = skb->vlan_tci & 0xfff;
        treatment.priority = skb->vlan_tci >> 13;
    }
    treatment.dscp = data[15] >> 2;
    __u64 *count = bpf_map_lookup_elem(&treatments, &treatment);
    if (count)
        ++*count;
    else
        bpf_map_update_elem(&treatments, &treatment, &one, BPF_ANY);
    return TC_ACT_SHOT;
}

char license_text[] SEC("license") = "Dual MIT/GPL";
