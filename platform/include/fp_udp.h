/* Forwarding-plane ACL library: ACLs, their entries (ACEs) and their bindings
 * to ports, through the operation table of one manager.
 *
 * The results of the operations tell only whether the request was accepted (0),
 * or refused (negative) because it is malformed, exceeds a limit or names an
 * ACL that does not exist; a refused request changes nothing. What is requested
 * in one callback of the event loop acts together, with the end of that
 * callback. Where the plane refuses it, all of it is undone, deletions too, and
 * every set request of it is reported as failed. Outcomes are reported through
 * the registered callbacks, from the event loop, never from inside the call
 * that caused them. An ACL's ACEs and bindings go when the ACL is deleted.
 *
 * Order for a frame that enters a bound port: "mac_vlan_app" first (may add
 * the voice tag), then on the resulting VLAN "vvlan_secu_pas_app", and only
 * where that did not match "vvlan_secu_deny_app".
 *
 * Reconciliation: from the first expire call to the del_expired call that
 * answers the last open one, the plane keeps forwarding by the state it had;
 * then the new state takes over at once, or is undone as a whole where the plane
 * refuses it (that del_expired call then returns the plane's code). After
 * FP_UDP_RECONCILE_LIMIT_MS it takes over anyway. Where nothing was installed,
 * there is no state to keep: changes act with the end of each callback.
 */
#ifndef FP_UDP_H
#define FP_UDP_H

#include <stdint.h>

#ifdef __cplusplus
extern "C" {
#endif

#define FP_UDP_APP_TYPE_SIZE 32u  /* bytes of an app type, NUL-padded */
#define FP_UDP_APP_VVLAN 8u       /* application id of the voice VLAN */
#define FP_UDP_ACL_KIND_VVLAN 4u  /* vvlan_acl_desc_t::acl_kind of its ACLs */
#define FP_UDP_FIELD_SIZE 268u    /* bytes of a field record */
#define FP_UDP_ACE_COUNT_MAX 127u /* ACEs of one ACL */
#define FP_UDP_RECONCILE_LIMIT_MS 10000u

/* Field kinds. Multi-byte field values are little-endian. */
#define FP_UDP_FIELD_MATCH 1u
#define FP_UDP_FIELD_ACTION 2u

/* ACL descriptor. Little-endian on the wire between module and plane. */
typedef struct vvlan_acl_desc {
    char app_type[FP_UDP_APP_TYPE_SIZE]; /* NUL-padded */
    uint32_t acl_id;
    uint8_t acl_kind;
    uint8_t reserved[35]; /* zero */
} vvlan_acl_desc_t;

/* Names one port for a binding. */
typedef struct vvlan_apply {
    char app_type[FP_UDP_APP_TYPE_SIZE]; /* the ACL's app type, NUL-padded */
    uint32_t phyid;                      /* physical port id */
    uint32_t apply_opt;                  /* 1: the ACL acts before the VLAN is decided; 0: after */
    uint32_t reserved;                   /* zero */
} vvlan_apply_t;

/* A field of an ACE, made by field_make; opaque to the module. */
typedef struct fp_udp_field {
    uint8_t opaque[FP_UDP_FIELD_SIZE];
} fp_udp_field_t;

typedef struct fp_udp_fields fp_udp_fields_t;

typedef struct fp_udp_fields_ops {
    /* Makes a field record. name: NUL-terminated, copied; value: length bytes, copied. */
    fp_udp_field_t (*field_make)(const char *name, uint32_t kind, const void *value, uint32_t length);
    /* Appends the record to an ACE's field list. */
    void (*field_add)(fp_udp_fields_t *fields, fp_udp_field_t record);
} fp_udp_fields_ops_t;

struct fp_udp_fields {
    const fp_udp_fields_ops_t *ops;
};

/* Head of the ACE object; the library keeps more behind it. */
typedef struct fp_udp_ace {
    uint64_t id;
    fp_udp_fields_t *fields; /* lives as long as the ACE object */
} fp_udp_ace_t;

typedef struct fp_udp_apply fp_udp_apply_t; /* opaque apply object */

/* The manager's operations, by position. handle and ctx are the global
 * context; app types are NUL-terminated. Descriptors, records and objects are
 * read during the call only. */
typedef struct fp_udp_mgr_ops {
    /*  0: creates the ACL, or keeps the one of the same app type and id; clears its mark */
    int (*acl_set)(void *handle, const vvlan_acl_desc_t *desc);
    /*  1: deletes the ACL with its ACEs and bindings; an absent one is no error */
    int (*acl_del)(void *handle, const vvlan_acl_desc_t *desc);
    /*  2: marks every ACL of the app type */
    int (*acl_expire)(void *ctx, const char *app_type);
    /*  3: deletes every ACL of the app type that is still marked */
    int (*acl_del_expired)(void *ctx, const char *app_type);
    void *slot4;
    void *slot5;
    /*  6: installs the ACE, replacing one of the same id; clears its mark */
    int (*ace_set)(void *handle, const vvlan_acl_desc_t *desc, fp_udp_ace_t *ace);
    /*  7: removes the ACE; an absent one is no error */
    int (*ace_del)(void *handle, const vvlan_acl_desc_t *desc, uint64_t ace_id);
    /*  8, 9: as 2 and 3, for ACEs */
    int (*ace_expire)(void *ctx, const char *app_type);
    int (*ace_del_expired)(void *ctx, const char *app_type);
    /* 10: a new, empty ACE object with this id (1 and up), or null; zero: always 0 */
    fp_udp_ace_t *(*ace_alloc)(uint64_t ace_id, uint32_t zero);
    /* 11: releases an object of 10; null is allowed */
    void (*ace_free)(fp_udp_ace_t *ace);
    void *slot12;
    void *slot13;
    /* 14: binds the ACL to the port of the apply object; clears the binding's mark */
    int (*apply_set)(void *handle, const vvlan_acl_desc_t *desc, uint8_t acl_kind, fp_udp_apply_t *apply);
    /* 15: unbinds it from the port of the record; an absent binding is no error */
    int (*apply_del)(void *handle, const vvlan_acl_desc_t *desc, const vvlan_apply_t *record);
    /* 16, 17: as 2 and 3, for bindings */
    int (*apply_expire)(void *ctx, const char *app_type);
    int (*apply_del_expired)(void *ctx, const char *app_type);
    /* 18: a new apply object for the record's port, or null */
    fp_udp_apply_t *(*apply_alloc)(const vvlan_apply_t *record);
    /* 19: releases an object of 18; null is allowed */
    void (*apply_free)(fp_udp_apply_t *apply);
} fp_udp_mgr_ops_t;

typedef struct fp_udp_mgr {
    const fp_udp_mgr_ops_t *ops;
} fp_udp_mgr_t;

/* Outcome callbacks, in this order. The first argument is to be ignored; the
 * descriptor lives until the callback returns. err is negative. */
typedef struct fp_udp_acl_cb_tbl {
    void (*acl_success)(void *, const vvlan_acl_desc_t *);
    void (*acl_failed)(void *, const vvlan_acl_desc_t *, int err);
    void (*ace_success)(void *, const vvlan_acl_desc_t *, uint64_t ace_id);
    void (*ace_failed)(void *, const vvlan_acl_desc_t *, uint64_t ace_id, int err);
    void (*apply_success)(void *, const vvlan_acl_desc_t *);
    void (*apply_failed)(void *, const vvlan_acl_desc_t *, void *, int err);
} fp_udp_acl_cb_tbl_t;

/* Registers the outcome callbacks of an application; the table must live until
 * the module is unloaded. Registering again replaces it. 0 on success. */
int fp_udp_register_acl_handler(void *ctx, uint32_t app, const fp_udp_acl_cb_tbl_t *callbacks);

/* Registers the application for congestion handling under its name. 0 on success. */
int fp_udp_cgst_register(void *ctx, uint32_t app, const char *name);

/* The manager, owned by the library, or null where the plane is not up. */
fp_udp_mgr_t *fp_udp_get_mgr(void);

#ifdef __cplusplus
}
#endif
#endif
