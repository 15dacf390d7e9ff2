// The global switch handlers (MPLS, TTL copy, label switching per interface)
// and the read-back of the daemon's own earlier output during a data sync.
#pragma once
#include "platform/mom/tq_mom.h"

int ce_l3_mpls_enable_set(void *value, void *arg);
int ce_l3_mpls_enable_del(void *value, void *arg);
int ce_l3_ttl_copy_set(void *value, void *arg);
int ce_l3_ttl_copy_del(void *value, void *arg);
int ce_l3_ifx_lab_sw_set(void *value, void *arg);
int ce_l3_ifx_lab_sw_del(void *value, void *arg);

// Scan callbacks: one call per stored record, the record in reply->value.
int ce_l3_ttl_copy_bak_cb(void *global, tq_mom_msg_t *reply, void *arg);
int ce_l3_in_adj_bak_cb(void *global, tq_mom_msg_t *reply, void *arg);
