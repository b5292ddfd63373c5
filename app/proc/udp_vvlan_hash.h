/* Keyed hash table: the ports, the learned MACs and the recovery entries.
 *
 * Open addressing over record pointers with two flag bits per bucket and
 * triangular probing. Records carry their own key and never move, so callers
 * keep pointers to them across inserts. Behind the flags lies a tag byte per
 * bucket with some bits of the hash. A look-up compares the tags first: records
 * are seldom in the cache, so it reads only one that probably has the key.
 * A Traits type describes the key:
 *
 *   using record = ...;                                  the record type
 *   static uint32_t hash(const record *);                over the key bytes
 *   static bool equal(const record *, const record *);   of two keys
 *   static void update(record *, const record *tmpl);    create on a present key
 *
 * The functions below are the one implementation; each instance wraps them in
 * exported functions with its own name.
 */
#ifndef UDP_VVLAN_HASH_H
#define UDP_VVLAN_HASH_H

#include "udp_vvlan_base.h"

#include <stdint.h>
#include <stdlib.h>
#include <string.h>

typedef struct vvlan_hash {
    uint32_t n_buckets;   /* 0 before the first insert, then a power of two, at least 4 */
    uint32_t size;        /* live records */
    uint32_t n_occupied;  /* live records and deleted marks */
    uint32_t upper_bound; /* the insert that finds n_occupied here rehashes first */
    uint32_t *flags;      /* two bits a bucket, 16 buckets a word: 2 empty, 1 deleted, 0 live; the tags behind them */
    void **keys;          /* record pointers, meaningful in live buckets */
} vvlan_hash_t;

constexpr uint32_t VVLAN_HASH_EMPTY = 2;
constexpr uint32_t VVLAN_HASH_DELETED = 1;
constexpr uint32_t VVLAN_HASH_BUCKETS_MIN = 4;
constexpr double VVLAN_HASH_LOAD_MAX = 0.77;

/* Bob Jenkins' lookup2 for a key of up to 8 bytes, initial value 0: low holds
 * key bytes 0 to 3 and high bytes 4 to 7, least significant first. */
static inline uint32_t udp_vvlan_hash_lookup2(uint32_t low, uint32_t high, uint32_t length)
{
    constexpr uint32_t golden_ratio = 0x9e3779b9;
    uint32_t a = golden_ratio + low;
    uint32_t b = golden_ratio + high;
    uint32_t c = length;
    a = (a - b - c) ^ (c >> 13);
    b = (b - c - a) ^ (a << 8);
    c = (c - a - b) ^ (b >> 13);
    a = (a - b - c) ^ (c >> 12);
    b = (b - c - a) ^ (a << 16);
    c = (c - a - b) ^ (b >> 5);
    a = (a - b - c) ^ (c >> 3);
    b = (b - c - a) ^ (a << 10);
    c = (c - a - b) ^ (b >> 15);
    return c;
}

static inline uint32_t udp_vvlan_hash_flag(const uint32_t *flags, uint32_t bucket)
{
    return flags[bucket / 16] >> (2 * (bucket % 16)) & 3u;
}

static inline void udp_vvlan_hash_set_flag(uint32_t *flags, uint32_t bucket, uint32_t flag)
{
    const uint32_t shift = 2 * (bucket % 16);
    flags[bucket / 16] = (flags[bucket / 16] & ~(3u << shift)) | flag << shift;
}

/* Words of the flags of this many buckets. */
static inline uint32_t udp_vvlan_hash_flag_words(uint32_t n_buckets)
{
    return n_buckets < 16 ? 1 : n_buckets / 16;
}

/* The tags: 0 where the bucket is not live, otherwise bits of the hash that do
 * not choose the bucket, and never 0. */
static inline uint8_t *udp_vvlan_hash_tags(uint32_t *flags, uint32_t n_buckets)
{
    return reinterpret_cast<uint8_t *>(flags + udp_vvlan_hash_flag_words(n_buckets));
}

static inline uint8_t udp_vvlan_hash_tag(uint32_t hash)
{
    return static_cast<uint8_t>(hash >> 25 | 0x80);
}

/* Most occupied buckets that a table of this size may have. */
static inline uint32_t udp_vvlan_hash_bound(uint32_t n_buckets)
{
    return static_cast<uint32_t>(n_buckets * VVLAN_HASH_LOAD_MAX + 0.5);
}

/* An empty table, or null when memory is exhausted. */
static inline vvlan_hash_t *udp_vvlan_hash_create(void)
{
    return static_cast<vvlan_hash_t *>(calloc(1, sizeof(vvlan_hash_t)));
}

template <typename Traits> struct vvlan_hash_ops {
    using record = typename Traits::record;
    using walk_callback = int (*)(record *, void *);

    /* The bucket of the key, or n_buckets when it is absent. */
    static uint32_t locate(const vvlan_hash_t *table, const record *key)
    {
        const uint32_t hash = Traits::hash(key);
        const uint8_t *tags = udp_vvlan_hash_tags(table->flags, table->n_buckets);
        const uint8_t tag = udp_vvlan_hash_tag(hash);
        const uint32_t mask = table->n_buckets - 1;
        const uint32_t home = hash & mask;
        uint32_t bucket = home;
        uint32_t step = 0;
        do {
            if (tags[bucket] == tag) {
                if (Traits::equal(static_cast<const record *>(table->keys[bucket]), key)) {
                    return bucket;
                }
            } else if (tags[bucket] == 0 && udp_vvlan_hash_flag(table->flags, bucket) == VVLAN_HASH_EMPTY) {
                break;
            }
            bucket = (bucket + ++step) & mask;
        } while (bucket != home);
        return table->n_buckets;
    }

    static record *find(const vvlan_hash_t *table, const record *key)
    {
        if (table == nullptr || key == nullptr || table->n_buckets == 0) {
            return nullptr;
        }
        const uint32_t bucket = locate(table, key);
        return bucket < table->n_buckets ? static_cast<record *>(table->keys[bucket]) : nullptr;
    }

    /* Stores the pointer unless the key is present. False when memory ran out. */
    static bool insert(vvlan_hash_t *table, record *item)
    {
        if (table == nullptr) {
            return false;
        }
        if (table->n_occupied >= table->upper_bound) {
            /* Many deleted marks: clear them at the same size; otherwise grow. */
            const bool same_size = table->n_buckets > 2 * table->size;
            if (!rehash(table, same_size ? table->n_buckets - 1 : table->n_buckets + 1)) {
                return false;
            }
        }
        const uint32_t bucket = insert_target(table, item);
        if (bucket == table->n_buckets) {
            return false;
        }
        const uint32_t flag = udp_vvlan_hash_flag(table->flags, bucket);
        if (flag != 0) {
            table->keys[bucket] = item;
            mark_live(table->flags, table->n_buckets, bucket, Traits::hash(item));
            table->size++;
            table->n_occupied += (flag & VVLAN_HASH_EMPTY) != 0;
        }
        return true;
    }

    static void remove(vvlan_hash_t *table, const record *key)
    {
        if (table == nullptr || key == nullptr || table->n_buckets == 0) {
            return;
        }
        const uint32_t bucket = locate(table, key);
        if (bucket < table->n_buckets) {
            udp_vvlan_hash_set_flag(table->flags, bucket, VVLAN_HASH_DELETED);
            udp_vvlan_hash_tags(table->flags, table->n_buckets)[bucket] = 0;
            table->size--;
        }
    }

    /* Walks buckets start to start + count - 1. The callback may remove records,
     * the one that it got included, and may replace or release the whole table:
     * each step reads the caller's pointer, which is why it is a reference, and
     * the table again. */
    static int traverse(vvlan_hash_t *const &table, walk_callback callback, uint32_t start, uint32_t count, void *arg)
    {
        for (uint32_t bucket = start; table != nullptr && bucket < table->n_buckets && bucket - start < count;
             bucket++) {
            if (udp_vvlan_hash_flag(table->flags, bucket) == 0) {
                const int rv = callback(static_cast<record *>(table->keys[bucket]), arg);
                if (rv != 0) {
                    return rv;
                }
            }
        }
        return 0;
    }

    static uint32_t size(const vvlan_hash_t *table) { return table != nullptr ? table->size : 0; }

    /* The record of the template's key, made from the template when there is
     * none. Null, with nothing kept, when memory is exhausted. */
    static record *create(vvlan_hash_t *table, const record *tmpl)
    {
        record *item = find(table, tmpl);
        if (item != nullptr) {
            Traits::update(item, tmpl);
            return item;
        }
        item = static_cast<record *>(malloc(sizeof *item));
        if (item == nullptr) {
            return nullptr;
        }
        memcpy(item, tmpl, sizeof *item);
        if (!insert(table, item)) {
            free(item);
            return nullptr;
        }
        return item;
    }

    static void destroy(vvlan_hash_t *table, record *item)
    {
        remove(table, item);
        free(item);
    }

    /* Frees the table with its records. */
    static void release(vvlan_hash_t *table)
    {
        if (table == nullptr) {
            return;
        }
        traverse(
            table,
            [](record *item, void *) {
                free(item);
                return 0;
            },
            0, UINT32_MAX, nullptr);
        free(table->flags);
        free(table->keys);
        free(table);
    }

  private:
    static void mark_live(uint32_t *flags, uint32_t n_buckets, uint32_t bucket, uint32_t hash)
    {
        udp_vvlan_hash_set_flag(flags, bucket, 0);
        udp_vvlan_hash_tags(flags, n_buckets)[bucket] = udp_vvlan_hash_tag(hash);
    }

    /* Where the record goes: the first deleted bucket that is probed, the key's
     * own bucket, or the empty one that ends the probing; n_buckets when all are
     * taken. */
    static uint32_t insert_target(const vvlan_hash_t *table, const record *item)
    {
        const uint32_t mask = table->n_buckets - 1;
        const uint32_t home = Traits::hash(item) & mask;
        uint32_t site = table->n_buckets;
        uint32_t bucket = home;
        uint32_t step = 0;
        do {
            const uint32_t flag = udp_vvlan_hash_flag(table->flags, bucket);
            if ((flag & VVLAN_HASH_EMPTY) != 0) {
                return site < table->n_buckets ? site : bucket;
            }
            if (flag == 0) {
                if (Traits::equal(static_cast<const record *>(table->keys[bucket]), item)) {
                    return bucket;
                }
            } else if (site == table->n_buckets) {
                site = bucket;
            }
            bucket = (bucket + ++step) & mask;
        } while (bucket != home);
        return site;
    }

    static uint32_t round_up(uint32_t count)
    {
        uint32_t rounded = VVLAN_HASH_BUCKETS_MIN;
        while (rounded < count) {
            rounded <<= 1;
        }
        return rounded;
    }

    /* Moves to the rounded bucket count. False, with the table unchanged, when
     * memory is exhausted. Tables never become smaller. */
    static bool rehash(vvlan_hash_t *table, uint32_t requested)
    {
        const uint32_t n_buckets = round_up(requested);
        if (table->size >= udp_vvlan_hash_bound(n_buckets)) {
            return true;
        }
        const size_t flags_size = sizeof(uint32_t) * udp_vvlan_hash_flag_words(n_buckets);
        auto *flags = static_cast<uint32_t *>(malloc(flags_size + n_buckets));
        if (flags == nullptr) {
            return false;
        }
        memset(flags, 0xAA, flags_size); /* every bucket empty */
        memset(udp_vvlan_hash_tags(flags, n_buckets), 0, n_buckets);
        if (n_buckets > table->n_buckets) {
            auto *keys = static_cast<void **>(realloc(table->keys, sizeof(void *) * n_buckets));
            if (keys == nullptr) {
                free(flags);
                return false;
            }
            table->keys = keys;
        }
        move_records(table, flags, n_buckets);
        free(table->flags);
        table->flags = flags;
        table->n_buckets = n_buckets;
        table->n_occupied = table->size;
        table->upper_bound = udp_vvlan_hash_bound(n_buckets);
        return true;
    }

    /* In place: each record goes to its new bucket. If a record that has not
     * moved yet is there, that one is moved next. */
    static void move_records(vvlan_hash_t *table, uint32_t *flags, uint32_t n_buckets)
    {
        const uint32_t mask = n_buckets - 1;
        for (uint32_t old = 0; old < table->n_buckets; old++) {
            if (udp_vvlan_hash_flag(table->flags, old) != 0) {
                continue;
            }
            void *carried = table->keys[old];
            udp_vvlan_hash_set_flag(table->flags, old, VVLAN_HASH_DELETED);
            for (;;) {
                const uint32_t hash = Traits::hash(static_cast<const record *>(carried));
                uint32_t bucket = hash & mask;
                for (uint32_t step = 0; udp_vvlan_hash_flag(flags, bucket) != VVLAN_HASH_EMPTY;) {
                    bucket = (bucket + ++step) & mask;
                }
                mark_live(flags, n_buckets, bucket, hash);
                if (bucket >= table->n_buckets || udp_vvlan_hash_flag(table->flags, bucket) != 0) {
                    table->keys[bucket] = carried;
                    break;
                }
                void *displaced = table->keys[bucket];
                table->keys[bucket] = carried;
                carried = displaced;
                udp_vvlan_hash_set_flag(table->flags, bucket, VVLAN_HASH_DELETED);
            }
        }
    }
};

/* The exported functions of one instance, udp_vvlan_NAME_…, around its table
 * udp_vvlan_NAME_list:
 *   hash_init        a new, empty table; 0, or -2 without memory. Does not free
 *                    the table that was there.
 *   hash_insert      stores the pointer; always 0, also where nothing was stored
 *   hash_remove      takes the record with this key out, without freeing it
 *   hash_find        the record with this key, or null
 *   hash_traverse    walks all records until a callback returns non-zero
 *   hash_traverse_with_index    the same over buckets start to start + count - 1
 *   hash_size        live records
 *   cache_create     the record of the template's key, made where there is none;
 *                    also in *out; null without memory
 *   cache_destroy    removes and frees; null is ignored
 *   release          frees the table with its records, at unload */
#define VVLAN_HASH_DECLARE(name, record)                                                                               \
    extern vvlan_hash_t *udp_vvlan_##name##_list;                                                                      \
    int udp_vvlan_##name##_hash_init(void);                                                                            \
    int udp_vvlan_##name##_hash_insert(record *item);                                                                  \
    void udp_vvlan_##name##_hash_remove(const record *key);                                                            \
    record *udp_vvlan_##name##_hash_find(const record *key);                                                           \
    int udp_vvlan_##name##_hash_traverse(int (*callback)(record *, void *), void *arg);                                \
    int udp_vvlan_##name##_hash_traverse_with_index(int (*callback)(record *, void *), uint32_t start, uint32_t count, \
                                                    void *arg);                                                        \
    uint32_t udp_vvlan_##name##_hash_size(void);                                                                       \
    record *udp_vvlan_##name##_cache_create(record **out, const record *tmpl);                                         \
    void udp_vvlan_##name##_cache_destroy(record *item);                                                               \
    void udp_vvlan_##name##_release(void)

#define VVLAN_HASH_DEFINE(name, traits)                                                                                \
    vvlan_hash_t *udp_vvlan_##name##_list;                                                                             \
    int udp_vvlan_##name##_hash_init(void)                                                                             \
    {                                                                                                                  \
        udp_vvlan_##name##_list = udp_vvlan_hash_create();                                                             \
        return udp_vvlan_##name##_list != nullptr ? VVLAN_OK : VVLAN_E_NO_OBJECT;                                      \
    }                                                                                                                  \
    int udp_vvlan_##name##_hash_insert(traits::record *item)                                                           \
    {                                                                                                                  \
        vvlan_hash_ops<traits>::insert(udp_vvlan_##name##_list, item);                                                 \
        return VVLAN_OK;                                                                                               \
    }                                                                                                                  \
    void udp_vvlan_##name##_hash_remove(const traits::record *key)                                                     \
    {                                                                                                                  \
        vvlan_hash_ops<traits>::remove(udp_vvlan_##name##_list, key);                                                  \
    }                                                                                                                  \
    traits::record *udp_vvlan_##name##_hash_find(const traits::record *key)                                            \
    {                                                                                                                  \
        return vvlan_hash_ops<traits>::find(udp_vvlan_##name##_list, key);                                             \
    }                                                                                                                  \
    int udp_vvlan_##name##_hash_traverse(int (*callback)(traits::record *, void *), void *arg)                         \
    {                                                                                                                  \
        return vvlan_hash_ops<traits>::traverse(udp_vvlan_##name##_list, callback, 0, UINT32_MAX, arg);                \
    }                                                                                                                  \
    int udp_vvlan_##name##_hash_traverse_with_index(int (*callback)(traits::record *, void *), uint32_t start,         \
                                                    uint32_t count, void *arg)                                         \
    {                                                                                                                  \
        return vvlan_hash_ops<traits>::traverse(udp_vvlan_##name##_list, callback, start, count, arg);                 \
    }                                                                                                                  \
    uint32_t udp_vvlan_##name##_hash_size(void)                                                                        \
    {                                                                                                                  \
        return vvlan_hash_ops<traits>::size(udp_vvlan_##name##_list);                                                  \
    }                                                                                                                  \
    traits::record *udp_vvlan_##name##_cache_create(traits::record **out, const traits::record *tmpl)                  \
    {                                                                                                                  \
        return *out = vvlan_hash_ops<traits>::create(udp_vvlan_##name##_list, tmpl);                                   \
    }                                                                                                                  \
    void udp_vvlan_##name##_cache_destroy(traits::record *item)                                                        \
    {                                                                                                                  \
        vvlan_hash_ops<traits>::destroy(udp_vvlan_##name##_list, item);                                                \
    }                                                                                                                  \
    void udp_vvlan_##name##_release(void)                                                                              \
    {                                                                                                                  \
        vvlan_hash_ops<traits>::release(udp_vvlan_##name##_list);                                                      \
        udp_vvlan_##name##_list = nullptr;                                                                             \
    }                                                                                                                  \
    static_assert(true, "takes the semicolon")

#endif
