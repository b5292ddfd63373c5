/* Circular doubly linked lists, anchored in a head that points to itself when
 * it is empty. Nodes live inside the records that they link.
 */
#ifndef UDP_VVLAN_LIST_H
#define UDP_VVLAN_LIST_H

#include <stddef.h>

typedef struct vvlan_list {
    struct vvlan_list *next;
    struct vvlan_list *prev;
} vvlan_list_t;

/* The record that holds this node as its member. */
#define VVLAN_LIST_ENTRY(node, type, member)                                                                           \
    reinterpret_cast<type *>(reinterpret_cast<char *>(node) - offsetof(type, member))

static inline void udp_vvlan_list_init(vvlan_list_t *head)
{
    head->next = head;
    head->prev = head;
}

static inline bool udp_vvlan_list_empty(const vvlan_list_t *head)
{
    return head->next == head;
}

static inline void udp_vvlan_list_append(vvlan_list_t *head, vvlan_list_t *node)
{
    node->next = head;
    node->prev = head->prev;
    head->prev->next = node;
    head->prev = node;
}

/* Leaves the node's own links null: using an unlinked node faults at once. */
static inline void udp_vvlan_list_unlink(vvlan_list_t *node)
{
    node->prev->next = node->next; // NOLINT(clang-analyzer-core.NullDereference): linked nodes have neighbours
    node->next->prev = node->prev;
    node->next = nullptr;
    node->prev = nullptr;
}

#endif
