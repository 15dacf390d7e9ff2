#include "app/proc/ce_l3vpn_in_adj_db.h"

#include <cstring>

#include "app/proc/ce_l3vpn_app.h"
#include "app/proc/ce_l3vpn_app_node_db.h"
#include "app/proc/ce_l3vpn_err.h"
#include "app/proc/ce_l3vpn_mem.h"
#include "app/proc/ce_l3vpn_proto_op.h"

ce_in_adj_db_t ce_in_adj_db;
uint64_t ce_in_adj_mpls_id = 0;

namespace {
constexpr uint32_t CE_IN_ADJ_TTL_MAX = 255;

uint32_t in_adj_hash(const keyed_tbl_t *tbl, const void *entry) {
    const auto *node = static_cast<const ce_in_adj_node_t *>(entry);
    uint32_t h1 = keyed_tbl_jhash(&node->data, sizeof node->data, tbl->maxsize);
    return keyed_tbl_jhash_2words(keyed_tbl_jhash_2words(h1, node->owner, tbl->maxsize),
                                  node->pro, tbl->maxsize);
}

int in_adj_cmp(const void *a, const void *b) {
    const auto *x = static_cast<const ce_in_adj_node_t *>(a);
    const auto *y = static_cast<const ce_in_adj_node_t *>(b);
    if (x->owner == y->owner && x->pro == y->pro &&
        memcmp(&x->data, &y->data, sizeof x->data) == 0)
        return 0;
    return -1;
}

void in_adj_key_dump(const void *entry) {
    const auto *n = static_cast<const ce_in_adj_node_t *>(entry);
    const ce_msg_data_t &d = n->data;
    CE_L3VPN_LOG(CE_L3VPN_ERROR,
                 "no such in_adj, key==>owner:%s, pro:%u, opcode:%s, n_label:%u, "
                 "labels:%u %u %u %u %u %u %u %u, words:%u %u %u %u",
                 ce_owner_name(n->owner), n->pro, ce_opcode_name(d.opcode), d.n_labels,
                 d.labels[0], d.labels[1], d.labels[2], d.labels[3], d.labels[4], d.labels[5],
                 d.labels[6], d.labels[7], d.vc_mode, d.sd_vid, d.cw, d.vc_ifx);
}

uint32_t *in_adj_counter(const ce_in_adj_node_t *node) {
    return node->pro == CE_PRO_IPV4 ? &ce_in_adj_db.v4_count : &ce_in_adj_db.v6_count;
}

void search_node(ce_in_adj_node_t *node, const ce_msg_comm_t *msg) {
    memset(node, 0, sizeof *node);
    node->owner = msg->owner;
    node->pro = msg->nhop.pro;
    node->data = msg->data;
}

// A new node in the database, or null after counting and logging why.
ce_in_adj_node_t *in_adj_make(const ce_msg_comm_t *msg, uint64_t mpls_id, int *rv) {
    ce_in_adj_node_t *node = ce_l3vpn_in_adj_db_new_node(msg);
    if (node == nullptr) {
        CE_L3VPN_ERR_REC(CE_ERR_APP_DB_MALLOC);
        CE_L3VPN_LOG(CE_L3VPN_ERROR, "in_adj node, no memory");
        *rv = 2;
        return nullptr;
    }
    node->mpls_id = mpls_id;
    if (ce_l3vpn_in_adj_db_add_entry(node) != SS_E_NONE) {
        CE_L3VPN_ERR_REC(CE_ERR_IN_ADJ_NODE_ADD);
        CE_L3VPN_LOG(CE_L3VPN_ERROR, "add in adj entry fail");
        ce_l3vpn_in_adj_db_free_node(node);
        *rv = 1;
        return nullptr;
    }
    *rv = 0;
    return node;
}

struct in_adj_walk_t {
    int (*fn)(ce_in_adj_node_t *node, void *arg);
    void *arg;
};

int in_adj_walk_one(void *entry, void *arg) {
    auto *w = static_cast<in_adj_walk_t *>(arg);
    return w->fn(static_cast<ce_in_adj_node_t *>(entry), w->arg);
}

int in_adj_drop(ce_in_adj_node_t *node, void *) {
    ce_list_init(&node->nhop_list);
    ce_l3vpn_in_adj_db_free_node(node);
    return 0;
}

// Opcodes that UC programs: PUSH, POP, SWAP, SWAP_PUSH, POP_L3NEXTHOP, DLVR_TO_IP.
bool in_adj_uc_opcode(uint32_t op) {
    switch (op) {
        case CE_OP_PUSH:
        case CE_OP_POP:
        case CE_OP_SWAP:
        case CE_OP_SWAP_PUSH:
        case CE_OP_POP_L3NEXTHOP:
        case CE_OP_DLVR_TO_IP:
            return true;
        default:
            return false;
    }
}
}  // namespace

int ce_l3vpn_in_adj_db_create(uint32_t id, uint32_t maxsize) {
    CE_L3VPN_LOG(CE_L3VPN_DEBUG, "db:%p id:%d maxsize:%d", static_cast<void *>(&ce_in_adj_db),
                 static_cast<int>(id), static_cast<int>(maxsize));
    ce_in_adj_db.tbl.hash = in_adj_hash;
    ce_in_adj_db.tbl.cmp = in_adj_cmp;
    ce_in_adj_db.tbl.not_found = in_adj_key_dump;
    ce_in_adj_db.v4_count = 0;
    ce_in_adj_db.v6_count = 0;
    keyed_tbl_set_name(&ce_in_adj_db.tbl, "in_adj db");
    int rv = keyed_tbl_create(&ce_in_adj_db.tbl, id, maxsize);
    ce_in_adj_db.valid = rv == 0 ? 1 : 0;
    return rv;
}

// Nhop nodes still pointing here are the app databases' business: destroy those first.
void ce_l3vpn_in_adj_db_destroy(void) {
    if (ce_in_adj_db.valid) ce_l3vpn_in_adj_db_walkthrough(in_adj_drop, nullptr);
    keyed_tbl_destroy(&ce_in_adj_db.tbl);
    ce_in_adj_db.valid = 0;
    ce_in_adj_db.v4_count = ce_in_adj_db.v6_count = 0;
}

ce_in_adj_node_t *ce_l3vpn_in_adj_db_new_node(const ce_msg_comm_t *msg) {
    ce_l3vpn_mem_cnt++;
    auto *node = static_cast<ce_in_adj_node_t *>(ce_l3vpn_calloc(1, sizeof(ce_in_adj_node_t)));
    if (node == nullptr) return nullptr;
    node->owner = msg->owner;
    node->pro = msg->nhop.pro;
    node->data = msg->data;
    ce_list_init(&node->nhop_list);
    CE_L3VPN_LOG(CE_L3VPN_DEBUG, "new in_adj node:%p", static_cast<void *>(node));
    return node;
}

void ce_l3vpn_in_adj_db_free_node(ce_in_adj_node_t *node) {
    if (node != nullptr && !ce_list_empty(&node->nhop_list)) {
        ce_list_init(&node->nhop_list);
        CE_L3VPN_LOG(CE_L3VPN_ERROR, "in_adj node is NOT empty, how!!!");
    }
    CE_L3VPN_LOG(CE_L3VPN_DEBUG, "del in_adj node:%p", static_cast<void *>(node));
    ce_l3vpn_mem_cnt--;
    if (node == nullptr) return;
    ce_l3vpn_free(node);
}

int ce_l3vpn_in_adj_db_add_entry(ce_in_adj_node_t *node) {
    if (!ce_in_adj_db.valid) {
        CE_L3VPN_FAIL("db->valid", CE_ERR_APP_DB_CREATE_DB, "");
        return 16;
    }
    int rv = keyed_tbl_insert(&ce_in_adj_db.tbl, node);
    if (rv != 0) return rv;
    (*in_adj_counter(node))++;
    return 0;
}

ce_in_adj_node_t *ce_l3vpn_in_adj_db_get_entry(const ce_msg_comm_t *msg) {
    ce_in_adj_node_t key;
    search_node(&key, msg);
    return static_cast<ce_in_adj_node_t *>(keyed_tbl_lookup(&ce_in_adj_db.tbl, &key));
}

void ce_l3vpn_in_adj_db_del_entry(ce_in_adj_node_t *node) {
    auto *stored = static_cast<ce_in_adj_node_t *>(keyed_tbl_remove(&ce_in_adj_db.tbl, node));
    if (stored == nullptr) return;
    (*in_adj_counter(stored))--;
    ce_l3vpn_in_adj_db_free_node(stored);
}

int ce_l3vpn_in_adj_db_walkthrough(int (*fn)(ce_in_adj_node_t *node, void *arg), void *arg) {
    in_adj_walk_t w{fn, arg};
    return keyed_tbl_walk(&ce_in_adj_db.tbl, in_adj_walk_one, &w);
}

// The node of an add, found or made with a new MPLS id: programming it to UC
// and the binding are the caller's.
ce_in_adj_node_t *ce_in_adj_node_get_or_add(const ce_msg_comm_t *msg) {
    ce_in_adj_node_t *node = ce_l3vpn_in_adj_db_get_entry(msg);
    CE_L3VPN_LOG(CE_L3VPN_DEBUG, "get in adj node:%p", static_cast<void *>(node));
    if (node != nullptr) return node;
    int rv = 0;
    node = in_adj_make(msg, 0, &rv);
    if (node != nullptr) ce_in_adj_alloc_mpls_id(node);
    return node;
}

// Ids are never given back: a 64-bit counter does not run out.
void ce_in_adj_alloc_mpls_id(ce_in_adj_node_t *node) {
    ce_in_adj_mpls_id++;
    node->mpls_id = ce_in_adj_mpls_id;
    CE_L3VPN_LOG(CE_L3VPN_DEBUG, "alloc mpls id high:%u low:%u", ce_mpls_id_high(node->mpls_id),
                 ce_mpls_id_low(node->mpls_id));
}

// New ids start in a high part above every id the lower layers already hold.
void ce_in_adj_mpls_id_floor(uint64_t mpls_id) {
    uint32_t high = ce_mpls_id_high(mpls_id);
    if (high >= ce_mpls_id_high(ce_in_adj_mpls_id))
        ce_in_adj_mpls_id = static_cast<uint64_t>(high + 1) << 32;
}

int ce_in_adj_node_recover(const ce_msg_comm_t *msg, uint64_t mpls_id) {
    ce_in_adj_node_t *node = ce_l3vpn_in_adj_db_get_entry(msg);
    CE_L3VPN_LOG(CE_L3VPN_DEBUG, "get in adj node:%p", static_cast<void *>(node));
    if (node != nullptr) {
        if (node->mpls_id == 0) {
            node->mpls_id = mpls_id;
            CE_L3VPN_LOG(CE_L3VPN_ERROR, "how could this node exist?");
        }
        return 8;
    }
    int rv = 0;
    node = in_adj_make(msg, mpls_id, &rv);
    if (node == nullptr) return rv;
    CE_L3VPN_LOG(CE_L3VPN_DEBUG, "recover in adj owner:%s, proto:%u, mpls_id:{high %u, low %u}",
                 ce_owner_name(node->owner), node->pro, ce_mpls_id_high(mpls_id),
                 ce_mpls_id_low(mpls_id));
    return 0;
}

void ce_nhop_bind_in_adj(ce_nhop_node_t *nhop, ce_in_adj_node_t *new_node) {
    if (nhop->in_adj != nullptr && nhop->in_adj == new_node) {
        CE_L3VPN_LOG(CE_L3VPN_DEBUG, "same in adj, need not bind");
        return;
    }
    if (ce_in_adj_node_t *old = nhop->in_adj; old != nullptr) {
        CE_L3VPN_LOG(CE_L3VPN_DEBUG, "del old virtual route to ef");
        ce_app_set_to_ef(nhop, CE_HW_DEL);
        CE_L3VPN_LOG(CE_L3VPN_DEBUG, "unbind old in adj");
        ce_list_del(&nhop->in_adj_link);
        ce_list_init(&nhop->in_adj_link);
        if (ce_list_empty(&old->nhop_list)) {
            CE_L3VPN_LOG(CE_L3VPN_DEBUG, "no nhop ref, del in adj ");
            ce_in_adj_op_hw(old, CE_HW_DEL);
            ce_l3vpn_in_adj_db_del_entry(old);
        }
        nhop->in_adj = nullptr;
    }
    if (new_node != nullptr) {
        CE_L3VPN_LOG(CE_L3VPN_DEBUG, "bind nhop to new in_adj");
        nhop->in_adj = new_node;
        ce_list_add_head(&new_node->nhop_list, &nhop->in_adj_link);
    }
}

int ce_in_adj_op_hw(ce_in_adj_node_t *node, uint8_t add) {
    if (node == nullptr || !in_adj_uc_opcode(node->data.opcode)) return 0;
    uint32_t ttl;
    switch (node->owner) {
        case CE_OWNER_VC_FTN:
            ttl = CE_IN_ADJ_TTL_MAX;
            break;
        case CE_OWNER_FTN:
        case CE_OWNER_ILM:
            ttl = ce_l3vpn_ttl_copy == 1 ? 0 : CE_IN_ADJ_TTL_MAX;
            break;
        default:
            return 0;
    }
    return ce_l3vpn_in_adj_op_call_uc(node, add, ttl);
}
