// The forwarding state across a data sync. A sync replays every input; after
// it the state must be what the inputs alone give, whatever happened before:
// a restart (state rebuilt from the outputs read back), a reconnect or a
// repair of outputs changed behind the daemon's back (state already live).
#include <algorithm>
#include <cstring>
#include <numeric>
#include <vector>

#include "app/proc/ce_l3vpn_app.h"
#include "app/proc/ce_l3vpn_cap.h"
#include "app/proc/ce_l3vpn_err.h"
#include "app/proc/ce_l3vpn_proto_op.h"

uint32_t ce_l3vpn_sync_gen = 0;

namespace {
bool saw_mpls = false;
bool saw_ttl = false;
bool in_sync = false;
bool synced_once = false;  // a sync has finished: the state was live before this one
bool deferring = false;    // entries wait for the end of the replay (first sync only)
std::vector<ce_msg_comm_t> deferred;

// The delete message of a next hop whose input is gone: its entry's key, the
// next hop and its label operation identify it as the input's delete would.
ce_msg_comm_t del_msg_of(const ce_app_node_t *app, const ce_nhop_node_t *nhop) {
    ce_msg_comm_t msg{};
    msg.msg_event = CE_MSG_EVENT_DEL;
    msg.owner = app->owner;
    msg.key = app->key;
    msg.nhop = nhop->nhop;
    if (nhop->in_adj != nullptr) msg.data = nhop->in_adj->data;
    return msg;
}

int collect_unseen(ce_app_node_t *app, void *arg) {
    auto *out = static_cast<std::vector<ce_msg_comm_t> *>(arg);
    for (ce_list_t *l = app->nhop_list.prev; l != &app->nhop_list; l = l->prev)
        if (ce_nhop_of(l)->sync_gen != ce_l3vpn_sync_gen) out->push_back(del_msg_of(app, ce_nhop_of(l)));
    return 0;
}

int collect_unclaimed(ce_in_adj_node_t *node, void *arg) {
    if (ce_list_empty(&node->nhop_list))
        static_cast<std::vector<ce_in_adj_node_t *> *>(arg)->push_back(node);
    return 0;
}

// ---- replay order after a restart ----------------------------------------------------
// An entry's first next hop decides which of its label operations reach EF
// (and, for an ILM, FE). The inputs come back in the store's order, not in the
// order they first arrived, so after a restart the entries whose next hops
// disagree are replayed with the next hops the lower layers already hold first.

bool same_entry(const ce_msg_comm_t &a, const ce_msg_comm_t &b) {
    return a.owner == b.owner && memcmp(&a.key, &b.key, sizeof a.key) == 0;
}

bool entry_less(const ce_msg_comm_t &a, const ce_msg_comm_t &b) {
    if (a.owner != b.owner) return a.owner < b.owner;
    return memcmp(&a.key, &b.key, sizeof a.key) < 0;
}

// Next hops whose label operations could make a different first choice.
bool choice_matters(const std::vector<uint32_t> &group) {
    const ce_msg_data_t &first = deferred[group[0]].data;
    for (uint32_t i : group) {
        const ce_msg_data_t &d = deferred[i].data;
        if (deferred[i].owner == CE_OWNER_ILM ? memcmp(&d, &first, sizeof d) != 0
                                              : d.opcode != first.opcode)
            return true;
    }
    return false;
}

// 0: FE holds this ILM next hop's in-label; 1: EF holds its route; 2: neither.
int held_rank(const ce_msg_comm_t &msg) {
    ce_in_adj_node_t *adj = ce_l3vpn_in_adj_db_get_entry(&msg);
    if (adj == nullptr) return 2;  // no adjacency read back: nothing of it was programmed
    ce_app_node_t app{};
    app.owner = msg.owner;
    app.key = msg.key;
    app.first_opcode = msg.data.opcode;
    ce_list_init(&app.nhop_list);
    ce_nhop_node_t nhop{};
    nhop.nhop = msg.nhop;
    nhop.nhop_attr = msg.nhop_attr;
    nhop.app_node = &app;
    nhop.in_adj = adj;
    if (msg.owner == CE_OWNER_ILM && ce_l3vpn_ilm_fe_held(&app, adj, ce_l3vpn_ttl_copy)) return 0;
    return ce_l3vpn_ef_route_held(&nhop) ? 1 : 2;
}

// Owners with more entries to replay than their capacity holds: the entries
// programmed before the restart go first, so the same ones are programmed
// again and the rest wait, rather than a new draw in the store's order.
std::vector<bool> owners_over_capacity(const std::vector<uint32_t> &by_entry) {
    std::vector<uint32_t> entries(CE_OWNER_ILM + 1, 0);
    for (size_t i = 0; i < by_entry.size(); ++i)
        if (i == 0 || !same_entry(deferred[by_entry[i - 1]], deferred[by_entry[i]]))
            ++entries[deferred[by_entry[i]].owner % (CE_OWNER_ILM + 1)];
    std::vector<bool> over(CE_OWNER_ILM + 1, false);
    over[CE_OWNER_VC_FTN] = entries[CE_OWNER_VC_FTN] > ce_l3vpn_cap_app_room_left(CE_OWNER_VC_FTN);
    over[CE_OWNER_ILM] = entries[CE_OWNER_ILM] > ce_l3vpn_cap_app_room_left(CE_OWNER_ILM);
    return over;
}

// The order to apply the deferred entries in: the store's order, except that
// within an entry whose choice matters the held next hops take the first
// places, and, for an owner over its capacity, held entries come first.
std::vector<uint32_t> replay_order(void) {
    std::vector<uint32_t> by_entry(deferred.size());
    std::iota(by_entry.begin(), by_entry.end(), 0u);
    std::stable_sort(by_entry.begin(), by_entry.end(), [](uint32_t a, uint32_t b) {
        return entry_less(deferred[a], deferred[b]);
    });
    const std::vector<bool> over = owners_over_capacity(by_entry);
    std::vector<uint32_t> order(deferred.size());
    std::iota(order.begin(), order.end(), 0u);
    std::vector<bool> held(deferred.size(), true);
    for (size_t lo = 0, hi = 0; lo < by_entry.size(); lo = hi) {
        hi = lo + 1;
        while (hi < by_entry.size() && same_entry(deferred[by_entry[lo]], deferred[by_entry[hi]])) ++hi;
        std::vector<uint32_t> group(by_entry.begin() + lo, by_entry.begin() + hi);
        const bool pressed = over[deferred[group[0]].owner % over.size()];
        const bool choose = group.size() >= 2 && choice_matters(group);
        if (!pressed && !choose) continue;
        std::vector<int> rank(group.size());
        for (size_t i = 0; i < group.size(); ++i) rank[i] = held_rank(deferred[group[i]]);
        if (pressed) {
            bool any = *std::min_element(rank.begin(), rank.end()) < 2;
            for (uint32_t i : group) held[i] = any;
        }
        if (!choose) continue;
        std::vector<uint32_t> pos(group.size());
        std::iota(pos.begin(), pos.end(), 0u);
        std::stable_sort(pos.begin(), pos.end(), [&](uint32_t a, uint32_t b) { return rank[a] < rank[b]; });
        // group holds the entry's places in store order; fill them in rank order.
        for (size_t i = 0; i < group.size(); ++i) order[group[i]] = group[pos[i]];
    }
    std::stable_partition(order.begin(), order.end(), [&](uint32_t i) { return held[i]; });
    return order;
}

void apply_deferred(void) {
    deferring = false;
    if (deferred.empty()) return;
    std::vector<uint32_t> order = replay_order();
    for (uint32_t i : order) ce_l3vpn_app_add(&deferred[i]);
    std::vector<ce_msg_comm_t>().swap(deferred);
}

void remove_unseen_nhops(void) {
    std::vector<ce_msg_comm_t> gone;
    for (uint32_t owner : {CE_OWNER_FTN, CE_OWNER_VC_FTN, CE_OWNER_ILM})
        ce_app_node_db_walkthrough(owner, collect_unseen, &gone);
    for (ce_msg_comm_t &msg : gone) {
        CE_L3VPN_LOG(CE_L3VPN_INFO, "ds: input of %s entry gone, del nhop", ce_owner_name(msg.owner));
        CE_L3VPN_ERR_REC(CE_ERR_DS_INPUT_GONE);
        ce_l3vpn_app_del(&msg);
    }
}

// A recovered node that no replayed entry claimed has no input behind it; its
// UC record is swept with the other records the sync did not rewrite.
void drop_unclaimed_in_adj(void) {
    std::vector<ce_in_adj_node_t *> idle;
    ce_l3vpn_in_adj_db_walkthrough(collect_unclaimed, &idle);
    for (ce_in_adj_node_t *node : idle) ce_l3vpn_in_adj_db_del_entry(node);
}
}  // namespace

void ce_l3vpn_app_ds_begin(void) {
    ++ce_l3vpn_sync_gen;
    saw_mpls = false;
    saw_ttl = false;
    in_sync = true;
    deferring = !synced_once;
}

bool ce_l3vpn_app_ds_defer(const ce_msg_comm_t *msg) {
    if (!deferring) return false;
    deferred.push_back(*msg);
    return true;
}

void ce_l3vpn_app_ds_saw_mpls(void) { saw_mpls = true; }
void ce_l3vpn_app_ds_saw_ttl(void) { saw_ttl = true; }

void ce_l3vpn_app_ds_settle(void) {
    if (!in_sync) return;
    in_sync = false;
    apply_deferred();
    remove_unseen_nhops();
    ce_l3vpn_app_wait_sweep();
    ce_l3vpn_app_wait_drain_all();
    // A switch whose input is gone goes off, as its delete would have done.
    if (!saw_mpls && ce_l3vpn_mpls_enable != 0) ce_l3vpn_app_mpls_enable_op(0);
    if (!saw_ttl && ce_l3vpn_ttl_copy != 0) ce_l3vpn_app_ttl_copy_op(0);
    drop_unclaimed_in_adj();
    if (synced_once) {
        // The replay rewrites only what it changes: UC records of adjacencies
        // already in use, in-labels of entries with several next hops and an
        // unchanged MPLS switch are written again here (unchanged ones cost no
        // write in the store while the sync is open).
        ce_l3vpn_in_adj_db_walkthrough(ce_in_adj_wk_add_hw, nullptr);
        ce_app_node_db_walkthrough(CE_OWNER_ILM, ce_ilm_wk_add_hw, nullptr);
        if (ce_l3vpn_mpls_enable != 0) ce_l3vpn_mpls_enable_hw_op(1);
    }
    synced_once = true;
}

bool ce_l3vpn_app_ds_live(void) { return synced_once; }

// Nothing is removed: the next sync sees every input again.
void ce_l3vpn_app_ds_abort(void) {
    in_sync = false;
    deferring = false;
    std::vector<ce_msg_comm_t>().swap(deferred);
}

void ce_l3vpn_app_ds_reset(void) {
    ce_l3vpn_sync_gen = 0;
    in_sync = false;
    synced_once = false;
    deferring = false;
    deferred.clear();
}
