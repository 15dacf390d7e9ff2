#include "app/proc/ce_l3vpn_app.h"

#include <initializer_list>
#include <string>

#include "app/proc/ce_l3vpn_cap.h"
#include "app/proc/ce_l3vpn_err.h"
#include "app/proc/ce_l3vpn_proto_op.h"
#include "app/proc/ce_l3vpn_refuse.h"
#include "app/proc/ce_l3vpn_syslog.h"

uint8_t ce_l3vpn_mpls_enable = 0;
uint8_t ce_l3vpn_ttl_copy = 0;

namespace {
// Database sizes (id, maxsize) created at start-up.
constexpr uint32_t CE_FTN_DB_SIZE = 20000;
constexpr uint32_t CE_VC_FTN_DB_SIZE = 5000;
constexpr uint32_t CE_ILM_DB_SIZE = 10000;
constexpr uint32_t CE_IN_ADJ_DB_SIZE = 4000;

// Opcodes whose virtual route EF takes: PUSH, POP, SWAP, SWAP_PUSH, POP_L3NEXTHOP, DLVR_TO_IP.
constexpr uint32_t CE_OP_EF_MASK = 0x25e;
// Pops that do everything in FE alone: POP_L3SWITCH, POP_L2DSTPORT, POP_L2SWITCH, POP_DLVR_LOCAL.
constexpr uint32_t CE_OP_SINGLE_POP_MASK = 0x5a0;

bool op_in_mask(uint32_t op, uint32_t mask, uint32_t max) {
    return op <= max && ((mask >> op) & 1u) != 0;
}
bool op_ef_capable(uint32_t op) { return op_in_mask(op, CE_OP_EF_MASK, CE_OP_DLVR_TO_IP); }
bool op_single_pop(uint32_t op) {
    return op_in_mask(op, CE_OP_SINGLE_POP_MASK, CE_OP_POP_DLVR_LOCAL);
}
// With "ilm_multi_action" these may share one entry.
bool op_mixable(uint32_t op) {
    return op == CE_OP_POP || op == CE_OP_SWAP || op == CE_OP_POP_L3NEXTHOP;
}

const char *hw_word(uint8_t add_or_del) { return add_or_del ? "add" : "del"; }
void nhop_del(ce_app_node_t *app, ce_nhop_node_t *nhop);

// The label operation of a next hop: its in_adj node's opcode, 0 when that is not one of ours.
uint32_t nhop_opcode(const ce_nhop_node_t *nhop) {
    const ce_in_adj_node_t *adj = nhop->in_adj;
    if (adj == nullptr || adj->owner < CE_OWNER_FTN || adj->owner > CE_OWNER_ILM) return 0;
    return adj->data.opcode;
}

// Does the next hop's opcode agree with the entry's first opcode, so it may go to EF?
bool nhop_opcode_agrees(uint32_t op, uint32_t first) {
    if (op == first) return true;
    if (!ce_l3vpn_cap_ilm_multi_action()) {
        CE_L3VPN_LOG(CE_L3VPN_DEBUG,
                     "app node 's first opcode DON'T match new opcode. will not set to EF.");
        return false;
    }
    if (op_mixable(first) && op_mixable(op)) return true;
    CE_L3VPN_LOG(CE_L3VPN_DEBUG,
                 "app node 's first opcode DON'T match new opcode. And they are not swap, pop or "
                 "pop_l3_nexthop. will not set to EF.");
    return false;
}

// Over capacity: the record waits for room and the refusal names it.
// A record already waiting (seen again by a data sync, or updated) is not
// counted twice.
void keep_aside(const ce_msg_comm_t *msg, const char *why) {
    if (ce_l3vpn_app_wait_keep(msg))
        ce_l3vpn_refuse_msg(msg, CE_REFUSE_CAPACITY, (std::string(why) + ", kept aside").c_str());
}

// The app node of a message, found or created (capacity checked first).
ce_app_node_t *app_node_get_or_add(ce_msg_comm_t *msg) {
    ce_app_node_t *app = ce_app_node_db_get_entry(msg);
    CE_L3VPN_LOG(CE_L3VPN_DEBUG, "get %s node, entry:%p", ce_owner_name(msg->owner),
                 static_cast<void *>(app));
    if (app != nullptr) return app;

    if (ce_l3vpn_app_wait_entry(msg)) {
        keep_aside(msg, "entry waits for room");
        return nullptr;
    }
    if (ce_l3vpn_cap_app_check(msg->owner) != SS_E_NONE) {
        ce_l3vpn_syslog_cap_full(msg->owner);
        CE_L3VPN_LOG(CE_L3VPN_WARN, "CAP  FULL");
        keep_aside(msg, ce_l3vpn_cap_full_text(msg->owner).c_str());
        return nullptr;
    }
    app = ce_app_node_db_new_app_node(msg);
    if (app == nullptr) {
        CE_L3VPN_ERR_REC(CE_ERR_APP_DB_MALLOC);
        CE_L3VPN_LOG(CE_L3VPN_ERROR, "app node, no memory");
        return nullptr;
    }
    if (ce_app_node_db_add_entry(app) != SS_E_NONE) {
        CE_L3VPN_ERR_REC(CE_ERR_APP_NODE_ADD);
        CE_L3VPN_LOG(CE_L3VPN_ERROR, "add app entry fail");
        ce_app_node_db_free_app_node(app);
        return nullptr;
    }
    return app;
}

// Does removing a next hop of opcode del_op change the entry's first opcode?
// Only when the entry keeps next hops, del_op was first and no older next hop
// still carries it (a single-action pop always re-derives it).
bool first_opcode_changed(ce_app_node_t *app, uint32_t del_op, uint32_t nhop_num_before) {
    if (nhop_num_before < 2) return false;
    if (app->first_opcode != del_op) return false;
    for (ce_list_t *l = app->nhop_list.prev; l != &app->nhop_list; l = l->prev) {
        if (nhop_opcode(ce_nhop_of(l)) != del_op) continue;
        return op_single_pop(del_op);
    }
    return true;
}

struct ds_sum_t {
    uint32_t entries;
    uint32_t nhops;
    uint32_t in_ef;
};

int ds_sum_walk(ce_app_node_t *app, void *arg) {
    auto *s = static_cast<ds_sum_t *>(arg);
    s->entries++;
    for (ce_list_t *l = app->nhop_list.next; l != &app->nhop_list; l = l->next) {
        s->nhops++;
        if (ce_nhop_of(l)->set_to_ef) s->in_ef++;
    }
    return 0;
}

// An ILM's in-label in FE carries its oldest next hop's label operation. With
// several next hops it is written again only when the oldest one is rebound.
void ilm_fe_follow_oldest(ce_nhop_node_t *nhop, bool rebound) {
    ce_app_node_t *app = nhop->app_node;
    if (app->owner != CE_OWNER_ILM || app->nhop_num < 2) return;
    if (!rebound || ce_app_node_oldest_nhop(app) != nhop) return;
    ce_l3vpn_ilm_op_hw(app, nhop->in_adj, CE_HW_ADD, ce_l3vpn_ttl_copy);
}
}  // namespace

// ---- add ------------------------------------------------------------------------------

int ce_l3vpn_app_add(ce_msg_comm_t *msg) {
    CE_L3VPN_LOG(CE_L3VPN_DEBUG, ">>> app add ");
    if (ce_l3vpn_app_ds_defer(msg)) return 0;
    bool nhop_is_new = false;
    ce_nhop_node_t *nhop = ce_app_node_add(msg, &nhop_is_new);
    if (nhop == nullptr) return 11;

    ce_in_adj_node_t *in_adj = ce_in_adj_node_get_or_add(msg);
    if (in_adj == nullptr) {
        if (nhop_is_new) ce_app_node_del(nhop);
        return 11;
    }
    if (ce_list_empty(&in_adj->nhop_list)) ce_in_adj_op_hw(in_adj, CE_HW_ADD);
    const bool rebound = nhop->in_adj != nullptr && nhop->in_adj != in_adj;
    ce_nhop_bind_in_adj(nhop, in_adj);
    ce_app_op_hw(msg->owner, nhop, CE_HW_ADD);
    ilm_fe_follow_oldest(nhop, rebound);
    CE_L3VPN_LOG(CE_L3VPN_DEBUG, "<<<< add app Over ");
    return 0;
}

ce_nhop_node_t *ce_app_node_add(ce_msg_comm_t *msg, bool *nhop_is_new) {
    *nhop_is_new = false;
    ce_app_node_t *app = app_node_get_or_add(msg);
    if (app == nullptr) return nullptr;

    ce_nhop_node_t *nhop = ce_app_node_db_cmp_nhop(app, msg);
    CE_L3VPN_LOG(CE_L3VPN_DEBUG, "get nhop node, %p", static_cast<void *>(nhop));
    if (nhop == nullptr && (ce_l3vpn_app_wait_holds(msg) || !ce_l3vpn_cap_nhop_room(msg))) {
        keep_aside(msg, ce_l3vpn_cap_ecmp_text(app->nhop_num).c_str());
        return nullptr;
    }
    if (nhop == nullptr) {
        nhop = ce_app_node_db_new_nhop_node(msg);
        if (nhop == nullptr) {
            CE_L3VPN_ERR_REC(CE_ERR_NHOP_NODE_ADD);
            CE_L3VPN_LOG(CE_L3VPN_ERROR, "nhop node, no memory");
            // An entry without next hops was made by this add: take it back.
            if (ce_list_empty(&app->nhop_list)) ce_app_node_db_del_entry(app);
            return nullptr;
        }
        *nhop_is_new = true;
    }
    nhop->nhop_attr = msg->nhop_attr;
    nhop->sync_gen = ce_l3vpn_sync_gen;
    ce_bind_nhop_node_to_app_node(nhop, app);
    return nhop;
}

void ce_bind_nhop_node_to_app_node(ce_nhop_node_t *nhop, ce_app_node_t *app) {
    CE_L3VPN_LOG(CE_L3VPN_DEBUG, "bind nhop node and app node");
    if (nhop->app_node == app) {
        CE_L3VPN_LOG(CE_L3VPN_DEBUG, "same node, need not bind");
        return;
    }
    nhop->app_node = app;
    ce_list_add_head(&app->nhop_list, &nhop->app_link);
    app->nhop_num++;
}

// ---- hardware -------------------------------------------------------------------------

void ce_app_op_hw(uint32_t owner, ce_nhop_node_t *nhop, uint8_t add_or_del) {
    CE_L3VPN_LOG(CE_L3VPN_DEBUG, "app %s hw", hw_word(add_or_del));
    ce_app_set_to_ef(nhop, add_or_del);
    if (owner != CE_OWNER_ILM) return;
    // FE holds one in-label per entry: written with the first next hop, withdrawn with the last.
    ce_app_node_t *app = nhop->app_node;
    if (app->nhop_num == 1)
        ce_l3vpn_ilm_op_hw(app, nhop->in_adj, add_or_del, ce_l3vpn_ttl_copy);
    else
        CE_L3VPN_LOG(CE_L3VPN_DEBUG, "nhop_num: %u, need not set ilm to FE_L3VPN", app->nhop_num);
}

void ce_app_set_to_ef(ce_nhop_node_t *nhop, uint8_t add_or_del) {
    uint32_t op = nhop_opcode(nhop);
    uint32_t first = nhop->app_node->first_opcode;
    if (!nhop_opcode_agrees(op, first)) {
        nhop->set_to_ef = 0;
        return;
    }
    const ce_nhop_t &nh = nhop->nhop;
    if (!mpls_is_ip_zero(nh.ip, nh.pro) && nh.ifx != 0 && op_ef_capable(op)) {
        ce_l3vpn_app_op_call_ef(nhop, add_or_del);
        nhop->set_to_ef = add_or_del ? 1 : 0;
        return;
    }
    if (nh.pro == CE_PRO_IPV4)
        CE_L3VPN_LOG(CE_L3VPN_DEBUG,
                     "zero con_nhop:%a or ifx:%u or opcode:%d, wouldn't set to EF",
                     ce_ip_v4_word(nh.ip), nh.ifx, static_cast<int>(op));
    else
        CE_L3VPN_LOG(CE_L3VPN_DEBUG,
                     "zero con_nhop:%v or ifx:%u or opcode:%d, wouldn't set to EF", nh.ip,
                     nh.ifx, static_cast<int>(op));
    nhop->set_to_ef = 0;
}

// ---- delete ---------------------------------------------------------------------------

int ce_l3vpn_app_del(ce_msg_comm_t *msg) {
    CE_L3VPN_LOG(CE_L3VPN_DEBUG, ">>> app del, ");
    ce_app_node_t *app = ce_app_node_db_get_entry(msg);
    CE_L3VPN_LOG(CE_L3VPN_DEBUG, "get app node, entry:%p", static_cast<void *>(app));
    if (app == nullptr) {
        if (ce_l3vpn_app_wait_drop(msg)) return 0;
        CE_L3VPN_ERR_REC(CE_ERR_APP_NODE_NOT_FOUND);
        return 7;
    }
    ce_nhop_node_t *nhop = ce_app_node_db_cmp_nhop(app, msg);
    CE_L3VPN_LOG(CE_L3VPN_DEBUG, "get nhop node, entry:%p", static_cast<void *>(nhop));
    if (nhop == nullptr) {
        if (ce_l3vpn_app_wait_drop(msg)) return 0;
        CE_L3VPN_ERR_REC(CE_ERR_NHOP_NODE_NOT_FOUND);
        return 7;
    }
    nhop_del(app, nhop);
    // What waited for the room this delete made goes in now.
    ce_l3vpn_app_wait_drain(msg->owner);
    return 0;
}

namespace {
void nhop_del(ce_app_node_t *app, ce_nhop_node_t *nhop) {
    ce_app_op_hw(app->owner, nhop, CE_HW_DEL);
    uint32_t del_op = nhop_opcode(nhop);
    uint32_t nhop_num_before = app->nhop_num;
    bool last = app->nhop_list.next == &nhop->app_link && app->nhop_list.prev == &nhop->app_link;
    // FE's in-label follows the oldest next hop: when that one goes, the next
    // oldest takes over (unless it shares the label operation).
    ce_nhop_node_t *heir = nullptr;
    if (!last && app->owner == CE_OWNER_ILM && ce_app_node_oldest_nhop(app) == nhop &&
        ce_nhop_of(nhop->app_link.prev)->in_adj != nhop->in_adj)
        heir = ce_nhop_of(nhop->app_link.prev);
    // Withdraws the route from EF once more and the in_adj node from UC if it was its last user.
    ce_nhop_bind_in_adj(nhop, nullptr);
    ce_app_node_del(nhop);  // frees app with its last next hop
    if (last) return;

    if (!first_opcode_changed(app, del_op, nhop_num_before)) {
        if (heir != nullptr) ce_l3vpn_ilm_op_hw(app, heir->in_adj, CE_HW_ADD, ce_l3vpn_ttl_copy);
        return;
    }
    CE_L3VPN_LOG(CE_L3VPN_DEBUG, "wk nhop node, because opcode POP or change, first_opcode: %d",
                 static_cast<int>(app->first_opcode));
    ce_opcode_chg_update_app_nhop_and_opcode(app);
}
}  // namespace

void ce_app_node_del(ce_nhop_node_t *nhop) {
    if (ce_list_linked(&nhop->in_adj_link)) {
        CE_L3VPN_ERR_REC(CE_ERR_INTERBAL_NHOP_LIST);
        CE_L3VPN_LOG(CE_L3VPN_ERROR, "!!!!how could nhop's in_adj_list isn't not empty!!!");
    }
    ce_app_node_t *app = nhop->app_node;
    if (app != nullptr) {
        uint32_t nhop_num_before = app->nhop_num;
        ce_list_del(&nhop->app_link);
        app->nhop_num--;
        nhop->app_node = nullptr;
        if (ce_list_empty(&app->nhop_list)) {
            if (nhop_num_before != 1) {
                CE_L3VPN_ERR_REC(CE_ERR_INTERBAL_NHOP_NUM);
                CE_L3VPN_LOG(CE_L3VPN_ERROR, "!!!!how could nhop_list isn't match nhop_num!!!");
            }
            CE_L3VPN_LOG(CE_L3VPN_DEBUG, "no ref, del app node %p", static_cast<void *>(app));
            ce_app_node_db_del_entry(app);
        }
    }
    ce_app_node_db_del_nhop_node(nhop);
}

// The oldest next hop sets the entry's opcode; every next hop is offered to EF again.
void ce_opcode_chg_update_app_nhop_and_opcode(ce_app_node_t *app) {
    if (app->nhop_num < 1) {
        CE_L3VPN_FAIL("app_node->nhop_num >= 1", CE_ERR_INTERBAL_NHOP_NUM,
                      "how could nhop_num is less than 1");
        return;
    }
    ce_nhop_node_t *oldest = ce_app_node_oldest_nhop(app);
    app->first_opcode = static_cast<uint8_t>(nhop_opcode(oldest));
    CE_L3VPN_LOG(CE_L3VPN_DEBUG, "app node set new first_opcode: %u", app->first_opcode);
    if (app->owner == CE_OWNER_ILM)
        ce_l3vpn_ilm_op_hw(app, oldest->in_adj, CE_HW_ADD, ce_l3vpn_ttl_copy);
    for (ce_list_t *l = app->nhop_list.prev; l != &app->nhop_list; l = l->prev)
        ce_app_set_to_ef(ce_nhop_of(l), CE_HW_ADD);
}

// Every node is rewritten, whatever one write returns.
int ce_in_adj_wk_add_hw(ce_in_adj_node_t *node, void *) {
    ce_in_adj_op_hw(node, CE_HW_ADD);
    return 0;
}

int ce_ilm_wk_add_hw(ce_app_node_t *app, void *) {
    ce_nhop_node_t *oldest = ce_app_node_oldest_nhop(app);
    if (oldest == nullptr) {
        CE_L3VPN_ERR_REC(CE_ERR_INTERBAL_NHOP_NUM);
        CE_L3VPN_LOG(CE_L3VPN_ERROR, "how could ilm has no nhop");
        return 1;
    }
    return ce_l3vpn_ilm_op_hw(app, oldest->in_adj, CE_HW_ADD, ce_l3vpn_ttl_copy);
}

// ---- global switches and recovery -----------------------------------------------------

int ce_l3vpn_app_init(void) {
    CE_L3VPN_LOG(CE_L3VPN_INFO, "app init");
    int rv = ce_ftn_db_create(0, CE_FTN_DB_SIZE);
    rv |= ce_vc_ftn_db_create(0, CE_VC_FTN_DB_SIZE);
    rv |= ce_ilm_db_create(0, CE_ILM_DB_SIZE);
    rv |= ce_l3vpn_in_adj_db_create(0, CE_IN_ADJ_DB_SIZE);
    if (rv != SS_E_NONE) CE_L3VPN_FAIL("rv == SS_E_NONE", CE_ERR_APP_DB_CREATE_DB, "");
    return rv;
}

// Written to FE only on a change.
int ce_l3vpn_app_mpls_enable_op(uint8_t enable) {
    CE_L3VPN_LOG(CE_L3VPN_DEBUG, ">>> app mpls %s ", enable ? "enable" : "disable");
    ce_l3vpn_app_ds_saw_mpls();
    if (ce_l3vpn_mpls_enable != enable) {
        ce_l3vpn_mpls_enable = enable;
        ce_l3vpn_mpls_enable_hw_op(enable);
    }
    CE_L3VPN_LOG(CE_L3VPN_DEBUG, "<<<< app mpls enable option Over ");
    return 0;
}

// A change rewrites every record that carries the TTL; the switch record itself
// is written on every request.
int ce_l3vpn_app_ttl_copy_op(uint8_t enable) {
    CE_L3VPN_LOG(CE_L3VPN_DEBUG, ">>> app ttl copy %s ", enable ? "enable" : "disable");
    ce_l3vpn_app_ds_saw_ttl();
    if (ce_l3vpn_ttl_copy != enable) {
        ce_l3vpn_ttl_copy = enable;
        ce_l3vpn_in_adj_db_walkthrough(ce_in_adj_wk_add_hw, nullptr);
        ce_app_node_db_walkthrough(CE_OWNER_ILM, ce_ilm_wk_add_hw, nullptr);
    }
    ce_l3vpn_ttl_copy_hw_op(enable);
    CE_L3VPN_LOG(CE_L3VPN_DEBUG, "<<<< app ttl copy option Over ");
    return 0;
}

// Takes the value FE already holds, so that later records agree with it.
int ce_ttl_copy_enable_recover(uint8_t enable) {
    ce_l3vpn_ttl_copy = enable;
    CE_L3VPN_LOG(CE_L3VPN_DEBUG, "recover ttl_copy to %s", enable ? "YES" : "NO");
    return 0;
}

int ce_l3vpn_app_in_adj_recover(const ce_msg_comm_t *msg, uint64_t mpls_id) {
    ce_in_adj_mpls_id_floor(mpls_id);
    return ce_in_adj_node_recover(msg, mpls_id);
}

int ce_l3vpn_app_ds_over(void) {
    for (uint32_t owner : {CE_OWNER_FTN, CE_OWNER_VC_FTN, CE_OWNER_ILM}) {
        const ce_app_db_t *db = ce_app_node_db_get_owner_db(owner);
        ds_sum_t sum{};
        ce_app_node_db_walkthrough(owner, ds_sum_walk, &sum);
        CE_L3VPN_LOG(CE_L3VPN_INFO, "data sync over, %s: entries:%u, nhops:%u, in ef:%u",
                     db->tbl.name, sum.entries, sum.nhops, sum.in_ef);
    }
    return 0;
}

void ce_l3vpn_app_reset(void) {
    ce_app_node_db_destroy_all();
    ce_l3vpn_in_adj_db_destroy();
    ce_l3vpn_mpls_enable = 0;
    ce_l3vpn_ttl_copy = 0;
    ce_in_adj_mpls_id = 0;
    ce_l3vpn_app_ds_reset();
    ce_l3vpn_app_wait_reset();
}
