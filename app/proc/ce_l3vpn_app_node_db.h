// The app-node databases: one app node per FTN, VC-FTN or ILM key, with one
// nhop node per distinct next hop of the entry.
#pragma once
#include <cstdint>
#include "app/proc/ce_l3vpn_list.h"
#include "app/proc/ce_l3vpn_msg.h"
#include "keyed_table/keyed_table.h"

struct ce_in_adj_node_t;

struct ce_app_node_t {
    uint32_t owner;
    ce_msg_key_t key;
    uint8_t first_opcode;
    uint32_t nhop_num;
    ce_list_t nhop_list;  // newest first
};

struct ce_nhop_node_t {
    ce_nhop_t nhop;  // the next-hop identity
    ce_nhop_attr_t nhop_attr;
    ce_app_node_t *app_node;
    ce_list_t app_link;  // in app_node->nhop_list
    ce_in_adj_node_t *in_adj;
    ce_list_t in_adj_link;  // in in_adj->nhop_list
    uint8_t set_to_ef;
    uint32_t sync_gen;  // the data sync that last saw its input (ce_l3vpn_sync_gen)
};

struct ce_app_db_t {
    uint8_t valid;
    uint32_t v4_count;  // ftn: IPv4 keys; vc_ftn and ilm: all entries
    uint32_t v6_count;  // ftn only
    keyed_tbl_t tbl;
};

int ce_ftn_db_create(uint32_t id, uint32_t maxsize);
int ce_vc_ftn_db_create(uint32_t id, uint32_t maxsize);
int ce_ilm_db_create(uint32_t id, uint32_t maxsize);
// Frees every node of the three databases and the tables (tests, benchmarks).
void ce_app_node_db_destroy_all(void);

ce_app_db_t *ce_app_node_db_get_owner_db(uint32_t owner);
ce_app_node_t *ce_app_node_db_new_app_node(const ce_msg_comm_t *msg);
void ce_app_node_db_free_app_node(ce_app_node_t *node);
int ce_app_node_db_add_entry(ce_app_node_t *node);
ce_app_node_t *ce_app_node_db_get_entry(const ce_msg_comm_t *msg);
void ce_app_node_db_del_entry(ce_app_node_t *node);
int ce_app_node_db_walkthrough(uint32_t owner, int (*fn)(ce_app_node_t *node, void *arg),
                               void *arg);
ce_nhop_node_t *ce_app_node_db_new_nhop_node(const ce_msg_comm_t *msg);
void ce_app_node_db_del_nhop_node(ce_nhop_node_t *node);
ce_nhop_node_t *ce_app_node_db_cmp_nhop(ce_app_node_t *app, const ce_msg_comm_t *msg);

// The nhop node of a link in an app node's nhop_list.
inline ce_nhop_node_t *ce_nhop_of(ce_list_t *link) {
    return CE_LIST_ENTRY(link, ce_nhop_node_t, app_link);
}
// The oldest nhop node of an app node (tail of nhop_list), or null.
ce_nhop_node_t *ce_app_node_oldest_nhop(ce_app_node_t *app);
