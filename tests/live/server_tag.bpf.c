/* The call server's VLAN adapter, and what the checker counts.
 *
 * The server's uplink carries the voice VLAN with tags and data without. Where
 * the kernel has no VLAN devices, this stands in for one: a tagged frame loses
 * its tag and comes out of the interface "voice", and what is sent there leaves
 * by the uplink with the tag. Every frame is counted before anything is done to
 * it, so a tag that the counters show was on the wire.
 *
 * Addresses and interface indices come from tests/live/network.sh as macros. */
#include <linux/bpf.h>
#include <linux/if_ether.h>
#include <linux/ip.h>
#include <linux/pkt_cls.h>
#include <linux/udp.h>

#include <bpf/bpf_endian.h>
#include <bpf/bpf_helpers.h>

#define VOICE_TCI (VOICE_PRIORITY << 13 | VOICE_VLAN)
#define VID_MASK 0xfff
#define IPV4_WORDS 10 /* of a header without options; others count as damaged */
#define IPPROTO_OF_UDP 17
#define SIP_PORT 5060
#define RTP_VERSION 2
#define RTP_PCMA 8

/* The scripts ask for these by name. Counters of one kind stand together, in the
 * order of the enumeration. */
enum treatment { PLAIN, VOICE, MISMARKED, OTHER };
enum receipt { SENT, GOT_UNTAGGED, GOT_TAGGED, GOT_RTP };

struct counts {
    /* At the telephone's and the PC's own interface. */
    __u64 phone_sent, phone_got_untagged, phone_got_tagged, phone_got_rtp;
    __u64 pc_sent, pc_got_untagged, pc_got_tagged, pc_got_rtp;
    /* At the far end of the uplink, each frame in one of them. plain: no tag and
     * no DSCP. voice: VLAN, priority and DSCP as they should be. mismarked: in
     * the voice VLAN, but with another priority or DSCP or a damaged header. */
    __u64 from_phone_plain, from_phone_voice, from_phone_mismarked, from_phone_other;
    __u64 from_pc_plain, from_pc_voice, from_pc_mismarked, from_pc_other;
    __u64 from_others;
    /* Among those of the telephone. */
    __u64 from_phone_arp, from_phone_rtp;
};

struct counts counts;

#define count(name) __sync_fetch_and_add(&counts.name, 1)
#define count_kind(first, kind) __sync_fetch_and_add(&counts.first + (kind), 1)

struct frame {
    __u64 source;
    __u16 type;
    __u8 dscp;
    __u8 is_damaged;
    __u8 is_rtp;
};

static __always_inline __u64 read_mac(const __u8 *at)
{
    return (__u64)at[0] << 40 | (__u64)at[1] << 32 | (__u64)at[2] << 24 | at[3] << 16 | at[4] << 8 | at[5];
}

/* Whether an IPv4 header's sum is right. */
static __always_inline int sums_up(const struct iphdr *header)
{
    const __u16 *words = (const __u16 *)header;
    __u32 sum = 0;

    for (int i = 0; i < IPV4_WORDS; i++)
        sum += words[i];
    sum = (sum & 0xffff) + (sum >> 16);
    sum = (sum & 0xffff) + (sum >> 16);
    return sum == 0xffff;
}

static __always_inline void read_ipv4(const __u8 *at, const __u8 *end, struct frame *frame)
{
    const struct iphdr *ip = (const struct iphdr *)at;
    const struct udphdr *udp = (const struct udphdr *)(ip + 1);
    const __u8 *payload = (const __u8 *)(udp + 1);

    frame->is_damaged = 1;
    if ((const __u8 *)(ip + 1) > end || ip->version != 4 || ip->ihl != 5)
        return;
    frame->is_damaged = !sums_up(ip);
    frame->dscp = ip->tos >> 2;
    if (ip->protocol != IPPROTO_OF_UDP || payload + 2 > end || udp->dest == bpf_htons(SIP_PORT))
        return;
    frame->is_rtp = payload[0] >> 6 == RTP_VERSION && (payload[1] & 0x7f) == RTP_PCMA;
}

/* Returns 0 where the frame ends within its header. */
static __always_inline int read_frame(struct __sk_buff *skb, struct frame *frame)
{
    __u32 wanted = ETH_HLEN + sizeof(struct iphdr) + sizeof(struct udphdr) + 2;

    bpf_skb_pull_data(skb, skb->len < wanted ? skb->len : wanted);
    const __u8 *data = (const __u8 *)(long)skb->data, *end = (const __u8 *)(long)skb->data_end;
    if (data + ETH_HLEN > end)
        return 0;
    frame->source = read_mac(data + ETH_ALEN);
    frame->type = bpf_ntohs(*(const __u16 *)(data + 2 * ETH_ALEN));
    if (frame->type == ETH_P_IP)
        read_ipv4(data + ETH_HLEN, end, frame);
    return 1;
}

static __always_inline enum treatment treatment_of(const struct __sk_buff *skb, const struct frame *frame)
{
    if (!skb->vlan_present)
        return frame->dscp == 0 && !frame->is_damaged ? PLAIN : OTHER;
    if ((skb->vlan_tci & VID_MASK) != VOICE_VLAN || skb->vlan_proto != bpf_htons(ETH_P_8021Q))
        return OTHER;
    if (skb->vlan_tci != VOICE_TCI || frame->is_damaged)
        return MISMARKED;
    /* Only IP has a DSCP; the namespaces have no IPv6. */
    return frame->type != ETH_P_IP || frame->dscp == VOICE_DSCP ? VOICE : MISMARKED;
}

SEC("tc")
int uplink_in(struct __sk_buff *skb)
{
    struct frame frame = {};

    if (!read_frame(skb, &frame))
        return TC_ACT_SHOT;
    if (frame.source == PHONE_MAC) {
        count_kind(from_phone_plain, treatment_of(skb, &frame));
        if (frame.type == ETH_P_ARP)
            count(from_phone_arp);
        if (frame.is_rtp)
            count(from_phone_rtp);
    } else if (frame.source == PC_MAC) {
        count_kind(from_pc_plain, treatment_of(skb, &frame));
    } else {
        count(from_others);
    }

    if (!skb->vlan_present || (skb->vlan_tci & VID_MASK) != VOICE_VLAN)
        return TC_ACT_OK;
    return bpf_skb_vlan_pop(skb) == 0 ? bpf_redirect(VOICE_PEER_IFINDEX, 0) : TC_ACT_SHOT;
}

/* At the peer of "voice". */
SEC("tc")
int voice_out(struct __sk_buff *skb)
{
    if (bpf_skb_vlan_push(skb, bpf_htons(ETH_P_8021Q), VOICE_TCI) != 0)
        return TC_ACT_SHOT;
    return bpf_redirect(UPLINK_IFINDEX, 0);
}

/* A device's own interface. */
#define DEVICE(device)                                                                                                 \
    SEC("tc")                                                                                                          \
    int device##_in(struct __sk_buff *skb)                                                                             \
    {                                                                                                                  \
        struct frame frame = {};                                                                                       \
                                                                                                                       \
        count_kind(device##_sent, skb->vlan_present ? GOT_TAGGED : GOT_UNTAGGED);                                      \
        if (read_frame(skb, &frame) && frame.is_rtp)                                                                   \
            count_kind(device##_sent, GOT_RTP);                                                                        \
        return TC_ACT_OK;                                                                                              \
    }                                                                                                                  \
    SEC("tc")                                                                                                          \
    int device##_out(struct __sk_buff *skb)                                                                            \
    {                                                                                                                  \
        count_kind(device##_sent, SENT);                                                                               \
        return TC_ACT_OK;                                                                                              \
    }

DEVICE(phone)
DEVICE(pc)

char license_text[] SEC("license") = "Dual MIT/GPL";
