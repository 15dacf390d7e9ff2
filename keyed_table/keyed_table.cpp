#include "keyed_table/keyed_table.h"

#include <cstdio>
#include <cstdlib>
#include <cstring>

namespace {
constexpr uint32_t KEYED_TBL_GOLDEN_RATIO = 0x9e3779b9u;
// Buckets when the creator gives no size: 1024 entries at the 0.75 load.
constexpr uint32_t KEYED_TBL_DEF_BUCKETS = 1365;

unsigned g_fail_at = 0;  // 0: never fail

void *tbl_calloc(size_t n, size_t size) {
    if (g_fail_at != 0 && --g_fail_at == 0) return nullptr;
    return calloc(n, size);
}

inline void jhash_mix(uint32_t &a, uint32_t &b, uint32_t &c) {
    a -= b; a -= c; a ^= (c >> 13);
    b -= c; b -= a; b ^= (a << 8);
    c -= a; c -= b; c ^= (b >> 13);
    a -= b; a -= c; a ^= (c >> 12);
    b -= c; b -= a; b ^= (a << 16);
    c -= a; c -= b; c ^= (b >> 5);
    a -= b; a -= c; a ^= (c >> 3);
    b -= c; b -= a; b ^= (a << 10);
    c -= a; c -= b; c ^= (b >> 15);
}

// Little-endian word of up to four bytes, as lookup2 reads its input.
inline uint32_t le_word(const uint8_t *k, uint32_t n) {
    uint32_t w = 0;
    for (uint32_t i = 0; i < n; ++i) w += static_cast<uint32_t>(k[i]) << (8 * i);
    return w;
}

uint32_t bucket_count(uint32_t maxsize) {
    if (maxsize == 0) return KEYED_TBL_DEF_BUCKETS;
    return static_cast<uint32_t>(maxsize / 0.75);
}

keyed_tbl_elem_t *find_elem(const keyed_tbl_t *tbl, const void *key, uint32_t *bucket) {
    if (tbl == nullptr || tbl->buckets == nullptr || tbl->bucket_num == 0) return nullptr;
    uint32_t b = tbl->hash(tbl, key) % tbl->bucket_num;
    if (bucket != nullptr) *bucket = b;
    for (keyed_tbl_elem_t *e = tbl->buckets[b]; e != nullptr; e = e->next)
        if (tbl->cmp(e->link->entry, key) == 0) return e;
    return nullptr;
}
}  // namespace

void keyed_tbl_fail_alloc_at(unsigned nth) { g_fail_at = nth; }

uint32_t keyed_tbl_jhash(const void *key, uint32_t length, uint32_t initval) {
    const auto *k = static_cast<const uint8_t *>(key);
    uint32_t a = KEYED_TBL_GOLDEN_RATIO, b = KEYED_TBL_GOLDEN_RATIO, c = initval;
    uint32_t len = length;
    for (; len >= 12; len -= 12, k += 12) {
        a += le_word(k, 4);
        b += le_word(k + 4, 4);
        c += le_word(k + 8, 4);
        jhash_mix(a, b, c);
    }
    // The tail: c's lowest byte is taken by the length, so its bytes shift up one.
    c += length;
    a += le_word(k, len < 4 ? len : 4);
    if (len > 4) b += le_word(k + 4, len < 8 ? len - 4 : 4);
    if (len > 8) c += le_word(k + 8, len - 8) << 8;
    jhash_mix(a, b, c);
    return c;
}

uint32_t keyed_tbl_jhash_2words(uint32_t a, uint32_t b, uint32_t initval) {
    a += KEYED_TBL_GOLDEN_RATIO;
    b += KEYED_TBL_GOLDEN_RATIO;
    uint32_t c = initval;
    jhash_mix(a, b, c);
    return c;
}

int keyed_tbl_create(keyed_tbl_t *tbl, uint32_t id, uint32_t maxsize) {
    if (tbl == nullptr) return -4;
    tbl->id = id;
    tbl->maxsize = maxsize;
    tbl->count = tbl->count2 = 0;
    tbl->head = tbl->tail = nullptr;
    tbl->warn_threshold = 0;
    tbl->total = 0;
    tbl->bucket_num = bucket_count(maxsize);
    tbl->buckets = static_cast<keyed_tbl_elem_t **>(tbl_calloc(tbl->bucket_num, sizeof(void *)));
    tbl->bucket_cnt = static_cast<uint8_t *>(tbl_calloc(tbl->bucket_num, 1));
    if (tbl->buckets == nullptr || tbl->bucket_cnt == nullptr) {
        keyed_tbl_destroy(tbl);
        return -2;
    }

    pthread_mutexattr_t attr;
    bool ok = pthread_mutexattr_init(&attr) == 0;
    ok = ok && pthread_mutexattr_settype(&attr, PTHREAD_MUTEX_RECURSIVE) == 0;
    ok = ok && pthread_mutex_init(&tbl->mutex, &attr) == 0;
    pthread_mutexattr_destroy(&attr);
    if (!ok) {
        free(tbl->buckets);
        free(tbl->bucket_cnt);
        tbl->buckets = nullptr;
        tbl->bucket_cnt = nullptr;
        tbl->bucket_num = 0;
        return -11;
    }
    return 0;
}

// Frees the table's own links; the entries stay the caller's.
void keyed_tbl_destroy(keyed_tbl_t *tbl) {
    if (tbl == nullptr) return;
    for (uint32_t b = 0; tbl->buckets != nullptr && b < tbl->bucket_num; ++b) {
        for (keyed_tbl_elem_t *e = tbl->buckets[b], *next; e != nullptr; e = next) {
            next = e->next;
            free(e->link);
            free(e);
        }
    }
    bool had_hash = tbl->buckets != nullptr && tbl->bucket_cnt != nullptr;
    free(tbl->buckets);
    free(tbl->bucket_cnt);
    if (had_hash) pthread_mutex_destroy(&tbl->mutex);
    tbl->buckets = nullptr;
    tbl->bucket_cnt = nullptr;
    tbl->bucket_num = 0;
    tbl->head = tbl->tail = nullptr;
    tbl->count = tbl->count2 = tbl->total = 0;
}

int keyed_tbl_set_name(keyed_tbl_t *tbl, const char *name) {
    if (tbl == nullptr) return -4;
    memset(tbl->name, 0, sizeof tbl->name);
    if (name != nullptr) strncpy(tbl->name, name, sizeof tbl->name - 1);
    tbl->name[sizeof tbl->name - 1] = '\0';
    return 0;
}

int keyed_tbl_insert(keyed_tbl_t *tbl, void *entry) {
    if (tbl == nullptr || tbl->buckets == nullptr) return -4;
    auto *link = static_cast<keyed_tbl_link_t *>(tbl_calloc(1, sizeof(keyed_tbl_link_t)));
    if (link == nullptr) return -2;
    auto *elem = static_cast<keyed_tbl_elem_t *>(tbl_calloc(1, sizeof(keyed_tbl_elem_t)));
    if (elem == nullptr) {
        free(link);
        return -12;
    }
    link->table = tbl;
    link->entry = entry;
    elem->link = link;

    uint32_t b = tbl->hash(tbl, entry) % tbl->bucket_num;
    elem->next = tbl->buckets[b];
    if (elem->next != nullptr) elem->next->prev = elem;
    tbl->buckets[b] = elem;
    tbl->bucket_cnt[b]++;
    tbl->total++;
    if (tbl->warn_threshold != 0 && tbl->bucket_cnt[b] > tbl->warn_threshold)
        printf("hash :%p bucket[%d] warning %d cur:%d \n", static_cast<void *>(tbl),
               static_cast<int>(b), static_cast<int>(tbl->warn_threshold),
               static_cast<int>(tbl->bucket_cnt[b]));

    link->prev = tbl->tail;
    if (tbl->tail != nullptr)
        tbl->tail->next = link;
    else
        tbl->head = link;
    tbl->tail = link;
    tbl->count++;
    tbl->count2++;
    return 0;
}

void *keyed_tbl_lookup(const keyed_tbl_t *tbl, const void *key) {
    keyed_tbl_elem_t *e = find_elem(tbl, key, nullptr);
    return e != nullptr ? e->link->entry : nullptr;
}

void *keyed_tbl_remove(keyed_tbl_t *tbl, const void *key) {
    uint32_t b = 0;
    keyed_tbl_elem_t *e = find_elem(tbl, key, &b);
    if (e == nullptr) {
        if (tbl != nullptr && tbl->not_found != nullptr) tbl->not_found(key);
        return nullptr;
    }
    if (e->prev != nullptr)
        e->prev->next = e->next;
    else
        tbl->buckets[b] = e->next;
    if (e->next != nullptr) e->next->prev = e->prev;
    tbl->bucket_cnt[b]--;
    tbl->total--;

    keyed_tbl_link_t *link = e->link;
    if (link->prev != nullptr)
        link->prev->next = link->next;
    else
        tbl->head = link->next;
    if (link->next != nullptr)
        link->next->prev = link->prev;
    else
        tbl->tail = link->prev;
    tbl->count--;
    tbl->count2--;

    void *entry = link->entry;
    free(link);
    free(e);
    return entry;
}

int keyed_tbl_walk(const keyed_tbl_t *tbl, keyed_tbl_walk_fn fn, void *arg) {
    if (tbl == nullptr || fn == nullptr) return 0;
    for (keyed_tbl_link_t *l = tbl->tail, *prev; l != nullptr; l = prev) {
        prev = l->prev;  // the callback may remove its own entry
        int rv = fn(l->entry, arg);
        if (rv != 0) return rv;
    }
    return 0;
}
