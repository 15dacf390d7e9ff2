// Add and delete of forwarding entries, and the global switches.
#pragma once
#include <cstddef>
#include <cstdint>
#include "app/proc/ce_l3vpn_app_node_db.h"
#include "app/proc/ce_l3vpn_in_adj_db.h"
#include "app/proc/ce_l3vpn_msg.h"

enum { CE_HW_DEL = 0, CE_HW_ADD = 1 };

extern uint8_t ce_l3vpn_mpls_enable;  // the MPLS switch
extern uint8_t ce_l3vpn_ttl_copy;     // the TTL-copy switch

int ce_l3vpn_app_init(void);
int ce_l3vpn_app_add(ce_msg_comm_t *msg);
int ce_l3vpn_app_del(ce_msg_comm_t *msg);

ce_nhop_node_t *ce_app_node_add(ce_msg_comm_t *msg, bool *nhop_is_new);
void ce_bind_nhop_node_to_app_node(ce_nhop_node_t *nhop, ce_app_node_t *app);
void ce_app_node_del(ce_nhop_node_t *nhop);
void ce_app_op_hw(uint32_t owner, ce_nhop_node_t *nhop, uint8_t add_or_del);
void ce_app_set_to_ef(ce_nhop_node_t *nhop, uint8_t add_or_del);
void ce_opcode_chg_update_app_nhop_and_opcode(ce_app_node_t *app);
int ce_ilm_wk_add_hw(ce_app_node_t *app, void *arg);
// Walk callback that programs one inner adjacency to UC again (gate, add).
int ce_in_adj_wk_add_hw(ce_in_adj_node_t *node, void *arg);

int ce_l3vpn_app_mpls_enable_op(uint8_t enable);
int ce_l3vpn_app_ttl_copy_op(uint8_t enable);
int ce_ttl_copy_enable_recover(uint8_t enable);
// Rebuilds one inner adjacency read back from UC: id floor, then recovery.
int ce_l3vpn_app_in_adj_recover(const ce_msg_comm_t *msg, uint64_t mpls_id);
// End of a data sync: the walk over the app-node databases.
int ce_l3vpn_app_ds_over(void);

// ---- the forwarding state across a data sync (ce_l3vpn_app_sync.cpp) ----
// Every next hop that an input adds or re-adds is stamped with the current
// sync generation; what a replay did not stamp has lost its input.
extern uint32_t ce_l3vpn_sync_gen;
// Before the inputs are replayed: a new generation, no switch input seen yet.
void ce_l3vpn_app_ds_begin(void);
// Called by the switch operations: their input was seen during this sync.
// During the first sync of a process, an add waits for the end of the replay
// (true: taken, nothing to do now).
bool ce_l3vpn_app_ds_defer(const ce_msg_comm_t *msg);
void ce_l3vpn_app_ds_saw_mpls(void);
void ce_l3vpn_app_ds_saw_ttl(void);
// After the replay, before the sweep of the outputs: removes what lost its
// input while nobody listened, drops read-back adjacencies no entry claimed,
// and (when the state was live before the sync) rewrites every record the
// replay leaves alone, so the sweep keeps exactly what the state holds.
void ce_l3vpn_app_ds_settle(void);
void ce_l3vpn_app_ds_reset(void);  // tests: as a fresh process
// A sync has finished before: the state is live, not read back.
bool ce_l3vpn_app_ds_live(void);
// A sync whose reads failed: the adds held back are dropped, nothing is removed.
void ce_l3vpn_app_ds_abort(void);
// Frees all forwarding state and resets the switches and the id counter (tests).
void ce_l3vpn_app_reset(void);

// ---- records kept aside for capacity (ce_l3vpn_app_queue.cpp) ----
// A record refused for capacity (a new entry over the owner's capacity, a next
// hop beyond the ECMP path limit) waits; a newer version keeps its place.
// True when the record was not waiting before.
bool ce_l3vpn_app_wait_keep(const ce_msg_comm_t *msg);
// A delete of a waiting record: true when it was waiting (and is gone now).
bool ce_l3vpn_app_wait_drop(const ce_msg_comm_t *msg);
// The record's entry waits for room (its later records wait behind it).
bool ce_l3vpn_app_wait_entry(const ce_msg_comm_t *msg);
// This very record (entry and next hop) waits.
bool ce_l3vpn_app_wait_holds(const ce_msg_comm_t *msg);
// Programs what now fits, oldest first: after a delete, a raised capability, a sync.
void ce_l3vpn_app_wait_drain(uint32_t owner);
void ce_l3vpn_app_wait_drain_all(void);
// Drops the waiting records that the current data sync did not see again.
void ce_l3vpn_app_wait_sweep(void);
size_t ce_l3vpn_app_wait_count(uint32_t owner);
void ce_l3vpn_app_wait_reset(void);
