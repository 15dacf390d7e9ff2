#include "app/proc/ce_l3vpn_app_node_db.h"

#include <cstring>
#include <initializer_list>

#include "app/proc/ce_l3vpn_err.h"
#include "app/proc/ce_l3vpn_in_adj_db.h"
#include "app/proc/ce_l3vpn_mem.h"

namespace {
ce_app_db_t ce_ftn_db;
ce_app_db_t ce_vc_ftn_db;
ce_app_db_t ce_ilm_db;

// Keys are the owner plus the 24 key bytes, both hashed with the table's size as seed.
uint32_t app_node_hash(const keyed_tbl_t *tbl, const void *entry) {
    const auto *node = static_cast<const ce_app_node_t *>(entry);
    uint32_t h1 = keyed_tbl_jhash(node->key.raw, sizeof node->key.raw, tbl->maxsize);
    return keyed_tbl_jhash_2words(h1, node->owner, tbl->maxsize);
}

int app_node_cmp(const void *a, const void *b) {
    const auto *x = static_cast<const ce_app_node_t *>(a);
    const auto *y = static_cast<const ce_app_node_t *>(b);
    if (x->owner == y->owner && memcmp(x->key.raw, y->key.raw, sizeof x->key.raw) == 0) return 0;
    return 11;
}

// Key printers, handed to the tables as their not-found functions.
void ftn_key_dump(const void *entry) {
    const ce_ftn_key_t &k = static_cast<const ce_app_node_t *>(entry)->key.ftn;
    if (k.pro == CE_PRO_IPV4)
        CE_L3VPN_LOG(CE_L3VPN_ERROR, "no such ftn, key==>pro:%u, vrf:%u, mask_len:%u, ip:%a",
                     k.pro, k.vrf, k.mask_len, ce_ip_v4_word(k.ip));
    else
        CE_L3VPN_LOG(CE_L3VPN_ERROR, "no such ftn, key==>pro:%u, vrf:%u, mask_len:%u, ip:%v",
                     k.pro, k.vrf, k.mask_len, k.ip);
}

void vc_ftn_key_dump(const void *entry) {
    CE_L3VPN_LOG(CE_L3VPN_ERROR, "no such vc_ftn, key==>vc_ifx:%u",
                 static_cast<const ce_app_node_t *>(entry)->key.vc_ftn.vc_ifx);
}

void ilm_key_dump(const void *entry) {
    CE_L3VPN_LOG(CE_L3VPN_ERROR, "no such ilm, key==>inlabel:%u",
                 static_cast<const ce_app_node_t *>(entry)->key.ilm.inlabel);
}

int app_db_create(ce_app_db_t *db, uint32_t id, uint32_t maxsize, const char *name,
                  keyed_tbl_notfound_fn not_found) {
    CE_L3VPN_LOG(CE_L3VPN_DEBUG, "db:%p id:%d maxsize:%d", static_cast<void *>(db),
                 static_cast<int>(id), static_cast<int>(maxsize));
    db->tbl.hash = app_node_hash;
    db->tbl.cmp = app_node_cmp;
    db->tbl.not_found = not_found;
    db->v4_count = 0;
    db->v6_count = 0;
    keyed_tbl_set_name(&db->tbl, name);
    int rv = keyed_tbl_create(&db->tbl, id, maxsize);
    db->valid = rv == 0 ? 1 : 0;
    return rv;
}

// ftn keeps IPv4 and IPv6 keys apart; the other owners count everything as v4.
uint32_t *app_db_counter(ce_app_db_t *db, const ce_app_node_t *node) {
    if (node->owner == CE_OWNER_FTN && node->key.ftn.pro != CE_PRO_IPV4) return &db->v6_count;
    return &db->v4_count;
}

// The database of an owner without the unknown-owner row (callers report it their way).
ce_app_db_t *owner_db(uint32_t owner) {
    switch (owner) {
        case CE_OWNER_FTN: return &ce_ftn_db;
        case CE_OWNER_VC_FTN: return &ce_vc_ftn_db;
        case CE_OWNER_ILM: return &ce_ilm_db;
        default: return nullptr;
    }
}

void search_node(ce_app_node_t *node, const ce_msg_comm_t *msg) {
    memset(node, 0, sizeof *node);
    node->owner = msg->owner;
    node->key = msg->key;
}

struct app_walk_t {
    int (*fn)(ce_app_node_t *node, void *arg);
    void *arg;
};

int app_walk_one(void *entry, void *arg) {
    auto *w = static_cast<app_walk_t *>(arg);
    return w->fn(static_cast<ce_app_node_t *>(entry), w->arg);
}

// Frees an app node with its nhop nodes, leaving the in_adj nodes to their database.
int app_node_drop(ce_app_node_t *app, void *) {
    while (!ce_list_empty(&app->nhop_list)) {
        ce_nhop_node_t *n = CE_LIST_ENTRY(app->nhop_list.next, ce_nhop_node_t, app_link);
        ce_list_del(&n->app_link);
        if (ce_list_linked(&n->in_adj_link)) ce_list_del(&n->in_adj_link);
        ce_app_node_db_del_nhop_node(n);
    }
    ce_app_node_db_free_app_node(app);
    return 0;
}
}  // namespace

int ce_ftn_db_create(uint32_t id, uint32_t maxsize) {
    return app_db_create(&ce_ftn_db, id, maxsize, "ftn db", ftn_key_dump);
}

int ce_vc_ftn_db_create(uint32_t id, uint32_t maxsize) {
    return app_db_create(&ce_vc_ftn_db, id, maxsize, "vc ftn db", vc_ftn_key_dump);
}

int ce_ilm_db_create(uint32_t id, uint32_t maxsize) {
    return app_db_create(&ce_ilm_db, id, maxsize, "ilm db", ilm_key_dump);
}

void ce_app_node_db_destroy_all(void) {
    for (uint32_t owner : {CE_OWNER_FTN, CE_OWNER_VC_FTN, CE_OWNER_ILM}) {
        ce_app_db_t *db = owner_db(owner);
        if (db->valid) {
            app_walk_t w{app_node_drop, nullptr};
            keyed_tbl_walk(&db->tbl, app_walk_one, &w);
        }
        keyed_tbl_destroy(&db->tbl);
        db->valid = 0;
        db->v4_count = db->v6_count = 0;
    }
}

ce_app_db_t *ce_app_node_db_get_owner_db(uint32_t owner) {
    ce_app_db_t *db = owner_db(owner);
    if (db == nullptr) {
        CE_L3VPN_ERR_REC(CE_ERR_UNKNOWN_OWNER);
        CE_L3VPN_LOG(CE_L3VPN_ERROR, "unknown owner:%u", owner);
    }
    return db;
}

ce_app_node_t *ce_app_node_db_new_app_node(const ce_msg_comm_t *msg) {
    ce_l3vpn_mem_cnt++;
    auto *node = static_cast<ce_app_node_t *>(ce_l3vpn_calloc(1, sizeof(ce_app_node_t)));
    if (node == nullptr) return nullptr;
    node->owner = msg->owner;
    node->key = msg->key;
    node->first_opcode = msg->data.opcode;
    ce_list_init(&node->nhop_list);
    CE_L3VPN_LOG(CE_L3VPN_DEBUG, "new app node, entry:%p", static_cast<void *>(node));
    return node;
}

void ce_app_node_db_free_app_node(ce_app_node_t *node) {
    CE_L3VPN_LOG(CE_L3VPN_DEBUG, "free app node, entry:%p", static_cast<void *>(node));
    ce_l3vpn_mem_cnt--;
    if (node == nullptr) return;
    ce_l3vpn_free(node);
}

int ce_app_node_db_add_entry(ce_app_node_t *node) {
    ce_app_db_t *db = ce_app_node_db_get_owner_db(node->owner);
    if (db == nullptr) {
        CE_L3VPN_LOG(CE_L3VPN_ERROR, "error owner, when get db");
        return 1;
    }
    if (!db->valid) {
        CE_L3VPN_FAIL("db->valid", CE_ERR_APP_DB_CREATE_DB, "");
        return 16;
    }
    int rv = keyed_tbl_insert(&db->tbl, node);
    if (rv != 0) return rv;
    (*app_db_counter(db, node))++;
    return 0;
}

ce_app_node_t *ce_app_node_db_get_entry(const ce_msg_comm_t *msg) {
    ce_app_db_t *db = ce_app_node_db_get_owner_db(msg->owner);
    if (db == nullptr) {
        CE_L3VPN_LOG(CE_L3VPN_ERROR, "error owner, when get db");
        return nullptr;
    }
    ce_app_node_t key;
    search_node(&key, msg);
    return static_cast<ce_app_node_t *>(keyed_tbl_lookup(&db->tbl, &key));
}

void ce_app_node_db_del_entry(ce_app_node_t *node) {
    ce_app_db_t *db = ce_app_node_db_get_owner_db(node->owner);
    if (db == nullptr) {
        CE_L3VPN_LOG(CE_L3VPN_ERROR, "error owner, when get db");
        return;
    }
    auto *stored = static_cast<ce_app_node_t *>(keyed_tbl_remove(&db->tbl, node));
    if (stored == nullptr) return;
    (*app_db_counter(db, stored))--;
    ce_app_node_db_free_app_node(stored);
}

int ce_app_node_db_walkthrough(uint32_t owner, int (*fn)(ce_app_node_t *node, void *arg),
                               void *arg) {
    ce_app_db_t *db = ce_app_node_db_get_owner_db(owner);
    if (db == nullptr) return 1;
    app_walk_t w{fn, arg};
    return keyed_tbl_walk(&db->tbl, app_walk_one, &w);
}

ce_nhop_node_t *ce_app_node_db_new_nhop_node(const ce_msg_comm_t *msg) {
    ce_l3vpn_mem_cnt++;
    auto *node = static_cast<ce_nhop_node_t *>(ce_l3vpn_calloc(1, sizeof(ce_nhop_node_t)));
    if (node == nullptr) return nullptr;
    node->nhop = msg->nhop;
    node->nhop_attr = msg->nhop_attr;
    ce_list_init(&node->app_link);
    ce_list_init(&node->in_adj_link);
    CE_L3VPN_LOG(CE_L3VPN_DEBUG, "add nhop node, entry:%p", static_cast<void *>(node));
    return node;
}

// Only frees: the caller has unlinked the node (a node still linked is reported).
void ce_app_node_db_del_nhop_node(ce_nhop_node_t *node) {
    if (node != nullptr && ce_list_linked(&node->in_adj_link))
        CE_L3VPN_LOG(CE_L3VPN_ERROR, "how is is_intf list not emtpy");
    else if (node != nullptr && ce_list_linked(&node->app_link))
        CE_L3VPN_LOG(CE_L3VPN_ERROR, "how is nhop_list  not emtpy");
    CE_L3VPN_LOG(CE_L3VPN_DEBUG, "free nhop node, entry:%p", static_cast<void *>(node));
    ce_l3vpn_mem_cnt--;
    if (node == nullptr) return;
    ce_l3vpn_free(node);
}

// vc_ftn next hops are one next hop whatever their labels; for ftn and ilm the
// label operation is part of the next hop's identity.
ce_nhop_node_t *ce_app_node_db_cmp_nhop(ce_app_node_t *app, const ce_msg_comm_t *msg) {
    for (ce_list_t *l = app->nhop_list.next; l != &app->nhop_list; l = l->next) {
        ce_nhop_node_t *n = CE_LIST_ENTRY(l, ce_nhop_node_t, app_link);
        if (memcmp(&n->nhop, &msg->nhop, sizeof n->nhop) != 0) continue;
        switch (app->owner) {
            case CE_OWNER_VC_FTN:
                return n;
            case CE_OWNER_FTN:
            case CE_OWNER_ILM: {
                const ce_in_adj_node_t *adj = n->in_adj;
                if (adj != nullptr && adj->data.opcode == msg->data.opcode &&
                    adj->data.n_labels == msg->data.n_labels &&
                    memcmp(adj->data.labels, msg->data.labels, sizeof adj->data.labels) == 0)
                    return n;
                break;
            }
            default:
                CE_L3VPN_FAIL("0", CE_ERR_UNKNOWN_OWNER, "FATAL ERROR ! unknown owner:%u",
                              app->owner);
                break;
        }
    }
    return nullptr;
}

ce_nhop_node_t *ce_app_node_oldest_nhop(ce_app_node_t *app) {
    if (app == nullptr || ce_list_empty(&app->nhop_list)) return nullptr;
    return CE_LIST_ENTRY(app->nhop_list.prev, ce_nhop_node_t, app_link);
}
