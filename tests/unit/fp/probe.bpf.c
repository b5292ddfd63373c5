/* The plane's programs with a way in and out for tests: the kernel's test run
 * carries tags in the bytes only, so tags are moved into the metadata before
 * the program where the test says so, and told of after it.
 *
 * cb[0]: in: the outer tag goes into the metadata; out: there is a tag in the
 * metadata. cb[1] and cb[2], out: its type and control information. cb[3], in:
 * the frame is cut to so many bytes, since the test run takes no IP packet that
 * is too short for its header. */
#include "platform/fp/ebpf/vvlan.bpf.c"

static __always_inline void tag_into_metadata(struct __sk_buff *skb)
{
    struct header header = {};
    if (!read_header(skb, &header) || !header.tag_in_bytes || header.tag_type == TYPE_STAG_OLDER)
        return;
    if (bpf_skb_vlan_pop(skb) == 0)
        bpf_skb_vlan_push(skb, bpf_htons(header.tag_type), header.tci);
}

static __always_inline void prepare(struct __sk_buff *skb)
{
    if (skb->cb[3])
        bpf_skb_change_tail(skb, skb->cb[3], 0);
    if (skb->cb[0])
        tag_into_metadata(skb);
}

static __always_inline void tell_metadata(struct __sk_buff *skb)
{
    skb->cb[0] = skb->vlan_present;
    skb->cb[1] = bpf_ntohs(skb->vlan_proto);
    skb->cb[2] = skb->vlan_tci;
}

SEC("tc")
int probe_ingress(struct __sk_buff *skb)
{
    prepare(skb);
    int verdict = ingress(skb);
    tell_metadata(skb);
    return verdict;
}

SEC("tc")
int probe_egress(struct __sk_buff *skb)
{
    prepare(skb);
    int verdict = egress(skb);
    tell_metadata(skb);
    return verdict;
}
