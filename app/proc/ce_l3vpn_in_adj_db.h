// The inner-adjacency database: one node per distinct label operation (owner,
// family, the 52 data bytes), each with its 64-bit MPLS id.
#pragma once
#include <cstdint>
#include "app/proc/ce_l3vpn_list.h"
#include "app/proc/ce_l3vpn_msg.h"
#include "keyed_table/keyed_table.h"

struct ce_nhop_node_t;

struct ce_in_adj_node_t {
    uint32_t owner;
    uint32_t pro;
    ce_msg_data_t data;
    uint64_t mpls_id;     // high part in the upper 32 bits; 0 = none
    ce_list_t nhop_list;  // bound nhop nodes
};

struct ce_in_adj_db_t {
    uint8_t valid;
    uint32_t v4_count;
    uint32_t v6_count;
    keyed_tbl_t tbl;
};

extern ce_in_adj_db_t ce_in_adj_db;
extern uint64_t ce_in_adj_mpls_id;  // the allocator's counter

inline uint32_t ce_mpls_id_high(uint64_t id) { return static_cast<uint32_t>(id >> 32); }
inline uint32_t ce_mpls_id_low(uint64_t id) { return static_cast<uint32_t>(id); }

int ce_l3vpn_in_adj_db_create(uint32_t id, uint32_t maxsize);
void ce_l3vpn_in_adj_db_destroy(void);
ce_in_adj_node_t *ce_l3vpn_in_adj_db_new_node(const ce_msg_comm_t *msg);
void ce_l3vpn_in_adj_db_free_node(ce_in_adj_node_t *node);
int ce_l3vpn_in_adj_db_add_entry(ce_in_adj_node_t *node);
ce_in_adj_node_t *ce_l3vpn_in_adj_db_get_entry(const ce_msg_comm_t *msg);
void ce_l3vpn_in_adj_db_del_entry(ce_in_adj_node_t *node);
int ce_l3vpn_in_adj_db_walkthrough(int (*fn)(ce_in_adj_node_t *node, void *arg), void *arg);

// Finds or creates (with a new MPLS id) the node of the message; null on failure.
ce_in_adj_node_t *ce_in_adj_node_get_or_add(const ce_msg_comm_t *msg);
void ce_in_adj_alloc_mpls_id(ce_in_adj_node_t *node);
void ce_in_adj_mpls_id_floor(uint64_t mpls_id);
int ce_in_adj_node_recover(const ce_msg_comm_t *msg, uint64_t mpls_id);
void ce_nhop_bind_in_adj(ce_nhop_node_t *nhop, ce_in_adj_node_t *new_node);
// The gate in front of UC: programs (or withdraws) a node when its opcode and
// owner say so, with the TTL of the owner and the TTL-copy switch.
int ce_in_adj_op_hw(ce_in_adj_node_t *node, uint8_t add);
