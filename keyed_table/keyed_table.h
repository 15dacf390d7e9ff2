// The keyed table: a chained hash beside an insertion-ordered doubly linked
// list of all entries. Entries are the caller's; the table only links them.
// The owner supplies hash, compare and not-found functions.
#pragma once
#include <cstdint>
#include <pthread.h>

struct keyed_tbl_t;
typedef uint32_t (*keyed_tbl_hash_fn)(const keyed_tbl_t *tbl, const void *entry);
typedef int (*keyed_tbl_cmp_fn)(const void *a, const void *b);  // 0 = equal
typedef void (*keyed_tbl_notfound_fn)(const void *key);
typedef int (*keyed_tbl_walk_fn)(void *entry, void *arg);

// Link record in the ordered list.
struct keyed_tbl_link_t {
    keyed_tbl_t *table;
    void *entry;
    keyed_tbl_link_t *next;
    keyed_tbl_link_t *prev;
};

// Bucket element.
struct keyed_tbl_elem_t {
    keyed_tbl_elem_t *next;
    keyed_tbl_elem_t *prev;
    keyed_tbl_link_t *link;
};

struct keyed_tbl_t {
    uint32_t id;
    uint32_t maxsize;  // sizes the hash and seeds the hash function; not enforced
    uint32_t count;
    uint32_t count2;   // kept in step with count
    char name[32];
    pthread_mutex_t mutex;  // recursive; no operation takes it
    uint32_t bucket_num;
    keyed_tbl_elem_t **buckets;
    uint8_t *bucket_cnt;
    uint32_t warn_threshold;  // 0 = off
    uint32_t total;
    keyed_tbl_link_t *head;  // oldest
    keyed_tbl_link_t *tail;  // newest
    keyed_tbl_hash_fn hash;
    keyed_tbl_cmp_fn cmp;
    keyed_tbl_notfound_fn not_found;
};

// 0; -4 no table; -2 no memory; -11 mutex creation failed. The functions and
// the name are set by the caller before or after creation.
int keyed_tbl_create(keyed_tbl_t *tbl, uint32_t id, uint32_t maxsize);
void keyed_tbl_destroy(keyed_tbl_t *tbl);
int keyed_tbl_set_name(keyed_tbl_t *tbl, const char *name);  // 0 or -4
// 0; -2 no memory for the link record; -12 no memory for the bucket element.
int keyed_tbl_insert(keyed_tbl_t *tbl, void *entry);
void *keyed_tbl_lookup(const keyed_tbl_t *tbl, const void *key);
// Returns the removed entry, or null after calling not_found(key).
void *keyed_tbl_remove(keyed_tbl_t *tbl, const void *key);
// Newest first; stops at the first non-zero result and returns it.
int keyed_tbl_walk(const keyed_tbl_t *tbl, keyed_tbl_walk_fn fn, void *arg);

// Jenkins lookup2 ("jhash" family, golden ratio 0x9e3779b9).
uint32_t keyed_tbl_jhash(const void *key, uint32_t length, uint32_t initval);
uint32_t keyed_tbl_jhash_2words(uint32_t a, uint32_t b, uint32_t initval);

// Test hook: the table's own allocation `nth` calls from now (1 = the next
// one) fails; 0 switches failing off.
void keyed_tbl_fail_alloc_at(unsigned nth);
