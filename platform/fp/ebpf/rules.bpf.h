/* Which rules act on a frame. The search is the software classifier's: sets of
 * rules by the digits of an address, intersected. */
#ifndef VVLAN_FP_EBPF_RULES_BPF_H
#define VVLAN_FP_EBPF_RULES_BPF_H

#include "platform/fp/ebpf/frame.bpf.h"

struct rank_set {
    __u64 low;
    __u64 high;
};

/* The number of the lowest bit set in a word that is not 0, by counting the bits
 * below it; the compiler has no code for its own builtin on this machine. */
static __always_inline __u32 lowest_bit(__u64 word)
{
    __u64 below = (word & -word) - 1;
    below -= (below >> 1) & 0x5555555555555555ull;
    below = (below & 0x3333333333333333ull) + ((below >> 2) & 0x3333333333333333ull);
    below = (below + (below >> 4)) & 0x0f0f0f0f0f0f0f0full;
    return below * 0x0101010101010101ull >> 56;
}

static __always_inline struct rank_set ranks_for(const struct vv_acl *acl, __u64 mac)
{
    struct rank_set set = {~0ull, ~0ull};
#pragma unroll
    for (int digit = 0; digit < VV_DIGITS; digit++) {
        __u64 value = (mac >> (44 - 4 * digit)) & 15;
        const __u64 *agreeing = (const __u64 *)moved_by_bytes(acl->agreeing[digit], value * sizeof acl->agreeing[0][0]);
        set.low &= agreeing[0];
        set.high &= agreeing[1];
    }
    return set;
}

/* A lookup rather than an array in the globals: what the verifier lets a program
 * reach in two steps takes another capability to load. */
static __always_inline const struct vv_rule *rule_at(__u32 state, __u32 acl, __u32 rank)
{
    return value_at(&rules, VV_RULE_INDEX(state, acl, rank));
}

struct search {
    __u64 left;       /* ranks to be looked at, one word of a set */
    __u32 first_rank; /* of the word */
    __u32 first_rule; /* index of the ACL's rule of rank 0 */
    __u32 vlan;
    __u32 rank; /* found */
};

/* Looks at the best rank that is left. Returns 1 to end the search. */
static long look_at_one(__u32 turn, void *context)
{
    struct search *search = context;
    __u64 left = search->left;
    (void)turn;
    if (left == 0)
        return 1;
    __u32 rank = search->first_rank + lowest_bit(left);
    const struct vv_rule *rule = value_at(&rules, search->first_rule + rank);
    search->left = left & (left - 1);
    if (!rule || ((rule->vlan ^ search->vlan) & rule->vlan_mask) != 0)
        return 0;
    search->rank = rank;
    return 1;
}

/* The rank of the rule that acts, or VV_RANK_NONE. vlan: as in struct vv_rule.
 * Not static, and numbers instead of pointers, so that the verifier goes through
 * it once rather than once per call. */
__noinline __u32 vvlan_find_rank(__u32 state, __u32 index, __u64 mac, __u32 vlan)
{
    const struct vv_acl *acl =
        (const struct vv_acl *)moved_by_bytes(state_at(state)->acls, within(index, 3) * sizeof(struct vv_acl));
    if (index >= VV_ACLS || acl->count == 0)
        return VV_RANK_NONE;
    struct rank_set set = ranks_for(acl, mac);
    struct search search = {
        .left = set.low, .first_rule = VV_RULE_INDEX(state, index, 0), .vlan = vlan, .rank = VV_RANK_NONE};
    if (set.low)
        bpf_loop(VV_RANKS, look_at_one, &search, 0);
    if (search.rank == VV_RANK_NONE && set.high) {
        search.left = set.high;
        search.first_rank = 64;
        bpf_loop(VV_RANKS, look_at_one, &search, 0);
    }
    return search.rank;
}

/* Whether a rule of the voice ACL names the address. Apart from the search,
 * which a process with few capabilities could not load otherwise. */
__noinline int vvlan_names(__u32 state, __u64 mac)
{
    const struct vv_acl *acl = &state_at(state)->acls[VV_ACL_VOICE];
    struct rank_set set = ranks_for(acl, mac);
    return ((set.low & acl->naming[0]) | (set.high & acl->naming[1])) != 0;
}

static __always_inline __u32 vlan_word(__u32 vid, __u32 form)
{
    return form << 16 | vid;
}

/* Whether the frame's tag names the voice VLAN and the port is not in it. As
 * Plane says, the voice VLAN is the one that the security ACL is for. */
static __always_inline bool is_filtered(__u32 state, __u64 bind, __u32 vid)
{
    const struct vv_acl *acl = &state_at(state)->acls[VV_ACL_SECURITY];
    return vid != 0 && vid == acl->vlan && vid != VV_BIND_PVID(bind) && !(bind & VV_BIND_UPLINK) &&
           !(VV_BIND_BOUND(bind) & (VV_BOUND_MAC_VLAN | VV_BOUND_VOICE));
}

/* Works out the low half of a verdict: the order of the ACLs. The MAC-VLAN ACL
 * sees the frame as it came in and decides the VLAN, unless a tag has; the
 * others see the VLAN that results from it. */
__noinline __u32 vvlan_judge(__u32 state, __u64 mac, __u64 bind, __u32 vid, __u32 form)
{
    __u32 bound = VV_BIND_BOUND(bind), vlan = vid, tag_rank = VV_RANK_NONE, rank = VV_RANK_NONE, flags = 0;

    if (vvlan_names(state, mac))
        flags |= VV_NAMED;
    if (is_filtered(state, bind, vid))
        return flags | VV_FILTERED | VV_RANK_NONE << 8;
    if (vid == 0) {
        __u32 resulting_form = form == FORM_PRIORITY_TAG_OUTSIDE ? FORM_DOUBLE_TAGGED : FORM_TAGGED;
        vlan = VV_BIND_PVID(bind);
        form = FORM_UNTAGGED;
        if (bound & VV_BOUND_MAC_VLAN)
            tag_rank = vvlan_find_rank(state, VV_ACL_MAC_VLAN, mac, vlan_word(0, form)) & (VV_RANKS - 1);
        const struct vv_rule *rule = tag_rank != VV_RANK_NONE ? rule_at(state, VV_ACL_MAC_VLAN, tag_rank) : 0;
        if (rule && (rule->flags & VV_RULE_TAG)) {
            vlan = rule->tag_vid;
            form = resulting_form;
        } else {
            tag_rank = VV_RANK_NONE;
        }
    }
    /* A voice device is never judged by the security ACL. */
    if (bound & VV_BOUND_VOICE)
        rank = vvlan_find_rank(state, VV_ACL_VOICE, mac, vlan_word(vlan, form)) & (VV_RANKS - 1);
    if (rank == VV_RANK_NONE && (bound & VV_BOUND_SECURITY)) {
        rank = vvlan_find_rank(state, VV_ACL_SECURITY, mac, vlan_word(vlan, form)) & (VV_RANKS - 1);
        if (rank != VV_RANK_NONE)
            flags |= VV_BY_SECURITY;
    }
    return flags | tag_rank << 8 | rank;
}

#endif
