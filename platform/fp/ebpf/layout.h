/* What the kernel's half of the eBPF plane and the user's half share: limits,
 * map keys and values. Read by the BPF compiler (C) and by C++, hence plain C.
 *
 * All numbers are in host byte order; a MAC address is a number whose bits 47
 * to 40 are its first byte on the wire. Any change of a size, an offset or a
 * meaning here takes a new VV_LAYOUT: maps outlive the agent, and an agent
 * takes over only what it can read. */
#ifndef VVLAN_FP_EBPF_LAYOUT_H
#define VVLAN_FP_EBPF_LAYOUT_H

#include <linux/types.h>

#define VV_LAYOUT 3
#define VV_MAGIC 0x7676706cu

#define VV_PORTS_MAX 4096       /* ports that are attached, bound or trapped */
#define VV_IFINDEX_PLACES 16384 /* of the table from interface to port; a power of two, four times the ports */
#define VV_IFINDEX_PROBES 8     /* places that one interface may stand in */
#define VV_STATES 16            /* forwarding states kept, one of them in force; a power of two */
#define VV_ACLS 3
#define VV_RANKS 128 /* ranks of rules in an ACL; the last one stands for none */
#define VV_RANK_NONE 127
#define VV_DIGITS 12              /* hexadecimal digits of an address */
#define VV_SEEN_MAX 16384         /* addresses that the plane remembers; one beyond is forwarded but not learned */
#define VV_SEEN_OTHERS_MAX 12288  /* of them, such as no rule names; the rest is kept for voice devices */
#define VV_TURNS 1024             /* of the table of turns; a power of two */
#define VV_SPEAKER_TICKS 300      /* a port's speaker that is silent for so long may be followed by another device */
#define VV_EVENTS_SIZE (1u << 20) /* bytes of the ring of events; a power of two, whole pages */
#define VV_TRAP_BYTES_MAX 2048    /* bytes of a trapped frame that are copied; a power of two */
#define VV_INTERFACE_SIZE 16      /* bytes of an interface's name with the zero behind it */
#define VV_TRAPS_PER_TICK 64      /* frames trapped on one port per tick; the others are only forwarded */

/* The filter that holds a program at an interface's hook. The priority lets
 * others come before it and behind it. */
#define VV_FILTER_PRIORITY 22102
#define VV_FILTER_HANDLE 1

/* Index of an ACL, in the order in which a frame passes them. */
enum vv_acl_index { VV_ACL_MAC_VLAN, VV_ACL_VOICE, VV_ACL_SECURITY };

#define VV_BOUND_MAC_VLAN (1u << VV_ACL_MAC_VLAN)
#define VV_BOUND_VOICE (1u << VV_ACL_VOICE)
#define VV_BOUND_SECURITY (1u << VV_ACL_SECURITY)

enum vv_rule_flag {
    VV_RULE_DROP = 1,
    VV_RULE_COS = 2,
    VV_RULE_DSCP = 4,
    VV_RULE_PRIO = 8,
    VV_RULE_TAG = 16,
};

struct vv_rule {
    __u64 mac;
    __u64 mask;
    __u32 vlan;      /* form in bits 16 and 17 above the VLAN id, */
    __u32 vlan_mask; /* compared under this */
    __u16 tag_vid;
    __u8 id; /* ACE id, 1 to 127 */
    __u8 flags;
    __u8 cos;
    __u8 dscp;
    __u8 prio;
    __u8 unused;
};

/* For each digit of an address and value of that digit the set of the rules of
 * one ACL that agree with it: bit n of word 0 is rank n, bit n of word 1 rank
 * 64 + n. */
struct vv_acl {
    __u64 agreeing[VV_DIGITS][16][2];
    __u64 naming[2]; /* the rules with a MAC mask */
    __u32 count;
    __u32 vlan; /* that the rules are for, 0: none. Of the security ACL: the voice VLAN */
};

/* The rules themselves are in a map of their own, by state, ACL and rank. */
#define VV_RULE_INDEX(state, acl, rank) (((state)*VV_ACLS + (acl)) * VV_RANKS + (rank))
#define VV_RULES_MAX (VV_STATES * VV_ACLS * VV_RANKS)

/* How a port's frames are treated, in one word so that it changes in one store:
 * generation in bits 63 to 32, PVID in 27 to 16, VV_BIND_UPLINK, bound ACLs in
 * 7 to 0. A generation is never used for two treatments of a port; what was
 * worked out under another one is worked out again. */
#define VV_BIND_GENERATION(bind) ((__u32)((bind) >> 32))
#define VV_BIND_PVID(bind) ((__u16)((bind) >> 16))
#define VV_BIND_BOUND(bind) ((__u8)(bind))
#define VV_BIND_UPLINK 0x100u       /* the port leads to the network, not to a device */
#define VV_BIND_OF_PORT 0x0fff0100u /* the bits that do not depend on the ACLs */

struct vv_state {
    struct vv_acl acls[VV_ACLS];
    __u64 bind[VV_PORTS_MAX]; /* by port index */
};

#define VV_PORT_USED 1u
#define VV_PORT_TRAP 2u
#define VV_PORT_MADE_CLSACT 4u /* the interface had no clsact queue discipline before */

/* Entries in use of a part of the addresses, and how many there may be. */
struct vv_share {
    __u32 used;
    __u32 max;
};

/* The speaker of a port is the voice device that decides in which form the port
 * gets what goes to all of its devices. */
struct vv_port {
    __u32 phyid;
    __u32 ifindex; /* 0: no interface is attached */
    __u32 flags;
    __u16 untag_vid; /* VLAN that the speaker uses without tags; 0: it tags */
    __u16 unused;
    __u32 trap_tick; /* tick that trap_count counts in */
    __u32 trap_count;
    __u64 speaker;                     /* its address; 0: there is none yet */
    __u32 speaker_tick;                /* when it was heard last */
    __u32 ifx;                         /* the operator's number of the port; 0: it is not in the configuration */
    struct vv_share others;            /* addresses that no rule named when they were learned */
    struct vv_share voice;             /* addresses that one did */
    char interface[VV_INTERFACE_SIZE]; /* its configured name, with zeros up to the end */
};

/* One value, mapped into the agent. */
struct vv_shared {
    __u32 magic;
    __u32 layout;
    __u64 build;                     /* of the programs that are attached */
    __u32 active;                    /* index of the state in force */
    __u32 tick;                      /* seconds, counted by the agent; stands still without one */
    __u32 generation;                /* the last one that was given out */
    __u32 epoch;                     /* changes with each tick and each address that is to be reported again */
    struct vv_share others;          /* as of a port, of all ports */
    struct vv_share voice;           /* max: of all addresses together */
    __u32 turns[VV_TURNS];           /* by VV_TURN: counts the changes of form of the devices there */
    __u64 places[VV_IFINDEX_PLACES]; /* ifindex in bits 63 to 32, port index in 31 to 0; 0: free */
    struct vv_port ports[VV_PORTS_MAX];
    struct vv_state states[VV_STATES];
};

/* Key of the addresses seen: the address, above it the VLAN that the port puts
 * the frame into before any ACL (12 bits), and the form of its tags (2 bits). */
#define VV_SEEN_KEY(mac, vid, form) ((__u64)(mac) | (__u64)(vid) << 48 | (__u64)(form) << 60)
#define VV_SEEN_VID(key) ((__u16)((key) >> 48 & 0xfff))

/* What the ACLs decide about an address on a port, in one word: generation in
 * bits 63 to 32, port index in 31 to 16, then VV_NAMED and the rank in the
 * MAC-VLAN ACL in 15 to 8, VV_BY_SECURITY and the rank in the voice or the
 * security ACL in 7 to 0. */
#define VV_VERDICT_OWNER(generation, port) ((__u64)(generation) << 32 | (__u64)(port) << 16)
#define VV_NAMED 0x8000u       /* a rule of the voice ACL names the address */
#define VV_BY_SECURITY 0x0080u /* the rank is in the security ACL */
#define VV_FILTERED 0x00ffu    /* instead of these two: dropped, the port is not in the VLAN of the frame's tag */

struct vv_seen {
    __u64 verdict;
    __u32 port;     /* index of the port where it was seen last */
    __u32 tick;     /* when it was reported last */
    __u16 vlan;     /* as reported */
    __u8 reported;  /* 0: not yet, since the ring was full */
    __u8 is_newest; /* of the two forms, with a tag and without, in which the device talks in the VLAN */
    __u32 is_voice; /* counted in the port's share for voice devices */
};

/* A device that changes its form is noticed at once, although each processor
 * keeps answers for both forms: an answer holds only until the device's turn is
 * another one. Devices that share a turn only take the longer way more often. */
#define VV_TURN(mac) ((__u32)(mac) & (VV_TURNS - 1))

#define VV_CACHE_SIZE 1024 /* of each processor; a power of two */

/* What is to be done with a frame. */
union vv_action {
    struct {
        __u16 tag_vid;
        __u8 tag_ace;  /* id of the ACE that tags; 0: none */
        __u8 mark_ace; /* of the one that marks or drops; 0: none */
        __u8 flags;    /* vv_rule_flag, and those below */
        __u8 cos;
        __u8 dscp;
        __u8 prio;
    };
    __u64 word; /* 0: nothing */
};

#define VV_ACTION_NAMED 32u       /* a rule of the voice ACL names the sender */
#define VV_ACTION_BY_SECURITY 64u /* mark_ace is of the security ACL */
#define VV_ACTION_SPEAKS 128u     /* a voice device in the voice VLAN */

/* The last answer for an address, on one processor: spares a frame the lookup of
 * struct vv_seen where nothing has changed since. */
struct vv_cached {
    __u64 key;
    __u64 stamp; /* VV_VERDICT_OWNER with the sum of epoch and turn in bits 15 to 0 */
    union vv_action action;
};

struct vv_cache {
    struct vv_cached entries[VV_CACHE_SIZE];
};

struct vv_port_counters {
    __u64 in;
    __u64 out;
    __u64 trapped;
    __u64 tagged;
    __u64 remarked;
    __u64 dropped;
    __u64 events_lost; /* no room in the ring, or for the address */
};

#define VV_ACE_INDEX(acl, id) ((acl)*VV_RANKS + (id))

enum vv_event_kind { VV_EVENT_SEEN = 1, VV_EVENT_TRAPPED = 2 };

struct vv_event {
    __u32 kind;
    __u32 port; /* index */
    __u64 mac;
    __u16 vlan;     /* of VV_EVENT_SEEN */
    __u16 tag_type; /* of VV_EVENT_TRAPPED: tag that is not among the bytes; 0: none */
    __u16 tag;      /* its control information */
    __u16 size;     /* bytes behind this record */
};

struct vv_trapped {
    struct vv_event event;
    __u8 bytes[VV_TRAP_BYTES_MAX];
};

#ifdef __cplusplus
static_assert(sizeof(vv_rule) == 32);
static_assert(sizeof(vv_acl) == VV_DIGITS * 16 * 16 + 24);
static_assert(sizeof(vv_state) == VV_ACLS * sizeof(vv_acl) + VV_PORTS_MAX * 8ul);
static_assert(sizeof(vv_port) == 72);
static_assert(sizeof(vv_shared) == 48 + VV_TURNS * 4 + VV_IFINDEX_PLACES * 8 + VV_PORTS_MAX * sizeof(vv_port) +
                                       VV_STATES * sizeof(vv_state));
static_assert(sizeof(vv_seen) == 24 && sizeof(vv_event) == 24);
static_assert(sizeof(vv_port_counters) == 56);
#endif

#endif
