/* A frame in the kernel: reading its header and rewriting its tag and DSCP. A VLAN
 * tag stands in the frame's metadata where the kernel or the hardware has taken
 * it out of the bytes, and in the bytes otherwise; the outer one of two may be in
 * the metadata with the inner one in the bytes. */
#ifndef VVLAN_FP_EBPF_FRAME_BPF_H
#define VVLAN_FP_EBPF_FRAME_BPF_H

#include "platform/fp/ebpf/maps.bpf.h"

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
 * last one, two tags without a VLAN, matches as untagged, and becomes
 * double-tagged with a VLAN id. */
#define FORM_UNTAGGED 0
#define FORM_TAGGED 1
#define FORM_DOUBLE_TAGGED 2
#define FORM_PRIORITY_TAG_OUTSIDE 3

struct header {
    __u64 destination;
    __u64 source;
    __u16 type;     /* behind the tags */
    __u16 tci;      /* of the outer tag */
    __u16 tag_type; /* of the outer tag; 0: there is none */
    __u16 vid;      /* of the outer tag that has one; 0: none has */
    __u8 tag_count;
    bool tag_in_bytes;
    __u8 form;
    __u8 payload; /* offset in the bytes */
};

static __always_inline __u64 read_mac(const __u8 *at)
{
    return (__u64)bpf_ntohs(*(const __u16 *)at) << 32 | bpf_ntohl(*(const __u32 *)(at + 2));
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

/* Frames to these are for the next bridge or switch, and no ACL acts on them:
 * 01:80:C2:00:00:00 to 0F (IEEE 802.1Q, table 8-1) and the vendors' discovery
 * addresses 01:00:0C:CC:CC:CC and CD. */
static __always_inline bool is_reserved(__u64 destination)
{
    return (destination & GROUP_BIT) &&
           ((destination & ~0xfull) == 0x0180c2000000ull || (destination & ~1ull) == 0x01000cccccccull);
}

/* Reads what stands behind the outer tag, or in its place. An inner tag counts
 * behind an outer one of VLAN 0, which gives a priority alone. */
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
        if (header->vid == 0) {
            header->vid = bpf_ntohs(*(const __u16 *)(at + TYPE_SIZE)) & 0xfff;
            header->form = header->vid != 0 ? FORM_TAGGED : FORM_PRIORITY_TAG_OUTSIDE;
        } else {
            header->form = FORM_DOUBLE_TAGGED;
        }
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
    header->destination = read_mac(data);
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
    header->vid = header->tci & 0xfff;
    header->form = header->vid != 0 ? FORM_TAGGED : FORM_UNTAGGED;
    return read_inside(skb, header);
}

/* What a treatment takes of the header, in a word and back. */
static __always_inline __u64 pack_header(const struct header *header)
{
    return header->tci | (__u64)header->tag_type << 16 | (__u64)header->type << 32 | (__u64)header->payload << 48 |
           (__u64)header->tag_in_bytes << 56;
}

static __always_inline struct header unpack_header(__u64 word)
{
    return (struct header){.tci = word,
                           .tag_type = word >> 16,
                           .type = word >> 32,
                           .payload = word >> 48,
                           .tag_in_bytes = (word >> 56) & 1};
}

/* ---- Rewriting ----------------------------------------------------------- */

static __always_inline __u8 *packet_of(struct __sk_buff *skb, __u32 payload)
{
    __u8 *data = (__u8 *)(long)skb->data;
    if (payload == PAYLOAD_UNTAGGED)
        return moved_by(data, PAYLOAD_UNTAGGED);
    return payload == PAYLOAD_TAGGED ? moved_by(data, PAYLOAD_TAGGED) : moved_by(data, PAYLOAD_DOUBLE_TAGGED);
}

/* The checksum is updated from the one word that changes (RFC 1624, equation
 * 3), so that one that was wrong on arrival leaves wrong. */
static __always_inline bool set_ipv4_dscp(struct __sk_buff *skb, __u32 payload, __u8 dscp)
{
    __u8 *packet = packet_of(skb, payload);

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
static __always_inline bool set_ipv6_dscp(struct __sk_buff *skb, __u32 payload, __u8 dscp)
{
    __u8 *packet = packet_of(skb, payload);

    if (skb->len < payload + IPV6_HEADER || packet + 2 > (__u8 *)(long)skb->data_end || packet[0] >> 4 != 6)
        return false;
    __u16 before = bpf_ntohs(*(__u16 *)packet);
    __u16 after = bpf_htons((before & 0xf03f) | dscp << 6);
    if (after != bpf_htons(before))
        bpf_skb_store_bytes(skb, payload, &after, sizeof after, BPF_F_RECOMPUTE_CSUM);
    return true;
}

/* payload: as of struct header, type: behind the tags. Returns whether there is an
 * IP header that has the DSCP. */
__noinline int vvlan_set_dscp(struct __sk_buff *skb, __u32 payload, __u32 type, __u32 dscp)
{
    if (type == TYPE_IPV4)
        return set_ipv4_dscp(skb, payload, dscp);
    return type == TYPE_IPV6 && set_ipv6_dscp(skb, payload, dscp);
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

#endif
