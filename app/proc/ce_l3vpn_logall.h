// Text dumps of the databases for operators: aligned tables on standard
// output (debug commands) and per-entry log lines.
#pragma once
#include <cstdint>

#include "app/proc/ce_l3vpn_app_node_db.h"
#include "app/proc/ce_l3vpn_in_adj_db.h"

// Prints one entry with its next hops; returns the number of next hops.
int ce_l3vpn_dump_app_node(const ce_app_node_t *app, int is_form);
// Prints up to `count` entries of an owner's database (0: all), newest first;
// returns the number printed.
int ce_l3vpn_dump_app_db(uint32_t owner, int count, int is_form);
int ce_l3vpn_dump_in_adj_node(const ce_in_adj_node_t *node, int is_form);
int ce_l3vpn_dump_in_adj_db(int count, int is_form);
// Logs every entry and inner adjacency at INFO.
int ce_l3vpn_logall(void);
